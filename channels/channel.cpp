#include "channels/channel.h"

#include "channels/channelManager.h"
#include "channels/exception.h"
#include "channels/rssParser.h"
#include "lib/misc/profileFile.h"

#include <filesystem>

namespace channels {

Channel::Channel(ChannelManager* manager, std::string id)
    : m_manager(manager), m_id(std::move(id)) {}

Channel::~Channel() = default;

void Channel::changeLoopbackPort(int, int) {}

std::string Channel::ownName() const {
    std::string name = config().preferredChannelDisplayName();
    if (name.empty() && state().isFeedLoaded())
        name = state().feed().channel().channelDisplayName;
    if (name.empty())
        name = config().cache().channelDisplayName;
    return name;
}

std::string Channel::name() const {
    std::string name = ownName();
    return name.empty() ? "<Unknown>" : name;
}

std::string Channel::fileName() const {
    const std::string dir = m_manager ? m_manager->channelsDir() : std::string(".");
    return (std::filesystem::path(dir) / (m_id + fileExtension())).string();
}

std::string Channel::logFileName(const std::string& suffix) const {
    const std::string dir = m_manager ? m_manager->channelsDir() : std::string(".");
    return (std::filesystem::path(dir) / (m_id + suffix)).string();
}

void Channel::load() {
    threadSafety::ScopedLock lock(m_lock);
    const std::string file = fileName();
    profile::WriteBatch snapshot(file); // one consistent copy of the file for all reads
    config().load(file);
    m_settings.load(file);
    m_state.load(file);
    m_savedRevision = revision();
    m_savedStamp = profile::stampOf(profile::snapshot(file));
    if (!keepsFiles())
        m_state.dropKeptCopy();
}

bool Channel::keepsFiles() const { return !m_manager || m_manager->options().keepLoadedFiles; }

void Channel::save() {
    threadSafety::ScopedLock lock(m_lock);
    if (m_removed)
        return;
    const std::string file = fileName();
    m_state.keepFeedThroughSave(file);
    m_state.offerKeptCopy(file);
    profile::WriteBatch batch(file);
    // The last feed's title etc. for the next start, copied while the worker may replace it.
    if (const auto fields = m_state.fetchedFeedChannel())
        config().setCache(*fields);
    // Taken before the writes: a change made meanwhile leaves the channel in need of a save.
    const std::uint64_t saving = revision();
    config().save(file);
    m_settings.save(file);
    m_state.save(file);
    if (!batch.commit())
        throw Exception(profile::lastWriteError());
    m_state.feedSaved(file, keepsFiles());
    m_savedRevision = saving;
    m_savedStamp = profile::fileStamp(file);
    m_savedThisRun = true;
}

std::uint64_t Channel::revision() const {
    return config().revision() + m_settings.revision() + m_state.revision();
}

bool Channel::needsSave() const {
    threadSafety::ScopedLock lock(m_lock);
    return !m_removed &&
           (revision() != m_savedRevision || !(profile::fileStamp(fileName()) == m_savedStamp));
}

bool Channel::savedThisRun() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_savedThisRun;
}

void Channel::releaseFeed() {
    threadSafety::ScopedLock lock(m_lock);
    m_state.releaseFeed(fileName(), keepsFiles());
}

tools::TempFile& Channel::summaryPage() {
    threadSafety::ScopedLock lock(m_lock);
    if (!m_summaryPage)
        m_summaryPage = std::make_unique<tools::TempFile>(".html");
    return *m_summaryPage;
}

bool Channel::hasSummaryPage() const {
    threadSafety::ScopedLock lock(m_lock);
    std::error_code ignored;
    return m_summaryPage && std::filesystem::file_size(m_summaryPage->path(), ignored) > 0;
}

void Channel::addPageViewer() { ++m_pageViewers; }

void Channel::removePageViewer() {
    // Never below zero, even for a viewer that outlived a channel removed and added again.
    int viewers = m_pageViewers.load();
    while (viewers > 0 && !m_pageViewers.compare_exchange_weak(viewers, viewers - 1)) {
    }
}

bool Channel::isPageWanted() const { return m_pageViewers.load() > 0; }

void Channel::markRemoved() {
    threadSafety::ScopedLock lock(m_lock);
    m_removed = true;
}

bool Channel::isRemoved() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_removed;
}

bool Channel::isDue(std::time_t now) {
    if (!m_settings.isAutoUpdateEnabled())
        return false;
    const std::int32_t interval = m_settings.autoUpdateInterval();
    if (interval == 0)
        return false;
    // Signed 32-bit arithmetic, as the stored times are.
    const auto next = static_cast<std::int32_t>(
        static_cast<std::uint32_t>(m_state.lastFetchTime()) + static_cast<std::uint32_t>(interval));
    return static_cast<std::int32_t>(now) >= next;
}

bool Channel::forceDownload(bool firstFetch) const {
    return firstFetch || config().forceNetDownloads();
}

bool Channel::logChannelProcessing() const {
    return (m_manager && m_manager->logsChannelProcessing()) ||
           channelParameterFlag("LogChannelProcessing", false);
}

bool Channel::channelParameterFlag(const std::string&, bool defaultValue) const {
    return defaultValue;
}

std::unique_ptr<Feed> Channel::update(bool firstFetch) {
    std::string text;
    bool unchanged = false;
    fetch(text, firstFetch, unchanged);
    if (unchanged)
        return nullptr;
    return parse(text);
}

std::unique_ptr<Feed> Channel::parse(const std::string& text) {
    RssParser parser;
    return parseFeed(parser, *this, text, m_settings.maxFeedItems());
}

std::unique_ptr<Feed> parseFeed(RssParser& parser, Channel& channel, const std::string& feedText,
                                int maxItems) {
    ParseOptions options;
    options.channelName = channel.name();
    options.logChannelProcessing = channel.logChannelProcessing();
    options.parseLogPath = channel.logFileName(".parse");
    options.skipLeadingBinaryData =
        channel.channelParameterFlag("SkipLeadingRssFeedBinaryData", true);
    options.allowEmptyFeeds = channel.settings().allowEmptyFeeds();
    if (const ChannelManager* manager = channel.manager()) {
        options.itemLimit = manager->options().feedItemLimit;
        options.depthLimit = manager->options().feedDepthLimit;
        options.formats = manager->feedFormats();
    }
    options.documentAddress = channel.address();
    return parseFeed(parser, options, feedText, maxItems);
}

} // namespace channels
