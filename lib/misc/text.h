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

// The value of a hexadecimal digit, or -1.
inline int hexDigitValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The text with every "%XX" (two hex digits) replaced by its byte; other "%" stay.
inline std::string percentDecoded(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int high = i + 2 < text.size() && text[i] == '%' ? hexDigitValue(text[i + 1]) : -1;
        const int low = high >= 0 ? hexDigitValue(text[i + 2]) : -1;
        if (low >= 0) {
            out += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// A file name's extension as a path splits it: from the last "." of the last component to its
// end, the dot included, even when the name starts with it (".plugin", ".py"); "" without one.
inline std::string fileExtension(const std::string& path) {
    const std::size_t slash = path.find_last_of("/\\");
    const std::size_t dot = path.rfind('.');
    return dot == std::string::npos || (slash != std::string::npos && dot < slash)
               ? std::string()
               : path.substr(dot);
}

} // namespace misc
