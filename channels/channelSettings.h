// How a channel is updated: section "Settings" of its file.
#pragma once

#include "lib/misc/threadSafetyWin32.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace channels {

class ChannelSettings;

// The application's default settings for channels whose file has none (the channel manager
// holds them); their values are read under the provider's lock.
class DefaultChannelSettingsProvider {
public:
    virtual ~DefaultChannelSettingsProvider() = default;
    // Fills the four defaults; returns false when there are none.
    virtual bool defaultChannelSettings(bool& autoUpdate, std::int32_t& interval,
                                        bool& allowEmptyFeeds, int& maxFeedItems) const = 0;
};

class ChannelSettings {
public:
    static constexpr bool kDefaultAutoUpdate = true;
    static constexpr std::int32_t kDefaultInterval = 86400;
    static constexpr bool kDefaultAllowEmptyFeeds = false;
    static constexpr int kDefaultMaxFeedItems = -1;

    ChannelSettings() = default;
    ChannelSettings(const ChannelSettings& other);
    ChannelSettings& operator=(const ChannelSettings& other);
    bool operator==(const ChannelSettings& other) const;
    virtual ~ChannelSettings() = default;

    virtual void load(const std::string& file);
    virtual void save(const std::string& file) const;

    bool isAutoUpdateEnabled() const;
    void setAutoUpdateEnabled(bool enabled);
    // The interval in seconds, raised to the application's minimum (and kept raised).
    std::int32_t autoUpdateInterval();
    std::int32_t storedAutoUpdateInterval() const;
    void setAutoUpdateInterval(std::int32_t seconds);
    bool allowEmptyFeeds() const;
    void setAllowEmptyFeeds(bool allow);
    // -1 or 0: no limit; N: the first N items are kept.
    int maxFeedItems() const;
    void setMaxFeedItems(int count);

    // Counts the changes made through the setters and loads (see ChannelConfig::revision).
    std::uint64_t revision() const { return m_revision.load(); }
    // The application's minimum interval (not stored in the file).
    void setMinimumInterval(std::int32_t seconds);
    // Where the defaults come from; null for the built-in ones.
    static void setDefaultsProvider(const DefaultChannelSettingsProvider* provider);

private:
    mutable threadSafety::CriticalSection m_lock{"ChannelSettings"};
    bool m_autoUpdate = kDefaultAutoUpdate;
    std::int32_t m_interval = kDefaultInterval;
    bool m_allowEmptyFeeds = kDefaultAllowEmptyFeeds;
    int m_maxFeedItems = kDefaultMaxFeedItems;
    std::int32_t m_minimumInterval = 0;
    std::atomic<std::uint64_t> m_revision{0};
};

} // namespace channels
