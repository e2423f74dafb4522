#include "cli/commands.h"

namespace cli {

extern const Command kAddCommand;
extern const Command kRemoveCommand;
extern const Command kListCommand;
extern const Command kShowCommand;
extern const Command kPageCommand;
extern const Command kUpdateCommand;
extern const Command kRunCommand;
extern const Command kImportOpmlCommand;
extern const Command kExportOpmlCommand;
extern const Command kParseCommand;
extern const Command kPluginsCommand;
extern const Command kPluginCommand;

const std::vector<Command>& commands() {
    static const std::vector<Command> table = {
        kAddCommand,        kRemoveCommand,  kListCommand,   kShowCommand,
        kPageCommand,       kUpdateCommand,  kRunCommand,    kImportOpmlCommand,
        kExportOpmlCommand, kPluginsCommand, kPluginCommand, kParseCommand};
    return table;
}

} // namespace cli
