// pelsu-cli add, remove, list and show.

#include "app/subscriptions.h"
#include "channels/channelManager.h"
#include "channels/channelSummaryPage.h"
#include "channels/common.h"
#include "channels/exception.h"
#include "channels/pluginChannel.h"
#include "channels/rssChannel.h"
#include "cli/commands.h"
#include "cli/engine.h"
#include "cli/terminal.h"
#include "lib/misc/iniValues.h"

#include <cctype>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iostream>

namespace cli {

namespace {

// A plugin channel's script: a path, or a path under the program's app-plugins directory.
std::string findScript(const std::string& name, const app::Environment& environment) {
    if (std::filesystem::exists(name))
        return std::filesystem::absolute(name).lexically_normal().string();
    const auto inPlugins = std::filesystem::path(environment.paths.appPluginsDir) / name;
    if (std::filesystem::exists(inPlugins))
        return inPlugins.lexically_normal().string();
    throw channels::Exception("Can't find the plugin script: " + name);
}

int runAdd(const CommandContext& context) {
    std::string address, id, script;
    std::vector<std::pair<std::string, std::string>> parameters;
    int interval = -1;
    for (size_t i = 0; i < context.args.size(); ++i) {
        const std::string& arg = context.args[i];
        const bool hasValue = i + 1 < context.args.size();
        if (arg == "--id" && hasValue) {
            id = context.args[++i];
        } else if (arg == "--interval" && hasValue) {
            interval = parseCount(context.args[++i], "--interval");
        } else if (arg == "--plugin" && hasValue) {
            script = context.args[++i];
        } else if (arg == "--param" && hasValue) {
            const std::string& pair = context.args[++i];
            const auto equals = pair.find('=');
            if (equals == std::string::npos || equals == 0)
                throw UsageError("--param needs NAME=VALUE, not '" + pair + "'");
            parameters.emplace_back(pair.substr(0, equals), pair.substr(equals + 1));
        } else if (address.empty() && !arg.empty() && arg[0] != '-') {
            address = arg;
        } else {
            throw UsageError("unexpected argument: " + arg);
        }
    }
    if (address.empty() == script.empty())
        throw UsageError("add needs either the feed's address or --plugin SCRIPT");
    if (!parameters.empty() && script.empty())
        throw UsageError("--param goes with --plugin");
    if (!address.empty() && address.find("://") == std::string::npos &&
        std::filesystem::exists(address))
        address = std::filesystem::absolute(address).lexically_normal().string();
    Engine engine(context);
    auto& manager = engine.manager();
    if (!script.empty())
        script = findScript(script, engine.environment());
    if (id.empty())
        id = app::channelIdFromAddress(script.empty() ? address : script, manager);
    if (!isValidChannelId(id))
        throw UsageError("a channel ID may hold letters, digits, '-', '_' and '.': " + id);
    std::unique_ptr<channels::Channel> channel;
    if (script.empty()) {
        auto rss = std::make_unique<channels::RssChannel>(&manager, id);
        rss->config().setRssChannelUrl(address);
        channel = std::move(rss);
    } else {
        auto plugin = std::make_unique<channels::PluginChannel>(&manager, id);
        plugin->config().setScriptFilename(script);
        channel = std::move(plugin);
    }
    if (interval >= 0)
        channel->settings().setAutoUpdateInterval(interval);
    channels::Channel* added = manager.addChannel(std::move(channel));
    for (const auto& [name, value] : parameters)
        profile::writeIniString(added->fileName(), channels::kChannelParametersSection, name,
                                value);
    std::cout << "Added channel " << id << ": " << (script.empty() ? address : script) << '\n';
    return kExitOk;
}

int runRemove(const CommandContext& context) {
    if (context.args.size() != 1)
        throw UsageError("remove needs one channel ID");
    Engine engine(context);
    engine.requireChannel(context.args[0]);
    engine.manager().deleteChannel(context.args[0]);
    std::cout << "Removed channel " << context.args[0] << '\n';
    return kExitOk;
}

int runList(const CommandContext& context) {
    if (!context.args.empty())
        throw UsageError("list takes no arguments");
    Engine engine(context);
    std::printf("%-24s %-28s %-40s %-16s %5s  %s\n", "ID", "NAME", "ADDRESS", "LAST FETCH", "ITEMS",
                "STATE");
    for (channels::Channel* channel : engine.manager().channels()) {
        auto& settings = channel->settings();
        std::string state = "manual";
        if (settings.isAutoUpdateEnabled())
            state = "auto, every " + std::to_string(settings.autoUpdateInterval()) + " s";
        std::printf("%-24s %-28s %-40s %-16s %5zu  %s\n", channel->id().c_str(),
                    toTerminal(channel->name()).c_str(), toTerminal(channel->address()).c_str(),
                    channels::fetchTimeText(channel->state().lastFetchTime()).c_str(),
                    channel->state().itemCount(), state.c_str());
    }
    return kExitOk;
}

int runShow(const CommandContext& context) {
    if (context.args.size() != 1)
        throw UsageError("show needs one channel ID");
    Engine engine(context);
    channels::Channel& channel = engine.requireChannel(context.args[0]);
    const channels::Feed& feed = channel.state().feed();
    std::cout << toTerminal(channel.name()) << '\n'
              << "  Address:    " << toTerminal(channel.address()) << '\n'
              << "  Last fetch: " << channels::fetchTimeText(channel.state().lastFetchTime())
              << '\n'
              << "  Items:      " << feed.itemCount() << "\n\n";
    for (std::size_t i = 0; i < feed.itemCount(); ++i) {
        const channels::FeedItem item = feed.item(i);
        std::cout << "[" << i + 1 << "] " << toTerminal(item.title) << '\n';
        if (!item.url.empty())
            std::cout << "    " << toTerminal(item.url) << '\n';
        if (!item.pubDateString.empty())
            std::cout << "    " << toTerminal(item.pubDateString) << '\n';
    }
    return kExitOk;
}

int runPage(const CommandContext& context) {
    if (context.args.size() != 1)
        throw UsageError("page needs one channel ID");
    Engine engine(context);
    channels::Channel& channel = engine.requireChannel(context.args[0]);
    const auto& paths = engine.environment().paths;
    const std::string page = channels::writeChannelSummaryPage(channel, paths.userDir);
    // The channel's own page file goes with the program; this copy stays.
    const auto pages = std::filesystem::path(paths.userDir) / "Pages";
    std::filesystem::create_directories(pages);
    const auto copy = pages / (channel.id() + ".html");
    std::filesystem::copy_file(page, copy, std::filesystem::copy_options::overwrite_existing);
    std::cout << copy.string() << '\n';
    return kExitOk;
}

} // namespace

extern const Command kPageCommand;
extern const Command kAddCommand;
extern const Command kRemoveCommand;
extern const Command kListCommand;
extern const Command kShowCommand;

const Command kAddCommand{
    "add", "URL|--plugin SCRIPT [--param NAME=VALUE]... [--id ID] [--interval SECONDS]",
    "subscribes to a feed (an http address or a local file) or to a channel plugin script",
    &runAdd};
const Command kRemoveCommand{"remove", "ID", "deletes a channel and its file", &runRemove};
const Command kListCommand{"list", "", "lists the channels", &runList};
const Command kPageCommand{"page", "ID", "writes the channel's summary page and prints where it is",
                           &runPage};
const Command kShowCommand{"show", "ID", "shows a channel's items", &runShow};

} // namespace cli
