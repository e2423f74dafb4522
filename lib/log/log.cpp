#include "lib/log/log.h"

#include "lib/misc/text.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <thread>

namespace msglog {

namespace {

// Lines wait for the log to be quiet this long, but never longer than the hold-back limit.
constexpr std::chrono::milliseconds kQuietMoment{200};
constexpr std::chrono::milliseconds kLongestHoldBack{1000};
// Lines held back reach the file in writes of up to this many bytes.
constexpr std::size_t kFileBuffer = std::size_t{64} << 10;

thread_local const LogSource* t_currentSource = nullptr;

// The log file opened for appending, its lines written in pieces of kFileBuffer.
std::FILE* openForAppending(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "ab");
    if (file)
        std::setvbuf(file, nullptr, _IOFBF, kFileBuffer);
    return file;
}
std::atomic<ReportHandler> g_reportHandler{nullptr};

// Base name and extension (with its dot) of a path written with either kind of separator.
void splitSourcePath(const char* file, std::string& base, std::string& extension) {
    std::string path(file);
    size_t slash = path.find_last_of("/\\");
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    size_t dot = name.rfind('.');
    base = dot == std::string::npos ? name : name.substr(0, dot);
    extension = dot == std::string::npos ? "" : name.substr(dot);
}

void fatalFromLocks(const char* message, const char* function, const char* file, unsigned line) {
    programAbort(message, function, file, line);
}

// Deadlocks found by the lock module end the program through the abort report.
const bool g_fatalHandlerInstalled = (threadSafety::setFatalHandler(&fatalFromLocks), true);

} // namespace

CMessageLog& CMessageLog::instance() {
    // Never destroyed: threads and static destructors may still log while the process ends.
    static CMessageLog* log = new CMessageLog;
    return *log;
}

CMessageLog::CMessageLog() {
    if (!g_fatalHandlerInstalled)
        threadSafety::setFatalHandler(&fatalFromLocks);
}

CMessageLog::~CMessageLog() { close(); }

bool CMessageLog::open(const std::string& path, std::string* error) {
    {
        std::lock_guard guard(m_fileMutex);
        if (m_file)
            std::fclose(m_file);
        m_file = openForAppending(path);
        if (!m_file) {
            if (error)
                *error = "Can't open the log file " + path + ": " + std::strerror(errno);
            return false;
        }
        m_path = path;
        m_writing = true;
        std::error_code ignored;
        m_fileSize = std::filesystem::file_size(path, ignored);
    }
    startFlusher();
    return true;
}

void CMessageLog::close() {
    stopFlusher();
    std::lock_guard guard(m_fileMutex);
    if (m_file)
        std::fclose(m_file);
    m_file = nullptr;
    m_heldBack = false;
    m_writing = m_mirror != nullptr;
}

void CMessageLog::flush() {
    std::lock_guard guard(m_fileMutex);
    flushLocked();
}

void CMessageLog::flushLocked() {
    if (m_file && m_heldBack)
        std::fflush(m_file);
    m_heldBack = false;
}

void CMessageLog::startFlusher() {
    std::lock_guard guard(m_fileMutex);
    if (m_flusherRunning)
        return;
    m_flusherRunning = true;
    const std::uint64_t generation = ++m_flusherGeneration;
    m_flusher = std::thread([this, generation] { runFlusher(generation); });
    // From the end of main on, every line goes straight to the file.
    if (!m_atExitRegistered)
        m_atExitRegistered = std::atexit([] { instance().stopFlusher(); }) == 0;
}

void CMessageLog::stopFlusher() {
    std::thread flusher;
    {
        std::lock_guard guard(m_fileMutex);
        if (!m_flusherRunning)
            return;
        m_flusherRunning = false;
        ++m_flusherGeneration;
        flusher = std::move(m_flusher);
    }
    m_flushWake.notify_all();
    flusher.join();
    flush();
}

// Flushes once the log has been quiet for a moment, or once the oldest line held back has
// waited the longest hold-back, whichever comes first.
void CMessageLog::runFlusher(std::uint64_t generation) {
    std::unique_lock lock(m_fileMutex);
    while (generation == m_flusherGeneration) {
        if (!m_heldBack) {
            m_flushWake.wait(lock);
            continue;
        }
        const Clock::time_point due =
            std::min(m_firstHeldBack + kLongestHoldBack, m_lastWrite + kQuietMoment);
        if (Clock::now() < due) {
            m_flushWake.wait_until(lock, due);
            continue;
        }
        flushLocked();
    }
}

