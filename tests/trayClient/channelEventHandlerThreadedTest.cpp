// The client's channel-event listener on a real channel manager updating local feed files.
#include "trayClient/channelEventHandler.h"

#include "channels/channelManager.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "tests/support/logCapture.h"
#include "tests/support/testSupport.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/notificationRequest.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <mutex>

using namespace trayClient;
using testing_support::LogCapture;
using testing_support::TempDir;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

std::string rss(const std::vector<std::string>& ids) {
    std::string text = "<?xml version=\"1.0\"?><rss version=\"2.0\"><channel><title>Feed</title>"
                       "<link>http://example.org/</link>";
    for (const std::string& id : ids)
        text += "<item><title>Item &lt;b&gt;" + id + "&lt;/b&gt;</title><link>http://example.org/" +
                id + "</link><guid>" + id + "</guid></item>";
    return text + "</channel></rss>";
}

// The main window as the listener sees it: records every hand-off as a line. When told to,
// endChannelUpdate waits until the test, playing the UI thread, handles it or releases it.
class RecordingWindow : public ClientWindow {
public:
    bool present() const override { return m_present.load(); }
    void postActivityLine(ActivityRecord record) override { add("activity", record); }
    void postErrorLine(ActivityRecord record) override { add("error", record); }
    void endChannelUpdate(const std::string& channelId) override {
        std::unique_lock lock(m_mutex);
        m_calls.push_back("end " + channelId);
        ++m_endsWaiting;
        ++m_endsEntered;
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return !m_holdEnds || m_released || m_endsHandled > 0; });
        if (m_endsHandled > 0)
            --m_endsHandled;
        --m_endsWaiting;
    }

    void setPresent(bool present) { m_present = present; }
    void holdEnds() {
        std::lock_guard guard(m_mutex);
        m_holdEnds = true;
    }
    // Waits until the worker is inside its count-th endChannelUpdate; false after ten seconds.
    bool waitForEnd(int count) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(10),
                                  [&] { return m_endsEntered >= count && m_endsWaiting > 0; });
    }
    // The UI thread has handled one end of update.
    void handleEnd() {
        std::lock_guard guard(m_mutex);
        ++m_endsHandled;
        m_changed.notify_all();
    }
    // Shut-down: no worker waits any more.
    void releaseAll() {
        std::lock_guard guard(m_mutex);
        m_released = true;
        m_changed.notify_all();
    }
    std::vector<std::string> take() {
        std::lock_guard guard(m_mutex);
        return std::exchange(m_calls, {});
    }
    std::vector<ActivityRecord> records() {
        std::lock_guard guard(m_mutex);
        return m_records;
    }

private:
    void add(const char* pane, const ActivityRecord& record) {
        static const char* const kinds[] = {"progress", "success", "failure"};
        std::lock_guard guard(m_mutex);
        m_calls.push_back(std::string(pane) + " " + kinds[static_cast<int>(record.kind)] + " " +
                          record.text);
        m_records.push_back(record);
    }
    std::atomic<bool> m_present{true};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_calls;
    std::vector<ActivityRecord> m_records;
    bool m_holdEnds = false;
    bool m_released = false;
    int m_endsWaiting = 0;
    int m_endsEntered = 0;
    int m_endsHandled = 0;
};

class EventHandlerTest : public ::testing::Test {
protected:
    EventHandlerTest() {
        // Only the client's own groups write, so the log holds exactly the listener's lines.
        for (const std::string& name : msglog::msgGroupNames())
            if (name != "ChannelEvents" && name != "NotificationRequestQueue" &&
                name != "ViewedFeedItems")
                msglog::setMsgGroupEnabled(name, false);
        fs::create_directories(m_channelsDir);
        m_feed = m_dir.file("feed.xml");
        writeFile(m_feed, rss({"a", "b"}));
        const std::string file = m_channelsDir + "/news.rss";
        profile::writeIniString(file, "Config", "RssChannelUrl", m_feed);
        profile::writeIniString(file, "Config", "PreferredChannelDisplayName", "News");
        profile::writeIniInt(file, "Settings", "AutoUpdateInterval", 3600);
        m_settings.loadAll(channelsInDirectory(m_channelsDir));
        m_manager.addListener(&m_handler);
        m_manager.loadChannels();
        m_log.clear();
    }
    ~EventHandlerTest() override {
        m_handler.stopDelivering();
        m_window.releaseAll();
        m_manager.removeListener(&m_handler);
        m_manager.stop();
        for (const std::string& name : msglog::msgGroupNames())
            msglog::setMsgGroupEnabled(name, true);
        profile::clearCache();
    }
    // One update pass an hour after the last one.
    void update() {
        m_now += 3600;
        m_manager.runUpdatePass();
    }
    std::vector<std::string> queued() {
        std::vector<std::string> texts;
        while (auto request = m_queue.processNext())
            texts.push_back(request->text());
        return texts;
    }

