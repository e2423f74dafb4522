#include "tools/net.h"
#include "tests/support/logCapture.h"
#include "tests/support/testHttpServer.h"
#include "tests/support/testSupport.h"
#include "tools/exception.h"
#include "tools/hostAddress.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <ifaddrs.h>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using testing_support::TempDir;
using testing_support::TestHttpServer;
using testing_support::writeFile;
using tools::InternetSession;
using tools::NetOptions;
using tools::readUrl;

namespace {

NetOptions honouringPort() {
    NetOptions options;
    options.honourUrlPort = true;
    return options;
}

// What one download returned.
struct Result {
    long status = 0;
    std::string text;
    std::string body;
};

Result fetch(InternetSession& session, const std::string& url, std::string* lastModified = nullptr,
             std::string* etag = nullptr, bool force = false) {
    Result result;
    readUrl(session, url, lastModified, etag, force, &result.status, &result.text, result.body);
    return result;
}

std::string failureOf(InternetSession& session, const std::string& url,
                      const tools::DownloadRules& rules = {}) {
    try {
        std::string body;
        readUrl(session, url, nullptr, nullptr, false, nullptr, nullptr, body, rules);
    } catch (const tools::Exception& failure) {
        return failure.what();
    }
    return "no failure";
}

// A server that answers conditional requests and records the headers it was last sent.
class ConditionalServer {
public:
    ConditionalServer() {
        m_server.server().Get("/feed", [this](const httplib::Request& req, httplib::Response& res) {
            std::lock_guard guard(m_mutex);
            m_sent = req.headers;
            if (req.get_header_value("If-None-Match") == "\"v1\"" ||
                req.get_header_value("If-Modified-Since") == "Mon, 01 Jan 2024 00:00:00 GMT") {
                res.status = 304;
                return;
            }
            res.set_header("Last-Modified", "Mon, 01 Jan 2024 00:00:00 GMT");
            if (withETag)
                res.set_header("ETag", "\"v1\"");
            res.set_content("<rss/>", "application/rss+xml");
        });
        m_server.start();
    }
    std::string url() const { return m_server.url("/feed"); }
    // The value of a header of the last request ("" when it had none).
    std::string sent(const std::string& name) {
        std::lock_guard guard(m_mutex);
        const auto found = m_sent.find(name);
        return found == m_sent.end() ? "" : found->second;
    }
    std::atomic<bool> withETag{true};

private:
    TestHttpServer m_server;
    std::mutex m_mutex;
    httplib::Headers m_sent;
};

// A plain server: /feed, a page that is missing, a redirect to a large body, numbered feeds.
class ReadUrlServer : public ::testing::Test {
protected:
    void SetUp() override {
        auto& server = m_server.server();
        server.Get("/feed", [](const httplib::Request&, httplib::Response& res) {
            res.set_content("<rss/>", "text/xml");
        });
        server.Get("/missing", [](const httplib::Request&, httplib::Response& res) {
            res.status = 404;
            res.set_content("no such page", "text/plain");
        });
        server.Get("/old", [](const httplib::Request&, httplib::Response& res) {
            res.set_redirect("/new");
        });
        server.Get("/new", [this](const httplib::Request& req, httplib::Response& res) {
            m_askedForGzip =
                req.get_header_value("Accept-Encoding").find("gzip") != std::string::npos;
            res.set_header("ETag", "\"new\"");
            res.set_content(std::string(20000, 'x'), "text/xml");
        });
        server.Get("/with blanks", [](const httplib::Request&, httplib::Response& res) {
            res.set_content("<rss/>", "text/xml");
        });
        server.Get(R"(/f/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
            res.set_content("feed " + req.matches[1].str(), "text/plain");
        });
        ASSERT_TRUE(m_server.start());
    }
    std::string url(const std::string& path) const { return m_server.url(path); }

    TestHttpServer m_server;
    std::atomic<bool> m_askedForGzip{false};
    InternetSession m_session{"pelsu-test", honouringPort()};
};

} // namespace

