#include "lib/misc/profileFile.h"
#include "lib/misc/text.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

namespace profile {

namespace {

// Names compare as the platform compares them: ASCII letters without regard to case.
inline char asciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

bool equalsNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i] && asciiLower(a[i]) != asciiLower(b[i]))
            return false;
    return true;
}

std::uint64_t hashNoCase(std::string_view name) {
    std::uint64_t hash = 14695981039346656037ull;
    for (char c : name)
        hash = (hash ^ static_cast<unsigned char>(asciiLower(c))) * 1099511628211ull;
    hash ^= hash >> 32; // the low bits pick the slot: mix the high ones into them
    hash *= 0x9E3779B97F4A7C15ull;
    return hash ^ (hash >> 29);
}

inline bool isSpace(char c) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) // the same in every locale, and the common case
        return byte == ' ' || (byte >= '\t' && byte <= '\r');
    return std::isspace(byte) != 0;
}

std::string_view trimmedView(std::string_view text) {
    while (!text.empty() && isSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

// A hash of a text that can be fed in pieces: four independent lanes of eight bytes each, so
// that a long text is hashed at the speed of memory rather than of one multiply after another.
class TextHasher {
public:
    void add(const char* data, std::size_t size) {
        m_size += size;
        while (size > 0 && m_pending > 0) { // complete a block begun by an earlier piece
            m_block[m_pending++] = *data++;
            --size;
            if (m_pending == kBlock) {
                mixBlock(m_block);
                m_pending = 0;
            }
        }
        for (; size >= kBlock; data += kBlock, size -= kBlock)
            mixBlock(data);
        std::memcpy(m_block, data, size);
        m_pending = size;
    }
    std::size_t value() const {
        std::uint64_t hash = m_size;
        for (std::uint64_t lane : m_lanes)
            hash = (hash ^ lane) * 0x9E3779B97F4A7C15ull;
        for (std::size_t i = 0; i < m_pending; ++i)
            hash = (hash ^ static_cast<unsigned char>(m_block[i])) * 0x100000001B3ull;
        hash ^= hash >> 33;
        hash *= 0xc4ceb9fe1a85ec53ull;
        hash ^= hash >> 33;
        return static_cast<std::size_t>(hash | 1); // 0 means "no text"
    }
    std::size_t size() const { return m_size; }

private:
    static constexpr std::size_t kBlock = 32;
    void mixBlock(const char* block) {
        for (std::size_t lane = 0; lane < 4; ++lane) {
            std::uint64_t word;
            std::memcpy(&word, block + 8 * lane, 8);
            std::uint64_t& hash = m_lanes[lane];
            hash = (hash ^ word) * 0x9E3779B97F4A7C15ull;
            hash ^= hash >> 29;
        }
    }
    std::uint64_t m_lanes[4] = {0x243F6A8885A308D3ull, 0x13198A2E03707344ull, 0xA4093822299F31D0ull,
                                0x082EFA98EC4E6C89ull};
    char m_block[kBlock] = {};
    std::size_t m_pending = 0;
    std::size_t m_size = 0;
};

// Where a serialized document goes: a file written as it is produced, or a string.
class Sink {
public:
    explicit Sink(int descriptor = -1) : m_descriptor(descriptor) {}
    void append(std::string_view text) {
        m_hasher.add(text.data(), text.size());
        m_buffer.append(text);
        if (m_descriptor >= 0 && m_buffer.size() >= kFlushSize)
            flush();
    }
    void append(char c) { append(std::string_view(&c, 1)); }
    // Writes a text made (and hashed, into hasher) by another sink as it is, without copying it.
    void writeMade(std::string_view text, const TextHasher& hasher) {
        if (flush() && writeAll(text))
            m_hasher = hasher;
    }
    // Writes what is buffered; false (with errno set) when the file could not take it.
    bool flush() {
        if (m_failed || m_descriptor < 0)
            return !m_failed;
        if (!writeAll(m_buffer))
            return false;
        m_buffer.clear();
        return true;
    }
    bool failed() const { return m_failed; }
    int error() const { return m_errno; }
    const TextHasher& hasher() const { return m_hasher; }
    std::string& text() { return m_buffer; }

private:
    bool writeAll(std::string_view text) {
        size_t written = 0;
        while (written < text.size()) {
            ssize_t n = ::write(m_descriptor, text.data() + written, text.size() - written);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                m_failed = true;
                m_errno = n < 0 ? errno : EIO;
                return false;
            }
            written += static_cast<size_t>(n);
        }
        return true;
    }
    static constexpr std::size_t kFlushSize = 1 << 18;
    int m_descriptor;
    std::string m_buffer;
    TextHasher m_hasher;
    bool m_failed = false;
    int m_errno = 0;
};

// One line of a section: a key with its value, or a line kept as it is (comment, blank).
struct Line {
    bool isKey = false;
    std::string key;
    std::string value;
    std::string raw; // the line as read; empty once the key's value was changed
};

// Calls function(raw line) for each line of a text range, without the line break and a
// carriage return before it.
template <typename Function>
void forEachRawLine(std::string_view text, Function function) {
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos)
            end = text.size();
        std::string_view raw = text.substr(pos, end - pos);
        pos = end + 1;
        if (!raw.empty() && raw.back() == '\r')
            raw.remove_suffix(1);
        if (function(raw))
            return;
    }
}

// Splits a line that is not a section header: whether it is a key, its key and value.
bool splitKey(std::string_view raw, std::string_view& key, std::string_view& value) {
    const std::string_view line = trimmedView(raw);
    if (line.empty() || line[0] == ';')
        return false;
    const size_t equals = line.find('=');
    key = trimmedView(line.substr(0, equals));
    value = equals == std::string_view::npos ? std::string_view()
                                             : trimmedView(line.substr(equals + 1));
    return true;
}

// A section of the document: a range of the text, parsed lines, or the sections of a source.
struct Section {
    std::size_t nameBegin = 0; // the name in the text, unless the section is parsed
    std::size_t bodyBegin = 0;
    std::size_t bodyEnd = 0;
    std::int32_t parsed = -1;        // index of its lines and name once parsed or created
    std::int32_t source = -1;        // index of its source, for sections appended from one
    std::int32_t inPlaceSource = -1; // a section of the text whose keys a source now gives
    std::uint32_t item = 0;          // the source's section shown here, or the first one appended
    std::uint32_t nameLength = 0;
    bool isPrelude = false;
    bool deleted = false;   // left in place so that deleting many sections stays linear
    bool duplicate = false; // a later section of a name an earlier one has
};

struct ParsedSection {
    std::string name;
    std::vector<Line> lines;
};

} // namespace

