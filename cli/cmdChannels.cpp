// pelsu-cli list, show and page.

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
    channel.addPageViewer();
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
extern const Command kListCommand;
extern const Command kShowCommand;

const Command kListCommand{"list", "", "lists the channels", &runList};
const Command kPageCommand{"page", "ID", "writes the channel's summary page and prints where it is",
                           &runPage};
const Command kShowCommand{"show", "ID", "shows a channel's items", &runShow};

} // namespace cli
