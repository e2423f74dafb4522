// How late the UI thread gets while the channel worker updates every channel: the whole
// client runs in this process (offscreen, no local listeners), a timer on the UI thread ticks
// every 5 ms, and the longest gap between ticks beyond 5 ms is the longest stall. With --idle
// the worker does not run, which gives the baseline of the same machine at the same moment.
//
// Usage: bench_uiStall --home DIR [--idle SECONDS]
// Prints: channels, updates seen, seconds, longest stall and the 99th percentile in ms.
#include "trayClient/mainFrame.h"
#include "trayClient/trayClient.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

int countChannels(const std::filesystem::path& channelsDir) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(channelsDir))
        count += entry.path().extension() == ".rss" ? 1 : 0;
    return count;
}

} // namespace

int main(int argc, char** argv) {
    std::string home;
    double idleSeconds = -1;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string option = argv[i];
        if (option == "--home")
            home = argv[i + 1];
        else if (option == "--idle")
            idleSeconds = std::atof(argv[i + 1]);
    }
    if (home.empty()) {
        std::fprintf(stderr, "usage: bench_uiStall --home DIR [--idle SECONDS]\n");
        return 2;
    }
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QApplication application(argc, argv);
    trayClient::CTrayClientApp client;
    trayClient::CTrayClientApp::Options options;
    options.application.home = home;
    options.application.startWorker = idleSeconds < 0;
    options.application.startListeners = false;
    options.hasDisplay = false;
    int status = 0;
    if (!client.start(options, status))
        return status == 0 ? 1 : status;
    const int channels = countChannels(client.application().environment().paths.channelsDir);

    const int intervalMs = 5;
    std::vector<double> lateness;
    double seconds = 0;
    QElapsedTimer clock;
    clock.start();
    qint64 last = clock.nsecsElapsed();
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(intervalMs);
    QObject::connect(&tick, &QTimer::timeout, [&] {
        qint64 now = clock.nsecsElapsed();
        lateness.push_back(std::max(0.0, (now - last) / 1e6 - intervalMs));
        last = now;
        bool done = idleSeconds < 0 ? client.mainFrame()->channelUpdatesSeen() >= channels
                                    : clock.elapsed() >= idleSeconds * 1000;
        if (done && seconds == 0) {
            // Leaving the loop runs the shut-down, which is not part of the measurement.
            seconds = clock.elapsed() / 1000.0;
            QApplication::quit();
        }
    });
    tick.start();
    QApplication::exec();
    int updates = client.mainFrame()->channelUpdatesSeen();
    client.shutDown();

    std::sort(lateness.begin(), lateness.end());
    double longest = lateness.empty() ? 0 : lateness.back();
    double p99 = lateness.empty() ? 0 : lateness[lateness.size() * 99 / 100];
    std::printf("channels=%d updates=%d seconds=%.2f ticks=%zu longest_stall_ms=%.2f "
                "p99_ms=%.2f\n",
                channels, updates, seconds, lateness.size(), longest, p99);
    return 0;
}
