#include "tools/localPortListener.h"

#include "tests/support/testSupport.h"
#include "tools/descriptorLimit.h"
#include "tools/exception.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using testing_support::httpGet;
using testing_support::RawConnection;
using tools::ListenerLimits;
using tools::LocalAnswer;
using tools::LocalPortListener;
using tools::LocalRequest;

namespace {

// A listener on a free port whose handler echoes the path and the query. "/busy" says it has
// arrived and works until released (300 ms at most).
class ListenerTest : public ::testing::Test {
protected:
    void startWith(ListenerLimits limits = {}) {
        m_listener = std::make_unique<LocalPortListener>(
            "test listener", 0,
            [this](const LocalRequest& request) {
                ++m_calls;
                if (request.path == "/busy") {
                    m_busyArrived.open();
                    m_releaseBusy.wait(std::chrono::milliseconds(300));
                }
                if (request.path == "/throw")
                    throw std::runtime_error("<secret>");
                LocalAnswer answer;
                answer.body = request.path + "|" + request.query;
                return answer;
            },
            limits);
        m_listener->start();
    }
    int port() const { return m_listener->port(); }
    std::string host() const { return "127.0.0.1:" + std::to_string(port()); }
    std::string get(const std::string& target, const std::string& extra = "") const {
        return "GET " + target + " HTTP/1.1\r\nHost: " + host() + "\r\n" + extra + "\r\n";
    }

    testing_support::Gate m_busyArrived;
    testing_support::Gate m_releaseBusy;
    std::unique_ptr<LocalPortListener> m_listener;
    std::atomic<int> m_calls{0};
};

// Lowers the soft descriptor limit to a little above what is open and takes the rest, so
// that the process has no descriptor left; gives everything back when destroyed.
class DescriptorExhaustion {
public:
    // leaveFree descriptors stay free for the code under test.
    explicit DescriptorExhaustion(std::size_t leaveFree = 0) {
        ::getrlimit(RLIMIT_NOFILE, &m_saved);
        rlimit lowered = m_saved;
        lowered.rlim_cur = tools::openDescriptorCount() + 16;
        ::setrlimit(RLIMIT_NOFILE, &lowered);
        for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
            m_held.push_back(fd);
        for (; leaveFree > 0 && !m_held.empty(); --leaveFree) {
            ::close(m_held.back());
            m_held.pop_back();
        }
    }
    ~DescriptorExhaustion() {
        for (int fd : m_held)
            ::close(fd);
        ::setrlimit(RLIMIT_NOFILE, &m_saved);
    }
    DescriptorExhaustion(const DescriptorExhaustion&) = delete;
    DescriptorExhaustion& operator=(const DescriptorExhaustion&) = delete;

private:
    rlimit m_saved{};
    std::vector<int> m_held;
};

double processCpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

} // namespace

TEST_F(ListenerTest, AnswersGetRequestsOnKeptAliveAndPipelinedConnections) {
    startWith();
    RawConnection connection(port());
    ASSERT_TRUE(connection.send(get("/a?x=1&y=%41")));
    auto answer = connection.readAnswer();
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, "/a|x=1&y=%41") << "the query stays encoded";
    EXPECT_NE(answer.head.find("Connection: keep-alive"), std::string::npos);
    // Two requests in one write come back in order on the same connection.
    ASSERT_TRUE(connection.send(get("/b") + get("/c", "Connection: close\r\n")));
    EXPECT_EQ(connection.readAnswer().body, "/b|");
    answer = connection.readAnswer();
    EXPECT_EQ(answer.body, "/c|");
    EXPECT_NE(answer.head.find("Connection: close"), std::string::npos);
    EXPECT_TRUE(connection.closedByServer(2000));
    // Bare line feeds and HTTP/1.0 (closed after the answer) are understood too.
    RawConnection old(port());
    old.send("GET /d HTTP/1.0\nHost: localhost:" + std::to_string(port()) + "\n\n");
    EXPECT_EQ(old.readAnswer().body, "/d|");
    EXPECT_TRUE(old.closedByServer(2000));
}

