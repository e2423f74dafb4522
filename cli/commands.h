// The sub-commands of pelsu-cli, as a table.
#pragma once

#include "app/channelCommands.h"

#include <string>
#include <vector>

namespace cli {

// What every command is given: its arguments (after the command name) and the options
// common to all commands.
struct CommandContext {
    std::vector<std::string> args;
    std::string home; // --home DIR, or empty
};

struct Command {
    const char* name;
    const char* usage;   // arguments, as shown by the usage text
    const char* summary; // one line
    int (*run)(const CommandContext& context);
};

// Every command, in the order the usage text shows them.
const std::vector<Command>& commands();

using app::kExitFailure;
using app::kExitOk;
using app::kExitUsage;

} // namespace cli
