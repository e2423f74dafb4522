#include "cli/commands.h"

namespace cli {

extern const Command kParseCommand;

const std::vector<Command>& commands() {
    static const std::vector<Command> table = {kParseCommand};
    return table;
}

} // namespace cli
