#include "trayClient/quickAccessMenu.h"

#include "channels/channel.h"
#include "channels/channelManager.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/channelItems.h"
#include "trayClient/notificationRequest.h"

#include <QAction>
#include <QFontMetrics>

namespace trayClient {

namespace {

// Titles longer than about this many average characters are cut with an ellipsis.
const int kTitleChars = 60;

QString fromLatin1(const std::string& text) { return QString::fromLatin1(text.c_str()); }

// A menu shows "&" as the start of a shortcut: a feed's text is shown as it is.
QString menuText(const QString& text) {
    QString escaped = text;
    return escaped.replace('&', "&&");
}

QString itemText(const ChannelItemRow& row, const QFont& font) {
    QString title = fromLatin1(row.title).simplified();
    if (title.isEmpty())
        title = row.url.empty() ? QString("(untitled)") : fromLatin1(row.url);
    const QFontMetrics metrics(font);
    return menuText(
        metrics.elidedText(title, Qt::ElideRight, metrics.averageCharWidth() * kTitleChars));
}

QString channelTitle(const channels::Channel& channel) {
    const std::string name = channel.name();
    return fromLatin1(name.empty() ? channel.id() : name);
}

} // namespace

CQuickAccessMenu::CQuickAccessMenu(channels::ChannelManager& manager,
                                   ChannelDesktopSettingsTable& settings,
                                   NotificationActions& actions, QWidget* parent)
    : QMenu(parent), m_manager(manager), m_settings(settings), m_actions(actions) {
    connect(this, &QMenu::aboutToShow, this, &CQuickAccessMenu::rebuild);
    rebuild();
}

void CQuickAccessMenu::rebuild() {
    // The sub-menus are children of this menu and outlive clear(); an action of one may be
    // what is running right now, so they go once control is back in the event loop.
    for (QMenu* old : findChildren<QMenu*>(Qt::FindDirectChildrenOnly))
        old->deleteLater();
    clear();
    bool any = false;
    for (const channels::Channel* channel : m_manager.channels()) {
        const ChannelDesktopSettings record = m_settings.get(channel->id());
        if (!record.useQuickAccessMenu)
            continue;
        addChannel(*channel, record.useQuickAccessSubMenus);
        any = true;
    }
    if (any)
        addSeparator();
    addCommands();
}

void CQuickAccessMenu::addChannel(const channels::Channel& channel, bool subMenu) {
    const std::string channelId = channel.id();
    const QString name = channelTitle(channel);
    if (!subMenu) {
        addSection(menuText(name));
        addItems(*this, channelId, channel);
        return;
    }
    const std::size_t unviewed = unviewedItemCount(channel, m_settings);
    QMenu* menu =
        addMenu(unviewed ? QString("%1 (%2)").arg(menuText(name)).arg(unviewed) : menuText(name));
    QFont font = menu->menuAction()->font();
    font.setBold(unviewed > 0);
    menu->menuAction()->setFont(font);
    addItems(*menu, channelId, channel);
}

void CQuickAccessMenu::addItems(QMenu& menu, const std::string& channelId,
                                const channels::Channel& channel) {
    const std::vector<ChannelItemRow> rows = channelItemRows(channel, m_settings, kItemsPerChannel);
    if (rows.empty()) {
        menu.addAction("(no items)")->setEnabled(false);
        return;
    }
    for (const ChannelItemRow& row : rows) {
        QFont font = menu.font();
        font.setBold(!row.viewed);
        font.setItalic(row.viewed);
        QAction* action = menu.addAction(itemText(row, font));
        action->setFont(font);
        if (!row.url.empty())
            action->setToolTip(fromLatin1(row.url));
        connect(action, &QAction::triggered, this,
                [this, channelId, id = row.id, url = row.url] { openItem(channelId, id, url); });
    }
}

void CQuickAccessMenu::addCommands() {
    addAction("Open Pelsu", this, &CQuickAccessMenu::openMainWindowRequested);
    addAction("Update All Channels", this, &CQuickAccessMenu::updateAll);
    addAction("Global Options\u2026", this, &CQuickAccessMenu::globalOptionsRequested);
    addSeparator();
    addAction("Exit", this, &CQuickAccessMenu::exitRequested);
}

void CQuickAccessMenu::openItem(const std::string& channelId, const std::string& itemId,
                                const std::string& url) {
    m_actions.openUrl(url);
    m_actions.markItemViewed(channelId, itemId);
    emit itemOpened(fromLatin1(channelId));
}

void CQuickAccessMenu::updateAll() {
    for (const channels::Channel* channel : m_manager.channels())
        m_manager.requestUpdate(channel->id());
}

} // namespace trayClient

// Each class's meta-object code goes with its own object file, so that a program links only
// the classes it uses.
#include "moc_quickAccessMenu.cpp" // NOLINT(bugprone-suspicious-include)
