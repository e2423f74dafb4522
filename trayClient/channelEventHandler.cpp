#include "trayClient/channelEventHandler.h"

#include "channels/appPlugin.h"
#include "channels/channel.h"
#include "htmlStripper/htmlStripper.h"
#include "lib/log/log.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/notificationRequest.h"

namespace trayClient {

namespace {

const msglog::MsgGroupRegistration g_channelEvents("ChannelEvents");

msglog::MsgGroup& eventsGroup() { return msglog::registerMsgGroup("ChannelEvents"); }

std::string nameOf(const channels::Channel* channel) {
    return channel ? channel->name() : std::string("<Unknown>");
}

// "<subject> error: <text>", or "<subject> error." when there is no text.
std::string errorLine(const std::string& subject, const std::string& text) {
    return subject + (text.empty() ? " error." : " error: " + text);
}

// The error text of a channel error: its message, then the failure's own text.
std::string errorText(const channels::ChannelErrorEvent& event) {
    if (event.detail().empty())
        return event.message();
    if (event.message().empty())
        return event.detail();
    return event.message() + " " + event.detail();
}

// The item of a feed item event, read under the feed's lock (empty when the index is stale).
channels::FeedItem itemOf(const channels::FeedItemEvent& event) {
    const channels::Feed& feed = event.channel()->state().feed();
    threadSafety::ScopedLock lock(feed.lock());
    const auto index = static_cast<std::size_t>(event.feedItemIndex());
    return index < feed.itemCount() ? feed.item(index) : channels::FeedItem{};
}

void logItem(const char* headline, const std::string& channelName, const channels::FeedItem& item) {
    msglog::LogBlock block;
    PELSU_LOG(eventsGroup(), headline << " " << channelName);
    PELSU_LOG_DETAIL(eventsGroup(), "- ID: " << item.id);
    PELSU_LOG_DETAIL(eventsGroup(), "- URL: " << item.url);
}

} // namespace

ChannelEventHandler::ChannelEventHandler(ClientWindow& window, NotificationRequestQueue& queue,
                                         ChannelDesktopSettingsTable& settings,
                                         int maxConsecutiveErrors, Clock clock)
    : m_window(window), m_queue(queue), m_settings(settings),
      m_maxConsecutiveErrors(maxConsecutiveErrors),
      m_clock(clock ? std::move(clock) : Clock([] { return std::time(nullptr); })) {}

void ChannelEventHandler::handleEvent(channels::Event& event) {
    {
        msglog::LogBlock block;
        PELSU_LOG(eventsGroup(), "Channel event received: " << event.text());
        // Checked before anything is handed over: events during start-up or shut-down (once
        // delivering stopped) are dropped, not queued for a window that is not there.
        if (!m_delivering.load() || !m_window.present()) {
            PELSU_LOG_DETAIL(eventsGroup(), "- Main window is not present - ignoring the event!");
            return;
        }
    }
    EventListener::handleEvent(event);
}

ActivityRecord ChannelEventHandler::record(std::string text, ActivityRecord::Kind kind) const {
    return ActivityRecord{std::move(text), static_cast<std::int64_t>(m_clock()), kind};
}

void ChannelEventHandler::onBeginChannelUpdate(channels::BeginChannelUpdateEvent& event) {
    channels::Channel* channel = event.channel();
    if (channel) {
        m_settings.setChannelName(channel->id(), channel->ownName());
        std::lock_guard guard(m_runsMutex);
        m_runs[channel->id()].itemsChanged = false;
    }
    m_window.postActivityLine(
        record("Getting the latest feed from " + nameOf(channel), ActivityRecord::Kind::Progress));
}

void ChannelEventHandler::onEndChannelUpdate(channels::EndChannelUpdateEvent& event) {
    channels::Channel* channel = event.channel();
    const std::string channelId = channel ? channel->id() : std::string();
    if (event.success())
        m_window.postActivityLine(
            record("Updated channel " + nameOf(channel) + " OK.", ActivityRecord::Kind::Success));
    bool itemsChanged = false;
    if (channel) {
        std::string lastError;
        // A first update is what gives a channel its name: the saves below log it. A channel
        // removed meanwhile gets no record back.
        if (!channel->isRemoved())
            m_settings.setChannelName(channelId, channel->ownName());
        {
            std::lock_guard guard(m_runsMutex);
            ChannelRun& run = m_runs[channelId];
            itemsChanged = std::exchange(run.itemsChanged, false);
            if (event.success()) {
                run.failedUpdates = 0;
                run.failing = false;
            }
            lastError = event.success()         ? std::string()
                        : run.lastError.empty() ? std::string("The update failed.")
                                                : run.lastError;
        }
        m_window.postChannelError(channelId, lastError);
        if (!event.success())
            countFailedUpdate(channelId, nameOf(channel));
    }
    // LastNewItemTime changed, and viewed ids of items that left the feed can go; the
    // window then finds the record saved when it handles the end of the update.
    if (itemsChanged && !channel->isRemoved())
        saveDesktopSettings(*channel);
    m_window.endChannelUpdate(channelId);
}

void ChannelEventHandler::saveDesktopSettings(const channels::Channel& channel) {
    std::string problem;
    if (m_settings.save(channel.id(), feedItemIds(channel), &problem))
        return;
    const std::string line =
        "Can't save the desktop settings of channel " + channel.name() + ": " + problem;
    PELSU_LOG(eventsGroup(), line);
    m_window.postErrorLine(record(line, ActivityRecord::Kind::Failure));
}

void ChannelEventHandler::countFailedUpdate(const std::string& channelId,
                                            const std::string& channelName) {
    const int maximum = m_maxConsecutiveErrors.load();
    std::string lastError;
    int failedUpdates = 0;
    {
        std::lock_guard guard(m_runsMutex);
        ChannelRun& run = m_runs[channelId];
        failedUpdates = ++run.failedUpdates;
        // Only the update that reaches the maximum notifies; later failures of a channel
        // already marked failing stay in the panes.
        if (maximum <= 0 || run.failing || failedUpdates < maximum)
            return;
        run.failing = true;
        lastError = run.lastError;
    }
    PELSU_LOG_DETAIL(eventsGroup(), "- Consecutive update errors reached the maximum: channel="
                                        << channelName << " ; errors=" << failedUpdates);
    std::string message = lastError.empty() ? "The update failed." : lastError;
    message += " (" + std::to_string(failedUpdates) + " failed updates in a row)";
    m_queue.queue(std::make_unique<ErrorNotificationRequest>("Channel " + channelName,
                                                             std::move(message), channelId));
}

void ChannelEventHandler::onNewFeedItem(channels::NewFeedItemEvent& event) {
    channels::Channel* channel = event.channel();
    if (!channel)
        return;
    const channels::FeedItem item = itemOf(event);
    const std::string channelName = channel->name();
    logItem("New feed item from", channelName, item);

    const std::time_t now = m_clock();
    m_settings.change(channel->id(), [&](ChannelDesktopSettings& settings) {
        settings.lastNewItemTime = static_cast<std::int32_t>(now);
    });
    {
        std::lock_guard guard(m_runsMutex);
        m_runs[channel->id()].itemsChanged = true;
    }
    NewFeedItem newItem{item.id, htmlStripper::plainText(item.title), item.url, now};
    m_queue.queue(std::make_unique<NewFeedItemNotificationRequest>(channel->id(), channelName,
                                                                   std::move(newItem)));
}

void ChannelEventHandler::onExpiredFeedItem(channels::ExpiredFeedItemEvent& event) {
    channels::Channel* channel = event.channel();
    if (!channel)
        return;
    logItem("Expired feed item for", channel->name(), itemOf(event));
    std::lock_guard guard(m_runsMutex);
    m_runs[channel->id()].itemsChanged = true;
}

void ChannelEventHandler::onChannelError(channels::ChannelErrorEvent& event) {
    channels::Channel* channel = event.channel();
    const std::string text = errorText(event);
    if (channel) {
        std::lock_guard guard(m_runsMutex);
        m_runs[channel->id()].lastError = text;
    }
    const std::string line = errorLine("Channel " + nameOf(channel), text);
    m_window.postActivityLine(record(line, ActivityRecord::Kind::Failure));
    m_window.postErrorLine(record(line, ActivityRecord::Kind::Failure));
}

void ChannelEventHandler::onAppPluginError(channels::AppPluginErrorEvent& event) {
    const std::string name = event.pluginName().empty() ? "<Unknown>" : event.pluginName();
    const std::string line = errorLine("Plugin " + name, event.errorText());
    m_window.postActivityLine(record(line, ActivityRecord::Kind::Failure));
    m_window.postErrorLine(record(line, ActivityRecord::Kind::Failure));
    m_queue.queue(std::make_unique<ErrorNotificationRequest>(
        "Plugin " + name, event.errorText().empty() ? "The plugin failed." : event.errorText()));
}

void ChannelEventHandler::stopDelivering() { m_delivering.store(false); }

void ChannelEventHandler::setMaxConsecutiveErrors(int maxConsecutiveErrors) {
    m_maxConsecutiveErrors.store(maxConsecutiveErrors);
}

bool ChannelEventHandler::isFailing(const std::string& channelId) const {
    std::lock_guard guard(m_runsMutex);
    auto run = m_runs.find(channelId);
    return run != m_runs.end() && run->second.failing;
}

int ChannelEventHandler::consecutiveErrors(const std::string& channelId) const {
    std::lock_guard guard(m_runsMutex);
    auto run = m_runs.find(channelId);
    return run == m_runs.end() ? 0 : run->second.failedUpdates;
}

} // namespace trayClient