// A profile file in memory: the text it was read from, and its sections in file order. A
// section stays a range of that text until a write parses it into lines. Sections named in a
// hash table of first occurrences; deleted sections stay in the list, marked, until the
// document is written out.
class Document {
public:
    Document() = default;
    Document(const Document& other)
        : textHash(other.textHash), textSize(other.textSize), stamp(other.stamp),
          m_text(other.m_text), m_sections(other.m_sections), m_parsed(other.m_parsed),
          m_sources(other.m_sources), m_table(other.m_table), m_tableUsed(other.m_tableUsed),
          m_duplicates(other.m_duplicates), m_sourceSections(other.m_sourceSections),
          m_pristine(other.m_pristine) {}
    Document(Document&& other) noexcept
        : textHash(other.textHash), textSize(other.textSize), stamp(other.stamp),
          m_text(std::move(other.m_text)), m_sections(std::move(other.m_sections)),
          m_parsed(std::move(other.m_parsed)), m_sources(std::move(other.m_sources)),
          m_table(std::move(other.m_table)), m_tableUsed(other.m_tableUsed),
          m_duplicates(std::move(other.m_duplicates)),
          m_sourceSections(std::move(other.m_sourceSections)), m_pristine(other.m_pristine) {}
    void parse(std::shared_ptr<const std::string> text);
    // Streams the text into the sink.
    void serialize(Sink& sink) const;

    std::optional<std::string> value(std::string_view section, std::string_view key) const;
    std::vector<std::optional<std::string>> values(std::string_view section,
                                                   const std::vector<std::string>& keys) const;
    std::vector<std::string> keys(std::string_view section) const;
    // Calls function(raw value) with the first value of the key in the section, if there is one.
    template <typename Function>
    void forEachValue(std::string_view section, std::string_view key, Function function) const {
        const Found found = find(section);
        if (found.section)
            forEachKey(found, [&](std::string_view name, std::string_view value) {
                if (!equalsNoCase(name, key))
                    return false;
                function(value);
                return true;
            });
    }
    bool hasSection(std::string_view section) const { return find(section).section != nullptr; }
    void setValue(const std::string& section, const std::string& key, const std::string& value);
    void deleteKey(const std::string& section, const std::string& key);
    void deleteSection(const std::string& section);
    // Appends the sections of the source as setValue would one by one.
    void appendSections(const std::shared_ptr<const SectionSource>& source);
    std::vector<std::string> sectionNames() const;
    // Applies to this document what changed from base to mine: sections mine no longer has
    // are deleted, and keys mine added, changed or removed are set or deleted.
    void mergeChanges(const Document& base, const Document& mine);

    // The text the document was read from.
    const std::shared_ptr<const std::string>& text() const { return m_text; }
    // Whether the document is its text as read, unchanged: then parsing the text gives it again.
    bool isPristine() const { return m_pristine; }
    bool holdsNul() const { return m_text->find('\0') != std::string::npos; }

    // Identifies the text the document was read from or last written as (0 when neither).
    std::size_t textHash = 0;
    std::size_t textSize = 0;
    FileStamp stamp; // of the file when the text was read or written
    bool hasSources() const { return !m_sources.empty(); }

private:
    struct Found {
        const Section* section = nullptr;
        std::size_t item = 0; // the section's index in its source
    };
    Found find(std::string_view name) const;
    std::string_view nameOf(const Section& section) const;
    std::string_view bodyOf(const Section& section) const {
        return std::string_view(*m_text).substr(section.bodyBegin,
                                                section.bodyEnd - section.bodyBegin);
    }
    // Calls function(key, value) for each key line of a section, in order, until it returns true.
    template <typename Function>
    void forEachKey(const Found& found, Function function) const;
    // The parsed lines of the first section of that name (parsing or creating it).
    std::vector<Line>* linesFor(const std::string& name, bool create);
    // Whether a section of the text holds exactly these keys, one a line as "key=value".
    bool holdsExactly(const Section& section,
                      const std::vector<std::pair<std::string, std::string>>& keys) const;
    // Replaces the sections written from a source by parsed sections with the same lines.
    void materialize(std::int32_t source);
    void reindex();
    void insertIntoTable(std::size_t index);
    // Inserts the section (its name hashed to hash) unless an earlier one has its name; returns
    // whether it did.
    bool insertIfFirst(std::size_t index, std::uint64_t hash);
    std::size_t lookup(std::string_view name) const; // index + 1 of the first occurrence, or 0

    std::shared_ptr<const std::string> m_text = std::make_shared<const std::string>();
    std::vector<Section> m_sections;
    std::vector<ParsedSection> m_parsed;
    std::vector<std::shared_ptr<const SectionSource>> m_sources;
    std::vector<std::uint64_t> m_table; // open addressing, 0 when free (see insertIntoTable)
    std::size_t m_tableUsed = 0;
    std::vector<std::uint32_t> m_duplicates;        // the sections marked duplicate
    std::vector<std::uint32_t> m_sourceSections;    // the sections written from a source
    mutable std::atomic<std::size_t> m_nextHint{0}; // the section find tries first
    bool m_pristine = true;
};

void Document::parse(std::shared_ptr<const std::string> text) {
    m_text = std::move(text);
    m_sections.clear();
    m_parsed.clear();
    m_sources.clear();
    const std::string_view all(*m_text);
    m_sections.reserve(all.size() / 128 + 1); // a guess that fits files of many small sections
    Section current;
    current.isPrelude = true;
    // A header is a line whose first character other than white space is '[': the scan jumps
    // from one '[' to the next instead of visiting every line.
    size_t from = 0;
    for (size_t first; (first = all.find('[', from)) != std::string_view::npos;) {
        size_t pos = first; // where the line starts, when only white space comes before '['
        while (pos > 0 && all[pos - 1] != '\n' && isSpace(all[pos - 1]))
            --pos;
        from = first + 1;
        if (pos > 0 && all[pos - 1] != '\n')
            continue;
        size_t end = all.find('\n', first);
        const size_t next = end == std::string_view::npos ? all.size() : end + 1;
        if (end == std::string_view::npos)
            end = all.size();
        current.bodyEnd = pos;
        m_sections.push_back(current);
        const std::string_view line = trimmedView(all.substr(first, end - first));
        const size_t close = line.find(']');
        const std::string_view name =
            trimmedView(line.substr(1, close == std::string_view::npos ? line.npos : close - 1));
        current = Section{};
        current.nameBegin = static_cast<size_t>(name.data() - all.data());
        current.nameLength = static_cast<std::uint32_t>(name.size());
        current.bodyBegin = next;
        from = next;
    }
    current.bodyEnd = all.size();
    m_sections.push_back(current);
    reindex();
    m_pristine = true;
}

std::string_view Document::nameOf(const Section& section) const {
    if (section.parsed >= 0)
        return m_parsed[static_cast<size_t>(section.parsed)].name;
    return std::string_view(*m_text).substr(section.nameBegin, section.nameLength);
}

