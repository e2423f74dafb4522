// The notification queue: its order (errors first, then animating channels' news), its limit,
// the requests dropped when their turn comes, consolidation, what clicks do, and the log lines.
#include "trayClient/notificationRequest.h"

#include "lib/misc/profileFile.h"
#include "tests/support/logCapture.h"
#include "tests/support/testSupport.h"
#include "trayClient/channelDesktopSettings.h"

#include <gtest/gtest.h>

using namespace trayClient;
using testing_support::LogCapture;
using testing_support::TempDir;

namespace {

// What the user interface was asked to do, one line per call.
class RecordingActions : public NotificationActions {
public:
    void openUrl(const std::string& url) override { calls.push_back("open " + url); }
    void markItemViewed(const std::string& channelId, const std::string& itemId) override {
        calls.push_back("viewed " + channelId + " " + itemId);
    }
    void openChannelView(const std::string& channelId) override {
        calls.push_back("channel " + channelId);
    }
    void openErrorLog() override { calls.push_back("error log"); }
    std::vector<std::string> calls;
};

class QueueTest : public ::testing::Test {
protected:
    ~QueueTest() override { profile::clearCache(); }

    std::unique_ptr<NotificationRequest> item(const std::string& channel, const std::string& id) {
        return std::make_unique<NewFeedItemNotificationRequest>(
            channel, channel + " name", NewFeedItem{id, "Title " + id, "http://x/" + id, 100});
    }
    std::unique_ptr<NotificationRequest> error(const std::string& text) {
        return std::make_unique<ErrorNotificationRequest>("Channel c", text, "c");
    }
    // The text of every request processNext hands out, until the queues are empty.
    std::vector<std::string> shown() {
        std::vector<std::string> texts;
        while (auto request = m_queue.processNext())
            texts.push_back(request->text());
        return texts;
    }
    static std::string itemText(const std::string& channel, const std::string& id) {
        return "[NewFeedItemNotificationRequest:" + channel + " name:" + id + "]";
    }

    TempDir m_dir;
    LogCapture m_log;
    ChannelDesktopSettingsTable m_settings{m_dir.path().string()};
    NotificationRequestQueue m_queue{m_settings, -1};
};

} // namespace

TEST_F(QueueTest, RequestsAreShownInOrderAndEveryStepIsLogged) {
    m_queue.queue(std::make_unique<SimpleNotificationRequest>("Pelsu", "Konnichiwa has started."));
    m_queue.queue(item("a", "1"));
    m_queue.queue(error("boom"));
    EXPECT_EQ(m_queue.size(), 3u);
    EXPECT_EQ(shown(), (std::vector<std::string>{
                           "[ErrorNotificationRequest:Channel c:boom]",
                           "[SimpleNotificationRequest:Pelsu:Konnichiwa has started.]",
                           itemText("a", "1"),
                       }));
    EXPECT_EQ(m_log.linesStartingWith({"Queuing", "Processing"}),
              (std::vector<std::string>{
                  "Queuing notification request: [SimpleNotificationRequest:Pelsu:Konnichiwa "
                  "has started.]",
                  "Queuing notification request: " + itemText("a", "1"),
                  "Queuing error notification request: [ErrorNotificationRequest:Channel c:boom]",
                  "Processing error notification request: [ErrorNotificationRequest:Channel "
                  "c:boom]",
                  "Processing notification request: [SimpleNotificationRequest:Pelsu:Konnichiwa "
                  "has started.]",
                  "Processing notification request: " + itemText("a", "1"),
              }));
    EXPECT_EQ(m_queue.processNext(), nullptr);
}

TEST_F(QueueTest, AtTheLimitANewRequestIsDiscardedUnlessItsChannelAnimates) {
    m_queue.setMaxLength(2);
    m_queue.queue(item("a", "1"));
    m_queue.queue(item("a", "2"));
    m_queue.queue(item("a", "3"));
    m_queue.queue(error("errors have no limit"));
    EXPECT_EQ(m_queue.size(), 3u);
    EXPECT_EQ(
        m_log.linesStartingWith({"- The queue is full"}),
        std::vector<std::string>{"- The queue is full - discarding the request: maxLength=2"});
    EXPECT_EQ(shown(), (std::vector<std::string>{"[ErrorNotificationRequest:Channel c:errors have "
                                                 "no limit]",
                                                 itemText("a", "1"), itemText("a", "2")}));
    // An animating channel's request jumps a full queue.
    m_settings.change("loud", [](ChannelDesktopSettings& s) { s.animateOnNewItem = true; });
    for (const char* id : {"1", "2"})
        m_queue.queue(item("a", id));
    m_queue.queue(item("loud", "x"));
    m_queue.queue(item("loud", "y"));
    EXPECT_EQ(shown(), (std::vector<std::string>{itemText("loud", "y"), itemText("loud", "x"),
                                                 itemText("a", "1"), itemText("a", "2")}));
    // -1 and 0 mean no limit.
    for (int unlimited : {-1, 0}) {
        m_queue.setMaxLength(unlimited);
        for (int n = 0; n < 5; ++n)
            m_queue.queue(item("a", std::to_string(n)));
        EXPECT_EQ(shown().size(), 5u);
    }
}

