#include "tools/localPortListener.h"

#include "tools/httpMessage.h"

#include "lib/log/log.h"
#include "lib/log/msgGroup.h"
#include "lib/misc/descriptor.h"
#include "tools/exception.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace tools {

using misc::Descriptor;

namespace {

using SteadyClock = std::chrono::steady_clock;

msglog::MsgGroup& listenerGroup() {
    static msglog::MsgGroup& group = msglog::registerMsgGroup("LocalPortListener");
    return group;
}

// Draining: the last answer is written and our side shut; what the client still sends is
// read and dropped until it closes, so that closing never resets the connection before the
// client has read the answer.
enum class ConnState { Reading, Working, Writing, Draining };

constexpr int kDrainTimeoutMs = 2000;
// How long new connections wait in the backlog after the process ran out of descriptors.
constexpr auto kAcceptPause = std::chrono::milliseconds(250);

struct Connection {
    Descriptor fd;
    ConnState state = ConnState::Reading;
    std::string in;
    std::string out;
    std::size_t written = 0;
    bool keepAlive = true;
    SteadyClock::time_point deadline;
    bool headStarted = false;
    bool watched = false; // registered with the epoll set
    bool reserve = false; // admitted beyond the limits: answered once, then closed
};

// The epoll keys of the two descriptors that are not connections.
constexpr std::uint64_t kWakeKey = 0;
constexpr std::uint64_t kListenKey = 1;

struct Job {
    std::uint64_t connection;
    LocalRequest request;
};

struct Done {
    std::uint64_t connection;
    LocalAnswer answer;
};

} // namespace

class LocalPortListener::Impl {
public:
    Impl(std::string name, int port, RequestHandler handler, ListenerLimits limits)
        : m_name(std::move(name)), m_port(port), m_handler(std::move(handler)), m_limits(limits) {}
    ~Impl() { stop(); }

    void start();
    void stop();
    bool isRunning() const { return m_listenFd.valid(); }

    std::string m_name;
    int m_port;

private:
    void bindSocket();
    void openPollSet();
    void watchOrExpire(Connection& connection, int operation, epoll_event& event);
    void pollLoop();
    void workerLoop();
    void acceptConnections();
    int acceptOnSpare();
    void admit(int fd, bool reserve);
    void refuseBusy(int fd);
    void keepSpare();
    void pauseAccepting();
    void resumeAccepting();
    void readFrom(std::uint64_t id, Connection& connection);
    void writeTo(std::uint64_t id, Connection& connection);
    void closeIfDone(std::uint64_t id);
    void drain(std::uint64_t id, Connection& connection);
    bool takeRequest(std::uint64_t id, Connection& connection);
    void answer(std::uint64_t id, Connection& connection, const LocalAnswer& answer,
                bool keepAlive);
    void finishAnswers();
    void closeConnection(std::uint64_t id);
    void setState(std::uint64_t id, Connection& connection, ConnState state);
    void expireConnections();
    void wake();

    RequestHandler m_handler;
    ListenerLimits m_limits;
    Descriptor m_listenFd;
    Descriptor m_wakeFd;
    Descriptor m_epollFd;
    // A descriptor held in reserve: when the process has none left, closing it lets one more
    // connection in, so that one request is still answered while everything else is full.
    Descriptor m_spareFd;
    std::uint64_t m_reserveId = 0; // the connection admitted beyond the limits, 0 for none
    bool m_acceptPaused = false;   // the listening socket is not watched until m_acceptResume
    bool m_acceptFailing = false;  // reported once until an accept succeeds again
    SteadyClock::time_point m_acceptResume;
    bool m_stopping = false; // guarded by m_mutex
    std::thread m_pollThread;
    std::vector<std::thread> m_workers;
    std::map<std::uint64_t, Connection> m_connections; // poll thread only
    std::uint64_t m_nextId = 2;
    std::mutex m_mutex;
    std::condition_variable m_jobReady;
    std::deque<Job> m_jobs;
    std::deque<Done> m_done;
};

