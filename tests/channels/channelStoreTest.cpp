#include "channels/channelSettings.h"
#include "channels/channelState.h"
#include "channels/rssChannelConfig.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

using namespace channels;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;

namespace {

Feed sampleFeed(int items) {
    Feed feed;
    feed.setFeedTime(1700000000);
    feed.channel().channelDisplayName = "  padded  ";
    feed.channel().channelDescription = "line one\r\nline two, 100% sure";
    feed.channel().channelImageWidth = 88;
    for (int i = 1; i <= items; ++i) {
        FeedItem item;
        item.id = "id-" + std::to_string(i);
        item.title = "Caf\xE9 " + std::to_string(i);
        item.url = "http://x/" + std::to_string(i);
        feed.appendItem(item);
    }
    return feed;
}

} // namespace

TEST(FeedStore, RoundTripsAndAShorterFeedDeletesTheOldItemSectionsAndGapsEndTheList) {
    TempDir dir;
    const std::string file = dir.file("c.rss");
    const Feed feed = sampleFeed(3);
    feed.save(file, "Last Feed");
    profile::clearCache();
    Feed loaded;
    loaded.load(file, "Last Feed");
    Feed expected = feed;
    expected.channel().channelDisplayName = "padded"; // values are trimmed on reading
    EXPECT_EQ(loaded, expected);
    sampleFeed(1).save(file, "Last Feed");
    EXPECT_FALSE(profile::hasSection(file, "Last Feed (2)"));
    EXPECT_FALSE(profile::hasSection(file, "Last Feed (3)"));
    loaded.load(file, "Last Feed");
    EXPECT_EQ(loaded.itemCount(), 1u);

    // An id that reads empty once unescaped and trimmed ends the list as a gap does; the count
    // taken without loading the items agrees.
    writeFile(file, "[Last Feed]\nFeedTime=5\nChannelImageWidth=600\n"
                    "[Last Feed (1)]\nId=a\n[last feed (2)]\n ID = %41 \n"
                    "[Last Feed (3)]\nId=%20%09\n[Last Feed (4)]\nId=d\n"
                    "[Other (1)]\nTitle=no id\nId=\nId=x\n");
    loaded.load(file, "Last Feed");
    EXPECT_EQ(loaded.itemCount(), 2u);
    EXPECT_EQ(loaded.item(1).id, "A");
    EXPECT_EQ(Feed::storedItemCount(file, "Last Feed"), 2u);
    EXPECT_EQ(loaded.channel().channelImageWidth, 0);
    Feed other;
    other.load(file, "Other");
    EXPECT_EQ(other.itemCount(), 0u) << "an item without an id is never loaded";
    EXPECT_EQ(Feed::storedItemCount(file, "Other"), 0u);
    EXPECT_EQ(other.feedTime(), 0);
}

// The manager's defaults replace the built-in ones while it gives them.
TEST(ChannelStore, SettingsDefaultsRangesAndTheMinimumInterval) {
    struct Defaults : DefaultChannelSettingsProvider {
        bool defaultChannelSettings(bool& autoUpdate, std::int32_t& interval, bool& allowEmpty,
                                    int& maxItems) const override {
            autoUpdate = false;
            interval = 3600;
            allowEmpty = true;
            maxItems = 10;
            return true;
        }
    } defaults;
    TempDir dir;
    const std::string file = dir.file("s.rss");
    ChannelSettings settings;
    ChannelSettings::setDefaultsProvider(&defaults);
    settings.load(file);
    ChannelSettings::setDefaultsProvider(nullptr);
    EXPECT_FALSE(settings.isAutoUpdateEnabled());
    EXPECT_EQ(settings.autoUpdateInterval(), 3600);
    EXPECT_TRUE(settings.allowEmptyFeeds());
    EXPECT_EQ(settings.maxFeedItems(), 10);
    settings.load(file);
    EXPECT_TRUE(settings.isAutoUpdateEnabled());
    EXPECT_EQ(settings.autoUpdateInterval(), 86400);
    EXPECT_FALSE(settings.allowEmptyFeeds());
    EXPECT_EQ(settings.maxFeedItems(), -1);

    writeFile(file, "[Settings]\nMaxFeedItems=101\nAutoUpdateInterval=30\n");
    settings.load(file);
    EXPECT_EQ(settings.maxFeedItems(), -1);
    writeFile(file, "[Settings]\nMaxFeedItems=0\nAutoUpdateInterval=30\n");
    settings.load(file);
    EXPECT_EQ(settings.maxFeedItems(), 0);
    settings.setMinimumInterval(600);
    EXPECT_EQ(settings.autoUpdateInterval(), 600);
    settings.save(file);
    EXPECT_EQ(profile::readIniInt(file, "Settings", "AutoUpdateInterval", 0), 600);
    const std::string fresh = dir.file("fresh.rss");
    settings.save(fresh);
    EXPECT_NE(readFile(fresh).find("IsAutoUpdateEnabled=1\nAutoUpdateInterval=600\n"
                                   "AllowEmptyFeeds=0\nMaxFeedItems=0\n"),
              std::string::npos)
        << readFile(fresh);
}

TEST(ChannelStore, ConfigKeepsTheCacheCopyAndBoundsTheImageSize) {
    TempDir dir;
    const std::string file = dir.file("c.rss");
    writeFile(file, "[Config]\nRssChannelUrl=http://127.0.0.1:2605/CodeProject/TheLounge\n"
                    "PreferredImageWidth=501\nPreferredImageHeight=-2\n"
                    "PreferredChannelDisplayName=%41 title\n"
                    "[Cache]\nChannelDisplayName=Cached\n");
    RssChannelConfig config;
    config.load(file);
    EXPECT_EQ(config.preferredImageWidth(), -1);
    EXPECT_EQ(config.preferredImageHeight(), -1);
    EXPECT_EQ(config.preferredChannelDisplayName(), "A title");
    EXPECT_EQ(config.cache().channelDisplayName, "Cached");
    EXPECT_TRUE(config.isCodeProjectFeed());
    config.save(file);
    RssChannelConfig again;
    again.load(file);
    EXPECT_EQ(again.rssChannelUrl(), config.rssChannelUrl());
    EXPECT_EQ(again.cache(), config.cache());
}
