// The worker's loop and the update of one channel: fetch, compare the new feed with the old
// one by item id, raise events for expired and new items, replace and save.

#include "channels/channelManager.h"
#include "channels/channelSummaryPage.h"
#include "channels/common.h"
#include "lib/log/log.h"

#include <algorithm>
#include <filesystem>
#include <map>

namespace channels {

namespace {

const msglog::LogSource kWorkerSource{1};

using FeedIndex = std::map<std::string, std::size_t>;

// Item id to item index; items of one feed that share an id occupy one entry.
FeedIndex indexFeed(const Feed& feed) {
    threadSafety::ScopedLock lock(feed.lock());
    FeedIndex index;
    const std::size_t count = feed.itemCount();
    for (std::size_t i = 0; i < count; ++i)
        index[feed.itemId(i)] = i; // a later item with the same id takes the entry
    return index;
}

// Shows the old feed's headlines as the channel's feed while the expired-item events run, so
// that listeners read the expired items at their indices. Should an event throw, the channel
// reads its old feed from its file again.
class OldHeadlinesShown {
public:
    OldHeadlinesShown(Channel& channel, std::unique_ptr<Feed> headlines)
        : m_channel(channel), m_shown(headlines != nullptr) {
        if (m_shown)
            channel.state().replaceFeed(std::move(headlines));
    }
    ~OldHeadlinesShown() {
        if (!m_shown)
            return;
        m_channel.state().readFeedFromFile(m_channel.fileName());
        try {
            m_channel.state().feed();
        } catch (...) { // it is read when next used
        }
    }
    OldHeadlinesShown(const OldHeadlinesShown&) = delete;
    OldHeadlinesShown& operator=(const OldHeadlinesShown&) = delete;
    void replaceWith(std::unique_ptr<Feed> feed) {
        m_channel.state().replaceFeed(std::move(feed));
        m_shown = false;
    }

private:
    Channel& m_channel;
    bool m_shown;
};

// Parses the fetched text into the channel's new feed. The old feed, which may have left memory
// for the parse, comes back from the file when the parse fails.
std::unique_ptr<Feed> parseNewFeed(Channel& channel, const std::string& text) {
    try {
        return channel.parse(text);
    } catch (...) {
        channel.state().feed();
        throw;
    }
}

} // namespace

void ChannelManager::workerLoop() {
    msglog::CMessageLog::setCurrentSource(&kWorkerSource);
    PELSU_LOG(channelManagerActivityGroup(), "Channel manager worker thread started.");
    int rc = 0;
    while (threadSafety::waitForSingleObject(&m_stopEvent, 1000) != threadSafety::WAIT_OBJECT_0)
        runUpdatePass();
    if (!m_forcedStop) // a worker given up on ends without a trace, as a killed thread would
        PELSU_LOG(channelManagerActivityGroup(), "Channel manager worker thread ending: rc=" << rc);
    msglog::CMessageLog::setCurrentSource(nullptr);
}

void ChannelManager::runUpdatePass() {
    PELSU_LOG(channelManagerActivityGroup(), "Scanning channel table.");
    std::vector<std::shared_ptr<Channel>> due;
    {
        threadSafety::ScopedLock lock(m_lock);
        const std::time_t time = now();
        for (const auto& [id, channel] : m_channels)
            if (channel->isDue(time))
                due.push_back(channel);
    }
    // A stop request is noticed between two channel updates, never during one.
    while (threadSafety::waitForSingleObject(&m_stopEvent, 0) != threadSafety::WAIT_OBJECT_0) {
        bool isExplicit = false;
        std::shared_ptr<Channel> channel = takeNextChannel(due, isExplicit);
        if (!channel)
            break;
        if (!channel->isRemoved())
            updateChannel(*channel, isExplicit);
    }
}

std::shared_ptr<Channel> ChannelManager::takeNextChannel(std::vector<std::shared_ptr<Channel>>& due,
                                                         bool& isExplicit) {
    threadSafety::ScopedLock lock(m_lock);
    if (!m_requests.empty()) {
        std::shared_ptr<Channel> channel = m_requests.front();
        m_requests.pop_front();
        std::erase(due, channel);
        isExplicit = true;
        PELSU_LOG(channelManagerActivityGroup(),
                  "Updating " << channel->name() << " due to an explicit request.");
        return channel;
    }
    if (!due.empty()) {
        std::shared_ptr<Channel> channel = due.front();
        due.erase(due.begin());
        isExplicit = false;
        PELSU_LOG(channelManagerActivityGroup(),
                  "Automatically updating " << channel->name() << ".");
        return channel;
    }
    return nullptr;
}

void ChannelManager::updateChannel(Channel& channel, bool isExplicit) {
    auto& group = channelManagerActivityGroup();
    PELSU_LOG(group, "Updating channel: " << channel.name());
    PELSU_LOG(group, "Raising the BeginChannelUpdate event.");
    BeginChannelUpdateEvent begin(now(), &channel, isExplicit);
    raiseEvent(begin);
    PELSU_LOG(group, "Updating the channel.");
    bool success = true;
    try {
        updateFeed(channel);
    } catch (const std::exception& failure) {
        if (m_forcedStop)
            return; // given up on: its aborted fetch is no failure of the channel's
        success = false;
        PELSU_LOG(group, "Exception caught: " << failure.what());
        ChannelErrorEvent error(now(), &channel, "Can't update the feed.", failure.what());
        raiseEvent(error);
    }
    if (m_forcedStop)
        return;
    PELSU_LOG(group, "Raising the EndChannelUpdate event.");
    EndChannelUpdateEvent end(now(), &channel, success, isExplicit);
    raiseEvent(end);
}

void ChannelManager::writeSummaryPage(Channel& channel) {
    try {
        writeChannelSummaryPage(channel,
                                std::filesystem::path(m_channelsDir).parent_path().string());
    } catch (const std::exception& failure) {
        PELSU_LOG(channelManagerActivityGroup(),
                  "Can't write the channel summary page: " << failure.what());
    }
}

void ChannelManager::updateFeed(Channel& channel) {
    auto& group = channelManagerActivityGroup();
    // The old feed is indexed only once a new one has come: a feed the source reports unchanged
    // is neither read from the file nor written again.
    PELSU_LOG(group, "Building an index of the old feed items.");
    const bool firstFetch = channel.state().feedTime() == 0;
    PELSU_LOG(group, "Getting the latest feed for " << channel.name());
    channel.state().setLastFetchTime(static_cast<std::int32_t>(now()));
    std::string text;
    bool unchanged = false;
    channel.fetch(text, firstFetch, unchanged);
    if (m_forcedStop)
        return;
    if (unchanged)
        PELSU_LOG(group, "Feed is unchanged.");
    else if (!replaceFeed(channel, std::move(text)))
        return;
    PELSU_LOG(group, "Saving the updated channel.");
    try {
        channel.save();
    } catch (const std::exception& failure) {
        ChannelErrorEvent error(now(), &channel, "Can't save the channel details.", failure.what());
        raiseEvent(error);
    }
    // Only a page that something shows is kept up to date, its fetch time too: the window
    // that shows it takes it as written here.
    if (channel.isPageWanted())
        writeSummaryPage(channel);
    PELSU_LOG(group, "Channel update complete.");
}

bool ChannelManager::replaceFeed(Channel& channel, std::string text) {
    auto& group = channelManagerActivityGroup();
    const FeedIndex oldIndex = indexFeed(channel.state().feed());
    // The old feed waits in the file while the new one is parsed, so that the two are never in
    // memory together; its headlines stay for the expired-item events.
    std::unique_ptr<Feed> oldHeadlines = channel.state().releaseFeedForUpdate(channel.fileName());
    std::unique_ptr<Feed> newFeed = parseNewFeed(channel, text);
    std::string().swap(text);
    if (m_forcedStop)
        return false;
    newFeed->setFeedTime(static_cast<std::int32_t>(now()));
    PELSU_LOG(group, "Building an index of the new feed items.");
    const FeedIndex newIndex = indexFeed(*newFeed);
    PELSU_LOG(group, "Checking for expired items.");
    OldHeadlinesShown shown(channel, std::move(oldHeadlines));
    for (const auto& [id, index] : oldIndex) {
        if (newIndex.count(id))
            continue;
        PELSU_LOG(group, "- Raising an ExpiredFeedItem event: feedItemIndex=" << index);
        ExpiredFeedItemEvent expired(now(), &channel, static_cast<std::int32_t>(index));
        raiseEvent(expired);
    }
    PELSU_LOG(group, "Replacing the old feed with the new one.");
    shown.replaceWith(std::move(newFeed));
    PELSU_LOG(group, "Checking for new feed items.");
    for (const auto& [id, index] : newIndex) {
        if (oldIndex.count(id))
            continue;
        PELSU_LOG(group, "Raising a NewFeedItem event.");
        NewFeedItemEvent added(now(), &channel, static_cast<std::int32_t>(index));
        raiseEvent(added);
    }
    return !m_forcedStop;
}

} // namespace channels