void LocalPortListener::Impl::bindSocket() {
    Descriptor listening(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listening.valid())
        throw Exception("Can't create a socket for the " + m_name + ": " + std::strerror(errno));
    const int on = 1;
    ::setsockopt(listening.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(m_port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listening.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listening.get(), 128) != 0) {
        const std::string reason = std::strerror(errno);
        throw Exception("Can't listen on 127.0.0.1:" + std::to_string(m_port) + " (" + m_name +
                        "): " + reason);
    }
    socklen_t length = sizeof address;
    ::getsockname(listening.get(), reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin_port);
    m_listenFd = std::move(listening);
}

// The wake-up event and the epoll set that watches it and the listening socket. Throws with
// the step that failed; the members are set only when every step succeeded.
void LocalPortListener::Impl::openPollSet() {
    const auto failure = [this](const char* step) {
        return Exception("Can't start the " + m_name + " (" + step + "): " + std::strerror(errno));
    };
    Descriptor wakeFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!wakeFd.valid())
        throw failure("eventfd");
    Descriptor epollFd(::epoll_create1(EPOLL_CLOEXEC));
    if (!epollFd.valid())
        throw failure("epoll_create1");
    epoll_event wakeEvent{EPOLLIN, {.u64 = kWakeKey}};
    epoll_event listenEvent{EPOLLIN, {.u64 = kListenKey}};
    if (::epoll_ctl(epollFd.get(), EPOLL_CTL_ADD, wakeFd.get(), &wakeEvent) != 0 ||
        ::epoll_ctl(epollFd.get(), EPOLL_CTL_ADD, m_listenFd.get(), &listenEvent) != 0)
        throw failure("epoll_ctl");
    m_wakeFd = std::move(wakeFd);
    m_epollFd = std::move(epollFd);
}

void LocalPortListener::Impl::start() {
    if (m_listenFd.valid())
        return;
    bindSocket();
    try {
        openPollSet();
    } catch (const Exception&) {
        m_listenFd.reset(); // not running: the port is free again
        throw;
    }
    keepSpare();
    m_stopping = false;
    for (unsigned i = 0; i < std::max(1u, m_limits.workers); ++i)
        m_workers.emplace_back([this] { workerLoop(); });
    m_pollThread = std::thread([this] { pollLoop(); });
    PELSU_LOG(listenerGroup(), "The " << m_name << " listens on 127.0.0.1:" << m_port);
}

void LocalPortListener::Impl::stop() {
    if (!m_listenFd.valid())
        return;
    {
        std::lock_guard guard(m_mutex);
        m_stopping = true;
    }
    m_jobReady.notify_all();
    wake();
    m_pollThread.join();
    for (auto& worker : m_workers)
        worker.join();
    m_workers.clear();
    m_connections.clear();
    m_jobs.clear();
    m_done.clear();
    m_listenFd.reset();
    m_wakeFd.reset();
    m_epollFd.reset();
    m_spareFd.reset();
    m_reserveId = 0;
    m_acceptPaused = false;
    m_acceptFailing = false;
    PELSU_LOG(listenerGroup(), "The " << m_name << " has stopped.");
}

void LocalPortListener::Impl::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_wakeFd.get(), &one, sizeof one);
}

void LocalPortListener::Impl::workerLoop() {
    for (;;) {
        Job job;
        {
            std::unique_lock lock(m_mutex);
            m_jobReady.wait(lock, [this] { return m_stopping || !m_jobs.empty(); });
            if (m_stopping)
                return;
            job = std::move(m_jobs.front());
            m_jobs.pop_front();
        }
        LocalAnswer answer;
        try {
            answer = m_handler(job.request);
        } catch (const std::exception& e) {
            PELSU_LOG(listenerGroup(),
                      "The " << m_name << " failed on " << job.request.target << ": " << e.what());
            answer = refusal(500, "The request failed.");
        }
        {
            std::lock_guard guard(m_mutex);
            m_done.push_back({job.connection, std::move(answer)});
        }
        wake();
    }
}

// Watches a connection for what its new state waits for: a request, or room to write. One
// whose answer is being made is not watched (a hang-up is noticed when the answer is written).
void LocalPortListener::Impl::setState(std::uint64_t id, Connection& connection, ConnState state) {
    connection.state = state;
    if (state == ConnState::Working) {
        if (connection.watched)
            ::epoll_ctl(m_epollFd.get(), EPOLL_CTL_DEL, connection.fd.get(), nullptr);
        connection.watched = false;
        return;
    }
    epoll_event event{state == ConnState::Writing ? EPOLLOUT : EPOLLIN, {.u64 = id}};
    watchOrExpire(connection, connection.watched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, event);
}

