// Bytes of wire messages for the tests that play a kernel: written out in hex ("0600 0100"),
// joined, or taken from a structure as it lies in memory.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace vekt::test {

using Bytes = std::vector<uint8_t>;

// Two hex digits a byte; blanks are only for the reader.
inline Bytes hex(const std::string& text) {
    Bytes bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ' ') continue;
        bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(i++, 2), nullptr, 16)));
    }
    return bytes;
}

inline Bytes operator+(Bytes head, const Bytes& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

template <typename T>
Bytes bytesOf(const T& value) {
    const auto* p = reinterpret_cast<const uint8_t*>(&value);
    return Bytes(p, p + sizeof(value));
}

}  // namespace vekt::test
