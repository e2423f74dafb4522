// What the windows and the tray show of a channel's items: rows read from its current feed
// and marked with the user's viewed set. No Qt: texts stay Latin-1 as the engine keeps them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace channels {
class Channel;
}

namespace trayClient {

class ChannelDesktopSettingsTable;

struct ChannelItemRow {
    std::string id;
    std::string title;
    std::string url;
    std::string pubDate;
    bool viewed = false;

    bool operator==(const ChannelItemRow&) const = default;
};

// The channel's items in feed order (at most limit of them), each marked viewed or not.
// Safe on any thread while the worker updates the channel.
std::vector<ChannelItemRow> channelItemRows(const channels::Channel& channel,
                                            const ChannelDesktopSettingsTable& settings,
                                            std::size_t limit = static_cast<std::size_t>(-1));

// How many of the channel's items the user has not viewed.
std::size_t unviewedItemCount(const channels::Channel& channel,
                              const ChannelDesktopSettingsTable& settings);

} // namespace trayClient