    TempDir m_dir;
    std::string m_channelsDir = m_dir.file("Channels");
    std::string m_feed;
    std::atomic<std::time_t> m_now{1'700'000'000};
    LogCapture m_log;
    RecordingWindow m_window;
    ChannelDesktopSettingsTable m_settings{m_dir.path().string()};
    NotificationRequestQueue m_queue{m_settings, -1};
    ChannelEventHandler m_handler{m_window, m_queue, m_settings, 3,
                                  [this] { return m_now.load(); }};
    channels::ChannelManager m_manager{m_channelsDir, {}, [this] { return m_now.load(); }};
};

} // namespace

TEST_F(EventHandlerTest, AnUpdateLogsNewAndExpiredItemsHandsOverItsLinesAndQueuesRequests) {
    update();
    EXPECT_EQ(m_window.take(), (std::vector<std::string>{
                                   "activity progress Getting the latest feed from News",
                                   "activity success Updated channel News OK.",
                                   "end news",
                               }));
    for (const ActivityRecord& record : m_window.records())
        EXPECT_EQ(record.time, m_now.load());
    EXPECT_EQ(m_log.linesStartingWith({"Channel event", "New feed item", "- ID", "- URL"}),
              (std::vector<std::string>{
                  "Channel event received: [BeginChannelUpdateEvent:News]",
                  "Channel event received: [NewFeedItemEvent:News:0]",
                  "New feed item from News",
                  "- ID: a",
                  "- URL: http://example.org/a",
                  "Channel event received: [NewFeedItemEvent:News:1]",
                  "New feed item from News",
                  "- ID: b",
                  "- URL: http://example.org/b",
                  "Channel event received: [EndChannelUpdateEvent:News]",
              }));
    auto first = m_queue.processNext();
    ASSERT_NE(first, nullptr);
    ASSERT_EQ(first->kind(), NotificationRequest::Kind::NewFeedItem);
    const auto& request = static_cast<NewFeedItemNotificationRequest&>(*first);
    EXPECT_EQ(request.channelId(), "news");
    EXPECT_EQ(request.item(), (NewFeedItem{"a", "Item a", "http://example.org/a", m_now.load()}));
    EXPECT_EQ(queued(), std::vector<std::string>{"[NewFeedItemNotificationRequest:News:b]"});

    // LastNewItemTime is set and saved before the window handles the end of the update.
    profile::clearCache();
    EXPECT_EQ(
        profile::readIniInt(m_settings.fileFor("news"), "Desktop Settings", "LastNewItemTime", 0),
        m_now.load());

    // Expired items are logged and their viewed ids dropped.
    m_settings.markViewed("news", "a");
    m_settings.markViewed("news", "b");
    writeFile(m_feed, rss({"b", "c"}));
    m_log.clear();
    update();
    EXPECT_EQ(m_log.linesStartingWith({"Expired", "- ID", "- URL"}),
              (std::vector<std::string>{"Expired feed item for News", "- ID: a",
                                        "- URL: http://example.org/a", "- ID: c",
                                        "- URL: http://example.org/c"}));
    profile::clearCache();
    ChannelDesktopSettings stored;
    ASSERT_TRUE(stored.load(m_settings.fileFor("news"), "News"));
    EXPECT_EQ(stored.viewedItems, std::set<std::string>{"b"});
}

TEST_F(EventHandlerTest, ChannelAndPluginErrorsGoToBothPanesAndAnEmptyOneEndsInErrorDot) {
    update();
    m_window.take();
    fs::remove(m_feed);
    update();
    const auto calls = m_window.take();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0], "activity progress Getting the latest feed from News");
    EXPECT_EQ(calls[1].rfind("activity failure Channel News error: Can't update the feed. ", 0), 0u)
        << calls[1];
    EXPECT_EQ(calls[2], "error" + calls[1].substr(8));
    EXPECT_EQ(calls[3], "end news");

    channels::ChannelErrorEvent bare(m_now, m_manager.findChannel("news"), "", "");
    m_manager.raise(bare);
    channels::ChannelErrorEvent noChannel(m_now, nullptr, "Can't read the directory.", "");
    m_manager.raise(noChannel);
    queued();
    // A plugin's error notifies every time, not only after a run of them.
    for (int n = 0; n < 2; ++n) {
        channels::AppPluginErrorEvent event(m_now, nullptr, "Can't run the script.");
        m_manager.raise(event);
    }
    EXPECT_EQ(m_window.take(),
              (std::vector<std::string>{
                  "activity failure Channel News error.",
                  "error failure Channel News error.",
                  "activity failure Channel <Unknown> error: Can't read the directory.",
                  "error failure Channel <Unknown> error: Can't read the directory.",
                  "activity failure Plugin <Unknown> error: Can't run the script.",
                  "error failure Plugin <Unknown> error: Can't run the script.",
                  "activity failure Plugin <Unknown> error: Can't run the script.",
                  "error failure Plugin <Unknown> error: Can't run the script.",
              }));
    EXPECT_EQ(queued(),
              std::vector<std::string>(
                  2, "[ErrorNotificationRequest:Plugin <Unknown>:Can't run the script.]"));
}

