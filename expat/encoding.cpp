#include "expat/encoding.h"

#include <cerrno>
#include <cstring>
#include <iconv.h>
#include <strings.h>

namespace expat {

namespace {

// An iconv conversion descriptor, closed when it goes.
class Converter {
public:
    Converter(const char* to, const std::string& from) : m_cd(::iconv_open(to, from.c_str())) {}
    ~Converter() {
        if (isOpen())
            ::iconv_close(m_cd);
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    bool isOpen() const { return m_cd != reinterpret_cast<iconv_t>(-1); }
    void reset() { ::iconv(m_cd, nullptr, nullptr, nullptr, nullptr); }
    // Converts what it can; returns false with errno set when it stops early.
    bool convert(const char*& in, std::size_t& inLeft, char*& out, std::size_t& outLeft) {
        auto* input = const_cast<char*>(in); // iconv's signature; it never writes the input
        const bool ok = ::iconv(m_cd, &input, &inLeft, &out, &outLeft) != static_cast<size_t>(-1);
        in = input;
        return ok;
    }

private:
    iconv_t m_cd;
};

// The encodings expat reads without help.
bool isBuiltIn(const std::string& encoding) {
    for (const char* name : {"UTF-8", "UTF-16", "UTF-16BE", "UTF-16LE", "ISO-8859-1", "US-ASCII"})
        if (::strcasecmp(name, encoding.c_str()) == 0)
            return true;
    return false;
}

// Where the declaration's encoding name stands: {offset, length}, or {0, 0} when it has none.
std::pair<std::size_t, std::size_t> encodingNameAt(const std::string& document) {
    if (document.compare(0, 5, "<?xml") != 0)
        return {0, 0};
    const std::size_t end = document.find("?>");
    if (end == std::string::npos)
        return {0, 0};
    std::size_t at = document.find("encoding", 5);
    if (at == std::string::npos || at > end)
        return {0, 0};
    at += 8;
    while (at < end && (document[at] == ' ' || document[at] == '\t' || document[at] == '\r' ||
                        document[at] == '\n' || document[at] == '='))
        ++at;
    if (at >= end || (document[at] != '"' && document[at] != '\''))
        return {0, 0};
    const std::size_t close = document.find(document[at], at + 1);
    if (close == std::string::npos || close > end)
        return {0, 0};
    return {at + 1, close - at - 1};
}

// Names documents use that iconv knows by another.
std::string iconvName(const std::string& encoding) {
    for (const char* macRoman : {"macroman", "mac-roman", "x-mac-roman"})
        if (::strcasecmp(encoding.c_str(), macRoman) == 0)
            return "MACINTOSH";
    return encoding;
}

// Appends the text converted from the encoding to UTF-8; false when iconv does not know it.
bool convertInto(std::string& result, const std::string& encoding, const char* in,
                 std::size_t inLeft) {
    Converter converter("UTF-8", encoding);
    if (!converter.isOpen())
        return false;
    std::string buffer(64 * 1024, '\0');
    while (inLeft > 0) {
        char* out = buffer.data();
        std::size_t outLeft = buffer.size();
        const bool ok = converter.convert(in, inLeft, out, outLeft);
        const int error = errno;
        result.append(buffer.data(), buffer.size() - outLeft);
        if (ok || error == E2BIG)
            continue;
        result += '?'; // a sequence the encoding does not allow, or one cut off at the end
        ++in;
        --inLeft;
        converter.reset();
    }
    return true;
}

// The byte order of a document laid out in UTF-16 (by its byte-order mark or its first
// "<?"), or null.
const char* utf16Layout(const std::string& document) {
    if (document.compare(0, 2, "\xFE\xFF") == 0 ||
        document.compare(0, 4, std::string("\0<\0?", 4)) == 0)
        return "UTF-16BE";
    if (document.compare(0, 2, "\xFF\xFE") == 0 ||
        document.compare(0, 4, std::string("<\0?\0", 4)) == 0)
        return "UTF-16LE";
    return nullptr;
}

// A UTF-16 document whose declaration names what expat does not know (such as "utf16"):
// its byte layout says what it is.
std::optional<std::string> utf16ToUtf8(const std::string& document, const char* layout) {
    const std::size_t bom = static_cast<unsigned char>(document[0]) >= 0xFE ? 2 : 0;
    std::string utf8;
    if (!convertInto(utf8, layout, document.data() + bom, document.size() - bom))
        return std::nullopt;
    const auto [at, length] = encodingNameAt(utf8);
    if (length == 0 || isBuiltIn(utf8.substr(at, length)))
        return std::nullopt;
    return utf8.replace(at, length, "UTF-8");
}

} // namespace

std::optional<std::array<int, 256>> singleByteTable(const std::string& encoding) {
    Converter converter("UTF-32LE", iconvName(encoding));
    if (!converter.isOpen())
        return std::nullopt;
    std::array<int, 256> table{};
    for (int byte = 0; byte < 256; ++byte) {
        const char in = static_cast<char>(byte);
        const char* input = &in;
        std::size_t inLeft = 1;
        unsigned char buffer[16];
        char* out = reinterpret_cast<char*>(buffer);
        std::size_t outLeft = sizeof buffer;
        converter.reset();
        if (!converter.convert(input, inLeft, out, outLeft)) {
            if (errno != EILSEQ)
                return std::nullopt; // a byte that starts a longer sequence
            table[static_cast<std::size_t>(byte)] = -1;
            continue;
        }
        if (sizeof buffer - outLeft != 4)
            return std::nullopt; // a shift state or a byte worth several characters
        table[static_cast<std::size_t>(byte)] =
            buffer[0] | buffer[1] << 8 | buffer[2] << 16 | buffer[3] << 24;
    }
    return table;
}

std::string declaredEncoding(const std::string& document) {
    const auto [at, length] = encodingNameAt(document);
    return document.substr(at, length);
}

std::optional<std::string> convertedToUtf8(const std::string& document) {
    if (const char* layout = utf16Layout(document))
        return utf16ToUtf8(document, layout);
    const auto [at, length] = encodingNameAt(document);
    const std::string encoding = document.substr(at, length);
    if (encoding.empty() || isBuiltIn(encoding) || singleByteTable(encoding))
        return std::nullopt;
    std::string result = document.substr(0, at) + "UTF-8";
    if (!convertInto(result, iconvName(encoding), document.data() + at + length,
                     document.size() - at - length))
        return std::nullopt;
    return result;
}

} // namespace expat
