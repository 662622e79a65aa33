#include "config/text_split.h"

namespace vekt {

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
