#include "trayClient/trayClient.h"

#include "lib/log/log.h"
#include "trayClient/autoStart.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/channelEventHandler.h"
#include "trayClient/channelItems.h"
#include "trayClient/clientDialogs.h"
#include "trayClient/mainFrame.h"
#include "trayClient/notificationPresenter.h"
#include "trayClient/notificationRequest.h"
#include "trayClient/quickAccessMenu.h"
#include "trayClient/soundPlayer.h"
#include "trayClient/subscriptionApprover.h"
#include "trayClient/trayIcon.h"
#include "trayClient/webPane.h"

#include "channels/appPlugin.h"
#include "channels/appPluginManager.h"
#include "channels/channel.h"
#include "channels/channelManager.h"

#include <QApplication>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QMessageBox>
#include <QSocketNotifier>

#include <algorithm>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <iostream>
#include <unistd.h>

namespace trayClient {

namespace {

msglog::MsgGroup& shutdownGroup() { return msglog::registerMsgGroup("Shutdown"); }
msglog::MsgGroup& uiEventsGroup() { return msglog::registerMsgGroup("UiEvents"); }

// The self-pipe of the termination signals: the handler writes the signal's number, and the
// UI thread reads it through a socket notifier.
int g_signalPipe[2] = {-1, -1};

void onSignal(int signalNumber) {
    unsigned char byte = static_cast<unsigned char>(signalNumber);
    [[maybe_unused]] ssize_t written = ::write(g_signalPipe[1], &byte, 1);
}

const char* const kWelcomeTitle = "Pelsu Desktop Client";

// How long a web page's subscription waits for the user before it is refused.
constexpr std::chrono::seconds kSubscriptionAnswerTime{60};

// The loaded app plugins as (id, display name), by name.
std::vector<std::pair<QString, QString>> appPluginList() {
    channels::AppPluginManager& plugins = channels::AppPluginManager::instance();
    std::vector<std::pair<QString, QString>> list;
    for (const std::string& id : plugins.appPluginIds())
        if (const channels::AppPlugin* plugin = plugins.findAppPlugin(id))
            list.emplace_back(QString::fromLatin1(id.c_str()),
                              QString::fromLatin1(plugin->displayName().c_str()));
    std::sort(list.begin(), list.end(), [](const auto& left, const auto& right) {
        return QString::localeAwareCompare(left.second, right.second) < 0;
    });
    return list;
}

} // namespace

namespace {
// Ends the event loop at once. QApplication::quit would first ask every window to close, and
// the main window only hides when asked (the program stays in the tray), which would cancel
// the quit.
void leaveEventLoop() { QCoreApplication::exit(0); }
} // namespace

CTrayClientApp::CTrayClientApp() = default;

CTrayClientApp::~CTrayClientApp() { shutDown(); }

void CTrayClientApp::catchTerminationSignals() {
    if (g_signalPipe[0] < 0 && ::pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    // Installed again whenever the browser engine starts: it sets handlers of its own for
    // these signals, and then SIGTERM would no longer end the program in order.
    CWebPane::setEngineStartedHook([] { catchTerminationSignals(); });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

void CTrayClientApp::onTerminationSignal() {
    unsigned char byte = 0;
    while (::read(g_signalPipe[0], &byte, 1) == 1)
        PELSU_LOG(uiEventsGroup(), "Signal " << int(byte) << " received - closing down.");
    leaveEventLoop();
}

void CTrayClientApp::tell(const std::string& message, bool fatal, const std::string& detail) {
    std::cerr << "pelsu: " << message << std::endl;
    if (!detail.empty())
        std::cerr << "pelsu: " << detail << std::endl;
    if (!m_options.hasDisplay)
        return;
    // The message stays the step's own words; the system's reason is a click away.
    const auto fill = [&](QMessageBox& box) {
        if (!detail.empty())
            box.setDetailedText(QString::fromLatin1(detail.c_str()));
    };
    const QString text = QString::fromLatin1(message.c_str());
    if (fatal) {
        QMessageBox box(QMessageBox::Critical, "Pelsu", text);
        fill(box);
        box.exec();
        return;
    }
    // Problems that don't stop start-up don't hold it up either.
    auto* box = new QMessageBox(QMessageBox::Warning, "Pelsu", text);
    box->setAttribute(Qt::WA_DeleteOnClose);
    fill(*box);
    box->show();
}

bool CTrayClientApp::start(const Options& options, int& status) {
    m_options = options;
    if (g_signalPipe[0] >= 0 && !m_signalNotifier) {
        m_signalNotifier =
            std::make_unique<QSocketNotifier>(g_signalPipe[0], QSocketNotifier::Read);
        connect(m_signalNotifier.get(), &QSocketNotifier::activated, this,
                &CTrayClientApp::onTerminationSignal);
    }
    try {
        app::Application::StartResult result = m_application.start(*this, options.application);
        if (result == app::Application::StartResult::HandedToRunningInstance) {
            status = m_application.handedOverStatus();
            return false;
        }
    } catch (const app::StartupError& error) {
        tell(error.what(), true, error.detail());
        status = 1;
        return false;
    }
    m_started = true;
    status = 0;
    // The session's end and any other way out of the event loop run the shut-down while
    // the application object still exists.
    connect(qApp, &QGuiApplication::commitDataRequest, this, [] { leaveEventLoop(); });
    connect(qApp, &QCoreApplication::aboutToQuit, this, &CTrayClientApp::shutDown);
    if (options.application.newChannelAddress)
        openNewChannelWizard(*options.application.newChannelAddress);
    return true;
}

int CTrayClientApp::run(const Options& options) {
    int status = 0;
    if (!start(options, status))
        return status;
    status = QApplication::exec();
    shutDown();
    return status;
}

void CTrayClientApp::shutDown() {
    if (!m_started || m_shutDown)
        return;
    m_shutDown = true;
    // A listener waiting for the user's answer is released before the listeners are stopped.
    if (m_approver)
        m_approver->close();
    m_application.shutDown();
}

void CTrayClientApp::createMainFrame(app::Environment& environment) {
    m_environment = &environment;
    QApplication::setQuitOnLastWindowClosed(false);
    const app::GlobalOptions& options = environment.options;
    const std::string layoutFile = environment.paths.userDir + "/window.ini";
    m_mainFrame = std::make_unique<CMainFrame>(options, QString::fromStdString(layoutFile));
    connect(m_mainFrame.get(), &CMainFrame::exitRequested, this, [] { leaveEventLoop(); });
    applyAutoStart(environment);
}

void CTrayClientApp::applyAutoStart(const app::Environment& environment) {
    const AutoStartProblem problem =
        trayClient::applyAutoStart(environment.options.autoStartApp, autostartDirectory(),
                                   m_options.program, m_options.arguments);
    if (!problem.message.empty())
        tell(problem.message, false, problem.detail);
}

void CTrayClientApp::loadChannelDesktopSettings(app::Environment& environment) {
    m_settings = std::make_unique<ChannelDesktopSettingsTable>(environment.paths.userDir);
    m_queue = std::make_unique<NotificationRequestQueue>(
        *m_settings, environment.options.maxNotificationQueueLength);
    std::vector<ChannelRef> channels = channelsInDirectory(environment.paths.channelsDir);
    for (const auto& failure : m_settings->loadAll(channels)) {
        std::string detail = failure.reason;
        if (!failure.keptAs.empty())
            detail += "\n\nThe file was kept as " + failure.keptAs + ".";
        const ChannelRef& channel = failure.channel;
        tell("Can't load the channel desktop settings for " + displayName(channel.name), false,
             detail);
    }
}

app::SubscriptionApprover* CTrayClientApp::subscriptionApprover() {
    if (!m_approver)
        m_approver = std::make_unique<CSubscriptionApprover>(kSubscriptionAnswerTime);
    return m_approver.get();
}

void CTrayClientApp::installEventHandler(channels::ChannelManager& manager) {
    m_manager = &manager;
    m_handler = std::make_unique<ChannelEventHandler>(
        *m_mainFrame, *m_queue, *m_settings,
        m_environment->options.maxConsecutiveChannelUpdateErrors);
    m_mainFrame->setContext(&manager, m_settings.get(), &m_environment->options);
    m_mainFrame->attach();
    manager.addListener(m_handler.get());
    channels::AppPluginManager::instance().addListener(m_handler.get());
}

void CTrayClientApp::createTrayIcon() {
    m_actions = std::make_unique<CNotificationActions>(*m_settings, m_mainFrame.get());
    m_sounds = std::make_unique<CSoundPlayer>();
    m_trayIcon = std::make_unique<CTrayIcon>();
    m_trayIcon->setOneClickMode(m_environment->options.oneClickMode);
    connectTrayMenu();
    refreshUnviewedCount();
    m_mainFrame->setAppPlugins(appPluginList());
    connectDialogs();
    m_trayIcon->show();
    PELSU_LOG(uiEventsGroup(), "The tray icon is shown.");
    if (!m_environment->options.startMinimized && m_options.hasDisplay)
        m_mainFrame->show();
    m_presenter = std::make_unique<CNotificationPresenter>(
        *m_queue, *m_settings, m_environment->options, *m_actions, *m_trayIcon, m_sounds.get());
    // A click on a notification may have marked an item viewed.
    connect(m_presenter.get(), &CNotificationPresenter::clicked, this,
            &CTrayClientApp::refreshUnviewedCount);
    connect(m_presenter.get(), &CNotificationPresenter::clicked, m_mainFrame.get(),
            &CMainFrame::refreshChannels);
    m_presenter->start();
    emit trayIconShown();
}

void CTrayClientApp::connectTrayMenu() {
    m_quickMenu = std::make_unique<CQuickAccessMenu>(*m_manager, *m_settings, *m_actions);
    connect(m_quickMenu.get(), &CQuickAccessMenu::openMainWindowRequested, m_mainFrame.get(),
            &CMainFrame::showAndRaise);
    connect(m_quickMenu.get(), &CQuickAccessMenu::globalOptionsRequested, this,
            &CTrayClientApp::globalOptionsRequested);
    connect(m_quickMenu.get(), &CQuickAccessMenu::exitRequested, this, [] { leaveEventLoop(); });
    connect(m_quickMenu.get(), &CQuickAccessMenu::itemOpened, this,
            &CTrayClientApp::refreshChannelUnviewedCount);
    m_trayIcon->setContextMenu(m_quickMenu.get());
    connect(m_trayIcon.get(), &CTrayIcon::activated, this, &CTrayClientApp::toggleMainWindow);
    connect(m_mainFrame.get(), &CMainFrame::channelUpdateEnded, this,
            &CTrayClientApp::refreshChannelUnviewedCount);
}

void CTrayClientApp::connectDialogs() {
    m_dialogs =
        std::make_unique<CClientDialogs>(*m_manager, *m_settings, *m_environment, *m_mainFrame);
    m_dialogs->connectMainFrame();
    connect(this, &CTrayClientApp::globalOptionsRequested, m_dialogs.get(),
            &CClientDialogs::globalOptions);
    connect(m_dialogs.get(), &CClientDialogs::optionsChanged, this,
            &CTrayClientApp::applyChangedOptions);
    connect(m_dialogs.get(), &CClientDialogs::itemsViewedChanged, this,
            &CTrayClientApp::refreshChannelUnviewedCount);
}

void CTrayClientApp::applyChangedOptions() {
    const app::GlobalOptions& options = m_environment->options;
    applyAutoStart(*m_environment);
    m_trayIcon->setOneClickMode(options.oneClickMode);
    m_queue->setMaxLength(options.maxNotificationQueueLength);
    for (const std::string& problem : m_application.applyListenerOptions())
        tell(problem, false);
}

void CTrayClientApp::startNewChannelWizard(const QString& address) {
    if (m_dialogs)
        m_dialogs->newChannel(address);
}

bool CTrayClientApp::openNewChannelWizard(const std::string& address) {
    // From the single-instance server's thread: the wizard belongs to the UI thread.
    QMetaObject::invokeMethod(
        this,
        [this, address] {
            PELSU_LOG(uiEventsGroup(), "The new-channel wizard was asked for: " << address);
            startNewChannelWizard(QString::fromLatin1(address.c_str()));
        },
        Qt::QueuedConnection);
    return true;
}

void CTrayClientApp::toggleMainWindow() {
    if (!m_mainFrame)
        return;
    if (m_mainFrame->isVisible() && !m_mainFrame->isMinimized())
        m_mainFrame->hide();
    else
        m_mainFrame->showAndRaise();
}

void CTrayClientApp::refreshUnviewedCount() {
    if (!m_manager || !m_settings || m_shutDown)
        return;
    m_unviewed.clear();
    for (const channels::Channel* channel : m_manager->channels())
        m_unviewed[channel->id()] = unviewedItemCount(*channel, *m_settings);
    showUnviewedCount();
}

void CTrayClientApp::refreshChannelUnviewedCount(const QString& channelId) {
    if (!m_manager || !m_settings || m_shutDown)
        return;
    const std::string id = channelId.toLatin1().toStdString();
    if (const channels::Channel* channel = m_manager->findChannel(id))
        m_unviewed[id] = unviewedItemCount(*channel, *m_settings);
    else
        m_unviewed.erase(id); // removed meanwhile
    showUnviewedCount();
}

void CTrayClientApp::showUnviewedCount() {
    std::size_t total = 0;
    for (const auto& [id, count] : m_unviewed)
        total += count;
    if (m_trayIcon)
        m_trayIcon->setUnviewedCount(static_cast<int>(std::min<std::size_t>(total, INT_MAX)));
}

void CTrayClientApp::queueWelcomeNotification(const std::string& text) {
    m_queue->queue(std::make_unique<SimpleNotificationRequest>(kWelcomeTitle, text));
}

void CTrayClientApp::reportStartupProblem(const std::string& message) { tell(message, false); }

void CTrayClientApp::showMainWindow() {
    // Called on the single-instance server's thread: the window is the UI thread's.
    QMetaObject::invokeMethod(
        this,
        [this] {
            PELSU_LOG(uiEventsGroup(), "Another start asked for the main window.");
            if (m_mainFrame)
                m_mainFrame->showAndRaise();
        },
        Qt::QueuedConnection);
}

void CTrayClientApp::cleanUpDesktopSettings() {
    try {
        // The channels' windows go while their channels, the manager and the table exist.
        closeChildWindows();
        // The worker runs until the manager stops: from here on its events are ignored and
        // a worker waiting for the end of its update is released, so the table can go.
        if (m_handler)
            m_handler->stopDelivering();
        if (m_mainFrame)
            m_mainFrame->detach();
        if (m_presenter)
            m_presenter->stop();
        if (m_queue)
            m_queue->clear();
        if (m_settings)
            m_settings->cleanUp();
    } catch (const std::exception& error) {
        PELSU_LOG_DETAIL(shutdownGroup(), "- Exception caught: " << error.what());
    }
}

void CTrayClientApp::uninstallEventHandler(channels::ChannelManager& manager) {
    if (!m_handler)
        return;
    m_handler->stopDelivering();
    if (m_mainFrame)
        m_mainFrame->detach();
    manager.removeListener(m_handler.get());
    channels::AppPluginManager::instance().removeListener(m_handler.get());
}

void CTrayClientApp::shutDownToolkit() {
    m_presenter.reset();
    if (m_trayIcon)
        m_trayIcon->hide();
    m_trayIcon.reset();
    m_quickMenu.reset();
    m_sounds.reset();
    m_actions.reset();
    if (m_mainFrame) {
        m_mainFrame->hide();
        closeChildWindows();
    }
}

void CTrayClientApp::closeChildWindows() {
    if (!m_mainFrame)
        return;
    // Windows with web pages go while the event loop's objects still exist: the browser
    // engine tears its pages down through it. Windows closed earlier and still waiting to be
    // deleted go too: a channel's window reaches its channel and the manager as it goes.
    m_mainFrame->mdiArea()->closeAllSubWindows();
    for (QMdiSubWindow* window : m_mainFrame->mdiArea()->subWindowList())
        delete window;
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace trayClient

// Each class's meta-object code goes with its own object file, so that a program links only
// the classes it uses.
#include "moc_trayClient.cpp" // NOLINT(bugprone-suspicious-include)
