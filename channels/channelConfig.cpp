#include "channels/channelConfig.h"

#include "lib/misc/iniValues.h"

namespace channels {

namespace {
const char* const kConfig = "Config";
const char* const kCache = "Cache";
} // namespace

void ChannelConfig::load(const std::string& file) {
    threadSafety::ScopedLock guard(m_lock);
    changed();
    m_cache.load(file, kCache);
    m_forceNetDownloads = profile::readIniBool(file, kConfig, "ForceNetDownloads", false);
    m_preferredChannelDisplayName =
        profile::readIniString(file, kConfig, "PreferredChannelDisplayName");
    m_preferredChannelDescription =
        profile::readIniString(file, kConfig, "PreferredChannelDescription");
    m_preferredChannelHomeUrl = profile::readIniString(file, kConfig, "PreferredChannelHomeUrl");
    m_preferredImageUrl = profile::readIniString(file, kConfig, "PreferredImageUrl");
    m_preferredImageWidth =
        profile::readIniIntRange(file, kConfig, "PreferredImageWidth", -1, 500, -1);
    m_preferredImageHeight =
        profile::readIniIntRange(file, kConfig, "PreferredImageHeight", -1, 500, -1);
    m_channelSummaryTemplateFilename =
        profile::readIniString(file, kCache, "ChannelSummaryTemplateFilename");
    m_channelSummaryBackgroundFilename =
        profile::readIniString(file, kCache, "ChannelSummaryBackgroundFilename");
}

void ChannelConfig::save(const std::string& file) const {
    threadSafety::ScopedLock guard(m_lock);
    m_cache.save(file, kCache);
    profile::writeIniBool(file, kConfig, "ForceNetDownloads", m_forceNetDownloads);
    profile::writeIniString(file, kConfig, "PreferredChannelDisplayName",
                            m_preferredChannelDisplayName);
    profile::writeIniString(file, kConfig, "PreferredChannelDescription",
                            m_preferredChannelDescription);
    profile::writeIniString(file, kConfig, "PreferredChannelHomeUrl", m_preferredChannelHomeUrl);
    profile::writeIniString(file, kConfig, "PreferredImageUrl", m_preferredImageUrl);
    profile::writeIniInt(file, kConfig, "PreferredImageWidth", m_preferredImageWidth);
    profile::writeIniInt(file, kConfig, "PreferredImageHeight", m_preferredImageHeight);
    profile::writeIniString(file, kCache, "ChannelSummaryTemplateFilename",
                            m_channelSummaryTemplateFilename);
    profile::writeIniString(file, kCache, "ChannelSummaryBackgroundFilename",
                            m_channelSummaryBackgroundFilename);
}

#define PELSU_CONFIG_ACCESSORS(Type, getter, setter, member)                                       \
    Type ChannelConfig::getter() const {                                                           \
        threadSafety::ScopedLock guard(m_lock);                                                    \
        return (member);                                                                           \
    }                                                                                              \
    void ChannelConfig::setter(const Type& value) {                                                \
        threadSafety::ScopedLock guard(m_lock);                                                    \
        if ((member) == value)                                                                     \
            return;                                                                                \
        (member) = value;                                                                          \
        changed();                                                                                 \
    }

bool ChannelConfig::forceNetDownloads() const {
    threadSafety::ScopedLock guard(m_lock);
    return m_forceNetDownloads;
}
void ChannelConfig::setForceNetDownloads(bool force) {
    threadSafety::ScopedLock guard(m_lock);
    if (m_forceNetDownloads != force)
        changed();
    m_forceNetDownloads = force;
}
int ChannelConfig::preferredImageWidth() const {
    threadSafety::ScopedLock guard(m_lock);
    return m_preferredImageWidth;
}
void ChannelConfig::setPreferredImageWidth(int width) {
    threadSafety::ScopedLock guard(m_lock);
    if (m_preferredImageWidth != width)
        changed();
    m_preferredImageWidth = width;
}
int ChannelConfig::preferredImageHeight() const {
    threadSafety::ScopedLock guard(m_lock);
    return m_preferredImageHeight;
}
void ChannelConfig::setPreferredImageHeight(int height) {
    threadSafety::ScopedLock guard(m_lock);
    if (m_preferredImageHeight != height)
        changed();
    m_preferredImageHeight = height;
}
PELSU_CONFIG_ACCESSORS(std::string, preferredChannelDisplayName, setPreferredChannelDisplayName,
                       m_preferredChannelDisplayName)
PELSU_CONFIG_ACCESSORS(std::string, preferredChannelDescription, setPreferredChannelDescription,
                       m_preferredChannelDescription)
PELSU_CONFIG_ACCESSORS(std::string, preferredChannelHomeUrl, setPreferredChannelHomeUrl,
                       m_preferredChannelHomeUrl)
PELSU_CONFIG_ACCESSORS(std::string, preferredImageUrl, setPreferredImageUrl, m_preferredImageUrl)
PELSU_CONFIG_ACCESSORS(std::string, channelSummaryTemplateFilename,
                       setChannelSummaryTemplateFilename, m_channelSummaryTemplateFilename)
PELSU_CONFIG_ACCESSORS(std::string, channelSummaryBackgroundFilename,
                       setChannelSummaryBackgroundFilename, m_channelSummaryBackgroundFilename)
PELSU_CONFIG_ACCESSORS(FeedChannelFields, cache, setCache, m_cache)

} // namespace channels
