// The one diagnostic log of the program, its fatal-error and assertion reports, and a
// stream-buffer adapter through which stream insertion lands in the log.
#pragma once

#include "lib/log/msgGroup.h"
#include "lib/misc/threadSafetyWin32.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <string_view>
#include <thread>

namespace msglog {

// Identifies where a thread's lines come from; its number fills the "[%03d] " field.
struct LogSource {
    int number;
};

// Which fields of the line prefix are written.
struct LogSwitches {
    bool sourceNumber = true;
    bool sequenceNumber = true;
    bool time = true;
    bool date = true;
    bool sourcePosition = true;
};

// Shows a report (title "PROGRAM ABORT" or "PROGRAM ASSERTION ERROR") to the user, for
// example in a dialog; the report has already gone to standard error and the log.
using ReportHandler = void (*)(const std::string& title, const std::string& report);

class CMessageLog {
public:
    static CMessageLog& instance();
    virtual ~CMessageLog();

    // Opens (appends to) the log file; returns false with the reason in error on failure.
    // Lines reach the file when the log has been quiet for a moment, and at the latest a
    // second after they were written, so that a busy log costs no write per line; a process
    // that is killed loses at most its last second of lines.
    bool open(const std::string& path, std::string* error = nullptr);
    // Writes what is held back and closes the file.
    void close();
    // Writes the lines held back to the file now.
    void flush();
    std::string path() const;
    // Whether lines go anywhere (a file or a mirror); lines are not even formatted otherwise.
    bool isWriting() const;
    // When the file would grow past this many bytes it is renamed to "<path>.old" (replacing
    // the previous one) and a new file is started. 0 means no limit.
    void setMaxFileSize(std::uint64_t bytes);
    // Also copies every line to this stream (null stops it).
    void setMirror(std::ostream* mirror);

    void setSwitches(const LogSwitches& switches);
    LogSwitches switches() const;
    void setIndentStep(int blanks);
    void indent();
    void outdent();
    // The calling thread's source (null for none).
    static void setCurrentSource(const LogSource* source);

    // Takes the log's re-entrant lock for a block of lines (bounded by the debugging timeout).
    void lock();
    void unlock();

    // Writes one line with its prefix, when the group (if any) is enabled.
    void writeLine(const char* file, unsigned line, std::string_view text,
                   const MsgGroup* group = nullptr);
    // Writes binary data, printable bytes as they are and others as "<%02x>".
    void writeBytes(const char* file, unsigned line, const void* data, std::size_t size,
                    const MsgGroup* group = nullptr);

    // The prefix for a line from file:line written at the given time.
    std::string formatPrefix(const char* file, unsigned line, std::time_t now) const;
    void appendPrefix(std::string& out, const char* file, unsigned line, std::time_t now) const;
    std::uint32_t sequenceNumber() const { return m_sequenceNumber; }

    // Writes already formatted report lines without taking the log's lock (used while the
    // program ends, when the lock may be the very thing that is stuck).
    void writeReport(const std::string& report);

private:
    friend class LogLine;
    using Clock = std::chrono::steady_clock;

    CMessageLog();
    static void appendSourcePosition(std::string& out, const char* file, unsigned line);
    // Writes one line; the caller holds the log's lock.
    void writeLineLocked(const char* file, unsigned line, std::string_view text);
    void writeFormatted(std::string_view text);
    void rollOverIfNeeded(std::size_t incoming);
    void noteHeldBack();
    void startFlusher();
    void stopFlusher();
    void runFlusher(std::uint64_t generation);
    void flushLocked();

    LogSwitches m_switches;
    std::uint32_t m_sequenceNumber = 0;
    int m_depth = 0;
    int m_step = 2;

    threadSafety::CriticalSection m_stateLock{"CMessageLog state"};
    unsigned long m_owner = 0;
    unsigned m_ownerCount = 0;
    threadSafety::Event m_released{false, false};

    std::mutex m_fileMutex;
    std::FILE* m_file = nullptr;
    std::string m_path;
    std::uint64_t m_maxFileSize = std::uint64_t{5} * 1024 * 1024;
    std::uint64_t m_fileSize = 0;
    std::ostream* m_mirror = nullptr;
    std::atomic<bool> m_writing{false};

