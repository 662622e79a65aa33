// The two text helpers every subsystem needs: a bounded copy into a fixed field and the
// split of the protocol's comma-separated lists.
#pragma once

#include <stddef.h>

#include <string>
#include <vector>

namespace vekt {

// Copies at most size - 1 characters of src (and never more than length) into dest and
// terminates it; nothing happens when size is 0. Returns the number of characters copied.
size_t copyBounded(char* dest, size_t size, const char* src, size_t length = static_cast<size_t>(-1));

// Splits a comma-separated list the way every list of the control protocol is split:
// no trimming, empty pieces between two commas are kept, a trailing comma adds none,
// and the empty text gives no piece at all.
std::vector<std::string> splitList(const std::string& text, char separator = ',');

}  // namespace vekt
