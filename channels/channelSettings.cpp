#include "channels/channelSettings.h"

#include "lib/misc/iniValues.h"

#include <atomic>

namespace channels {

namespace {
const char* const kSection = "Settings";
std::atomic<const DefaultChannelSettingsProvider*> g_defaults{nullptr};
} // namespace

ChannelSettings::ChannelSettings(const ChannelSettings& other) { *this = other; }

ChannelSettings& ChannelSettings::operator=(const ChannelSettings& other) {
    if (this == &other)
        return *this;
    bool autoUpdate, allowEmpty;
    std::int32_t interval, minimum;
    int maxItems;
    {
        threadSafety::ScopedLock lock(other.m_lock);
        autoUpdate = other.m_autoUpdate;
        interval = other.m_interval;
        allowEmpty = other.m_allowEmptyFeeds;
        maxItems = other.m_maxFeedItems;
        minimum = other.m_minimumInterval;
    }
    threadSafety::ScopedLock lock(m_lock);
    m_autoUpdate = autoUpdate;
    m_interval = interval;
    m_allowEmptyFeeds = allowEmpty;
    m_maxFeedItems = maxItems;
    m_minimumInterval = minimum;
    ++m_revision;
    return *this;
}

bool ChannelSettings::operator==(const ChannelSettings& other) const {
    const ChannelSettings a(*this), b(other);
    return a.m_autoUpdate == b.m_autoUpdate && a.m_interval == b.m_interval &&
           a.m_allowEmptyFeeds == b.m_allowEmptyFeeds && a.m_maxFeedItems == b.m_maxFeedItems;
}

void ChannelSettings::setDefaultsProvider(const DefaultChannelSettingsProvider* provider) {
    g_defaults = provider;
}

void ChannelSettings::load(const std::string& file) {
    bool autoUpdate = kDefaultAutoUpdate;
    std::int32_t interval = kDefaultInterval;
    bool allowEmpty = kDefaultAllowEmptyFeeds;
    int maxItems = kDefaultMaxFeedItems;
    if (const DefaultChannelSettingsProvider* provider = g_defaults.load())
        provider->defaultChannelSettings(autoUpdate, interval, allowEmpty, maxItems);
    threadSafety::ScopedLock lock(m_lock);
    m_autoUpdate = profile::readIniBool(file, kSection, "IsAutoUpdateEnabled", autoUpdate);
    m_interval = profile::readIniInt(file, kSection, "AutoUpdateInterval", interval);
    m_allowEmptyFeeds = profile::readIniBool(file, kSection, "AllowEmptyFeeds", allowEmpty);
    m_maxFeedItems = profile::readIniIntRange(file, kSection, "MaxFeedItems", -1, 100, maxItems);
    ++m_revision;
}

void ChannelSettings::save(const std::string& file) const {
    threadSafety::ScopedLock lock(m_lock);
    profile::writeIniBool(file, kSection, "IsAutoUpdateEnabled", m_autoUpdate);
    profile::writeIniInt(file, kSection, "AutoUpdateInterval", m_interval);
    profile::writeIniBool(file, kSection, "AllowEmptyFeeds", m_allowEmptyFeeds);
    profile::writeIniInt(file, kSection, "MaxFeedItems", m_maxFeedItems);
}

bool ChannelSettings::isAutoUpdateEnabled() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_autoUpdate;
}
void ChannelSettings::setAutoUpdateEnabled(bool enabled) {
    threadSafety::ScopedLock lock(m_lock);
    m_autoUpdate = enabled;
    ++m_revision;
}
std::int32_t ChannelSettings::autoUpdateInterval() {
    threadSafety::ScopedLock lock(m_lock);
    if (m_interval < m_minimumInterval) {
        m_interval = m_minimumInterval;
        ++m_revision; // the raised value is what the next save writes
    }
    return m_interval;
}
std::int32_t ChannelSettings::storedAutoUpdateInterval() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_interval;
}
void ChannelSettings::setAutoUpdateInterval(std::int32_t seconds) {
    threadSafety::ScopedLock lock(m_lock);
    m_interval = seconds;
    ++m_revision;
}
bool ChannelSettings::allowEmptyFeeds() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_allowEmptyFeeds;
}
void ChannelSettings::setAllowEmptyFeeds(bool allow) {
    threadSafety::ScopedLock lock(m_lock);
    m_allowEmptyFeeds = allow;
    ++m_revision;
}
int ChannelSettings::maxFeedItems() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_maxFeedItems;
}
void ChannelSettings::setMaxFeedItems(int count) {
    threadSafety::ScopedLock lock(m_lock);
    m_maxFeedItems = count;
    ++m_revision;
}
void ChannelSettings::setMinimumInterval(std::int32_t seconds) {
    threadSafety::ScopedLock lock(m_lock);
    m_minimumInterval = seconds;
}

} // namespace channels
