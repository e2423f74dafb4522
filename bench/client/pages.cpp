// The desktop client's memory with pages shown: the whole client runs in this process on the
// display it is given, with its window never opened; once every channel has been updated it
// prints the memory (proportional set size) of the process and its children (the browser engine
// runs in child processes), then opens N channel windows, waits until each has shown its summary
// page, and prints the figure again.
//
// Usage: bench_pages --home DIR [--pages N]
#include "channels/channelManager.h"
#include "trayClient/channelFrame.h"
#include "trayClient/mainFrame.h"
#include "trayClient/trayClient.h"
#include "trayClient/webPane.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QMdiSubWindow>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace {

// The process's proportional share of the memory it uses: pages shared with its children
// (the browser engine's libraries) count once over the whole tree, not once per process.
long residentKiB(int pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Pss:", 0) == 0)
            return std::atol(line.c_str() + 4);
    return 0;
}

// The process and every process below it; with PELSU_BENCH_DETAIL set, each one's share
// goes to standard error.
long treeKiB(int pid) {
    long total = residentKiB(pid);
    if (std::getenv("PELSU_BENCH_DETAIL")) {
        std::ifstream command("/proc/" + std::to_string(pid) + "/cmdline");
        std::string line;
        std::getline(command, line);
        std::fprintf(stderr, "%8ld KiB  %d %.120s\n", total, pid, line.c_str());
    }
    std::ifstream children("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) +
                           "/children");
    for (int child = 0; children >> child;)
        total += treeKiB(child);
    return total;
}

// Runs the event loop until done() is true or the time is up; false on time-out.
bool waitFor(const std::function<bool()>& done, int seconds) {
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > seconds * 1000)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    std::string home;
    int pages = 10;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--home")
            home = argv[i + 1];
        else if (option == "--pages")
            pages = std::atoi(argv[i + 1]);
    }
    if (home.empty()) {
        std::fprintf(stderr, "usage: bench_pages --home DIR [--pages N]\n");
        return 2;
    }
    trayClient::CTrayClientApp::catchTerminationSignals();
    trayClient::CWebPane::prepareEngineEnvironment();
    QApplication application(argc, argv);
    trayClient::CTrayClientApp client;
    trayClient::CTrayClientApp::Options options;
    options.application.home = home;
    options.application.startListeners = false;
    int status = 0;
    if (!client.start(options, status))
        return status == 0 ? 1 : status;
    trayClient::CMainFrame& frame = *client.mainFrame();
    std::vector<channels::Channel*> channels = client.application().manager().channels();
    const int count = static_cast<int>(channels.size());
    // A profile used before holds channels that are not due yet: those count as updated.
    waitFor(
        [&] {
            const auto fetched = std::count_if(channels.begin(), channels.end(), [](auto* c) {
                return c->state().lastFetchTime() != 0;
            });
            return frame.channelUpdatesSeen() >= count || fetched == count;
        },
        300);
    waitFor([] { return false; }, 2);
    const long inTray = treeKiB(static_cast<int>(QCoreApplication::applicationPid()));

    frame.show();
    int loaded = 0;
    for (int n = 0; n < pages && n < count; ++n) {
        QMdiSubWindow* window = frame.openChannelWindow(QString::fromStdString(channels[n]->id()));
        if (auto* channel =
                window ? qobject_cast<trayClient::CChannelFrame*>(window->widget()) : nullptr)
            QObject::connect(&channel->pagePane(), &trayClient::CWebPane::loadFinished,
                             [&loaded](bool) { ++loaded; });
    }
    const bool allShown = waitFor([&] { return loaded >= std::min(pages, count); }, 120);
    waitFor([] { return false; }, 2);
    const long withPages = treeKiB(static_cast<int>(QCoreApplication::applicationPid()));
    std::printf("in the tray %ld KiB, after %d pages shown %ld KiB%s\n", inTray, loaded, withPages,
                allShown ? "" : " (not every page finished loading)");
    std::fflush(stdout);
    client.shutDown();
    std::_Exit(0);
}