// A slot holds the section's index + 1 in its low half and the high half of the name's hash in
// the other, so that most names that differ are told apart without reading them.
void Document::insertIntoTable(std::size_t index) {
    const size_t mask = m_table.size() - 1;
    const std::uint64_t hash = hashNoCase(nameOf(m_sections[index]));
    for (size_t slot = hash & mask;; slot = (slot + 1) & mask)
        if (m_table[slot] == 0) {
            m_table[slot] = (hash & 0xFFFFFFFF00000000ull) | (index + 1);
            ++m_tableUsed;
            return;
        }
}

std::size_t Document::lookup(std::string_view name) const {
    if (m_table.empty())
        return 0;
    const size_t mask = m_table.size() - 1;
    const std::uint64_t hash = hashNoCase(name);
    for (size_t slot = hash & mask; m_table[slot] != 0; slot = (slot + 1) & mask) {
        if ((m_table[slot] ^ hash) >> 32 != 0)
            continue;
        const size_t index = m_table[slot] & 0xFFFFFFFFull;
        const Section& candidate = m_sections[index - 1];
        if (!candidate.deleted && equalsNoCase(nameOf(candidate), name))
            return index;
    }
    return 0;
}

void Document::reindex() {
    size_t size = 16;
    while (size < m_sections.size() * 2 + 2)
        size *= 2;
    m_table.assign(size, 0);
    m_tableUsed = 0;
    m_duplicates.clear();
    m_sourceSections.clear();
    const size_t mask = m_table.size() - 1;
    const auto named = [](const Section& s) { return !s.isPrelude && !s.deleted && s.source < 0; };
    // Names are hashed this many sections ahead of their use, and their slots fetched meanwhile.
    constexpr size_t kAhead = 16;
    std::uint64_t hashes[kAhead] = {};
    const auto hashAhead = [&](size_t i) {
        if (i < m_sections.size() && named(m_sections[i])) {
            hashes[i % kAhead] = hashNoCase(nameOf(m_sections[i]));
            __builtin_prefetch(&m_table[hashes[i % kAhead] & mask]);
        }
    };
    for (size_t i = 0; i < kAhead; ++i)
        hashAhead(i);
    for (size_t i = 0; i < m_sections.size(); ++i) {
        const std::uint64_t hash = hashes[i % kAhead];
        hashAhead(i + kAhead);
        Section& section = m_sections[i];
        section.duplicate = false;
        if (section.source >= 0 && !section.deleted)
            m_sourceSections.push_back(static_cast<std::uint32_t>(i));
        if (!named(section))
            continue;
        if (!insertIfFirst(i, hash)) {
            section.duplicate = true;
            m_duplicates.push_back(static_cast<std::uint32_t>(i));
        }
    }
}

bool Document::insertIfFirst(std::size_t index, std::uint64_t hash) {
    // One probe sequence both looks for an earlier section of the name and finds the free slot.
    const size_t mask = m_table.size() - 1;
    const std::string_view name = nameOf(m_sections[index]);
    for (size_t slot = hash & mask;; slot = (slot + 1) & mask) {
        const std::uint64_t entry = m_table[slot];
        if (entry == 0) {
            m_table[slot] = (hash & 0xFFFFFFFF00000000ull) | (index + 1);
            ++m_tableUsed;
            return true;
        }
        if ((entry ^ hash) >> 32 != 0)
            continue;
        const Section& candidate = m_sections[(entry & 0xFFFFFFFFull) - 1];
        if (!candidate.deleted && equalsNoCase(nameOf(candidate), name))
            return false;
    }
}

Document::Found Document::find(std::string_view name) const {
    // Sections are mostly read in file order: try the one after the last found first.
    const size_t hint = m_nextHint.load(std::memory_order_relaxed);
    if (hint < m_sections.size()) {
        const Section& next = m_sections[hint];
        if (!next.isPrelude && !next.deleted && !next.duplicate && next.source < 0 &&
            equalsNoCase(nameOf(next), name)) {
            m_nextHint.store(hint + 1, std::memory_order_relaxed);
            return {&next, 0};
        }
    }
    if (const size_t index = lookup(name)) {
        m_nextHint.store(index, std::memory_order_relaxed);
        return {&m_sections[index - 1], 0};
    }
    for (std::uint32_t index : m_sourceSections) {
        const Section& section = m_sections[index];
        if (section.source >= 0 && !section.deleted)
            if (auto item = m_sources[static_cast<size_t>(section.source)]->indexOf(name);
                item && *item >= section.item)
                return {&section, *item};
    }
    return {};
}

template <typename Function>
void Document::forEachKey(const Found& found, Function function) const {
    const Section& section = *found.section;
    if (section.source >= 0 || section.inPlaceSource >= 0) {
        std::vector<std::pair<std::string, std::string>> keys;
        if (section.source >= 0)
            m_sources[static_cast<size_t>(section.source)]->sectionKeys(found.item, keys);
        else
            m_sources[static_cast<size_t>(section.inPlaceSource)]->sectionKeys(section.item, keys);
        for (const auto& [key, value] : keys)
            if (function(std::string_view(key), std::string_view(value)))
                return;
    } else if (section.parsed >= 0) {
        for (const Line& line : m_parsed[static_cast<size_t>(section.parsed)].lines)
            if (line.isKey && function(std::string_view(line.key), std::string_view(line.value)))
                return;
    } else {
        forEachRawLine(bodyOf(section), [&](std::string_view raw) {
            std::string_view key, value;
            return splitKey(raw, key, value) && function(key, value);
        });
    }
}

std::optional<std::string> Document::value(std::string_view section, std::string_view key) const {
    const Found found = find(section);
    std::optional<std::string> result;
    if (found.section)
        forEachKey(found, [&](std::string_view name, std::string_view value) {
            if (!equalsNoCase(name, key))
                return false;
            result.emplace(value);
            return true;
        });
    return result;
}

std::vector<std::optional<std::string>>
Document::values(std::string_view section, const std::vector<std::string>& keys) const {
    std::vector<std::optional<std::string>> result(keys.size());
    const Found found = find(section);
    if (found.section)
        forEachKey(found, [&](std::string_view name, std::string_view value) {
            for (size_t i = 0; i < keys.size(); ++i)
                if (!result[i] && equalsNoCase(name, keys[i]))
                    result[i].emplace(value);
            return false;
        });
    return result;
}

std::vector<std::string> Document::keys(std::string_view section) const {
    std::vector<std::string> keys;
    const Found found = find(section);
    if (found.section)
        forEachKey(found, [&](std::string_view name, std::string_view) {
            if (std::none_of(keys.begin(), keys.end(),
                             [&](const std::string& k) { return equalsNoCase(k, name); }))
                keys.emplace_back(name);
            return false;
        });
    return keys;
}