// Called with m_fileMutex held, after a line went into the file's buffer.
void CMessageLog::noteHeldBack() {
    m_lastWrite = Clock::now();
    if (m_heldBack)
        return;
    m_heldBack = true;
    m_firstHeldBack = m_lastWrite;
    m_flushWake.notify_one();
}

std::string CMessageLog::path() const { return m_path; }

bool CMessageLog::isWriting() const { return m_writing.load(std::memory_order_relaxed); }

void CMessageLog::setMaxFileSize(std::uint64_t bytes) {
    std::lock_guard guard(m_fileMutex);
    m_maxFileSize = bytes;
}

void CMessageLog::setMirror(std::ostream* mirror) {
    std::lock_guard guard(m_fileMutex);
    m_mirror = mirror;
    m_writing = m_file != nullptr || m_mirror != nullptr;
}

void CMessageLog::setSwitches(const LogSwitches& switches) {
    lock();
    m_switches = switches;
    unlock();
}

LogSwitches CMessageLog::switches() const { return m_switches; }

void CMessageLog::setIndentStep(int blanks) { m_step = blanks; }
void CMessageLog::indent() {
    lock();
    ++m_depth;
    unlock();
}
void CMessageLog::outdent() {
    lock();
    if (m_depth > 0)
        --m_depth;
    unlock();
}

void CMessageLog::setCurrentSource(const LogSource* source) { t_currentSource = source; }

void CMessageLog::lock() {
    const unsigned long self = threadSafety::currentThreadId();
    for (;;) {
        {
            threadSafety::ScopedLock state(m_stateLock);
            if (m_ownerCount == 0 || m_owner == self) {
                m_owner = self;
                ++m_ownerCount;
                return;
            }
        }
        threadSafety::waitForSingleObject(&m_released, threadSafety::INFINITE_WAIT);
    }
}

void CMessageLog::unlock() {
    threadSafety::ScopedLock state(m_stateLock);
    if (m_ownerCount == 0 || m_owner != threadSafety::currentThreadId())
        return;
    if (--m_ownerCount == 0) {
        m_owner = 0;
        m_released.set();
    }
}

namespace {

// value in decimal, with leading zeros up to width digits (more digits when it needs them).
void appendZeroPadded(std::string& out, unsigned long value, std::size_t width) {
    char digits[24];
    std::size_t count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    if (count < width)
        out.append(width - count, '0');
    while (count > 0)
        out += digits[--count];
}

} // namespace

std::string CMessageLog::formatPrefix(const char* file, unsigned line, std::time_t now) const {
    std::string prefix;
    appendPrefix(prefix, file, line, now);
    return prefix;
}

void CMessageLog::appendPrefix(std::string& prefix, const char* file, unsigned line,
                               std::time_t now) const {
    if (m_switches.sourceNumber) {
        if (t_currentSource) {
            prefix += '[';
            const long number = t_currentSource->number;
            if (number < 0)
                prefix += '-';
            appendZeroPadded(prefix, static_cast<unsigned long>(number < 0 ? -number : number),
                             number < 0 ? 2 : 3);
            prefix += "] ";
        } else {
            prefix += "      ";
        }
    }
    if (m_switches.sequenceNumber) {
        appendZeroPadded(prefix, m_sequenceNumber, 6);
        prefix += ' ';
    }
    if (m_switches.date || m_switches.time) {
        // The fields change once a second; they are made once per second.
        thread_local std::time_t cachedTime = -1;
        thread_local std::string date, time;
        if (now != cachedTime) {
            char text[64];
            std::tm local{};
            localtime_r(&now, &local);
            asctime_r(&local, text); // "Wed Nov  5 14:07:09 2003\n"
            date.assign(1, text[8] == ' ' ? '0' : text[8]);
            date += text[9];
            date += misc::lowered(std::string(text + 4, 3));
            date.append(text + 22, 2);
            date += ' ';
            time.assign(text + 11, 8);
            time += ' ';
            cachedTime = now;
        }
        if (m_switches.date)
            prefix += date;
        if (m_switches.time)
            prefix += time;
    }
    if (m_switches.sourcePosition) {
        appendSourcePosition(prefix, file, line);
        prefix += ' ';
    }
    if (m_switches.sequenceNumber || m_switches.date || m_switches.time ||
        m_switches.sourcePosition)
        prefix += "| ";
    prefix.append(static_cast<size_t>(std::max(0, m_depth * m_step)), ' ');
}

