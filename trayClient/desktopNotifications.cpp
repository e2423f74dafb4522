#include "trayClient/desktopNotifications.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStringList>
#include <QVariantMap>

namespace trayClient {

namespace {
const char* const kService = "org.freedesktop.Notifications";
const char* const kPath = "/org/freedesktop/Notifications";
const char* const kInterface = "org.freedesktop.Notifications";
// The "image-data" hint: width, height, row stride, alpha, bits per sample, channels, bytes.
struct NotificationImage {
    QImage image;
};

} // namespace
} // namespace trayClient

Q_DECLARE_METATYPE(trayClient::NotificationImage)

namespace trayClient {
namespace {

QDBusArgument& operator<<(QDBusArgument& argument, const NotificationImage& value) {
    QImage image = value.image.convertToFormat(QImage::Format_RGBA8888);
    argument.beginStructure();
    argument << image.width() << image.height() << int(image.bytesPerLine()) << true << 8 << 4
             << QByteArray(reinterpret_cast<const char*>(image.constBits()),
                           int(image.sizeInBytes()));
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, NotificationImage&) {
    // Never received; the type system wants both directions.
    return argument;
}

} // namespace

CDesktopNotifications::CDesktopNotifications(QObject* parent) : QObject(parent) {
    qDBusRegisterMetaType<NotificationImage>();
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.connect(kService, kPath, kInterface, "ActionInvoked", this,
                SLOT(onActionInvoked(uint, QString)));
    bus.connect(kService, kPath, kInterface, "NotificationClosed", this,
                SLOT(onNotificationClosed(uint, uint)));
}

bool CDesktopNotifications::isServiceAvailable() const {
    QDBusConnection bus = QDBusConnection::sessionBus();
    return bus.isConnected() && bus.interface() && bus.interface()->isServiceRegistered(kService);
}

unsigned CDesktopNotifications::notify(const QString& summary, const QString& body,
                                       const QImage& image, int timeoutMs,
                                       std::optional<QPoint> at) {
    unsigned ticket = m_nextTicket++;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        // Reported from the event loop, like every other answer.
        QMetaObject::invokeMethod(
            this, [this, ticket] { emit failed(ticket, "There is no session bus."); },
            Qt::QueuedConnection);
        return ticket;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, "Notify");
    QVariantMap hints;
    hints.insert("desktop-entry", QString("pelsu"));
    if (!image.isNull())
        hints.insert("image-data", QVariant::fromValue(NotificationImage{image}));
    if (at) {
        hints.insert("x", at->x());
        hints.insert("y", at->y());
    }
    call << QString("Pelsu") << 0u << QString() << summary << body << QStringList{"default", "Open"}
         << hints << timeoutMs;
    // Never a blocking call: a server that hangs must not freeze the UI thread.
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 10000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, ticket](QDBusPendingCallWatcher* finished) {
                QDBusPendingReply<uint> reply = *finished;
                if (reply.isError())
                    emit failed(ticket, reply.error().message());
                else
                    emit shown(ticket, reply.value());
                finished->deleteLater();
            });
    return ticket;
}

void CDesktopNotifications::queryCapabilities() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        QMetaObject::invokeMethod(
            this, [this] { emit capabilities({}, false); }, Qt::QueuedConnection);
        return;
    }
    QDBusMessage call =
        QDBusMessage::createMethodCall(kService, kPath, kInterface, "GetCapabilities");
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 10000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this](QDBusPendingCallWatcher* finished) {
                QDBusPendingReply<QStringList> reply = *finished;
                if (reply.isError())
                    emit capabilities({}, false);
                else
                    emit capabilities(reply.value(), true);
                finished->deleteLater();
            });
}

void CDesktopNotifications::close(unsigned id) {
    QDBusMessage call =
        QDBusMessage::createMethodCall(kService, kPath, kInterface, "CloseNotification");
    call << id;
    QDBusConnection::sessionBus().asyncCall(call);
}

void CDesktopNotifications::onActionInvoked(uint id, const QString& actionKey) {
    emit actionInvoked(id, actionKey);
}

void CDesktopNotifications::onNotificationClosed(uint id, uint reason) { emit closed(id, reason); }

} // namespace trayClient

// Each class's meta-object code goes with its own object file, so that a program links only
// the classes it uses.
#include "moc_desktopNotifications.cpp" // NOLINT(bugprone-suspicious-include)