// An item viewed meanwhile, and the news of a channel whose notifications were turned off,
// are dropped when their turn comes; the channel's errors are still shown.
TEST_F(QueueTest, RequestsNoLongerWantedAreDroppedWhenTheirTurnComes) {
    m_queue.queue(item("a", "1"));
    m_queue.queue(item("a", "2"));
    m_queue.queue(item("c", "1"));
    m_queue.queue(error("still shown"));
    m_settings.loadAll({{"a", "A"}});
    m_settings.markViewed("a", "1");
    m_settings.change("c", [](ChannelDesktopSettings& s) { s.notifyOnNewItem = false; });
    EXPECT_EQ(shown(), (std::vector<std::string>{"[ErrorNotificationRequest:Channel c:still shown]",
                                                 itemText("a", "2")}));
    EXPECT_EQ(
        m_log.linesStartingWith({"Feed item has already been viewed", "Notification balloons"}),
        (std::vector<std::string>{
            "Feed item has already been viewed - abandoning processing: feedItemId=1",
            "Notification balloons have been disabled - abandoning processing."}));
}

TEST_F(QueueTest, AConsolidatingChannelsItemsMergeWhileOtherChannelsStayApart) {
    m_settings.change("c", [](ChannelDesktopSettings& s) { s.consolidateMultipleItems = true; });
    m_queue.setMaxLength(2);
    m_queue.queue(item("c", "1"));
    m_queue.queue(item("o", "1"));
    m_queue.queue(item("c", "2")); // the queue is full, but a merge adds no request
    m_queue.queue(item("c", "3"));
    m_queue.queue(item("o", "2")); // other channels don't merge
    EXPECT_EQ(m_queue.size(), 2u);

    auto first = m_queue.processNext();
    ASSERT_NE(first, nullptr);
    ASSERT_EQ(first->kind(), NotificationRequest::Kind::ConsolidatedNewFeedItems);
    const auto& consolidated = static_cast<ConsolidatedNewFeedItemsNotificationRequest&>(*first);
    EXPECT_EQ(consolidated.items().size(), 3u);
    EXPECT_EQ(first->title(), "c name: 3 new items");
    EXPECT_EQ(first->body(), "Title 1\nTitle 2\nTitle 3");
    EXPECT_EQ(first->channelId(), "c");
    EXPECT_EQ(shown(), std::vector<std::string>{itemText("o", "1")});

    // Viewed items leave a consolidated request, and one left is shown alone.
    for (const char* id : {"4", "5", "6"})
        m_queue.queue(item("c", id));
    m_settings.markViewed("c", "4");
    m_settings.markViewed("c", "6");
    EXPECT_EQ(shown(), std::vector<std::string>{itemText("c", "5")});
    for (const char* id : {"7", "8"})
        m_queue.queue(item("c", id));
    m_settings.markViewed("c", "7");
    m_settings.markViewed("c", "8");
    EXPECT_TRUE(shown().empty());
}

TEST_F(QueueTest, ClicksDoWhatTheySayAndAreLogged) {
    RecordingActions actions;
    NewFeedItemNotificationRequest single("c", "News", {"id1", "Hello", "http://x/1", 5});
    NewFeedItemNotificationRequest noLink("c", "News", {"id2", "No link", "", 5});
    ConsolidatedNewFeedItemsNotificationRequest batch("c", "News", {{"a", "A", "", 0}});
    ErrorNotificationRequest failure("Plugin P", "it broke");
    SimpleNotificationRequest welcome("Pelsu", "Hi");
    single.click(actions);
    noLink.click(actions);
    batch.click(actions);
    failure.click(actions);
    welcome.click(actions);
    EXPECT_EQ(actions.calls, (std::vector<std::string>{"open http://x/1", "viewed c id1",
                                                       "viewed c id2", "channel c", "error log"}));
    EXPECT_EQ(m_log.linesStartingWith({"User clicked"}),
              (std::vector<std::string>{
                  "User clicked on a new feed item notification: "
                  "[NewFeedItemNotificationRequest:News:id1]",
                  "User clicked on a new feed item notification: "
                  "[NewFeedItemNotificationRequest:News:id2]",
                  "User clicked on a consolidated new feed items request: "
                  "[ConsolidatedNewFeedItemsNotificationRequest:News:1 items]",
                  "User clicked on an error notification: [ErrorNotificationRequest:Plugin P:it "
                  "broke]",
                  "User clicked on a notification: [SimpleNotificationRequest:Pelsu:Hi]",
              }));
    EXPECT_EQ(failure.title(), "Plugin P error");
    EXPECT_EQ(failure.channelId(), "");
    EXPECT_EQ(single.title(), "News");
    EXPECT_EQ(single.body(), "Hello");
}
