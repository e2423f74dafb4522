#include "lib/misc/profileFile.h"
#include "lib/misc/text.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
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

bool equalsNoCase(const std::string& a, const std::string& b) {
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i] && asciiLower(a[i]) != asciiLower(b[i]))
            return false;
    return true;
}

std::string lowered(std::string text) {
    for (char& c : text)
        c = asciiLower(c);
    return text;
}

// One line of a section: a key with its value, or a line kept as it is (comment, blank).
struct Line {
    bool isKey = false;
    std::string key;
    std::string value;
    std::string raw; // the line as read; empty once the key's value was changed
};

struct Section {
    std::string name; // empty for the lines before the first section
    bool isPrelude = false;
    bool deleted = false; // left in place so that deleting many sections stays linear
    std::vector<Line> lines;
};

} // namespace

// A parsed profile file. The index maps a lower-cased section name to its first section;
// later sections of the same name are listed apart. Deleted sections stay in the list,
// marked, until the document is written out.
class Document {
public:
    void parse(const std::string& text);
    std::string serialize() const;

    const Section* findSection(const std::string& name) const;
    std::optional<std::string> value(const std::string& section, const std::string& key) const;
    void setValue(const std::string& section, const std::string& key, const std::string& value);
    void deleteKey(const std::string& section, const std::string& key);
    void deleteSection(const std::string& section);
    std::vector<std::string> sectionNames() const;
    // Applies to this document what changed from base to mine: sections mine no longer has
    // are deleted, and keys mine added, changed or removed are set or deleted.
    void mergeChanges(const Document& base, const Document& mine);

    // Identifies the text the document was read from or last written as (0 when neither).
    std::size_t textHash = 0;
    std::size_t textSize = 0;

private:
    void reindex();
    std::vector<Section> m_sections;
    std::unordered_map<std::string, size_t> m_index;
    std::unordered_multimap<std::string, size_t> m_laterDuplicates;
};

void Document::parse(const std::string& text) {
    m_sections.clear();
    m_sections.push_back(Section{"", true, false, {}});
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos)
            end = text.size();
        std::string raw = text.substr(pos, end - pos);
        pos = end + 1;
        if (!raw.empty() && raw.back() == '\r')
            raw.pop_back();
        const std::string line = misc::trimmed(raw);
        if (!line.empty() && line[0] == '[') {
            size_t close = line.find(']');
            std::string name = misc::trimmed(
                line.substr(1, close == std::string::npos ? std::string::npos : close - 1));
            m_sections.push_back(Section{name, false, false, {}});
            continue;
        }
        Line entry;
        entry.raw = raw;
        if (!line.empty() && line[0] != ';') {
            entry.isKey = true;
            size_t equals = line.find('=');
            entry.key = misc::trimmed(line.substr(0, equals));
            entry.value = equals == std::string::npos ? "" : misc::trimmed(line.substr(equals + 1));
        }
        m_sections.back().lines.push_back(std::move(entry));
    }
    reindex();
}

std::string Document::serialize() const {
    std::string out;
    for (const Section& section : m_sections) {
        if (section.deleted)
            continue;
        if (!section.isPrelude)
            out += "[" + section.name + "]\n";
        for (const Line& line : section.lines) {
            if (!line.raw.empty() || !line.isKey)
                out += line.raw;
            else
                out += line.key + "=" + line.value;
            out += '\n';
        }
    }
    return out;
}

void Document::reindex() {
    m_index.clear();
    m_laterDuplicates.clear();
    for (size_t i = 0; i < m_sections.size(); ++i) {
        if (m_sections[i].isPrelude || m_sections[i].deleted)
            continue;
        std::string name = lowered(m_sections[i].name);
        if (!m_index.emplace(name, i).second)
            m_laterDuplicates.emplace(std::move(name), i);
    }
}

const Section* Document::findSection(const std::string& name) const {
    auto it = m_index.find(lowered(name));
    return it == m_index.end() ? nullptr : &m_sections[it->second];
}

std::optional<std::string> Document::value(const std::string& section,
                                           const std::string& key) const {
    const Section* found = findSection(section);
    if (!found)
        return std::nullopt;
    for (const Line& line : found->lines)
        if (line.isKey && equalsNoCase(line.key, key))
            return line.value;
    return std::nullopt;
}

