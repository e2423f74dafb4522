// The start-up and shut-down that both front ends share. The order of the steps, their
// messages and their log lines live here once; a front end adds only what is its own (a
// window, a tray icon, notifications) through the FrontEnd hooks.
#pragma once

#include "app/environment.h"
#include "app/localPortListeners.h"

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace app {

class SingleInstance;

// What a front end adds to start-up and shut-down. Every hook runs on the thread that calls
// Application::start or Application::shutDown, except showMainWindow (see there). The commands
// that pelsu-cli hands over run on threads of the single instance, on the manager, without a
// hook: the front end sees them through the manager's events, as it sees the worker's.
class FrontEnd {
public:
    virtual ~FrontEnd() = default;

    // Start-up, after the global options are loaded: the toolkit and the main window. Throws
    // (any std::exception) when the main window can't be made.
    virtual void createMainFrame(Environment& environment) = 0;
    // Start-up, after the system values are published: the per-channel desktop settings of
    // the channels in environment.paths.channelsDir. A channel whose settings fail is reported
    // by the front end ("Can't load the channel desktop settings for" and the name); start-up
    // goes on.
    virtual void loadChannelDesktopSettings(Environment& environment) = 0;
    // Start-up, after the channels are loaded and before the worker starts: listen to the
    // manager's events.
    virtual void installEventHandler(channels::ChannelManager& manager) = 0;
    // Who decides on subscriptions that web pages ask for (null refuses them all).
    virtual SubscriptionApprover* subscriptionApprover() = 0;
    // Start-up, last steps: the tray icon, then the welcome notification (only called when
    // "NoWelcomeNotification" is not set).
    virtual void createTrayIcon() = 0;
    virtual void queueWelcomeNotification(const std::string& text) = 0;
    // Problems that don't stop start-up (a plugin that fails to load, a port in use).
    virtual void reportStartupProblem(const std::string& message) = 0;

    // Another process of the same user asked this one to show its main window. Called on the
    // single-instance server's thread, from the end of start-up until shut-down begins (a
    // start during shut-down waits and then runs in this one's place): a front end with a UI
    // thread hands it over.
    virtual void showMainWindow() = 0;
    // Another process asked this one to start its new-channel wizard, with an address to
    // begin with (may be empty). Called on a thread of the single-instance server: a front end
    // with a window hands it to its UI thread and returns true; one without returns false.
    virtual bool openNewChannelWizard(const std::string& address) {
        (void)address;
        return false;
    }

    // Shut-down hooks, in the order they run. None may throw.
    virtual void uninstallMouseHook() {}
    virtual void cleanUpDesktopSettings() {}
    virtual void uninstallEventHandler(channels::ChannelManager& manager) = 0;
    virtual void unloadRichText() {}
    virtual void shutDownToolkit() {}
};

class Application {
public:
    struct Options {
        std::string home;        // --home DIR, or empty
        std::string programDir;  // empty: found beside the executable
        bool startWorker = true; // false: channels load but nothing updates (tests)
        bool startListeners = true;
        // Another instance running for the user: true tells it to show its main window
        // (start returns HandedToRunningInstance); false makes it a StartupError.
        bool showRunningInstance = true;
        // How long start waits for a pelsu-cli command that holds the user directory.
        std::chrono::milliseconds lockWait{10000};
        // Set: a running instance is asked to start its new-channel wizard with this address
        // instead of showing itself (start returns HandedToRunningInstance).
        std::optional<std::string> newChannelAddress;
    };
    enum class StartResult {
        Started,
        // Another instance runs for this user: it was told to show its main window, or to
        // start its new-channel wizard (handedOverStatus() says how that went).
        HandedToRunningInstance,
    };

    Application();
    ~Application(); // shuts down when start succeeded and shutDown was not called

    // Runs every start-up step in order. Throws StartupError with the user's message; what
    // was started before the failure is stopped again. While it runs, the instance carries
    // out the channel commands that pelsu-cli hands over, on its channel manager.
    StartResult start(FrontEnd& frontEnd, const Options& options);
    // Runs every shut-down step in order, each logged in the group "Shutdown"; never stops
    // early. Safe to call twice (the second call does nothing).
    void shutDown();

    Environment& environment();
    channels::ChannelManager& manager(); // not after shutDown
    // What went wrong in the final save of the channels at shut-down ("<id>: <message>").
    const std::vector<std::string>& saveErrors() const;
    // The exit status of the command a running instance carried out for start (0 when it
    // was only asked to show itself).
    int handedOverStatus() const;
    LocalPortListeners* listeners(); // null when they were not started
    // After the user changed the options: when they ask for other listeners or ports than
    // those running, the listeners start again on the new ones, and moving the app-plugin
    // server re-points the channels it serves. Returns the messages of listeners that could
    // not start.
    std::vector<std::string> applyListenerOptions();

    // The greeting of the welcome notification for the given local hour (0-23): "Ohayo
    // gozaimasu" from 4 to 11, "Konnichiwa" from 12 to 17, "Kombanwa" from 18 to 3.
    static std::string greeting(int hour);

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace app
