#include "channels/pluginChannel.h"
#include "channels/channelManager.h"
#include "lib/misc/iniValues.h"
#include "tests/support/logCapture.h"
#include "tests/support/testHttpServer.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>

using namespace channels;
using testing_support::TempDir;
using testing_support::TestHttpServer;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

// Keeps the errors and the new items' ids of the channel updates.
class Collector : public EventListener {
public:
    std::vector<std::string> lines;
    void onChannelError(ChannelErrorEvent& e) override {
        lines.push_back(e.message() + " " + e.detail());
    }
    void onNewFeedItem(NewFeedItemEvent& e) override {
        lines.push_back(
            "new " + e.channel()->state().feed().item(static_cast<size_t>(e.feedItemIndex())).id);
    }
};

// A plugin channel whose script is written by the test.
class PluginChannelTest : public ::testing::Test {
protected:
    PluginChannelTest() {
        fs::create_directories(m_dir.file("Channels"));
        writeFile(m_dir.file("news.plugin"),
                  "[Config]\nPlugin=news.sh\n"
                  "[ChannelParameterDefinition-1]\nName=Topic\nType=string\nDefaultValue=none\n"
                  "[ChannelParameterDefinition-2]\nName=DownloadUrl\nType=string\n");
        const std::string channelFile = m_dir.file("Channels/plug.plugin");
        profile::writeIniString(channelFile, "Config", "ScriptFilename", m_dir.file("news.sh"));
        profile::writeIniString(channelFile, "ChannelParameters", "Topic", "science");
    }
    // Writes the script and the DownloadUrl parameter.
    void prepare(const std::string& scriptText, const std::string& downloadUrl = "") {
        writeFile(m_dir.file("news.sh"), scriptText);
        ::chmod(m_dir.file("news.sh").c_str(), 0755);
        profile::writeIniString(m_dir.file("Channels/plug.plugin"), "ChannelParameters",
                                "DownloadUrl", downloadUrl);
    }
    // One update of the channel by a manager of its own; the lines it raised.
    std::vector<std::string> update(const std::string& scriptText) {
        prepare(scriptText);
        ChannelManagerOptions options;
        options.scriptTimeoutSeconds = 1;
        options.logChannelProcessing = m_logProcessing;
        ChannelManager manager(m_dir.file("Channels"), options);
        manager.addListener(&m_collector);
        manager.loadChannels();
        manager.updateChannel(*manager.findChannel("plug"), true);
        manager.stop();
        manager.removeListener(&m_collector);
        return std::exchange(m_collector.lines, {});
    }
    Collector m_collector;
    TempDir m_dir;
    bool m_logProcessing = false;
};

// Prints a feed whose one item is named after the Topic parameter of the configuration file.
const char* const kFeedScript =
    "topic=$(sed -n 's/^Topic=//p' \"$1\")\n"
    "echo \"<rss><channel><item><guid>$topic</guid></item></channel></rss>\"\n";

} // namespace

TEST_F(PluginChannelTest, ScriptOutputIsTheFeedAndFailingScriptsBecomeChannelErrors) {
    {
        // With detailed logging the configuration file is logged line by line, between markers.
        m_logProcessing = true;
        testing_support::LogCapture log;
        EXPECT_EQ(update(kFeedScript), (std::vector<std::string>{"new science"}));
        const std::vector<std::string> lines = log.lines();
        const auto begin = std::find(lines.begin(), lines.end(), "--- BEGIN CONFIG FILE ---");
        ASSERT_NE(begin, lines.end());
        const auto end = std::find(begin, lines.end(), "--- END CONFIG FILE ---");
        ASSERT_NE(end, lines.end());
        EXPECT_EQ(*std::next(begin), "[System]");
        EXPECT_NE(std::find(begin, end, "Topic=science"), end);
        m_logProcessing = false;
    }
    EXPECT_EQ(update("sleep 30\n"),
              (std::vector<std::string>{"Can't update the feed. The script timed out."}));
    // A script that ends by itself with a failure gives its error page as the feed text, and
    // the parser judges that page: its unclosed <P> is the first fault.
    const std::vector<std::string> failedPage{
        "Can't update the feed. XML parse failed (7:L3/C2): mismatched tag"};
    EXPECT_EQ(update("kill -SEGV $$\n"), failedPage);
    EXPECT_EQ(update("exit 0\n"), failedPage);
    EXPECT_EQ(update("echo '<rss/>'; echo oops >&2; exit 3\n"),
              (std::vector<std::string>{
                  "Can't update the feed. XML parse failed (7:L7/C2): mismatched tag"}));
    // An error text that closes the page's paragraph leaves an HTML page: not a feed.
    EXPECT_EQ(update("echo '</PRE></P><PRE>' >&2\n"),
              (std::vector<std::string>{"Can't update the feed. Not an RSS feed."}));
}

TEST_F(PluginChannelTest, DownloadIsHandedToTheScriptA304SkipsItAndOtherStatusesFail) {
    TestHttpServer server("127.0.0.2");
    server.server().Get("/data", [](const httplib::Request& req, httplib::Response& res) {
        if (req.get_header_value("If-None-Match") == "\"d1\"") {
            res.status = 304;
            return;
        }
        res.set_header("ETag", "\"d1\"");
        res.set_content("downloaded-item", "text/plain");
    });
    ASSERT_TRUE(server.start());
    const std::string script =
        "file=$(sed -n 's/^DownloadUrlFile=//p' \"$1\")\n"
        "echo \"<rss><channel><item><guid>$(cat \"$file\")</guid></item></channel></rss>\"\n";
    const std::string url = server.url("/data");
    prepare(script, url);
    ChannelManagerOptions options;
    options.net.honourUrlPort = true;
    ChannelManager manager(m_dir.file("Channels"), options);
    manager.addListener(&m_collector);
    manager.loadChannels();
    Channel& channel = *manager.findChannel("plug");
    manager.updateChannel(channel, true);
    EXPECT_EQ(m_collector.lines, (std::vector<std::string>{"new downloaded-item"}));
    m_collector.lines.clear();
    channel.state().feed().setFeedTime(1); // no longer a first fetch: the request is conditional
    manager.updateChannel(channel, true);
    EXPECT_TRUE(m_collector.lines.empty()) << m_collector.lines.front();
    profile::writeIniString(m_dir.file("Channels/plug.plugin"), "ChannelParameters", "DownloadUrl",
                            url + "/gone");
    manager.updateChannel(channel, true);
    EXPECT_EQ(m_collector.lines, (std::vector<std::string>{"Can't update the feed. Feed update "
                                                           "error: HTTP 404 Not Found"}));
    manager.stop();
    manager.removeListener(&m_collector);
}