    // Guarded by m_fileMutex: lines written but not yet flushed, and the flushing thread.
    bool m_heldBack = false;
    Clock::time_point m_firstHeldBack;
    Clock::time_point m_lastWrite;
    std::condition_variable m_flushWake;
    bool m_flusherRunning = false;
    std::uint64_t m_flusherGeneration = 0; // a flushing thread of another generation ends
    bool m_atExitRegistered = false;
    std::thread m_flusher;
};

// Holds the log's lock for a block of lines, so that a headline and its "- " detail lines
// stay together.
class LogBlock {
public:
    LogBlock() { CMessageLog::instance().lock(); }
    ~LogBlock() { CMessageLog::instance().unlock(); }
    LogBlock(const LogBlock&) = delete;
    LogBlock& operator=(const LogBlock&) = delete;
};

// Indents the lines written during its life by one step.
class LogIndent {
public:
    LogIndent() { CMessageLog::instance().indent(); }
    ~LogIndent() { CMessageLog::instance().outdent(); }
    LogIndent(const LogIndent&) = delete;
    LogIndent& operator=(const LogIndent&) = delete;
};

// One line in a group: a stream when the group is enabled, nothing when it is disabled. An
// enabled line holds the log's lock from construction and is written on destruction; a
// disabled one takes no lock at all.
class LogLine {
public:
    LogLine(const MsgGroup& group, const char* file, unsigned line);
    ~LogLine();
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;
    explicit operator bool() const { return m_stream != nullptr; }
    // Only when enabled.
    std::ostream& stream() { return *m_stream; }

private:
    const char* m_file;
    unsigned m_line;
    // Only for an enabled group: the thread's line stream, or one of its own when the
    // thread's is taken by a line still being made.
    std::ostream* m_stream = nullptr;
    std::unique_ptr<std::ostringstream> m_own;
};

// Characters inserted through this buffer reach the log, one line per line break.
class CMessageLogStreamBuf : public std::streambuf {
public:
    CMessageLogStreamBuf(const MsgGroup* group, const char* file, unsigned line)
        : m_group(group), m_file(file), m_line(line) {}
    ~CMessageLogStreamBuf() override;

protected:
    int_type overflow(int_type character) override;
    int sync() override;

private:
    const MsgGroup* m_group;
    const char* m_file;
    unsigned m_line;
    std::string m_pending;
};

// Reports a fatal condition to standard error, the log and the report handler, then ends
// the process with exit status 1. A second call on the thread already reporting returns at
// once; one on another thread waits for the process to end.
void programAbort(const char* message, const char* function, const char* file, unsigned line);
// Reports a failed assertion like the abort, then returns.
void assertionFailure(const char* message, const char* expression, const char* function,
                      const char* file, unsigned line);
void setReportHandler(ReportHandler handler);

// The text of the abort and assertion reports.
std::string formatAbortReport(const char* message, const char* function, const char* file,
                              unsigned line);
std::string formatAssertionReport(const char* message, const char* expression, const char* function,
                                  const char* file, unsigned line);
// Printable bytes as they are, every other byte as "<%02x>".
std::string dumpBytes(const void* data, std::size_t size);

} // namespace msglog

#define PELSU_LOG(group, text)                                                                     \
    do {                                                                                           \
        ::msglog::LogLine pelsuLogLine_((group), __FILE__, __LINE__);                              \
        if (pelsuLogLine_)                                                                         \
            pelsuLogLine_.stream() << text; /* NOLINT(bugprone-macro-parentheses) */               \
    } while (0)

// A "- " detail line under the headline just written, indented one step. The log's lock is
// held for the line, so no other thread's line is indented with it.
#define PELSU_LOG_DETAIL(group, text)                                                              \
    do {                                                                                           \
        ::msglog::LogBlock pelsuDetailBlock_;                                                      \
        ::msglog::LogIndent pelsuDetailIndent_;                                                    \
        PELSU_LOG(group, text);                                                                    \
    } while (0)

#define PELSU_ASSERT(expression, message)                                                          \
    do {                                                                                           \
        if (!(expression))                                                                         \
            ::msglog::assertionFailure((message), #expression, __func__, __FILE__, __LINE__);      \
    } while (0)
