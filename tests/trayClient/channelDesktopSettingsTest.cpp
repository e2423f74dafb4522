// A channel's desktop settings on disk: every key, the numbered viewed list and its log lines,
// the table that marks and saves them, a corrupt file kept aside, and channel names.
#include "trayClient/channelDesktopSettings.h"

#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "tests/support/logCapture.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace trayClient;
using testing_support::LogCapture;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

const char* const kViewed = "ViewedFeedItems";

class DesktopSettingsTest : public ::testing::Test {
protected:
    ~DesktopSettingsTest() override { profile::clearCache(); }
    std::string file(const std::string& text) {
        const std::string path = m_dir.file("settings.ini");
        writeFile(path, text);
        profile::clearCache();
        return path;
    }
    TempDir m_dir;
    LogCapture m_log;
};

} // namespace

TEST_F(DesktopSettingsTest, EveryKeyRoundTripsAndAnyNonZeroFlagIsTrue) {
    ChannelDesktopSettings defaults;
    defaults.viewedItems = {"x"};
    ASSERT_TRUE(defaults.load(m_dir.file("none.ini"), "News"));
    EXPECT_EQ(defaults, ChannelDesktopSettings{});

    const std::string path = file("[Desktop Settings]\nConsolidateMultipleItems=7\n"
                                  "NotifyOnNewItem=0\nNewItemSoundFile=/tmp/a%25b.wav\n"
                                  "LastViewTime=1700000000\nLastNewItemTime=-5\n");
    ChannelDesktopSettings settings;
    ASSERT_TRUE(settings.load(path, "News"));
    EXPECT_TRUE(settings.consolidateMultipleItems);
    EXPECT_FALSE(settings.notifyOnNewItem);
    EXPECT_EQ(settings.newItemSoundFile, "/tmp/a%b.wav");
    EXPECT_EQ(settings.lastViewTime, 1700000000);
    EXPECT_EQ(settings.lastNewItemTime, -5);

    settings.animateOnNewItem = true;
    settings.useQuickAccessMenu = true;
    settings.useQuickAccessSubMenus = false;
    settings.playSoundOnNewItem = false;
    settings.viewedItems = {"http://example.org/a?x=1", "b"};
    const std::string copy = m_dir.file("copy/settings.ini");
    ASSERT_TRUE(settings.save(copy, "News"));
    profile::clearCache();
    ChannelDesktopSettings reloaded;
    ASSERT_TRUE(reloaded.load(copy, "News"));
    EXPECT_EQ(reloaded, settings);
}

TEST_F(DesktopSettingsTest, AGapOrAnEmptyValueEndsTheViewedList) {
    const std::pair<const char*, std::set<std::string>> cases[] = {
        {"ViewedFeedItemId-1=a\nViewedFeedItemId-3=c\n", {"a"}},
        {"ViewedFeedItemId-1=a\nViewedFeedItemId-2=b\nViewedFeedItemId-4=d\n", {"a", "b"}},
        {"ViewedFeedItemId-1=\nViewedFeedItemId-2=b\nViewedFeedItemId-3=c\n", {}},
        {"ViewedFeedItemId-01=a\n", {}}, // leading zeros are not the plain number
    };
    for (const auto& [keys, expected] : cases) {
        SCOPED_TRACE(keys);
        ChannelDesktopSettings settings;
        ASSERT_TRUE(settings.load(file(std::string("[ViewedFeedItems]\n") + keys), "News"));
        EXPECT_EQ(settings.viewedItems, expected);
    }
}

TEST_F(DesktopSettingsTest, SaveNumbersWithoutGapsRemovesKeysOfALongerListAndLogsBoth) {
    const std::string path = file("[ViewedFeedItems]\nViewedFeedItemId-1=a\n"
                                  "ViewedFeedItemId-2=b\nViewedFeedItemId-3=c\n"
                                  "ViewedFeedItemId-4=d\nViewedFeedItemId-6=stale\n");
    ChannelDesktopSettings settings;
    ASSERT_TRUE(settings.load(path, "News"));
    ASSERT_EQ(settings.viewedItems.size(), 4u);
    settings.viewedItems = {"x"};
    ASSERT_TRUE(settings.save(path, ""));
    EXPECT_EQ(profile::listIniKeys(path, kViewed), std::vector<std::string>{"ViewedFeedItemId-1"});
    EXPECT_EQ(profile::readIniString(path, kViewed, "ViewedFeedItemId-1"), "x");
    EXPECT_EQ(m_log.lines(), (std::vector<std::string>{
                                 "Loading viewed feed item list for News",
                                 "- # viewed feed items: 4",
                                 "Saving viewed feed item list for <Unspecified channel>",
                                 "- # viewed feed items: 1",
                             }));
}

