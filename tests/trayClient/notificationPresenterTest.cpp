// The notifications on the desktop: one at a time in the queue's order over D-Bus, clicks
// that open links and mark items viewed, the tray's message when no server runs, and the
// tray icon's animation for watched channels.
#include "trayClient/notificationPresenter.h"

#include "app/globalOptions.h"
#include "tests/support/testSupport.h"
#include "tests/trayClient/support/clientTestSupport.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/mainFrame.h"
#include "trayClient/trayIcon.h"

#include <QGuiApplication>
#include <QScreen>

#include <gtest/gtest.h>

#include <memory>

using namespace trayClient;
using client_testing::FakeNotificationServer;
using client_testing::UrlCatcher;
using client_testing::waitFor;

namespace {

class NotificationPresenterTest : public ::testing::Test {
protected:
    NotificationPresenterTest() {
        options.disableAllSound = true;
        options.notificationBalloonDisplayTime = 1;
        settings.setChannelName("news", "News");
        frame.controlCenter()->setChannels({{"news", "News"}, {"other", "Other"}});
    }
    std::unique_ptr<NewFeedItemNotificationRequest> newItem(const std::string& id,
                                                            const std::string& title) {
        return std::make_unique<NewFeedItemNotificationRequest>(
            "news", "News", NewFeedItem{id, title, "http://example.com/" + id, 0});
    }
    // The presenter, made when the test has set up the bus as it wants it.
    CNotificationPresenter& presenter() {
        if (!m_presenter) {
            m_presenter = std::make_unique<CNotificationPresenter>(queue, settings, options,
                                                                   actions, tray, nullptr);
            QObject::connect(m_presenter.get(), &CNotificationPresenter::shown,
                             [this](const QString& title, const QString&, bool inTray) {
                                 (inTray ? trayShown : busShown) << title;
                             });
        }
        return *m_presenter;
    }

    testing_support::TempDir userDir;
    app::GlobalOptions options;
    ChannelDesktopSettingsTable settings{userDir.path().string()};
    NotificationRequestQueue queue{settings, -1};
    CMainFrame frame;
    CNotificationActions actions{settings, &frame};
    CTrayIcon tray;
    UrlCatcher browser;
    QStringList busShown;
    QStringList trayShown;

private:
    std::unique_ptr<CNotificationPresenter> m_presenter;
};

} // namespace

TEST_F(NotificationPresenterTest, ShowsOneNotificationAtATimeInQueueOrder) {
    FakeNotificationServer server;
    ASSERT_TRUE(server.isRegistered());
    options.notificationBalloonDisplayTime = 45;
    queue.queue(std::make_unique<SimpleNotificationRequest>("first", "one"));
    queue.queue(newItem("a", "second"));
    queue.queue(std::make_unique<SimpleNotificationRequest>("third", "three"));
    presenter().start();
    ASSERT_TRUE(waitFor([&] { return busShown.size() == 1; }));
    // Asking for the next one changes nothing while the first is on screen.
    presenter().processNext();
    waitFor([&] { return server.notifications().size() > 1; }, std::chrono::milliseconds(300));
    ASSERT_EQ(server.notifications().size(), 1u);
    const auto& first = server.notifications()[0];
    EXPECT_EQ(first.appName, "Pelsu");
    EXPECT_EQ(first.summary, "first");
    EXPECT_EQ(first.body, "one");
    EXPECT_EQ(first.timeout, 45000);
    EXPECT_TRUE(first.actions.contains("default"));
    EXPECT_TRUE(first.hints.contains("image-data"));
    // At the chosen corner of the work area (the default: bottom right).
    const std::optional<QPoint> corner = balloonCorner(options.notificationBalloonPosition);
    ASSERT_TRUE(corner);
    EXPECT_EQ(first.hints.value("x").toInt(), corner->x());
    EXPECT_EQ(first.hints.value("y").toInt(), corner->y());
    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    EXPECT_LT(balloonCorner(0)->x(), area.center().x());
    EXPECT_LT(balloonCorner(1)->y(), area.center().y());
    EXPECT_GT(corner->x(), area.center().x());
    EXPECT_GT(corner->y(), area.center().y());

    server.expire(first.id);
    ASSERT_TRUE(waitFor([&] { return server.notifications().size() == 2; }));
    EXPECT_EQ(server.notifications()[1].summary, "News");
    EXPECT_EQ(server.notifications()[1].body, "second");
    // Dismissed by the user: the next one follows too.
    server.click(server.notifications()[1].id);
    ASSERT_TRUE(waitFor([&] { return server.notifications().size() == 3; }));
    EXPECT_EQ(server.notifications()[2].summary, "third");
    EXPECT_EQ(server.onScreen(), 1);
    EXPECT_TRUE(trayShown.isEmpty());
}

