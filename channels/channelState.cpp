#include "channels/channelState.h"

#include "lib/misc/iniValues.h"

namespace channels {

namespace {
const char* const kSection = "State";
const char* const kFeedSection = "Last Feed";
} // namespace

ChannelState::ChannelState() : m_feed(std::make_unique<Feed>()) {}
// A new state holds an empty feed; a loaded one reads its feed from file when first used.

void ChannelState::load(const std::string& file) {
    threadSafety::ScopedLock lock(m_lock);
    m_lastFetchTime = profile::readIniInt(file, kSection, "LastFetchTime", 0);
    m_httpLastModified = profile::readIniString(file, kSection, "HttpLastModified");
    m_httpETag = profile::readIniString(file, kSection, "HttpETag");
    ++m_revision;
    m_storedItemCount.reset();
    m_feed.reset();
    m_feedFile = file;
    m_feedSource = profile::snapshot(file);
}

void ChannelState::save(const std::string& file) const {
    threadSafety::ScopedLock lock(m_lock);
    profile::writeIniInt(file, kSection, "LastFetchTime", m_lastFetchTime);
    profile::writeIniString(file, kSection, "HttpLastModified", m_httpLastModified);
    profile::writeIniString(file, kSection, "HttpETag", m_httpETag);
    // A feed this object wrote and nobody touched since is left as it is in the file.
    const bool written = m_feedOnFile && m_writtenStamp.exists &&
                         m_savedGeneration == m_feedGeneration &&
                         profile::fileStamp(file) == m_writtenStamp;
    // A file written by hand may lack the section: it gets the one a load would read.
    if (!m_feed && !written && !profile::hasSection(file, kFeedSection))
        loadedFeed();
    if (m_feed && !written)
        m_feed->save(file, kFeedSection);
    m_savedGeneration = m_feedGeneration;
}

std::int32_t ChannelState::lastFetchTime() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_lastFetchTime;
}
void ChannelState::setLastFetchTime(std::int32_t time) {
    threadSafety::ScopedLock lock(m_lock);
    m_lastFetchTime = time;
    ++m_revision;
}
std::string ChannelState::httpLastModified() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_httpLastModified;
}
void ChannelState::setHttpLastModified(const std::string& value) {
    threadSafety::ScopedLock lock(m_lock);
    m_httpLastModified = value;
    ++m_revision;
}
std::string ChannelState::httpETag() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_httpETag;
}
void ChannelState::setHttpETag(const std::string& value) {
    threadSafety::ScopedLock lock(m_lock);
    m_httpETag = value;
    ++m_revision;
}
Feed& ChannelState::loadedFeed() const {
    if (!m_feed) {
        auto feed = std::make_unique<Feed>();
        if (!m_feedFile.empty()) {
            profile::ReadFromSnapshot asLoaded(m_feedFile, m_feedSource);
            feed->load(m_feedFile, kFeedSection);
        }
        m_writtenStamp = {};
        m_feedOnFile =
            !m_feedFile.empty() && (!m_feedSource || profile::holdsText(m_feedFile, m_feedSource));
        m_feed = std::move(feed);
        m_feedSource.reset();
        // The feed is in memory now: the file's text is read again when a save needs it.
        if (!m_feedFile.empty())
            profile::forget(m_feedFile);
    }
    return *m_feed;
}
Feed& ChannelState::feed() {
    threadSafety::ScopedLock lock(m_lock);
    return loadedFeed();
}
const Feed& ChannelState::feed() const {
    threadSafety::ScopedLock lock(m_lock);
    return loadedFeed();
}
void ChannelState::readFeed(const std::function<void(const Feed&)>& reader) const {
    threadSafety::ScopedLock lock(m_lock);
    const Feed& feed = loadedFeed();
    threadSafety::ScopedLock feedLock(feed.lock());
    reader(feed);
}
void ChannelState::replaceFeed(std::unique_ptr<Feed> feed) {
    threadSafety::ScopedLock lock(m_lock);
    m_feed = feed ? std::move(feed) : std::make_unique<Feed>();
    m_feedOnFile = false;
    m_writtenStamp = {};
    ++m_feedGeneration;
    m_storedItemCount.reset();
    ++m_revision;
}
std::int32_t ChannelState::feedTime() const {
    threadSafety::ScopedLock lock(m_lock);
    if (m_feed || m_feedFile.empty())
        return loadedFeed().feedTime();
    profile::ReadFromSnapshot asLoaded(m_feedFile, m_feedSource);
    return profile::readIniInt(m_feedFile, kFeedSection, "FeedTime", 0);
}

