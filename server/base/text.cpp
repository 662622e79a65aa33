#include "base/text.h"

#include <string.h>

namespace vekt {

size_t copyBounded(char* dest, size_t size, const char* src, size_t length) {
    if (dest == nullptr || size == 0) return 0;
    size_t copied = src == nullptr ? 0 : strnlen(src, length < size - 1 ? length : size - 1);
    if (copied > 0) memcpy(dest, src, copied);
    dest[copied] = '\0';
    return copied;
}

std::vector<std::string> splitList(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(separator, start);
        if (end == std::string::npos) end = text.size();
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return pieces;
}

}  // namespace vekt
