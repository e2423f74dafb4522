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

Engine::Engine(const CommandContext& context) : m_environment(app::startEnvironment(context.home)) {
    m_manager = std::make_unique<channels::ChannelManager>(
        m_environment.paths.channelsDir, app::managerOptions(m_environment.options));
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
        m_manager->stop();
    else
        m_manager->discardChannels();
}

channels::Channel& Engine::requireChannel(const std::string& id) {
    channels::Channel* channel = m_manager->findChannel(id);
    if (!channel)
        throw channels::Exception("No channel with the ID " + id + " (pelsu-cli list shows them).");
    return *channel;
}

int parseCount(const std::string& text, const std::string& option) {
    if (text.empty() || text.size() > 9 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        throw UsageError(option + " needs a whole number of seconds, not '" + text + "'");
    return std::stoi(text);
}

std::string nameOrAddress(const channels::Channel& channel) {
    const std::string name = channel.name();
    return name == "<Unknown>" ? channel.address() : name;
}

bool isValidChannelId(const std::string& id) {
    if (id.empty() || id[0] == '.' || id.size() > 200)
        return false;
    for (char c : id)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.')
            return false;
    return true;
}

} // namespace cli
