// The desktop client's application object: runs the shared start-up and shut-down with the
// client's own parts (the main window, the channel desktop settings, the event handler, the
// tray icon and the notifications), and ends on quit, SIGTERM, SIGINT and the session's end.
#pragma once

#include "app/application.h"

#include <QObject>
#include <QPointer>

#include <map>
#include <memory>
#include <string>
#include <vector>

class QSocketNotifier;

namespace trayClient {

class CClientDialogs;
class CMainFrame;
class CNotificationActions;
class CNotificationPresenter;
class CQuickAccessMenu;
class CSoundPlayer;
class CSubscriptionApprover;
class CTrayIcon;
class ChannelDesktopSettingsTable;
class ChannelEventHandler;
class NotificationRequestQueue;

class CTrayClientApp : public QObject, public app::FrontEnd {
    Q_OBJECT
public:
    struct Options {
        app::Application::Options application;
        // The program and the arguments that start this same client (for the autostart entry).
        std::string program;
        std::vector<std::string> arguments;
        // Whether a person sees a display (false on the offscreen platform): messages go to a
        // dialog as well as to standard error.
        bool hasDisplay = true;
    };

    // Needs the QApplication to exist.
    CTrayClientApp();
    ~CTrayClientApp() override;

    // Runs start-up; false (after telling the user) when it failed, with the exit status in
    // status (1 for a failure, 0 when another instance was asked to show itself).
    bool start(const Options& options, int& status);
    // Start-up and the event loop until quit, then shut-down. Returns the exit status.
    int run(const Options& options);
    // Runs the shut-down steps (once).
    void shutDown();

    // Ends the event loop on SIGTERM and SIGINT; call before any thread starts.
    static void catchTerminationSignals();

    app::Application& application() { return m_application; }
    CMainFrame* mainFrame() const { return m_mainFrame.get(); }
    CTrayIcon* trayIcon() const { return m_trayIcon.get(); }
    CClientDialogs* dialogs() const { return m_dialogs.get(); }
    CNotificationPresenter* presenter() const { return m_presenter.get(); }
    NotificationRequestQueue* queue() const { return m_queue.get(); }
    ChannelDesktopSettingsTable* desktopSettings() const { return m_settings.get(); }
    CQuickAccessMenu* quickAccessMenu() const { return m_quickMenu.get(); }
    CSubscriptionApprover* approver() const { return m_approver.get(); }

    // app::FrontEnd
    void createMainFrame(app::Environment& environment) override;
    void loadChannelDesktopSettings(app::Environment& environment) override;
    void installEventHandler(channels::ChannelManager& manager) override;
    // Web pages subscribe through the local listeners only when the user says yes.
    app::SubscriptionApprover* subscriptionApprover() override;
    void createTrayIcon() override;
    void queueWelcomeNotification(const std::string& text) override;
    void reportStartupProblem(const std::string& message) override;
    void showMainWindow() override;
    bool openNewChannelWizard(const std::string& address) override;
    void cleanUpDesktopSettings() override;
    void uninstallEventHandler(channels::ChannelManager& manager) override;
    void shutDownToolkit() override;

public slots:
    // Counts the unviewed items of every channel again and shows the total on the tray icon
    // (after items were marked viewed anywhere).
    void refreshUnviewedCount();
    // The same for one channel (its update ended or its items were viewed); the others keep
    // the count they had.
    void refreshChannelUnviewedCount(const QString& channelId);
    // Shows the main window, or hides it when it is on the screen (the tray icon's click).
    void toggleMainWindow();
    // Opens the new-channel wizard at an address (empty: none); other threads queue it.
    void startNewChannelWizard(const QString& address);

signals:
    // The tray icon is in place (the last step of start-up but the welcome).
    void trayIconShown();
    // The user chose "Global Options…" in the tray's menu.
    void globalOptionsRequested();

private:
    void tell(const std::string& message, bool fatal, const std::string& detail = {});
    void applyAutoStart(const app::Environment& environment);
    void onTerminationSignal();
    void connectTrayMenu();
    void showUnviewedCount();
    void connectDialogs();
    void applyChangedOptions();
    // Closes and deletes the main window's child windows (channels, plugins).
    void closeChildWindows();

    app::Application m_application;
    Options m_options;
    app::Environment* m_environment = nullptr;
    channels::ChannelManager* m_manager = nullptr;
    std::unique_ptr<CMainFrame> m_mainFrame;
    std::unique_ptr<ChannelDesktopSettingsTable> m_settings;
    std::unique_ptr<NotificationRequestQueue> m_queue;
    std::unique_ptr<ChannelEventHandler> m_handler;
    std::unique_ptr<CNotificationActions> m_actions;
    std::unique_ptr<CSoundPlayer> m_sounds;
    std::unique_ptr<CTrayIcon> m_trayIcon;
    std::unique_ptr<CQuickAccessMenu> m_quickMenu;
    std::unique_ptr<CClientDialogs> m_dialogs;
    std::unique_ptr<CSubscriptionApprover> m_approver;
    std::map<std::string, std::size_t> m_unviewed; // per channel, summed on the icon
    std::unique_ptr<CNotificationPresenter> m_presenter;
    std::unique_ptr<QSocketNotifier> m_signalNotifier;
    bool m_started = false;
    bool m_shutDown = false;
};

} // namespace trayClient
