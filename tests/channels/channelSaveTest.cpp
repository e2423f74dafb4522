// What an update and a save cost and write: a feed reported unchanged is neither read nor
// written again, yet the file ends up byte for byte as a save of the whole channel writes it;
// shut-down saves only what changed; summary pages are made only while something shows them;
// commands that only read keep nothing of the files.

#include "channels/channelManager.h"
#include "channels/rssChannel.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "tests/support/testHttpServer.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

using namespace channels;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::TestHttpServer;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

std::string rss(const std::vector<std::string>& ids) {
    std::string text = "<?xml version=\"1.0\"?><rss version=\"2.0\"><channel><title>News</title>"
                       "<link>http://example.org/</link>";
    for (const std::string& id : ids)
        text += "<item><title>Item " + id + "</title><guid>" + id + "</guid></item>";
    return text + "</channel></rss>";
}

// A feed server that answers 304 to the current ETag; the test changes the edition.
class FeedServer {
public:
    FeedServer() : m_server("127.0.0.2") {
        m_server.server().Get("/feed", [this](const httplib::Request& req, httplib::Response& res) {
            const std::string tag = "\"v" + std::to_string(m_edition.load()) + "\"";
            if (req.get_header_value("If-None-Match") == tag) {
                res.status = 304;
                return;
            }
            res.set_header("ETag", tag);
            res.set_content(rss(m_edition.load() == 1 ? std::vector<std::string>{"a", "b"}
                                                      : std::vector<std::string>{"b", "c"}),
                            "application/rss+xml");
        });
        m_server.start();
    }
    std::string url() const { return m_server.url("/feed"); }
    void nextEdition() { ++m_edition; }
    void firstEdition() { m_edition = 1; }

private:
    TestHttpServer m_server;
    std::atomic<int> m_edition{1};
};

// Two channels on one feed: "fast" takes the ordinary road, "full" has its feed in memory before
// every save, so that its save writes the whole channel again.
class SaveTest : public ::testing::Test {
protected:
    SaveTest() {
        m_channelsDir = m_dir.file("Channels");
        fs::create_directories(m_channelsDir);
        for (const char* id : {"fast", "full"})
            profile::writeIniString(file(id), "Config", "RssChannelUrl", m_server.url());
    }
    std::string file(const std::string& id) const { return m_channelsDir + "/" + id + ".rss"; }
    // A manager freshly loaded from the files, as at a start.
    ChannelManager& restart(ChannelManagerOptions options = {}) {
        m_manager.reset();
        profile::clearCache();
        options.net.honourUrlPort = true;
        options.keepLoadedFiles = options.keepLoadedFiles && m_keepLoadedFiles;
        m_manager = std::make_unique<ChannelManager>(m_channelsDir, options,
                                                     [this] { return m_now.load(); });
        m_manager->loadChannels();
        return *m_manager;
    }
    // Updates both channels and stops the manager, as pelsu-cli update does.
    void updateBoth() {
        m_now += 3600;
        Channel& full = *m_manager->findChannel("full");
        full.state().feed();
        for (const char* id : {"fast", "full"})
            m_manager->updateChannel(*m_manager->findChannel(id), true);
        m_manager->findChannel("fast")->releaseFeed();
        full.state().feed();
        m_manager->stop();
    }
    void expectSameFiles(const char* when) {
        EXPECT_EQ(readFile(file("fast")), readFile(file("full"))) << when;
    }

    TempDir m_dir;
    std::string m_channelsDir;
    FeedServer m_server;
    std::atomic<std::time_t> m_now{1'700'000'000};
    std::unique_ptr<ChannelManager> m_manager;
    bool m_keepLoadedFiles = true; // false: as a one-shot command, which keeps no file text
};

} // namespace

