// The client's listener of channel events. It runs on the channel worker thread, builds every
// text there (so the UI thread never reads a channel to show a line), logs in the group
// "ChannelEvents", hands lines to the main window's panes, queues notification requests and
// waits only for the main window to handle the end of an update.
#pragma once

#include "channels/events.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace trayClient {

class ChannelDesktopSettingsTable;
class NotificationRequestQueue;

// One line for the activity or the error pane.
struct ActivityRecord {
    // What the line reports, so that the pane can mark it (the record's third word).
    enum class Kind {
        Progress, // an update began ("Getting the latest feed from News")
        Success,  // an update ended well ("Updated channel News OK.")
        Failure,  // a channel or plugin error
    };
    std::string text;
    std::int64_t time = 0; // when the line was made, seconds since 1970
    Kind kind = Kind::Progress;

    bool operator==(const ActivityRecord&) const = default;
};

// The main window as the listener sees it; the Qt side implements it.
class ClientWindow {
public:
    virtual ~ClientWindow() = default;
    // Whether the main window exists (false during start-up and from shut-down on).
    virtual bool present() const = 0;
    // Hand a line to a pane; queued, never blocking.
    virtual void postActivityLine(ActivityRecord record) = 0;
    virtual void postErrorLine(ActivityRecord record) = 0;
    // Hand over the outcome of a channel's update for its mark in the channel tree: the last
    // error of a failed update, or an empty text after a successful one. Queued.
    virtual void postChannelError(const std::string& /*channelId*/, const std::string& /*text*/) {}
    // Hands over the end of a channel's update and returns when the UI thread has handled it,
    // or when shut-down releases the wait (the window guarantees the release, and never makes
    // the worker wait while the UI thread waits for the worker).
    virtual void endChannelUpdate(const std::string& channelId) = 0;
};

// Consecutive failed updates: each failed update of a channel (an end of update without
// success) counts one; when a channel's run reaches "MaxConsecutiveChannelUpdateErrors", one
// error notification carrying the channel's last error is queued and the channel is marked
// failing. The next successful update clears the mark and the count, so a channel that keeps
// failing notifies once until it has recovered. A maximum of 0 or less never notifies.
// Errors outside an update (load, save at stop) are logged to both panes but not counted.
// A plugin error always queues an error notification.
class ChannelEventHandler : public channels::EventListener {
public:
    using Clock = std::function<std::time_t()>;

    // The clock stamps lines and requests (the system clock when empty).
    ChannelEventHandler(ClientWindow& window, NotificationRequestQueue& queue,
                        ChannelDesktopSettingsTable& settings, int maxConsecutiveErrors,
                        Clock clock = {});

    // Logs "Channel event received: " and the event's text; drops the event (with
    // "- Main window is not present - ignoring the event!") when there is no main window;
    // otherwise dispatches to the operations below.
    void handleEvent(channels::Event& event) override;
    // Posts "Getting the latest feed from <name>".
    void onBeginChannelUpdate(channels::BeginChannelUpdateEvent& event) override;
    // Posts "Updated channel <name> OK." on success, saves the channel's desktop settings when
    // it had new items, then hands the end of the update to the window and waits.
    void onEndChannelUpdate(channels::EndChannelUpdateEvent& event) override;
    // Logs the item, sets the channel's "LastNewItemTime" and queues a
    // NewFeedItemNotificationRequest stamped with the clock's time. Items the user has viewed
    // are not skipped here: the queue drops them when their turn comes, which also covers
    // items viewed while the request waits.
    void onNewFeedItem(channels::NewFeedItemEvent& event) override;
    // Logs the item.
    void onExpiredFeedItem(channels::ExpiredFeedItemEvent& event) override;
    // Posts "Channel <name> error: <text>" (or "Channel <name> error.") to both panes.
    void onChannelError(channels::ChannelErrorEvent& event) override;
    // Posts "Plugin <name> error: <text>" to both panes and queues an error notification.
    void onAppPluginError(channels::AppPluginErrorEvent& event) override;

    // Every later event is a no-op. Shut-down calls it first, then releases the window's
    // waits, and only then removes the listener: the worker holds the manager's event lock
    // while it waits in endChannelUpdate, so removing the listener first would wait for a
    // worker that waits for the UI thread.
    void stopDelivering();
    void setMaxConsecutiveErrors(int maxConsecutiveErrors);
    // Whether the channel's run of failed updates reached the maximum and it has not
    // succeeded since.
    bool isFailing(const std::string& channelId) const;
    // The channel's current run of failed updates.
    int consecutiveErrors(const std::string& channelId) const;

private:
    struct ChannelRun {
        int failedUpdates = 0;
        bool failing = false;
        bool itemsChanged = false; // new or expired items in the current update
        std::string lastError;
    };
    ActivityRecord record(std::string text, ActivityRecord::Kind kind) const;
    // Saves the channel's record, dropping viewed ids that left its feed; a failure goes to
    // the log and the error pane.
    void saveDesktopSettings(const channels::Channel& channel);
    void countFailedUpdate(const std::string& channelId, const std::string& channelName);

    ClientWindow& m_window;
    NotificationRequestQueue& m_queue;
    ChannelDesktopSettingsTable& m_settings;
    std::atomic<int> m_maxConsecutiveErrors;
    Clock m_clock;
    std::atomic<bool> m_delivering{true};
    mutable std::mutex m_runsMutex;
    std::map<std::string, ChannelRun> m_runs;
};

} // namespace trayClient
