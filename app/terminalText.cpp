#include "app/terminalText.h"

namespace app {

std::string toUtf8(const std::string& latin1) {
    std::string out;
    out.reserve(latin1.size());
    for (char c : latin1) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            out += c;
        } else {
            out += static_cast<char>(0xC0 | (byte >> 6));
            out += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
    return out;
}

std::string toTerminal(const std::string& latin1) {
    std::string out;
    out.reserve(latin1.size());
    appendTerminal(out, latin1);
    return out;
}

void appendTerminal(std::string& out, std::string_view latin1) {
    static constexpr char kHex[] = "0123456789abcdef";
    for (char c : latin1) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || (byte >= 0x7F && byte < 0xA0)) {
            out += "\\x";
            out += kHex[byte >> 4];
            out += kHex[byte & 0xF];
        } else if (byte < 0x80) {
            out += c;
        } else {
            out += static_cast<char>(0xC0 | (byte >> 6));
            out += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
}

} // namespace app
