// The engine as the commands of pelsu-cli use it: the environment, a loaded channel manager
// and the helpers the commands share.
#pragma once

#include "app/channelCommands.h"
#include "app/environment.h"
#include "channels/channelManager.h"
#include "cli/commands.h"
#include "cli/terminal.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace cli {

using app::isValidChannelId;
using app::nameOrAddress;
using app::parseCount;
using app::UsageError;

class Engine {
public:
    // Starts the environment and loads every channel (load failures are printed), for a
    // command that only reads: the channels keep nothing of their files but what they print.
    // Throws channels::Exception when the channels directory can't be read.
    explicit Engine(const CommandContext& context);
    // The same on an environment already started, for a command that may also save them
    // (setSaveOnExit): a save reads the file it changes again.
    explicit Engine(app::Environment environment);
    ~Engine();

    app::Environment& environment() { return m_environment; }
    channels::ChannelManager& manager() { return *m_manager; }
    // The channel, or a channels::Exception naming the unknown ID.
    channels::Channel& requireChannel(const std::string& id);
    // Whether the channels are saved when the engine ends (commands that only read don't).
    void setSaveOnExit(bool save) { m_saveOnExit = save; }
    // How many channel files failed to load.
    int loadFailures() const { return m_loadFailures; }

private:
    app::Environment m_environment;
    std::unique_ptr<channels::ChannelManager> m_manager;
    bool m_saveOnExit = false;
    int m_loadFailures = 0;
};

} // namespace cli
