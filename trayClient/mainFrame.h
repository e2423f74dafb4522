// The main window: the Control Center dock (channels and app plugins), the channel and plugin
// windows in a multiple-document area, the activity and error log docks, and the menus and
// tool bar. The channel worker reaches it through ClientWindow: lines and error marks arrive
// as queued calls, and the end of an update as a blocking hand-off that shut-down releases.
#pragma once

#include "app/globalOptions.h"
#include "trayClient/blockingHandOff.h"
#include "trayClient/channelEventHandler.h"
#include "trayClient/controlCenter.h"
#include "trayClient/mainFrameActions.h"

#include <QMainWindow>

#include <atomic>
#include <functional>
#include <string>
#include <utility>
#include <vector>

class QMdiArea;
class QMdiSubWindow;
class QPlainTextEdit;
class QDockWidget;

namespace channels {
class Channel;
class ChannelManager;
} // namespace channels

namespace trayClient {

class ChannelDesktopSettingsTable;

class CMainFrame : public QMainWindow, public ClientWindow {
    Q_OBJECT
public:
    // Makes the window for an id (a channel's or an app plugin's); null makes none.
    using WindowFactory = std::function<QWidget*(const QString& id)>;

    // The options give the fonts, colours, pane limits and the MDI mode. With a layoutFile
    // (an INI file) the window's geometry and docks are restored from it now and saved to it
    // when the window closes or goes.
    explicit CMainFrame(const app::GlobalOptions& options = {}, QString layoutFile = {},
                        QWidget* parent = nullptr);
    ~CMainFrame() override;

    // What the window shows and acts on; any may be null (the actions that need it do
    // nothing). The options are kept for the window's life. Lists the channels.
    void setContext(channels::ChannelManager* manager, ChannelDesktopSettingsTable* settings,
                    const app::GlobalOptions* options);
    void setChannelWindowFactory(WindowFactory factory) { m_channelFactory = std::move(factory); }
    void setPluginWindowFactory(WindowFactory factory) { m_pluginFactory = std::move(factory); }
    // Lists the loaded app plugins as (id, display name).
    void setAppPlugins(const std::vector<std::pair<QString, QString>>& plugins);
    // Re-applies fonts, colours, pane limits, the MDI mode and the task-bar choice.
    void applyOptions(const app::GlobalOptions& options);
    // 0 or less keeps every line.
    void setPaneLimits(int maxActivityLines, int maxErrorLines);
    // Writes the geometry and the dock layout to the layout file (when there is one).
    void saveLayout() const;

    // From now on the worker's events reach the window.
    void attach();
    // Shut-down, before the listener is removed and the manager stopped: present() turns
    // false, a worker waiting in endChannelUpdate is released, and later calls return at once.
    void detach();

    // ClientWindow, called on the channel worker.
    bool present() const override { return m_present.load(); }
    void postActivityLine(ActivityRecord record) override;
    void postErrorLine(ActivityRecord record) override;
    void postChannelError(const std::string& channelId, const std::string& text) override;
    void endChannelUpdate(const std::string& channelId) override;

    // Brings the window to the front ("show yourself").
    void showAndRaise();
    // Shows the window with the channel selected and its window open.
    void showChannelView(const std::string& channelId);
    // Shows the window with the error pane in view.
    void showErrorLog();

    // Opens the channel's (plugin's) window through its factory as a child titled by the
    // channel's name, or raises the one already open; null when there is no factory or it
    // made no window.
    QMdiSubWindow* openChannelWindow(const QString& channelId);
    QMdiSubWindow* openPluginWindow(const QString& pluginId);

    // What the window shows (for the checks of a running client and the tests).
    QStringList activityLines() const;
    QStringList errorLines() const;
    QString selectedChannelId() const;
    CControlCenter* controlCenter() const { return m_controlCenter; }
    QMdiArea* mdiArea() const { return m_mdi; }
    const MainFrameActions& actions() const { return m_actions; }
    int channelUpdatesSeen() const { return m_updatesSeen; }
    // Workers waiting in endChannelUpdate right now.
    int workersWaiting() const { return m_endOfUpdate.waiting(); }

public slots:
    // Rebuilds the channel tree from the manager, keeping the selection.
    void refreshChannels();
    // Re-reads one channel's row (name, unviewed count, colour), and its window's title.
    void refreshChannel(const QString& channelId);
    // The user viewed items of the channel (its count changes).
    void channelItemsViewedChanged(const QString& channelId);
    // Marks the channel failing with its last error; an empty text clears the mark.
    void setChannelError(const QString& channelId, const QString& text);

signals:
    // The end of a channel's update reached the UI thread.
    void channelUpdateEnded(const QString& channelId);
    void appPluginRequested(const QString& pluginId);
    // Actions carried out by dialogs and the application object.
    void newChannelRequested();
    void channelPropertiesRequested(const QString& channelId);
    void globalOptionsRequested();
    void importOpmlRequested();
    void exportOpmlRequested();
    void exitRequested();

protected:
    // The window hides; the program goes on in the tray.
    void closeEvent(QCloseEvent* event) override;

private:
    QDockWidget* addPaneDock(const QString& title, const QString& name, QWidget* widget,
                             Qt::DockWidgetArea area);
    // The Control Center's tree menu, and what opens and follows the child windows.
    void connectWindows();
    void appendLine(QPlainTextEdit& pane, const ActivityRecord& record);
    void handleEndChannelUpdate(const std::string& channelId);
    void applyTaskbarChoice(bool hideInTaskbar);
    void restoreLayout();
    QString channelName(const std::string& channelId) const;
    CControlCenter::ChannelEntry channelEntry(const channels::Channel& channel) const;
    int unviewedCount(const channels::Channel& channel) const;
    // The channel's name, counts, last fetch and latest headlines as rich text.
    QString briefSummary(const QString& channelId) const;
    QMdiSubWindow* findSubWindow(const char* property, const QString& id) const;
    QMdiSubWindow* openChild(const char* property, const QString& id, const WindowFactory& make,
                             const QString& title);
    QWidget* activeChild() const;
    void onSubWindowActivated(QMdiSubWindow* window);

    // The actions' work (mainFrameActions.cpp).
    void connectActions();
    void updateActionStates();
    void updateSelectedChannel();
    void updateAllChannels();
    void deleteSelectedChannel();
    void forwardToActiveChild(const char* slot);
    void showAbout();

    CControlCenter* m_controlCenter = nullptr;
    QMdiArea* m_mdi = nullptr;
    QPlainTextEdit* m_activity = nullptr;
    QPlainTextEdit* m_errors = nullptr;
    QDockWidget* m_controlDock = nullptr;
    QDockWidget* m_activityDock = nullptr;
    QDockWidget* m_errorDock = nullptr;
    MainFrameActions m_actions;
    QString m_layoutFile;
    bool m_maximizeChildren = true;

    channels::ChannelManager* m_manager = nullptr;
    ChannelDesktopSettingsTable* m_settings = nullptr;
    WindowFactory m_channelFactory;
    WindowFactory m_pluginFactory;

    std::atomic<bool> m_present{false};
    CBlockingHandOff m_endOfUpdate;
    int m_updatesSeen = 0;
};

} // namespace trayClient
