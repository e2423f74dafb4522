#include "htmlStripper/htmlStripper.h"

#include <cctype>
#include <cstring>
#include <strings.h>
#include <vector>

namespace htmlStripper {

namespace {

struct Entity {
    std::string_view name;
    char character;
};
// Tried in this order; the first name that the text starts with wins.
constexpr Entity kEntities[] = {{"nbsp", ' '}, {"lt", '<'},    {"gt", '>'},  {"quot", '"'},
                                {"amp", '&'},  {"tilde", '~'}, {"circ", '^'}};

// The length of the entity text at the start of rest (after an ampersand), name and optional
// ";", with its character; 0 when it starts none of the names.
std::size_t matchEntity(std::string_view rest, char& character) {
    for (const Entity& entity : kEntities) {
        const std::size_t length = entity.name.size();
        if (rest.size() >= length && ::strncasecmp(rest.data(), entity.name.data(), length) == 0) {
            character = entity.character;
            return length + (rest.size() > length && rest[length] == ';' ? 1 : 0);
        }
    }
    return 0;
}

// Latin-1's printable characters: all but the control characters (below 32, 127 and the C1
// range 128-159), so that accented letters stay letters.
bool isPrintableLatin1(unsigned char c) {
    return c >= 0x20 && c != 0x7F && (c < 0x80 || c >= 0xA0);
}

} // namespace

void appendDecodedEntities(std::string& out, std::string_view text) {
    out.reserve(out.size() + text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        // Whole runs without an ampersand go in one copy.
        const void* found = std::memchr(text.data() + i, '&', text.size() - i);
        const std::size_t amp =
            found ? static_cast<std::size_t>(static_cast<const char*>(found) - text.data())
                  : text.size();
        out.append(text.data() + i, amp - i);
        if (amp == text.size())
            break;
        char character = '&';
        const std::size_t length = matchEntity(text.substr(amp + 1), character);
        out += character;
        i = amp + 1 + length;
    }
}

std::string decodeEntities(const std::string& text) {
    std::string out;
    appendDecodedEntities(out, text);
    return out;
}

std::string stripMarkup(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    std::vector<char> quotes;
    bool inTag = false;
    for (char c : text) {
        if (c == '"' || c == '\'') {
            if (!quotes.empty() && quotes.back() == c)
                quotes.pop_back();
            else
                quotes.push_back(c);
            continue;
        }
        if (!quotes.empty())
            continue;
        if (c == '<') {
            inTag = true;
        } else if (c == '>') {
            inTag = false;
            out += ' ';
        } else if (!inTag) {
            out += isPrintableLatin1(static_cast<unsigned char>(c)) ? c : ' ';
        }
    }
    return decodeEntities(out);
}

std::string plainText(const std::string& html) {
    std::string text;
    text.reserve(html.size());
    bool inTag = false;
    for (char c : html) {
        if (c == '<')
            inTag = true;
        else if (c == '>' && inTag) {
            inTag = false;
            text += ' ';
        } else if (!inTag)
            text += c;
    }
    const std::string decoded = decodeEntities(text);
    std::string out;
    for (char c : decoded) {
        const bool blank = std::isspace(static_cast<unsigned char>(c)) != 0;
        if (!blank)
            out += c;
        else if (!out.empty() && out.back() != ' ')
            out += ' ';
    }
    while (!out.empty() && out.back() == ' ')
        out.pop_back();
    return out;
}

} // namespace htmlStripper
