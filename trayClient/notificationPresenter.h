// Shows the notification queue's requests on the desktop, one at a time: as freedesktop
// notifications when a notification server is on the session bus (the next one when the
// server reports the previous one closed), else as the tray icon's own message (the next one
// after the display time). A click runs the shown request's click; showing a new item also
// plays its sound and animates the tray icon as the channel's desktop settings ask.
#pragma once

#include "trayClient/notificationRequest.h"

#include <QImage>
#include <QObject>
#include <QPoint>
#include <QStringList>
#include <QTimer>

#include <memory>
#include <optional>

namespace app {
class GlobalOptions;
}

namespace trayClient {

class CDesktopNotifications;
class CMainFrame;
class CSoundPlayer;
class CTrayIcon;
class ChannelDesktopSettingsTable;

// What a click leads to: web links (http, https, ftp) open in the user's browser
// (QDesktopServices, so a URL handler can take them), viewed items are saved at once, and the
// rest shows the main window.
class CNotificationActions : public NotificationActions {
public:
    CNotificationActions(ChannelDesktopSettingsTable& settings, CMainFrame* mainFrame);
    void setMainFrame(CMainFrame* mainFrame) { m_mainFrame = mainFrame; }
    void openUrl(const std::string& url) override;
    void markItemViewed(const std::string& channelId, const std::string& feedItemId) override;
    void openChannelView(const std::string& channelId) override;
    void openErrorLog() override;

private:
    ChannelDesktopSettingsTable& m_settings;
    CMainFrame* m_mainFrame;
};

// Where on the primary screen's work area a notification of "NotificationBalloonPosition" goes:
// 0 top left, 1 top right, 2 bottom left, 3 bottom right; none without a screen.
std::optional<QPoint> balloonCorner(int position);

class CNotificationPresenter : public QObject {
    Q_OBJECT
public:
    // The options are read at each request (the display time, sound and animation switches);
    // sounds may be null (no sounds).
    CNotificationPresenter(NotificationRequestQueue& queue, ChannelDesktopSettingsTable& settings,
                           const app::GlobalOptions& options, NotificationActions& actions,
                           CTrayIcon& trayIcon, CSoundPlayer* sounds, QObject* parent = nullptr);
    ~CNotificationPresenter() override;

    // Starts taking requests from the queue: at once, and then whenever nothing is showing.
    void start();
    // Takes no more requests (shut-down); a notification on screen stays until it expires.
    void stop();
    // Shows the next request unless one is showing.
    void processNext();
    bool isShowing() const { return m_current != nullptr; }

signals:
    // A request went to the screen; inTray tells the tray message from a notification.
    void shown(const QString& title, const QString& body, bool inTray);
    // The shown request went away (closed, expired, or its time in the tray ended).
    void finished();
    // The shown request was clicked.
    void clicked();

private:
    void show(std::unique_ptr<NotificationRequest> request);
    void react(const NotificationRequest& request);
    void showInTray();
    void finishCurrent();
    void onShown(unsigned ticket, unsigned id);
    void onFailed(unsigned ticket, const QString& reason);
    void onActionInvoked(unsigned id, const QString& actionKey);
    void onClosed(unsigned id);
    void onTrayMessageClicked();
    void queryCapabilities();

    NotificationRequestQueue& m_queue;
    ChannelDesktopSettingsTable& m_settings;
    const app::GlobalOptions& m_options;
    NotificationActions& m_actions;
    CTrayIcon& m_trayIcon;
    CSoundPlayer* m_sounds;
    std::unique_ptr<CDesktopNotifications> m_notifications;
    QImage m_image; // the program's icon, sent with every notification
    std::unique_ptr<NotificationRequest> m_current;
    unsigned m_ticket = 0; // the Notify call of the current request
    unsigned m_id = 0;     // its notification's id, once the server answered
    bool m_inTray = false; // shown as the tray's message
    bool m_markup = true;  // the server reads mark-up in bodies
    bool m_capabilitiesKnown = false;
    bool m_running = false;
    QTimer m_poll;          // looks for requests while nothing shows
    QTimer m_trayTime;      // the display time of a tray message
    QTimer m_serverSilence; // gives up on a server that never reports the close
};

} // namespace trayClient