TEST_F(EventHandlerTest, ARunOfFailedUpdatesNotifiesOnceUntilTheChannelRecovers) {
    fs::remove(m_feed);
    for (int failure = 1; failure <= 5; ++failure) {
        update();
        EXPECT_EQ(m_handler.consecutiveErrors("news"), failure);
        EXPECT_EQ(m_handler.isFailing("news"), failure >= 3);
        const auto requests = queued();
        if (failure == 3) {
            ASSERT_EQ(requests.size(), 1u);
            EXPECT_EQ(requests[0].rfind("[ErrorNotificationRequest:Channel News:Can't update the "
                                        "feed. ",
                                        0),
                      0u)
                << requests[0];
            EXPECT_NE(requests[0].find("(3 failed updates in a row)"), std::string::npos);
        } else {
            EXPECT_TRUE(requests.empty()) << failure;
        }
    }
    writeFile(m_feed, rss({"a"}));
    update();
    EXPECT_FALSE(m_handler.isFailing("news"));
    EXPECT_EQ(m_handler.consecutiveErrors("news"), 0);
    queued();
    fs::remove(m_feed);
    for (int failure = 1; failure <= 3; ++failure)
        update();
    EXPECT_EQ(queued().size(), 1u);
}

// Before the window exists and once shut-down stopped the delivery, each event is logged and
// dropped with exactly two lines, and nothing reaches the window, the queue or the settings.
TEST_F(EventHandlerTest, WithoutAMainWindowOrOnceStoppedEachEventGivesExactlyTwoLines) {
    std::vector<std::string> expected;
    for (const char* event : {"[BeginChannelUpdateEvent:News]", "[NewFeedItemEvent:News:0]",
                              "[NewFeedItemEvent:News:1]", "[EndChannelUpdateEvent:News]"}) {
        expected.push_back(std::string("Channel event received: ") + event);
        expected.push_back("- Main window is not present - ignoring the event!");
    }
    m_window.setPresent(false);
    update();
    EXPECT_EQ(m_log.lines(), expected);

    m_window.setPresent(true);
    m_handler.stopDelivering();
    m_log.clear();
    update(); // the same two items: not new again
    expected.erase(expected.begin() + 2, expected.begin() + 6);
    EXPECT_EQ(m_log.lines(), expected);
    EXPECT_TRUE(m_window.take().empty());
    EXPECT_TRUE(m_queue.empty());
    EXPECT_EQ(m_settings.get("news").lastNewItemTime, 0);
}

// The worker thread waits in endChannelUpdate until the UI thread has handled it; by then the
// lines are posted and the desktop settings saved.
TEST_F(EventHandlerTest, TheWorkerWaitsForTheWindowToHandleTheEndOfAnUpdate) {
    m_window.holdEnds();
    m_manager.start("test-agent");
    ASSERT_TRUE(m_manager.requestUpdate("news"));
    ASSERT_TRUE(m_window.waitForEnd(1));
    EXPECT_EQ(m_window.take(), (std::vector<std::string>{
                                   "activity progress Getting the latest feed from News",
                                   "activity success Updated channel News OK.",
                                   "end news",
                               }));
    EXPECT_EQ(m_queue.size(), 2u);
    profile::clearCache();
    EXPECT_EQ(
        profile::readIniInt(m_settings.fileFor("news"), "Desktop Settings", "LastNewItemTime", 0),
        m_now.load());
    m_window.handleEnd();

    // A second update is still waiting when shut-down begins: releasing the window lets the
    // worker finish, so the manager stops without forcing it.
    ASSERT_TRUE(m_manager.requestUpdate("news"));
    ASSERT_TRUE(m_window.waitForEnd(2));
    m_handler.stopDelivering();
    m_window.releaseAll();
    m_manager.removeListener(&m_handler);
    m_manager.stop();
    EXPECT_FALSE(m_manager.isForcedStop());
}

TEST_F(EventHandlerTest, ADesktopSettingsFileThatCantBeWrittenIsReportedInTheErrorPane) {
    writeFile(m_settings.directory(), "a file where the directory should be");
    update();
    const auto calls = m_window.take();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[1], "activity success Updated channel News OK.");
    EXPECT_EQ(calls[2].rfind("error failure Can't save the desktop settings of channel News: ", 0),
              0u)
        << calls[2];
    EXPECT_EQ(calls[3], "end news");
    EXPECT_EQ(m_queue.size(), 2u);
}
