#include "trayClient/channelFrame.h"

#include "trayClient/uiStyle.h"

#include "channels/channel.h"
#include "channels/channelManager.h"
#include "channels/channelSummaryPage.h"
#include "channels/exception.h"
#include "lib/log/log.h"
#include "lib/log/msgGroup.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/webPane.h"

#include <QAction>
#include <QFile>
#include <QHeaderView>
#include <QLabel>
#include <QSplitter>
#include <QTreeView>
#include <QVBoxLayout>

#include <ctime>
#include <utility>

namespace trayClient {

namespace {

msglog::MsgGroupRegistration g_windowGroup("ChannelWindow");

QString latin1(const std::string& text) { return QString::fromLatin1(text.c_str()); }

// The options' font sizes are heights in pixels, as the fonts of the panes were always made.
QFont optionFont(const std::string& name, int size, bool italic = false) {
    QFont font(latin1(name));
    font.setPixelSize(size);
    font.setItalic(italic);
    return font;
}

} // namespace

// ---- the item model ----

CChannelItemModel::CChannelItemModel(QObject* parent) : QAbstractTableModel(parent) {}

void CChannelItemModel::setRows(std::vector<ChannelItemRow> rows) {
    if (m_hideViewed)
        std::erase_if(rows, [](const ChannelItemRow& row) { return row.viewed; });
    beginResetModel();
    m_rows = std::move(rows);
    endResetModel();
}

void CChannelItemModel::setStyle(const Style& style) {
    m_style = style;
    if (!m_rows.empty())
        emit dataChanged(index(0, 0), index(rowCount() - 1, ColumnCount - 1));
}

void CChannelItemModel::setViewed(int row) {
    if (row < 0 || row >= rowCount())
        return;
    if (m_hideViewed) {
        beginRemoveRows({}, row, row);
        m_rows.erase(m_rows.begin() + row);
        endRemoveRows();
        return;
    }
    m_rows[static_cast<std::size_t>(row)].viewed = true;
    emit dataChanged(index(row, 0), index(row, ColumnCount - 1));
}

int CChannelItemModel::rowOf(const std::string& itemId) const {
    for (std::size_t i = 0; i < m_rows.size(); ++i)
        if (m_rows[i].id == itemId)
            return static_cast<int>(i);
    return -1;
}

int CChannelItemModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(m_rows.size());
}

int CChannelItemModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant CChannelItemModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= rowCount())
        return {};
    const ChannelItemRow& row = item(index.row());
    switch (role) {
    case Qt::DisplayRole:
        if (index.column() == DateColumn)
            return latin1(row.pubDate);
        // An item without a title is still something to click: show where it leads.
        return latin1(row.title.empty() ? row.url : row.title);
    case Qt::ToolTipRole:
        return latin1(row.url);
    case Qt::ForegroundRole:
        return row.viewed ? m_style.viewedColour : m_style.newColour;
    case Qt::BackgroundRole:
        return m_style.background;
    case Qt::FontRole: {
        QFont font = m_style.font;
        font.setItalic(row.viewed && m_style.italicizeViewed);
        return font;
    }
    default:
        return {};
    }
}

QVariant CChannelItemModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return {};
    return section == TitleColumn ? tr("Title") : tr("Date");
}

// ---- the window ----

CChannelFrame::CChannelFrame(channels::Channel& channel, ChannelDesktopSettingsTable& settings,
                             const app::GlobalOptions& options, const std::string& userDir,
                             QWidget* parent)
    : QWidget(parent), m_channel(channel), m_manager(channel.manager()), m_channelId(channel.id()),
      m_settings(settings), m_options(options), m_userDir(userDir), m_actions(settings, nullptr),
      m_model(new CChannelItemModel(this)) {
    // The engine keeps the page of an open window up to date after each update.
    m_channel.addPageViewer();
    buildLayout();
    applyOptions(options);
    refresh();
}

CChannelFrame::~CChannelFrame() {
    if (channelPresent())
        m_channel.removePageViewer();
}

