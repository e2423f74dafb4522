// What every front end starts with: the user, the directories (created with their defaults
// on first run), the debug settings, the log, the global options and the script settings.
#pragma once

#include "app/globalOptions.h"
#include "app/startup.h"
#include "channels/channelManager.h"

#include <string>
#include <vector>

namespace app {

struct Environment {
    AppPaths paths;
    GlobalOptions options;
    bool firstRun = false;
};

// Runs the start-up steps up to the global options for the data root given by home (empty:
// PELSU_HOME or the XDG data directory); throws channels::Exception with a message for the
// user.
Environment startEnvironment(const std::string& home);

// The manager's options from the global options.
channels::ChannelManagerOptions managerOptions(const GlobalOptions& options);
// Loads the app plugins of the program directory into the plugin manager; returns the
// messages of those that failed.
std::vector<std::string> loadAppPlugins(const Environment& environment);
// The user agent of downloads: "_HttpUserAgent", or the program's own.
std::string userAgent(const GlobalOptions& options);

} // namespace app
