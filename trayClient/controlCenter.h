// The Control Center: the tree "My Channels" (each channel with its count of unviewed items,
// coloured by whether it updates automatically, marked when its last update failed) and the
// tree "App Plugins". It only shows what it is given; the main window reads the channels.
#pragma once

#include "app/globalOptions.h"

#include <QColor>
#include <QMap>
#include <QWidget>

#include <functional>
#include <utility>
#include <vector>

class QTreeWidget;
class QTreeWidgetItem;

namespace trayClient {

class CControlCenter : public QWidget {
    Q_OBJECT
public:
    struct ChannelEntry {
        QString id;
        QString name;
        int unviewed = 0;
        bool autoUpdate = true;
    };

    explicit CControlCenter(QWidget* parent = nullptr);

    // Replaces the channel rows (listed by name), keeping the selected channel.
    void setChannels(std::vector<ChannelEntry> channels);
    // Updates one channel's row, adding it in name order when it is not listed.
    void updateChannel(const ChannelEntry& channel);
    void removeChannel(const QString& channelId);
    // Marks the channel failing with the error as its tooltip; an empty text clears the mark.
    // The mark outlives rebuilds of the rows until it is cleared or the channel removed.
    void setChannelError(const QString& channelId, const QString& text);
    // The channel's last error while it is marked failing, else empty.
    QString channelError(const QString& channelId) const { return m_errors.value(channelId); }
    // Lists the app plugins: (id, display name) pairs.
    void setAppPlugins(const std::vector<std::pair<QString, QString>>& plugins);
    // Fonts and colours of both trees; one-click mode opens an entry with a single click;
    // brief channel summaries turn the channels' tooltips into summaries.
    void applyOptions(const app::GlobalOptions& options);
    // Where brief summaries come from: rich text for a channel id, read when a tooltip is
    // about to show (reading a feed is too dear to do for every row in advance).
    void setSummaryProvider(std::function<QString(const QString&)> provider) {
        m_summaryProvider = std::move(provider);
    }
    // The tooltip a channel's row shows now: its brief summary when those are on, then its
    // last error while it is failing.
    QString channelToolTip(const QString& channelId) const;

    QString selectedChannelId() const;
    // Selects the channel's row; false when it is not listed.
    bool selectChannel(const QString& channelId);
    // The channel's row (null when not listed), for callers that read what is shown.
    QTreeWidgetItem* channelItem(const QString& channelId) const;
    // The plugin's display name as listed (its id when it is not listed).
    QString pluginName(const QString& pluginId) const;
    QTreeWidget* channelTree() const { return m_channels; }
    QTreeWidget* pluginTree() const { return m_plugins; }

signals:
    // The user opened a channel or a plugin (double click or Enter; a click in one-click mode).
    void channelActivated(const QString& channelId);
    void appPluginActivated(const QString& pluginId);
    void selectedChannelChanged(const QString& channelId);

private:
    void decorate(QTreeWidgetItem& item) const;
    int rowFor(const QString& name) const;
    void onItemClicked(QTreeWidgetItem* item);
    void emitActivated(QTreeWidgetItem* item);
    bool eventFilter(QObject* watched, QEvent* event) override;

    QTreeWidget* m_channels = nullptr;
    QTreeWidget* m_plugins = nullptr;
    QMap<QString, QString> m_errors;
    QColor m_autoUpdateColour;
    QColor m_nonAutoUpdateColour;
    bool m_oneClick = false;
    bool m_briefSummaries = false;
    std::function<QString(const QString&)> m_summaryProvider;
};

} // namespace trayClient
