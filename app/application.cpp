#include "app/application.h"

#include "app/channelCommands.h"
#include "app/singleInstance.h"
#include "channels/appPluginManager.h"
#include "lib/log/log.h"

#include <ctime>
#include <filesystem>
#include <iostream>
#include <tuple>

namespace app {

namespace {

// What a process starting with an address asks the running instance to do.
const char* const kWizardCommand = "new-channel-wizard";

msglog::MsgGroup& shutdownGroup() {
    static msglog::MsgGroup& group = msglog::registerMsgGroup("Shutdown");
    return group;
}

// Collects the channel errors raised while the channels load, and while they are saved at
// the end, as "<id>: <message> <detail>".
class ErrorCollector : public channels::EventListener {
public:
    std::vector<std::string> messages;
    void onChannelError(channels::ChannelErrorEvent& event) override {
        const channels::Channel* channel = event.channel();
        messages.push_back((channel ? channel->id() + ": " : std::string()) + event.message() +
                           " " + event.detail());
    }
};

// The user sees the texts of the steps that have their own ("Can't create a new directory for
// user:", "Couldn't load the global options."); any other failure is an initialization failure.
StartupError stepFailed(const std::exception& failure) {
    if (const auto* own = dynamic_cast<const StartupError*>(&failure))
        return *own;
    return StartupError(std::string("Initialization failed.\n\n") + failure.what());
}

int localHour() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return local.tm_hour;
}

} // namespace

struct Application::Impl {
    FrontEnd* frontEnd = nullptr;
    Environment environment;
    std::unique_ptr<SingleInstance> instance;
    std::unique_ptr<channels::ChannelManager> manager;
    std::unique_ptr<LocalPortListeners> listeners;
    LocalPortListenerOptions listening; // what the listeners were started with
    bool handlerInstalled = false;
    bool started = false;
    bool shutDown = false;
    std::vector<std::string> saveErrors;
    int handedOverStatus = 0;

    bool takeUserDirectory(const Options& options); // false: the running one was shown
    void openTheRest(const Options& options);
    void startChannels(const Options& options);
    void serveOtherProcesses();
    void stopPartialStart() noexcept;
    int openWizard(const HandedOverCommand& handed, std::ostream& out, std::ostream& err);
};

Application::Application() : m_impl(std::make_unique<Impl>()) {}

Application::~Application() {
    if (m_impl->started)
        shutDown();
}

// The single-instance check comes before the log opens: a second start writes nothing.
bool Application::Impl::takeUserDirectory(const Options& options) {
    try {
        environment = findEnvironment(options.home, options.programDir);
    } catch (const std::exception& failure) {
        throw stepFailed(failure);
    }
    if (readDebugInt(environment.paths, "AllowMultipleInstances", 0) != 0)
        return true; // neither instance serves the other's commands then
    try {
        if (options.newChannelAddress) {
            const HandedOverCommand command{{kWizardCommand, *options.newChannelAddress}, {}};
            const std::optional<int> status =
                handOverCommand(environment.paths.userDir, command, std::cout, std::cerr,
                                options.lockWait, instance);
            handedOverStatus = status.value_or(0);
            return !status;
        }
        InstanceClaim claim =
            claimInstance(environment.paths.userDir, options.showRunningInstance, options.lockWait);
        instance = std::move(claim.instance);
        return !claim.shownOther;
    } catch (const std::exception& failure) {
        throw stepFailed(failure);
    }
}

void Application::Impl::openTheRest(const Options& options) {
    try {
        openEnvironment(environment);
    } catch (const std::exception& failure) {
        throw stepFailed(failure);
    }
    shutdownGroup();
    try {
        frontEnd->createMainFrame(environment);
    } catch (const std::exception& failure) {
        PELSU_LOG_DETAIL(shutdownGroup(), "- Exception caught: " << failure.what());
        throw StartupError("Can't load the main frame window.");
    }
    publishSystemValues(environment.paths, PELSU_VERSION);
    frontEnd->loadChannelDesktopSettings(environment);
    startChannels(options);
}

