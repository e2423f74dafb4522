#include "channels/channelSummaryPage.h"
#include "channels/channelManager.h"
#include "channels/exception.h"
#include "channels/rssChannel.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace channels;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;

TEST(ChannelSummaryPage, FillsTheTemplateWithEscapedFieldsAndSafeLinks) {
    TempDir user;
    std::filesystem::create_directories(user.file("Channels"));
    writeFile(user.file("DefaultChannelSummary.template"),
              "<h1>{%CHANNEL-NAME%}</h1><img src='{%BACKGROUND-IMAGE%}'>{%REPEAT%}"
              "<p>{%ITEM-NUMBER%}. <a href=\"{%ITEM-URL%}\">{%ITEM-TITLE%}</a> "
              "{%ITEM-DESCRIPTION%}</p>{%/REPEAT%}<i>{%CHANNEL-ITEM-COUNT%}</i>");
    ChannelManager manager(user.file("Channels"), {});
    RssChannel channel(&manager, "c");
    auto feed = std::make_unique<Feed>();
    feed->channel().channelDisplayName = "News & <Views>";
    FeedItem first;
    first.id = "1";
    first.title = "<script>alert(1)</script>";
    first.url = "javascript:alert(1)";
    first.description = "<p>Don't <b>miss</b> this &amp; that</p>";
    FeedItem second;
    second.id = "2";
    second.title = "Plain";
    second.url = "https://x.example/2?a=1&b=2";
    feed->appendItem(first);
    feed->appendItem(second);
    channel.state().replaceFeed(std::move(feed));
    const std::string path = writeChannelSummaryPage(channel, user.path().string());
    EXPECT_EQ(readFile(path),
              "<h1>News &amp; &lt;Views&gt;</h1><img src='file://" +
                  user.file("DefaultChannelSummary.gif") +
                  "'><p>1. <a href=\"#\">&lt;script&gt;alert(1)&lt;/script&gt;</a> "
                  "Don&#39;t miss this &amp; that</p>"
                  "<p>2. <a href=\"https://x.example/2?a=1&amp;b=2\">Plain</a> </p><i>2</i>");

    channel.config().setChannelSummaryTemplateFilename("broken.template");
    writeFile(user.file("broken.template"), "{%REPEAT%} never closed");
    EXPECT_THROW(writeChannelSummaryPage(channel, user.path().string()), Exception);
    channel.config().setChannelSummaryTemplateFilename("missing.template");
    EXPECT_THROW(writeChannelSummaryPage(channel, user.path().string()), Exception);
}