void Document::serialize(Sink& sink) const {
    // A source's sections are made one at a time in here and go to the sink whole.
    std::string lines;
    const auto writeKeys = [&](const SectionSource& source, size_t index) {
        source.appendKeyLines(index, lines);
        sink.append(lines);
        lines.clear();
    };
    for (const Section& section : m_sections) {
        if (section.deleted)
            continue;
        if (section.source >= 0) {
            const SectionSource& source = *m_sources[static_cast<size_t>(section.source)];
            for (size_t i = section.item; i < source.sectionCount(); ++i) {
                lines += '[';
                lines += source.sectionName(i);
                lines += "]\n";
                writeKeys(source, i);
            }
            continue;
        }
        if (!section.isPrelude) {
            sink.append('[');
            sink.append(nameOf(section));
            sink.append("]\n");
        }
        if (section.inPlaceSource >= 0) {
            writeKeys(*m_sources[static_cast<size_t>(section.inPlaceSource)], section.item);
            continue;
        }
        if (section.parsed >= 0) {
            for (const Line& line : m_parsed[static_cast<size_t>(section.parsed)].lines) {
                if (!line.raw.empty() || !line.isKey)
                    sink.append(line.raw);
                else {
                    sink.append(line.key);
                    sink.append('=');
                    sink.append(line.value);
                }
                sink.append('\n');
            }
            continue;
        }
        const std::string_view body = bodyOf(section);
        if (body.find('\r') == std::string_view::npos && (body.empty() || body.back() == '\n')) {
            sink.append(body); // the lines as they were read
            continue;
        }
        forEachRawLine(body, [&](std::string_view raw) {
            sink.append(raw);
            sink.append('\n');
            return false;
        });
    }
}

std::vector<Line>* Document::linesFor(const std::string& name, bool create) {
    m_pristine = false;
    Found found = find(name);
    if (found.section && found.section->source >= 0) {
        materialize(found.section->source);
        found = find(name);
    }
    if (!found.section) {
        if (!create)
            return nullptr;
        Section section;
        section.parsed = static_cast<std::int32_t>(m_parsed.size());
        m_parsed.push_back(ParsedSection{name, {}});
        m_sections.push_back(section);
        if ((m_tableUsed + 1) * 2 > m_table.size())
            reindex();
        else
            insertIntoTable(m_sections.size() - 1);
        return &m_parsed.back().lines;
    }
    Section& section = m_sections[static_cast<size_t>(found.section - m_sections.data())];
    if (section.parsed < 0 && section.inPlaceSource >= 0) {
        ParsedSection parsed{std::string(nameOf(section)), {}};
        std::vector<std::pair<std::string, std::string>> keys;
        m_sources[static_cast<size_t>(section.inPlaceSource)]->sectionKeys(section.item, keys);
        for (auto& [key, value] : keys)
            parsed.lines.push_back(Line{true, std::move(key), std::move(value), {}});
        section.inPlaceSource = -1;
        section.parsed = static_cast<std::int32_t>(m_parsed.size());
        m_parsed.push_back(std::move(parsed));
    }
    if (section.parsed < 0) {
        ParsedSection parsed{std::string(nameOf(section)), {}};
        forEachRawLine(bodyOf(section), [&](std::string_view raw) {
            Line entry;
            entry.raw = raw;
            std::string_view key, value;
            if (splitKey(raw, key, value)) {
                entry.isKey = true;
                entry.key = key;
                entry.value = value;
            }
            parsed.lines.push_back(std::move(entry));
            return false;
        });
        section.parsed = static_cast<std::int32_t>(m_parsed.size());
        m_parsed.push_back(std::move(parsed));
    }
    return &m_parsed[static_cast<size_t>(section.parsed)].lines;
}

void Document::setValue(const std::string& section, const std::string& key,
                        const std::string& value) {
    std::vector<Line>& lines = *linesFor(section, true);
    size_t insertAt = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        Line& line = lines[i];
        if (line.isKey && equalsNoCase(line.key, key)) {
            if (line.value != value) {
                line.value = value;
                line.raw.clear();
            }
            return;
        }
        if (line.isKey || !trimmedView(line.raw).empty())
            insertAt = i + 1; // new keys go after the last non-blank line
    }
    Line entry;
    entry.isKey = true;
    entry.key = key;
    entry.value = value;
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(insertAt), std::move(entry));
}

void Document::deleteKey(const std::string& section, const std::string& key) {
    if (std::vector<Line>* lines = linesFor(section, false))
        std::erase_if(*lines,
                      [&](const Line& line) { return line.isKey && equalsNoCase(line.key, key); });
}

void Document::deleteSection(const std::string& section) {
    m_pristine = false;
    Found found = find(section);
    if (found.section && found.section->source >= 0) {
        materialize(found.section->source);
        found = find(section);
    }
    if (!found.section)
        return;
    const auto drop = [this](Section& dropped) {
        dropped.deleted = true;
        if (dropped.parsed >= 0)
            std::vector<Line>().swap(m_parsed[static_cast<size_t>(dropped.parsed)].lines);
    };
    drop(m_sections[static_cast<size_t>(found.section - m_sections.data())]);
    for (std::uint32_t index : m_duplicates) {
        Section& candidate = m_sections[index];
        if (!candidate.deleted && equalsNoCase(nameOf(candidate), section))
            drop(candidate);
    }
}

void Document::materialize(std::int32_t sourceIndex) {
    const auto at = std::find_if(m_sections.begin(), m_sections.end(),
                                 [&](const Section& s) { return s.source == sourceIndex; });
    const SectionSource& source = *m_sources[static_cast<size_t>(sourceIndex)];
    std::vector<Section> sections;
    std::vector<std::pair<std::string, std::string>> keys;
    for (size_t i = at->item; i < source.sectionCount(); ++i) {
        ParsedSection parsed{source.sectionName(i), {}};
        keys.clear();
        source.sectionKeys(i, keys);
        for (auto& [key, value] : keys)
            parsed.lines.push_back(Line{true, std::move(key), std::move(value), {}});
        Section section;
        section.parsed = static_cast<std::int32_t>(m_parsed.size());
        m_parsed.push_back(std::move(parsed));
        sections.push_back(section);
    }
    at->deleted = true;
    at->source = -1;
    m_sections.insert(at + 1, sections.begin(), sections.end());
    reindex();
}

bool Document::holdsExactly(const Section& section,
                            const std::vector<std::pair<std::string, std::string>>& keys) const {
    if (section.parsed >= 0 || section.inPlaceSource >= 0 || section.source >= 0 ||
        section.isPrelude)
        return false;
    size_t matched = 0;
    bool exact = true;
    forEachRawLine(bodyOf(section), [&](std::string_view raw) {
        std::string_view key, value;
        exact = matched < keys.size() && splitKey(raw, key, value) && key == keys[matched].first &&
                key.data() == raw.data() && raw.size() == key.size() + 1 + value.size() &&
                raw[key.size()] == '=';
        ++matched;
        return !exact;
    });
    return exact && matched == keys.size();
}