void Document::setValue(const std::string& section, const std::string& key,
                        const std::string& value) {
    auto it = m_index.find(lowered(section));
    if (it == m_index.end()) {
        m_sections.push_back(Section{section, false, false, {}});
        it = m_index.emplace(lowered(section), m_sections.size() - 1).first;
    }
    Section& target = m_sections[it->second];
    size_t insertAt = 0;
    for (size_t i = 0; i < target.lines.size(); ++i) {
        Line& line = target.lines[i];
        if (line.isKey && equalsNoCase(line.key, key)) {
            if (line.value != value) {
                line.value = value;
                line.raw.clear();
            }
            return;
        }
        if (line.isKey || !misc::trimmed(line.raw).empty())
            insertAt = i + 1; // new keys go after the last non-blank line
    }
    Line entry;
    entry.isKey = true;
    entry.key = key;
    entry.value = value;
    target.lines.insert(target.lines.begin() + static_cast<std::ptrdiff_t>(insertAt),
                        std::move(entry));
}

void Document::deleteKey(const std::string& section, const std::string& key) {
    auto it = m_index.find(lowered(section));
    if (it == m_index.end())
        return;
    auto& lines = m_sections[it->second].lines;
    std::erase_if(lines,
                  [&](const Line& line) { return line.isKey && equalsNoCase(line.key, key); });
}

void Document::deleteSection(const std::string& section) {
    const std::string name = lowered(section);
    auto first = m_index.find(name);
    if (first == m_index.end())
        return;
    const auto drop = [this](size_t index) {
        m_sections[index].deleted = true;
        std::vector<Line>().swap(m_sections[index].lines);
    };
    drop(first->second);
    m_index.erase(first);
    auto [begin, end] = m_laterDuplicates.equal_range(name);
    for (auto it = begin; it != end; ++it)
        drop(it->second);
    m_laterDuplicates.erase(begin, end);
}

void Document::mergeChanges(const Document& base, const Document& mine) {
    for (const std::string& name : base.sectionNames())
        if (!mine.findSection(name))
            deleteSection(name);
    for (const std::string& name : mine.sectionNames()) {
        const Section* before = base.findSection(name);
        const Section* after = mine.findSection(name);
        for (const Line& line : after->lines) {
            if (!line.isKey || mine.value(name, line.key) != line.value)
                continue; // not the first occurrence of the key
            if (!before || base.value(name, line.key) != line.value)
                setValue(name, line.key, line.value);
        }
        if (before)
            for (const Line& line : before->lines)
                if (line.isKey && !mine.value(name, line.key))
                    deleteKey(name, line.key);
    }
}

std::vector<std::string> Document::sectionNames() const {
    std::vector<std::string> names;
    for (const Section& section : m_sections)
        if (!section.isPrelude && !section.deleted && findSection(section.name) == &section)
            names.push_back(section.name);
    return names;
}

namespace {

// What identifies one version of a file on disk.
struct Stamp {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    bool operator==(const Stamp& other) const {
        return exists == other.exists && device == other.device && inode == other.inode &&
               size == other.size && modified.tv_sec == other.modified.tv_sec &&
               modified.tv_nsec == other.modified.tv_nsec;
    }
};

Stamp stampOf(const std::string& path) {
    Stamp stamp;
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
        stamp.exists = true;
        stamp.device = info.st_dev;
        stamp.inode = info.st_ino;
        stamp.size = info.st_size;
        stamp.modified = info.st_mtim;
    }
    return stamp;
}

// A change to a document, kept so that a batch can be replayed on a fresher copy.
struct Operation {
    enum Kind { Set, DeleteKey, DeleteSection } kind;
    std::string section;
    std::string key;
    std::string value;
    // Whether applying it to the document would change anything.
    bool changes(const Document& document) const {
        switch (kind) {
        case Set:
            return document.value(section, key) != value;
        case DeleteKey:
            return document.value(section, key).has_value();
        case DeleteSection:
            return document.findSection(section) != nullptr;
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
        }
    }
};

// Versions are unique across all files, so that a copy read again after eviction never
// passes for the one a batch started from.
std::atomic<std::uint64_t> g_nextVersion{1};

