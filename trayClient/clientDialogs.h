// What the main window's and the tray's commands open: the channel and plugin windows, the
// new-channel wizard, the properties and options dialogs, and OPML import and export. Kept
// apart from the application object, which only starts and stops the parts.
#pragma once

#include <QObject>
#include <QString>

namespace app {
struct Environment;
}
namespace channels {
class ChannelManager;
}

namespace trayClient {

class CMainFrame;
class ChannelDesktopSettingsTable;

class CClientDialogs : public QObject {
    Q_OBJECT
public:
    CClientDialogs(channels::ChannelManager& manager, ChannelDesktopSettingsTable& settings,
                   app::Environment& environment, CMainFrame& mainFrame);

    // Gives the main window its channel and plugin windows and connects its commands.
    void connectMainFrame();

public slots:
    // The wizard, starting at an address when one is given. Safe to queue from any thread.
    void newChannel(const QString& address = {});
    void channelProperties(const QString& channelId);
    // The options dialog; after OK the options are applied and optionsChanged is emitted.
    void globalOptions();
    void importOpml();
    void exportOpml();
    void appPluginParameters(const QString& pluginId);

signals:
    // The global options were saved: what depends on them should read them again.
    void optionsChanged();
    // Items of a channel were marked viewed in one of its windows.
    void itemsViewedChanged(const QString& channelId);

private:
    QWidget* makeChannelWindow(const QString& channelId);
    QWidget* makePluginWindow(const QString& pluginId);

    channels::ChannelManager& m_manager;
    ChannelDesktopSettingsTable& m_settings;
    app::Environment& m_environment;
    CMainFrame& m_mainFrame;
};

} // namespace trayClient
