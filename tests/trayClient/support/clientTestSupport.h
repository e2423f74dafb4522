// What the desktop client's tests share: a session bus of their own, a notification server of
// their own on it, waits that keep the Qt event loop running, a catcher for the links the
// client opens, a small feed and the shut-down's log lines.
#pragma once

#include "tests/support/testSupport.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QVariantMap>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace client_testing {

// Starts a private dbus-daemon (no activatable services, so nothing starts behind the test's
// back), points DBUS_SESSION_BUS_ADDRESS at it, makes the QApplication and runs every test.
// Call from main.
int runClientTests(int argc, char** argv);

// The private bus's address.
QString busAddress();

// Runs the event loop until the condition holds or the limit passes; returns the condition.
bool waitFor(const std::function<bool()>& condition,
             std::chrono::milliseconds limit = std::chrono::seconds(10));
// Waits as long without running the event loop, as a UI thread busy with shut-down does.
bool waitWithoutEvents(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(20));

// Takes the links the client opens (web, ftp and local files) instead of the desktop's opener.
class UrlCatcher : public QObject {
    Q_OBJECT
public:
    UrlCatcher();
    ~UrlCatcher() override;
    QStringList urls;

public slots:
    void open(const QUrl& url) { urls << url.toString(); }
};

// An RSS feed titled title whose items "Story <id>" link to and are known by
// http://example.com/<id>.
std::string storyFeed(const std::string& title, const std::vector<std::string>& ids);

using testing_support::kShutdownLines;
// The lines of the log file that are shut-down steps, in the order written.
std::vector<std::string> shutdownLines(const std::string& logFile);

// A notification server that records what it is asked to show. It owns
// org.freedesktop.Notifications on the private bus from construction to destruction, over a
// bus connection of its own, as a real server in another process would.
class FakeNotificationServer : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Notification {
        unsigned id = 0;
        QString appName;
        QString summary;
        QString body;
        QStringList actions;
        QVariantMap hints;
        int timeout = 0;
    };

    FakeNotificationServer();
    ~FakeNotificationServer() override;
    bool isRegistered() const { return m_registered; }
    // What GetCapabilities answers.
    QStringList capabilities{"actions", "body"};

    const std::vector<Notification>& notifications() const { return m_notifications; }
    // The notifications not closed yet.
    int onScreen() const;
    // The user clicks a notification: ActionInvoked "default", then the close (reason 2).
    void click(unsigned id);
    // The default action is invoked and the notification stays (as dunstctl action does).
    void invokeAction(unsigned id);
    // The notification's time runs out (reason 1).
    void expire(unsigned id);

public slots:
    uint Notify(const QString& appName, uint replacesId, const QString& appIcon,
                const QString& summary, const QString& body, const QStringList& actions,
                const QVariantMap& hints, int timeout);
    void CloseNotification(uint id);
    QStringList GetCapabilities();
    QString GetServerInformation(QString& vendor, QString& version, QString& specVersion);

signals:
    void ActionInvoked(uint id, const QString& actionKey);
    void NotificationClosed(uint id, uint reason);

private:
    void closeWith(unsigned id, unsigned reason);

    QString m_connectionName;
    bool m_registered = false;
    unsigned m_nextId = 1;
    std::vector<Notification> m_notifications;
    std::vector<unsigned> m_open;
};

} // namespace client_testing
