#include "tools/net.h"
#include "lib/misc/exception.h"
#include "tests/support/testHttpServer.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <thread>

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

Result fetch(InternetSession& session, const std::string& url, std::string* lastModified,
             std::string* etag, bool force = false) {
    Result result;
    readUrl(session, url, lastModified, etag, force, &result.status, &result.text, result.body);
    return result;
}

std::string failureOf(InternetSession& session, const std::string& url) {
    try {
        fetch(session, url, nullptr, nullptr);
    } catch (const channels::Exception& failure) {
        return failure.what();
    }
    return "no failure";
}

// A server that answers conditional requests and records the validators it was sent.
class ConditionalServer {
public:
    ConditionalServer() {
        m_server.server().Get("/feed", [this](const httplib::Request& req, httplib::Response& res) {
            std::lock_guard guard(m_mutex);
            m_sentSince = req.get_header_value("If-Modified-Since");
            m_sentMatch = req.get_header_value("If-None-Match");
            m_sentPragma = req.get_header_value("Pragma");
            if (m_sentMatch == "\"v1\"" || m_sentSince == "Mon, 01 Jan 2024 00:00:00 GMT") {
                res.status = 304;
                return;
            }
            res.set_header("Last-Modified", "Mon, 01 Jan 2024 00:00:00 GMT");
            if (m_withETag)
                res.set_header("ETag", "\"v1\"");
            res.set_content("<rss/>", "application/rss+xml");
        });
        m_server.start();
    }
    std::string url() const { return m_server.url("/feed"); }
    void setWithETag(bool with) { m_withETag = with; }
    std::string sentSince() {
        std::lock_guard guard(m_mutex);
        return m_sentSince;
    }
    std::string sentMatch() {
        std::lock_guard guard(m_mutex);
        return m_sentMatch;
    }
    std::string sentPragma() {
        std::lock_guard guard(m_mutex);
        return m_sentPragma;
    }

private:
    TestHttpServer m_server;
    std::mutex m_mutex;
    std::string m_sentSince, m_sentMatch, m_sentPragma;
    std::atomic<bool> m_withETag{true};
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
    EXPECT_EQ(server.sentSince(), "Mon, 01 Jan 2024 00:00:00 GMT");
    EXPECT_EQ(server.sentMatch(), "\"v1\"");
    EXPECT_EQ(second.status, 304);
    EXPECT_EQ(second.text, "Not Modified");
    EXPECT_EQ(second.body, "");
    EXPECT_EQ(etag, "\"v1\"");
    EXPECT_EQ(lastModified, "Mon, 01 Jan 2024 00:00:00 GMT");

    // A forced download sends neither and asks caches to reload.
    Result forced = fetch(session, server.url(), &lastModified, &etag, true);
    EXPECT_EQ(server.sentSince(), "");
    EXPECT_EQ(server.sentMatch(), "");
    EXPECT_EQ(server.sentPragma(), "no-cache");
    EXPECT_EQ(forced.status, 200);

    // A 200 without an ETag empties the stored one.
    server.setWithETag(false);
    etag = "\"old\"";
    lastModified.clear();
    EXPECT_EQ(fetch(session, server.url(), &lastModified, &etag).status, 200);
    EXPECT_EQ(etag, "");
}

TEST(ReadUrl, ErrorStatusesAreResultsWithTheServersPage) {
    TestHttpServer server;
    server.server().Get("/missing", [](const httplib::Request&, httplib::Response& res) {
        res.status = 404;
        res.set_content("no such page", "text/plain");
    });
    ASSERT_TRUE(server.start());
    InternetSession session("pelsu-test", honouringPort());
    std::string etag = "\"keep\"";
    Result result = fetch(session, server.url("/missing"), nullptr, &etag);
    EXPECT_EQ(result.status, 404);
    EXPECT_EQ(result.text, "Not Found");
    EXPECT_EQ(result.body, "no such page");
    EXPECT_EQ(etag, "\"keep\"");
}

TEST(ReadUrl, ByDefaultEveryRequestGoesToPortEightyAsPlainHttp) {
    TestHttpServer server("127.0.0.93");
    server.server().Get("/feed", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("from port 80", "text/plain");
    });
    if (!server.start(80))
        GTEST_SKIP() << "binding 127.0.0.93:80 was refused (the test needs root)";
    InternetSession session("pelsu-test");
    EXPECT_EQ(fetch(session, "http://127.0.0.93:8080/feed", nullptr, nullptr).body, "from port 80");
    EXPECT_EQ(fetch(session, "https://127.0.0.93/feed", nullptr, nullptr).body, "from port 80");
}

TEST(ReadUrl, RedirectsAreFollowedAndCompressedBodiesDecoded) {
    TestHttpServer server;
    std::atomic<bool> askedForGzip{false};
    const std::string text(20000, 'x');
    server.server().Get(
        "/old", [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/new"); });
    server.server().Get("/new", [&](const httplib::Request& req, httplib::Response& res) {
        askedForGzip = req.get_header_value("Accept-Encoding").find("gzip") != std::string::npos;
        res.set_header("ETag", "\"new\"");
        res.set_content(text, "text/xml");
    });
    ASSERT_TRUE(server.start());
    InternetSession session("pelsu-test", honouringPort());
    std::string etag;
    Result result = fetch(session, server.url("/old"), nullptr, &etag);
    EXPECT_EQ(result.status, 200);
    EXPECT_EQ(result.body, text);
    EXPECT_EQ(etag, "\"new\"") << "the validators are those of the final response";
    EXPECT_TRUE(askedForGzip);
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
    std::thread aborter([&] {
        while (!inHandler)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        session.abortAll();
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(failureOf(session, server.url("/slow")),
              "The download was aborted: " + server.url("/slow"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    aborter.join();
    release = true;
}

TEST(ReadUrl, LocalFilesReadAsOkAndDirectoriesFallThroughToHttp) {
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
    EXPECT_EQ(fetch(session, "file://" + file, nullptr, nullptr).body, "<rss>local</rss>");
    EXPECT_EQ(fetch(session, "file:" + dir.file("feed%20with%20blank.xml"), nullptr, nullptr).body,
              "<rss>local</rss>");
    EXPECT_EQ(failureOf(session, "file://" + dir.file("missing.xml")),
              "Can't open file: " + dir.file("missing.xml"));
    const std::string directoryFailure = failureOf(session, dir.path().string());
    EXPECT_NE(directoryFailure.find(dir.path().string()), std::string::npos) << directoryFailure;
    EXPECT_EQ(directoryFailure.find("Can't open file"), std::string::npos) << directoryFailure;
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
    EXPECT_EQ(server.sentMatch(), "") << "the simple path sends no validators";
    EXPECT_EQ(etag, "\"v1\"");
}

TEST(ReadUrl, ManyThreadsShareOneSession) {
    TestHttpServer server;
    server.server().Get(R"(/f/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
        res.set_content("feed " + req.matches[1].str(), "text/plain");
    });
    ASSERT_TRUE(server.start());
    InternetSession session("pelsu-test", honouringPort());
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i) {
                const std::string n = std::to_string(t * 100 + i);
                if (fetch(session, server.url("/f/" + n), nullptr, nullptr).body == "feed " + n)
                    ++good;
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(good, 100);
}

TEST(LastSystemErrorText, GivesTheErrorsTextOrItsNumber) {
    errno = ENOENT;
    EXPECT_EQ(tools::lastSystemErrorText(), "No such file or directory");
    errno = 0;
    EXPECT_EQ(tools::lastSystemErrorText(), "errno 0");
}