void Application::Impl::startChannels(const Options& options) {
    manager = std::make_unique<channels::ChannelManager>(environment.paths.channelsDir,
                                                         managerOptions(environment.options));
    ErrorCollector loadErrors;
    manager->addListener(&loadErrors);
    const bool loaded = manager->loadChannels();
    manager->removeListener(&loadErrors);
    for (const std::string& message : loadErrors.messages)
        frontEnd->reportStartupProblem(message);
    if (!loaded)
        throw StartupError("Initialization failed.\n\nThe channels could not be read: " +
                           environment.paths.channelsDir);
    frontEnd->installEventHandler(*manager);
    handlerInstalled = true;
    if (options.startWorker)
        manager->start(userAgent(environment.options));
    else
        manager->setUserAgent(userAgent(environment.options));
    auto& plugins = channels::AppPluginManager::instance();
    plugins.setChannelManager(manager.get());
    for (const std::string& problem : loadAppPlugins(environment))
        frontEnd->reportStartupProblem(problem);
    if (!options.startListeners)
        return;
    listeners =
        std::make_unique<LocalPortListeners>(*manager, plugins, frontEnd->subscriptionApprover());
    listening = listenerOptions(environment.options);
    for (const std::string& problem : listeners->start(listening))
        frontEnd->reportStartupProblem(problem);
}

// From here on, other processes of the user reach this one: a second start raises its
// window and pelsu-cli's changing commands run on its manager.
void Application::Impl::serveOtherProcesses() {
    if (!instance)
        return;
    instance->serve([this] { frontEnd->showMainWindow(); },
                    [this](const HandedOverCommand& handed, std::ostream& out, std::ostream& err,
                           std::stop_token stop) {
                        if (handed.args.front() == kWizardCommand)
                            return openWizard(handed, out, err);
                        const ChannelCommand* command = findChannelCommand(handed.args.front());
                        if (!command) {
                            err << "pelsu-cli: the running instance does not take the command "
                                << handed.args.front() << '\n';
                            return kExitUsage;
                        }
                        ChannelCommandContext context{*manager,
                                                      environment,
                                                      out,
                                                      err,
                                                      {handed.args.begin() + 1, handed.args.end()},
                                                      handed.workingDir,
                                                      std::move(stop)};
                        return runChannelCommand(*command, context);
                    });
}

int Application::Impl::openWizard(const HandedOverCommand& handed, std::ostream& out,
                                  std::ostream& err) {
    const std::string address = handed.args.size() > 1 ? handed.args[1] : std::string();
    if (!frontEnd->openNewChannelWizard(address)) {
        err << "The running instance has no window for the new-channel wizard.\n";
        return kExitFailure;
    }
    out << "The running Pelsu opened its new-channel wizard.\n";
    return kExitOk;
}

void Application::Impl::stopPartialStart() noexcept {
    try {
        if (instance)
            instance->stopCommands();
        if (listeners)
            listeners->stop();
        if (manager && handlerInstalled)
            frontEnd->uninstallEventHandler(*manager);
        if (manager) {
            manager->stop();
            channels::AppPluginManager::instance().setChannelManager(nullptr);
        }
    } catch (const std::exception& failure) {
        PELSU_LOG_DETAIL(shutdownGroup(), "- Exception caught: " << failure.what());
    }
    listeners.reset();
    manager.reset();
    instance.reset();
}

