// pelsu-cli plugins and plugin: the app plugins, their load errors, their pages.

#include "channels/appPluginManager.h"
#include "channels/dllAppPlugin.h"
#include "channels/exception.h"
#include "cli/commands.h"
#include "cli/engine.h"

#include <fstream>
#include <iostream>
#include <sstream>

namespace cli {

namespace {

int runPlugins(const CommandContext& context) {
    if (!context.args.empty())
        throw UsageError("plugins takes no arguments");
    const app::Environment environment = app::startEnvironment(context.home);
    const std::vector<std::string> errors = app::loadAppPlugins(environment);
    auto& plugins = channels::AppPluginManager::instance();
    std::printf("%-16s %-8s %-32s %s\n", "ID", "KIND", "NAME", "FILE");
    for (const std::string& id : plugins.appPluginIds()) {
        channels::AppPlugin* plugin = plugins.findAppPlugin(id);
        const bool library = dynamic_cast<channels::DllAppPlugin*>(plugin) != nullptr;
        std::printf("%-16s %-8s %-32s %s\n", id.c_str(), library ? "library" : "script",
                    toUtf8(plugin->displayName()).c_str(), plugin->configFilename().c_str());
    }
    for (const std::string& error : errors)
        std::cout << "error: " << toUtf8(error) << '\n';
    return errors.empty() ? kExitOk : kExitFailure;
}

int runPlugin(const CommandContext& context) {
    if (context.args.empty() || context.args.size() > 3)
        throw UsageError("plugin needs an ID, and takes a request and its parameters");
    const app::Environment environment = app::startEnvironment(context.home);
    app::loadAppPlugins(environment);
    channels::AppPlugin* plugin =
        channels::AppPluginManager::instance().findAppPlugin(context.args[0]);
    if (!plugin)
        throw channels::Exception("No app plugin with the ID " + context.args[0] +
                                  " (pelsu-cli plugins lists them).");
    if (context.args.size() == 1) {
        plugin->GenerateMainPage();
        std::ifstream in(plugin->mainPageFile(), std::ios::binary);
        std::cout << in.rdbuf();
        return kExitOk;
    }
    std::string response;
    plugin->ProcessRequest(context.args[1], context.args.size() > 2 ? context.args[2] : "",
                           response, nullptr);
    std::cout << response;
    return kExitOk;
}

} // namespace

extern const Command kPluginsCommand;
extern const Command kPluginCommand;

const Command kPluginsCommand{"plugins", "", "lists the app plugins and their load errors",
                              &runPlugins};
const Command kPluginCommand{"plugin", "ID [REQUEST [PARAMS]]",
                             "prints a plugin's main page, or its answer to a request", &runPlugin};

} // namespace cli