struct CachedFile {
    std::mutex mutex;
    // Shared with the snapshots taken of it: changed in place only while nobody else holds it.
    std::shared_ptr<Document> document = std::make_shared<Document>();
    Stamp stamp;
    bool valid = false;
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

bool readWholeFile(const std::string& path, std::string& text) {
    FILE* file = std::fopen(path.c_str(), "rb");
    if (!file)
        return false;
    char buffer[65536];
    size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        text.append(buffer, count);
    std::fclose(file);
    return true;
}

// Brings the parsed copy up to date with the disk; called with the file's mutex held.
void refresh(CachedFile& file, const std::string& path) {
    Stamp current = stampOf(path);
    if (file.valid && current == file.stamp)
        return;
    std::string text;
    if (current.exists)
        readWholeFile(path, text);
    file.document = std::make_shared<Document>();
    file.document->parse(text);
    file.document->textHash = std::hash<std::string>{}(text);
    file.document->textSize = text.size();
    file.stamp = current;
    file.valid = true;
    file.version = g_nextVersion++;
    file.textHash = std::hash<std::string>{}(text);
    file.textSize = text.size();
}

bool writeAtomically(const std::string& path, const std::string& text, std::string& error) {
    std::string pattern = path + ".tmp-XXXXXX";
    int descriptor = ::mkstemp(pattern.data());
    if (descriptor < 0) {
        error = "Can't create a temporary file beside " + path + ": " + std::strerror(errno);
        return false;
    }
    struct stat info {};
    ::fchmod(descriptor, ::stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0644);
    size_t written = 0;
    while (written < text.size()) {
        ssize_t n = ::write(descriptor, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            error = "Can't write " + path + ": " + std::strerror(errno);
            ::close(descriptor);
            ::unlink(pattern.c_str());
            return false;
        }
        written += static_cast<size_t>(n);
    }
    if (::close(descriptor) != 0 || ::rename(pattern.c_str(), path.c_str()) != 0) {
        error = "Can't replace " + path + ": " + std::strerror(errno);
        ::unlink(pattern.c_str());
        return false;
    }
    return true;
}

// Applies operations to the shared copy and rewrites the file once. A batch whose starting
// copy is still current hands over its document; otherwise its changes are merged into the
// fresher copy.
bool applyAndWrite(const std::string& path, const std::vector<Operation>& operations,
                   BatchState* batch = nullptr) {
    auto file = cachedFile(path);
    std::lock_guard guard(file->mutex);
    refresh(*file, path);
    if (batch && batch->baseVersion == file->version) {
        file->document = std::make_shared<Document>(std::move(*batch->document));
    } else {
        if (file->document.use_count() > 1) // a snapshot keeps the copy it was given
            file->document = std::make_shared<Document>(*file->document);
        if (batch)
            file->document->mergeChanges(*batch->base, *batch->document);
        for (const Operation& operation : operations)
            operation.applyTo(*file->document);
    }
    file->version = g_nextVersion++;
    const std::string text = file->document->serialize();
    const std::size_t hash = std::hash<std::string>{}(text);
    if (file->stamp.exists && text.size() == file->textSize && hash == file->textHash)
        return true; // the file already holds exactly this
    std::string error;
    if (!writeAtomically(path, text, error)) {
        t_lastWriteError = error;
        file->valid = false; // the disk still holds the old text: read it again next time
        return false;
    }
    file->stamp = stampOf(path);
    file->textHash = file->document->textHash = hash;
    file->textSize = file->document->textSize = text.size();
    return true;
}

bool change(const std::string& rawPath, Operation operation) {
    const std::string path = normalized(rawPath);
    auto batch = t_batches.find(path);
    if (batch != t_batches.end()) {
        BatchState& state = batch->second;
        if (!state.document) {
            if (!operation.changes(*state.base))
                return true; // a batch that changes nothing copies nothing
            state.document = std::make_unique<Document>(*state.base);
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
    return withDocument(path, [&](const Document& d) {
        std::vector<std::string> keys;
        if (const Section* found = d.findSection(section))
            for (const Line& line : found->lines)
                if (line.isKey && std::none_of(keys.begin(), keys.end(), [&](const auto& k) {
                        return equalsNoCase(k, line.key);
                    }))
                    keys.push_back(line.key);
        return keys;
    });
}

std::vector<std::string> listSections(const std::string& path) {
    return withDocument(path, [](const Document& d) { return d.sectionNames(); });
}

bool hasSection(const std::string& path, const std::string& section) {
    return withDocument(path, [&](const Document& d) { return d.findSection(section) != nullptr; });
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
    std::string text;
    if (!readWholeFile(path, text))
        return "Can't read " + path + ": " + std::strerror(errno);
    if (text.find('\0') != std::string::npos)
        return "Not a text file (it holds NUL bytes): " + path;
    return "";
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
