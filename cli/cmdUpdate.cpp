// pelsu-cli update and run: the engine at work, its events printed as they happen.

#include "channels/appPluginManager.h"
#include "channels/channelManager.h"
#include "channels/localPortListeners.h"
#include "cli/commands.h"
#include "cli/engine.h"
#include "lib/log/log.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <iostream>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace cli {

namespace {

// Prints every event as a line; counts what a summary needs.
class EventPrinter : public channels::EventListener {
public:
    void onBeginChannelUpdate(channels::BeginChannelUpdateEvent& event) override {
        std::lock_guard guard(m_mutex);
        ++m_started;
        const std::string name = event.channel()->name();
        std::cout << progress() << "Updating " << event.channel()->id();
        if (name != "<Unknown>")
            std::cout << " (" << toUtf8(name) << ")";
        std::cout << std::endl;
    }
    void onNewFeedItem(channels::NewFeedItemEvent& event) override {
        std::lock_guard guard(m_mutex);
        ++m_newItems;
        const auto item =
            event.channel()->state().feed().item(static_cast<std::size_t>(event.feedItemIndex()));
        std::cout << "  new:     " << toUtf8(item.title) << std::endl;
    }
    void onExpiredFeedItem(channels::ExpiredFeedItemEvent& event) override {
        std::lock_guard guard(m_mutex);
        ++m_expiredItems;
        const auto item =
            event.channel()->state().feed().item(static_cast<std::size_t>(event.feedItemIndex()));
        std::cout << "  expired: " << toUtf8(item.title) << std::endl;
    }
    void onChannelError(channels::ChannelErrorEvent& event) override {
        std::lock_guard guard(m_mutex);
        std::cout << "  error:   " << toUtf8(event.message()) << " " << toUtf8(event.detail())
                  << std::endl;
    }
    void onEndChannelUpdate(channels::EndChannelUpdateEvent& event) override {
        std::lock_guard guard(m_mutex);
        if (!event.success())
            ++m_failed;
    }

    void setTotal(std::size_t total) { m_total = total; }
    int failed() const { return m_failed; }
    std::string summary() const {
        std::lock_guard guard(m_mutex);
        return "Updated " + std::to_string(m_started) +
               " channel(s): " + std::to_string(m_newItems) + " new item(s), " +
               std::to_string(m_expiredItems) + " expired, " + std::to_string(m_failed) +
               " failed.";
    }

private:
    std::string progress() const {
        if (m_total == 0)
            return "";
        return "[" + std::to_string(m_started) + "/" + std::to_string(m_total) + "] ";
    }
    mutable std::mutex m_mutex;
    std::size_t m_total = 0;
    int m_started = 0;
    int m_newItems = 0;
    int m_expiredItems = 0;
    int m_failed = 0;
};

int runUpdate(const CommandContext& context) {
    Engine engine(context);
    engine.setSaveOnExit(true);
    auto& manager = engine.manager();
    manager.setUserAgent(userAgent(engine.environment().options));
    std::vector<channels::Channel*> targets;
    if (context.args.empty())
        targets = manager.channels();
    for (const std::string& id : context.args)
        targets.push_back(&engine.requireChannel(id));
    EventPrinter printer;
    printer.setTotal(targets.size());
    manager.addListener(&printer);
    // Two channels at a time: one waits for the network while the other is parsed and saved.
    // Each channel's feed leaves memory once it is saved, so that memory stays flat however
    // many channels there are.
    std::atomic<std::size_t> next{0};
    auto work = [&] {
        for (std::size_t i = next++; i < targets.size(); i = next++) {
            manager.updateChannel(*targets[i], true);
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
    manager.removeListener(&printer);
    std::cout << printer.summary() << '\n';
    return printer.failed() > 0 ? kExitFailure : kExitOk;
}

// Subscriptions from web pages: accepted only when the command line says so.
class CommandLineApprover : public channels::SubscriptionApprover {
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
void startListeners(channels::LocalPortListeners& listeners, const Environment& environment) {
    for (const std::string& problem :
         listeners.start(channels::listenerOptions(environment.options)))
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
    manager.start(userAgent(engine.environment().options));
    auto& plugins = channels::AppPluginManager::instance();
    plugins.setChannelManager(&manager);
    for (const std::string& error : loadAppPlugins(engine.environment()))
        std::cerr << "pelsu-cli: " << toUtf8(error) << std::endl;
    CommandLineApprover approver(allowSubscriptions);
    channels::LocalPortListeners listeners(manager, plugins, &approver);
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
    manager.stop();
    plugins.setChannelManager(nullptr);
    std::cout << printer.summary() << '\n';
    return kExitOk;
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