Application::StartResult Application::start(FrontEnd& frontEnd, const Options& options) {
    m_impl->frontEnd = &frontEnd;
    try {
        if (!m_impl->takeUserDirectory(options))
            return StartResult::HandedToRunningInstance;
        m_impl->openTheRest(options);
        m_impl->serveOtherProcesses();
        frontEnd.createTrayIcon();
        if (!m_impl->environment.options.noWelcomeNotification)
            frontEnd.queueWelcomeNotification(greeting(localHour()) + " has started.");
    } catch (const StartupError&) {
        m_impl->stopPartialStart();
        throw;
    } catch (const std::exception& failure) {
        m_impl->stopPartialStart();
        throw StartupError(std::string("Initialization failed.\n\n") + failure.what());
    }
    m_impl->started = true;
    return StartResult::Started;
}

void Application::shutDown() {
    Impl& impl = *m_impl;
    if (!impl.started || impl.shutDown)
        return;
    impl.shutDown = true;
    FrontEnd& frontEnd = *impl.frontEnd;
    // Every step logs its line and runs, whatever the steps before it did.
    auto step = [](const char* line, auto&& action) {
        PELSU_LOG(shutdownGroup(), line);
        try {
            action();
        } catch (const std::exception& failure) {
            PELSU_LOG_DETAIL(shutdownGroup(), "- Exception caught: " << failure.what());
        }
    };
    step("ExitInstance() called.", [] {});
    step("Un-installing the mouse hook.", [&] { frontEnd.uninstallMouseHook(); });
    step("Stopping the local port listeners.", [&] {
        // Handed-over commands end first: they use the manager, as the listeners do.
        if (impl.instance)
            impl.instance->stopCommands();
        if (impl.listeners)
            impl.listeners->stop();
    });
    step("Cleaning up ChannelDesktopSettings table.", [&] { frontEnd.cleanUpDesktopSettings(); });
    step("Un-installing ourself as an event handler.",
         [&] { frontEnd.uninstallEventHandler(*impl.manager); });
    step("Stopping the local channel manager.", [&] {
        ErrorCollector saveErrors;
        impl.manager->addListener(&saveErrors);
        impl.manager->stop();
        impl.manager->removeListener(&saveErrors);
        impl.saveErrors = std::move(saveErrors.messages);
    });
    step("Deleting the local channel manager.", [&] {
        channels::AppPluginManager::instance().setChannelManager(nullptr);
        impl.listeners.reset();
        impl.manager.reset();
    });
    step("Destroying the MMF handle.", [&] { impl.instance.reset(); });
    step("Unloading the RichEdit DLL.", [&] { frontEnd.unloadRichText(); });
    step("Shutting down BCG.", [&] { frontEnd.shutDownToolkit(); });
    step("Unloading BlackBox.", [] {});
    // The whole shut-down is in the file even when the process then ends without exit handlers.
    msglog::CMessageLog::instance().flush();
}

Environment& Application::environment() { return m_impl->environment; }

channels::ChannelManager& Application::manager() { return *m_impl->manager; }

LocalPortListeners* Application::listeners() { return m_impl->listeners.get(); }

std::vector<std::string> Application::applyListenerOptions() {
    Impl& impl = *m_impl;
    if (!impl.listeners)
        return {};
    const LocalPortListenerOptions wanted = listenerOptions(impl.environment.options);
    const auto settings = [](const LocalPortListenerOptions& o) {
        return std::tie(o.appServerPort, o.appPluginServerPort, o.amphetaDesk, o.radioUserland,
                        o.headlineViewer, o.amphetaDeskPort, o.radioUserlandPort,
                        o.headlineViewerPort, o.maxWebSubscriptionsPerMinute);
    };
    if (settings(wanted) == settings(impl.listening))
        return {};
    impl.listeners->stop();
    impl.listening = wanted;
    return impl.listeners->start(wanted);
}

const std::vector<std::string>& Application::saveErrors() const { return m_impl->saveErrors; }

int Application::handedOverStatus() const { return m_impl->handedOverStatus; }

std::string Application::greeting(int hour) {
    if (hour >= 4 && hour < 12)
        return "Ohayo gozaimasu";
    if (hour >= 12 && hour < 18)
        return "Konnichiwa";
    return "Kombanwa";
}

} // namespace app
