// What the engine last learnt about a channel: section "State" of its file and the last feed.
#pragma once

#include "channels/feed.h"
#include "lib/misc/profileFile.h"
#include "lib/misc/threadSafetyWin32.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace channels {

class ChannelState {
public:
    ChannelState();
    virtual ~ChannelState() = default;
    ChannelState(const ChannelState&) = delete;
    ChannelState& operator=(const ChannelState&) = delete;

    // Reads the keys; the feed stored under "Last Feed" is read when it is first used, from
    // the file as it was at this load (a copy is kept), so that a file replaced or removed
    // meanwhile costs no items.
    virtual void load(const std::string& file);
    // Writes the keys and, when it is in memory, the feed.
    virtual void save(const std::string& file) const;

    std::int32_t lastFetchTime() const;
    void setLastFetchTime(std::int32_t time);
    std::string httpLastModified() const;
    void setHttpLastModified(const std::string& value);
    std::string httpETag() const;
    void setHttpETag(const std::string& value);

    // The FeedTime of the current feed; read from the file, without reading the feed, when it
    // is not in memory.
    std::int32_t feedTime() const;
    // The current feed (never null). It stays valid until the next replaceFeed or load.
    Feed& feed();
    const Feed& feed() const;
    // Calls reader with the current feed while no other thread can replace it: the way for
    // a thread other than the worker (a window) to read the items safely.
    void readFeed(const std::function<void(const Feed&)>& reader) const;
    // Hands over a new feed; the old one is dropped.
    void replaceFeed(std::unique_ptr<Feed> feed);
    bool isFeedLoaded() const;
    // A copy, taken under the lock, of the channel fields of the feed in memory when it came
    // from a fetch (its FeedTime is set); nothing otherwise. Safe while the worker replaces it.
    std::optional<FeedChannelFields> fetchedFeedChannel() const;
    // The feed's item count; counted in the file, without reading the feed, when it is not in
    // memory.
    std::size_t itemCount() const;
    // Drops the feed from memory after it was saved to file; it is read again when used. Any
    // reference to the old feed is invalid afterwards. Unless keepCopy, nothing of the file is
    // kept either: only the feed's item count.
    void releaseFeed(const std::string& file, bool keepCopy = true);
    // Before a save: when the feed is not in memory and the file no longer holds the text it
    // was loaded from, reads the feed from the kept copy so that the save writes it back.
    void keepFeedThroughSave(const std::string& file);
    // After a save: the file now holds the feed. Unless keepCopy, nothing of the file's text is
    // kept: a feed not in memory is then read from the file when next used.
    void feedSaved(const std::string& file, bool keepCopy = true);
    // Lets go of the file's text kept at load, keeping only the stored item count: the feed is
    // then read from the file as it is when first used (for channels that are never saved).
    void dropKeptCopy();
    // Before a save: offers the copy of the file kept from the last load or save to the profile
    // layer, so that a save of a file nobody changed does not read it again.
    void offerKeptCopy(const std::string& file) const;
    // Counts the changes of the keys and the feed (see ChannelConfig::revision).
    std::uint64_t revision() const { return m_revision.load(); }
    // Before an update fetches and parses a new feed: when the file is known to hold the feed in
    // memory, drops it (it is read from the file again when next used) and returns its
    // headlines for the expired-item events; otherwise keeps it and returns null.
    std::unique_ptr<Feed> releaseFeedForUpdate(const std::string& file);
    // Drops the feed in memory: the file holds the one to use (see releaseFeedForUpdate).
    void readFeedFromFile(const std::string& file);

private:
    mutable threadSafety::CriticalSection m_lock{"ChannelState"};
    std::atomic<std::uint64_t> m_revision{0};
    std::int32_t m_lastFetchTime = 0;
    std::string m_httpLastModified;
    std::string m_httpETag;
    Feed& loadedFeed() const; // called with the lock held

    mutable std::unique_ptr<Feed> m_feed;
    mutable bool m_feedOnFile = false;           // the file holds the feed in memory
    std::uint64_t m_feedGeneration = 0;          // counts the feeds handed over
    mutable std::uint64_t m_savedGeneration = 0; // the feed the last save wrote
    // The file as a save left it, when that save wrote (or found written) the feed in memory:
    // while the file keeps this stamp, its feed sections are exactly what a save writes.
    mutable profile::FileStamp m_writtenStamp;
    std::string m_feedFile; // where the feed is read from when it is not in memory
    // The file as it was loaded or last saved, while the feed is not in memory.
    mutable profile::Snapshot m_feedSource;
    std::optional<std::size_t> m_storedItemCount; // counted at load when no copy is kept
};

} // namespace channels