void CChannelFrame::buildLayout() {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    m_caption = new QLabel(this);
    m_caption->setMargin(4);
    m_caption->setAutoFillBackground(true);
    m_caption->setTextFormat(Qt::PlainText);
    layout->addWidget(m_caption);

    m_splitter = new QSplitter(Qt::Vertical, this);
    m_splitter->setChildrenCollapsible(false);
    m_page = new CWebPane({m_options.appPluginServerPortNo, m_options.appServerPortNo});
    m_splitter->addWidget(m_page);
    m_items = new QTreeView;
    buildItemView();
    m_splitter->addWidget(m_items);
    m_splitter->setStretchFactor(0, 1);
    m_splitter->setStretchFactor(1, 1);
    layout->addWidget(m_splitter, 1);
}

void CChannelFrame::buildItemView() {
    m_items->setModel(m_model);
    m_items->setRootIsDecorated(false);
    m_items->setUniformRowHeights(true);
    m_items->setSelectionMode(QAbstractItemView::SingleSelection);
    m_items->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_items->header()->setStretchLastSection(false);
    m_items->header()->setSectionResizeMode(CChannelItemModel::TitleColumn, QHeaderView::Stretch);
    m_items->header()->setSectionResizeMode(CChannelItemModel::DateColumn,
                                            QHeaderView::ResizeToContents);
    // Double click and Enter (and a single click where the desktop opens items that way).
    connect(m_items, &QAbstractItemView::activated, this,
            [this](const QModelIndex& index) { openItem(index.row()); });
    addItemActions();
}

void CChannelFrame::addItemActions() {
    auto* open = new QAction(tr("&Open"), m_items);
    connect(open, &QAction::triggered, this, [this] { openItem(m_items->currentIndex().row()); });
    auto* next = new QAction(tr("&Next Unviewed Item"), m_items);
    connect(next, &QAction::triggered, this, &CChannelFrame::nextUnviewedItem);
    auto* all = new QAction(tr("Mark &All Items Viewed"), m_items);
    connect(all, &QAction::triggered, this, &CChannelFrame::markAllViewed);
    m_items->addActions({open, next, all});
    m_items->setContextMenuPolicy(Qt::ActionsContextMenu);
}

QString CChannelFrame::channelId() const { return latin1(m_channelId); }

bool CChannelFrame::channelPresent() const {
    // Compares addresses only: a channel that left may be gone already.
    return !m_manager || m_manager->findChannel(m_channelId) == &m_channel;
}

int CChannelFrame::itemViewHeightLimit(int windowHeight, int maxItemViewHeight) {
    switch (maxItemViewHeight) {
    case 0:
        return windowHeight / 4;
    case 1:
        return windowHeight / 3;
    case 3:
        return QWIDGETSIZE_MAX;
    default:
        return windowHeight / 2;
    }
}

void CChannelFrame::applyOptions(const app::GlobalOptions& options) {
    m_options = options;
    if (m_model->hidesViewed() != options.autoHideFeedItems) {
        m_model->setHideViewed(options.autoHideFeedItems);
        reloadRows();
    }
    m_page->setLoopbackPorts({options.appPluginServerPortNo, options.appServerPortNo});
    applyCaptionOptions();
    applyItemViewOptions();
    boundItemViewHeight();
}

void CChannelFrame::applyCaptionOptions() {
    m_caption->setVisible(m_options.showCaptionBar);
    m_caption->setFont(optionFont(m_options.captionBarFontName, m_options.captionBarFontSize,
                                  m_options.captionBarItalics));
    QPalette palette = m_caption->palette();
    palette.setColor(QPalette::WindowText, fromColourRef(m_options.captionBarFgdCol));
    palette.setColor(QPalette::Window, fromColourRef(m_options.captionBarBgdCol));
    m_caption->setPalette(palette);
}

void CChannelFrame::applyItemViewOptions() {
    CChannelItemModel::Style style;
    style.newColour = fromColourRef(m_options.channelItemViewNewFeedItemFgdCol);
    style.viewedColour = fromColourRef(m_options.channelItemViewViewedFeedItemFgdCol);
    style.background = fromColourRef(m_options.channelItemViewBgdCol);
    style.font = optionFont(m_options.channelItemViewFontName, m_options.channelItemViewFontSize);
    style.italicizeViewed = m_options.italicizeViewedFeedItems;
    m_model->setStyle(style);
    m_items->setFont(style.font);
    // The rows paint their own background; the view's base covers the space below them.
    QPalette palette = m_items->palette();
    palette.setColor(QPalette::Base, style.background);
    m_items->setPalette(palette);
}