void Document::appendSections(const std::shared_ptr<const SectionSource>& source) {
    // Sections the file holds already take their keys where writes would put them: when such a
    // section holds exactly those keys one a line, its keys come from the source in its place.
    // The others are appended, from the source, when they are its last ones.
    m_pristine = false;
    const size_t count = source->sectionCount();
    std::vector<const Section*> inPlace;
    std::vector<std::pair<std::string, std::string>> keys;
    size_t firstMissing = count;
    bool streamable = true;
    for (size_t i = 0; i < count && streamable; ++i) {
        const Found found = find(source->sectionName(i));
        if (!found.section) {
            firstMissing = std::min(firstMissing, i);
            continue;
        }
        keys.clear();
        source->sectionKeys(i, keys);
        streamable = firstMissing == count && holdsExactly(*found.section, keys);
        inPlace.push_back(found.section);
    }
    if (streamable) {
        const auto sourceIndex = static_cast<std::int32_t>(m_sources.size());
        m_sources.push_back(source);
        for (size_t i = 0; i < inPlace.size(); ++i) {
            Section& section = m_sections[static_cast<size_t>(inPlace[i] - m_sections.data())];
            section.inPlaceSource = sourceIndex;
            section.item = static_cast<std::uint32_t>(i);
        }
        if (firstMissing < count) {
            Section section;
            section.source = sourceIndex;
            section.item = static_cast<std::uint32_t>(firstMissing);
            m_sections.push_back(section);
            m_sourceSections.push_back(static_cast<std::uint32_t>(m_sections.size() - 1));
        }
        return;
    }
    for (size_t i = 0; i < count; ++i) {
        keys.clear();
        source->sectionKeys(i, keys);
        const std::string name = source->sectionName(i);
        for (const auto& [key, value] : keys)
            setValue(name, key, value);
    }
}

void Document::mergeChanges(const Document& base, const Document& mine) {
    for (const std::string& name : base.sectionNames())
        if (!mine.hasSection(name))
            deleteSection(name);
    for (const std::string& name : mine.sectionNames()) {
        const Found before = base.find(name);
        mine.forEachKey(mine.find(name), [&](std::string_view keyView, std::string_view valueView) {
            const std::string key(keyView), value(valueView);
            if (mine.value(name, key) != value)
                return false; // not the first occurrence of the key
            if (!before.section || base.value(name, key) != value)
                setValue(name, key, value);
            return false;
        });
        if (before.section)
            base.forEachKey(before, [&](std::string_view key, std::string_view) {
                if (!mine.value(name, key))
                    deleteKey(name, std::string(key));
                return false;
            });
    }
}

std::vector<std::string> Document::sectionNames() const {
    std::vector<std::string> names;
    for (const Section& section : m_sections) {
        if (section.isPrelude || section.deleted || section.duplicate)
            continue;
        if (section.source >= 0) {
            const SectionSource& source = *m_sources[static_cast<size_t>(section.source)];
            for (size_t i = section.item; i < source.sectionCount(); ++i)
                names.push_back(source.sectionName(i));
        } else
            names.emplace_back(nameOf(section));
    }
    return names;
}

namespace {

using Stamp = FileStamp;

Stamp stampOf(const struct stat& info) {
    Stamp stamp;
    stamp.exists = S_ISREG(info.st_mode);
    stamp.device = info.st_dev;
    stamp.inode = info.st_ino;
    stamp.size = info.st_size;
    stamp.modifiedSeconds = info.st_mtim.tv_sec;
    stamp.modifiedNanoseconds = info.st_mtim.tv_nsec;
    return stamp;
}

Stamp stampOf(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode))
        return stampOf(info);
    return {};
}

// A change to a document, kept so that a batch can be replayed on a fresher copy.
struct Operation {
    enum Kind { Set, DeleteKey, DeleteSection, AppendSections } kind;
    std::string section;
    std::string key;
    std::string value;
    std::shared_ptr<const SectionSource> source = {};
    // Whether applying it to the document would change anything.
    bool changes(const Document& document) const {
        switch (kind) {
        case Set:
            return document.value(section, key) != value;
        case DeleteKey:
            return document.value(section, key).has_value();
        case DeleteSection:
            return document.hasSection(section);
        case AppendSections:
            return source->sectionCount() > 0;
        }
        return true;
    }
    void applyTo(Document& document) const {
        switch (kind) {
        case Set:
            document.setValue(section, key, value);
            break;
        case DeleteKey:
            document.deleteKey(section, key);
            break;
        case DeleteSection:
            document.deleteSection(section);
            break;
        case AppendSections:
            document.appendSections(source);
            break;
        }
    }
};

// Versions are unique across all files, so that a copy read again after eviction never
// passes for the one a batch started from.
std::atomic<std::uint64_t> g_nextVersion{1};

struct CachedFile {
    std::mutex mutex;
    // Shared with the snapshots taken of it: changed in place only while nobody else holds it.
    // Null while a write batch that took it over is open (see takeOverOrCopy).
    std::shared_ptr<Document> document = std::make_shared<Document>();
    Stamp stamp;
    bool valid = false;
    int readError = 0;         // errno of a file that exists but could not be opened
    std::uint64_t version = 0; // changes with every change of the parsed copy
    std::size_t textHash = 0;  // of the text on disk, to skip writes that change nothing
    std::size_t textSize = 0;
    std::uint64_t lastUse = 0;
};

// Parsed copies kept at most; the least recently used idle ones go first.
constexpr std::size_t kMaxCachedFiles = 32;

struct Cache {
    std::mutex mutex;
    std::unordered_map<std::string, std::shared_ptr<CachedFile>> files;
};

Cache& cache() {
    static auto* instance = new Cache; // used from static destructors of other modules
    return *instance;
}

struct BatchState {
    int depth = 0;
    std::unique_ptr<Document> document; // made from base at the first write that changes it
    bool changed = false;
    std::shared_ptr<const Document> base; // the shared copy the batch started from
    std::uint64_t baseVersion = 0;        // and its version
    // When the batch took the cached copy over instead of copying it, base is null and the
    // text it was parsed from stands for it.
    std::shared_ptr<const std::string> baseText;
};

thread_local std::map<std::string, BatchState> t_batches;
thread_local std::map<std::string, Snapshot> t_pinned;
thread_local std::string t_lastWriteError;

