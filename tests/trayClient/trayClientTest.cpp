// The whole client in this process, on its real start-up and shut-down: the welcome
// notification, news from a channel's feed shown and clicked, and shut-downs that come while
// the worker updates or waits for the UI thread, which must end without a deadlock and
// without losing the update.
#include "trayClient/trayClient.h"

#include "app/startup.h"
#include "tests/support/testHttpServer.h"
#include "tests/support/testSupport.h"
#include "tests/trayClient/support/clientTestSupport.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/mainFrame.h"
#include "trayClient/subscriptionApprover.h"
#include "trayClient/trayIcon.h"

#include <QCoreApplication>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QMessageBox>
#include <QTimer>

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <thread>

namespace fs = std::filesystem;
using client_testing::FakeNotificationServer;
using client_testing::kShutdownLines;
using client_testing::storyFeed;
using client_testing::UrlCatcher;
using client_testing::waitFor;
using client_testing::waitWithoutEvents;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;
using trayClient::CTrayClientApp;

namespace {

// Takes down whatever the server shows until a notification that matches is on screen; the
// program directory's plugins may add error notifications of their own on the way.
const FakeNotificationServer::Notification*
showUntil(FakeNotificationServer& server,
          const std::function<bool(const FakeNotificationServer::Notification&)>& matches) {
    const FakeNotificationServer::Notification* found = nullptr;
    waitFor([&] {
        if (server.onScreen() != 1)
            return false;
        const auto& shown = server.notifications().back();
        if (matches(shown)) {
            found = &shown;
            return true;
        }
        server.expire(shown.id);
        return false;
    });
    return found;
}

bool isPluginError(const FakeNotificationServer::Notification& shown) {
    return shown.summary.startsWith("Plugin ");
}

// A user directory made beforehand (so no default channel), with its options and channels.
class ClientFixture : public ::testing::Test {
protected:
    ClientFixture() {
        std::string programDir = testing_support::binaryDir().string();
        userDir = home.path() / "Users" /
                  app::determineUserName((fs::path(programDir) / "debug.ini").string());
        fs::create_directories(userDir / "Channels");
        writeFile((userDir / "config.ini").string(),
                  "[Global Options]\nHonourUrlPort=1\nNotificationBalloonDisplayTime=60\n"
                  "DisableAllSound=1\n");
    }
    void addChannel(const std::string& id, const std::string& url) {
        writeFile((userDir / "Channels" / (id + ".rss")).string(),
                  "[Config]\nRssChannelUrl=" + url + "\n");
    }
    bool start(bool worker = true) {
        CTrayClientApp::Options options;
        options.application.home = home.path().string();
        options.application.startWorker = worker;
        options.application.startListeners = false;
        options.hasDisplay = false;
        int status = -1;
        return client.start(options, status);
    }
    std::string logFile() const { return (userDir / "Logs" / "pelsu.log").string(); }
    std::vector<std::string> shutdownLines() const {
        return client_testing::shutdownLines(logFile());
    }

    TempDir home;
    fs::path userDir;
    CTrayClientApp client;
};

} // namespace

TEST_F(ClientFixture, GreetsThroughTheNotificationServerAndLogsTheElevenShutdownSteps) {
    FakeNotificationServer server;
    ASSERT_TRUE(start(false));
    auto welcome = showUntil(server, [](const auto& shown) { return !isPluginError(shown); });
    ASSERT_TRUE(welcome);
    EXPECT_EQ(welcome->summary, "Pelsu Desktop Client");
    EXPECT_TRUE(welcome->body.endsWith(" has started."));
    EXPECT_EQ(welcome->timeout, 60000);
    client.shutDown();
    EXPECT_EQ(shutdownLines(), kShutdownLines);
}

