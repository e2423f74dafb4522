// The main window's side of the worker's hand-offs: lines arrive by queued calls and the panes
// keep only the newest; the end of an update waits for the UI thread, and detaching at
// shut-down releases a worker that waits while the UI thread is busy elsewhere.
#include "trayClient/mainFrame.h"

#include "tests/trayClient/support/clientTestSupport.h"
#include "trayClient/channelDesktopSettings.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace trayClient;
using client_testing::waitFor;

namespace {

app::GlobalOptions paneLimits(int maxActivityLines, int maxErrorLines) {
    app::GlobalOptions options;
    options.maxActivityLogMsgs = maxActivityLines;
    options.maxErrorLogMsgs = maxErrorLines;
    return options;
}

ActivityRecord line(const std::string& text) {
    return ActivityRecord{text, 1700000000, ActivityRecord::Kind::Progress};
}

// Waits without running the event loop, as a UI thread busy with shut-down does.
bool waitWithoutEvents(const std::function<bool()>& condition) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace

TEST(MainFrame, LinesFromTheWorkerReachTheirPanesAndEachPaneKeepsOnlyItsNewest) {
    CMainFrame frame(paneLimits(3, 2));
    frame.attach();
    std::thread worker([&] {
        for (int i = 1; i <= 10; ++i)
            frame.postActivityLine(line("activity " + std::to_string(i)));
        for (int i = 1; i <= 5; ++i)
            frame.postErrorLine(line("error " + std::to_string(i) + "\nsecond part"));
    });
    worker.join();
    ASSERT_TRUE(waitFor([&] {
        return !frame.errorLines().isEmpty() && frame.errorLines().last().contains("error 5");
    }));
    QStringList activity = frame.activityLines();
    ASSERT_EQ(activity.size(), 3);
    EXPECT_TRUE(activity[0].endsWith("activity 8"));
    EXPECT_TRUE(activity[2].endsWith("activity 10"));
    QStringList errors = frame.errorLines();
    ASSERT_EQ(errors.size(), 2);
    // A line with a line break stays one line of the pane.
    EXPECT_TRUE(errors[1].endsWith("error 5 second part"));
}

TEST(MainFrame, DetachingReleasesAWaitingWorkerAndLaterCallsReturnAtOnce) {
    CMainFrame frame;
    frame.attach();
    EXPECT_TRUE(frame.present());
    std::atomic<bool> returned{false};
    std::thread worker([&] {
        frame.endChannelUpdate("news");
        returned = true;
    });
    // The UI thread does not run its event loop: it is shutting down.
    ASSERT_TRUE(waitWithoutEvents([&] { return frame.workersWaiting() == 1; }));
    frame.detach();
    worker.join();
    EXPECT_TRUE(returned);
    EXPECT_FALSE(frame.present());
    frame.endChannelUpdate("news");
    // The released hand-off never runs later either: the queued call finds it closed.
    QCoreApplication::sendPostedEvents();
    EXPECT_EQ(frame.channelUpdatesSeen(), 0);
}

int main(int argc, char** argv) { return client_testing::runClientTests(argc, argv); }