TEST_F(SaveTest, UnchangedFeedIsNotReadYetTheFileIsWhatAWholeSaveWrites) {
    for (const bool keep : {true, false}) {
        SCOPED_TRACE(keep ? "channels keep their files' text" : "channels keep no text");
        m_keepLoadedFiles = keep;
        fs::remove(file("fast"));
        fs::remove(file("full"));
        for (const char* id : {"fast", "full"})
            profile::writeIniString(file(id), "Config", "RssChannelUrl", m_server.url());
        m_server.firstEdition();
        restart();
        updateBoth();
        expectSameFiles("after the first fetch");
        const std::string fetched = readFile(file("fast"));

        // 304: the feed stays in the file, only the state's keys change.
        auto& m = restart();
        m_now += 3600;
        m.updateChannel(*m.findChannel("fast"), true);
        EXPECT_FALSE(m.findChannel("fast")->state().isFeedLoaded());
        restart();
        updateBoth();
        expectSameFiles("after a 304");
        const std::string unchanged = readFile(file("fast"));
        EXPECT_EQ(unchanged.substr(unchanged.find("[Last Feed]")),
                  fetched.substr(fetched.find("[Last Feed]")));
        EXPECT_NE(unchanged, fetched);

        m_server.nextEdition();
        restart();
        updateBoth();
        expectSameFiles("after a changed feed");
        EXPECT_NE(readFile(file("fast")).find("Id=c"), std::string::npos);

        restart();
        for (const char* id : {"fast", "full"})
            m_manager->findChannel(id)->settings().setAutoUpdateInterval(7200);
        updateBoth();
        expectSameFiles("after a settings change");
        EXPECT_EQ(profile::readIniInt(file("fast"), "Settings", "AutoUpdateInterval", 0), 7200);
    }
}

TEST_F(SaveTest, FileWrittenByHandWithoutAFeedGetsTheEmptyFeedsSection) {
    for (const char* id : {"fast", "full"})
        writeFile(file(id), "[Config]\nRssChannelUrl=" + m_server.url() + "/missing\n");
    restart();
    updateBoth(); // fails: nothing fetched
    expectSameFiles("after a failed update");
    EXPECT_NE(readFile(file("fast")).find("[Last Feed]\nFeedTime=0\nChannelDisplayName=\n"),
              std::string::npos);
}

TEST_F(SaveTest, FileEditedByHandBetweenLoadAndSaveEndsAsAWholeSaveLeavesIt) {
    restart();
    updateBoth();
    restart();
    // Another program rewrites both files: an item's title, and a section of its own.
    for (const char* id : {"fast", "full"}) {
        std::string text = readFile(file(id));
        text.replace(text.find("Title=Item a"), 12, "Title=Edited");
        writeFile(file(id), text + "[Notes]\nSeen=1\n");
    }
    updateBoth();
    expectSameFiles("after a hand edit");
    const std::string text = readFile(file("fast"));
    EXPECT_NE(text.find("Title=Item a"), std::string::npos) << "the items as loaded win";
    EXPECT_NE(text.find("[Notes]\nSeen=1\n"), std::string::npos);
}

TEST_F(SaveTest, StopsWriteWhatASaveWouldChangeAndRetryAFailedSave) {
    restart();
    updateBoth();
    auto& m = restart();
    const auto inode = [&](const char* id) { return profile::fileStamp(file(id)).inode; };
    const auto fastBefore = inode("fast"), fullBefore = inode("full");
    m.findChannel("full")->config().setPreferredChannelDisplayName("Mine");
    EXPECT_FALSE(m.findChannel("fast")->needsSave());
    EXPECT_TRUE(m.findChannel("full")->needsSave());
    m.stop(ChannelManager::SaveAtStop::Changed); // as a command that touched a few channels
    EXPECT_EQ(inode("fast"), fastBefore) << "an unchanged channel is not written";
    EXPECT_NE(inode("full"), fullBefore);
    EXPECT_EQ(profile::readIniString(file("full"), "Config", "PreferredChannelDisplayName"),
              "Mine");

    // A save that fails leaves the change to be saved by the next one.
    auto& again = restart();
    Channel& full = *again.findChannel("full");
    full.config().setPreferredChannelDisplayName("Later");
    fs::rename(m_channelsDir, m_dir.file("Moved"));
    EXPECT_ANY_THROW(full.save());
    fs::rename(m_dir.file("Moved"), m_channelsDir);
    EXPECT_TRUE(full.needsSave());
    again.stop();
    EXPECT_EQ(profile::readIniString(file("full"), "Config", "PreferredChannelDisplayName"),
              "Later");

    // The program's own stop also saves the channels it has not saved, so that a file made by
    // hand ends as a save writes it (a file that already is so is left as it is).
    profile::writeIniString(file("hand"), "Config", "RssChannelUrl", m_server.url());
    restart().stop();
    const std::string hand = readFile(file("hand"));
    for (const char* section : {"[Cache]", "[Config]", "[Settings]", "[State]"})
        EXPECT_NE(hand.find(section), std::string::npos) << section << " in\n" << hand;
}

