#include "expat/parser.h"

#include "expat/encoding.h"
#include "lib/log/log.h"

#include <expat.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <cstring>

#ifdef __x86_64__
#include <immintrin.h>
#endif

namespace expat {

struct Callbacks {
    static void XMLCALL start(void* user, const XML_Char* name, const XML_Char** attributes) {
        static_cast<Parser*>(user)->startElement(name, attributes);
    }
    static void XMLCALL end(void* user, const XML_Char* name) {
        static_cast<Parser*>(user)->endElement(name);
    }
    static void XMLCALL characters(void* user, const XML_Char* text, int length) {
        static_cast<Parser*>(user)->characters(text, length);
    }
    static int XMLCALL unknownEncoding(void*, const XML_Char* name, XML_Encoding* info) {
        const auto table = singleByteTable(name);
        if (!table)
            return XML_STATUS_ERROR;
        for (std::size_t byte = 0; byte < table->size(); ++byte)
            info->map[byte] = (*table)[byte];
        info->data = nullptr;
        info->convert = nullptr;
        info->release = nullptr;
        return XML_STATUS_OK;
    }
};

namespace {

constexpr std::uint64_t kHighBits = 0x8080808080808080u;

// The index of the first byte with its high bit set in word (loaded from memory), given one.
std::size_t firstHighByte(std::uint64_t highBits) {
    if constexpr (std::endian::native == std::endian::little)
        return static_cast<std::size_t>(std::countr_zero(highBits)) / 8;
    else
        return static_cast<std::size_t>(std::countl_zero(highBits)) / 8;
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define PELSU_ASCII_AVX2
// Where the machine has AVX2, long text is tested 128 bytes at a time; this returns the start
// of the first block that holds another byte.
[[gnu::target("avx2")]] std::size_t asciiBlocksAvx2(const unsigned char* bytes,
                                                    std::size_t length) {
    std::size_t i = 0;
    for (; i + 128 <= length; i += 128) {
        const auto* block = static_cast<const __m256i*>(static_cast<const void*>(bytes + i));
        const __m256i any = _mm256_or_si256(
            _mm256_or_si256(_mm256_loadu_si256(block), _mm256_loadu_si256(block + 1)),
            _mm256_or_si256(_mm256_loadu_si256(block + 2), _mm256_loadu_si256(block + 3)));
        if (_mm256_movemask_epi8(any) != 0)
            break;
    }
    return i;
}

const bool kHasAvx2 = (__builtin_cpu_init(), __builtin_cpu_supports("avx2") != 0);
#endif

// How many bytes from the start are ASCII: whole blocks are tested at once (most feed text
// is ASCII), and the first other byte is located within its word without a byte loop.
std::size_t asciiPrefix(const unsigned char* bytes, std::size_t length) {
    std::size_t i = 0;
#ifdef PELSU_ASCII_AVX2
    if (kHasAvx2 && length >= 128)
        i = asciiBlocksAvx2(bytes, length);
#endif
#ifdef __SSE2__
    for (; i + 64 <= length; i += 64) {
        const auto* block = static_cast<const __m128i*>(static_cast<const void*>(bytes + i));
        const __m128i any =
            _mm_or_si128(_mm_or_si128(_mm_loadu_si128(block), _mm_loadu_si128(block + 1)),
                         _mm_or_si128(_mm_loadu_si128(block + 2), _mm_loadu_si128(block + 3)));
        if (_mm_movemask_epi8(any) != 0)
            break;
    }
#endif
    std::uint64_t word;
    for (; i + 8 <= length; i += 8) {
        std::memcpy(&word, bytes + i, sizeof word);
        if ((word & kHighBits) != 0)
            return i + firstHighByte(word & kHighBits);
    }
    if (i == length)
        return length;
    if (length >= sizeof word) {
        // The last word overlaps bytes already found ASCII, so its first other byte is new.
        std::memcpy(&word, bytes + length - sizeof word, sizeof word);
        return (word & kHighBits) != 0 ? length - sizeof word + firstHighByte(word & kHighBits)
                                       : length;
    }
    while (i < length && bytes[i] < 0x80)
        ++i;
    return i;
}

// Writes the character whose lead byte is at i to to; returns where the next one starts.
// expat hands over well-formed UTF-8 only; other bytes still give one deterministic result,
// and never more bytes than they take.
std::size_t convertNonAscii(const unsigned char* bytes, std::size_t i, std::size_t length,
                            char*& to) {
    const unsigned char lead = bytes[i];
    const int extra = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
    unsigned code = lead & (0x3Fu >> extra);
    for (int k = 1; k <= extra && i + static_cast<std::size_t>(k) < length; ++k)
        code = (code << 6) | (bytes[i + static_cast<std::size_t>(k)] & 0x3Fu);
    if (code < 0x100) {
        *to++ = static_cast<char>(code);
    } else {
        *to++ = '?';
        if (code >= 0x10000)
            *to++ = '?';
    }
    return i + static_cast<std::size_t>(extra) + 1;
}

// Element names fold as in the "C" locale, whatever locale the process runs in: under a
// Turkish one the C library folds "I" to another letter than "i", and "ITEM" would no longer
// be "item". A table, so that a name costs no call per character.
const std::int32_t* caseFolding() {
    static const std::array<std::int32_t, 256> table = [] {
        std::array<std::int32_t, 256> folded{};
        for (int c = 0; c < 256; ++c)
            folded[static_cast<std::size_t>(c)] = c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c;
        return folded;
    }();
    return table.data();
}

bool equalIgnoringCase(const std::int32_t* fold, const char* a, const char* b) {
    for (;; ++a, ++b) {
        if (fold[static_cast<unsigned char>(*a)] != fold[static_cast<unsigned char>(*b)])
            return false;
        if (*a == '\0')
            return true;
    }
}

// The same with the first name's folded characters at hand: one look-up per character.
bool matchesFolded(const std::int32_t* fold, const char* raw, const std::int32_t* folded,
                   const char* name) {
    for (;; ++raw, ++folded, ++name) {
        if (*name != *raw && fold[static_cast<unsigned char>(*name)] != *folded)
            return false;
        if (*raw == '\0')
            return true;
    }
}

} // namespace

void appendUtf8AsLatin1(std::string& out, const char* text, std::size_t length) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    std::size_t i = asciiPrefix(bytes, length);
    out.append(text, i);
    if (i == length)
        return;
    // The Latin-1 text is never longer than its UTF-8 form: write it in place, then cut.
    const std::size_t start = out.size();
    out.resize(start + (length - i));
    char* const begin = out.data() + start;
    char* to = begin;
    while (i < length) {
        if (bytes[i] >= 0x80) {
            i = convertNonAscii(bytes, i, length, to); // past the end after a cut sequence
            continue;
        }
        const std::size_t ascii = asciiPrefix(bytes + i, length - i);
        std::memcpy(to, text + i, ascii);
        to += ascii;
        i += ascii;
    }
    out.resize(start + static_cast<std::size_t>(to - begin));
}

namespace {
void XMLCALL ignoreStart(void*, const XML_Char*, const XML_Char**) {}
void XMLCALL ignoreEnd(void*, const XML_Char*) {}
void XMLCALL ignoreText(void*, const XML_Char*, int) {}
} // namespace

bool parseWithEmptyHandlers(const char* data, std::size_t length) {
    XML_Parser handle = XML_ParserCreate(nullptr);
    XML_SetElementHandler(handle, &ignoreStart, &ignoreEnd);
    XML_SetCharacterDataHandler(handle, &ignoreText);
    const bool ok = XML_Parse(handle, data, static_cast<int>(length), 1) != XML_STATUS_ERROR;
    XML_ParserFree(handle);
    return ok;
}

Parser::Parser(const ElementHandler* handlers) : m_fold(caseFolding()) { indexHandlers(handlers); }

Parser::~Parser() {
    if (m_spareHandle)
        XML_ParserFree(static_cast<XML_Parser>(m_spareHandle));
}

void Parser::indexHandlers(const ElementHandler* handlers) {
    std::vector<IndexedName> names; // in the order of first appearance
    for (const ElementHandler* row = handlers; row && row->event != kEndOfTable; ++row) {
        const int number = static_cast<int>(m_handlers.size());
        m_handlers.push_back(row->handler);
        if (row->event != kStartElement && row->event != kEndElement)
            continue;
        auto same = std::find_if(names.begin(), names.end(), [&](const IndexedName& known) {
            return std::strcmp(m_names.data() + known.nameAt, row->name) == 0;
        });
        if (same == names.end()) {
            same = names.insert(names.end(), IndexedName{m_names.size(), -1, -1});
            m_names.append(row->name).push_back('\0');
        }
        int& first = row->event == kStartElement ? same->startRow : same->endRow;
        if (first < 0)
            first = number;
    }
    const auto keyOf = [this](const IndexedName& name) {
        return std::min(std::strlen(m_names.data() + name.nameAt), kLengths - 1);
    };
    std::stable_sort(names.begin(), names.end(), [&](const IndexedName& a, const IndexedName& b) {
        return keyOf(a) < keyOf(b);
    });
    for (const IndexedName& name : names)
        ++m_nameStart[keyOf(name) + 1];
    for (std::size_t key = 1; key < m_nameStart.size(); ++key)
        m_nameStart[key] = static_cast<std::uint16_t>(m_nameStart[key] + m_nameStart[key - 1]);
    m_index = std::move(names);
}

void Parser::setTraceGroups(msglog::MsgGroup* elements, msglog::MsgGroup* tagStack,
                            msglog::MsgGroup* characterData) {
    m_elementGroup = elements;
    m_tagStackGroup = tagStack;
    m_characterDataGroup = characterData;
}

void Parser::parse(const char* data, std::size_t length) {
    // A reset parser keeps the memory it grew, which a new one would allocate again.
    auto handle = static_cast<XML_Parser>(m_spareHandle);
    m_spareHandle = nullptr;
    if (handle && !XML_ParserReset(handle, nullptr)) {
        XML_ParserFree(handle);
        handle = nullptr;
    }
    if (!handle)
        handle = XML_ParserCreate(nullptr);
    if (!handle)
        throw Exception("XML parse failed (1:L0/C0): out of memory");
    m_handle = handle;
    if (m_foldedNames.size() != m_names.size() || m_foldedFor != m_fold) {
        m_foldedNames.resize(m_names.size());
        for (std::size_t k = 0; k < m_names.size(); ++k)
            m_foldedNames[k] = m_fold[static_cast<unsigned char>(m_names[k])];
        m_foldedFor = m_fold;
    }
    m_tagStack.clear();
    m_endRows.clear();
    m_characterData.clear();
    m_lentTo = nullptr;
    m_abortMessage.clear();
    // A reset parser keeps its unknown-encoding handler: set or clear it for every document.
    XML_SetUnknownEncodingHandler(
        handle, m_readUnknownEncodings ? &Callbacks::unknownEncoding : nullptr, nullptr);
    try {
        parseBuffer(data, length);
    } catch (...) {
        m_spareHandle = handle;
        m_handle = nullptr;
        throw;
    }
    m_spareHandle = handle;
    m_handle = nullptr;
}

void Parser::parseBuffer(const char* data, std::size_t length) {
    auto handle = static_cast<XML_Parser>(m_handle);
    XML_SetElementHandler(handle, &Callbacks::start, &Callbacks::end);
    XML_SetCharacterDataHandler(handle, &Callbacks::characters);
    XML_SetUserData(handle, this);
    // Fed in pieces, the last one final: expat copies what it is given into a buffer of its
    // own, so one whole large document would cost its size twice.
    constexpr std::size_t kPiece = 1u << 20;
    std::size_t offset = 0;
    do {
        const std::size_t piece = std::min(kPiece, length - offset);
        const bool final = offset + piece == length;
        if (XML_Parse(handle, data + offset, static_cast<int>(piece), final) == XML_STATUS_ERROR) {
            const XML_Error code = XML_GetErrorCode(handle);
            if (code == XML_ERROR_ABORTED && !m_abortMessage.empty())
                throw Exception(m_abortMessage + " (L" +
                                std::to_string(XML_GetCurrentLineNumber(handle)) + "/C" +
                                std::to_string(XML_GetCurrentColumnNumber(handle)) + ")");
            throw Exception("XML parse failed (" + std::to_string(static_cast<int>(code)) + ":L" +
                            std::to_string(XML_GetCurrentLineNumber(handle)) + "/C" +
                            std::to_string(XML_GetCurrentColumnNumber(handle)) +
                            "): " + XML_ErrorString(code));
        }
        offset += piece;
    } while (offset < length);
}

void Parser::abort(const std::string& message) {
    if (!m_abortMessage.empty() || !m_handle)
        return;
    m_abortMessage = message;
    XML_StopParser(static_cast<XML_Parser>(m_handle), XML_FALSE);
}

void Parser::moveCharacterDataInto(std::string& field) {
    if (m_lentTo)
        restoreCharacterData();
    field.swap(m_characterData);
    m_characterData.clear(); // keeps the field's old buffer for the text to come
    m_lentTo = &field;
}

void Parser::restoreCharacterData() const {
    m_characterData.insert(0, *m_lentTo);
    m_lentTo = nullptr;
}

void Parser::onStartElement(const char*, const char**) {}
void Parser::onEndElement(const char*) {}
void Parser::onText(const char*, std::size_t) {}

bool Parser::isParent(const char* name) const {
    return m_tagStack.size() >= 2 &&
           equalIgnoringCase(m_fold, m_tagStack[m_tagStack.size() - 2].c_str(), name);
}

std::string Parser::tagStackText() const {
    std::string text;
    for (const std::string& tag : m_tagStack)
        text += (text.empty() ? "" : "/") + tag;
    return text;
}

std::pair<int, int> Parser::rowsFor(const char* name, std::size_t length) const {
    // Names that differ only in case are distinct entries that may all match: the first rows
    // in table order win.
    const auto earlier = [](int row, int other) {
        return other >= 0 && (row < 0 || other < row) ? other : row;
    };
    std::pair<int, int> rows{-1, -1};
    const std::size_t key = std::min(length, kLengths - 1);
    for (std::size_t k = m_nameStart[key]; k < m_nameStart[key + 1]; ++k) {
        const IndexedName& known = m_index[k];
        if (matchesFolded(m_fold, m_names.data() + known.nameAt,
                          m_foldedNames.data() + known.nameAt, name)) {
            rows.first = earlier(rows.first, known.startRow);
            rows.second = earlier(rows.second, known.endRow);
        }
    }
    return rows;
}

void Parser::startElement(const char* name, const char** attributes) {
    if (!m_abortMessage.empty())
        return;
    if (m_maxDepth > 0 && m_tagStack.size() >= m_maxDepth) {
        abort("The document nests elements deeper than " + std::to_string(m_maxDepth) + " levels");
        return;
    }
    const std::size_t length = std::strlen(name);
    const auto [startRow, endRow] = rowsFor(name, length);
    m_tagStack.emplace_back(name, length);
    m_endRows.push_back(endRow);
    if (m_elementGroup && m_elementGroup->isEnabled()) {
        std::string trace = std::string("START ELEMENT: ") + name + " ; ";
        for (const char** attribute = attributes; attribute && *attribute; attribute += 2)
            trace += std::string("- ") + attribute[0] + " = '" + attribute[1] + "'";
        PELSU_LOG(*m_elementGroup, trace);
    }
    if (m_tagStackGroup && m_tagStackGroup->isEnabled())
        PELSU_LOG(*m_tagStackGroup, "TagStack: " << tagStackText());
    // The hook still reads the text before the tag, so that a reader copying mixed content
    // takes it from here rather than through onText.
    onStartElement(name, attributes);
    m_characterData.clear();
    m_lentTo = nullptr;
    run(startRow);
}

void Parser::endElement(const char* name) {
    if (!m_abortMessage.empty())
        return;
    if (m_elementGroup && m_elementGroup->isEnabled())
        PELSU_LOG(*m_elementGroup, "END ELEMENT: " << name);
    if (m_tagStackGroup && m_tagStackGroup->isEnabled())
        PELSU_LOG(*m_tagStackGroup, "TagStack: " << tagStackText());
    onEndElement(name);
    // expat reports the end only of the element on top of the stack.
    run(m_endRows.back());
    m_tagStack.pop_back();
    m_endRows.pop_back();
}

void Parser::characters(const char* text, int length) {
    if (m_characterDataGroup && m_characterDataGroup->isEnabled())
        traceCharacters(text, length);
    const auto size = static_cast<std::size_t>(length);
    onText(text, size);
    // Most pieces are short runs of ASCII (a line break, an indentation): they go straight in.
    if (size <= 8) {
        unsigned bits = 0;
        for (std::size_t k = 0; k < size; ++k)
            bits |= static_cast<unsigned char>(text[k]);
        if (bits < 0x80) {
            m_characterData.append(text, size);
            return;
        }
    }
    appendUtf8AsLatin1(m_characterData, text, size);
}

void Parser::traceCharacters(const char* text, int length) {
    PELSU_LOG(*m_characterDataGroup,
              "CHARACTER DATA: " << std::string(text, static_cast<std::size_t>(length)));
}

} // namespace expat
