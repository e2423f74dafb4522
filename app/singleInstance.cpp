#include "app/singleInstance.h"

#include "channels/exception.h"
#include "lib/log/log.h"
#include "lib/misc/descriptor.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <list>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace app {

namespace {

// The messages on the socket are frames: a type byte, a 32-bit length in the machine's order
// (both ends run on the one machine) and the payload.
enum Frame : char {
    kShow = 'S',    // -> show yourself
    kCommand = 'C', // -> a command: the working directory, then the arguments
    kShown = 'A',   // <- the window was asked to show
    kOut = 'O',     // <- standard output
    kErr = 'E',     // <- standard error
    kExit = 'X',    // <- the exit status, as a 32-bit integer; the last frame
    kRefused = 'R', // <- the instance is stopping: run the command yourself
};

constexpr std::uint32_t kMaxFrame = 16u << 20;
constexpr auto kRequestTimeout = std::chrono::seconds(5);
constexpr auto kRetryInterval = std::chrono::milliseconds(50);

using UniqueFd = misc::Descriptor;

bool writeAll(int fd, const char* data, std::size_t size) {
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
bool readAll(int fd, char* data, std::size_t size,
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

bool readFrame(int fd, char& type, std::string& payload,
               std::optional<std::chrono::steady_clock::time_point> deadline = std::nullopt) {
    std::uint32_t size = 0;
    if (!readAll(fd, &type, 1, deadline) ||
        !readAll(fd, reinterpret_cast<char*>(&size), sizeof size, deadline) || size > kMaxFrame)
        return false;
    payload.resize(size);
    return readAll(fd, payload.data(), size, deadline);
}

void putString(std::string& out, const std::string& text) {
    const auto size = static_cast<std::uint32_t>(text.size());
    out.append(reinterpret_cast<const char*>(&size), sizeof size);
    out += text;
}

bool takeString(const std::string& in, std::size_t& at, std::string& text) {
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

// The socket's address. A path too long for an address is reached through the user
// directory's descriptor, which the address then names under /proc/self/fd.
struct SocketAddress {
    sockaddr_un address{};
    UniqueFd directory;
};

void fillAddress(SocketAddress& target, const std::string& userDir) {
    target.address.sun_family = AF_UNIX;
    std::string path = SingleInstance::socketPath(userDir);
    if (path.size() >= sizeof target.address.sun_path) {
        target.directory.reset(::open(userDir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        path = "/proc/self/fd/" + std::to_string(target.directory.get()) + "/pelsu.socket";
    }
    std::strncpy(target.address.sun_path, path.c_str(), sizeof target.address.sun_path - 1);
}

// A connection to the instance serving the user directory, or -1 when none answers.
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

std::string busyMessage(const std::string& userDir) {
    return "Another Pelsu process is using the user directory " + userDir +
           "; try again when it has finished.";
}

msglog::MsgGroup& instanceGroup() {
    static msglog::MsgGroup& group = msglog::registerMsgGroup("SingleInstance");
    return group;
}

// Output written by a handed-over command, sent to its sender at each newline and flush. The
// command's own thread and the worker (an update's progress) may both write.
class FrameBuffer : public std::streambuf {
public:
    FrameBuffer(int fd, char type, std::mutex& sendLock)
        : m_fd(fd), m_type(type), m_sendLock(sendLock) {}

protected:
    int overflow(int c) override {
        if (c == traits_type::eof())
            return traits_type::not_eof(c);
        const char byte = static_cast<char>(c);
        xsputn(&byte, 1);
        return c;
    }
    std::streamsize xsputn(const char* data, std::streamsize size) override {
        std::lock_guard guard(m_sendLock);
        m_pending.append(data, static_cast<std::size_t>(size));
        if (std::memchr(data, '\n', static_cast<std::size_t>(size)))
            sendPending();
        return size;
    }
    int sync() override {
        std::lock_guard guard(m_sendLock);
        sendPending();
        return 0;
    }

private:
    void sendPending() {
        // A sender that went away (interrupted) leaves the command to finish on its own.
        if (!m_pending.empty())
            sendFrame(m_fd, m_type, m_pending);
        m_pending.clear();
    }
    int m_fd;
    char m_type;
    std::mutex& m_sendLock;
    std::string m_pending;
};

// Whether the peer of fd closed its end within the time (-1: until wake becomes readable).
bool hungUp(int fd, int timeoutMs, int wake = -1) {
    pollfd pollers[2] = {{fd, POLLRDHUP, 0}, {wake, POLLIN, 0}};
    for (;;) {
        const int ready = ::poll(pollers, wake >= 0 ? 2 : 1, timeoutMs);
        if (ready < 0 && errno == EINTR)
            continue;
        return ready > 0 && (pollers[0].revents & (POLLRDHUP | POLLHUP | POLLERR));
    }
}

} // namespace

struct SingleInstance::Server {
    std::function<void()> onShow;
    CommandHandler onCommand;
    UniqueFd listener;
    UniqueFd wake; // an eventfd that ends the accepting thread
    std::thread acceptor;

    std::mutex mutex; // guards closing and commands
    bool closing = false;
    struct Running {
        std::jthread thread;
        std::atomic<bool> done{false};
    };
    std::list<Running> commands;
    std::mutex oneAtATime; // commands change the channels one after the other

    bool isClosing() {
        std::lock_guard guard(mutex);
        return closing;
    }
    void acceptLoop();
    void answer(int fd);
    void runCommand(int fd, const HandedOverCommand& command, std::stop_token stop);
    void reapFinished();
};

std::string SingleInstance::lockPath(const std::string& userDir) {
    return (std::filesystem::path(userDir) / "pelsu.lock").string();
}

std::string SingleInstance::socketPath(const std::string& userDir) {
    return (std::filesystem::path(userDir) / "pelsu.socket").string();
}

std::unique_ptr<SingleInstance> SingleInstance::tryLock(const std::string& userDir) {
    const std::string path = lockPath(userDir);
    // Close-on-exec: a script started by the instance must not keep the lock after it.
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (fd.get() < 0)
        throw channels::Exception("Can't open the lock file " + path + ": " + std::strerror(errno));
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK || errno == EINTR)
            return nullptr;
        throw channels::Exception("Can't lock the file " + path + ": " + std::strerror(errno));
    }
    return std::unique_ptr<SingleInstance>(new SingleInstance(userDir, fd.release()));
}

SingleInstance::SingleInstance(std::string userDir, int lockFd)
    : m_userDir(std::move(userDir)), m_lockFd(lockFd) {}

SingleInstance::~SingleInstance() {
    if (m_server) {
        stopCommands();
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(m_server->wake.get(), &one, sizeof one);
        m_server->acceptor.join();
        // Ours to remove: nobody else serves while we hold the lock.
        ::unlink(socketPath(m_userDir).c_str());
        m_server.reset();
    }
    ::close(m_lockFd);
}

void SingleInstance::serve(std::function<void()> onShow, CommandHandler onCommand) {
    auto server = std::make_unique<Server>();
    server->onShow = std::move(onShow);
    server->onCommand = std::move(onCommand);
    SocketAddress address;
    fillAddress(address, m_userDir);
    // Holding the lock, any socket file there is a leftover of a process that ended.
    ::unlink(address.address.sun_path);
    server->listener.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto* raw = reinterpret_cast<const sockaddr*>(&address.address);
    if (server->listener.get() < 0 || ::bind(server->listener.get(), raw, sizeof address.address) ||
        ::listen(server->listener.get(), 16))
        throw channels::Exception("Can't listen on " + socketPath(m_userDir) + ": " +
                                  std::strerror(errno));
    server->wake.reset(::eventfd(0, EFD_CLOEXEC));
    if (server->wake.get() < 0)
        throw channels::Exception(std::string("Can't make an event: ") + std::strerror(errno));
    Server* serving = server.get();
    server->acceptor = std::thread([serving] { serving->acceptLoop(); });
    m_server = std::move(server);
}

void SingleInstance::stopCommands() {
    if (!m_server)
        return;
    std::list<Server::Running> running;
    {
        std::lock_guard guard(m_server->mutex);
        m_server->closing = true;
        running.splice(running.end(), m_server->commands);
    }
    for (auto& command : running)
        command.thread.request_stop();
    running.clear(); // joins
}

void SingleInstance::Server::acceptLoop() {
    pollfd pollers[2] = {{listener.get(), POLLIN, 0}, {wake.get(), POLLIN, 0}};
    for (;;) {
        if (::poll(pollers, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            PELSU_LOG(instanceGroup(), "Can't wait for connections: " << std::strerror(errno));
            return;
        }
        if (pollers[1].revents)
            return;
        UniqueFd client(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client.get() >= 0)
            answer(client.release());
        reapFinished();
    }
}

// Takes the one request of a connection. Owns fd.
void SingleInstance::Server::answer(int fd) {
    UniqueFd connection(fd);
    char type = 0;
    std::string payload;
    if (!readFrame(fd, type, payload, std::chrono::steady_clock::now() + kRequestTimeout))
        return; // a probe, or a sender that gave up
    if (type == kShow) {
        if (isClosing()) {
            // A start while this instance stops waits for the lock and runs in its place.
            sendFrame(fd, kRefused, "");
            return;
        }
        PELSU_LOG(instanceGroup(), "Another start asked this instance to show itself.");
        onShow();
        sendFrame(fd, kShown, "");
        return;
    }
    HandedOverCommand command;
    if (type != kCommand || !decodeCommand(payload, command))
        return;
    std::lock_guard guard(mutex);
    if (closing) {
        sendFrame(fd, kRefused, "");
        return;
    }
    Running& running = commands.emplace_back();
    running.thread =
        std::jthread([this, &running, command, fd = connection.release()](std::stop_token stop) {
            runCommand(fd, command, std::move(stop));
            running.done = true;
        });
}

void SingleInstance::Server::runCommand(int fd, const HandedOverCommand& command,
                                        std::stop_token stop) {
    UniqueFd connection(fd);
    std::unique_lock turn(oneAtATime);
    if (stop.stop_requested()) {
        sendFrame(fd, kRefused, "");
        return;
    }
    if (hungUp(fd, 0))
        return; // the sender gave up while it waited for its turn
    PELSU_LOG(instanceGroup(), "Running a command handed over: " << command.args.front());
    // A command also stops waiting when its sender goes (interrupted): an update whose
    // sender is gone would otherwise hold the next commands back.
    std::stop_source cancel;
    std::stop_callback forward(stop, [&cancel] { cancel.request_stop(); });
    misc::Descriptor finished(::eventfd(0, EFD_CLOEXEC));
    std::thread watch([&] {
        if (hungUp(fd, -1, finished.get()))
            cancel.request_stop();
    });
    std::mutex sendLock;
    FrameBuffer outBuffer(fd, kOut, sendLock), errBuffer(fd, kErr, sendLock);
    std::ostream out(&outBuffer), err(&errBuffer);
    int status = 1;
    try {
        status = onCommand(command, out, err, cancel.get_token());
    } catch (const std::exception& failure) {
        err << "pelsu-cli: " << failure.what() << '\n';
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(finished.get(), &one, sizeof one);
    watch.join();
    out.flush();
    err.flush();
    const auto code = static_cast<std::int32_t>(status);
    std::lock_guard guard(sendLock);
    sendFrame(fd, kExit, std::string(reinterpret_cast<const char*>(&code), sizeof code));
}

void SingleInstance::Server::reapFinished() {
    std::list<Running> finished;
    {
        std::lock_guard guard(mutex);
        for (auto it = commands.begin(); it != commands.end();) {
            auto next = std::next(it);
            if (it->done)
                finished.splice(finished.end(), commands, it);
            it = next;
        }
    }
    finished.clear(); // joins threads that have ended or are about to
}

bool sendShowYourself(const std::string& userDir) {
    UniqueFd fd(connectToInstance(userDir));
    if (fd.get() < 0 || !sendFrame(fd.get(), kShow, ""))
        return false;
    char type = 0;
    std::string payload;
    return readFrame(fd.get(), type, payload, std::chrono::steady_clock::now() + kRequestTimeout) &&
           type == kShown;
}

InstanceClaim claimInstance(const std::string& userDir, bool showOther,
                            std::chrono::milliseconds wait) {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    for (;;) {
        InstanceClaim claim;
        claim.instance = SingleInstance::tryLock(userDir);
        if (claim.instance)
            return claim;
        if (showOther && sendShowYourself(userDir)) {
            claim.shownOther = true;
            return claim;
        }
        if (!showOther) {
            UniqueFd probe(connectToInstance(userDir));
            if (probe.get() >= 0)
                throw channels::Exception("Pelsu is already running for the user directory " +
                                          userDir + ".");
        }
        if (std::chrono::steady_clock::now() >= deadline)
            throw channels::Exception(busyMessage(userDir));
        std::this_thread::sleep_for(kRetryInterval);
    }
}

namespace {

// Runs the command in the instance behind fd; no status when the instance refused it.
std::optional<int> runHandedOver(int fd, const HandedOverCommand& command, std::ostream& out,
                                 std::ostream& err) {
    if (!sendFrame(fd, kCommand, encodeCommand(command)))
        return std::nullopt;
    char type = 0;
    std::string payload;
    bool first = true;
    while (readFrame(fd, type, payload)) {
        if (type == kRefused && first)
            return std::nullopt;
        first = false;
        if (type == kOut)
            out << payload << std::flush;
        else if (type == kErr)
            err << payload << std::flush;
        else if (type == kExit && payload.size() == sizeof(std::int32_t)) {
            std::int32_t status = 0;
            std::memcpy(&status, payload.data(), sizeof status);
            return status;
        }
    }
    if (first)
        return std::nullopt; // it went before it took the command: it is stopping
    err << "pelsu-cli: the running Pelsu instance ended before the command finished.\n";
    return 1;
}

} // namespace

std::optional<int> handOverCommand(const std::string& userDir, const HandedOverCommand& command,
                                   std::ostream& out, std::ostream& err,
                                   std::chrono::milliseconds wait,
                                   std::unique_ptr<SingleInstance>& lock) {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    for (;;) {
        if (UniqueFd fd(connectToInstance(userDir)); fd.get() >= 0) {
            if (const auto status = runHandedOver(fd.get(), command, out, err))
                return status;
        } else if ((lock = SingleInstance::tryLock(userDir))) {
            return std::nullopt;
        }
        if (std::chrono::steady_clock::now() >= deadline)
            throw channels::Exception(busyMessage(userDir));
        std::this_thread::sleep_for(kRetryInterval);
    }
}

} // namespace app
