// The window of one open channel: a caption bar with the channel's name, the channel's summary
// page, and below it the channel's items (title and date), new ones and viewed ones in the
// user's colours. Opening an item opens its link in the user's browser and marks it viewed.
// A window whose channel left the manager keeps what it shows and reads nothing more of it.
#pragma once

#include "app/globalOptions.h"
#include "trayClient/channelItems.h"
#include "trayClient/notificationPresenter.h"

#include <QAbstractTableModel>
#include <QColor>
#include <QFont>
#include <QWidget>

#include <string>
#include <vector>

class QLabel;
class QSplitter;
class QTreeView;

namespace channels {
class Channel;
class ChannelManager;
} // namespace channels

namespace trayClient {

class CWebPane;
class ChannelDesktopSettingsTable;

// The item view's rows: one per feed item, in feed order, with the title and the date as the
// feed wrote them.
class CChannelItemModel : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Column { TitleColumn, DateColumn, ColumnCount };
    struct Style {
        QColor newColour;
        QColor viewedColour;
        QColor background;
        QFont font;
        bool italicizeViewed = true;
    };

    explicit CChannelItemModel(QObject* parent = nullptr);
    void setRows(std::vector<ChannelItemRow> rows);
    void setStyle(const Style& style);
    const ChannelItemRow& item(int row) const { return m_rows.at(static_cast<std::size_t>(row)); }
    // Marks a row viewed and repaints it.
    void setViewed(int row);
    // With hiding on, viewed rows are left out of setRows and leave the model when viewed.
    void setHideViewed(bool hide) { m_hideViewed = hide; }
    bool hidesViewed() const { return m_hideViewed; }
    // The row of an item id, or -1.
    int rowOf(const std::string& itemId) const;

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

private:
    std::vector<ChannelItemRow> m_rows;
    Style m_style;
    bool m_hideViewed = false;
};

class CChannelFrame : public QWidget {
    Q_OBJECT
public:
    // Writes the channel's summary page at once; the page is shown when the window is first
    // shown, so a window that never appears does not start the browser engine.
    CChannelFrame(channels::Channel& channel, ChannelDesktopSettingsTable& settings,
                  const app::GlobalOptions& options, const std::string& userDir,
                  QWidget* parent = nullptr);
    ~CChannelFrame() override;

    QString channelId() const;
    // The item view's maximum height for a window height and a "MaxItemViewHeight" (0 one
    // quarter, 1 one third, 2 half, 3 unlimited).
    static int itemViewHeightLimit(int windowHeight, int maxItemViewHeight);

    // For the main window's menus and the tests.
    CChannelItemModel& model() const { return *m_model; }
    QTreeView& itemView() const { return *m_items; }
    QLabel& captionBar() const { return *m_caption; }
    CWebPane& pagePane() const { return *m_page; }
    // The summary page's file (empty when it could not be written).
    QString summaryPageFile() const { return m_pageFile; }

public slots:
    // Marks every item viewed and saves the channel's desktop settings once.
    void markAllViewed();
    // Selects and opens the first unviewed item after the current one, wrapping round; false
    // when every item is viewed.
    bool nextUnviewedItem();
    // Writes the summary page and reads the items again; does nothing once the channel has
    // left its manager.
    void refresh();
    // Shows the items and the page that the update of this window's channel has just written
    // (connect it to CMainFrame::channelUpdateEnded).
    void onChannelUpdateEnded(const QString& channelId);
    // Takes the fonts, colours, caption bar, item view height and the hiding of viewed items
    // of new options.
    void applyOptions(const app::GlobalOptions& options);
    // Opens the item of a row: its link in the browser, and marks it viewed.
    void openItem(int row);

signals:
    // Items of the channel became viewed here.
    void itemsViewedChanged(const QString& channelId);

protected:
    void showEvent(QShowEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    void buildLayout();
    void buildItemView();
    void addItemActions();
    void applyCaptionOptions();
    void applyItemViewOptions();
    void boundItemViewHeight();
    void reloadRows();
    void showLatest();
    void writeSummaryPage();
    void rememberViewTime();
    void saveSettings();

    bool channelPresent() const;

    channels::Channel& m_channel;
    channels::ChannelManager* m_manager; // to learn whether the channel still exists
    std::string m_channelId;
    ChannelDesktopSettingsTable& m_settings;
    app::GlobalOptions m_options;
    std::string m_userDir;
    CNotificationActions m_actions;
    QString m_pageFile;
    bool m_pageShown = false;
    QLabel* m_caption = nullptr;
    QSplitter* m_splitter = nullptr;
    CWebPane* m_page = nullptr;
    QTreeView* m_items = nullptr;
    CChannelItemModel* m_model = nullptr;
};

} // namespace trayClient
