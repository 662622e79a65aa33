#pragma once

#include <string>
#include <vector>

namespace vekt {

// Splits a comma-separated list the way every list of the control protocol is split:
// no trimming, empty pieces between two commas are kept, a trailing comma adds none,
// and the empty text gives no piece at all.
std::vector<std::string> splitList(const std::string& text, char separator = ',');

}  // namespace vekt
