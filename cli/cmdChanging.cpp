// pelsu-cli add, remove, update and import-opml: the commands that change channels. While a
// Pelsu instance runs for the user directory they run inside it, on its channel manager,
// their output coming back here as it is written; otherwise here, holding the instance lock
// so that no instance starts on the user directory meanwhile.

#include "app/channelCommands.h"
#include "app/singleInstance.h"
#include "cli/commands.h"
#include "cli/engine.h"

#include <filesystem>
#include <iostream>

namespace cli {

namespace {

// A long update in another pelsu-cli is waited for this long.
constexpr std::chrono::seconds kLockWait{60};

int runChanging(const CommandContext& context, const char* name) {
    const app::ChannelCommand& command = *app::findChannelCommand(name);
    app::Environment environment = app::findEnvironment(context.home);
    app::HandedOverCommand handed;
    handed.args.push_back(name);
    handed.args.insert(handed.args.end(), context.args.begin(), context.args.end());
    handed.workingDir = std::filesystem::current_path().string();
    // Declared before the engine: the channels are saved while the lock is still held.
    std::unique_ptr<app::SingleInstance> lock;
    if (const auto status = app::handOverCommand(environment.paths.userDir, handed, std::cout,
                                                 std::cerr, kLockWait, lock))
        return *status;
    app::openEnvironment(environment);
    app::publishSystemValues(environment.paths, PELSU_VERSION);
    Engine engine(std::move(environment));
    engine.setSaveOnExit(true);
    app::ChannelCommandContext run{
        engine.manager(),     engine.environment(), std::cout, std::cerr, context.args, "", {},
        engine.loadFailures()};
    return app::runChannelCommand(command, run);
}

template <const char* name>
int runNamed(const CommandContext& context) {
    return runChanging(context, name);
}

constexpr char kAdd[] = "add";
constexpr char kRemove[] = "remove";
constexpr char kUpdate[] = "update";
constexpr char kImportOpml[] = "import-opml";

template <const char* name>
Command changingCommand() {
    const app::ChannelCommand& command = *app::findChannelCommand(name);
    return Command{command.name, command.usage, command.summary, &runNamed<name>};
}

} // namespace

extern const Command kAddCommand;
extern const Command kRemoveCommand;
extern const Command kUpdateCommand;
extern const Command kImportOpmlCommand;

const Command kAddCommand = changingCommand<kAdd>();
const Command kRemoveCommand = changingCommand<kRemove>();
const Command kUpdateCommand = changingCommand<kUpdate>();
const Command kImportOpmlCommand = changingCommand<kImportOpml>();

} // namespace cli
