#include "cli/engine.h"

#include "channels/pluginChannel.h"
#include "channels/rssChannel.h"
#include "lib/misc/exception.h"

#include <filesystem>
#include <iostream>

namespace cli {

namespace {

// Prints what goes wrong while the channels load.
class LoadErrorPrinter : public channels::EventListener {
public:
    void onChannelError(channels::ChannelErrorEvent& event) override {
        std::cerr << "pelsu-cli: " << toUtf8(event.message()) << " " << toUtf8(event.detail())
                  << '\n';
    }
};

} // namespace

Engine::Engine(const CommandContext& context) : m_environment(startEnvironment(context)) {
    m_manager = std::make_unique<channels::ChannelManager>(m_environment.paths.channelsDir,
                                                           managerOptions(m_environment.options));
    LoadErrorPrinter printer;
    m_manager->addListener(&printer);
    m_manager->loadChannels();
    m_manager->removeListener(&printer);
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

channels::ChannelManagerOptions managerOptions(const channels::GlobalOptions& options) {
    channels::ChannelManagerOptions result;
    result.disableInternet = options.disableInternet;
    result.scriptTimeoutSeconds = options.scriptTimeout;
    result.appPluginServerPort = options.appPluginServerPortNo;
    result.net = options.netOptions();
    result.logChannelProcessing = options.logChannelProcessing;
    return result;
}

int parseCount(const std::string& text, const std::string& option) {
    if (text.empty() || text.size() > 9 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        throw UsageError(option + " needs a whole number of seconds, not '" + text + "'");
    return std::stoi(text);
}

std::string userAgent(const channels::GlobalOptions& options) {
    return options.httpUserAgent.empty() ? std::string("Pelsu/") + PELSU_VERSION
                                         : options.httpUserAgent;
}

std::string idFromAddress(const std::string& address, const channels::ChannelManager& manager) {
    // A local file gives its name; an address its host and the name of its last path part.
    std::string text;
    const auto scheme = address.find("://");
    if (scheme == std::string::npos) {
        text = std::filesystem::path(address).stem().string();
    } else {
        std::string rest = address.substr(scheme + 3);
        const auto slash = rest.find('/');
        std::string host = rest.substr(0, slash);
        if (host.rfind("www.", 0) == 0)
            host = host.substr(4);
        text = host;
        if (slash != std::string::npos) {
            std::string path = rest.substr(slash);
            path = path.substr(0, path.find_first_of("?#"));
            while (!path.empty() && path.back() == '/')
                path.pop_back();
            const std::string last = std::filesystem::path(path).stem().string();
            if (!last.empty())
                text += "_" + last;
        }
    }
    std::string id;
    for (char c : text) {
        const bool keep = std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
        if (keep)
            id += c;
        else if (!id.empty() && id.back() != '_')
            id += '_';
        if (id.size() >= 48)
            break;
    }
    while (!id.empty() && id.back() == '_')
        id.pop_back();
    if (id.empty())
        id = "channel";
    std::string unique = id;
    for (int n = 2; manager.findChannel(unique) ||
                    std::filesystem::exists(manager.channelsDir() + "/" + unique + ".rss") ||
                    std::filesystem::exists(manager.channelsDir() + "/" + unique + ".plugin");
         ++n)
        unique = id + "-" + std::to_string(n);
    return unique;
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
