#include "templateProcessor/templateProcessor.h"

namespace templateProcessor {

namespace {

const std::string kRepeat = "{%REPEAT%}";
const std::string kEndRepeat = "{%/REPEAT%}";
const std::string kRawPrefix = "RAW:";

const std::string* lookUp(const std::string& name, const Variables& first,
                          const Variables* second) {
    if (auto it = first.find(name); it != first.end())
        return &it->second;
    if (second)
        if (auto it = second->find(name); it != second->end())
            return &it->second;
    return nullptr;
}

// Expands the variables of text (no blocks in it).
void expand(const std::string& text, const Variables& first, const Variables* second,
            std::string& out) {
    std::size_t position = 0;
    while (position < text.size()) {
        const std::size_t open = text.find("{%", position);
        if (open == std::string::npos)
            break;
        const std::size_t close = text.find("%}", open + 2);
        if (close == std::string::npos)
            break;
        out.append(text, position, open - position);
        std::string name = text.substr(open + 2, close - open - 2);
        const bool raw = name.compare(0, kRawPrefix.size(), kRawPrefix) == 0;
        if (raw)
            name.erase(0, kRawPrefix.size());
        if (const std::string* value = lookUp(name, first, second))
            out += raw ? *value : escapeHtml(*value);
        else
            out.append(text, open, close + 2 - open); // not ours: left as it is
        position = close + 2;
    }
    out.append(text, position, std::string::npos);
}

std::string offsetText(std::size_t offset) { return " at offset " + std::to_string(offset); }

} // namespace

std::string escapeHtml(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string process(const std::string& text, const Variables& variables,
                    const std::vector<Variables>& rows) {
    std::string out;
    out.reserve(text.size());
    std::size_t position = 0;
    for (;;) {
        const std::size_t start = text.find(kRepeat, position);
        const std::size_t stray = text.find(kEndRepeat, position);
        if (stray != std::string::npos && (start == std::string::npos || stray < start))
            throw Exception("Template error: {%/REPEAT%} without {%REPEAT%}" + offsetText(stray));
        if (start == std::string::npos)
            break;
        expand(text.substr(position, start - position), variables, nullptr, out);
        const std::size_t bodyStart = start + kRepeat.size();
        const std::size_t end = text.find(kEndRepeat, bodyStart);
        if (end == std::string::npos)
            throw Exception("Template error: {%REPEAT%} without {%/REPEAT%}" + offsetText(start));
        const std::string body = text.substr(bodyStart, end - bodyStart);
        if (body.find(kRepeat) != std::string::npos)
            throw Exception("Template error: {%REPEAT%} blocks do not nest" +
                            offsetText(bodyStart + body.find(kRepeat)));
        for (const Variables& row : rows)
            expand(body, row, &variables, out);
        position = end + kEndRepeat.size();
    }
    expand(text.substr(position), variables, nullptr, out);
    return out;
}

} // namespace templateProcessor