TEST_F(ListenerTest, RefusesOtherHostsMethodsBodiesAndGarbageBeforeTheHandler) {
    startWith();
    const std::string p = std::to_string(port());
    EXPECT_EQ(httpGet(port(), "/x", "evil.example:" + p).status, 403) << "DNS rebinding";
    EXPECT_EQ(httpGet(port(), "/x", "127.0.0.1").status, 403) << "no port";
    EXPECT_EQ(httpGet(port(), "/x", "127.0.0.1:1").status, 403) << "another port";
    EXPECT_EQ(httpGet(port(), "/x", "LOCALHOST:" + p).status, 200);
    const struct {
        std::string request;
        int status;
    } refused[] = {
        {"GET /x HTTP/1.1\r\n\r\n", 403},
        {"GET /x HTTP/1.1\r\nHost: " + host() + "\r\nHost: " + host() + "\r\n\r\n", 400},
        {"POST /x HTTP/1.1\r\nHost: " + host() + "\r\nContent-Length: 0\r\n\r\n", 405},
        {"GET /x HTTP/1.1\r\nHost: " + host() + "\r\nContent-Length: 4\r\n\r\nbody", 400},
        {"GET /x HTTP/1.1\r\nHost: " + host() + "\r\nTransfer-Encoding: chunked\r\n\r\n", 400},
        {"GET /x HTTP/2.0\r\nHost: " + host() + "\r\n\r\n", 400},
        {"GET x HTTP/1.1\r\nHost: " + host() + "\r\n\r\n", 400},
        {"nonsense\r\n\r\n", 400},
        {"GET /x HTTP/1.1\r\nno colon here\r\n\r\n", 400},
    };
    for (const auto& [request, status] : refused) {
        RawConnection connection(port());
        connection.send(request);
        const auto answer = connection.readAnswer();
        EXPECT_EQ(answer.status, status) << request;
        EXPECT_TRUE(connection.closedByServer(2000)) << request;
        if (status == 405) {
            EXPECT_NE(answer.head.find("Allow: GET"), std::string::npos);
        }
    }
    EXPECT_EQ(m_calls, 1) << "only the localhost request reached the handler";
}

TEST_F(ListenerTest, BoundsTheRequestLineAndTheHeaders) {
    ListenerLimits limits;
    limits.maxHeadBytes = 4096;
    limits.maxHeaders = 10;
    startWith(limits);
    RawConnection longLine(port());
    ASSERT_TRUE(longLine.send("GET /" + std::string(16000000, 'a')))
        << "what follows the refusal is read and dropped";
    EXPECT_EQ(longLine.readAnswer().status, 414);
    EXPECT_TRUE(longLine.closedByServer(2000));

    std::string manyHeaders;
    for (int i = 0; i < 11; ++i)
        manyHeaders += "X-" + std::to_string(i) + ": y\r\n";
    RawConnection many(port());
    many.send(get("/x", manyHeaders));
    EXPECT_EQ(many.readAnswer().status, 431);

    RawConnection endless(port());
    std::string header = "GET /x HTTP/1.1\r\nHost: " + host() + "\r\n";
    for (int i = 0; i < 200 && endless.send(header); ++i)
        header = "X-Long: " + std::string(100, 'z') + "\r\n";
    EXPECT_EQ(endless.readAnswer().status, 431);
    EXPECT_EQ(m_calls, 0);
    EXPECT_EQ(httpGet(port(), "/still-serving").status, 200);
}

TEST_F(ListenerTest, IdleAndSlowClientsDoNotHoldUpOthers) {
    ListenerLimits limits;
    limits.workers = 1;
    limits.headTimeoutMs = 3000;
    startWith(limits);
    std::vector<std::unique_ptr<RawConnection>> idle;
    for (int i = 0; i < 100; ++i)
        idle.push_back(std::make_unique<RawConnection>(port()));
    RawConnection slow(port());
    slow.send("GET /slow HTTP/1.1\r\nHo");
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(httpGet(port(), "/quick").status, 200);
    EXPECT_FALSE(slow.closedByServer(0)) << "the quick requests did not wait for the slow one";
    // The slow client is told it took too long and is let go; idle ones stay connected.
    EXPECT_EQ(slow.readAnswer().status, 408);
    EXPECT_TRUE(slow.closedByServer(2000));
    EXPECT_FALSE(idle.front()->closedByServer(100));
    ASSERT_TRUE(idle.front()->send(get("/late")));
    EXPECT_EQ(idle.front()->readAnswer().body, "/late|");
}

TEST_F(ListenerTest, OneConnectionBeyondTheLimitIsAnsweredAndTheNextTurnedAway) {
    ListenerLimits limits;
    limits.maxConnections = 3;
    startWith(limits);
    std::vector<std::unique_ptr<RawConnection>> held;
    for (int i = 0; i < 3; ++i) {
        held.push_back(std::make_unique<RawConnection>(port()));
        held.back()->send(get("/held"));
        ASSERT_EQ(held.back()->readAnswer().status, 200);
    }
    auto reserve = std::make_unique<RawConnection>(port());
    reserve->send("GET /reserve HTTP/1.1\r\n"); // holds the reserve with a request begun
    RawConnection extra(port());
    EXPECT_EQ(extra.readAnswer().status, 503);
    reserve->send("Host: " + host() + "\r\n\r\n");
    const auto answer = reserve->readAnswer();
    EXPECT_EQ(answer.body, "/reserve|");
    EXPECT_NE(answer.head.find("Connection: close"), std::string::npos);
    EXPECT_TRUE(reserve->closedByServer(2000)) << "the reserve is not kept alive";
}

