#include "app/terminalText.h"

namespace app {

namespace {

// One Latin-1 character as UTF-8.
void appendUtf8(std::string& out, char c) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
        out += c;
    } else {
        out += static_cast<char>(0xC0 | (byte >> 6));
        out += static_cast<char>(0x80 | (byte & 0x3F));
    }
}

} // namespace

std::string toUtf8(const std::string& latin1) {
    std::string out;
    out.reserve(latin1.size());
    for (char c : latin1)
        appendUtf8(out, c);
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
        } else {
            appendUtf8(out, c);
        }
    }
}

} // namespace app
