// The program's servers on the loopback address: the app server ("/subscribe"), the
// app-plugin server (the plugins' pages and requests) and the listeners that accept the
// subscription links written for older feed readers.
#pragma once

#include "app/subscriptions.h"
#include "tools/localPortListener.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace channels {
class AppPlugin;
class AppPluginManager;
class ChannelManager;
} // namespace channels

namespace app {

class GlobalOptions;

struct LocalPortListenerOptions {
    int appServerPort = 2604;       // "AppServerPortNo"
    int appPluginServerPort = 2605; // "AppPluginServerPortNo"
    bool amphetaDesk = false;       // "ListenForAmphetaDeskSubscriptions"
    bool radioUserland = false;     // "ListenForRadioUserlandSubscriptions"
    bool headlineViewer = false;    // "ListenForHeadlineViewerSubscriptions"
    // The older readers' ports (tests move them; 0 takes any free port).
    int amphetaDeskPort = 8888;
    int radioUserlandPort = 5335;
    int headlineViewerPort = 8900;
    int maxWebSubscriptionsPerMinute = 10; // "MaxWebSubscriptionsPerMinute"
    tools::ListenerLimits limits;
};

LocalPortListenerOptions listenerOptions(const GlobalOptions& options);

class LocalPortListeners {
public:
    // The approver decides on subscriptions (null refuses them all).
    LocalPortListeners(channels::ChannelManager& channels, channels::AppPluginManager& plugins,
                       SubscriptionApprover* approver);
    ~LocalPortListeners();

    // Starts the app server, the app-plugin server and the enabled subscription listeners,
    // then gives both servers' ports to the plugin manager. A listener that can't start is
    // left out and its message returned; the others run.
    std::vector<std::string> start(const LocalPortListenerOptions& options);
    // Stops every listener (a request being answered is finished first).
    void stop();

    // The port a running listener is bound to, 0 when it does not run. Names: "app server",
    // "app-plugin server", "AmphetaDesk listener", "Radio Userland listener",
    // "Headline Viewer listener".
    int port(const std::string& name) const;

    // The answers, also used without a listener (the desktop client's own view).
    tools::LocalAnswer appServerAnswer(const tools::LocalRequest& request);
    tools::LocalAnswer appPluginAnswer(const tools::LocalRequest& request);

private:
    tools::LocalAnswer subscribeAll(const tools::LocalRequest& request,
                                    const std::vector<std::string>& addresses);
    tools::LocalAnswer subscribeParameter(const tools::LocalRequest& request,
                                          const std::string& name);
    tools::LocalAnswer amphetaDeskAnswer(const tools::LocalRequest& request);
    tools::LocalAnswer radioUserlandAnswer(const tools::LocalRequest& request);
    tools::LocalAnswer headlineViewerAnswer(const tools::LocalRequest& request);
    std::string pluginMainPage(channels::AppPlugin& plugin);
    tools::LocalAnswer pluginIndex();

    channels::ChannelManager& m_channels;
    channels::AppPluginManager& m_plugins;
    Subscriptions m_subscriptions;
    std::vector<std::unique_ptr<tools::LocalPortListener>> m_listeners;
    // One main page at a time per plugin: the page is made in the plugin's one file.
    std::mutex m_mainPageLocksMutex;
    std::map<std::string, std::unique_ptr<std::mutex>> m_mainPageLocks;
};

} // namespace app
