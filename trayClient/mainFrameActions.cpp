#include "trayClient/mainFrameActions.h"

#include "channels/channelManager.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/mainFrame.h"

#include <QAction>
#include <QApplication>
#include <QDockWidget>
#include <QMainWindow>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QMenuBar>
#include <QMessageBox>
#include <QStyle>
#include <QToolBar>

namespace trayClient {

namespace {

// One command: its text, its keys (the desktop's standard key, else the fallback), what it
// does in a few words, and its icon for the tool bar.
struct ActionRow {
    QAction* MainFrameActions::*field;
    const char* objectName;
    const char* text;
    QKeySequence::StandardKey standardKey;
    const char* fallbackKey;
    const char* description;
    const char* themeIcon;
    QStyle::StandardPixmap styleIcon;
};

using A = MainFrameActions;
using K = QKeySequence;
const QStyle::StandardPixmap kNoIcon = QStyle::SP_CustomBase;

const ActionRow kActions[] = {
    {&A::newChannel, "newChannel", "&New Channel…", K::New, "Ctrl+N", "Subscribe to a new channel",
     "document-new", QStyle::SP_FileIcon},
    {&A::updateChannel, "updateChannel", "&Update Channel", K::Refresh, "F5",
     "Update the selected channel now", "view-refresh", QStyle::SP_BrowserReload},
    {&A::updateAll, "updateAll", "Update &All", K::UnknownKey, "Shift+F5",
     "Update every channel now", "view-refresh", QStyle::SP_BrowserReload},
    {&A::channelProperties, "channelProperties", "Channel &Properties…", K::UnknownKey,
     "Alt+Return", "Change the selected channel's properties", "document-properties",
     QStyle::SP_FileDialogDetailedView},
    {&A::deleteChannel, "deleteChannel", "&Delete Channel", K::Delete, "Del",
     "Delete the selected channel", "edit-delete", QStyle::SP_TrashIcon},
    {&A::importOpml, "importOpml", "&Import OPML…", K::UnknownKey, "Ctrl+I",
     "Subscribe to the channels of an OPML file", "document-import", kNoIcon},
    {&A::exportOpml, "exportOpml", "&Export OPML…", K::UnknownKey, "Ctrl+E",
     "Write the channels to an OPML file", "document-export", kNoIcon},
    {&A::globalOptions, "globalOptions", "&Global Options…", K::Preferences, "Ctrl+,",
     "Change the program's options", "preferences-system", kNoIcon},
    {&A::markAllViewed, "markAllViewed", "&Mark All Viewed", K::UnknownKey, "Ctrl+Shift+M",
     "Mark every item of the open channel viewed", "mail-mark-read", QStyle::SP_DialogApplyButton},
    {&A::nextUnviewedItem, "nextUnviewedItem", "&Next Unviewed Item", K::UnknownKey, "Ctrl+Shift+N",
     "Show the open channel's next unviewed item", "go-next", QStyle::SP_ArrowForward},
    {&A::about, "about", "&About Pelsu", K::HelpContents, "F1", "Show the program's version",
     "help-about", kNoIcon},
    {&A::exit, "exit", "E&xit", K::Quit, "Ctrl+Q", "Stop the program", "application-exit", kNoIcon},
};

// The dock toggles: the docks make the actions, this gives them their texts and keys.
struct ToggleRow {
    QAction* MainFrameActions::*field;
    const char* text;
    const char* key;
};

const ToggleRow kToggles[] = {
    {&A::showControlCenter, "&Control Center", "Ctrl+Shift+C"},
    {&A::showActivityLog, "Ac&tivity Log", "Ctrl+Shift+A"},
    {&A::showErrorLog, "E&rror Log", "Ctrl+Shift+E"},
};

QString accessibleText(const QString& text) { return QString(text).remove('&').remove("…"); }

QAction* makeAction(QMainWindow& window, const ActionRow& entry) {
    auto* action = new QAction(QString::fromUtf8(entry.text), &window);
    action->setObjectName(entry.objectName);
    QList<QKeySequence> keys = QKeySequence::keyBindings(entry.standardKey);
    if (keys.isEmpty())
        keys << QKeySequence(QString::fromLatin1(entry.fallbackKey));
    action->setShortcuts(keys);
    const QString description = QString::fromUtf8(entry.description);
    action->setToolTip(description + " (" + keys.first().toString(QKeySequence::NativeText) + ")");
    action->setStatusTip(description);
    action->setWhatsThis(description);
    QIcon icon = QIcon::fromTheme(entry.themeIcon);
    if (icon.isNull() && entry.styleIcon != kNoIcon)
        icon = window.style()->standardIcon(entry.styleIcon);
    action->setIcon(icon);
    // The window's own key, not the active child's: the children keep theirs.
    action->setShortcutContext(Qt::WindowShortcut);
    return action;
}

void addMenus(QMainWindow& window, const MainFrameActions& a) {
    QMenu* file = window.menuBar()->addMenu("&File");
    file->addActions({a.newChannel, a.importOpml, a.exportOpml});
    file->addSeparator();
    file->addAction(a.globalOptions);
    file->addSeparator();
    file->addAction(a.exit);
    QMenu* channel = window.menuBar()->addMenu("&Channel");
    channel->addActions({a.updateChannel, a.updateAll});
    channel->addSeparator();
    channel->addActions({a.markAllViewed, a.nextUnviewedItem});
    channel->addSeparator();
    channel->addActions({a.channelProperties, a.deleteChannel});
    QMenu* view = window.menuBar()->addMenu("&View");
    view->addActions({a.showControlCenter, a.showActivityLog, a.showErrorLog});
    QMenu* help = window.menuBar()->addMenu("&Help");
    help->addAction(a.about);
}

void addToolBar(QMainWindow& window, const MainFrameActions& a) {
    QToolBar* bar = window.addToolBar("Main");
    bar->setObjectName("mainToolBar");
    bar->setAccessibleName("Main tool bar");
    bar->addActions({a.newChannel, a.updateChannel, a.updateAll});
    bar->addSeparator();
    bar->addActions({a.markAllViewed, a.nextUnviewedItem});
    bar->addSeparator();
    bar->addActions({a.channelProperties, a.deleteChannel});
    for (QAction* action : bar->actions())
        if (QWidget* button = bar->widgetForAction(action); button && !action->isSeparator())
            button->setAccessibleName(accessibleText(action->text()));
}

} // namespace

QList<QAction*> MainFrameActions::all() const {
    QList<QAction*> actions;
    for (const ActionRow& entry : kActions)
        actions << this->*entry.field;
    for (const ToggleRow& entry : kToggles)
        actions << this->*entry.field;
    return actions;
}

MainFrameActions createMainFrameActions(QMainWindow& window, QDockWidget& controlCenter,
                                        QDockWidget& activityLog, QDockWidget& errorLog) {
    MainFrameActions actions;
    for (const ActionRow& entry : kActions)
        actions.*entry.field = makeAction(window, entry);
    actions.showControlCenter = controlCenter.toggleViewAction();
    actions.showActivityLog = activityLog.toggleViewAction();
    actions.showErrorLog = errorLog.toggleViewAction();
    for (const ToggleRow& entry : kToggles) {
        QAction* toggle = actions.*entry.field;
        toggle->setText(QString::fromUtf8(entry.text));
        toggle->setShortcut(QKeySequence(QString::fromLatin1(entry.key)));
        toggle->setStatusTip("Show or hide the " + accessibleText(toggle->text()));
    }
    // Delete belongs to the channel tree: in a child window (a plugin's form, say) the key
    // deletes text, not the channel.
    actions.deleteChannel->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    controlCenter.addAction(actions.deleteChannel);
    addMenus(window, actions);
    addToolBar(window, actions);
    return actions;
}

// The commands of the main window.

void CMainFrame::connectActions() {
    const MainFrameActions& a = m_actions;
    connect(a.newChannel, &QAction::triggered, this, &CMainFrame::newChannelRequested);
    connect(a.updateChannel, &QAction::triggered, this, &CMainFrame::updateSelectedChannel);
    connect(a.updateAll, &QAction::triggered, this, &CMainFrame::updateAllChannels);
    connect(a.channelProperties, &QAction::triggered, this, [this] {
        if (QString id = selectedChannelId(); !id.isEmpty())
            emit channelPropertiesRequested(id);
    });
    connect(a.deleteChannel, &QAction::triggered, this, &CMainFrame::deleteSelectedChannel);
    connect(a.importOpml, &QAction::triggered, this, &CMainFrame::importOpmlRequested);
    connect(a.exportOpml, &QAction::triggered, this, &CMainFrame::exportOpmlRequested);
    connect(a.globalOptions, &QAction::triggered, this, &CMainFrame::globalOptionsRequested);
    connect(a.markAllViewed, &QAction::triggered, this,
            [this] { forwardToActiveChild("markAllViewed"); });
    connect(a.nextUnviewedItem, &QAction::triggered, this,
            [this] { forwardToActiveChild("nextUnviewedItem"); });
    connect(a.about, &QAction::triggered, this, &CMainFrame::showAbout);
    connect(a.exit, &QAction::triggered, this, &CMainFrame::exitRequested);
    connect(m_controlCenter, &CControlCenter::selectedChannelChanged, this,
            &CMainFrame::updateActionStates);
    updateActionStates();
}

namespace {

bool hasSlot(const QWidget* widget, const char* slot) {
    return widget && widget->metaObject()->indexOfMethod(
                         QMetaObject::normalizedSignature((std::string(slot) + "()").c_str())) >= 0;
}

} // namespace

void CMainFrame::updateActionStates() {
    const bool channelSelected = m_manager && !selectedChannelId().isEmpty();
    m_actions.updateChannel->setEnabled(channelSelected);
    m_actions.channelProperties->setEnabled(!selectedChannelId().isEmpty());
    m_actions.deleteChannel->setEnabled(channelSelected);
    m_actions.updateAll->setEnabled(m_manager != nullptr);
    QWidget* child = activeChild();
    m_actions.markAllViewed->setEnabled(hasSlot(child, "markAllViewed"));
    m_actions.nextUnviewedItem->setEnabled(hasSlot(child, "nextUnviewedItem"));
}

void CMainFrame::updateSelectedChannel() {
    if (QString id = selectedChannelId(); m_manager && !id.isEmpty())
        m_manager->requestUpdate(id.toStdString());
}

void CMainFrame::updateAllChannels() {
    if (!m_manager)
        return;
    for (channels::Channel* channel : m_manager->channels())
        m_manager->requestUpdate(channel->id());
}

void CMainFrame::deleteSelectedChannel() {
    const QString id = selectedChannelId();
    if (!m_manager || id.isEmpty())
        return;
    const QString name = channelName(id.toStdString());
    const auto answer = QMessageBox::question(this, "Delete Channel",
                                              QString("Delete the channel \"%1\"?").arg(name),
                                              QMessageBox::Yes | QMessageBox::No, QMessageBox::No);
    if (answer != QMessageBox::Yes)
        return;
    try {
        m_manager->deleteChannel(id.toStdString());
    } catch (const std::exception& error) {
        QMessageBox::critical(this, "Delete Channel",
                              QString("Couldn't delete the channel \"%1\".\n\n%2")
                                  .arg(name, QString::fromLatin1(error.what())));
        return;
    }
    if (m_settings)
        m_settings->forget(id.toStdString());
    if (QMdiSubWindow* window = findSubWindow("channelId", id))
        window->close();
    m_controlCenter->removeChannel(id);
    updateActionStates();
}

void CMainFrame::forwardToActiveChild(const char* slot) {
    // By name, so that the window does not depend on the classes of its children.
    QWidget* child = activeChild();
    if (hasSlot(child, slot))
        QMetaObject::invokeMethod(child, slot);
}

void CMainFrame::showAbout() {
#ifdef PELSU_VERSION
    const QString version = PELSU_VERSION;
#else
    const QString version;
#endif
    QMessageBox::about(this, "About Pelsu",
                       "Pelsu Desktop Client\nVersion " + version +
                           "\n\nNews from your channels, in the notification area.");
}

} // namespace trayClient