TEST_F(ListenerTest, OutOfDescriptorsItWaitsQuietlyAndStillAnswersOneRequest) {
    ListenerLimits limits;
    limits.workers = 1;
    startWith(limits);
    // The clients' sockets exist before the process runs out; the listener has none left.
    auto first = std::make_unique<RawConnection>(port(), false);
    RawConnection second(port(), false);
    DescriptorExhaustion exhaustion;
    ASSERT_TRUE(first->connect() && second.connect());
    const double cpuBefore = processCpuSeconds();
    const auto wallBefore = std::chrono::steady_clock::now();
    EXPECT_FALSE(second.closedByServer(1000)) << "the one that can't be taken waits";
    const double cpu = processCpuSeconds() - cpuBefore;
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wallBefore).count();
    EXPECT_LT(cpu, 0.2 * wall) << "the listener spins on accepts that fail";
    ASSERT_TRUE(first->send(get("/first")));
    EXPECT_EQ(first->readAnswer().body, "/first|") << "taken in on the spare descriptor";
    EXPECT_TRUE(first->closedByServer(2000));
    first.reset(); // the server closes its end, and the waiting one is taken in
    ASSERT_TRUE(second.send(get("/second")));
    EXPECT_EQ(second.readAnswer().body, "/second|");
}

TEST(DescriptorLimit, ListenersShareWhatTheLimitLeavesToThem) {
    // Five listeners of 256 connections would take more than 1,024 descriptors.
    const std::size_t each = tools::connectionsPerListener(256, 5, 1024, 40);
    EXPECT_LT(each, 256u);
    EXPECT_GT(each, 100u);
    EXPECT_LE(5 * (each + 5) + 40 + 1024 / 4, 1024u);
    EXPECT_EQ(tools::connectionsPerListener(256, 5, 65536, 40), 256u);
    EXPECT_EQ(tools::connectionsPerListener(256, 5, 100, 90), 4u) << "never none";
}

TEST(DescriptorLimit, TheSoftLimitIsRaisedToTheHardOne) {
    const auto result = testing_support::runInChild([] {
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        const rlim_t hard = limit.rlim_max;
        limit.rlim_cur = std::min<rlim_t>(256, hard);
        ::setrlimit(RLIMIT_NOFILE, &limit);
        const std::size_t raised = tools::raiseDescriptorLimit();
        ::getrlimit(RLIMIT_NOFILE, &limit);
        const rlim_t expected = std::min<rlim_t>(hard, 65536);
        if (limit.rlim_cur != expected || raised != expected)
            std::_Exit(1);
    });
    EXPECT_EQ(result.status, 0) << result.errorOutput;
}

TEST_F(ListenerTest, HandlerFailuresAreAnswered500WithoutTheirText) {
    startWith();
    const auto answer = httpGet(port(), "/throw");
    EXPECT_EQ(answer.status, 500);
    EXPECT_EQ(answer.body.find("<secret>"), std::string::npos);
    EXPECT_EQ(httpGet(port(), "/after").status, 200);
}

TEST_F(ListenerTest, APortInUseIsReportedByName) {
    startWith();
    LocalPortListener second("second listener", port(),
                             [](const LocalRequest&) { return LocalAnswer{}; });
    try {
        second.start();
        FAIL() << "the port was taken";
    } catch (const tools::Exception& e) {
        EXPECT_EQ(std::string(e.what()), "Can't listen on 127.0.0.1:" + std::to_string(port()) +
                                             " (second listener): Address already in use");
    }
    EXPECT_FALSE(second.isRunning());
    EXPECT_EQ(httpGet(port(), "/first").status, 200);
}

TEST(ListenerStart, NamesTheStepThatFailedAndCanStartOnceDescriptorsAreFree) {
    LocalPortListener listener("short listener", 0,
                               [](const LocalRequest&) { return LocalAnswer{}; });
    // With one descriptor free the socket takes it; with two the wake-up event gets one too.
    const std::pair<std::size_t, std::string> cases[] = {{1, "eventfd"}, {2, "epoll_create1"}};
    for (const auto& [free, step] : cases) {
        // The failure is looked at once descriptors are free again: the sanitizers' checks of
        // a member call need one.
        std::exception_ptr failure;
        {
            DescriptorExhaustion exhaustion(free);
            try {
                listener.start();
            } catch (...) {
                failure = std::current_exception();
            }
        }
        EXPECT_FALSE(listener.isRunning());
        ASSERT_TRUE(failure) << "started with " << free << " descriptors free";
        try {
            std::rethrow_exception(failure);
        } catch (const tools::Exception& e) {
            EXPECT_EQ(std::string(e.what()),
                      "Can't start the short listener (" + step + "): Too many open files");
        }
    }
    listener.start();
    EXPECT_EQ(httpGet(listener.port(), "/after").status, 200);
}

TEST_F(ListenerTest, StopsPromptlyWithClientsConnectedAndARequestRunning) {
    startWith();
    std::vector<std::unique_ptr<RawConnection>> idle;
    for (int i = 0; i < 20; ++i)
        idle.push_back(std::make_unique<RawConnection>(port()));
    RawConnection busy(port());
    busy.send(get("/busy"));
    ASSERT_TRUE(m_busyArrived.wait());
    const auto before = std::chrono::steady_clock::now();
    m_listener->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
    EXPECT_FALSE(m_listener->isRunning());
    EXPECT_TRUE(idle.front()->closedByServer(1000));
    m_listener->start();
    EXPECT_EQ(httpGet(port(), "/restarted").status, 200);
}