// A connection that can't be watched would wait for nothing: it is closed by the next sweep.
void LocalPortListener::Impl::watchOrExpire(Connection& connection, int operation,
                                            epoll_event& event) {
    if (::epoll_ctl(m_epollFd.get(), operation, connection.fd.get(), &event) == 0) {
        connection.watched = true;
        return;
    }
    PELSU_LOG(listenerGroup(), "The " << m_name << " can't watch a connection: "
                                      << std::strerror(errno) << "; it is closed.");
    if (operation == EPOLL_CTL_ADD)
        connection.watched = false;
    connection.deadline = SteadyClock::now();
}

void LocalPortListener::Impl::pollLoop() {
    // Deadlines are checked a few times a second; they are counted in seconds.
    constexpr auto kSweepInterval = std::chrono::milliseconds(250);
    auto lastSweep = SteadyClock::now();
    epoll_event events[64];
    for (;;) {
        {
            std::lock_guard guard(m_mutex);
            if (m_stopping)
                return;
        }
        if (m_acceptPaused && SteadyClock::now() >= m_acceptResume)
            resumeAccepting();
        const int timeout = m_connections.empty() && !m_acceptPaused
                                ? -1
                                : static_cast<int>(kSweepInterval.count());
        const int count = ::epoll_wait(m_epollFd.get(), events, 64, timeout);
        if (count < 0 && errno != EINTR) {
            PELSU_LOG(listenerGroup(), "The " << m_name << " can't wait for its connections: "
                                              << std::strerror(errno));
            return;
        }
        for (int i = 0; i < count; ++i) {
            const std::uint64_t id = events[i].data.u64;
            if (id == kWakeKey) {
                std::uint64_t value;
                [[maybe_unused]] const ssize_t read = ::read(m_wakeFd.get(), &value, sizeof value);
                finishAnswers();
                continue;
            }
            if (id == kListenKey) {
                acceptConnections();
                continue;
            }
            auto it = m_connections.find(id);
            if (it == m_connections.end())
                continue; // closed earlier in this round
            if (it->second.state == ConnState::Reading)
                readFrom(id, it->second);
            else if (it->second.state == ConnState::Writing)
                writeTo(id, it->second);
            else if (it->second.state == ConnState::Draining)
                drain(id, it->second);
            closeIfDone(id);
        }
        if (SteadyClock::now() - lastSweep >= kSweepInterval) {
            lastSweep = SteadyClock::now();
            expireConnections();
        }
    }
}

// Takes every waiting connection. Past the connection limit, or when the process has no
// descriptor left, one connection is still let in as the reserve; beyond that a connection
// over the limit is answered 503, and one that can't be accepted for want of descriptors
// waits in the backlog while the listening socket rests (a level-triggered socket that can't
// be drained would otherwise wake the loop without end).
void LocalPortListener::Impl::acceptConnections() {
    for (;;) {
        int fd = ::accept4(m_listenFd.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        bool reserve = false;
        if (fd >= 0) {
            m_acceptFailing = false;
        } else if (errno == EMFILE || errno == ENFILE) {
            fd = acceptOnSpare();
            reserve = fd >= 0;
        }
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                pauseAccepting();
            return;
        }
        const std::size_t admitted = m_connections.size() - (m_reserveId ? 1 : 0);
        if (!reserve && admitted >= m_limits.maxConnections) {
            if (m_reserveId) {
                refuseBusy(fd);
                continue;
            }
            reserve = true;
        }
        admit(fd, reserve);
    }
}

// Gives up the spare descriptor to accept one connection; -1 (errno set) when the reserve is
// taken or the accept fails all the same.
int LocalPortListener::Impl::acceptOnSpare() {
    if (m_reserveId || !m_spareFd.valid())
        return -1;
    m_spareFd.reset();
    const int fd = ::accept4(m_listenFd.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        keepSpare();
        errno = error;
    }
    return fd;
}

