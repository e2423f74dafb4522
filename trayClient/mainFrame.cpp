#include "trayClient/mainFrame.h"

#include "channels/channelManager.h"
#include "channels/channelSummaryPage.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/channelItems.h"
#include "trayClient/trayIcon.h"
#include "trayClient/uiStyle.h"

#include <QCloseEvent>
#include <QDateTime>
#include <QDockWidget>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QPlainTextEdit>
#include <QSettings>
#include <QStatusBar>
#include <QTextBlock>
#include <QTreeWidget>

#include <algorithm>

namespace trayClient {

namespace {

QPlainTextEdit* makePane(const QString& name, QWidget* parent) {
    auto* pane = new QPlainTextEdit(parent);
    pane->setReadOnly(true);
    pane->setLineWrapMode(QPlainTextEdit::NoWrap);
    pane->setAccessibleName(name);
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

CMainFrame::CMainFrame(const app::GlobalOptions& options, QString layoutFile, QWidget* parent)
    : QMainWindow(parent), m_layoutFile(std::move(layoutFile)),
      m_endOfUpdate([this](std::function<void()> task) {
          QMetaObject::invokeMethod(this, std::move(task), Qt::QueuedConnection);
      }) {
    setWindowTitle("Pelsu");
    setWindowIcon(programIcon());
    setObjectName("mainFrame");
    resize(960, 640);
    m_mdi = new QMdiArea(this);
    m_mdi->setTabsClosable(true);
    m_mdi->setTabsMovable(true);
    m_mdi->setAccessibleName("Channel windows");
    setCentralWidget(m_mdi);

    m_controlCenter = new CControlCenter(this);
    m_controlDock =
        addPaneDock("Control Center", "controlCenterDock", m_controlCenter, Qt::LeftDockWidgetArea);
    m_activity = makePane("Activity Log", this);
    m_activityDock =
        addPaneDock("Activity Log", "activityLogDock", m_activity, Qt::BottomDockWidgetArea);
    m_errors = makePane("Error Log", this);
    m_errorDock = addPaneDock("Error Log", "errorLogDock", m_errors, Qt::BottomDockWidgetArea);
    tabifyDockWidget(m_activityDock, m_errorDock);
    m_activityDock->raise();

    m_actions = createMainFrameActions(*this, *m_controlDock, *m_activityDock, *m_errorDock);
    connectActions();
    connectWindows();
    // The actions' tips show on the status bar.
    statusBar();
    applyOptions(options);
    restoreLayout();
}

CMainFrame::~CMainFrame() {
    detach();
    saveLayout();
}

void CMainFrame::connectWindows() {
    // The channel commands on the tree's own menu.
    QTreeWidget* tree = m_controlCenter->channelTree();
    tree->addActions(
        {m_actions.updateChannel, m_actions.channelProperties, m_actions.deleteChannel});
    tree->setContextMenuPolicy(Qt::ActionsContextMenu);
    connect(m_controlCenter, &CControlCenter::channelActivated, this,
            [this](const QString& id) { openChannelWindow(id); });
    connect(m_controlCenter, &CControlCenter::appPluginActivated, this, [this](const QString& id) {
        emit appPluginRequested(id);
        openPluginWindow(id);
    });
    connect(m_mdi, &QMdiArea::subWindowActivated, this, &CMainFrame::onSubWindowActivated);
    m_controlCenter->setSummaryProvider([this](const QString& id) { return briefSummary(id); });
}

QDockWidget* CMainFrame::addPaneDock(const QString& title, const QString& name, QWidget* widget,
                                     Qt::DockWidgetArea area) {
    auto* dock = new QDockWidget(title, this);
    dock->setObjectName(name);
    dock->setWidget(widget);
    addDockWidget(area, dock);
    return dock;
}

void CMainFrame::setContext(channels::ChannelManager* manager,
                            ChannelDesktopSettingsTable* settings,
                            const app::GlobalOptions* options) {
    m_manager = manager;
    m_settings = settings;
    if (options)
        applyOptions(*options);
    refreshChannels();
    updateActionStates();
}

void CMainFrame::setAppPlugins(const std::vector<std::pair<QString, QString>>& plugins) {
    m_controlCenter->setAppPlugins(plugins);
}

void CMainFrame::applyOptions(const app::GlobalOptions& options) {
    m_controlCenter->applyOptions(options);
    m_activity->setFont(fontFromOptions(options.activityLogFontName, options.activityLogFontSize));
    setViewColours(*m_activity, fromColourRef(options.activityLogFgdCol),
                   fromColourRef(options.activityLogBgdCol));
    m_errors->setFont(fontFromOptions(options.errorLogFontName, options.errorLogFontSize));
    setViewColours(*m_errors, fromColourRef(options.errorLogFgdCol),
                   fromColourRef(options.errorLogBgdCol));
    setPaneLimits(options.maxActivityLogMsgs, options.maxErrorLogMsgs);
    m_mdi->setViewMode(options.mdiTabs == 1 ? QMdiArea::TabbedView : QMdiArea::SubWindowView);
    m_maximizeChildren = options.maximizeFrameWindows;
    applyTaskbarChoice(options.hideInTaskbar);
}

void CMainFrame::applyTaskbarChoice(bool hideInTaskbar) {
    // A tool window is left off the task bar by the window managers; the tray icon brings
    // it back.
    if (windowFlags().testFlag(Qt::Tool) == hideInTaskbar)
        return;
    const bool visible = isVisible();
    setWindowFlag(Qt::Tool, hideInTaskbar);
    if (visible)
        show();
}

void CMainFrame::setPaneLimits(int maxActivityLines, int maxErrorLines) {
    // A document bounded to N blocks drops its first block as the (N+1)th arrives.
    m_activity->setMaximumBlockCount(std::max(0, maxActivityLines));
    m_errors->setMaximumBlockCount(std::max(0, maxErrorLines));
}

void CMainFrame::restoreLayout() {
    if (m_layoutFile.isEmpty())
        return;
    QSettings layout(m_layoutFile, QSettings::IniFormat);
    restoreGeometry(layout.value("MainFrame/geometry").toByteArray());
    restoreState(layout.value("MainFrame/state").toByteArray());
}

void CMainFrame::saveLayout() const {
    if (m_layoutFile.isEmpty())
        return;
    QSettings layout(m_layoutFile, QSettings::IniFormat);
    layout.setValue("MainFrame/geometry", saveGeometry());
    layout.setValue("MainFrame/state", saveState());
}

void CMainFrame::closeEvent(QCloseEvent* event) {
    saveLayout();
    event->ignore();
    hide();
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

void CMainFrame::postChannelError(const std::string& channelId, const std::string& text) {
    QMetaObject::invokeMethod(
        this,
        [this, id = QString::fromStdString(channelId), text = QString::fromLatin1(text.c_str())] {
            setChannelError(id, text);
        },
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
    const QString id = QString::fromStdString(channelId);
    refreshChannel(id);
    emit channelUpdateEnded(id);
}

void CMainFrame::setChannelError(const QString& channelId, const QString& text) {
    m_controlCenter->setChannelError(channelId, text);
}

QString CMainFrame::channelName(const std::string& channelId) const {
    // The table has the name the worker last gave the channel; one whose feed has not named
    // it yet shows its id.
    std::string name = m_settings ? m_settings->channelName(channelId) : std::string();
    if (name.empty() || name == "<Unknown>")
        name = channelId;
    return QString::fromLatin1(name.c_str());
}

CControlCenter::ChannelEntry CMainFrame::channelEntry(const channels::Channel& channel) const {
    CControlCenter::ChannelEntry entry;
    entry.id = QString::fromLatin1(channel.id().c_str());
    entry.name = channelName(channel.id());
    entry.unviewed = unviewedCount(channel);
    entry.autoUpdate = channel.settings().isAutoUpdateEnabled();
    return entry;
}

QString CMainFrame::briefSummary(const QString& channelId) const {
    const channels::Channel* channel =
        m_manager ? m_manager->findChannel(channelId.toStdString()) : nullptr;
    if (!channel || !m_settings)
        return {};
    const int headlines = 5;
    const auto rows = channelItemRows(*channel, *m_settings, headlines);
    const auto items = static_cast<int>(channel->state().itemCount());
    QString text =
        "<p><b>" + channelName(channel->id()).toHtmlEscaped() + "</b><br>" +
        (items == 1 ? tr("1 item") : tr("%1 items").arg(items)) + ", " +
        tr("%1 unviewed").arg(unviewedCount(*channel)) + "<br>" +
        tr("Last fetched: %1")
            .arg(QString::fromLatin1(channels::fetchTimeText(channel->state().lastFetchTime())));
    text += "</p>";
    for (const ChannelItemRow& row : rows) {
        const QString title =
            QString::fromLatin1(row.title.empty() ? row.url : row.title).toHtmlEscaped();
        text += row.viewed ? "<div>" + title + "</div>" : "<div><b>" + title + "</b></div>";
    }
    return text;
}

int CMainFrame::unviewedCount(const channels::Channel& channel) const {
    if (!m_settings)
        return 0;
    // With nothing viewed every item counts, and the count is read from the channel file
    // without loading the feed: listing many channels at start-up stays cheap.
    if (m_settings->get(channel.id()).viewedItems.empty())
        return static_cast<int>(channel.state().itemCount());
    return static_cast<int>(unviewedItemCount(channel, *m_settings));
}

void CMainFrame::refreshChannels() {
    if (!m_manager)
        return;
    std::vector<CControlCenter::ChannelEntry> entries;
    for (const channels::Channel* channel : m_manager->channels())
        entries.push_back(channelEntry(*channel));
    m_controlCenter->setChannels(entries);
    for (const auto& entry : entries)
        if (QMdiSubWindow* window = findSubWindow("channelId", entry.id))
            window->setWindowTitle(entry.name);
}

void CMainFrame::refreshChannel(const QString& channelId) {
    // One row, not the whole tree: with many channels each end of an update would otherwise
    // read every feed.
    const channels::Channel* channel =
        m_manager ? m_manager->findChannel(channelId.toStdString()) : nullptr;
    if (!channel) {
        m_controlCenter->removeChannel(channelId);
        return;
    }
    const CControlCenter::ChannelEntry entry = channelEntry(*channel);
    m_controlCenter->updateChannel(entry);
    if (QMdiSubWindow* window = findSubWindow("channelId", channelId))
        window->setWindowTitle(entry.name);
}

void CMainFrame::channelItemsViewedChanged(const QString& channelId) { refreshChannel(channelId); }

QMdiSubWindow* CMainFrame::findSubWindow(const char* property, const QString& id) const {
    for (QMdiSubWindow* window : m_mdi->subWindowList())
        if (window->property(property).toString() == id)
            return window;
    return nullptr;
}

QMdiSubWindow* CMainFrame::openChannelWindow(const QString& channelId) {
    return openChild("channelId", channelId, m_channelFactory,
                     channelName(channelId.toStdString()));
}

QMdiSubWindow* CMainFrame::openPluginWindow(const QString& pluginId) {
    return openChild("pluginId", pluginId, m_pluginFactory, m_controlCenter->pluginName(pluginId));
}

QMdiSubWindow* CMainFrame::openChild(const char* property, const QString& id,
                                     const WindowFactory& make, const QString& title) {
    if (QMdiSubWindow* open = findSubWindow(property, id)) {
        if (open->isMinimized())
            open->showNormal();
        m_mdi->setActiveSubWindow(open);
        return open;
    }
    QWidget* widget = make ? make(id) : nullptr;
    if (!widget)
        return nullptr;
    QMdiSubWindow* window = m_mdi->addSubWindow(widget);
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->setProperty(property, id);
    window->setWindowTitle(title);
    window->setWindowIcon(widget->windowIcon().isNull() ? windowIcon() : widget->windowIcon());
    if (m_maximizeChildren)
        window->showMaximized();
    else
        window->show();
    m_mdi->setActiveSubWindow(window);
    return window;
}

QWidget* CMainFrame::activeChild() const {
    // The current child stays current while the focus is in a dock.
    QMdiSubWindow* window = m_mdi->currentSubWindow();
    return window ? window->widget() : nullptr;
}

void CMainFrame::onSubWindowActivated(QMdiSubWindow* window) {
    // The tree follows the open channel, so that the channel commands act on it.
    if (window && window->property("channelId").isValid())
        m_controlCenter->selectChannel(window->property("channelId").toString());
    updateActionStates();
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
    const QString id = QString::fromStdString(channelId);
    m_controlCenter->selectChannel(id);
    openChannelWindow(id);
}

void CMainFrame::showErrorLog() {
    showAndRaise();
    m_errorDock->show();
    m_errorDock->raise();
    m_errors->setFocus();
}

QStringList CMainFrame::activityLines() const { return paneLines(*m_activity); }

QStringList CMainFrame::errorLines() const { return paneLines(*m_errors); }

QString CMainFrame::selectedChannelId() const { return m_controlCenter->selectedChannelId(); }

} // namespace trayClient

// Each class's meta-object code goes with its own object file, so that a program links only
// the classes it uses.
#include "moc_mainFrame.cpp" // NOLINT(bugprone-suspicious-include)
