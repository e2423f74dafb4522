#include "app/channelCommands.h"

#include "app/opml.h"
#include "app/subscriptions.h"
#include "app/terminalText.h"
#include "app/updatePrinter.h"
#include "channels/common.h"
#include "channels/exception.h"
#include "channels/pluginChannel.h"
#include "channels/rssChannel.h"
#include "lib/misc/iniValues.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <filesystem>
#include <thread>

namespace app {

namespace {

namespace fs = std::filesystem;

// A file name of the command line, against the sender's working directory.
fs::path resolve(const ChannelCommandContext& context, const std::string& name) {
    const fs::path path(name);
    if (path.is_absolute() || context.workingDir.empty())
        return path;
    return fs::path(context.workingDir) / path;
}

// A plugin channel's script: a path, or a path under the program's app-plugins directory.
std::string findScript(const ChannelCommandContext& context, const std::string& name) {
    if (const fs::path path = resolve(context, name); fs::exists(path))
        return fs::absolute(path).lexically_normal().string();
    const auto inPlugins = fs::path(context.environment.paths.appPluginsDir) / name;
    if (fs::exists(inPlugins))
        return inPlugins.lexically_normal().string();
    throw channels::Exception("Can't find the plugin script: " + name);
}

struct AddArguments {
    std::string address, id, script;
    std::vector<std::pair<std::string, std::string>> parameters;
    int interval = -1;
};

AddArguments parseAdd(const std::vector<std::string>& args) {
    AddArguments parsed;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        const bool hasValue = i + 1 < args.size();
        if (arg == "--id" && hasValue) {
            parsed.id = args[++i];
        } else if (arg == "--interval" && hasValue) {
            parsed.interval = parseCount(args[++i], "--interval");
        } else if (arg == "--plugin" && hasValue) {
            parsed.script = args[++i];
        } else if (arg == "--param" && hasValue) {
            const std::string& pair = args[++i];
            const auto equals = pair.find('=');
            if (equals == std::string::npos || equals == 0)
                throw UsageError("--param needs NAME=VALUE, not '" + pair + "'");
            parsed.parameters.emplace_back(pair.substr(0, equals), pair.substr(equals + 1));
        } else if (parsed.address.empty() && !arg.empty() && arg[0] != '-') {
            parsed.address = arg;
        } else {
            throw UsageError("unexpected argument: " + arg);
        }
    }
    if (parsed.address.empty() == parsed.script.empty())
        throw UsageError("add needs either the feed's address or --plugin SCRIPT");
    if (!parsed.parameters.empty() && parsed.script.empty())
        throw UsageError("--param goes with --plugin");
    return parsed;
}

int runAdd(ChannelCommandContext& context) {
    AddArguments add = parseAdd(context.args);
    auto& manager = context.manager;
    if (!add.address.empty() && add.address.find("://") == std::string::npos) {
        if (const fs::path file = resolve(context, add.address); fs::exists(file))
            add.address = fs::absolute(file).lexically_normal().string();
    }
    if (!add.script.empty())
        add.script = findScript(context, add.script);
    const std::string& source = add.script.empty() ? add.address : add.script;
    if (add.id.empty())
        add.id = channelIdFromAddress(source, manager);
    if (!isValidChannelId(add.id))
        throw UsageError("a channel ID may hold letters, digits, '-', '_' and '.': " + add.id);
    NewChannel request;
    request.address = add.address;
    request.script = add.script;
    request.id = add.id;
    request.interval = add.interval;
    request.parameters = add.parameters;
    addNewChannel(manager, request);
    context.out << "Added channel " << add.id << ": " << source << '\n';
    return kExitOk;
}

int runRemove(ChannelCommandContext& context) {
    if (context.args.size() != 1)
        throw UsageError("remove needs one channel ID");
    requireChannel(context.manager, context.args[0]);
    context.manager.deleteChannel(context.args[0]);
    context.out << "Removed channel " << context.args[0] << '\n';
    return kExitOk;
}

// The running worker updates them, one after the other, as explicit requests; the printer
// waits for their ends.
bool updateThroughWorker(ChannelCommandContext& context,
                         const std::vector<channels::Channel*>& targets, UpdatePrinter& printer) {
    printer.watchOnly({targets.begin(), targets.end()});
    std::size_t requested = 0;
    for (channels::Channel* channel : targets)
        if (context.manager.requestUpdate(channel->id()))
            ++requested; // not a channel removed meanwhile
    return printer.waitForUpdates(requested, context.stop);
}

// No worker runs: two channels at a time, one waiting for the network while the other is
// parsed and saved. Each channel's feed leaves memory once it is saved, so that memory stays
// flat however many channels there are; a feed that could not be saved stays for the final
// save.
void updateHere(ChannelCommandContext& context, const std::vector<channels::Channel*>& targets,
                UpdatePrinter& printer) {
    std::atomic<std::size_t> next{0};
    auto work = [&] {
        for (std::size_t i = next++; i < targets.size(); i = next++) {
            context.manager.updateChannel(*targets[i], true);
            if (!printer.hasFailed(targets[i]->id()))
                targets[i]->releaseFeed();
        }
    };
    std::vector<std::thread> workers;
    const unsigned count = std::max(1u, std::min(2u, std::thread::hardware_concurrency()));
    for (unsigned w = 1; w < count; ++w)
        workers.emplace_back(work);
    work();
    for (auto& worker : workers)
        worker.join();
    // The final save belongs to the outcome: a channel that can't be saved has failed.
    context.manager.stop(channels::ChannelManager::SaveAtStop::Changed);
}

int runUpdate(ChannelCommandContext& context) {
    auto& manager = context.manager;
    std::vector<channels::Channel*> targets;
    if (context.args.empty())
        targets = manager.channels();
    for (const std::string& id : context.args)
        if (channels::Channel* channel = &requireChannel(manager, id);
            std::find(targets.begin(), targets.end(), channel) == targets.end())
            targets.push_back(channel); // a channel named twice is updated once
    UpdatePrinter printer(context.out, context.err);
    printer.setTotal(targets.size());
    manager.addListener(&printer);
    bool finished = true;
    if (manager.isRunning()) {
        finished = updateThroughWorker(context, targets, printer);
    } else {
        manager.setUserAgent(userAgent(context.environment.options));
        updateHere(context, targets, printer);
    }
    manager.removeListener(&printer);
    context.out << printer.summary() << '\n';
    if (!finished)
        context.err << "pelsu-cli: Pelsu is stopping; the update ended before every channel "
                       "was updated.\n";
    const int unloaded = context.args.empty() ? context.loadFailures : 0;
    if (unloaded > 0)
        context.out << unloaded << " channel file(s) could not be loaded." << '\n';
    return !finished || printer.failed() > 0 || unloaded > 0 ? kExitFailure : kExitOk;
}

int runImport(ChannelCommandContext& context) {
    if (context.args.size() != 1)
        throw UsageError("import-opml needs one OPML file");
    const std::vector<OpmlEntry> entries =
        readOpml(resolve(context, context.args[0]).string(), context.args[0]);
    const OpmlImportCounts counts = importOpmlEntries(
        context.manager, entries, [&](const OpmlEntry& entry, OpmlOutcome outcome) {
            if (outcome == OpmlOutcome::Refused)
                context.out << "refused: " << toUtf8(entry.address) << ": " << toUtf8(entry.problem)
                            << '\n';
            else if (outcome == OpmlOutcome::AlreadySubscribed)
                context.out << "skipped (already subscribed): " << toUtf8(entry.address) << '\n';
        });
    context.out << opmlImportSummary(counts) << '\n';
    return kExitOk;
}

} // namespace