// A channel's window reaches its channel and the manager as it goes: open windows, and one
// closed but not yet deleted, go before the manager does (the sanitizers see it otherwise).
TEST_F(ClientFixture, ShutDownClosesTheChannelsWindowsWhileTheirChannelsExist) {
    TempDir feeds;
    writeFile(feeds.file("local.xml"), storyFeed("Local news", {"a"}));
    addChannel("Local", feeds.file("local.xml"));
    addChannel("Other", feeds.file("local.xml"));
    ASSERT_TRUE(start(false));
    ASSERT_NE(client.mainFrame()->openChannelWindow("Local"), nullptr);
    QMdiSubWindow* closing = client.mainFrame()->openChannelWindow("Other");
    ASSERT_NE(closing, nullptr);
    closing->close(); // its deletion waits for the event loop, which won't run again
    client.shutDown();
    EXPECT_TRUE(client.mainFrame()->mdiArea()->subWindowList().isEmpty());
    EXPECT_EQ(shutdownLines(), kShutdownLines);
}

TEST_F(ClientFixture, EachNewItemIsNotifiedInTurnAndAClickOpensItsLink) {
    TempDir feeds;
    writeFile(feeds.file("local.xml"), storyFeed("Local news", {"a", "b"}));
    addChannel("Local", feeds.file("local.xml"));
    FakeNotificationServer server;
    UrlCatcher browser;
    ASSERT_TRUE(start());
    trayClient::CMainFrame& frame = *client.mainFrame();
    // The welcome and one notification per new item, each when the one before has closed
    // (the worker may be quicker than the welcome); the first item shown is clicked.
    QStringList bodies;
    while (bodies.size() < 3) {
        auto shown = showUntil(server, [](const auto& next) { return !isPluginError(next); });
        ASSERT_TRUE(shown) << bodies.join("|").toStdString();
        bodies << shown->body;
        if (shown->body.startsWith("Story ") && bodies.filter("Story ").size() == 1)
            server.click(shown->id);
        else
            server.expire(shown->id);
    }
    EXPECT_EQ(bodies.filter(" has started.").size(), 1);
    QStringList items = bodies.filter("Story ");
    items.sort();
    EXPECT_EQ(items, (QStringList{"Story a", "Story b"}));
    ASSERT_TRUE(waitFor([&] { return browser.urls.size() == 1; }));
    std::string clickedId = browser.urls[0].toStdString();
    EXPECT_TRUE(client.desktopSettings()->hasViewed("Local", clickedId));
    // The panes got the update's lines from the worker.
    ASSERT_TRUE(waitFor([&] {
        return !frame.activityLines().filter("Updated channel Local news OK.").isEmpty();
    })) << frame.activityLines().join("\n").toStdString();
    EXPECT_EQ(frame.activityLines().filter("Getting the latest feed from").size(), 1);
    // The tray counts the item not clicked, whichever of the update's end and the click came
    // first.
    ASSERT_TRUE(waitFor([&] { return client.trayIcon()->unviewedCount() == 1; }));
    EXPECT_EQ(client.trayIcon()->toolTip(), QString::fromUtf8("Pelsu — 1 unviewed item"));
    client.shutDown();
    EXPECT_EQ(shutdownLines(), kShutdownLines);
    // The viewed item was saved with the channel's desktop settings.
    trayClient::ChannelDesktopSettings saved;
    ASSERT_TRUE(saved.load((userDir / "DesktopSettings" / "Local.ini").string(), "Local"));
    EXPECT_EQ(saved.viewedItems.count(clickedId), 1u);
}

TEST_F(ClientFixture, ShutDownReleasesAWorkerThatWaitsForTheUiAtTheEndOfItsUpdate) {
    TempDir feeds;
    writeFile(feeds.file("local.xml"), storyFeed("Local news", {"c"}));
    addChannel("Local", feeds.file("local.xml"));
    ASSERT_TRUE(start());
    // The UI thread runs no events from here on, so the worker stays in the hand-off.
    ASSERT_TRUE(waitWithoutEvents([&] { return client.mainFrame()->workersWaiting() == 1; }));
    client.shutDown();
    EXPECT_EQ(shutdownLines(), kShutdownLines);
    // The update was saved.
    EXPECT_NE(readFile((userDir / "Channels" / "Local.rss").string()).find("http://example.com/c"),
              std::string::npos);
}

