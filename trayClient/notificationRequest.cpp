#include "trayClient/notificationRequest.h"

#include "lib/log/log.h"
#include "trayClient/channelDesktopSettings.h"

#include <algorithm>

namespace trayClient {

namespace {

const msglog::MsgGroupRegistration g_queueGroup("NotificationRequestQueue");

msglog::MsgGroup& queueGroup() { return msglog::registerMsgGroup("NotificationRequestQueue"); }

// How many item titles a consolidated notification lists before "and <n> more".
constexpr std::size_t kListedTitles = 5;

std::string itemLabel(const NewFeedItem& item) {
    if (!item.title.empty())
        return item.title;
    return item.url.empty() ? item.id : item.url;
}

bool isNewItemKind(const NotificationRequest& request) {
    return request.kind() == NotificationRequest::Kind::NewFeedItem ||
           request.kind() == NotificationRequest::Kind::ConsolidatedNewFeedItems;
}

// The items a new-item request carries, whichever of the two kinds it is.
std::vector<NewFeedItem> itemsOf(const NotificationRequest& request) {
    if (request.kind() == NotificationRequest::Kind::NewFeedItem)
        return {static_cast<const NewFeedItemNotificationRequest&>(request).item()};
    return static_cast<const ConsolidatedNewFeedItemsNotificationRequest&>(request).items();
}

std::string channelNameOf(const NotificationRequest& request) {
    if (request.kind() == NotificationRequest::Kind::NewFeedItem)
        return static_cast<const NewFeedItemNotificationRequest&>(request).channelName();
    return static_cast<const ConsolidatedNewFeedItemsNotificationRequest&>(request).channelName();
}

} // namespace

SimpleNotificationRequest::SimpleNotificationRequest(std::string title, std::string body)
    : m_title(std::move(title)), m_body(std::move(body)) {}

std::string SimpleNotificationRequest::text() const {
    return "[SimpleNotificationRequest:" + m_title + ":" + m_body + "]";
}

void SimpleNotificationRequest::click(NotificationActions&) {
    PELSU_LOG(queueGroup(), "User clicked on a notification: " << text());
}

ErrorNotificationRequest::ErrorNotificationRequest(std::string source, std::string message,
                                                   std::string channelId)
    : m_source(std::move(source)), m_message(std::move(message)),
      m_channelId(std::move(channelId)) {}

std::string ErrorNotificationRequest::text() const {
    return "[ErrorNotificationRequest:" + m_source + ":" + m_message + "]";
}

std::string ErrorNotificationRequest::title() const { return m_source + " error"; }

void ErrorNotificationRequest::click(NotificationActions& actions) {
    PELSU_LOG(queueGroup(), "User clicked on an error notification: " << text());
    actions.openErrorLog();
}

NewFeedItemNotificationRequest::NewFeedItemNotificationRequest(std::string channelId,
                                                               std::string channelName,
                                                               NewFeedItem item)
    : m_channelId(std::move(channelId)), m_channelName(std::move(channelName)),
      m_item(std::move(item)) {}

std::string NewFeedItemNotificationRequest::text() const {
    return "[NewFeedItemNotificationRequest:" + m_channelName + ":" + m_item.id + "]";
}

std::string NewFeedItemNotificationRequest::body() const { return itemLabel(m_item); }

void NewFeedItemNotificationRequest::click(NotificationActions& actions) {
    PELSU_LOG(queueGroup(), "User clicked on a new feed item notification: " << text());
    if (!m_item.url.empty())
        actions.openUrl(m_item.url);
    actions.markItemViewed(m_channelId, m_item.id);
}

ConsolidatedNewFeedItemsNotificationRequest::ConsolidatedNewFeedItemsNotificationRequest(
    std::string channelId, std::string channelName, std::vector<NewFeedItem> items)
    : m_channelId(std::move(channelId)), m_channelName(std::move(channelName)),
      m_items(std::move(items)) {}

std::string ConsolidatedNewFeedItemsNotificationRequest::text() const {
    return "[ConsolidatedNewFeedItemsNotificationRequest:" + m_channelName + ":" +
           std::to_string(m_items.size()) + " items]";
}

std::string ConsolidatedNewFeedItemsNotificationRequest::title() const {
    return m_channelName + ": " + std::to_string(m_items.size()) + " new items";
}

std::string ConsolidatedNewFeedItemsNotificationRequest::body() const {
    std::string body;
    const std::size_t listed = std::min(m_items.size(), kListedTitles);
    for (std::size_t index = 0; index < listed; ++index)
        body += (index ? "\n" : "") + itemLabel(m_items[index]);
    if (m_items.size() > listed)
        body += "\nand " + std::to_string(m_items.size() - listed) + " more";
    return body;
}

void ConsolidatedNewFeedItemsNotificationRequest::click(NotificationActions& actions) {
    PELSU_LOG(queueGroup(), "User clicked on a consolidated new feed items request: " << text());
    actions.openChannelView(m_channelId);
}

NotificationRequestQueue::NotificationRequestQueue(ChannelDesktopSettingsTable& settings,
                                                   int maxLength)
    : m_settings(settings), m_maxLength(maxLength) {}

void NotificationRequestQueue::setMaxLength(int maxLength) {
    threadSafety::ScopedLock lock(m_lock);
    m_maxLength = maxLength;
}

void NotificationRequestQueue::queue(std::unique_ptr<NotificationRequest> request) {
    if (!request)
        return;
    if (request->kind() == NotificationRequest::Kind::Error) {
        PELSU_LOG(queueGroup(), "Queuing error notification request: " << request->text());
        threadSafety::ScopedLock lock(m_lock);
        m_errorQueue.push_back(std::move(request));
        return;
    }
    PELSU_LOG(queueGroup(), "Queuing notification request: " << request->text());
    const std::string channelId = request->channelId();
    const ChannelDesktopSettings settings =
        channelId.empty() ? ChannelDesktopSettings{} : m_settings.get(channelId);
    const bool animate = !channelId.empty() && settings.animateOnNewItem;
    const bool consolidate =
        !channelId.empty() && settings.consolidateMultipleItems && isNewItemKind(*request);

    threadSafety::ScopedLock lock(m_lock);
    if (consolidate && mergeLocked(request, animate))
        return;
    if (animate) {
        // The channel's news jumps the queue, whatever its length.
        PELSU_LOG_DETAIL(queueGroup(), "- AnimateOnNewItem is set: queued at the front.");
        m_mainQueue.push_front(std::move(request));
    } else if (m_maxLength > 0 && m_mainQueue.size() >= static_cast<std::size_t>(m_maxLength)) {
        PELSU_LOG_DETAIL(queueGroup(),
                         "- The queue is full - discarding the request: maxLength=" << m_maxLength);
    } else {
        m_mainQueue.push_back(std::move(request));
    }
}

bool NotificationRequestQueue::mergeLocked(std::unique_ptr<NotificationRequest>& request,
                                           bool toFront) {
    const std::string channelId = request->channelId();
    auto waiting = std::find_if(m_mainQueue.begin(), m_mainQueue.end(), [&](const auto& queued) {
        return isNewItemKind(*queued) && queued->channelId() == channelId;
    });
    if (waiting == m_mainQueue.end())
        return false;
    std::vector<NewFeedItem> items = itemsOf(**waiting);
    for (NewFeedItem& item : itemsOf(*request))
        items.push_back(std::move(item));
    auto merged = std::make_unique<ConsolidatedNewFeedItemsNotificationRequest>(
        channelId, channelNameOf(*request), std::move(items));
    PELSU_LOG_DETAIL(queueGroup(), "- Merged with the channel's waiting request: items="
                                       << merged->items().size());
    if (toFront) {
        m_mainQueue.erase(waiting);
        m_mainQueue.push_front(std::move(merged));
    } else {
        *waiting = std::move(merged);
    }
    return true;
}

std::unique_ptr<NotificationRequest> NotificationRequestQueue::processNext() {
    for (;;) {
        std::unique_ptr<NotificationRequest> request;
        {
            threadSafety::ScopedLock lock(m_lock);
            auto& queue = m_errorQueue.empty() ? m_mainQueue : m_errorQueue;
            if (queue.empty())
                return nullptr;
            request = std::move(queue.front());
            queue.pop_front();
        }
        if (request->kind() == NotificationRequest::Kind::Error) {
            PELSU_LOG(queueGroup(), "Processing error notification request: " << request->text());
            return request;
        }
        PELSU_LOG(queueGroup(), "Processing notification request: " << request->text());
        if (request = filter(std::move(request)); request)
            return request;
    }
}

std::unique_ptr<NotificationRequest>
NotificationRequestQueue::filter(std::unique_ptr<NotificationRequest> request) {
    if (!isNewItemKind(*request))
        return request;
    const std::string channelId = request->channelId();
    // Items the user opened while the request waited are not announced again.
    std::vector<NewFeedItem> items = itemsOf(*request);
    std::erase_if(items, [&](const NewFeedItem& item) {
        if (!m_settings.hasViewed(channelId, item.id))
            return false;
        PELSU_LOG(
            queueGroup(),
            "Feed item has already been viewed - abandoning processing: feedItemId=" << item.id);
        return true;
    });
    if (items.empty())
        return nullptr;
    if (!m_settings.get(channelId).notifyOnNewItem) {
        PELSU_LOG(queueGroup(),
                  "Notification balloons have been disabled - abandoning processing.");
        return nullptr;
    }
    const std::string channelName = channelNameOf(*request);
    if (items.size() == 1 && request->kind() != NotificationRequest::Kind::NewFeedItem)
        return std::make_unique<NewFeedItemNotificationRequest>(channelId, channelName,
                                                                std::move(items.front()));
    if (request->kind() == NotificationRequest::Kind::ConsolidatedNewFeedItems)
        return std::make_unique<ConsolidatedNewFeedItemsNotificationRequest>(channelId, channelName,
                                                                             std::move(items));
    return request;
}

std::size_t NotificationRequestQueue::size() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_errorQueue.size() + m_mainQueue.size();
}

void NotificationRequestQueue::clear() {
    std::deque<std::unique_ptr<NotificationRequest>> errors;
    std::deque<std::unique_ptr<NotificationRequest>> others;
    {
        threadSafety::ScopedLock lock(m_lock);
        errors.swap(m_errorQueue);
        others.swap(m_mainQueue);
    }
}

} // namespace trayClient
