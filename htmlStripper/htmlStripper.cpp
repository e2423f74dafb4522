#include "htmlStripper/htmlStripper.h"

#include <cctype>
#include <strings.h>
#include <vector>

namespace htmlStripper {

namespace {

struct Entity {
    const char* name;
    char character;
};
// Tried in this order; the first name that the text starts with wins.
constexpr Entity kEntities[] = {{"nbsp", ' '}, {"lt", '<'},    {"gt", '>'},  {"quot", '"'},
                                {"amp", '&'},  {"tilde", '~'}, {"circ", '^'}};

} // namespace

std::string decodeEntities(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '&') {
            out += text[i];
            continue;
        }
        bool decoded = false;
        for (const Entity& entity : kEntities) {
            const std::size_t length = std::char_traits<char>::length(entity.name);
            if (text.size() - (i + 1) >= length &&
                ::strncasecmp(text.c_str() + i + 1, entity.name, length) == 0) {
                out += entity.character;
                i += length;
                if (i + 1 < text.size() && text[i + 1] == ';')
                    ++i;
                decoded = true;
                break;
            }
        }
        if (!decoded)
            out += '&';
    }
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
            out += std::isprint(static_cast<unsigned char>(c)) ? c : ' ';
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
