#include "app/environment.h"

#include "channels/appPluginManager.h"
#include "channels/exception.h"
#include "channels/internal/scriptRunner.h"
#include "lib/misc/iniValues.h"
#include "tools/net.h"

#include <filesystem>

namespace app {

namespace {

std::string executablePath() {
    std::error_code error;
    auto path = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string() : path.string();
}

// Collects the messages of the plugins that fail to load.
class PluginErrorCollector : public channels::EventListener {
public:
    std::vector<std::string> messages;
    void onAppPluginError(channels::AppPluginErrorEvent& event) override {
        messages.push_back(event.errorText());
    }
};

} // namespace

Environment findEnvironment(const std::string& home, const std::string& givenProgramDir) {
    Environment environment;
    const std::string programDir =
        givenProgramDir.empty() ? findProgramDirectory(executablePath()) : givenProgramDir;
    const std::string dataRoot = findDataRoot(home);
    const std::string userName =
        determineUserName((std::filesystem::path(programDir) / "debug.ini").string());
    environment.paths = buildAppPaths(programDir, dataRoot, userName);
    environment.firstRun = prepareUserDirectory(environment.paths);
    return environment;
}

void openEnvironment(Environment& environment) {
    applyDebugSettings(environment.paths);
    openMessageLog(environment.paths);
    std::string problem;
    if (!environment.options.load(environment.paths.configFile, environment.paths.globalIniFile,
                                  &problem))
        throw StartupError("Couldn't load the global options.\n\n" + problem);
    // The simple fetch path is chosen by the debugging switch or by the same key among the
    // global options.
    if (profile::readIniInt(environment.paths.configFile, "Global Options", "DisableHttpHeaders",
                            0) != 0)
        tools::setUseHttpHeaders(false);
    channels::ScriptSettings scripts = channels::scriptSettings();
    scripts.appServerPort = environment.options.appServerPortNo;
    scripts.appPluginServerPort = environment.options.appPluginServerPortNo;
    scripts.maxOutputBytes =
        static_cast<std::uint64_t>(environment.options.maxScriptOutputKB) * 1024u;
    for (const auto& [extension, command] : environment.options.scriptFileTypeCommands)
        scripts.fileTypeCommands[extension] = command;
    channels::setScriptSettings(scripts);
}

Environment startEnvironment(const std::string& home) {
    Environment environment = findEnvironment(home);
    openEnvironment(environment);
    publishSystemValues(environment.paths, PELSU_VERSION);
    return environment;
}

channels::ChannelManagerOptions managerOptions(const GlobalOptions& options) {
    channels::ChannelManagerOptions result;
    result.disableInternet = options.disableInternet;
    result.scriptTimeoutSeconds = options.scriptTimeout;
    result.appServerPort = options.appServerPortNo;
    result.appPluginServerPort = options.appPluginServerPortNo;
    result.net = options.netOptions();
    result.logChannelProcessing = options.logChannelProcessing;
    result.feedItemLimit = options.maxItemsPerFeed;
    result.feedDepthLimit = options.maxFeedNestingDepth;
    result.feedFormats = options.feedFormats();
    return result;
}

std::vector<std::string> loadAppPlugins(const Environment& environment) {
    auto& plugins = channels::AppPluginManager::instance();
    plugins.setAppPluginsDir(environment.paths.appPluginsDir);
    plugins.setScriptTimeout(environment.options.scriptTimeout);
    plugins.setPorts(environment.options.appServerPortNo,
                     environment.options.appPluginServerPortNo);
    PluginErrorCollector errors;
    plugins.addListener(&errors);
    plugins.loadAppPlugins();
    plugins.removeListener(&errors);
    return errors.messages;
}

std::string userAgent(const GlobalOptions& options) {
    return options.httpUserAgent.empty() ? std::string("Pelsu/") + PELSU_VERSION
                                         : options.httpUserAgent;
}

} // namespace app
