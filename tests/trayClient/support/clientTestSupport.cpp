#include "tests/trayClient/support/clientTestSupport.h"

#include "tests/support/testSupport.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDeadlineTimer>
#include <QDesktopServices>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace client_testing {

namespace {

// A session bus like the desktop's, but listening in a directory of its own and with no
// service directories: a name nobody owns stays unowned.
const char* const kBusConfig = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=@DIR@</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

class PrivateBus {
public:
    PrivateBus() {
        std::string config = kBusConfig;
        config.replace(config.find("@DIR@"), 5, m_dir.path().string());
        std::string configFile = m_dir.file("bus.conf");
        testing_support::writeFile(configFile, config);
        int out[2];
        if (::pipe(out) != 0)
            throw std::runtime_error("pipe failed");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        std::string configArgument = "--config-file=" + configFile;
        const char* argv[] = {"dbus-daemon", configArgument.c_str(), "--nofork",
                              "--print-address=1", nullptr};
        int failed = posix_spawnp(&m_pid, "dbus-daemon", &actions, nullptr,
                                  const_cast<char**>(argv), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        if (failed != 0) {
            ::close(out[0]);
            throw std::runtime_error("can't start dbus-daemon");
        }
        // The daemon prints its address once it listens.
        char buffer[512];
        std::string line;
        ssize_t got = 0;
        while (line.find('\n') == std::string::npos &&
               (got = ::read(out[0], buffer, sizeof buffer)) > 0)
            line.append(buffer, static_cast<std::size_t>(got));
        ::close(out[0]);
        m_address = line.substr(0, line.find('\n'));
        if (m_address.empty())
            throw std::runtime_error("dbus-daemon printed no address");
        setenv("DBUS_SESSION_BUS_ADDRESS", m_address.c_str(), 1);
    }
    ~PrivateBus() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGTERM);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    const std::string& address() const { return m_address; }

private:
    testing_support::TempDir m_dir;
    pid_t m_pid = -1;
    std::string m_address;
};

PrivateBus* g_bus = nullptr;

} // namespace

int runClientTests(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    // The client writes or removes its autostart entry at start: never the user's own.
    testing_support::TempDir configHome;
    setenv("XDG_CONFIG_HOME", configHome.path().c_str(), 1);
    PrivateBus bus;
    g_bus = &bus;
    int status = 0;
    {
        QApplication application(argc, argv);
        status = RUN_ALL_TESTS();
    }
    g_bus = nullptr;
    return status;
}

QString busAddress() { return g_bus ? QString::fromStdString(g_bus->address()) : QString(); }

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    QDeadlineTimer deadline(limit.count());
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(2);
    }
    return true;
}

bool waitWithoutEvents(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    QDeadlineTimer deadline(limit.count());
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(1);
    }
    return true;
}

std::vector<std::string> shutdownLines(const std::string& logFile) {
    std::vector<std::string> found;
    for (const std::string& text : testing_support::logTexts(logFile))
        if (std::find(kShutdownLines.begin(), kShutdownLines.end(), text) != kShutdownLines.end())
            found.push_back(text);
    return found;
}

namespace {
const QStringList kCaughtSchemes{"http", "https", "ftp", "file"};
} // namespace

UrlCatcher::UrlCatcher() {
    for (const QString& scheme : kCaughtSchemes)
        QDesktopServices::setUrlHandler(scheme, this, "open");
}

UrlCatcher::~UrlCatcher() {
    for (const QString& scheme : kCaughtSchemes)
        QDesktopServices::unsetUrlHandler(scheme);
}

std::string storyFeed(const std::string& title, const std::vector<std::string>& ids) {
    std::string text = "<?xml version=\"1.0\"?><rss version=\"2.0\"><channel><title>" + title +
                       "</title><link>http://example.com/</link><description>d</description>";
    for (const auto& id : ids)
        text += "<item><title>Story " + id + "</title><link>http://example.com/" + id +
                "</link><guid>http://example.com/" + id + "</guid></item>";
    return text + "</channel></rss>";
}

FakeNotificationServer::FakeNotificationServer() {
    static int counter = 0;
    m_connectionName = QString("fakeNotificationServer%1").arg(++counter);
    QDBusConnection bus = QDBusConnection::connectToBus(busAddress(), m_connectionName);
    m_registered =
        bus.isConnected() &&
        bus.registerObject("/org/freedesktop/Notifications", this,
                           QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals) &&
        bus.registerService("org.freedesktop.Notifications");
}

FakeNotificationServer::~FakeNotificationServer() {
    QDBusConnection bus(m_connectionName);
    bus.unregisterService("org.freedesktop.Notifications");
    bus.unregisterObject("/org/freedesktop/Notifications");
    QDBusConnection::disconnectFromBus(m_connectionName);
}

int FakeNotificationServer::onScreen() const { return static_cast<int>(m_open.size()); }

uint FakeNotificationServer::Notify(const QString& appName, uint, const QString&,
                                    const QString& summary, const QString& body,
                                    const QStringList& actions, const QVariantMap& hints,
                                    int timeout) {
    Notification notification{m_nextId++, appName, summary, body, actions, hints, timeout};
    m_notifications.push_back(notification);
    m_open.push_back(notification.id);
    return notification.id;
}

void FakeNotificationServer::CloseNotification(uint id) { closeWith(id, 3); }

QStringList FakeNotificationServer::GetCapabilities() { return capabilities; }

QString FakeNotificationServer::GetServerInformation(QString& vendor, QString& version,
                                                     QString& specVersion) {
    vendor = "tests";
    version = "1";
    specVersion = "1.2";
    return "fake";
}

void FakeNotificationServer::click(unsigned id) {
    emit ActionInvoked(id, "default");
    closeWith(id, 2);
}

void FakeNotificationServer::invokeAction(unsigned id) { emit ActionInvoked(id, "default"); }

void FakeNotificationServer::expire(unsigned id) { closeWith(id, 1); }

void FakeNotificationServer::closeWith(unsigned id, unsigned reason) {
    auto open = std::find(m_open.begin(), m_open.end(), id);
    if (open == m_open.end())
        return;
    m_open.erase(open);
    emit NotificationClosed(id, reason);
}

} // namespace client_testing