TEST_F(ClientFixture, ShutDownDuringADownloadWaitsForTheUpdateAndKeepsIt) {
    testing_support::Gate requested;
    testing_support::Gate release;
    testing_support::TestHttpServer web;
    web.server().Get("/feed", [&](const httplib::Request&, httplib::Response& response) {
        requested.open();
        release.wait(std::chrono::seconds(20));
        response.set_content(storyFeed("Local news", {"d", "e"}), "application/rss+xml");
    });
    ASSERT_TRUE(web.start());
    // Addresses of 127.0.0.1 are the program's own plugin server; "localhost" is not.
    addChannel("Web", "http://localhost:" + std::to_string(web.port()) + "/feed");
    ASSERT_TRUE(start());
    ASSERT_TRUE(requested.wait()) << readFile(logFile());
    // The download goes on once shut-down has begun: the window has let go of the worker.
    std::thread server([&] {
        waitWithoutEvents([&] { return !client.mainFrame()->present(); });
        release.open();
    });
    client.shutDown();
    server.join();
    EXPECT_EQ(shutdownLines(), kShutdownLines);
    std::string channel = readFile((userDir / "Channels" / "Web.rss").string());
    EXPECT_NE(channel.find("http://example.com/d"), std::string::npos);
    EXPECT_NE(channel.find("http://example.com/e"), std::string::npos);
}

TEST_F(ClientFixture, TheTrayIconsClickShowsAndHidesTheMainWindow) {
    writeFile((userDir / "config.ini").string(), "[Global Options]\nOneClickMode=0\n");
    ASSERT_TRUE(start(false));
    trayClient::CMainFrame& frame = *client.mainFrame();
    ASSERT_FALSE(frame.isVisible());
    client.trayIcon()->handleActivation(QSystemTrayIcon::Trigger);
    EXPECT_FALSE(frame.isVisible()); // a double click is asked for
    client.trayIcon()->handleActivation(QSystemTrayIcon::DoubleClick);
    EXPECT_TRUE(frame.isVisible());
    client.trayIcon()->handleActivation(QSystemTrayIcon::DoubleClick);
    EXPECT_FALSE(frame.isVisible());
    client.shutDown();
}

// The main window only hides when it is asked to close, so an exit that asked the windows
// first would be cancelled while the window is on the screen.
TEST_F(ClientFixture, ExitEndsTheEventLoopWhileTheMainWindowIsShown) {
    ASSERT_TRUE(start(false));
    client.mainFrame()->showAndRaise();
    ASSERT_TRUE(client.mainFrame()->isVisible());
    QTimer::singleShot(0, client.mainFrame(), &trayClient::CMainFrame::exitRequested);
    QTimer::singleShot(5000, [] { QCoreApplication::exit(1); }); // else the loop would go on
    EXPECT_EQ(QCoreApplication::exec(), 0);
    client.shutDown();
    EXPECT_EQ(shutdownLines(), kShutdownLines);
}

TEST_F(ClientFixture, ShutDownReleasesAListenerWaitingForTheUsersAnswerToASubscription) {
    ASSERT_TRUE(start(false));
    app::SubscriptionApprover* approver = client.subscriptionApprover();
    ASSERT_NE(approver, nullptr);
    QMessageBox* question = nullptr;
    QObject::connect(client.approver(), &trayClient::CSubscriptionApprover::questionShown,
                     [&](QMessageBox* box) { question = box; });
    auto answer = std::async(std::launch::async, [approver] {
        return approver->approveSubscription("http://example.com/feed.xml");
    });
    ASSERT_TRUE(waitFor([&] { return question != nullptr; }));
    // No answer yet: shut-down must not wait the minute the question stays up.
    client.shutDown();
    ASSERT_EQ(answer.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(answer.get(), trayClient::CSubscriptionApprover::kClosing);
    EXPECT_EQ(shutdownLines(), kShutdownLines);
}

int main(int argc, char** argv) { return client_testing::runClientTests(argc, argv); }