void CMessageLog::appendSourcePosition(std::string& prefix, const char* file, unsigned line) {
    if (!file) {
        prefix += "         ???:   ???";
        return;
    }
    // The same call sites log again and again: their fields are kept, a few per thread.
    struct Position {
        std::string file;
        unsigned line = 0;
        std::string text;
    };
    thread_local std::array<Position, 64> positions;
    Position& position =
        positions[(reinterpret_cast<std::uintptr_t>(file) / 8 + std::uintptr_t{line} * 31) % 64];
    if (position.line != line || position.file != file) {
        char buffer[128];
        std::string base, extension;
        splitSourcePath(file, base, extension);
        std::snprintf(buffer, sizeof buffer, "%8s%-4s:%06lu", base.c_str(), extension.c_str(),
                      static_cast<unsigned long>(line));
        position = Position{file, line, misc::lowered(buffer)};
    }
    prefix += position.text;
}

void CMessageLog::rollOverIfNeeded(std::size_t incoming) {
    if (!m_file || m_maxFileSize == 0 || m_fileSize + incoming <= m_maxFileSize || m_fileSize == 0)
        return;
    std::fclose(m_file);
    std::error_code ignored;
    std::filesystem::rename(m_path, m_path + ".old", ignored);
    m_file = openForAppending(m_path);
    m_fileSize = 0;
}

void CMessageLog::writeFormatted(std::string_view text) {
    std::lock_guard guard(m_fileMutex);
    rollOverIfNeeded(text.size());
    if (m_file) {
        std::fwrite(text.data(), 1, text.size(), m_file);
        m_fileSize += text.size();
        if (m_flusherRunning)
            noteHeldBack();
        else
            std::fflush(m_file);
    }
    if (m_mirror)
        *m_mirror << text << std::flush;
}

void CMessageLog::writeLine(const char* file, unsigned line, std::string_view text,
                            const MsgGroup* group) {
    if ((group && !group->isEnabled()) || !isWriting())
        return;
    lock();
    writeLineLocked(file, line, text);
    unlock();
}

// The line is made in a buffer of the thread's that keeps its capacity from line to line.
void CMessageLog::writeLineLocked(const char* file, unsigned line, std::string_view text) {
    ++m_sequenceNumber;
    thread_local std::string formatted;
    formatted.clear();
    appendPrefix(formatted, file, line, std::time(nullptr));
    formatted += text;
    formatted += '\n';
    writeFormatted(formatted);
}

void CMessageLog::writeBytes(const char* file, unsigned line, const void* data, std::size_t size,
                             const MsgGroup* group) {
    writeLine(file, line, dumpBytes(data, size), group);
}

void CMessageLog::writeReport(const std::string& report) {
    std::lock_guard guard(m_fileMutex);
    if (m_file) {
        std::fwrite(report.data(), 1, report.size(), m_file);
        std::fflush(m_file); // with the lines held back before it
        m_heldBack = false;
    }
}

namespace {

// A line's text as it is inserted: a string that keeps its capacity from line to line.
class LineBuffer : public std::streambuf {
public:
    std::string text;

protected:
    int_type overflow(int_type character) override {
        if (!traits_type::eq_int_type(character, traits_type::eof()))
            text += traits_type::to_char_type(character);
        return traits_type::not_eof(character);
    }
    std::streamsize xsputn(const char* data, std::streamsize count) override {
        text.append(data, static_cast<std::size_t>(count));
        return count;
    }
};

// Set when the thread's line stream is gone (the thread is ending): lines logged by the
// destructors that run after it make streams of their own.
thread_local bool t_lineStreamGone = false;

// A stream over a line buffer, made once per thread (a stream costs more to make than a
// whole line to write) and handed to one line at a time.
struct LineStream {
    LineBuffer buffer;
    std::ostream stream{&buffer};
    std::ios_base::fmtflags flags = stream.flags();
    bool inUse = false;

    LineStream() = default;
    ~LineStream() { t_lineStreamGone = true; }
    LineStream(const LineStream&) = delete;
    LineStream& operator=(const LineStream&) = delete;

    // As a new stream would be: empty, in good state, with the default formatting.
    std::ostream& take() {
        inUse = true;
        buffer.text.clear();
        stream.clear();
        stream.flags(flags);
        stream.precision(6);
        stream.width(0);
        stream.fill(' ');
        return stream;
    }
};

thread_local LineStream t_lineStream;

} // namespace

