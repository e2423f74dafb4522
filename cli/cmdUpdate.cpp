// pelsu-cli update and run: the engine at work, its events printed as they happen.

#include "app/localPortListeners.h"
#include "channels/appPluginManager.h"
#include "channels/channelManager.h"
#include "cli/commands.h"
#include "cli/engine.h"
#include "lib/log/log.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <iostream>
#include <map>
#include <mutex>
#include <pthread.h>
#include <set>
#include <thread>

namespace cli {

namespace {

// Prints each channel's update as one block, written when the update ends, so that the lines
// of two channels updated at once never mix; counts what a summary needs. Errors outside an
// update (saving at the end) are printed at once, naming their channel.
class EventPrinter : public channels::EventListener {
public:
    void onBeginChannelUpdate(channels::BeginChannelUpdateEvent& event) override {
        std::lock_guard guard(m_mutex);
        m_pending[event.channel()] = Block{};
    }
    void onNewFeedItem(channels::NewFeedItemEvent& event) override {
        itemLine(*event.channel(), event.feedItemIndex(), "  new:     ", &Block::newItems);
    }
    void onExpiredFeedItem(channels::ExpiredFeedItemEvent& event) override {
        itemLine(*event.channel(), event.feedItemIndex(), "  expired: ", &Block::expiredItems);
    }
    void onChannelError(channels::ChannelErrorEvent& event) override {
        std::lock_guard guard(m_mutex);
        const std::string text = toTerminal(event.message()) + " " + toTerminal(event.detail());
        const channels::Channel* channel = event.channel();
        if (channel)
            m_failed.insert(channel->id());
        if (auto block = m_pending.find(channel); channel && block != m_pending.end()) {
            block->second.failed = true;
            block->second.lines += "  error:   " + text + "\n";
        } else {
            std::cerr << "pelsu-cli: " << (channel ? channel->id() + ": " : "") << text
                      << std::endl;
        }
    }
    void onEndChannelUpdate(channels::EndChannelUpdateEvent& event) override {
        std::lock_guard guard(m_mutex);
        auto block = m_pending.find(event.channel());
        if (block == m_pending.end())
            return;
        ++m_updated;
        Block& done = block->second;
        if (!event.success() || done.failed) {
            m_failed.insert(event.channel()->id());
            done.failed = true;
        }
        std::cout << progress() << heading(*event.channel(), done) << '\n'
                  << done.lines << std::flush;
        m_pending.erase(block);
    }

    void setTotal(std::size_t total) { m_total = total; }
    bool hasFailed(const std::string& id) const {
        std::lock_guard guard(m_mutex);
        return m_failed.count(id) > 0;
    }
    std::size_t failed() const {
        std::lock_guard guard(m_mutex);
        return m_failed.size();
    }
    std::string summary() const;

private:
    struct Block {
        std::string lines;
        int newItems = 0;
        int expiredItems = 0;
        bool failed = false;
    };

    void itemLine(channels::Channel& channel, int index, const char* label, int Block::*count) {
        const auto item = channel.state().feed().item(static_cast<std::size_t>(index));
        std::lock_guard guard(m_mutex);
        Block& block = m_pending[&channel];
        ++(block.*count);
        ++(count == &Block::newItems ? m_newItems : m_expiredItems);
        block.lines += label + toTerminal(item.title) + "\n";
    }
    static std::string heading(const channels::Channel& channel, const Block& block) {
        std::string text = channel.id();
        if (const std::string name = channel.name(); name != "<Unknown>")
            text += " (" + toTerminal(name) + ")";
        if (block.failed)
            return text + ": failed";
        if (block.newItems == 0 && block.expiredItems == 0)
            return text + ": no change";
        return text + ": " + std::to_string(block.newItems) + " new, " +
               std::to_string(block.expiredItems) + " expired";
    }
    std::string progress() const {
        if (m_total == 0)
            return "";
        return "[" + std::to_string(m_updated) + "/" + std::to_string(m_total) + "] ";
    }

