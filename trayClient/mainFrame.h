// The main window: the channels by name and the two log panes, activity and errors. The
// channel worker reaches it through ClientWindow: lines arrive as queued calls, and the end of
// an update as a blocking hand-off that shut-down releases.
#pragma once

#include "trayClient/blockingHandOff.h"
#include "trayClient/channelEventHandler.h"

#include <QMainWindow>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

class QListWidget;
class QListWidgetItem;
class QPlainTextEdit;
class QDockWidget;

namespace trayClient {

struct ChannelRef;

class CMainFrame : public QMainWindow, public ClientWindow {
    Q_OBJECT
public:
    // maxActivityLines and maxErrorLines bound the panes ("MaxActivityLogMsgs",
    // "MaxErrorLogMsgs"); 0 or less keeps every line.
    CMainFrame(int maxActivityLines, int maxErrorLines, QWidget* parent = nullptr);
    ~CMainFrame() override;

    // Lists the channels (replacing the list).
    void setChannels(const std::vector<ChannelRef>& channels);
    // Adds a channel, or renames it when it is listed.
    void showChannel(const std::string& channelId, const std::string& name);
    void setPaneLimits(int maxActivityLines, int maxErrorLines);
    // Where the list finds a channel's current name when its update ends (a channel learns
    // its name from its feed, and one added while running joins the list then).
    void setChannelNames(std::function<std::string(const std::string& channelId)> names) {
        m_channelNames = std::move(names);
    }

    // From now on the worker's events reach the window.
    void attach();
    // Shut-down, before the listener is removed and the manager stopped: present() turns
    // false, a worker waiting in endChannelUpdate is released, and later calls return at once.
    void detach();

    // ClientWindow, called on the channel worker.
    bool present() const override { return m_present.load(); }
    void postActivityLine(ActivityRecord record) override;
    void postErrorLine(ActivityRecord record) override;
    void endChannelUpdate(const std::string& channelId) override;

    // Brings the window to the front ("show yourself").
    void showAndRaise();
    // Shows the window with a channel selected.
    void showChannelView(const std::string& channelId);
    // Shows the window with the error pane in view.
    void showErrorLog();

    // What the panes and the list show (for the checks of a running client).
    QStringList activityLines() const;
    QStringList errorLines() const;
    QString selectedChannelId() const;
    int channelUpdatesSeen() const { return m_updatesSeen; }
    // Workers waiting in endChannelUpdate right now.
    int workersWaiting() const { return m_endOfUpdate.waiting(); }

signals:
    // The end of a channel's update reached the UI thread.
    void channelUpdateEnded(const QString& channelId);

private:
    void appendLine(QPlainTextEdit& pane, const ActivityRecord& record);
    QListWidgetItem* findChannelItem(const QString& channelId) const;
    void handleEndChannelUpdate(const std::string& channelId);

    QListWidget* m_channels = nullptr;
    QPlainTextEdit* m_activity = nullptr;
    QPlainTextEdit* m_errors = nullptr;
    QDockWidget* m_errorDock = nullptr;
    std::atomic<bool> m_present{false};
    CBlockingHandOff m_endOfUpdate;
    std::function<std::string(const std::string&)> m_channelNames;
    int m_updatesSeen = 0;
};

} // namespace trayClient