LogLine::LogLine(const MsgGroup& group, const char* file, unsigned line)
    : m_file(file), m_line(line) {
    if (!group.isEnabled() || !CMessageLog::instance().isWriting())
        return;
    CMessageLog::instance().lock();
    // A line made while another is being made on the same thread (a value whose insertion
    // logs) has a stream of its own.
    if (t_lineStreamGone || t_lineStream.inUse) {
        m_own = std::make_unique<std::ostringstream>();
        m_stream = m_own.get();
    } else {
        m_stream = &t_lineStream.take();
    }
}

LogLine::~LogLine() {
    if (!m_stream)
        return;
    CMessageLog& log = CMessageLog::instance();
    if (m_own) {
        log.writeLineLocked(m_file, m_line, m_own->str());
    } else {
        log.writeLineLocked(m_file, m_line, t_lineStream.buffer.text);
        t_lineStream.inUse = false;
    }
    log.unlock();
}

CMessageLogStreamBuf::~CMessageLogStreamBuf() { sync(); }

CMessageLogStreamBuf::int_type CMessageLogStreamBuf::overflow(int_type character) {
    if (traits_type::eq_int_type(character, traits_type::eof()))
        return traits_type::not_eof(character);
    if (traits_type::to_char_type(character) == '\n') {
        CMessageLog::instance().writeLine(m_file, m_line, m_pending, m_group);
        m_pending.clear();
    } else {
        m_pending += traits_type::to_char_type(character);
    }
    return character;
}

int CMessageLogStreamBuf::sync() {
    if (!m_pending.empty()) {
        CMessageLog::instance().writeLine(m_file, m_line, m_pending, m_group);
        m_pending.clear();
    }
    return 0;
}

std::string formatAbortReport(const char* message, const char* function, const char* file,
                              unsigned line) {
    std::string report = std::string("PROGRAM ABORT: ") + (message ? message : "") + "\n";
    if (function)
        report += std::string("- FUNCTION: ") + function + "()\n";
    report += std::string("- FILE:     ") + (file ? file : "<unknown>") + " (line " +
              std::to_string(line) + ")\n";
    return report;
}

std::string formatAssertionReport(const char* message, const char* expression, const char* function,
                                  const char* file, unsigned line) {
    std::string report = std::string("ASSERTION FAILURE: ") + (message ? message : "") + "\n";
    report += std::string("- EXPRESSION: ") + (expression ? expression : "") + "\n";
    report += std::string("- FUNCTION:   ") + (function ? function : "") + "()\n";
    report += std::string("- FILE:       ") + (file ? file : "<unknown>") + " (line " +
              std::to_string(line) + ")\n";
    return report;
}

std::string dumpBytes(const void* data, std::size_t size) {
    std::string out;
    const auto* bytes = static_cast<const unsigned char*>(data);
    char buffer[8];
    for (std::size_t i = 0; i < size; ++i) {
        if (std::isprint(bytes[i])) {
            out += static_cast<char>(bytes[i]);
        } else {
            std::snprintf(buffer, sizeof buffer, "<%02x>", bytes[i]);
            out += buffer;
        }
    }
    return out;
}

void setReportHandler(ReportHandler handler) { g_reportHandler = handler; }

void programAbort(const char* message, const char* function, const char* file, unsigned line) {
    // The first report ends the process once it is shown; one raised meanwhile, by the
    // reporting thread (from within its report box) or by any other, returns at once.
    static std::atomic<bool> reporting{false};
    if (reporting.exchange(true))
        return;
    const std::string report = formatAbortReport(message, function, file, line);
    std::fputs(report.c_str(), stderr);
    std::fflush(stderr);
    CMessageLog& log = CMessageLog::instance();
    log.writeReport(log.formatPrefix(file, line, std::time(nullptr)) + report +
                    threadSafety::listLocks());
    if (ReportHandler handler = g_reportHandler.load())
        handler("PROGRAM ABORT", report);
    std::_Exit(1);
}

void assertionFailure(const char* message, const char* expression, const char* function,
                      const char* file, unsigned line) {
    const std::string report = formatAssertionReport(message, expression, function, file, line);
    std::fputs(report.c_str(), stderr);
    std::fflush(stderr);
    CMessageLog& log = CMessageLog::instance();
    log.writeReport(log.formatPrefix(file, line, std::time(nullptr)) + report);
    if (ReportHandler handler = g_reportHandler.load())
        handler("PROGRAM ASSERTION ERROR", report);
}

} // namespace msglog
