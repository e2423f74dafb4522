#include "app/singleInstance.h"

#include "app/instanceSocket.h"
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
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace app {

namespace {

using namespace instanceSocket;
using UniqueFd = misc::Descriptor;

constexpr auto kRequestTimeout = std::chrono::seconds(5);
constexpr auto kRetryInterval = std::chrono::milliseconds(50);
constexpr int kSendTimeoutSeconds = 10;

std::string busyMessage(const std::string& userDir) {
    return "Another Pelsu process is using the user directory " + userDir +
           "; try again when it has finished.";
}

std::string windowCommand(std::int32_t command) {
    return std::string(reinterpret_cast<const char*>(&command), sizeof command);
}

msglog::MsgGroup& instanceGroup() {
    static msglog::MsgGroup& group = msglog::registerMsgGroup("SingleInstance");
    return group;
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
    // Only the user may hand this instance commands, whatever the directory's mode.
    if (server->listener.get() < 0 || ::bind(server->listener.get(), raw, sizeof address.address) ||
        ::chmod(address.address.sun_path, 0600) || ::listen(server->listener.get(), 16))
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
    // The worker writes an update's progress: a sender that stops reading (suspended) must
    // not hold it for long. Its output is dropped instead.
    const timeval sendLimit{kSendTimeoutSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendLimit, sizeof sendLimit);
    char type = 0;
    std::string payload;
    if (!readFrame(fd, type, payload, std::chrono::steady_clock::now() + kRequestTimeout))
        return; // a probe, or a sender that gave up
    if (type == kWindowCommand) {
        if (payload != windowCommand(kShowYourselfCommand))
            return; // no other command is known
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
    if (fd.get() < 0 || !sendFrame(fd.get(), kWindowCommand, windowCommand(kShowYourselfCommand)))
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
