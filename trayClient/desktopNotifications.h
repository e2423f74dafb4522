// The freedesktop notification service (org.freedesktop.Notifications) on the session bus:
// shows a notification with the action "default" so that a click comes back, and reports
// clicks and closes by the notification's id.
#pragma once

#include <QImage>
#include <QObject>
#include <QPoint>
#include <QString>
#include <QStringList>

#include <optional>

class QDBusPendingCallWatcher;

namespace trayClient {

class CDesktopNotifications : public QObject {
    Q_OBJECT
public:
    explicit CDesktopNotifications(QObject* parent = nullptr);

    // Whether a notification server is on the session bus now.
    bool isServiceAvailable() const;

    // Asks the server to show a notification with the image (when not null); the answer
    // comes as shown(ticket, id) or failed(ticket, reason). Returns the ticket that names this
    // call in those signals.
    // When a point is given, the server is asked to show it there (the "x" and "y" hints,
    // which servers may ignore).
    unsigned notify(const QString& summary, const QString& body, const QImage& image, int timeoutMs,
                    std::optional<QPoint> at = std::nullopt);
    // Asks the server what it can do; the answer comes as capabilities(), with answered false
    // (and no capabilities) when no server answered.
    void queryCapabilities();
    // Asks the server to take a notification down (its NotificationClosed follows).
    void close(unsigned id);

signals:
    void shown(unsigned ticket, unsigned id);
    void failed(unsigned ticket, const QString& reason);
    // The user clicked the notification (actionKey "default") or one of its actions.
    void actionInvoked(unsigned id, const QString& actionKey);
    // The notification went away: reason 1 expired, 2 dismissed, 3 closed by a call.
    void closed(unsigned id, unsigned reason);
    void capabilities(const QStringList& capabilities, bool answered);

private slots:
    void onActionInvoked(uint id, const QString& actionKey);
    void onNotificationClosed(uint id, uint reason);

private:
    unsigned m_nextTicket = 1;
};

} // namespace trayClient
