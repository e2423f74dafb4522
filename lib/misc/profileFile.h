// Profile (INI) files with the observable rules of the platform's private-profile
// functions: section and key names match case-insensitively, the first occurrence
// of a section or key wins, white space around names and values is ignored, and a
// value runs to the end of its line (quotes are kept as they are).
//
// Each file is kept in memory as its text and an index of its sections, and read again
// when the file changes on disk. Reads scan only the section they name; a section's lines
// are parsed when it is first written. A write streams the whole file to a temporary file
// beside it (untouched sections copied from the text) and renames it over the file, so a
// crash leaves the old file or the new one, never a torn one. A change that keeps the file's
// size and lies within one 512-byte sector (a new time or validator of the same length) is
// written into the file itself instead: the disk writes a sector whole, so a crash leaves the
// old bytes or the new ones there too. A WriteBatch groups many writes to one file into a
// single rewrite.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace profile {

// The raw value of a key (trimmed), or nothing when the file, section or key is missing.
std::optional<std::string> readValue(const std::string& path, const std::string& section,
                                     const std::string& key);
// The key names of a section in file order (first occurrences only).
std::vector<std::string> listKeys(const std::string& path, const std::string& section);
// The section names of a file in file order (first occurrences only).
std::vector<std::string> listSections(const std::string& path);
bool hasSection(const std::string& path, const std::string& section);
// The raw values of several keys of one section (nothing for a missing key), in the order of
// keys: one look-up of the section instead of one per key.
std::vector<std::optional<std::string>> readValues(const std::string& path,
                                                   const std::string& section,
                                                   const std::vector<std::string>& keys);

// How many sections prefix + n + suffix (n = 1, 2, ...) in a row hold the key with a raw value
// that holds accepts: a numbered list whose first gap ends it, counted in one look at the file.
std::size_t countNumberedSections(const std::string& path, const std::string& prefix,
                                  const std::string& suffix, const std::string& key,
                                  const std::function<bool(std::string_view)>& holds);

// Sets a key (creating section and file as needed). The value must not contain a line
// break. Returns false when the file could not be written; the error text is then in
// lastWriteError(). Outside a batch the file is on disk when this returns.
bool writeValue(const std::string& path, const std::string& section, const std::string& key,
                const std::string& value);
// Removes one key; a missing key is no error.
bool deleteKey(const std::string& path, const std::string& section, const std::string& key);
// Removes every section of that name with all its keys.
bool deleteSection(const std::string& path, const std::string& section);
// Sections whose keys come from elsewhere (a feed's items) when they are read or written out,
// instead of being held as lines. Names are distinct, and so are the keys of one section.
class SectionSource {
public:
    virtual ~SectionSource() = default;
    virtual std::size_t sectionCount() const = 0;
    virtual std::string sectionName(std::size_t index) const = 0;
    // The index of the section of that name (compared without regard to case), if any.
    virtual std::optional<std::size_t> indexOf(std::string_view name) const = 0;
    // The keys and raw values of a section, in file order.
    virtual void sectionKeys(std::size_t index,
                             std::vector<std::pair<std::string, std::string>>& keys) const = 0;
    // The section's key lines ("key=raw value" and a line break each) added to out; a source
    // may write them without making the pairs of sectionKeys.
    virtual void appendKeyLines(std::size_t index, std::string& out) const;
};
// Writes every key of every section of the source, as writeValue would one by one; when the
// file holds none of those sections yet, they are written out from the source itself.
bool appendSections(const std::string& path, std::shared_ptr<const SectionSource> source);
// The reason of the calling thread's last failed write.
std::string lastWriteError();

// Why a file that exists can't serve as a profile file (it can't be read, or it holds NUL
// bytes, as binary files do); empty when it can, or when it does not exist.
std::string fileProblem(const std::string& path);

// What identifies one version of a file on disk.
struct FileStamp {
    bool exists = false;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modifiedSeconds = 0;
    std::int64_t modifiedNanoseconds = 0;
    bool operator==(const FileStamp&) const = default;
};
// The stamp of the file as it is on disk now (exists is false when it is missing).
FileStamp fileStamp(const std::string& path);

class Document;
// The parsed copy of a file at one moment. Holding one keeps that copy alive however the file
// changes later, on disk or through this layer.
using Snapshot = std::shared_ptr<const Document>;
// The file as the calling thread sees it now (with the writes of its open batch).
Snapshot snapshot(const std::string& path);
// Whether two snapshots were taken of the same text (as read from disk or written there).
bool sameText(const Snapshot& first, const Snapshot& second);
// Whether the file on disk is known to hold the text the snapshot was taken of, without reading
// it again (its stamp is the one the text was read or written with): false when that is not known.
bool holdsText(const std::string& path, const Snapshot& snapshot);
// The stamp the file had when the snapshot's text was read from it or written to it; empty for
// a snapshot of unwritten changes.
FileStamp stampOf(const Snapshot& snapshot);
// When the file's parsed copy has left the cache but the disk still holds the snapshot's text,
// the snapshot becomes that copy again, so that the next batch on the file does not read it.
void reuse(const std::string& path, const Snapshot& snapshot);

// While one lives, the calling thread's reads of the file come from the snapshot instead of
// the file or an open batch (writes are not meant meanwhile). A null snapshot changes nothing.
class ReadFromSnapshot {
public:
    ReadFromSnapshot(const std::string& path, Snapshot snapshot);
    ~ReadFromSnapshot();
    ReadFromSnapshot(const ReadFromSnapshot&) = delete;
    ReadFromSnapshot& operator=(const ReadFromSnapshot&) = delete;

private:
    std::string m_path;
};

// Forgets the parsed copies (tests; or after moving files around).
void clearCache();
// Forgets the copy kept of one file, so that its text leaves memory once no snapshot holds it;
// the next read reads the file again.
void forget(const std::string& path);

// While a batch on a file is open on a thread, that thread's writes to the file are
// collected in memory (and its reads see them); the file is rewritten once when the
// outermost batch commits. Other threads see the file as it was until then. Writes that
// other threads make meanwhile are kept: the batch's changes are replayed on top of them.
// A batch without writes is a consistent read snapshot: its reads skip the per-read check
// of the disk, which makes loading a whole channel several times faster.
class WriteBatch {
public:
    explicit WriteBatch(const std::string& path);
    // Commits if commit() was not called; a failure is then only recorded.
    ~WriteBatch();
    WriteBatch(const WriteBatch&) = delete;
    WriteBatch& operator=(const WriteBatch&) = delete;

    // Writes the file (outermost batch only); returns false on failure.
    bool commit();

private:
    std::string m_path;
    bool m_outermost = false;
    bool m_done = false;
};

} // namespace profile