std::string normalized(const std::string& path) {
    // Channel saves and loads name the same file hundreds of times in a row.
    thread_local std::string lastPath, lastNormalized;
    std::error_code error;
    if (path == lastPath && !path.empty() && path[0] == '/')
        return lastNormalized;
    auto absolute = std::filesystem::absolute(path, error);
    lastPath = path;
    lastNormalized = (error ? std::filesystem::path(path) : absolute).lexically_normal().string();
    return lastNormalized;
}

void evictIdleFiles(Cache& instance) {
    while (instance.files.size() > kMaxCachedFiles) {
        auto victim = instance.files.end();
        for (auto it = instance.files.begin(); it != instance.files.end(); ++it)
            if (it->second.use_count() == 1 &&
                (victim == instance.files.end() || it->second->lastUse < victim->second->lastUse))
                victim = it;
        if (victim == instance.files.end())
            return; // every copy is in use
        instance.files.erase(victim);
    }
}

std::shared_ptr<CachedFile> cachedFile(const std::string& path) {
    static std::uint64_t useCounter = 0;
    auto& instance = cache();
    std::lock_guard guard(instance.mutex);
    auto& slot = instance.files[path];
    if (!slot)
        slot = std::make_shared<CachedFile>();
    slot->lastUse = ++useCounter;
    std::shared_ptr<CachedFile> file = slot;
    evictIdleFiles(instance);
    return file;
}

// Reads a file into text, straight from the descriptor into the string, and gives the stamp
// of the very file read; returns 0, or the errno of a file that could not be opened or read.
int readWholeFile(const std::string& path, std::string& text, Stamp& stamp) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return errno;
    struct stat info {};
    if (::fstat(descriptor, &info) == 0)
        stamp = stampOf(info);
    // One byte more than the file's size, so that the read that finds its end is the second.
    const std::size_t size = info.st_size > 0 ? static_cast<std::size_t>(info.st_size) : 0;
    text.resize(std::max<std::size_t>(size + 1, 4096));
    std::size_t length = 0;
    int error = 0;
    for (;;) {
        if (length == text.size())
            text.resize(text.size() * 2);
        const ssize_t count = ::read(descriptor, text.data() + length, text.size() - length);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            error = count < 0 ? errno : 0;
            break;
        }
        length += static_cast<std::size_t>(count);
    }
    text.resize(length);
    ::close(descriptor);
    return error;
}

// Brings the parsed copy up to date with the disk; called with the file's mutex held.
void refresh(CachedFile& file, const std::string& path) {
    Stamp current = stampOf(path);
    if (file.valid && file.document && current == file.stamp)
        return;
    auto text = std::make_shared<std::string>();
    file.readError = current.exists ? readWholeFile(path, *text, current) : 0;
    TextHasher hasher;
    hasher.add(text->data(), text->size());
    file.document = std::make_shared<Document>();
    file.document->parse(std::move(text));
    file.document->textHash = file.textHash = hasher.value();
    file.document->textSize = file.textSize = hasher.size();
    file.document->stamp = file.stamp = current;
    file.valid = true;
    file.version = g_nextVersion++;
}

// Creating and renaming files take the directory's lock in the kernel, where a second thread
// spins while the first holds it: the process's own threads wait for each other here instead.
std::mutex& directoryChanges() {
    static std::mutex mutex;
    return mutex;
}

// Streams the document (or its text, when already made) to a temporary file beside path and
// renames it over path, unless the file already holds exactly that text. On failure the reason
// is in error.
bool writeAtomically(const std::string& path, const Document& document, const std::string* made,
                     std::size_t oldHash, std::size_t oldSize, TextHasher& written, bool& unchanged,
                     std::string& error) {
    std::string pattern = path + ".tmp-XXXXXX";
    int descriptor;
    {
        std::lock_guard directory(directoryChanges());
        descriptor = ::mkstemp(pattern.data());
    }
    if (descriptor < 0) {
        error = "Can't create a temporary file beside " + path + ": " + std::strerror(errno);
        return false;
    }
    struct stat info {};
    ::fchmod(descriptor, ::stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0644);
    Sink sink(descriptor);
    if (made)
        sink.writeMade(*made, written); // made and hashed already
    else
        document.serialize(sink);
    if (!sink.flush()) {
        error = "Can't write " + path + ": " + std::strerror(sink.error());
        ::close(descriptor);
        ::unlink(pattern.c_str());
        return false;
    }
    if (!made)
        written = sink.hasher();
    unchanged = oldHash != 0 && sink.hasher().size() == oldSize && sink.hasher().value() == oldHash;
    if (unchanged) { // the file already holds exactly this
        ::close(descriptor);
        ::unlink(pattern.c_str());
        return true;
    }
    bool replaced = ::close(descriptor) == 0;
    if (replaced) {
        std::lock_guard directory(directoryChanges());
        replaced = ::rename(pattern.c_str(), path.c_str()) == 0;
    }
    if (!replaced) {
        error = "Can't replace " + path + ": " + std::strerror(errno);
        ::unlink(pattern.c_str());
        return false;
    }
    return true;
}

// Texts up to this size are made in memory first, to see whether a change fits in place.
constexpr std::size_t kInPlaceLimit = std::size_t{8} << 20;
// The unit a disk writes whole: a crash leaves all of it old or all of it new.
constexpr std::size_t kSectorSize = 512;

// Writes only the bytes that differ when the new text has the old one's size and they all lie
// in one sector of the file (a fetch that changed only a time or a validator): a crash then
// leaves the old bytes or the new ones, as the rename of a whole new file would, at the cost of
// one small write. The file must still be the one the old text was read from (its stamp); its
// modification time is set so that its stamp changes however soon it is read again. On success
// stamp is the file's new one; false when the change does not fit (nothing was written then)
// or the write failed (the caller then replaces the file).
bool writeInPlace(const std::string& path, const std::string& oldText, const std::string& newText,
                  Stamp& stamp) {
    if (oldText.size() != newText.size())
        return false;
    const auto differs = std::mismatch(oldText.begin(), oldText.end(), newText.begin());
    if (differs.first == oldText.end())
        return false; // unchanged: the caller's check says so without writing
    const auto first = static_cast<std::size_t>(differs.first - oldText.begin());
    std::size_t last = oldText.size() - 1;
    while (oldText[last] == newText[last])
        --last;
    if (first / kSectorSize != last / kSectorSize)
        return false;
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    if (descriptor < 0)
        return false;
    struct stat info {};
    bool done = ::fstat(descriptor, &info) == 0 && stampOf(info) == stamp;
    if (done) {
        const std::size_t count = last - first + 1;
        done = ::pwrite(descriptor, newText.data() + first, count, static_cast<off_t>(first)) ==
               static_cast<ssize_t>(count);
    }
    if (done) {
        // A write within the clock's tick may keep the modification time: set one that differs.
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_sec == stamp.modifiedSeconds && now.tv_nsec == stamp.modifiedNanoseconds)
            now.tv_nsec = (now.tv_nsec + 1) % 1000000000;
        const timespec times[2] = {{0, UTIME_OMIT}, now};
        done = ::futimens(descriptor, times) == 0 && ::fstat(descriptor, &info) == 0;
        stamp = stampOf(info);
    }
    return ::close(descriptor) == 0 && done;
}

