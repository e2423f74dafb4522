// Channel files under stress: items kept when the file changes under a running manager, the
// exact bytes a save writes, and saves that stay linear in the item count.

#include "channels/channelManager.h"
#include "channels/feed.h"
#include "lib/misc/profileFile.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

using namespace channels;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

// A channel file with two stored items and auto-update off, so that nothing fetches.
std::string storedChannel(const std::string& url) {
    return "[Config]\nRssChannelUrl=" + url +
           "\n[Settings]\nIsAutoUpdateEnabled=0\n[State]\nLastFetchTime=1700000000\n"
           "[Last Feed]\nFeedTime=1700000000\nChannelDisplayName=Stored\n"
           "[Last Feed (1)]\nId=first\nTitle=First\n[Last Feed (2)]\nId=second\nTitle=Second\n";
}

std::vector<std::string> storedIds(const std::string& file) {
    profile::clearCache();
    Feed feed;
    feed.load(file, "Last Feed");
    std::vector<std::string> ids;
    for (const FeedItem& item : feed.items())
        ids.push_back(item.id);
    return ids;
}

} // namespace

TEST(ChannelFile, ItemsSurviveTheFileBeingReplacedOrRemovedUnderARunningManager) {
    TempDir dir;
    const std::string channels = dir.file("Channels");
    fs::create_directories(channels);
    writeFile(channels + "/replaced.rss", storedChannel("http://a.example/"));
    writeFile(channels + "/removed.rss", storedChannel("http://b.example/"));
    writeFile(channels + "/kept.rss", storedChannel("http://c.example/"));
    ChannelManager manager(channels, {}, [] { return std::time_t{1700000100}; });
    manager.loadChannels();
    manager.start("test");
    ASSERT_EQ(manager.channels().size(), 3u);

    // Another program swaps in a file of its own (write beside, then rename) and deletes one.
    writeFile(dir.file("other.rss"), "[Config]\nRssChannelUrl=http://other.example/\n"
                                     "[Last Feed (1)]\nId=foreign\n");
    fs::rename(dir.file("other.rss"), channels + "/replaced.rss");
    fs::remove(channels + "/removed.rss");
    const ChannelState& removed = manager.findChannel("removed")->state();
    EXPECT_EQ(removed.itemCount(), 2u) << "counted in the copy taken at load";
    EXPECT_FALSE(removed.isFeedLoaded());
    manager.stop();

    const std::vector<std::string> expected{"first", "second"};
    EXPECT_EQ(storedIds(channels + "/replaced.rss"), expected);
    EXPECT_EQ(storedIds(channels + "/removed.rss"), expected);
    EXPECT_EQ(storedIds(channels + "/kept.rss"), expected);
    EXPECT_EQ(profile::readValue(channels + "/replaced.rss", "Config", "RssChannelUrl"),
              "http://a.example/");
}

TEST(ChannelFile, SavedFeedHasTheseExactBytesAndParseOutputMatchesThem) {
    Feed feed;
    feed.setFeedTime(1700000000);
    feed.channel().channelDisplayName = "News 100%";
    feed.channel().channelImageWidth = 88;
    FeedItem item;
    item.id = "a";
    item.title = "Caf\xE9\r\nnext";
    feed.appendItem(item);
    item.id = "b";
    item.title = " padded ";
    feed.appendItem(item);
    const std::string expected =
        "[Last Feed]\nFeedTime=1700000000\nChannelDisplayName=News 100%25\n"
        "ChannelDescription=\nChannelHomeUrl=\nChannelImageUrl=\nChannelImageWidth=88\n"
        "ChannelImageHeight=0\nCopyrightString=\nEditorEmailAddress=\nWebMasterEmailAddress=\n"
        "PubDateString=\nLastBuildDateString=\nFeedGenerator=\n"
        "[Last Feed (1)]\nId=a\nTitle=Caf%E9%0D%0Anext\nDescription=\nUrl=\nSource=\nAuthor=\n"
        "CommentsUrl=\nPubDateString=\n"
        "[Last Feed (2)]\nId=b\nTitle= padded \nDescription=\nUrl=\nSource=\nAuthor=\n"
        "CommentsUrl=\nPubDateString=\n";
    TempDir dir;
    const std::string file = dir.file("c.rss");
    feed.save(file, "Last Feed");
    EXPECT_EQ(readFile(file), expected);
    std::ostringstream direct;
    feed.writeAsNewFile(direct, "Last Feed");
    EXPECT_EQ(direct.str(), expected);

    // A second save of a shorter feed drops the old item sections and appends the new ones
    // after the sections written in between.
    profile::writeValue(file, "ChannelParameters", "Colour", "red");
    Feed shorter;
    item.id = "c";
    item.title = "C";
    shorter.appendItem(item);
    shorter.save(file, "Last Feed");
    const std::string text = readFile(file);
    EXPECT_NE(text.find("[ChannelParameters]\nColour=red\n[Last Feed (1)]\nId=c\n"),
              std::string::npos);
    EXPECT_EQ(text.find("[Last Feed (2)]"), std::string::npos);
}
