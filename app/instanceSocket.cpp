#include "app/instanceSocket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace app::instanceSocket {

namespace {

constexpr std::uint32_t kMaxFrame = 16u << 20;

using UniqueFd = misc::Descriptor;

} // namespace

static bool writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return false;
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool sendFrame(int fd, char type, const std::string& payload) {
    std::string frame(1, type);
    const auto size = static_cast<std::uint32_t>(payload.size());
    frame.append(reinterpret_cast<const char*>(&size), sizeof size);
    frame += payload;
    return writeAll(fd, frame.data(), frame.size());
}

// Reads exactly size bytes; with a deadline, gives up when it passes.
static bool readAll(int fd, char* data, std::size_t size,
                    std::optional<std::chrono::steady_clock::time_point> deadline) {
    while (size > 0) {
        if (deadline) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                *deadline - std::chrono::steady_clock::now());
            pollfd poller{fd, POLLIN, 0};
            const int ready = ::poll(&poller, 1, static_cast<int>(std::max<long>(0, left.count())));
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready <= 0)
                return false;
        }
        const ssize_t got = ::recv(fd, data, size, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        data += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

bool readFrame(int fd, char& type, std::string& payload, Deadline deadline) {
    std::uint32_t size = 0;
    if (!readAll(fd, &type, 1, deadline) ||
        !readAll(fd, reinterpret_cast<char*>(&size), sizeof size, deadline) || size > kMaxFrame)
        return false;
    payload.resize(size);
    return readAll(fd, payload.data(), size, deadline);
}

static void putString(std::string& out, const std::string& text) {
    const auto size = static_cast<std::uint32_t>(text.size());
    out.append(reinterpret_cast<const char*>(&size), sizeof size);
    out += text;
}

static bool takeString(const std::string& in, std::size_t& at, std::string& text) {
    std::uint32_t size = 0;
    if (in.size() - at < sizeof size)
        return false;
    std::memcpy(&size, in.data() + at, sizeof size);
    at += sizeof size;
    if (in.size() - at < size)
        return false;
    text.assign(in, at, size);
    at += size;
    return true;
}

std::string encodeCommand(const HandedOverCommand& command) {
    std::string payload;
    putString(payload, command.workingDir);
    for (const std::string& arg : command.args)
        putString(payload, arg);
    return payload;
}

bool decodeCommand(const std::string& payload, HandedOverCommand& command) {
    std::size_t at = 0;
    if (!takeString(payload, at, command.workingDir))
        return false;
    for (std::string arg; at < payload.size(); command.args.push_back(arg))
        if (!takeString(payload, at, arg))
            return false;
    return !command.args.empty();
}

void fillAddress(SocketAddress& target, const std::string& userDir) {
    target.address.sun_family = AF_UNIX;
    std::string path = SingleInstance::socketPath(userDir);
    if (path.size() >= sizeof target.address.sun_path) {
        target.directory.reset(::open(userDir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        path = "/proc/self/fd/" + std::to_string(target.directory.get()) + "/pelsu.socket";
    }
    std::strncpy(target.address.sun_path, path.c_str(), sizeof target.address.sun_path - 1);
}

int connectToInstance(const std::string& userDir) {
    SocketAddress target;
    fillAddress(target, userDir);
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0)
        return -1;
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&target.address),
                  sizeof target.address) != 0)
        return -1;
    return fd.release();
}

bool hungUp(int fd, int timeoutMs, int wake) {
    pollfd pollers[2] = {{fd, POLLRDHUP, 0}, {wake, POLLIN, 0}};
    for (;;) {
        const int ready = ::poll(pollers, wake >= 0 ? 2 : 1, timeoutMs);
        if (ready < 0 && errno == EINTR)
            continue;
        return ready > 0 && (pollers[0].revents & (POLLRDHUP | POLLHUP | POLLERR));
    }
}

int FrameBuffer::overflow(int c) {
    if (c == traits_type::eof())
        return traits_type::not_eof(c);
    const char byte = static_cast<char>(c);
    xsputn(&byte, 1);
    return c;
}

std::streamsize FrameBuffer::xsputn(const char* data, std::streamsize size) {
    std::lock_guard guard(m_sendLock);
    m_pending.append(data, static_cast<std::size_t>(size));
    if (std::memchr(data, '\n', static_cast<std::size_t>(size)))
        sendPending();
    return size;
}

int FrameBuffer::sync() {
    std::lock_guard guard(m_sendLock);
    sendPending();
    return 0;
}

void FrameBuffer::sendPending() {
    // A sender that went away (interrupted) or stopped reading leaves the command to finish on
    // its own, without its output.
    if (!m_pending.empty() && !m_broken)
        m_broken = !sendFrame(m_fd, m_type, m_pending);
    m_pending.clear();
}

} // namespace app::instanceSocket
