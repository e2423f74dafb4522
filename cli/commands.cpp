#include "cli/commands.h"

namespace cli {

const std::vector<Command>& commands() {
    static const std::vector<Command> table = {};
    return table;
}

} // namespace cli