TEST(ReadUrl, ConditionalRequestsCarryAndReturnTheValidators) {
    ConditionalServer server;
    InternetSession session("pelsu-test", honouringPort());
    std::string lastModified, etag;
    Result first = fetch(session, server.url(), &lastModified, &etag);
    EXPECT_EQ(first.status, 200);
    EXPECT_EQ(first.text, "OK");
    EXPECT_EQ(first.body, "<rss/>");
    EXPECT_EQ(lastModified, "Mon, 01 Jan 2024 00:00:00 GMT");
    EXPECT_EQ(etag, "\"v1\"");

    // Both validators go out; a 304 keeps them and has an empty body.
    Result second = fetch(session, server.url(), &lastModified, &etag);
    EXPECT_EQ(server.sent("If-Modified-Since"), "Mon, 01 Jan 2024 00:00:00 GMT");
    EXPECT_EQ(server.sent("If-None-Match"), "\"v1\"");
    EXPECT_EQ(second.status, 304);
    EXPECT_EQ(second.text, "Not Modified");
    EXPECT_EQ(second.body, "");
    EXPECT_EQ(etag, "\"v1\"");
    EXPECT_EQ(lastModified, "Mon, 01 Jan 2024 00:00:00 GMT");

    // A forced download sends neither and asks caches to reload.
    Result forced = fetch(session, server.url(), &lastModified, &etag, true);
    EXPECT_EQ(server.sent("If-Modified-Since"), "");
    EXPECT_EQ(server.sent("If-None-Match"), "");
    EXPECT_EQ(server.sent("Pragma"), "no-cache");
    EXPECT_EQ(forced.status, 200);

    // A 200 without an ETag empties the stored one.
    server.withETag = false;
    etag = "\"old\"";
    lastModified.clear();
    EXPECT_EQ(fetch(session, server.url(), &lastModified, &etag).status, 200);
    EXPECT_EQ(etag, "");
}

TEST_F(ReadUrlServer, ErrorStatusesAreResultsWithTheServersPage) {
    std::string etag = "\"keep\"";
    Result result = fetch(m_session, url("/missing"), nullptr, &etag);
    EXPECT_EQ(result.status, 404);
    EXPECT_EQ(result.text, "Not Found");
    EXPECT_EQ(result.body, "no such page");
    EXPECT_EQ(etag, "\"keep\"");
}

TEST_F(ReadUrlServer, RedirectsAreFollowedAndCompressedBodiesDecoded) {
    std::string etag;
    Result result = fetch(m_session, url("/old"), nullptr, &etag);
    EXPECT_EQ(result.status, 200);
    EXPECT_EQ(result.body, std::string(20000, 'x'));
    EXPECT_EQ(etag, "\"new\"") << "the validators are those of the final response";
    EXPECT_TRUE(m_askedForGzip);
}

TEST_F(ReadUrlServer, AddressesWithoutASchemeAreRefusedAndOtherSchemesGoAsHttp) {
    const std::string hostAndPort = "127.0.0.1:" + std::to_string(m_server.port());
    EXPECT_EQ(failureOf(m_session, hostAndPort + "/feed"),
              "Can't parse URL: " + hostAndPort + "/feed");
    EXPECT_EQ(failureOf(m_session, "feeds.example.org/rss"),
              "Can't parse URL: feeds.example.org/rss");
    EXPECT_EQ(failureOf(m_session, "http:///rss"), "Can't open an session with host: ");
    // The simple path has one text for every address it can't open.
    tools::setUseHttpHeaders(false);
    const std::string simpleFailure = failureOf(m_session, "feeds.example.org/rss");
    tools::setUseHttpHeaders(true);
    EXPECT_EQ(simpleFailure, "Can't open the URL: feeds.example.org/rss");
    EXPECT_EQ(fetch(m_session, "ftp://" + hostAndPort + "/feed").body, "<rss/>");
    EXPECT_EQ(fetch(m_session, "FEED://" + hostAndPort + "/feed").body, "<rss/>");
    // Blanks as typed go escaped on the request line.
    EXPECT_EQ(fetch(m_session, url("/with blanks")).body, "<rss/>");
}

TEST_F(ReadUrlServer, ManyThreadsShareOneSession) {
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i) {
                const std::string n = std::to_string(t * 100 + i);
                if (fetch(m_session, url("/f/" + n)).body == "feed " + n)
                    ++good;
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(good, 100);
}