void LocalPortListener::Impl::admit(int fd, bool reserve) {
    const std::uint64_t id = m_nextId++;
    Connection& connection = m_connections[id];
    connection.fd.reset(fd);
    connection.reserve = reserve;
    // The reserve is not for idling: it must say what it wants as soon as a request would.
    connection.deadline =
        SteadyClock::now() +
        std::chrono::milliseconds(reserve ? m_limits.headTimeoutMs : m_limits.idleTimeoutMs);
    if (reserve) {
        m_reserveId = id;
        m_spareFd.reset(); // the reserve stands in for the spare descriptor
    }
    setState(id, connection, ConnState::Reading);
}

void LocalPortListener::Impl::refuseBusy(int accepted) {
    const Descriptor fd(accepted);
    const std::string busy =
        serialize(refusal(503, "Too many connections; try again later."), false);
    [[maybe_unused]] const ssize_t sent =
        ::send(fd.get(), busy.data(), busy.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void LocalPortListener::Impl::keepSpare() {
    if (!m_spareFd.valid())
        m_spareFd.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

void LocalPortListener::Impl::pauseAccepting() {
    if (!m_acceptFailing)
        PELSU_LOG(listenerGroup(), "The " << m_name << " can't accept a connection: "
                                          << std::strerror(errno) << "; new ones wait.");
    m_acceptFailing = true;
    epoll_event listenEvent{0, {.u64 = kListenKey}};
    if (::epoll_ctl(m_epollFd.get(), EPOLL_CTL_MOD, m_listenFd.get(), &listenEvent) != 0)
        PELSU_LOG(listenerGroup(),
                  "The " << m_name << " can't change what it watches: " << std::strerror(errno));
    m_acceptPaused = true;
    m_acceptResume = SteadyClock::now() + kAcceptPause;
}

void LocalPortListener::Impl::resumeAccepting() {
    epoll_event listenEvent{EPOLLIN, {.u64 = kListenKey}};
    if (::epoll_ctl(m_epollFd.get(), EPOLL_CTL_MOD, m_listenFd.get(), &listenEvent) != 0)
        PELSU_LOG(listenerGroup(),
                  "The " << m_name << " can't change what it watches: " << std::strerror(errno));
    m_acceptPaused = false;
}

void LocalPortListener::Impl::readFrom(std::uint64_t id, Connection& connection) {
    char buffer[4096];
    const ssize_t count = ::recv(connection.fd.get(), buffer, sizeof buffer, 0);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
        closeConnection(id);
        return;
    }
    if (count < 0)
        return;
    if (!connection.headStarted) {
        connection.headStarted = true;
        connection.deadline =
            SteadyClock::now() + std::chrono::milliseconds(m_limits.headTimeoutMs);
    }
    connection.in.append(buffer, static_cast<std::size_t>(count));
    takeRequest(id, connection);
}

// Starts the handling of the request at the front of the buffer when it is whole.
bool LocalPortListener::Impl::takeRequest(std::uint64_t id, Connection& connection) {
    const std::size_t end = headEnd(connection.in);
    if (end == std::string::npos || end > m_limits.maxHeadBytes) {
        if (connection.in.size() > m_limits.maxHeadBytes || end != std::string::npos) {
            const bool lineEnded = connection.in.find('\n') < m_limits.maxHeadBytes;
            answer(id, connection,
                   lineEnded ? refusal(431, "The request's headers are too long.")
                             : refusal(414, "The request line is too long."),
                   false);
        }
        return false;
    }
    ParsedHead parsed = parseHead(connection.in.substr(0, end), m_port, m_limits);
    connection.in.erase(0, end);
    if (parsed.refused) {
        PELSU_LOG(listenerGroup(),
                  "The " << m_name << " refused a request: " << parsed.refusalAnswer.status);
        answer(id, connection, parsed.refusalAnswer, false);
        return true;
    }
    connection.keepAlive = parsed.keepAlive && !connection.reserve;
    setState(id, connection, ConnState::Working);
    {
        std::lock_guard guard(m_mutex);
        m_jobs.push_back({id, std::move(parsed.request)});
    }
    m_jobReady.notify_one();
    return true;
}

void LocalPortListener::Impl::answer(std::uint64_t id, Connection& connection,
                                     const LocalAnswer& answer, bool keepAlive) {
    connection.keepAlive = keepAlive;
    connection.out = serialize(answer, keepAlive);
    connection.written = 0;
    setState(id, connection, ConnState::Writing);
    connection.deadline = SteadyClock::now() + std::chrono::milliseconds(m_limits.writeTimeoutMs);
    writeTo(id, connection);
}

void LocalPortListener::Impl::writeTo(std::uint64_t id, Connection& connection) {
    while (connection.written < connection.out.size()) {
        const ssize_t sent = ::send(connection.fd.get(), connection.out.data() + connection.written,
                                    connection.out.size() - connection.written, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EAGAIN || errno == EINTR)
                return;
            connection.keepAlive = false;
            connection.written = connection.out.size();
            return;
        }
        connection.written += static_cast<std::size_t>(sent);
    }
    if (!connection.keepAlive)
        return; // the poll loop closes it
    // Ready for the next request, which may already be in the buffer.
    connection.out.clear();
    connection.written = 0;
    setState(id, connection, ConnState::Reading);
    connection.headStarted = !connection.in.empty();
    connection.deadline = SteadyClock::now() + std::chrono::milliseconds(
                                                   connection.headStarted ? m_limits.headTimeoutMs
                                                                          : m_limits.idleTimeoutMs);
    // A pipelined request that waited behind this answer.
    if (connection.headStarted)
        takeRequest(id, connection);
}

// Closes a connection whose last answer is written and that is not kept alive.
void LocalPortListener::Impl::closeIfDone(std::uint64_t id) {
    auto it = m_connections.find(id);
    if (it == m_connections.end() || it->second.state != ConnState::Writing ||
        it->second.written < it->second.out.size())
        return;
    Connection& connection = it->second;
    ::shutdown(connection.fd.get(), SHUT_WR);
    connection.in.clear();
    connection.deadline = SteadyClock::now() + std::chrono::milliseconds(kDrainTimeoutMs);
    setState(id, connection, ConnState::Draining);
}

void LocalPortListener::Impl::drain(std::uint64_t id, Connection& connection) {
    char buffer[65536];
    const ssize_t count = ::recv(connection.fd.get(), buffer, sizeof buffer, 0);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR))
        closeConnection(id);
}

