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

// The first start-up steps for the data root given by home (empty: PELSU_HOME or the XDG
// data directory): the program directory, the user and the user directory, created with its
// first-run contents. The program directory is found beside the executable unless given.
// Throws channels::Exception with a message for the user.
Environment findEnvironment(const std::string& home, const std::string& programDir = "");
// The steps after the single-instance check: the debug settings, the message log, the global
// options and the script settings. Throws StartupError with a message for the user
// ("Couldn't load the global options.\n\n" and the reason) or channels::Exception.
void openEnvironment(Environment& environment);
// All of the above, and the published system values.
Environment startEnvironment(const std::string& home);

// The manager's options from the global options.
channels::ChannelManagerOptions managerOptions(const GlobalOptions& options);
// Loads the app plugins of the program directory into the plugin manager; returns the
// messages of those that failed.
std::vector<std::string> loadAppPlugins(const Environment& environment);
// The user agent of downloads: "_HttpUserAgent", or the program's own.
std::string userAgent(const GlobalOptions& options);

} // namespace app