std::size_t ChannelState::itemCount() const {
    threadSafety::ScopedLock lock(m_lock);
    if (m_feed || m_feedFile.empty())
        return loadedFeed().itemCount();
    if (!m_feedSource && m_storedItemCount)
        return *m_storedItemCount;
    profile::ReadFromSnapshot asLoaded(m_feedFile, m_feedSource);
    return Feed::storedItemCount(m_feedFile, kFeedSection);
}
bool ChannelState::isFeedLoaded() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_feed != nullptr;
}
std::optional<FeedChannelFields> ChannelState::fetchedFeedChannel() const {
    threadSafety::ScopedLock lock(m_lock);
    if (!m_feed || m_feed->feedTime() == 0)
        return std::nullopt;
    return m_feed->channel();
}
void ChannelState::releaseFeed(const std::string& file, bool keepCopy) {
    threadSafety::ScopedLock lock(m_lock);
    if (!keepCopy) {
        if (m_feed)
            m_storedItemCount = m_feed->itemCount();
        else if (m_feedSource || m_feedFile != file)
            m_storedItemCount.reset(); // counted in the file when asked
        m_feed.reset();
        m_feedSource.reset();
        m_feedFile = file;
        profile::forget(file);
        return;
    }
    m_storedItemCount.reset();
    m_feed.reset();
    m_feedFile = file;
    m_feedSource = profile::snapshot(file);
}

void ChannelState::keepFeedThroughSave(const std::string& file) {
    threadSafety::ScopedLock lock(m_lock);
    // A look at the file's stamp first: reading the file again is needed only when it changed.
    if (!m_feed && m_feedSource && !profile::holdsText(file, m_feedSource) &&
        !profile::sameText(m_feedSource, profile::snapshot(file)))
        loadedFeed();
}
void ChannelState::dropKeptCopy() {
    threadSafety::ScopedLock lock(m_lock);
    if (!m_feedSource)
        return;
    {
        profile::ReadFromSnapshot asLoaded(m_feedFile, m_feedSource);
        m_storedItemCount = Feed::storedItemCount(m_feedFile, kFeedSection);
    }
    m_feedSource.reset();
    profile::forget(m_feedFile);
}
void ChannelState::offerKeptCopy(const std::string& file) const {
    threadSafety::ScopedLock lock(m_lock);
    profile::reuse(file, m_feedSource);
}
void ChannelState::feedSaved(const std::string& file, bool keepCopy) {
    threadSafety::ScopedLock lock(m_lock);
    if (!m_feed && !keepCopy) {
        // The items the file holds were counted when it was loaded; its text may go.
        if (!m_storedItemCount)
            m_storedItemCount = Feed::storedItemCount(file, kFeedSection);
        m_feedSource.reset();
        profile::forget(file);
    } else if (!m_feed)
        m_feedSource = profile::snapshot(file);
    else if (m_savedGeneration == m_feedGeneration) {
        m_feedOnFile = true; // unless another feed came in after the save wrote this one
        m_writtenStamp = profile::fileStamp(file);
    }
}

std::unique_ptr<Feed> ChannelState::releaseFeedForUpdate(const std::string& file) {
    threadSafety::ScopedLock lock(m_lock);
    if (!m_feed || !m_feedOnFile)
        return nullptr;
    std::unique_ptr<Feed> headlines = m_feed->headlines();
    readFeedFromFile(file);
    return headlines;
}

void ChannelState::readFeedFromFile(const std::string& file) {
    threadSafety::ScopedLock lock(m_lock);
    m_storedItemCount.reset();
    m_feed.reset();
    m_feedFile = file;
    m_feedSource.reset();
}

} // namespace channels
