#include "lib/misc/iniValues.h"

#include "lib/misc/profileFile.h"
#include "lib/misc/text.h"

#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace profile {

std::string escapeIniValue(std::string_view value) {
    std::string out;
    out.reserve(value.size() + 8);
    appendEscapedIniValue(out, value);
    return out;
}

void appendEscapedIniValue(std::string& out, std::string_view value) {
    // Which bytes are written as escapes: "%" and those that are not printable.
    static const auto needsEscape = [] {
        std::array<bool, 256> table{};
        for (int byte = 0; byte < 256; ++byte)
            table[static_cast<size_t>(byte)] = byte == '%' || !std::isprint(byte);
        return table;
    }();
    static const char digits[] = "0123456789ABCDEF";
    // Whether any of eight bytes is below ' ', above '~' or a '%' (exact, position aside).
    const auto anyToEscape = [](std::uint64_t word) {
        constexpr std::uint64_t ones = 0x0101010101010101ull, highs = 0x8080808080808080ull;
        const std::uint64_t below = (word - ones * 0x20) & ~word;
        const std::uint64_t above = (word + ones * (0x7F - 0x7E)) | word; // > 0x7E sets a high bit
        const std::uint64_t percent = word ^ (ones * '%');
        const std::uint64_t isPercent = (percent - ones) & ~percent;
        return ((below | above | isPercent) & highs) != 0;
    };
    size_t runStart = 0;
    const auto escapeFrom = [&](size_t begin, size_t end) {
        for (size_t i = begin; i < end; ++i) {
            const auto byte = static_cast<unsigned char>(value[i]);
            if (!needsEscape[byte])
                continue;
            out.append(value.substr(runStart, i - runStart));
            const char escape[3] = {'%', digits[byte >> 4], digits[byte & 0x0F]};
            out.append(escape, 3);
            runStart = i + 1;
        }
    };
    size_t i = 0;
    for (; i + 8 <= value.size(); i += 8) { // most text needs no escape: eight bytes at a time
        std::uint64_t word;
        std::memcpy(&word, value.data() + i, 8);
        if (anyToEscape(word))
            escapeFrom(i, i + 8);
    }
    escapeFrom(i, value.size());
    out.append(value.substr(runStart));
}

std::string unescapeIniValue(const std::string& value) { return misc::percentDecoded(value); }

std::string readIniString(const std::string& file, const std::string& section,
                          const std::string& key, const std::string& defaultValue, bool trim) {
    auto raw = readValue(file, section, key);
    if (!raw)
        return defaultValue;
    std::string value = unescapeIniValue(*raw);
    return trim ? misc::trimmed(value) : value;
}

bool writeIniString(const std::string& file, const std::string& section, const std::string& key,
                    const std::string& value) {
    return writeValue(file, section, key, escapeIniValue(value));
}

int parseIniInt(const std::string& text) {
    size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        negative = text[i++] == '-';
    std::uint32_t magnitude = 0; // wraps like the platform's conversion
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i)
        magnitude = magnitude * 10u + static_cast<std::uint32_t>(text[i] - '0');
    if (negative)
        magnitude = 0u - magnitude;
    return static_cast<int>(magnitude);
}

int readIniInt(const std::string& file, const std::string& section, const std::string& key,
               int defaultValue) {
    auto raw = readValue(file, section, key);
    if (!raw || raw->empty())
        return defaultValue;
    return parseIniInt(*raw);
}

int readIniIntRange(const std::string& file, const std::string& section, const std::string& key,
                    int minimum, int maximum, int defaultValue) {
    const int value = readIniInt(file, section, key, defaultValue);
    return value < minimum || value > maximum ? defaultValue : value;
}

bool readIniBool(const std::string& file, const std::string& section, const std::string& key,
                 bool defaultValue) {
    return readIniInt(file, section, key, defaultValue ? 1 : 0) != 0;
}

bool writeIniInt(const std::string& file, const std::string& section, const std::string& key,
                 int value) {
    return writeValue(file, section, key, std::to_string(value));
}

bool writeIniBool(const std::string& file, const std::string& section, const std::string& key,
                  bool value) {
    return writeValue(file, section, key, value ? "1" : "0");
}

bool deleteIniSection(const std::string& file, const std::string& section) {
    return deleteSection(file, section);
}

std::vector<std::string> listIniKeys(const std::string& file, const std::string& section) {
    return listKeys(file, section);
}

} // namespace profile
