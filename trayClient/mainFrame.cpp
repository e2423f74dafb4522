#include "trayClient/mainFrame.h"

#include "trayClient/channelDesktopSettings.h"
#include "trayClient/trayIcon.h"

#include <QDateTime>
#include <QDockWidget>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QTextBlock>

namespace trayClient {

namespace {

const int kChannelIdRole = Qt::UserRole;

QPlainTextEdit* makePane(QWidget* parent) {
    auto* pane = new QPlainTextEdit(parent);
    pane->setReadOnly(true);
    pane->setLineWrapMode(QPlainTextEdit::NoWrap);
    pane->setFont(QFont("Monospace", 9));
    return pane;
}

QStringList paneLines(const QPlainTextEdit& pane) {
    QStringList lines;
    for (QTextBlock block = pane.document()->begin(); block.isValid(); block = block.next())
        if (!block.text().isEmpty())
            lines << block.text();
    return lines;
}

} // namespace

CMainFrame::CMainFrame(int maxActivityLines, int maxErrorLines, QWidget* parent)
    : QMainWindow(parent), m_endOfUpdate([this](std::function<void()> task) {
          QMetaObject::invokeMethod(this, std::move(task), Qt::QueuedConnection);
      }) {
    setWindowTitle("Pelsu");
    setWindowIcon(programIcon());
    resize(720, 480);
    m_channels = new QListWidget(this);
    setCentralWidget(m_channels);

    m_activity = makePane(this);
    auto* activityDock = new QDockWidget("Activity", this);
    activityDock->setObjectName("activityDock");
    activityDock->setWidget(m_activity);
    addDockWidget(Qt::BottomDockWidgetArea, activityDock);

    m_errors = makePane(this);
    m_errorDock = new QDockWidget("Errors", this);
    m_errorDock->setObjectName("errorDock");
    m_errorDock->setWidget(m_errors);
    addDockWidget(Qt::BottomDockWidgetArea, m_errorDock);
    setPaneLimits(maxActivityLines, maxErrorLines);
}

CMainFrame::~CMainFrame() { detach(); }

void CMainFrame::setPaneLimits(int maxActivityLines, int maxErrorLines) {
    // A document bounded to N blocks drops its first block as the (N+1)th arrives.
    m_activity->setMaximumBlockCount(std::max(0, maxActivityLines));
    m_errors->setMaximumBlockCount(std::max(0, maxErrorLines));
}

void CMainFrame::setChannels(const std::vector<ChannelRef>& channels) {
    m_channels->clear();
    for (const auto& channel : channels)
        showChannel(channel.id, channel.name);
}

void CMainFrame::showChannel(const std::string& channelId, const std::string& name) {
    QString id = QString::fromStdString(channelId);
    QString text = QString::fromLatin1(name.empty() ? channelId.c_str() : name.c_str());
    if (QListWidgetItem* item = findChannelItem(id)) {
        item->setText(text);
        return;
    }
    auto* item = new QListWidgetItem(text, m_channels);
    item->setData(kChannelIdRole, id);
}

QListWidgetItem* CMainFrame::findChannelItem(const QString& channelId) const {
    for (int row = 0; row < m_channels->count(); ++row)
        if (m_channels->item(row)->data(kChannelIdRole).toString() == channelId)
            return m_channels->item(row);
    return nullptr;
}

void CMainFrame::attach() {
    m_endOfUpdate.reopen();
    m_present = true;
}

void CMainFrame::detach() {
    m_present = false;
    m_endOfUpdate.close();
}

void CMainFrame::postActivityLine(ActivityRecord record) {
    QMetaObject::invokeMethod(
        this, [this, record = std::move(record)] { appendLine(*m_activity, record); },
        Qt::QueuedConnection);
}

void CMainFrame::postErrorLine(ActivityRecord record) {
    QMetaObject::invokeMethod(
        this, [this, record = std::move(record)] { appendLine(*m_errors, record); },
        Qt::QueuedConnection);
}

void CMainFrame::appendLine(QPlainTextEdit& pane, const ActivityRecord& record) {
    QString time = QDateTime::fromSecsSinceEpoch(record.time).toString("yyyy-MM-dd HH:mm:ss");
    // One line per record, so that the pane's bound counts records.
    QString text = QString::fromLatin1(record.text.c_str()).replace('\n', ' ');
    pane.appendPlainText(time + "  " + text);
}

void CMainFrame::endChannelUpdate(const std::string& channelId) {
    m_endOfUpdate.run([this, channelId] { handleEndChannelUpdate(channelId); });
}

void CMainFrame::handleEndChannelUpdate(const std::string& channelId) {
    ++m_updatesSeen;
    QString id = QString::fromStdString(channelId);
    if (m_channelNames) {
        // A channel whose feed has not given it a name yet keeps what the list shows.
        std::string name = m_channelNames(channelId);
        if (name == "<Unknown>")
            name.clear();
        if (!name.empty() || !findChannelItem(id))
            showChannel(channelId, name);
    }
    if (QListWidgetItem* item = findChannelItem(id))
        item->setToolTip("Updated " + QDateTime::currentDateTime().toString("HH:mm:ss"));
    emit channelUpdateEnded(id);
}

void CMainFrame::showAndRaise() {
    if (isMinimized())
        showNormal();
    else
        show();
    raise();
    activateWindow();
}

void CMainFrame::showChannelView(const std::string& channelId) {
    showAndRaise();
    if (QListWidgetItem* item = findChannelItem(QString::fromStdString(channelId)))
        m_channels->setCurrentItem(item);
}

void CMainFrame::showErrorLog() {
    showAndRaise();
    m_errorDock->show();
    m_errorDock->raise();
    m_errors->setFocus();
}

QStringList CMainFrame::activityLines() const { return paneLines(*m_activity); }

QStringList CMainFrame::errorLines() const { return paneLines(*m_errors); }

QString CMainFrame::selectedChannelId() const {
    QListWidgetItem* item = m_channels->currentItem();
    return item ? item->data(kChannelIdRole).toString() : QString();
}

} // namespace trayClient

// Each class's meta-object code goes with its own object file, so that a program links only
// the classes it uses.
#include "moc_mainFrame.cpp" // NOLINT(bugprone-suspicious-include)
