#include "templateProcessor/templateProcessor.h"

#include <sstream>

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

namespace {

// The text outside blocks and the block bodies, in order: pieces[0], body 0, pieces[1], ...
struct Blocks {
    std::vector<std::string> pieces;
    std::vector<std::string> bodies;
};

Blocks splitBlocks(const std::string& text) {
    Blocks blocks;
    std::size_t position = 0;
    for (;;) {
        const std::size_t start = text.find(kRepeat, position);
        const std::size_t stray = text.find(kEndRepeat, position);
        if (stray != std::string::npos && (start == std::string::npos || stray < start))
            throw Exception("Template error: {%/REPEAT%} without {%REPEAT%}" + offsetText(stray));
        if (start == std::string::npos)
            break;
        blocks.pieces.push_back(text.substr(position, start - position));
        const std::size_t bodyStart = start + kRepeat.size();
        const std::size_t end = text.find(kEndRepeat, bodyStart);
        if (end == std::string::npos)
            throw Exception("Template error: {%REPEAT%} without {%/REPEAT%}" + offsetText(start));
        std::string body = text.substr(bodyStart, end - bodyStart);
        if (body.find(kRepeat) != std::string::npos)
            throw Exception("Template error: {%REPEAT%} blocks do not nest" +
                            offsetText(bodyStart + body.find(kRepeat)));
        blocks.bodies.push_back(std::move(body));
        position = end + kEndRepeat.size();
    }
    blocks.pieces.push_back(text.substr(position));
    return blocks;
}

} // namespace

void process(const std::string& text, const Variables& variables, std::size_t rowCount,
             const RowSource& row, std::ostream& out) {
    const Blocks blocks = splitBlocks(text);
    std::string chunk;
    for (std::size_t b = 0; b < blocks.pieces.size(); ++b) {
        chunk.clear();
        expand(blocks.pieces[b], variables, nullptr, chunk);
        out << chunk;
        if (b == blocks.bodies.size())
            break;
        for (std::size_t r = 0; r < rowCount; ++r) {
            chunk.clear();
            expand(blocks.bodies[b], row(r), &variables, chunk);
            out << chunk;
        }
    }
}

std::string process(const std::string& text, const Variables& variables,
                    const std::vector<Variables>& rows) {
    std::ostringstream out;
    process(
        text, variables, rows.size(), [&](std::size_t r) { return rows[r]; }, out);
    return out.str();
}

} // namespace templateProcessor
