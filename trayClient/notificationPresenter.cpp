#include "trayClient/notificationPresenter.h"

#include "app/globalOptions.h"
#include "lib/log/log.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/desktopNotifications.h"
#include "trayClient/mainFrame.h"
#include "trayClient/soundPlayer.h"
#include "trayClient/trayIcon.h"

#include <QDesktopServices>
#include <QGuiApplication>
#include <QScreen>
#include <QUrl>

namespace trayClient {

namespace {

msglog::MsgGroup& queueGroup() { return msglog::registerMsgGroup("NotificationRequestQueue"); }

// How often the queue is looked at while nothing shows.
const int kPollMs = 250;
// How long past its display time a notification may stay without the server reporting its
// close before the next one is shown anyway.
const int kServerSilenceGraceMs = 30000;

bool isNewItem(const NotificationRequest& request) {
    return request.kind() == NotificationRequest::Kind::NewFeedItem ||
           request.kind() == NotificationRequest::Kind::ConsolidatedNewFeedItems;
}

QString fromLatin1(const std::string& text) { return QString::fromLatin1(text.c_str()); }

} // namespace

std::optional<QPoint> balloonCorner(int position) {
    const QScreen* screen = QGuiApplication::primaryScreen();
    if (!screen || position < 0 || position > 3)
        return std::nullopt;
    // Inside the work area, clear of the panels, a little way in from the corner.
    constexpr int kInset = 16;
    const QRect area = screen->availableGeometry();
    const bool right = position == 1 || position == 3;
    const bool bottom = position >= 2;
    return QPoint(right ? area.right() - kInset : area.left() + kInset,
                  bottom ? area.bottom() - kInset : area.top() + kInset);
}

CNotificationActions::CNotificationActions(ChannelDesktopSettingsTable& settings,
                                           CMainFrame* mainFrame)
    : m_settings(settings), m_mainFrame(mainFrame) {}

void CNotificationActions::openUrl(const std::string& url) {
    // A feed decides its links: only web addresses go to the desktop's opener, so a link to a
    // local file (a .desktop launcher, say) never runs anything.
    QUrl address(fromLatin1(url), QUrl::TolerantMode);
    const QString scheme = address.scheme().toLower();
    if (!address.isValid() || (scheme != "http" && scheme != "https" && scheme != "ftp")) {
        PELSU_LOG_DETAIL(queueGroup(), "- Not a web address - not opened: " << url);
        return;
    }
    QDesktopServices::openUrl(address);
}

void CNotificationActions::markItemViewed(const std::string& channelId,
                                          const std::string& feedItemId) {
    std::string problem;
    if (m_settings.markViewed(channelId, feedItemId) &&
        !m_settings.save(channelId, std::nullopt, &problem))
        PELSU_LOG(queueGroup(), "Can't save the channel desktop settings for "
                                    << m_settings.channelName(channelId) << ": " << problem);
}

void CNotificationActions::openChannelView(const std::string& channelId) {
    if (m_mainFrame)
        m_mainFrame->showChannelView(channelId);
}

void CNotificationActions::openErrorLog() {
    if (m_mainFrame)
        m_mainFrame->showErrorLog();
}

CNotificationPresenter::CNotificationPresenter(NotificationRequestQueue& queue,
                                               ChannelDesktopSettingsTable& settings,
                                               const app::GlobalOptions& options,
                                               NotificationActions& actions, CTrayIcon& trayIcon,
                                               CSoundPlayer* sounds, QObject* parent)
    : QObject(parent), m_queue(queue), m_settings(settings), m_options(options), m_actions(actions),
      m_trayIcon(trayIcon), m_sounds(sounds),
      m_notifications(std::make_unique<CDesktopNotifications>()),
      m_image(programIcon().pixmap(48).toImage()) {
    m_poll.setInterval(kPollMs);
    connect(&m_poll, &QTimer::timeout, this, &CNotificationPresenter::processNext);
    m_trayTime.setSingleShot(true);
    connect(&m_trayTime, &QTimer::timeout, this, &CNotificationPresenter::finishCurrent);
    m_serverSilence.setSingleShot(true);
    connect(&m_serverSilence, &QTimer::timeout, this, &CNotificationPresenter::finishCurrent);
    connect(m_notifications.get(), &CDesktopNotifications::shown, this,
            &CNotificationPresenter::onShown);
    connect(m_notifications.get(), &CDesktopNotifications::failed, this,
            &CNotificationPresenter::onFailed);
    connect(m_notifications.get(), &CDesktopNotifications::actionInvoked, this,
            &CNotificationPresenter::onActionInvoked);
    connect(m_notifications.get(), &CDesktopNotifications::closed, this,
            [this](unsigned id, unsigned) { onClosed(id); });
    connect(m_notifications.get(), &CDesktopNotifications::capabilities, this,
            [this](const QStringList& capabilities, bool answered) {
                // Without an answer the usual case is assumed: servers read mark-up.
                m_markup = !answered || capabilities.contains("body-markup");
                m_capabilitiesKnown = true;
                processNext();
            });
    connect(&m_trayIcon, &CTrayIcon::messageClicked, this,
            &CNotificationPresenter::onTrayMessageClicked);
}

CNotificationPresenter::~CNotificationPresenter() = default;

void CNotificationPresenter::start() {
    m_running = true;
    m_notifications->queryCapabilities();
    m_poll.start();
    processNext();
}

void CNotificationPresenter::stop() {
    m_running = false;
    m_poll.stop();
    m_trayTime.stop();
    m_serverSilence.stop();
}

void CNotificationPresenter::processNext() {
    // The first request waits for the server's capabilities, which say how to write bodies.
    if (!m_running || m_current || !m_capabilitiesKnown)
        return;
    if (auto request = m_queue.processNext())
        show(std::move(request));
}

void CNotificationPresenter::show(std::unique_ptr<NotificationRequest> request) {
    m_current = std::move(request);
    m_poll.stop();
    m_id = 0;
    m_inTray = false;
    QString body = fromLatin1(m_current->body());
    if (m_markup)
        body = body.toHtmlEscaped();
    int timeoutMs = m_options.notificationBalloonDisplayTime * 1000;
    m_ticket = m_notifications->notify(fromLatin1(m_current->title()), body, m_image, timeoutMs,
                                       balloonCorner(m_options.notificationBalloonPosition));
    react(*m_current);
}

// The sound and the animation that go with a request.
void CNotificationPresenter::react(const NotificationRequest& request) {
    SoundChoice sound;
    if (request.kind() == NotificationRequest::Kind::Error) {
        sound = errorSound(m_options);
    } else if (isNewItem(request)) {
        ChannelDesktopSettings settings = m_settings.get(request.channelId());
        sound = newItemSound(m_options, settings.playSoundOnNewItem, settings.newItemSoundFile);
        if (settings.animateOnNewItem && !m_options.disableAllAnimation)
            m_trayIcon.animate();
    }
    if (m_sounds)
        m_sounds->play(sound);
}

void CNotificationPresenter::onShown(unsigned ticket, unsigned id) {
    if (!m_current || ticket != m_ticket)
        return;
    m_id = id;
    int displayMs = m_options.notificationBalloonDisplayTime * 1000;
    m_serverSilence.start(displayMs + kServerSilenceGraceMs);
    emit shown(fromLatin1(m_current->title()), fromLatin1(m_current->body()), false);
}

void CNotificationPresenter::onFailed(unsigned ticket, const QString& reason) {
    if (!m_current || ticket != m_ticket)
        return;
    PELSU_LOG(queueGroup(), "No notification server answered - showing the request in the tray: "
                                << reason.toStdString());
    showInTray();
}

void CNotificationPresenter::showInTray() {
    m_inTray = true;
    int displayMs = m_options.notificationBalloonDisplayTime * 1000;
    QString title = fromLatin1(m_current->title());
    QString body = fromLatin1(m_current->body());
    m_trayIcon.showMessage(title, body, m_current->kind() == NotificationRequest::Kind::Error,
                           displayMs);
    m_trayTime.start(displayMs);
    emit shown(title, body, true);
}

void CNotificationPresenter::onActionInvoked(unsigned id, const QString& actionKey) {
    if (!m_current || m_inTray || id != m_id || actionKey != "default")
        return;
    m_current->click(m_actions);
    emit clicked();
    // The user has acted on it: it goes, and its close brings the next one.
    m_notifications->close(id);
}

void CNotificationPresenter::onTrayMessageClicked() {
    if (!m_current || !m_inTray)
        return;
    m_current->click(m_actions);
    emit clicked();
    finishCurrent();
}

void CNotificationPresenter::onClosed(unsigned id) {
    if (m_current && !m_inTray && id == m_id)
        finishCurrent();
}

void CNotificationPresenter::finishCurrent() {
    if (!m_current)
        return;
    m_trayTime.stop();
    m_serverSilence.stop();
    m_current.reset();
    m_id = 0;
    emit finished();
    if (m_running) {
        m_poll.start();
        processNext();
    }
}

} // namespace trayClient

// Each class's meta-object code goes with its own object file, so that a program links only
// the classes it uses.
#include "moc_notificationPresenter.cpp" // NOLINT(bugprone-suspicious-include)
