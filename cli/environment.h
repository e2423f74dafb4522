// What every engine command of pelsu-cli starts with: the user, the directories (created
// with their defaults on first run), the debug settings, the log and the global options.
#pragma once

#include "channels/globalOptions.h"
#include "channels/startup.h"
#include "cli/commands.h"

#include <string>

namespace cli {

struct Environment {
    channels::AppPaths paths;
    channels::GlobalOptions options;
    bool firstRun = false;
};

// Runs the start-up steps; throws channels::Exception with a message for the user.
Environment startEnvironment(const CommandContext& context);

// Latin-1 text from the engine as UTF-8 for the terminal.
std::string toUtf8(const std::string& latin1);
// The same for text a feed chose: its control characters (C0, DEL, C1) are written as
// "\xNN", so that a feed can't move the cursor or forge lines of output.
std::string toTerminal(const std::string& latin1);

} // namespace cli
