#include "tests/support/testSupport.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testing_support {

std::filesystem::path binaryDir() { return PELSU_BINARY_DIR; }

std::string pelsuCli() { return (binaryDir() / "cli" / "pelsu-cli").string(); }

std::string rssFeed(const std::string& ids, const std::string& itemTitle) {
    std::string text = "<rss><channel><title>T " + ids + "</title><link>http://t/</link>";
    for (char id : ids)
        text += std::string("<item><guid>") + id + "</guid><title>" + itemTitle + " " + id +
                "</title></item>";
    return text + "</channel></rss>";
}

std::vector<std::string> logTexts(const std::string& logFile) {
    std::vector<std::string> texts;
    std::istringstream lines(readFile(logFile));
    for (std::string line; std::getline(lines, line);)
        if (const auto bar = line.find(" | "); bar != std::string::npos)
            texts.push_back(line.substr(bar + 3));
    return texts;
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pelsu-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

std::filesystem::path sourceDir() { return PELSU_SOURCE_DIR; }

ChildResult runInChild(const std::function<void()>& body) {
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0)
        throw std::runtime_error("pipe failed");
    pid_t child = ::fork();
    if (child == 0) {
        ::close(pipeEnds[0]);
        ::dup2(pipeEnds[1], STDERR_FILENO);
        body();
        std::_Exit(0);
    }
    ::close(pipeEnds[1]);
    ChildResult result;
    char buffer[4096];
    ssize_t count;
    while ((count = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0)
        result.errorOutput.append(buffer, static_cast<size_t>(count));
    ::close(pipeEnds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

RawConnection::RawConnection(int port, bool connectNow) : m_port(port) {
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval timeout{5, 0};
    ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (connectNow)
        connect();
}

bool RawConnection::connect() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(m_port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (m_fd >= 0 && ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(m_fd);
        m_fd = -1;
    }
    return m_fd >= 0;
}

RawConnection::~RawConnection() {
    if (m_fd >= 0)
        ::close(m_fd);
}

bool RawConnection::send(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            return false;
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

RawConnection::Answer RawConnection::readAnswer() {
    Answer answer;
    std::size_t headEnd;
    char chunk[8192];
    auto fill = [&] {
        const ssize_t count = ::recv(m_fd, chunk, sizeof chunk, 0);
        if (count <= 0)
            return false;
        m_buffer.append(chunk, static_cast<std::size_t>(count));
        return true;
    };
    while ((headEnd = m_buffer.find("\r\n\r\n")) == std::string::npos)
        if (!fill())
            return answer;
    answer.head = m_buffer.substr(0, headEnd + 4);
    std::size_t length = 0;
    const std::size_t at = answer.head.find("Content-Length: ");
    if (at != std::string::npos)
        length = std::stoul(answer.head.substr(at + 16));
    while (m_buffer.size() < headEnd + 4 + length)
        if (!fill())
            return answer;
    answer.body = m_buffer.substr(headEnd + 4, length);
    m_buffer.erase(0, headEnd + 4 + length);
    if (answer.head.rfind("HTTP/1.1 ", 0) == 0)
        answer.status = std::stoi(answer.head.substr(9, 3));
    return answer;
}

bool RawConnection::closedByServer(int timeoutMs) {
    pollfd entry{m_fd, POLLIN, 0};
    if (::poll(&entry, 1, timeoutMs) <= 0)
        return false;
    char byte;
    return ::recv(m_fd, &byte, 1, MSG_PEEK) <= 0;
}

LoopbackPort::LoopbackPort(bool listen) {
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        (listen && ::listen(m_fd, 1) != 0))
        throw std::runtime_error("can't bind a loopback port");
    socklen_t length = sizeof address;
    ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin_port);
}

LoopbackPort::~LoopbackPort() { ::close(m_fd); }

RawConnection::Answer httpGet(int port, const std::string& target, const std::string& host) {
    RawConnection connection(port);
    connection.send("GET " + target + " HTTP/1.1\r\nHost: " +
                    (host.empty() ? "127.0.0.1:" + std::to_string(port) : host) +
                    "\r\nConnection: close\r\n\r\n");
    return connection.readAnswer();
}

const std::vector<std::string> kShutdownLines = {
    "ExitInstance() called.",
    "Un-installing the mouse hook.",
    "Stopping the local port listeners.",
    "Cleaning up ChannelDesktopSettings table.",
    "Un-installing ourself as an event handler.",
    "Stopping the local channel manager.",
    "Deleting the local channel manager.",
    "Destroying the MMF handle.",
    "Unloading the RichEdit DLL.",
    "Shutting down BCG.",
    "Unloading BlackBox.",
};

} // namespace testing_support
