#include "trayClient/channelItems.h"

#include "channels/channel.h"
#include "trayClient/channelDesktopSettings.h"

#include <algorithm>

namespace trayClient {

std::vector<ChannelItemRow> channelItemRows(const channels::Channel& channel,
                                            const ChannelDesktopSettingsTable& settings,
                                            std::size_t limit) {
    std::vector<ChannelItemRow> rows;
    channel.state().readFeed([&](const channels::Feed& feed) {
        const std::size_t count = std::min(limit, feed.itemCount());
        rows.reserve(count);
        for (std::size_t index = 0; index < count; ++index) {
            channels::FeedItem item = feed.item(index);
            rows.push_back({std::move(item.id), std::move(item.title), std::move(item.url),
                            std::move(item.pubDateString), false});
        }
    });
    // The viewed set is asked outside the feed's lock: the two locks are never nested.
    const ChannelDesktopSettings record = settings.get(channel.id());
    for (ChannelItemRow& row : rows)
        row.viewed = record.viewedItems.contains(row.id);
    return rows;
}

std::size_t unviewedItemCount(const channels::Channel& channel,
                              const ChannelDesktopSettingsTable& settings) {
    const std::vector<std::string> ids = feedItemIds(channel);
    const ChannelDesktopSettings record = settings.get(channel.id());
    return static_cast<std::size_t>(std::count_if(
        ids.begin(), ids.end(), [&](const auto& id) { return !record.viewedItems.contains(id); }));
}

} // namespace trayClient
