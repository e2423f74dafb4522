// Previews from a real loopback server and from local files: the feed, or the engine's exact
// words for what went wrong, or an HTML page's feed links.
#include "app/feedPreview.h"

#include "tests/support/testHttpServer.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using app::FeedPreview;
using app::PreviewOptions;
using testing_support::TempDir;
using testing_support::TestHttpServer;
using testing_support::writeFile;

namespace {

const char* const kFeed = "<?xml version=\"1.0\"?><rss version=\"2.0\"><channel>"
                          "<title>Loopback news</title><link>http://t/</link>"
                          "<item><guid>1</guid><title>First</title></item>"
                          "<item><guid>2</guid><title>Second</title></item>"
                          "<item><guid>3</guid><title>Third</title></item>"
                          "</channel></rss>";

// 127.0.0.1 addresses are the program's own plugin server: the test server stands in for it.
PreviewOptions options(int maxItems = 10, int serverPort = 0) {
    PreviewOptions result;
    result.manager.appPluginServerPort = serverPort;
    result.manager.net.honourUrlPort = true; // the test server is not on port 80
    result.manager.net.connectTimeoutSeconds = 5;
    result.userAgent = "pelsu-test";
    result.maxItems = maxItems;
    return result;
}

class FeedPreviewServer : public ::testing::Test {
protected:
    void SetUp() override {
        auto& server = m_server.server();
        server.Get("/feed.xml", [](const httplib::Request&, httplib::Response& response) {
            response.set_content(kFeed, "application/rss+xml");
        });
        server.Get("/page", [](const httplib::Request&, httplib::Response& response) {
            response.set_content("<!DOCTYPE html><html><head><link rel=alternate "
                                 "type=application/rss+xml title=News href=feed.xml>"
                                 "</head><body>Hello</body></html>",
                                 "text/html");
        });
        server.Get("/slow", [](const httplib::Request&, httplib::Response& response) {
            std::this_thread::sleep_for(std::chrono::seconds(3));
            response.set_content(kFeed, "application/rss+xml");
        });
        ASSERT_TRUE(m_server.start());
    }
    PreviewOptions serverOptions(int maxItems = 10) { return options(maxItems, m_server.port()); }
    TestHttpServer m_server;
};

} // namespace

TEST_F(FeedPreviewServer, AFeedGivesItsFirstItemsAMissingPageItsStatusAPageItsFeedLinks) {
    const FeedPreview preview = app::previewFeed(m_server.url("/feed.xml"), serverOptions(2));
    ASSERT_TRUE(preview.isFeed()) << preview.error;
    EXPECT_EQ(preview.channel.channelDisplayName, "Loopback news");
    ASSERT_EQ(preview.items.size(), 2u);
    EXPECT_EQ(preview.items[0].title, "First");
    EXPECT_EQ(preview.items[1].title, "Second");

    // The HTTP status as the engine words it.
    const FeedPreview missing = app::previewFeed(m_server.url("/gone.xml"), serverOptions());
    EXPECT_EQ(missing.error, "Feed update error: HTTP 404 Not Found");
    EXPECT_TRUE(missing.items.empty());
    EXPECT_TRUE(missing.links.empty());

    const FeedPreview page = app::previewFeed(m_server.url("/page"), serverOptions());
    EXPECT_FALSE(page.isFeed());
    ASSERT_EQ(page.links.size(), 1u);
    EXPECT_EQ(page.links[0].address, m_server.url("/feed.xml"));
    EXPECT_EQ(page.links[0].title, "News");
}

TEST_F(FeedPreviewServer, AbortEndsAPreviewInProgressAtOnce) {
    app::FeedPreviewer previewer(serverOptions());
    std::atomic<bool> done{false};
    FeedPreview preview;
    std::thread worker([&] {
        preview = previewer.preview(m_server.url("/slow"));
        done = true;
    });
    const auto start = std::chrono::steady_clock::now();
    while (!done) {
        previewer.abort(); // repeated: the download may not have begun yet
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    worker.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(preview.error, "The download was aborted: " + m_server.url("/slow"));
}

TEST(FeedPreview, LocalFilesGiveTheParserOrFileErrorsAndNothingIsWritten) {
    TempDir dir;
    writeFile(dir.file("broken.xml"), "<rss><channel><title>Broken</title><item>");
    writeFile(dir.file("good.xml"), kFeed);
    writeFile(dir.file("empty.xml"), "");
    EXPECT_EQ(app::previewFeed(dir.file("broken.xml"), options()).error,
              "XML parse failed (3:L1/C41): no element found");
    EXPECT_EQ(app::previewFeed(dir.file("missing.xml"), options()).error,
              "Can't open file: " + dir.file("missing.xml"));
    EXPECT_EQ(app::previewFeed(dir.file("empty.xml"), options()).error, "Empty RSS feed.");
    EXPECT_EQ(app::previewFeed("file://" + dir.file("good.xml"), options()).items.size(), 3u);
    auto offline = options();
    offline.manager.disableInternet = true;
    EXPECT_EQ(app::previewFeed(dir.file("good.xml"), offline).error,
              "Internet access has been disabled.");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 3);
}

TEST(FeedPreview, AFeedInAFormatThatIsOffNamesTheOptionThatReadsIt) {
    TempDir dir;
    writeFile(dir.file("feed.json"), R"({"version": "https://jsonfeed.org/version/1.1",
        "items": [{"id": "1", "title": "One"}]})");
    writeFile(dir.file("other.json"), R"({"error": "not found"})");
    PreviewOptions options;
    EXPECT_EQ(app::previewFeed(dir.file("feed.json"), options).formatOption, "AcceptJsonFeeds");
    EXPECT_EQ(app::previewFeed(dir.file("other.json"), options).formatOption, "");
    options.manager.feedFormats.json = true;
    const FeedPreview read = app::previewFeed(dir.file("feed.json"), options);
    ASSERT_TRUE(read.isFeed()) << read.error;
    EXPECT_EQ(read.formatOption, "");
    EXPECT_EQ(read.items.at(0).title, "One");
}