    mutable std::mutex m_mutex;
    std::map<const channels::Channel*, Block> m_pending;
    std::set<std::string> m_failed;
    std::size_t m_total = 0;
    int m_updated = 0;
    int m_newItems = 0;
    int m_expiredItems = 0;
};

std::string EventPrinter::summary() const {
    std::lock_guard guard(m_mutex);
    std::string text = "Updated " + std::to_string(m_updated) +
                       " channel(s): " + std::to_string(m_newItems) + " new item(s), " +
                       std::to_string(m_expiredItems) + " expired, " +
                       std::to_string(m_failed.size()) + " failed";
    const char* separator = " (";
    for (const std::string& id : m_failed) {
        text += separator + id;
        separator = ", ";
    }
    return text + (m_failed.empty() ? "." : ").");
}

int runUpdate(const CommandContext& context) {
    Engine engine(context);
    engine.setSaveOnExit(true);
    auto& manager = engine.manager();
    manager.setUserAgent(app::userAgent(engine.environment().options));
    std::vector<channels::Channel*> targets;
    if (context.args.empty())
        targets = manager.channels();
    for (const std::string& id : context.args)
        if (channels::Channel* channel = &engine.requireChannel(id);
            std::find(targets.begin(), targets.end(), channel) == targets.end())
            targets.push_back(channel); // a channel named twice is updated once
    EventPrinter printer;
    printer.setTotal(targets.size());
    manager.addListener(&printer);
    // Two channels at a time: one waits for the network while the other is parsed and saved.
    // Each channel's feed leaves memory once it is saved, so that memory stays flat however
    // many channels there are; a feed that could not be saved stays for the final save.
    std::atomic<std::size_t> next{0};
    auto work = [&] {
        for (std::size_t i = next++; i < targets.size(); i = next++) {
            manager.updateChannel(*targets[i], true);
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
    manager.stop();
    manager.removeListener(&printer);
    std::cout << printer.summary() << '\n';
    const int unloaded = context.args.empty() ? engine.loadFailures() : 0;
    if (unloaded > 0)
        std::cout << unloaded << " channel file(s) could not be loaded." << '\n';
    return printer.failed() > 0 || unloaded > 0 ? kExitFailure : kExitOk;
}

// Prints the errors of the final save, naming their channel, and counts them.
class SaveFailureWatch : public channels::EventListener {
public:
    int count = 0;
    void onChannelError(channels::ChannelErrorEvent& event) override {
        ++count;
        std::cerr << "pelsu-cli: " << (event.channel() ? event.channel()->id() + ": " : "")
                  << toTerminal(event.message()) << " " << toTerminal(event.detail()) << std::endl;
    }
};

// Subscriptions from web pages: accepted only when the command line says so.
class CommandLineApprover : public app::SubscriptionApprover {
public:
    explicit CommandLineApprover(bool allow) : m_allow(allow) {}
    std::string approveSubscription(const std::string& address) override {
        std::cout << (m_allow ? "Subscribing to " : "Refused a subscription to ") << toUtf8(address)
                  << std::endl;
        return m_allow ? ""
                       : "This reader accepts subscriptions from web pages only when it is "
                         "started with --allow-subscriptions.";
    }

private:
    bool m_allow;
};

// Starts the local listeners and says where they are; a port in use is reported and the
// rest goes on.
void startListeners(app::LocalPortListeners& listeners, const app::Environment& environment) {
    for (const std::string& problem : listeners.start(app::listenerOptions(environment.options)))
        std::cerr << "pelsu-cli: " << problem << std::endl;
    for (const char* name : {"app server", "app-plugin server", "AmphetaDesk listener",
                             "Radio Userland listener", "Headline Viewer listener"})
        if (const int port = listeners.port(name))
            std::cout << "The " << name << " listens on http://127.0.0.1:" << port << std::endl;
}

int runRun(const CommandContext& context) {
    bool allowSubscriptions = false;
    bool listen = true;
    for (const std::string& arg : context.args) {
        if (arg == "--allow-subscriptions")
            allowSubscriptions = true;
        else if (arg == "--no-listeners")
            listen = false;
        else
            throw UsageError("unexpected argument: " + arg);
    }
    // The signals are taken by sigwait below, on this thread only.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    Engine engine(context);
    engine.setSaveOnExit(true);
    auto& manager = engine.manager();
    EventPrinter printer;
    manager.addListener(&printer);
    manager.start(app::userAgent(engine.environment().options));
    auto& plugins = channels::AppPluginManager::instance();
    plugins.setChannelManager(&manager);
    for (const std::string& error : app::loadAppPlugins(engine.environment()))
        std::cerr << "pelsu-cli: " << toUtf8(error) << std::endl;
    CommandLineApprover approver(allowSubscriptions);
    app::LocalPortListeners listeners(manager, plugins, &approver);
    if (listen)
        startListeners(listeners, engine.environment());
    std::cout << "Running with " << manager.channels().size()
              << " channel(s); Ctrl-C stops and saves." << std::endl;
    int signal = 0;
    sigwait(&signals, &signal);
    std::cout << "Stopping..." << std::endl;
    // The same order, and the same log lines, as the desktop client's shut-down.
    msglog::MsgGroup& shutdown = msglog::registerMsgGroup("Shutdown");
    PELSU_LOG(shutdown, "Stopping the local port listeners.");
    listeners.stop();
    PELSU_LOG(shutdown, "Un-installing ourself as an event handler.");
    manager.removeListener(&printer);
    PELSU_LOG(shutdown, "Stopping the local channel manager.");
    // Channels that can't be saved at the end are still reported, and make the exit fail.
    SaveFailureWatch saveFailures;
    manager.addListener(&saveFailures);
    manager.stop();
    manager.removeListener(&saveFailures);
    plugins.setChannelManager(nullptr);
    std::cout << printer.summary() << '\n';
    return saveFailures.count > 0 ? kExitFailure : kExitOk;
}

} // namespace

extern const Command kUpdateCommand;
extern const Command kRunCommand;

const Command kUpdateCommand{"update", "[ID...]",
                             "updates the channels now (all when none are named)", &runUpdate};
const Command kRunCommand{"run", "[--allow-subscriptions] [--no-listeners]",
                          "keeps the channels up to date and serves the local listeners until "
                          "interrupted",
                          &runRun};

} // namespace cli
