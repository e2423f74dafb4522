#include "trayClient/controlCenter.h"

#include "trayClient/uiStyle.h"

#include <QHeaderView>
#include <QHelpEvent>
#include <QSplitter>
#include <QStyle>
#include <QToolTip>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <algorithm>

namespace trayClient {

namespace {

const int kIdRole = Qt::UserRole;
const int kNameRole = Qt::UserRole + 1;
const int kUnviewedRole = Qt::UserRole + 2;
const int kAutoUpdateRole = Qt::UserRole + 3;

QTreeWidget* makeTree(const QString& title, QWidget* parent) {
    auto* tree = new QTreeWidget(parent);
    tree->setObjectName(title);
    tree->setHeaderLabel(title);
    tree->setAccessibleName(title);
    tree->setRootIsDecorated(false);
    tree->setUniformRowHeights(true);
    tree->header()->setSectionsClickable(false);
    return tree;
}

// Channels are listed by name as a person reads them: case does not count.
bool nameBefore(const QString& left, const QString& right) {
    return QString::localeAwareCompare(left.toCaseFolded(), right.toCaseFolded()) < 0;
}

void storeEntry(QTreeWidgetItem& item, const CControlCenter::ChannelEntry& entry) {
    item.setData(0, kIdRole, entry.id);
    item.setData(0, kNameRole, entry.name);
    item.setData(0, kUnviewedRole, entry.unviewed);
    item.setData(0, kAutoUpdateRole, entry.autoUpdate);
}

} // namespace

CControlCenter::CControlCenter(QWidget* parent) : QWidget(parent) {
    auto* splitter = new QSplitter(Qt::Vertical, this);
    m_channels = makeTree("My Channels", splitter);
    m_plugins = makeTree("App Plugins", splitter);
    splitter->setStretchFactor(0, 3);
    splitter->setStretchFactor(1, 1);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(splitter);
    applyOptions(app::GlobalOptions{});

    for (QTreeWidget* tree : {m_channels, m_plugins}) {
        connect(tree, &QTreeWidget::itemActivated, this, &CControlCenter::emitActivated);
        connect(tree, &QTreeWidget::itemClicked, this, &CControlCenter::onItemClicked);
    }
    m_channels->viewport()->installEventFilter(this);
    connect(m_channels, &QTreeWidget::currentItemChanged, this,
            [this] { emit selectedChannelChanged(selectedChannelId()); });
}

void CControlCenter::setChannels(std::vector<ChannelEntry> channels) {
    const QString selected = selectedChannelId();
    std::stable_sort(channels.begin(), channels.end(), [](const auto& left, const auto& right) {
        return nameBefore(left.name, right.name);
    });
    {
        const QSignalBlocker blocker(m_channels);
        m_channels->clear();
        for (const ChannelEntry& entry : channels) {
            auto* item = new QTreeWidgetItem(m_channels);
            storeEntry(*item, entry);
            decorate(*item);
        }
    }
    // Errors of channels that are gone are forgotten with them.
    for (auto it = m_errors.begin(); it != m_errors.end();)
        it = channelItem(it.key()) ? std::next(it) : m_errors.erase(it);
    if (!selectChannel(selected) && !selected.isEmpty())
        emit selectedChannelChanged(QString());
}

void CControlCenter::updateChannel(const ChannelEntry& channel) {
    QTreeWidgetItem* item = channelItem(channel.id);
    const bool current = item && item == m_channels->currentItem();
    if (!item || item->data(0, kNameRole).toString() != channel.name) {
        // A new channel, or one whose feed gave it a name, takes its place in name order.
        const QSignalBlocker blocker(m_channels);
        delete item;
        item = new QTreeWidgetItem;
        m_channels->insertTopLevelItem(rowFor(channel.name), item);
        if (current)
            m_channels->setCurrentItem(item);
    }
    storeEntry(*item, channel);
    decorate(*item);
}

int CControlCenter::rowFor(const QString& name) const {
    int row = 0;
    while (row < m_channels->topLevelItemCount() &&
           !nameBefore(name, m_channels->topLevelItem(row)->data(0, kNameRole).toString()))
        ++row;
    return row;
}

void CControlCenter::removeChannel(const QString& channelId) {
    m_errors.remove(channelId);
    delete channelItem(channelId);
}

void CControlCenter::setChannelError(const QString& channelId, const QString& text) {
    if (text.isEmpty())
        m_errors.remove(channelId);
    else
        m_errors.insert(channelId, text);
    if (QTreeWidgetItem* item = channelItem(channelId))
        decorate(*item);
}

void CControlCenter::decorate(QTreeWidgetItem& item) const {
    const QString id = item.data(0, kIdRole).toString();
    const QString name = item.data(0, kNameRole).toString();
    const int unviewed = item.data(0, kUnviewedRole).toInt();
    const QString text = QString("%1 (%2)").arg(name).arg(unviewed);
    item.setText(0, text);
    item.setForeground(0, item.data(0, kAutoUpdateRole).toBool() ? m_autoUpdateColour
                                                                 : m_nonAutoUpdateColour);
    QFont font = m_channels->font();
    font.setBold(unviewed > 0);
    item.setFont(0, font);
    const QString error = m_errors.value(id);
    item.setIcon(0,
                 error.isEmpty() ? QIcon() : style()->standardIcon(QStyle::SP_MessageBoxCritical));
    item.setToolTip(0, error);
    item.setData(0, Qt::AccessibleTextRole,
                 error.isEmpty() ? text : text + ", update failed: " + error);
}

void CControlCenter::setAppPlugins(const std::vector<std::pair<QString, QString>>& plugins) {
    m_plugins->clear();
    for (const auto& [id, name] : plugins) {
        auto* item = new QTreeWidgetItem(m_plugins, QStringList{name.isEmpty() ? id : name});
        item->setData(0, kIdRole, id);
    }
}

void CControlCenter::applyOptions(const app::GlobalOptions& options) {
    m_autoUpdateColour = fromColourRef(options.controlCenterAutoUpdateChannelFgdCol);
    m_nonAutoUpdateColour = fromColourRef(options.controlCenterNonAutoUpdateChannelFgdCol);
    m_oneClick = options.oneClickMode;
    m_briefSummaries = options.showBriefChannelSummaries;
    m_channels->setFont(fontFromOptions(options.controlCenterMyChannelsFontName,
                                        options.controlCenterMyChannelsFontSize));
    setViewColours(*m_channels, m_autoUpdateColour,
                   fromColourRef(options.controlCenterMyChannelsBgdCol));
    m_plugins->setFont(fontFromOptions(options.controlCenterAppPluginsFontName,
                                       options.controlCenterAppPluginsFontSize));
    setViewColours(*m_plugins, fromColourRef(options.controlCenterAppPluginsFgdCol),
                   fromColourRef(options.controlCenterAppPluginsBgdCol));
    for (int row = 0; row < m_channels->topLevelItemCount(); ++row)
        decorate(*m_channels->topLevelItem(row));
}

QString CControlCenter::selectedChannelId() const {
    QTreeWidgetItem* item = m_channels->currentItem();
    return item ? item->data(0, kIdRole).toString() : QString();
}

bool CControlCenter::selectChannel(const QString& channelId) {
    QTreeWidgetItem* item = channelItem(channelId);
    if (!item)
        return false;
    m_channels->setCurrentItem(item);
    return true;
}

QTreeWidgetItem* CControlCenter::channelItem(const QString& channelId) const {
    if (channelId.isEmpty())
        return nullptr;
    for (int row = 0; row < m_channels->topLevelItemCount(); ++row)
        if (m_channels->topLevelItem(row)->data(0, kIdRole).toString() == channelId)
            return m_channels->topLevelItem(row);
    return nullptr;
}

QString CControlCenter::pluginName(const QString& pluginId) const {
    for (int row = 0; row < m_plugins->topLevelItemCount(); ++row)
        if (m_plugins->topLevelItem(row)->data(0, kIdRole).toString() == pluginId)
            return m_plugins->topLevelItem(row)->text(0);
    return pluginId;
}

QString CControlCenter::channelToolTip(const QString& channelId) const {
    const QString error = m_errors.value(channelId);
    if (!m_briefSummaries || !m_summaryProvider)
        return error;
    QString tip = m_summaryProvider(channelId);
    if (!error.isEmpty())
        tip += "<p><b>" + tr("Last update failed:") + "</b> " + error.toHtmlEscaped() + "</p>";
    return tip;
}

bool CControlCenter::eventFilter(QObject* watched, QEvent* event) {
    if (watched != m_channels->viewport() || event->type() != QEvent::ToolTip || !m_briefSummaries)
        return QWidget::eventFilter(watched, event);
    const auto* help = static_cast<QHelpEvent*>(event);
    const QTreeWidgetItem* item = m_channels->itemAt(help->pos());
    const QString tip = item ? channelToolTip(item->data(0, kIdRole).toString()) : QString();
    if (tip.isEmpty())
        QToolTip::hideText();
    else
        QToolTip::showText(help->globalPos(), tip, m_channels->viewport(),
                           m_channels->visualItemRect(item));
    return true;
}

void CControlCenter::onItemClicked(QTreeWidgetItem* item) {
    // Styles that activate on a single click already did.
    if (m_oneClick && !style()->styleHint(QStyle::SH_ItemView_ActivateItemOnSingleClick))
        emitActivated(item);
}

void CControlCenter::emitActivated(QTreeWidgetItem* item) {
    if (!item)
        return;
    const QString id = item->data(0, kIdRole).toString();
    if (item->treeWidget() == m_channels)
        emit channelActivated(id);
    else
        emit appPluginActivated(id);
}

} // namespace trayClient

// Each class's meta-object code goes with its own object file, so that a program links only
// the classes it uses.
#include "moc_controlCenter.cpp" // NOLINT(bugprone-suspicious-include)
