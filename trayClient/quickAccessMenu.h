// The tray icon's menu: the latest items of the channels whose desktop settings ask for the
// quick-access menu ("UseQuickAccessMenu"), each channel in a sub-menu of its own or inline
// under its name ("UseQuickAccessSubMenus"), then the client's commands. It is built each
// time it is about to show, so it always reflects the current feeds and viewed items.
#pragma once

#include <QMenu>
#include <QString>

#include <string>

namespace channels {
class Channel;
class ChannelManager;
} // namespace channels

namespace trayClient {

class ChannelDesktopSettingsTable;
class NotificationActions;

class CQuickAccessMenu : public QMenu {
    Q_OBJECT
public:
    // Items listed per channel, newest first as the feed has them.
    static constexpr std::size_t kItemsPerChannel = 15;

    // Choosing an item opens its link and marks it viewed through actions (which saves).
    CQuickAccessMenu(channels::ChannelManager& manager, ChannelDesktopSettingsTable& settings,
                     NotificationActions& actions, QWidget* parent = nullptr);

    // Builds the menu anew from the channels (runs whenever the menu is about to show).
    void rebuild();

signals:
    // "Open Pelsu".
    void openMainWindowRequested();
    // "Global Options…".
    void globalOptionsRequested();
    // "Exit".
    void exitRequested();
    // An item of the channel was chosen: its link was opened and it is marked viewed.
    void itemOpened(const QString& channelId);

private:
    void addChannel(const channels::Channel& channel, bool subMenu);
    void addItems(QMenu& menu, const std::string& channelId, const channels::Channel& channel);
    void addCommands();
    void openItem(const std::string& channelId, const std::string& itemId, const std::string& url);
    void updateAll();

    channels::ChannelManager& m_manager;
    ChannelDesktopSettingsTable& m_settings;
    NotificationActions& m_actions;
};

} // namespace trayClient
