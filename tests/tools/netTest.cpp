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

// One server for the downloads: a feed, a missing page, a redirect to a large body, numbered
// feeds, a conditional feed that records the headers it was last sent, and bodies that stall,
// grow past the limits or trickle until the test ends.
class ReadUrlServer : public ::testing::Test {
protected:
    void SetUp() override {
        auto& server = m_server.server();
        server.Get("/(feed|with blanks)", [](const httplib::Request&, httplib::Response& res) {
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
        server.Get(R"(/f/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
            res.set_content("feed " + req.matches[1].str(), "text/plain");
        });
        server.Get("/cond", [this](const httplib::Request& req, httplib::Response& res) {
            std::lock_guard guard(m_mutex);
            m_sent = req.headers;
            if (req.get_header_value("If-None-Match") == "\"v1\"" ||
                req.get_header_value("If-Modified-Since") == kDate) {
                res.status = 304;
                return;
            }
            res.set_header("Last-Modified", kDate);
            if (m_withETag)
                res.set_header("ETag", "\"v1\"");
            res.set_content("<rss/>", "application/rss+xml");
        });
        // Two ETags, and a Last-Modified too long for the validator's buffer.
        server.Get("/twice", [this](const httplib::Request& req, httplib::Response& res) {
            {
                std::lock_guard guard(m_mutex);
                m_sent = req.headers;
            }
            res.set_header("ETag", "\"first\"");
            res.set_header("ETag", "\"second\"");
            res.set_header("Last-Modified", std::string(1024, 'L'));
            res.set_content("<rss/>", "application/rss+xml");
        });
        server.Get("/silent", [this](const httplib::Request&, httplib::Response& res) {
            m_silentArrived.open();
            for (int i = 0; i < 100 && !m_release; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            res.set_content("late", "text/plain");
        });
        server.Get("/huge", [](const httplib::Request&, httplib::Response& res) {
            res.set_content(std::string(100000, 'h'), "application/octet-stream");
        });
        // Without a declared length the limit is enforced while the body arrives.
        server.Get("/streamed", [](const httplib::Request&, httplib::Response& res) {
            res.set_chunked_content_provider("text/plain", [](size_t, httplib::DataSink& sink) {
                const std::string chunk(10000, 's');
                for (int i = 0; i < 10; ++i)
                    if (!sink.write(chunk.data(), chunk.size()))
                        return false;
                sink.done();
                return true;
            });
        });
        // Two bytes a tenth of a second: never finished.
        server.Get("/trickle", [this](const httplib::Request&, httplib::Response& res) {
            res.set_chunked_content_provider("text/xml", [this](size_t, httplib::DataSink& sink) {
                if (m_release)
                    return false;
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                m_trickled += 2;
                return sink.write("<r", 2);
            });
        });
        ASSERT_TRUE(m_server.start());
    }
    void TearDown() override { m_release = true; }
    std::string url(const std::string& path) const { return m_server.url(path); }
    // The value of a header of the last conditional request ("" when it had none).
    std::string sent(const std::string& name) {
        std::lock_guard guard(m_mutex);
        const auto found = m_sent.find(name);
        return found == m_sent.end() ? "" : found->second;
    }
    InternetSession session(NetOptions options) {
        options.honourUrlPort = true;
        return InternetSession("pelsu-test", options);
    }

    static constexpr const char* kDate = "Mon, 01 Jan 2024 00:00:00 GMT";
    TestHttpServer m_server;
    std::atomic<bool> m_askedForGzip{false}, m_withETag{true}, m_release{false};
    std::atomic<int> m_trickled{0};
    testing_support::Gate m_silentArrived;
    std::mutex m_mutex;
    httplib::Headers m_sent;
    InternetSession m_session{"pelsu-test", honouringPort()};
};

// A server on a free port of its own that reads one request, writes the reply and hangs up.
class OneReplyServer {
public:
    explicit OneReplyServer(std::string reply) : m_reply(std::move(reply)) {
        m_thread = std::thread([this] {
            const int client = ::accept(m_listener.fd(), nullptr, nullptr);
            if (client >= 0) {
                char request[4096];
                (void)::read(client, request, sizeof request);
                (void)::write(client, m_reply.data(), m_reply.size());
                ::close(client);
            }
        });
    }
    ~OneReplyServer() { m_thread.join(); }
    std::string url() const {
        return "http://127.0.0.1:" + std::to_string(m_listener.port()) + "/";
    }

private:
    const testing_support::LoopbackPort m_listener{true};
    std::string m_reply;
    std::thread m_thread;
};

} // namespace

TEST_F(ReadUrlServer, ConditionalRequestsCarryAndReturnTheValidators) {
    std::string lastModified, etag;
    Result first = fetch(m_session, url("/cond"), &lastModified, &etag);
    EXPECT_EQ(first.status, 200);
    EXPECT_EQ(first.text, "OK");
    EXPECT_EQ(first.body, "<rss/>");
    EXPECT_EQ(lastModified, kDate);
    EXPECT_EQ(etag, "\"v1\"");

    // Both validators go out; a 304 keeps them and has an empty body.
    Result second = fetch(m_session, url("/cond"), &lastModified, &etag);
    EXPECT_EQ(sent("If-Modified-Since"), kDate);
    EXPECT_EQ(sent("If-None-Match"), "\"v1\"");
    EXPECT_EQ(second.status, 304);
    EXPECT_EQ(second.text, "Not Modified");
    EXPECT_EQ(second.body, "");
    EXPECT_EQ(etag, "\"v1\"");
    EXPECT_EQ(lastModified, kDate);

    // The simple path sends no validators, reports OK and leaves them alone.
    tools::setUseHttpHeaders(false);
    Result simple = fetch(m_session, url("/cond"), &lastModified, &etag);
    tools::setUseHttpHeaders(true);
    EXPECT_EQ(simple.status, 200);
    EXPECT_EQ(simple.text, "OK");
    EXPECT_EQ(simple.body, "<rss/>");
    EXPECT_EQ(sent("If-None-Match"), "");
    EXPECT_EQ(etag, "\"v1\"");

    // A forced download sends neither and asks caches to reload.
    Result forced = fetch(m_session, url("/cond"), &lastModified, &etag, true);
    EXPECT_EQ(sent("If-Modified-Since"), "");
    EXPECT_EQ(sent("If-None-Match"), "");
    EXPECT_EQ(sent("Pragma"), "no-cache");
    EXPECT_EQ(forced.status, 200);

    // The first of two headers counts, one of 1,024 bytes or more is missing, and no accept
    // types are sent.
    EXPECT_EQ(fetch(m_session, url("/twice"), &lastModified, &etag).status, 200);
    EXPECT_EQ(etag, "\"first\"");
    EXPECT_EQ(lastModified, "");
    EXPECT_EQ(sent("Accept"), "");

    // A 200 without an ETag empties the stored one.
    m_withETag = false;
    etag = "\"old\"";
    lastModified.clear();
    EXPECT_EQ(fetch(m_session, url("/cond"), &lastModified, &etag).status, 200);
    EXPECT_EQ(etag, "");
}

TEST_F(ReadUrlServer, ErrorStatusesAreResultsAndRedirectsAreFollowedAndDecoded) {
    std::string etag = "\"keep\"";
    Result missing = fetch(m_session, url("/missing"), nullptr, &etag);
    EXPECT_EQ(missing.status, 404);
    EXPECT_EQ(missing.text, "Not Found");
    EXPECT_EQ(missing.body, "no such page");
    EXPECT_EQ(etag, "\"keep\"");
    Result moved = fetch(m_session, url("/old"), nullptr, &etag);
    EXPECT_EQ(moved.status, 200);
    EXPECT_EQ(moved.body, std::string(20000, 'x'));
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

TEST_F(ReadUrlServer, LimitsEndStalledOversizedAndEndlessDownloads) {
    NetOptions options;
    options.lowSpeedTimeSeconds = 1;
    options.maxBodyBytes = 50000;
    InternetSession limited = session(options);
    EXPECT_EQ(failureOf(limited, url("/silent")), "The download timed out: " + url("/silent"));
    for (const char* path : {"/huge", "/streamed"})
        EXPECT_EQ(failureOf(limited, url(path)),
                  "The download is larger than the limit of 50000 bytes: " + url(path));
    options.lowSpeedTimeSeconds = 0;
    options.maxTransferSeconds = 2;
    InternetSession timed = session(options);
    EXPECT_EQ(failureOf(timed, url("/trickle")),
              "The download took longer than 2 seconds: " + url("/trickle"));
    EXPECT_GT(m_trickled, 10);
}

TEST_F(ReadUrlServer, AnotherThreadCanAbortADownloadInProgress) {
    NetOptions options;
    options.lowSpeedTimeSeconds = 0;
    InternetSession unlimited = session(options);
    testing_support::LogCapture log;
    std::thread aborter([&] {
        m_silentArrived.wait();
        unlimited.abortAll();
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(failureOf(unlimited, url("/silent")), "The download was aborted: " + url("/silent"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    // A stop that gives up on a worker aborts its transfer: the worker says no more.
    EXPECT_EQ(log.linesStartingWith({"- Transfer failed"}), std::vector<std::string>{});
    aborter.join();
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

TEST(ReadUrl, AReplyThatIsNotHttpOrCutShortFails) {
    InternetSession session("pelsu-test", honouringPort());
    {
        // A server of another protocol: it greets and hangs up.
        const OneReplyServer other("SSH-2.0-OpenSSH_9.2\r\nProtocol mismatch.\r\n");
        EXPECT_EQ(failureOf(session, other.url()), "Can't read the HTTP response: " + other.url());
    }
    // A body cut short fails after the response is logged.
    testing_support::LogCapture log;
    {
        const OneReplyServer cut(
            "HTTP/1.1 200 OK\r\nETag: \"e1\"\r\nContent-Length: 1000\r\n\r\nshort");
        EXPECT_EQ(failureOf(session, cut.url()), "Can't read the URL: " + cut.url());
    }
    const std::vector<std::string> lines =
        log.linesStartingWith({"HTTP response", "Found HTTP tag", "- Transfer failed"});
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "HTTP response: 200 OK");
    EXPECT_EQ(lines[1], "Found HTTP tag: ETag='\"e1\"'");
    EXPECT_EQ(lines[2].rfind("- Transfer failed: ", 0), 0u) << lines[2];
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

TEST(LastSystemErrorText, GivesTheErrorsTextOrItsNumber) {
    errno = ENOENT;
    EXPECT_EQ(tools::lastSystemErrorText(), "No such file or directory");
    errno = 0;
    EXPECT_EQ(tools::lastSystemErrorText(), "errno 0");
}