// Applies operations (or a batch's changes) to the shared copy, called with its mutex held. A
// batch whose starting copy is still current hands over its document; otherwise its changes
// are merged into the fresher copy. Returns the text the disk holds, when a copy read from it
// at the file's stamp is at hand.
std::shared_ptr<const std::string> applyChanges(CachedFile& file, const std::string& path,
                                                const std::vector<Operation>& operations,
                                                BatchState* batch) {
    // A copy the batch took over stays current while nobody read the file again meanwhile and
    // the disk still holds the text it came from.
    if (!batch || file.document || file.version != batch->baseVersion ||
        !(stampOf(path) == file.stamp))
        refresh(file, path);
    // The text the disk holds, when a copy read from it at the file's stamp is at hand.
    std::shared_ptr<const std::string> diskText;
    const auto readAtStamp = [&](const Document* document) {
        if (document && document->isPristine() && document->stamp == file.stamp &&
            file.stamp.exists)
            diskText = document->text();
    };
    if (batch && batch->baseVersion == file.version) {
        if (batch->baseText && file.stamp.exists)
            diskText = batch->baseText; // the pristine copy it took over, of this stamp
        else
            readAtStamp(batch->base.get());
        file.document = std::make_shared<Document>(std::move(*batch->document));
    } else {
        readAtStamp(file.document.get());
        if (file.document.use_count() > 1) // a snapshot keeps the copy it was given
            file.document = std::make_shared<Document>(*file.document);
        if (batch && batch->base) {
            file.document->mergeChanges(*batch->base, *batch->document);
        } else if (batch) {
            Document base; // the copy the batch took over, as it was before its writes
            base.parse(batch->baseText);
            file.document->mergeChanges(base, *batch->document);
        }
        for (const Operation& operation : operations)
            operation.applyTo(*file.document);
    }
    return diskText;
}

// Applies operations to the shared copy and rewrites the file once.
bool applyAndWrite(const std::string& path, const std::vector<Operation>& operations,
                   BatchState* batch = nullptr) {
    auto file = cachedFile(path);
    std::lock_guard guard(file->mutex);
    const std::shared_ptr<const std::string> diskText =
        applyChanges(*file, path, operations, batch);
    file->version = g_nextVersion++;
    std::string error;
    bool unchanged = false;
    TextHasher written;
    std::string made; // the new text, when made in memory to be compared with the disk's
    // Once the file holds it, the text made in memory becomes the parsed copy, as if read: the
    // next change then finds the disk's text at hand again.
    const auto keepMade = [&](const Stamp& stamp, const TextHasher& hasher) {
        auto document = std::make_shared<Document>();
        document->parse(std::make_shared<const std::string>(std::move(made)));
        document->stamp = file->stamp = stamp;
        document->textHash = file->textHash = hasher.value();
        document->textSize = file->textSize = hasher.size();
        file->document = std::move(document);
        return true;
    };
    if (diskText && diskText->size() <= kInPlaceLimit && !file->document->hasSources()) {
        Sink sink;
        file->document->serialize(sink);
        made = std::move(sink.text());
        written = sink.hasher();
        if (made == *diskText) { // the file already holds exactly this
            file->document->stamp = file->stamp;
            return true;
        }
        Stamp stamp = file->stamp;
        if (writeInPlace(path, *diskText, made, stamp))
            return keepMade(stamp, sink.hasher());
    }
    if (!writeAtomically(path, *file->document, made.empty() ? nullptr : &made,
                         file->stamp.exists ? file->textHash : 0, file->textSize, written,
                         unchanged, error)) {
        t_lastWriteError = error;
        file->valid = false; // the disk still holds the old text: read it again next time
        return false;
    }
    if (file->document->hasSources()) {
        // Sections written from a source are not kept: the file is read again when next used.
        file->valid = false;
        file->document = std::make_shared<Document>();
        return true;
    }
    if (unchanged) {
        file->document->stamp = file->stamp;
        return true;
    }
    if (!made.empty())
        return keepMade(stampOf(path), written);
    file->document->stamp = file->stamp = stampOf(path);
    file->textHash = file->document->textHash = written.value();
    file->textSize = file->document->textSize = written.size();
    return true;
}

// The document a batch's first change goes into: the cached copy itself when nobody else holds
// it and it is still its text as read, so that a large file's index is not copied; then the
// cache forgets it until the batch commits (other threads reading meanwhile read the file
// again). A copy otherwise.
std::unique_ptr<Document> takeOverOrCopy(const std::string& path, BatchState& state) {
    auto file = cachedFile(path);
    std::lock_guard guard(file->mutex);
    if (file->document != state.base || file->version != state.baseVersion ||
        state.base.use_count() != 2 || !state.base->isPristine())
        return std::make_unique<Document>(*state.base);
    auto taken = std::make_unique<Document>(std::move(*file->document));
    file->document.reset();
    state.base.reset();
    state.baseText = taken->text();
    return taken;
}

bool change(const std::string& rawPath, Operation operation) {
    const std::string path = normalized(rawPath);
    auto batch = t_batches.find(path);
    if (batch != t_batches.end()) {
        BatchState& state = batch->second;
        if (!state.document) {
            if (!operation.changes(*state.base))
                return true; // a batch that changes nothing copies nothing
            state.document = takeOverOrCopy(path, state);
        }
        operation.applyTo(*state.document);
        state.changed = true;
        return true;
    }
    return applyAndWrite(path, {operation});
}

template <typename Function>
auto withDocument(const std::string& rawPath, Function function) {
    const std::string path = normalized(rawPath);
    auto pinned = t_pinned.find(path);
    if (pinned != t_pinned.end())
        return function(*pinned->second);
    auto batch = t_batches.find(path);
    if (batch != t_batches.end())
        return function(static_cast<const Document&>(
            batch->second.document ? *batch->second.document : *batch->second.base));
    auto file = cachedFile(path);
    std::lock_guard guard(file->mutex);
    refresh(*file, path);
    return function(static_cast<const Document&>(*file->document));
}

} // namespace

std::optional<std::string> readValue(const std::string& path, const std::string& section,
                                     const std::string& key) {
    return withDocument(path, [&](const Document& d) { return d.value(section, key); });
}

std::vector<std::string> listKeys(const std::string& path, const std::string& section) {
    return withDocument(path, [&](const Document& d) { return d.keys(section); });
}

std::vector<std::string> listSections(const std::string& path) {
    return withDocument(path, [](const Document& d) { return d.sectionNames(); });
}