TEST_F(SaveTest, SummaryPageIsMadeOnlyWhileSomethingShowsIt) {
    writeFile(m_dir.file("DefaultChannelSummary.template"),
              "{%REPEAT%}<p>{%ITEM-TITLE%}</p>{%/REPEAT%}");
    auto& m = restart();
    Channel& fast = *m.findChannel("fast");
    m.updateChannel(fast, true);
    EXPECT_FALSE(fast.hasSummaryPage()) << "nothing shows it";

    fast.addPageViewer();
    fast.addPageViewer();
    fast.removePageViewer();
    m_server.nextEdition();
    m.updateChannel(fast, true);
    ASSERT_TRUE(fast.hasSummaryPage());
    EXPECT_EQ(readFile(fast.summaryPage().path()), "<p>Item b</p><p>Item c</p>");

    fast.removePageViewer();
    fast.removePageViewer(); // one too many changes nothing
    EXPECT_FALSE(fast.isPageWanted());
    fast.addPageViewer();
    EXPECT_TRUE(fast.isPageWanted());
}

TEST_F(SaveTest, ReadingFrontEndsKeepNoCopyAndReadTheFeedOnceWhenAsked) {
    restart();
    updateBoth();
    ChannelManagerOptions options;
    options.keepLoadedFiles = false;
    auto& m = restart(options);
    const Channel& fast = *m.findChannel("fast");
    EXPECT_EQ(fast.state().itemCount(), 2u);
    EXPECT_FALSE(fast.state().isFeedLoaded());

    // The window's thread and the worker ask at once: both see the one feed, read once.
    std::vector<std::string> seen(2);
    std::vector<std::thread> readers;
    for (std::size_t i = 0; i < seen.size(); ++i)
        readers.emplace_back(
            [&, i] { fast.state().readFeed([&](const Feed& feed) { seen[i] = feed.itemId(1); }); });
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(seen, (std::vector<std::string>{"b", "b"}));
    EXPECT_EQ(&fast.state().feed(), &fast.state().feed());
    m.discardChannels();
}

TEST_F(SaveTest, FeedInMemoryThatTheLastSaveWroteIsLeftInTheFileUntilSomeoneEditsIt) {
    auto& m = restart();
    Channel& fast = *m.findChannel("fast");
    m.updateChannel(fast, true);
    m_now += 3600;
    m.updateChannel(fast, true); // 304 with the feed in memory
    ASSERT_TRUE(fast.state().isFeedLoaded());
    const std::string afterUnchanged = readFile(file("fast"));
    fast.state().readFeedFromFile(file("fast"));
    fast.state().feed();
    fast.save(); // the whole feed written again from memory
    EXPECT_EQ(readFile(file("fast")), afterUnchanged);

    // Edited by hand: the next save writes the feed in memory over the edit, as a whole save does.
    m.updateChannel(fast, true);
    std::string text = readFile(file("fast"));
    text.replace(text.find("Title=Item a"), 12, "Title=Edited");
    writeFile(file("fast"), text);
    m_now += 3600;
    m.updateChannel(fast, true);
    EXPECT_NE(readFile(file("fast")).find("Title=Item a"), std::string::npos);
    EXPECT_EQ(readFile(file("fast")).find("Title=Edited"), std::string::npos);
}