TEST_F(DesktopSettingsTest, TableMarksOnceLogsEachOperationAndSavesTheIdsStillInTheFeed) {
    ChannelDesktopSettingsTable table(m_dir.path().string());
    table.loadAll({{"news", "News"}, {"blank", ""}});
    m_log.clear();
    EXPECT_TRUE(table.markViewed("news", "a"));
    EXPECT_FALSE(table.markViewed("news", "a"));
    EXPECT_TRUE(table.hasViewed("news", "a"));
    EXPECT_FALSE(table.hasViewed("blank", "a"));
    table.clearViewed("news");
    EXPECT_FALSE(table.hasViewed("news", "a"));
    EXPECT_EQ(m_log.lines(), (std::vector<std::string>{
                                 "Marking feed item as viewed: a",
                                 "Marking feed item as viewed: a",
                                 "Checking if feed item has been viewed for News",
                                 "Checking if feed item has been viewed for <Unspecified channel>",
                                 "Clearing viewed feed item list for News",
                                 "Checking if feed item has been viewed for News",
                             }));

    // Saving drops the viewed ids that left the feed; without the feed's ids nothing is dropped.
    for (const char* id : {"a", "b", "c"})
        table.markViewed("news", id);
    ASSERT_TRUE(table.save("news", std::vector<std::string>{"b", "c", "d"}));
    EXPECT_EQ(table.get("news").viewedItems, (std::set<std::string>{"b", "c"}));
    profile::clearCache();
    ChannelDesktopSettings stored;
    ASSERT_TRUE(stored.load(table.fileFor("news"), "News"));
    EXPECT_EQ(stored.viewedItems, (std::set<std::string>{"b", "c"}));
    EXPECT_EQ(table.fileFor("news"), (m_dir.path() / "DesktopSettings" / "news.ini").string());
    table.markViewed("news", "z");
    ASSERT_TRUE(table.save("news"));
    EXPECT_EQ(table.get("news").viewedItems, (std::set<std::string>{"b", "c", "z"}));
}

// A click on a removed channel's notification, or an update ending during the shut-down,
// must not write a record of defaults over a file.
TEST_F(DesktopSettingsTest, ChannelsWithoutARecordWriteNothing) {
    ChannelDesktopSettingsTable table(m_dir.path().string());
    table.loadAll({{"news", "News"}});
    table.forget("news");
    EXPECT_FALSE(table.markViewed("news", "a"));
    EXPECT_TRUE(table.save("news"));
    EXPECT_FALSE(std::filesystem::exists(table.fileFor("news")));

    table.loadAll({{"news", "News"}});
    table.cleanUp();
    table.setChannelName("news", "News");
    table.change("news", [](ChannelDesktopSettings& s) { s.lastNewItemTime = 5; });
    EXPECT_TRUE(table.save("news"));
    EXPECT_FALSE(table.contains("news"));
    EXPECT_FALSE(std::filesystem::exists(table.fileFor("news")));
}

TEST_F(DesktopSettingsTest, CorruptFileLoadsAsDefaultsIsKeptAsideAndOthersAreUntouched) {
    ChannelDesktopSettingsTable table(m_dir.path().string());
    fs::create_directories(table.directory());
    ChannelDesktopSettings good;
    good.animateOnNewItem = true;
    good.viewedItems = {"g1", "g2"};
    ASSERT_TRUE(good.save(table.fileFor("good"), "Good"));
    const std::string garbage =
        std::string("[Desktop Settings]\nNotifyOnNewItem=0") + std::string("\0\1\2", 3);
    writeFile(table.fileFor("bad"), garbage);
    profile::clearCache();

    const auto failures = table.loadAll({{"bad", "Bad"}, {"good", "Good"}});
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].channel.name, "Bad");
    EXPECT_FALSE(failures[0].reason.empty());
    EXPECT_EQ(failures[0].keptAs, table.fileFor("bad") + ".corrupt");
    EXPECT_EQ(readFile(failures[0].keptAs), garbage);
    EXPECT_EQ(table.get("bad"), ChannelDesktopSettings{});
    EXPECT_EQ(table.get("good"), good);

    table.markViewed("bad", "b1");
    ASSERT_TRUE(table.save("bad"));
    ASSERT_TRUE(table.save("good"));
    profile::clearCache();
    ChannelDesktopSettingsTable again(m_dir.path().string());
    EXPECT_TRUE(again.loadAll({{"bad", "Bad"}, {"good", "Good"}}).empty());
    EXPECT_EQ(again.get("good"), good);
    EXPECT_EQ(again.get("bad").viewedItems, (std::set<std::string>{"b1"}));
    EXPECT_EQ(readFile(failures[0].keptAs), garbage);
}

TEST_F(DesktopSettingsTest, ChannelsOfADirectoryAreNamedByTheirConfiguration) {
    const std::string dir = m_dir.file("Channels");
    fs::create_directories(dir);
    profile::writeIniString(dir + "/b.rss", "Config", "PreferredChannelDisplayName", "Bee");
    profile::writeIniString(dir + "/a.plugin", "Last Feed", "ChannelDisplayName", "Ay");
    profile::writeIniString(dir + "/c.rss", "Config", "RssChannelUrl", "http://c/");
    writeFile(dir + "/notes.txt", "not a channel");
    const auto channels = channelsInDirectory(dir);
    ASSERT_EQ(channels.size(), 3u);
    EXPECT_EQ(channels[0].id + "=" + channels[0].name, "a=Ay");
    EXPECT_EQ(channels[1].id + "=" + channels[1].name, "b=Bee");
    EXPECT_EQ(channels[2].id + "=" + channels[2].name, "c=") << "no name: the log says so";
}