void CChannelFrame::boundItemViewHeight() {
    m_items->setMaximumHeight(itemViewHeightLimit(height(), m_options.maxItemViewHeight));
}

void CChannelFrame::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    boundItemViewHeight();
}

void CChannelFrame::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (!m_pageShown && !m_pageFile.isEmpty()) {
        m_pageShown = true;
        m_page->showFile(m_pageFile);
    }
    rememberViewTime();
}

void CChannelFrame::rememberViewTime() {
    if (!channelPresent())
        return;
    const auto now = static_cast<std::int32_t>(std::time(nullptr));
    const std::string& id = m_channelId;
    m_settings.change(id, [now](ChannelDesktopSettings& record) { record.lastViewTime = now; });
    saveSettings();
}

void CChannelFrame::saveSettings() {
    const std::string& id = m_channelId;
    std::string problem;
    if (!m_settings.save(id, std::nullopt, &problem))
        PELSU_LOG(g_windowGroup, "Can't save the channel desktop settings for "
                                     << m_settings.channelName(id) << ": " << problem);
}

void CChannelFrame::refresh() {
    if (!channelPresent())
        return;
    writeSummaryPage();
    showLatest();
}

void CChannelFrame::showLatest() {
    const std::string name = m_channel.name();
    m_caption->setText(latin1(name));
    setWindowTitle(latin1(name));
    reloadRows();
    if (m_pageShown && !m_pageFile.isEmpty())
        m_page->showFile(m_pageFile);
}

void CChannelFrame::reloadRows() {
    if (!channelPresent())
        return;
    const QModelIndex current = m_items->currentIndex();
    const std::string currentId = current.isValid() ? m_model->item(current.row()).id : "";
    m_model->setRows(channelItemRows(m_channel, m_settings));
    if (const int row = m_model->rowOf(currentId); row >= 0 && !currentId.empty())
        m_items->setCurrentIndex(m_model->index(row, 0));
}

void CChannelFrame::onChannelUpdateEnded(const QString& channelId) {
    // This window is one of the page's viewers: the update has just written the page.
    if (channelId == this->channelId() && channelPresent())
        showLatest();
}

void CChannelFrame::writeSummaryPage() {
    std::string path;
    try {
        // Under the feed's read lock, so that the worker can't replace the feed meanwhile.
        m_channel.state().readFeed([&](const channels::Feed&) {
            path = channels::writeChannelSummaryPage(m_channel, m_userDir);
        });
    } catch (const channels::Exception& failure) {
        PELSU_LOG(g_windowGroup,
                  "Can't write the summary page of " << m_channel.name() << ": " << failure.what());
    }
    m_pageFile = QFile::decodeName(path.c_str());
}

void CChannelFrame::openItem(int row) {
    if (row < 0 || row >= m_model->rowCount())
        return;
    const ChannelItemRow item = m_model->item(row);
    m_actions.openUrl(item.url);
    // A channel that left has no desktop settings to save any more.
    if (item.viewed || !channelPresent())
        return;
    m_actions.markItemViewed(m_channelId, item.id);
    m_model->setViewed(row);
    emit itemsViewedChanged(channelId());
}

void CChannelFrame::markAllViewed() {
    if (!channelPresent())
        return;
    const std::string& id = m_channelId;
    bool changed = false;
    // From the end: a viewed row leaves the model when viewed items are hidden.
    for (int row = m_model->rowCount() - 1; row >= 0; --row) {
        if (m_model->item(row).viewed)
            continue;
        m_settings.markViewed(id, m_model->item(row).id);
        m_model->setViewed(row);
        changed = true;
    }
    if (!changed)
        return;
    saveSettings();
    emit itemsViewedChanged(channelId());
}

bool CChannelFrame::nextUnviewedItem() {
    const int count = m_model->rowCount();
    const int current = m_items->currentIndex().isValid() ? m_items->currentIndex().row() : -1;
    for (int step = 1; step <= count; ++step) {
        const int row = (current + step) % count;
        if (m_model->item(row).viewed)
            continue;
        const QModelIndex index = m_model->index(row, CChannelItemModel::TitleColumn);
        m_items->setCurrentIndex(index);
        m_items->scrollTo(index);
        openItem(row);
        return true;
    }
    return false;
}

} // namespace trayClient

#include "moc_channelFrame.cpp" // NOLINT(bugprone-suspicious-include)
