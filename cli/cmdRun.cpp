// pelsu-cli run: the engine at work until interrupted, its events printed as they happen. It
// starts and stops as the desktop client does, through the shared application, and is the
// user directory's running instance meanwhile.

#include "app/application.h"
#include "app/updatePrinter.h"
#include "cli/commands.h"
#include "cli/engine.h"

#include <csignal>
#include <iostream>
#include <pthread.h>

namespace cli {

namespace {

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

// The terminal as a front end: updates are printed, problems go to standard error, and
// there is no window to show.
class ConsoleFrontEnd : public app::FrontEnd {
public:
    explicit ConsoleFrontEnd(bool allowSubscriptions) : m_approver(allowSubscriptions) {}

    void createMainFrame(app::Environment&) override {}
    void loadChannelDesktopSettings(app::Environment&) override {}
    void installEventHandler(channels::ChannelManager& manager) override {
        manager.addListener(&m_printer);
    }
    app::SubscriptionApprover* subscriptionApprover() override { return &m_approver; }
    void createTrayIcon() override {}
    void queueWelcomeNotification(const std::string&) override {}
    void reportStartupProblem(const std::string& message) override {
        std::cerr << "pelsu-cli: " << toUtf8(message) << std::endl;
    }
    void showMainWindow() override {
        std::cout << "Another start found Pelsu running here; pelsu-cli run has no window to show."
                  << std::endl;
    }
    void uninstallEventHandler(channels::ChannelManager& manager) override {
        manager.removeListener(&m_printer);
    }

    std::string summary() const { return m_printer.summary(); }

private:
    app::UpdatePrinter m_printer{std::cout, std::cerr};
    CommandLineApprover m_approver;
};

// Says where the local listeners are.
void printListeners(app::LocalPortListeners& listeners) {
    for (const char* name : {"app server", "app-plugin server", "AmphetaDesk listener",
                             "Radio Userland listener", "Headline Viewer listener"})
        if (const int port = listeners.port(name))
            std::cout << "The " << name << " listens on http://127.0.0.1:" << port << std::endl;
}

int runRun(const CommandContext& context) {
    app::Application::Options options;
    options.home = context.home;
    options.showRunningInstance = false;
    bool allowSubscriptions = false;
    for (const std::string& arg : context.args) {
        if (arg == "--allow-subscriptions")
            allowSubscriptions = true;
        else if (arg == "--no-listeners")
            options.startListeners = false;
        else
            throw UsageError("unexpected argument: " + arg);
    }
    // The signals are taken by sigwait below, on this thread only: every thread started from
    // here on inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    ConsoleFrontEnd frontEnd(allowSubscriptions);
    app::Application application;
    application.start(frontEnd, options);
    if (app::LocalPortListeners* listeners = application.listeners())
        printListeners(*listeners);
    std::cout << "Running with " << application.manager().channels().size()
              << " channel(s); Ctrl-C stops and saves." << std::endl;
    int signal = 0;
    sigwait(&signals, &signal);
    std::cout << "Stopping..." << std::endl;
    application.shutDown();
    // Channels that can't be saved at the end are still reported, and make the exit fail.
    for (const std::string& error : application.saveErrors())
        std::cerr << "pelsu-cli: " << toTerminal(error) << std::endl;
    std::cout << frontEnd.summary() << '\n';
    return application.saveErrors().empty() ? kExitOk : kExitFailure;
}

} // namespace

extern const Command kRunCommand;

const Command kRunCommand{"run", "[--allow-subscriptions] [--no-listeners]",
                          "keeps the channels up to date and serves the local listeners until "
                          "interrupted",
                          &runRun};

} // namespace cli