TEST(ReadUrl, ByDefaultEveryRequestGoesToPortEightyAsPlainHttp) {
    TestHttpServer server("127.0.0.93");
    server.server().Get("/feed", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("from port 80", "text/plain");
    });
    if (!server.start(80))
        GTEST_SKIP() << "binding 127.0.0.93:80 was refused (the test needs root)";
    InternetSession session("pelsu-test");
    EXPECT_EQ(fetch(session, "http://127.0.0.93:8080/feed").body, "from port 80");
    EXPECT_EQ(fetch(session, "https://127.0.0.93/feed").body, "from port 80");
}

TEST(ReadUrl, LimitsEndStalledAndOversizedDownloads) {
    TestHttpServer server;
    std::atomic<bool> release{false};
    server.server().Get("/silent", [&](const httplib::Request&, httplib::Response& res) {
        for (int i = 0; i < 100 && !release; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        res.set_content("late", "text/plain");
    });
    server.server().Get("/huge", [](const httplib::Request&, httplib::Response& res) {
        res.set_content(std::string(100000, 'h'), "application/octet-stream");
    });
    // Without a declared length the limit is enforced while the body arrives.
    server.server().Get("/streamed", [](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("text/plain", [](size_t, httplib::DataSink& sink) {
            const std::string chunk(10000, 's');
            for (int i = 0; i < 10; ++i)
                if (!sink.write(chunk.data(), chunk.size()))
                    return false;
            sink.done();
            return true;
        });
    });
    ASSERT_TRUE(server.start());
    NetOptions options = honouringPort();
    options.lowSpeedTimeSeconds = 1;
    options.maxBodyBytes = 50000;
    InternetSession session("pelsu-test", options);
    EXPECT_EQ(failureOf(session, server.url("/silent")),
              "The download timed out: " + server.url("/silent"));
    EXPECT_EQ(failureOf(session, server.url("/huge")),
              "The download is larger than the limit of 50000 bytes: " + server.url("/huge"));
    EXPECT_EQ(failureOf(session, server.url("/streamed")),
              "The download is larger than the limit of 50000 bytes: " + server.url("/streamed"));
    release = true;
}

TEST(ReadUrl, AnotherThreadCanAbortADownloadInProgress) {
    TestHttpServer server;
    std::atomic<bool> inHandler{false}, release{false};
    server.server().Get("/slow", [&](const httplib::Request&, httplib::Response& res) {
        inHandler = true;
        while (!release)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        res.set_content("late", "text/plain");
    });
    ASSERT_TRUE(server.start());
    NetOptions options = honouringPort();
    options.lowSpeedTimeSeconds = 0;
    InternetSession session("pelsu-test", options);
    testing_support::LogCapture log;
    std::thread aborter([&] {
        while (!inHandler)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        session.abortAll();
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(failureOf(session, server.url("/slow")),
              "The download was aborted: " + server.url("/slow"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    // A stop that gives up on a worker aborts its transfer: the worker says no more.
    EXPECT_EQ(log.linesStartingWith({"- Transfer failed"}), std::vector<std::string>{});
    aborter.join();
    release = true;
}

TEST(ReadUrl, LocalFilesReadAsOkAndOnlyRegularFilesWithinTheLimit) {
    TempDir dir;
    const std::string file = dir.file("feed with blank.xml");
    writeFile(file, "<rss>local</rss>");
    InternetSession session("pelsu-test");
    std::string etag = "\"untouched\"";
    Result plain = fetch(session, file, nullptr, &etag);
    EXPECT_EQ(plain.status, 200);
    EXPECT_EQ(plain.text, "OK");
    EXPECT_EQ(plain.body, "<rss>local</rss>");
    EXPECT_EQ(etag, "\"untouched\"");
    EXPECT_EQ(fetch(session, "file://" + file).body, "<rss>local</rss>");
    EXPECT_EQ(fetch(session, "file:" + dir.file("feed%20with%20blank.xml")).body,
              "<rss>local</rss>");
    std::filesystem::create_symlink(file, dir.file("link.xml"));
    EXPECT_EQ(fetch(session, dir.file("link.xml")).body, "<rss>local</rss>");
    EXPECT_EQ(failureOf(session, "file://" + dir.file("missing.xml")),
              "Can't open file: " + dir.file("missing.xml"));
    // A directory named by a file: address can't be opened; a plain path naming one is no
    // address at all.
    EXPECT_EQ(failureOf(session, "file://" + dir.path().string()),
              "Can't open file: " + dir.path().string());
    EXPECT_EQ(failureOf(session, dir.path().string()), "Can't parse URL: " + dir.path().string());

    // Devices, FIFOs and the kernel's files are never read, even through a link, and a FIFO
    // never holds the reader up.
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0600), 0);
    std::filesystem::create_symlink("/dev/zero", dir.file("zero.xml"));
    for (const std::string& path :
         {std::string("/dev/zero"), std::string("/dev/urandom"), std::string("/proc/self/environ"),
          dir.file("fifo"), dir.file("zero.xml")}) {
        EXPECT_EQ(failureOf(session, path), "Not a regular file: " + path);
        EXPECT_EQ(failureOf(session, "file://" + path), "Not a regular file: " + path);
    }
    NetOptions small;
    small.maxBodyBytes = 10;
    InternetSession limited("pelsu-test", small);
    EXPECT_EQ(failureOf(limited, file),
              "The download is larger than the limit of 10 bytes: " + file);
}

TEST(ReadUrl, AReplyThatIsNotHttpIsABrokenResponse) {
    // A server of another protocol: it greets and hangs up.
    const testing_support::LoopbackPort listener(true);
    std::thread greeter([&listener] {
        const int client = ::accept(listener.fd(), nullptr, nullptr);
        const char greeting[] = "SSH-2.0-OpenSSH_9.2\r\nProtocol mismatch.\r\n";
        if (client >= 0) {
            (void)::write(client, greeting, sizeof greeting - 1);
            ::shutdown(client, SHUT_WR);
            char sink[512];
            while (::read(client, sink, sizeof sink) > 0) {
            }
            ::close(client);
        }
    });
    InternetSession session("pelsu-test", honouringPort());
    const std::string url = "http://127.0.0.1:" + std::to_string(listener.port()) + "/";
    EXPECT_EQ(failureOf(session, url), "Can't read the HTTP response: " + url);
    greeter.join();
}

TEST(ReadUrl, ABodyCutShortFailsAfterTheResponseIsLogged) {
    const testing_support::LoopbackPort listener(true);
    std::thread server([&listener] {
        const int client = ::accept(listener.fd(), nullptr, nullptr);
        const char reply[] = "HTTP/1.1 200 OK\r\nETag: \"e1\"\r\nContent-Length: 1000\r\n\r\nshort";
        if (client >= 0) {
            char request[4096];
            (void)::read(client, request, sizeof request);
            (void)::write(client, reply, sizeof reply - 1);
            ::close(client);
        }
    });
    testing_support::LogCapture log;
    InternetSession session("pelsu-test", honouringPort());
    const std::string url = "http://127.0.0.1:" + std::to_string(listener.port()) + "/";
    EXPECT_EQ(failureOf(session, url), "Can't read the URL: " + url);
    server.join();
    EXPECT_EQ(log.linesStartingWith({"HTTP response", "Found HTTP tag"}),
              (std::vector<std::string>{"HTTP response: 200 OK", "Found HTTP tag: ETag='\"e1\"'"}));
}

TEST(ReadUrl, AWholeTransferTimeLimitEndsATrickle) {
    TestHttpServer server;
    std::atomic<bool> done{false};
    std::atomic<int> written{0};
    // Two bytes a tenth of a second: never finished.
    server.server().Get("/trickle", [&](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("text/xml", [&](size_t, httplib::DataSink& sink) {
            if (done)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            written += 2;
            return sink.write("<r", 2);
        });
    });
    ASSERT_TRUE(server.start());
    NetOptions options = honouringPort();
    options.lowSpeedTimeSeconds = 0;
    options.maxTransferSeconds = 2;
    InternetSession session("pelsu-test", options);
    EXPECT_EQ(failureOf(session, server.url("/trickle")),
              "The download took longer than 2 seconds: " + server.url("/trickle"));
    EXPECT_GT(written, 10);
    done = true;
}

TEST(ReadUrl, DownloadsForWebPagesNeverConnectToThisComputer) {
    // "Elsewhere" stands in for a feed on another computer; "here" is a server of this one.
    TestHttpServer here;
    std::atomic<int> hits{0};
    here.server().Get("/secret", [&](const httplib::Request&, httplib::Response& res) {
        ++hits;
        res.set_content("secret", "text/plain");
    });
    ASSERT_TRUE(here.start());
    TestHttpServer elsewhere;
    elsewhere.server().Get("/feed", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("<rss/>", "text/xml");
    });
    elsewhere.server().Get("/moved", [&](const httplib::Request&, httplib::Response& res) {
        res.set_redirect(here.url("/secret"));
    });
    ASSERT_TRUE(elsewhere.start());
    tools::setRemoteTestPort(elsewhere.port());
    InternetSession session("pelsu-test", honouringPort());
    tools::DownloadRules forWebPage;
    forWebPage.remoteOnly = true;
    const auto failure = [&](const std::string& url) {
        return failureOf(session, url, forWebPage);
    };
    std::string body;
    readUrl(session, elsewhere.url("/feed"), nullptr, nullptr, false, nullptr, nullptr, body,
            forWebPage);
    EXPECT_EQ(body, "<rss/>");
    // The redirect is followed for the user's own channels, never for a web page's.
    EXPECT_EQ(fetch(session, elsewhere.url("/moved")).body, "secret");
    EXPECT_EQ(hits.exchange(0), 1);
    EXPECT_EQ(failure(elsewhere.url("/moved")),
              "A channel that a web page added may not fetch from this computer (127.0.0.1): " +
                  elsewhere.url("/moved"));
    const std::string port = ":" + std::to_string(here.port());
    for (const char* host :
         {"127.0.0.1", "2130706433", "0x7f000001", "0177.0.0.1", "127.1", "[::ffff:127.0.0.1]",
          "[0:0:0:0:0:0:0:1]", "[::]", "localhost", "0.0.0.0", "0", "0x0", "[::1%25lo]"}) {
        const std::string url = std::string("http://") + host + port + "/secret";
        EXPECT_NE(failure(url).find("may not fetch from this computer"), std::string::npos)
            << failure(url);
    }
    // Names the resolver may not know fail one way or another, and never reach the server.
    for (const char* host : {"localhost.", "0.0.0.0.", "%6c%6f%63%61%6c%68%6f%73%74"})
        EXPECT_NE(failure(std::string("http://") + host + port + "/secret"), "no failure");
    EXPECT_EQ(failure("file:///etc/hostname"),
              "A channel that a web page added may fetch only http and https addresses: "
              "file:///etc/hostname");
    EXPECT_EQ(hits, 0);
    tools::setRemoteTestPort(0);
}

TEST(HostAddresses, ThisComputersOwnInterfaceAddressesCountAsThisComputer) {
    ifaddrs* list = nullptr;
    ASSERT_EQ(::getifaddrs(&list), 0);
    int checked = 0;
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next)
        if (entry->ifa_addr &&
            (entry->ifa_addr->sa_family == AF_INET || entry->ifa_addr->sa_family == AF_INET6)) {
            EXPECT_TRUE(tools::isThisComputer(entry->ifa_addr))
                << tools::addressText(entry->ifa_addr);
            ++checked;
        }
    ::freeifaddrs(list);
    EXPECT_GT(checked, 0);
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    ::inet_pton(AF_INET, "192.0.2.7", &remote.sin_addr);
    EXPECT_FALSE(tools::isThisComputer(reinterpret_cast<sockaddr*>(&remote)));
    EXPECT_FALSE(tools::hostNamesThisComputer("feeds.example.org", 80));
}

TEST(ReadUrl, SimplePathReportsOkAndLeavesTheValidatorsAlone) {
    ConditionalServer server;
    InternetSession session("pelsu-test", honouringPort());
    tools::setUseHttpHeaders(false);
    std::string lastModified = "Mon, 01 Jan 2024 00:00:00 GMT", etag = "\"v1\"";
    Result result = fetch(session, server.url(), &lastModified, &etag);
    tools::setUseHttpHeaders(true);
    EXPECT_EQ(result.status, 200);
    EXPECT_EQ(result.text, "OK");
    EXPECT_EQ(result.body, "<rss/>");
    EXPECT_EQ(server.sent("If-None-Match"), "") << "the simple path sends no validators";
    EXPECT_EQ(etag, "\"v1\"");
}

TEST(LastSystemErrorText, GivesTheErrorsTextOrItsNumber) {
    errno = ENOENT;
    EXPECT_EQ(tools::lastSystemErrorText(), "No such file or directory");
    errno = 0;
    EXPECT_EQ(tools::lastSystemErrorText(), "errno 0");
}
