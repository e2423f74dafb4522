// What the client wants to tell the user in a notification (a welcome, an error, one new
// item, a batch of new items), and the queue that shows them one at a time.
//
// Requests are queued by any thread (the channel worker, the UI thread) and taken by the UI
// thread with processNext(), which drops what is no longer worth showing and hands back the
// request to show; a click on the shown notification comes back to the request through
// click(). The queue's log lines go to the group "NotificationRequestQueue".
//
// Consolidation happens at queuing: a new-item request of a channel whose
// "ConsolidateMultipleItems" is set merges with that channel's request still waiting in the
// main queue, which becomes (or stays) a ConsolidatedNewFeedItemsNotificationRequest that
// counts and lists the items. A merge adds no request, so the length limit never refuses it.
#pragma once

#include "lib/misc/threadSafetyWin32.h"

#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace trayClient {

class ChannelDesktopSettingsTable;

// What the user interface does for a click; the Qt side implements it.
class NotificationActions {
public:
    virtual ~NotificationActions() = default;
    // Opens an address in the user's browser.
    virtual void openUrl(const std::string& url) = 0;
    // Marks a feed item as viewed (and saves the channel's desktop settings).
    virtual void markItemViewed(const std::string& channelId, const std::string& feedItemId) = 0;
    // Shows the main window with the channel's view.
    virtual void openChannelView(const std::string& channelId) = 0;
    // Shows the main window with the error log pane.
    virtual void openErrorLog() = 0;
};

class NotificationRequest {
public:
    enum class Kind { Simple, Error, NewFeedItem, ConsolidatedNewFeedItems };

    virtual ~NotificationRequest() = default;
    virtual Kind kind() const = 0;
    // The text form used in log lines, such as "[NewFeedItemNotificationRequest:News:42]".
    virtual std::string text() const = 0;
    // What the notification shows.
    virtual std::string title() const = 0;
    virtual std::string body() const = 0;
    // The channel the request belongs to; empty for none.
    virtual std::string channelId() const { return {}; }
    // Runs what a click on the shown notification means, after logging the click in
    // "NotificationRequestQueue".
    virtual void click(NotificationActions& actions) = 0;
};

// A plain message, such as the welcome notification. A click does nothing but log.
class SimpleNotificationRequest : public NotificationRequest {
public:
    SimpleNotificationRequest(std::string title, std::string body);
    Kind kind() const override { return Kind::Simple; }
    std::string text() const override;
    std::string title() const override { return m_title; }
    std::string body() const override { return m_body; }
    void click(NotificationActions& actions) override;

private:
    std::string m_title;
    std::string m_body;
};

// A channel or plugin error. The title names its source ("Channel News" or "Plugin Foo");
// channelId is empty for a plugin. A click opens the error log.
class ErrorNotificationRequest : public NotificationRequest {
public:
    ErrorNotificationRequest(std::string source, std::string message, std::string channelId = {});
    Kind kind() const override { return Kind::Error; }
    std::string text() const override;
    std::string title() const override;
    std::string body() const override { return m_message; }
    std::string channelId() const override { return m_channelId; }
    void click(NotificationActions& actions) override;

private:
    std::string m_source;
    std::string m_message;
    std::string m_channelId;
};

// One new item of a channel: what a notification shows of it and where a click leads.
struct NewFeedItem {
    std::string id;
    std::string title;
    std::string url;
    std::time_t time = 0; // when the client learnt of it

    bool operator==(const NewFeedItem&) const = default;
};

// One new item. A click opens the item's address (when it has one) and marks it viewed.
class NewFeedItemNotificationRequest : public NotificationRequest {
public:
    NewFeedItemNotificationRequest(std::string channelId, std::string channelName,
                                   NewFeedItem item);
    Kind kind() const override { return Kind::NewFeedItem; }
    std::string text() const override;
    std::string title() const override { return m_channelName; }
    std::string body() const override;
    std::string channelId() const override { return m_channelId; }
    void click(NotificationActions& actions) override;

    const std::string& channelName() const { return m_channelName; }
    const NewFeedItem& item() const { return m_item; }

private:
    std::string m_channelId;
    std::string m_channelName;
    NewFeedItem m_item;
};

// Several new items of one channel in one notification. A click opens the channel's view.
class ConsolidatedNewFeedItemsNotificationRequest : public NotificationRequest {
public:
    ConsolidatedNewFeedItemsNotificationRequest(std::string channelId, std::string channelName,
                                                std::vector<NewFeedItem> items);
    Kind kind() const override { return Kind::ConsolidatedNewFeedItems; }
    std::string text() const override;
    // "<channel>: <n> new items".
    std::string title() const override;
    // The items' titles, one a line (the first few, then "and <n> more").
    std::string body() const override;
    std::string channelId() const override { return m_channelId; }
    void click(NotificationActions& actions) override;

    const std::string& channelName() const { return m_channelName; }
    const std::vector<NewFeedItem>& items() const { return m_items; }

private:
    std::string m_channelId;
    std::string m_channelName;
    std::vector<NewFeedItem> m_items;
};

class NotificationRequestQueue {
public:
    // maxLength is "MaxNotificationQueueLength": -1 and 0 mean no limit.
    NotificationRequestQueue(ChannelDesktopSettingsTable& settings, int maxLength);
    NotificationRequestQueue(const NotificationRequestQueue&) = delete;
    NotificationRequestQueue& operator=(const NotificationRequestQueue&) = delete;

    void setMaxLength(int maxLength);

    // Any thread. Errors go to the back of the error queue, without limit. Other requests go
    // to the back of the main queue, unless their channel has "AnimateOnNewItem" (then to the
    // front, past the limit), their channel consolidates and has a request waiting (then they
    // merge into it), or the main queue is at its limit (then the request is discarded).
    void queue(std::unique_ptr<NotificationRequest> request);

    // UI thread. The next request to show, error queue first; requests for items the user has
    // viewed meanwhile and new-item requests of channels with "NotifyOnNewItem" off are
    // dropped on the way. Null when both queues are empty.
    std::unique_ptr<NotificationRequest> processNext();

    // Requests waiting in both queues.
    std::size_t size() const;
    bool empty() const { return size() == 0; }
    // Discards everything waiting (shut-down).
    void clear();

private:
    // Null when the request is dropped; may turn a consolidated request into a single one.
    std::unique_ptr<NotificationRequest> filter(std::unique_ptr<NotificationRequest> request);
    bool mergeLocked(std::unique_ptr<NotificationRequest>& request, bool toFront);

    ChannelDesktopSettingsTable& m_settings;
    mutable threadSafety::CriticalSection m_lock{"NotificationRequestQueue"};
    int m_maxLength;
    std::deque<std::unique_ptr<NotificationRequest>> m_errorQueue;
    std::deque<std::unique_ptr<NotificationRequest>> m_mainQueue;
};

} // namespace trayClient
