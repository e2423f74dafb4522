// Helpers shared by the tests: temporary directories, whole files, child processes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace testing_support {

// A fresh directory under the temporary directory, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return m_path; }
    std::string file(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

// The project's source directory (for fixtures).
std::filesystem::path sourceDir();
// The build directory (for the programs under test, such as pelsu-cli).
std::filesystem::path binaryDir();
// The pelsu-cli program of the build.
std::string pelsuCli();

// An RSS feed titled "T <ids>" with one item per character of ids, guid the character and
// title "<itemTitle> <character>".
std::string rssFeed(const std::string& ids, const std::string& itemTitle = "Item");
// The texts of a log file's lines (what follows " | "), in order.
std::vector<std::string> logTexts(const std::string& logFile);

// Runs body in a forked child; returns its exit status (or 128 + signal) and what it wrote to
// standard error.
struct ChildResult {
    int status = -1;
    std::string errorOutput;
};
ChildResult runInChild(const std::function<void()>& body);

// A client connection to 127.0.0.1:port that sends bytes exactly as given (for the tests of
// the local listeners). Reads give up after five seconds.
class RawConnection {
public:
    // Connects at once unless told to wait for connect() (its socket exists already).
    explicit RawConnection(int port, bool connectNow = true);
    bool connect();
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;
    bool isConnected() const { return m_fd >= 0; }
    bool send(const std::string& bytes);
    // The next whole answer ("HTTP/1.1 200 OK" ... body by Content-Length); status 0 when
    // the server closed or said nothing.
    struct Answer {
        int status = 0;
        std::string head;
        std::string body;
    };
    Answer readAnswer();
    // True when the server closes the connection within the time.
    bool closedByServer(int timeoutMs);

private:
    int m_port;
    int m_fd = -1;
    std::string m_buffer;
};

// A socket bound to a free port of 127.0.0.1 (listening when asked), closed with the object:
// a port in use while it lives, and a free one a moment after.
class LoopbackPort {
public:
    explicit LoopbackPort(bool listen = false);
    ~LoopbackPort();
    LoopbackPort(const LoopbackPort&) = delete;
    LoopbackPort& operator=(const LoopbackPort&) = delete;
    int port() const { return m_port; }
    int fd() const { return m_fd; }

private:
    int m_fd = -1;
    int m_port = 0;
};

// A one-way signal between threads ("the request arrived", "release it"): open() lets every
// waiter through for good. Waits are bounded so that a failing test ends instead of hanging.
class Gate {
public:
    void open() {
        {
            std::lock_guard guard(m_mutex);
            m_open = true;
        }
        m_opened.notify_all();
    }
    // True when the gate is open or opens within the limit.
    bool wait(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        std::unique_lock lock(m_mutex);
        return m_opened.wait_for(lock, limit, [this] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_opened;
    bool m_open = false;
};

// A GET over a new connection with the Host "127.0.0.1:port" (or the one given).
RawConnection::Answer httpGet(int port, const std::string& target, const std::string& host = "");

// The shut-down steps as the log writes them, in their order.
extern const std::vector<std::string> kShutdownLines;

} // namespace testing_support