const std::vector<ChannelCommand>& channelCommands() {
    static const std::vector<ChannelCommand> table = {
        {"add", "URL|--plugin SCRIPT [--param NAME=VALUE]... [--id ID] [--interval SECONDS]",
         "subscribes to a feed (an http address or a local file) or to a channel plugin script",
         &runAdd},
        {"remove", "ID", "deletes a channel and its file", &runRemove},
        {"update", "[ID...]", "updates the channels now (all when none are named)", &runUpdate},
        {"import-opml", "FILE", "subscribes to every feed of an OPML file (duplicates skipped)",
         &runImport},
    };
    return table;
}

const ChannelCommand* findChannelCommand(const std::string& name) {
    for (const ChannelCommand& command : channelCommands())
        if (name == command.name)
            return &command;
    return nullptr;
}

int runChannelCommand(const ChannelCommand& command, ChannelCommandContext& context) {
    try {
        return command.run(context);
    } catch (const UsageError& mistake) {
        context.err << "pelsu-cli " << command.name << ": " << mistake.what() << "\n"
                    << "usage: pelsu-cli " << command.name << ' ' << command.usage << '\n';
        return kExitUsage;
    } catch (const std::exception& failure) {
        context.err << "pelsu-cli: " << toUtf8(failure.what()) << '\n';
        return kExitFailure;
    }
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

channels::Channel* addNewChannel(channels::ChannelManager& manager, const NewChannel& request) {
    std::unique_ptr<channels::Channel> channel;
    if (request.script.empty()) {
        auto rss = std::make_unique<channels::RssChannel>(&manager, request.id);
        rss->config().setRssChannelUrl(request.address);
        channel = std::move(rss);
    } else {
        auto plugin = std::make_unique<channels::PluginChannel>(&manager, request.id);
        plugin->config().setScriptFilename(request.script);
        channel = std::move(plugin);
    }
    if (!request.name.empty())
        channel->config().setPreferredChannelDisplayName(request.name);
    if (request.interval >= 0)
        channel->settings().setAutoUpdateInterval(request.interval);
    if (request.autoUpdate)
        channel->settings().setAutoUpdateEnabled(*request.autoUpdate);
    channels::Channel* added = manager.addChannel(std::move(channel));
    for (const auto& [name, value] : request.parameters)
        profile::writeIniString(added->fileName(), channels::kChannelParametersSection, name,
                                value);
    return added;
}

channels::Channel& requireChannel(channels::ChannelManager& manager, const std::string& id) {
    channels::Channel* channel = manager.findChannel(id);
    if (!channel)
        throw channels::Exception("No channel with the ID " + id + " (pelsu-cli list shows them).");
    return *channel;
}

} // namespace app
