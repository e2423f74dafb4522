// The user's choices for a channel: section "Config" of its file, with a copy of the last
// feed's channel-level fields in "Cache" so that the channel shows its title before its
// first update.
#pragma once

#include "channels/feed.h"
#include "lib/misc/threadSafetyWin32.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace channels {

class ChannelConfig {
public:
    ChannelConfig() = default;
    virtual ~ChannelConfig() = default;
    ChannelConfig(const ChannelConfig&) = delete;
    ChannelConfig& operator=(const ChannelConfig&) = delete;

    virtual void load(const std::string& file);
    virtual void save(const std::string& file) const;

    bool forceNetDownloads() const;
    void setForceNetDownloads(bool force);
    std::string preferredChannelDisplayName() const;
    void setPreferredChannelDisplayName(const std::string& value);
    std::string preferredChannelDescription() const;
    void setPreferredChannelDescription(const std::string& text);
    std::string preferredChannelHomeUrl() const;
    void setPreferredChannelHomeUrl(const std::string& url);
    std::string preferredImageUrl() const;
    void setPreferredImageUrl(const std::string& url);
    // -1 when not set; 0..500 otherwise.
    int preferredImageWidth() const;
    void setPreferredImageWidth(int width);
    int preferredImageHeight() const;
    void setPreferredImageHeight(int height);
    std::string channelSummaryTemplateFilename() const;
    void setChannelSummaryTemplateFilename(const std::string& file);
    std::string channelSummaryBackgroundFilename() const;
    void setChannelSummaryBackgroundFilename(const std::string& file);

    // The channel-level fields of the last feed, as kept in "Cache".
    FeedChannelFields cache() const;
    void setCache(const FeedChannelFields& value);
    // Counts the changes made through the setters and loads, so that a save can tell whether
    // anything changed since the last one.
    std::uint64_t revision() const { return m_revision.load(); }

protected:
    threadSafety::CriticalSection& lock() const { return m_lock; }
    // Called by the setters of the kinds' keys, under the lock.
    void changed() { ++m_revision; }

private:
    mutable threadSafety::CriticalSection m_lock{"ChannelConfig"};
    std::atomic<std::uint64_t> m_revision{0};
    FeedChannelFields m_cache;
    bool m_forceNetDownloads = false;
    std::string m_preferredChannelDisplayName;
    std::string m_preferredChannelDescription;
    std::string m_preferredChannelHomeUrl;
    std::string m_preferredImageUrl;
    int m_preferredImageWidth = -1;
    int m_preferredImageHeight = -1;
    std::string m_channelSummaryTemplateFilename;
    std::string m_channelSummaryBackgroundFilename;
};

} // namespace channels
