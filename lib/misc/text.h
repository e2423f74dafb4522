// Small text helpers shared by the modules.
#pragma once

#include <cctype>
#include <string>

namespace misc {

// The text with ASCII letters in lower case (names compare without regard to case).
inline std::string lowered(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// The text without the white space (the C library's notion) at its ends.
inline std::string trimmed(const std::string& text) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(text[begin])))
        ++begin;
    while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1])))
        --end;
    return text.substr(begin, end - begin);
}

} // namespace misc
