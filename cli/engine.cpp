#include "cli/engine.h"

#include "channels/exception.h"
#include "channels/pluginChannel.h"
#include "channels/rssChannel.h"

#include <filesystem>
#include <iostream>

namespace cli {

namespace {

// Prints what goes wrong while the channels load.
class LoadErrorPrinter : public channels::EventListener {
public:
    int count = 0;
    void onChannelError(channels::ChannelErrorEvent& event) override {
        ++count;
        std::cerr << "pelsu-cli: " << toTerminal(event.message()) << " "
                  << toTerminal(event.detail()) << '\n';
    }
};

} // namespace

Engine::Engine(const CommandContext& context) : Engine(app::startEnvironment(context.home)) {}

Engine::Engine(app::Environment environment) : m_environment(std::move(environment)) {
    channels::ChannelManagerOptions options = app::managerOptions(m_environment.options);
    // A command runs for seconds under the instance lock: its channels keep nothing of their
    // files but the keys, and a save reads the file it changes.
    options.keepLoadedFiles = false;
    m_manager = std::make_unique<channels::ChannelManager>(m_environment.paths.channelsDir,
                                                           std::move(options));
    LoadErrorPrinter printer;
    m_manager->addListener(&printer);
    const bool loaded = m_manager->loadChannels();
    m_manager->removeListener(&printer);
    if (!loaded)
        throw channels::Exception("Nothing was done: the channels could not be read.");
    m_loadFailures = printer.count;
}

Engine::~Engine() {
    if (m_saveOnExit)
        m_manager->stop(channels::ChannelManager::SaveAtStop::Changed);
    else
        m_manager->discardChannels();
}

channels::Channel& Engine::requireChannel(const std::string& id) {
    return app::requireChannel(*m_manager, id);
}

} // namespace cli