bool hasSection(const std::string& path, const std::string& section) {
    return withDocument(path, [&](const Document& d) { return d.hasSection(section); });
}

std::vector<std::optional<std::string>> readValues(const std::string& path,
                                                   const std::string& section,
                                                   const std::vector<std::string>& keys) {
    return withDocument(path, [&](const Document& d) { return d.values(section, keys); });
}

std::size_t countNumberedSections(const std::string& path, const std::string& prefix,
                                  const std::string& suffix, const std::string& key,
                                  const std::function<bool(std::string_view)>& holds) {
    return withDocument(path, [&](const Document& d) {
        std::string name = prefix;
        std::size_t count = 0;
        for (;; ++count) {
            name.resize(prefix.size());
            name += std::to_string(count + 1);
            name += suffix;
            bool found = false;
            d.forEachValue(name, key, [&](std::string_view value) { found = holds(value); });
            if (!found)
                return count;
        }
    });
}

void SectionSource::appendKeyLines(std::size_t index, std::string& out) const {
    std::vector<std::pair<std::string, std::string>> keys;
    sectionKeys(index, keys);
    for (const auto& [key, value] : keys) {
        out += key;
        out += '=';
        out += value;
        out += '\n';
    }
}

bool appendSections(const std::string& path, std::shared_ptr<const SectionSource> source) {
    return change(path, Operation{Operation::AppendSections, {}, {}, {}, std::move(source)});
}

bool writeValue(const std::string& path, const std::string& section, const std::string& key,
                const std::string& value) {
    const auto breaksLine = [](const std::string& text, char also) {
        for (char c : text)
            if (c == '\n' || c == '\r' || c == also)
                return true;
        return false;
    };
    if (breaksLine(value, '\n') || breaksLine(key, '=') || breaksLine(section, ']')) {
        t_lastWriteError = "Can't write a line break into a profile file: [" + section + "] " + key;
        return false;
    }
    return change(path, Operation{Operation::Set, section, key, value});
}

bool deleteKey(const std::string& path, const std::string& section, const std::string& key) {
    return change(path, Operation{Operation::DeleteKey, section, key, {}});
}

bool deleteSection(const std::string& path, const std::string& section) {
    return change(path, Operation{Operation::DeleteSection, section, {}, {}});
}

std::string lastWriteError() { return t_lastWriteError; }

std::string fileProblem(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        return errno == ENOENT ? "" : "Can't read " + path + ": " + std::strerror(errno);
    if (!S_ISREG(info.st_mode))
        return "Not a regular file: " + path;
    // Checked in the copy that reads use, so that a large file is read once, not twice.
    const std::string key = normalized(path);
    std::string problem;
    {
        auto file = cachedFile(key);
        std::lock_guard guard(file->mutex);
        refresh(*file, key);
        if (file->readError != 0)
            problem = "Can't read " + path + ": " + std::strerror(file->readError);
        else if (file->document->holdsNul())
            problem = "Not a text file (it holds NUL bytes): " + path;
    }
    if (!problem.empty())
        forget(path); // nothing reads it: its text need not stay in memory
    return problem;
}

Snapshot snapshot(const std::string& rawPath) {
    const std::string path = normalized(rawPath);
    auto file = cachedFile(path);
    std::lock_guard guard(file->mutex);
    auto batch = t_batches.find(path);
    if (batch == t_batches.end())
        refresh(*file, path);
    else if (!batch->second.document)
        return batch->second.base;
    else {
        auto copy = std::make_shared<Document>(*batch->second.document);
        copy->textHash = copy->textSize = 0; // not a text that was read or written
        copy->stamp = {};
        return copy;
    }
    return file->document;
}

bool sameText(const Snapshot& first, const Snapshot& second) {
    if (first == second)
        return true;
    return first && second && first->textHash != 0 && first->textHash == second->textHash &&
           first->textSize == second->textSize;
}

bool holdsText(const std::string& rawPath, const Snapshot& snapshot) {
    if (!snapshot || snapshot->textHash == 0 || !snapshot->stamp.exists)
        return false;
    return stampOf(normalized(rawPath)) == snapshot->stamp;
}

FileStamp fileStamp(const std::string& path) { return stampOf(normalized(path)); }

FileStamp stampOf(const Snapshot& snapshot) { return snapshot ? snapshot->stamp : FileStamp{}; }

void reuse(const std::string& rawPath, const Snapshot& snapshot) {
    if (!snapshot || snapshot->textHash == 0 || !snapshot->stamp.exists)
        return;
    const std::string path = normalized(rawPath);
    if (t_batches.count(path) || t_pinned.count(path))
        return;
    auto file = cachedFile(path);
    std::lock_guard guard(file->mutex);
    const Stamp current = stampOf(path);
    if ((file->valid && file->document && file->stamp == current) || !(current == snapshot->stamp))
        return;
    // Shared with the snapshot's holder: the first change copies it (see applyAndWrite).
    file->document = std::const_pointer_cast<Document>(snapshot);
    file->stamp = current;
    file->valid = true;
    file->readError = 0;
    file->textHash = snapshot->textHash;
    file->textSize = snapshot->textSize;
    file->version = g_nextVersion++;
}

ReadFromSnapshot::ReadFromSnapshot(const std::string& path, Snapshot snapshot)
    : m_path(normalized(path)) {
    if (snapshot && !t_pinned.count(m_path))
        t_pinned.emplace(m_path, std::move(snapshot));
    else
        m_path.clear();
}

ReadFromSnapshot::~ReadFromSnapshot() {
    if (!m_path.empty())
        t_pinned.erase(m_path);
}

void clearCache() {
    auto& instance = cache();
    std::lock_guard guard(instance.mutex);
    instance.files.clear();
}

void forget(const std::string& path) {
    auto& instance = cache();
    std::lock_guard guard(instance.mutex);
    instance.files.erase(normalized(path));
}

WriteBatch::WriteBatch(const std::string& path) : m_path(normalized(path)) {
    auto [it, inserted] = t_batches.try_emplace(m_path);
    if (inserted) {
        auto file = cachedFile(m_path);
        std::lock_guard guard(file->mutex);
        refresh(*file, m_path);
        it->second.base = file->document;
        it->second.baseVersion = file->version;
        m_outermost = true;
    }
    ++it->second.depth;
}

WriteBatch::~WriteBatch() {
    if (!m_done)
        commit();
}

bool WriteBatch::commit() {
    if (m_done)
        return true;
    m_done = true;
    auto it = t_batches.find(m_path);
    if (it == t_batches.end())
        return false;
    if (--it->second.depth > 0)
        return true;
    BatchState state = std::move(it->second);
    t_batches.erase(it);
    if (!state.changed)
        return true;
    return applyAndWrite(m_path, {}, &state);
}

} // namespace profile