void LocalPortListener::Impl::finishAnswers() {
    std::deque<Done> done;
    {
        std::lock_guard guard(m_mutex);
        done.swap(m_done);
    }
    for (Done& item : done) {
        auto it = m_connections.find(item.connection);
        if (it == m_connections.end())
            continue; // the client went away meanwhile
        answer(item.connection, it->second, item.answer, it->second.keepAlive);
        closeIfDone(item.connection);
    }
}

void LocalPortListener::Impl::closeConnection(std::uint64_t id) {
    auto it = m_connections.find(id);
    if (it == m_connections.end())
        return;
    m_connections.erase(it);
    if (id == m_reserveId) {
        m_reserveId = 0;
        keepSpare();
    }
    // A descriptor came free: connections waiting in the backlog may have one now.
    if (m_acceptPaused)
        resumeAccepting();
}

void LocalPortListener::Impl::expireConnections() {
    const auto now = SteadyClock::now();
    std::vector<std::uint64_t> expired;
    for (const auto& [id, connection] : m_connections)
        if (connection.state != ConnState::Working && connection.deadline <= now)
            expired.push_back(id);
    for (std::uint64_t id : expired) {
        Connection& connection = m_connections[id];
        if (connection.state == ConnState::Reading && connection.headStarted) {
            // A client too slow to finish its request is told so and let go.
            connection.in.clear();
            answer(id, connection, refusal(408, "The request took too long."), false);
            closeIfDone(id);
        } else {
            closeConnection(id);
        }
    }
}

LocalPortListener::LocalPortListener(std::string name, int port, RequestHandler handler,
                                     ListenerLimits limits)
    : m_impl(std::make_unique<Impl>(std::move(name), port, std::move(handler), limits)) {}

LocalPortListener::~LocalPortListener() = default;

void LocalPortListener::start() { m_impl->start(); }
void LocalPortListener::stop() { m_impl->stop(); }
bool LocalPortListener::isRunning() const { return m_impl->isRunning(); }
int LocalPortListener::port() const { return m_impl->m_port; }
const std::string& LocalPortListener::name() const { return m_impl->m_name; }

} // namespace tools