TEST_F(NotificationPresenterTest, ClickOnANewItemOpensOnlyAWebLinkAndMarksItViewed) {
    FakeNotificationServer server;
    queue.queue(newItem("item-7", "Fish & chips <today>"));
    presenter().start();
    ASSERT_TRUE(waitFor([&] { return server.onScreen() == 1; }));
    // The server reads no mark-up, so the title goes as it is.
    EXPECT_EQ(server.notifications()[0].body, "Fish & chips <today>");
    EXPECT_TRUE(browser.urls.isEmpty());

    server.invokeAction(server.notifications()[0].id);
    ASSERT_TRUE(waitFor([&] { return browser.urls.size() == 1; }));
    EXPECT_EQ(browser.urls[0], "http://example.com/item-7");
    // Acted on, the notification is taken down by the client.
    ASSERT_TRUE(waitFor([&] { return server.onScreen() == 0; }));
    EXPECT_TRUE(settings.hasViewed("news", "item-7"));
    // Saved at once, so a crash does not bring the item back.
    ChannelDesktopSettings saved;
    ASSERT_TRUE(saved.load(settings.fileFor("news"), "News"));
    EXPECT_EQ(saved.viewedItems.count("item-7"), 1u);

    // The same item queued again is not shown again. A link to a local file is never opened,
    // but the click marks its item viewed all the same.
    queue.queue(newItem("item-7", "Fish & chips <today>"));
    queue.queue(std::make_unique<NewFeedItemNotificationRequest>(
        "news", "News", NewFeedItem{"evil", "Launcher", "file:///tmp/run-me.desktop", 0}));
    queue.queue(std::make_unique<NewFeedItemNotificationRequest>(
        "news", "News", NewFeedItem{"safe", "Web", "https://example.com/safe", 0}));
    ASSERT_TRUE(waitFor([&] { return server.notifications().size() == 2; }));
    EXPECT_EQ(server.notifications()[1].body, "Launcher");
    server.click(server.notifications()[1].id);
    ASSERT_TRUE(waitFor([&] { return server.notifications().size() == 3; }));
    EXPECT_TRUE(settings.hasViewed("news", "evil"));
    server.click(server.notifications()[2].id);
    ASSERT_TRUE(waitFor([&] { return browser.urls.size() == 2; }));
    EXPECT_EQ(browser.urls, (QStringList{"http://example.com/item-7", "https://example.com/safe"}));
}

TEST_F(NotificationPresenterTest, AServerThatReadsMarkUpGetsTheTextEscaped) {
    FakeNotificationServer server;
    server.capabilities << "body-markup";
    queue.queue(newItem("item-8", "Fish & chips <today>"));
    presenter().start();
    ASSERT_TRUE(waitFor([&] { return server.onScreen() == 1; }));
    EXPECT_EQ(server.notifications()[0].body, "Fish &amp; chips &lt;today&gt;");
}

TEST_F(NotificationPresenterTest, ClicksOnErrorsAndBatchesShowTheMainWindow) {
    FakeNotificationServer server;
    queue.queue(std::make_unique<ErrorNotificationRequest>("Channel News", "It broke.", "news"));
    presenter().start();
    ASSERT_TRUE(waitFor([&] { return server.onScreen() == 1; }));
    EXPECT_FALSE(frame.isVisible());
    server.click(server.notifications()[0].id);
    ASSERT_TRUE(waitFor([&] { return frame.isVisible(); }));
    frame.hide();

    queue.queue(std::make_unique<ConsolidatedNewFeedItemsNotificationRequest>(
        "other", "Other",
        std::vector<NewFeedItem>{{"x1", "One", "http://e/1", 0}, {"x2", "Two", "http://e/2", 0}}));
    ASSERT_TRUE(waitFor([&] { return server.notifications().size() == 2; }));
    server.click(server.notifications()[1].id);
    ASSERT_TRUE(waitFor([&] { return frame.selectedChannelId() == "other"; }));
    EXPECT_TRUE(frame.isVisible());
    EXPECT_TRUE(browser.urls.isEmpty());
}

TEST_F(NotificationPresenterTest, WithoutAServerTheTrayShowsTheMessagesOneAtATime) {
    QStringList trayMessages;
    QObject::connect(&tray, &CTrayIcon::messageShown,
                     [&](const QString& title, const QString&) { trayMessages << title; });
    queue.queue(newItem("b", "bee"));
    queue.queue(std::make_unique<SimpleNotificationRequest>("later", "x"));
    presenter().start();
    ASSERT_TRUE(waitFor([&] { return trayMessages.size() == 1; }));
    EXPECT_EQ(trayMessages[0], "News");
    presenter().processNext();
    EXPECT_EQ(trayMessages.size(), 1);
    // A click on the tray's message works like one on a notification.
    emit tray.messageClicked();
    ASSERT_TRUE(waitFor([&] { return browser.urls.size() == 1; }));
    EXPECT_TRUE(settings.hasViewed("news", "b"));
    // The click ended the first message; the second follows.
    ASSERT_TRUE(waitFor([&] { return trayMessages.size() == 2; }));
    EXPECT_EQ(trayMessages[1], "later");
    // Its display time (one second) ends it.
    ASSERT_TRUE(waitFor([&] { return !presenter().isShowing(); }));
    EXPECT_TRUE(busShown.isEmpty());
}

TEST_F(NotificationPresenterTest, NewsOfAnAnimatedChannelAnimatesTheTrayIconUnlessSwitchedOff) {
    FakeNotificationServer server;
    settings.change("news", [](ChannelDesktopSettings& s) { s.animateOnNewItem = true; });
    queue.queue(newItem("c", "sea"));
    presenter().start();
    ASSERT_TRUE(waitFor([&] { return server.onScreen() == 1; }));
    EXPECT_TRUE(tray.isAnimating());
    tray.animate(1); // cut it short
    ASSERT_TRUE(waitFor([&] { return !tray.isAnimating(); }));

    options.disableAllAnimation = true;
    server.expire(server.notifications()[0].id);
    queue.queue(newItem("d", "dee"));
    ASSERT_TRUE(waitFor([&] { return server.notifications().size() == 2; }));
    EXPECT_FALSE(tray.isAnimating());
}

int main(int argc, char** argv) { return client_testing::runClientTests(argc, argv); }
