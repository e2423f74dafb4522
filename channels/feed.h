// One fetched and parsed edition of a channel: its channel-level fields and its items.
#pragma once

#include "lib/misc/threadSafetyWin32.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace channels {

// One item of a feed. Two items are the same item exactly when their ids are equal.
struct FeedItem {
    std::string id;
    std::string title;
    std::string description;
    std::string url;
    std::string source;
    std::string author;
    std::string commentsUrl;
    std::string pubDateString;

    bool operator==(const FeedItem&) const = default;

    // Reads the item from a section; returns false (leaving this item unchanged) when the
    // section holds no item, that is when its "Id" reads empty.
    bool load(const std::string& file, const std::string& section);
    void save(const std::string& file, const std::string& section) const;
};

// The channel-level fields a feed carries, in storage order.
struct FeedChannelFields {
    std::string channelDisplayName;
    std::string channelDescription;
    std::string channelHomeUrl;
    std::string channelImageUrl;
    int channelImageWidth = 0;  // 0..500
    int channelImageHeight = 0; // 0..500
    std::string copyrightString;
    std::string editorEmailAddress;
    std::string webMasterEmailAddress;
    std::string pubDateString;
    std::string lastBuildDateString;
    std::string feedGenerator;

    bool operator==(const FeedChannelFields&) const = default;

    // The twelve keys in any section (the channel file's "Cache" keeps a copy).
    void load(const std::string& file, const std::string& section);
    void save(const std::string& file, const std::string& section) const;
};

// Items packed one after another in one buffer, each field as its length and its bytes: a
// feed of a million small items then costs tens of bytes per item, not hundreds. Copies share
// the buffer until one of them changes.
class PackedFeedItems {
public:
    std::size_t size() const { return m_storage ? m_storage->starts.size() : 0; }
    FeedItem at(std::size_t index) const;
    std::string id(std::size_t index) const;
    // One field of the item at index, without unpacking the others.
    std::string field(std::size_t index, std::string FeedItem::*field) const;
    // Each field of the item at index, in the order of the item's keys in a file, as it is kept.
    void forEachField(std::size_t index,
                      const std::function<void(std::string_view)>& function) const;
    void push_back(const FeedItem& item);
    void truncate(std::size_t count);
    // Room for items of about this many bytes in all, so that appending moves nothing.
    void reserve(std::size_t bytes);
    // Gives the room back when more than half of it is unused (no more than growing leaves).
    void releaseSpareRoom();
    bool operator==(const PackedFeedItems& other) const;

private:
    struct Storage {
        std::string bytes;
        std::vector<std::size_t> starts;
    };
    Storage& mutableStorage();
    std::shared_ptr<Storage> m_storage;
};

class Feed {
public:
    Feed() = default;
    Feed(const Feed& other);
    Feed& operator=(const Feed& other);
    // Compares time, channel fields and items.
    bool operator==(const Feed& other) const;

    std::int32_t feedTime() const;
    void setFeedTime(std::int32_t time);

    const FeedChannelFields& channel() const { return m_channel; }
    FeedChannelFields& channel() { return m_channel; }

    std::size_t itemCount() const;
    // The item at a 0-based index (a copy, taken under the feed's lock).
    FeedItem item(std::size_t index) const;
    std::vector<FeedItem> items() const;
    // The id or title of the item at a 0-based index (empty past the end).
    std::string itemId(std::size_t index) const;
    std::string itemTitle(std::size_t index) const;
    void appendItem(const FeedItem& item);
    // Keeps the first count items.
    void truncateItems(std::size_t count);
    // A parser that knows the size of its document makes room for the items up front, and
    // gives back what they left unused when it is done.
    void reserveItemBytes(std::size_t bytes);
    void releaseSpareItemBytes();
    // A copy that keeps of each item only its id, title and link (what a listener of an
    // expired-item event reads), at a fraction of the memory of the whole feed.
    std::unique_ptr<Feed> headlines() const;

    // How many items a load from section S would bring, without reading them.
    static std::size_t storedItemCount(const std::string& file, const std::string& section);
    // Loads from section S and its item sections "S (1)", "S (2)", ...; a gap ends the list.
    void load(const std::string& file, const std::string& section);
    // Saves under section S, deleting the old item sections first; the file is written once.
    void save(const std::string& file, const std::string& section) const;
    // Writes the text a save under S puts into a file that held nothing before, without
    // building it in memory first.
    void writeAsNewFile(std::ostream& out, const std::string& section) const;

    // The lock that guards the item list.
    threadSafety::CriticalSection& lock() const { return m_lock; }

private:
    mutable threadSafety::CriticalSection m_lock{"Feed"};
    std::int32_t m_feedTime = 0;
    FeedChannelFields m_channel;
    PackedFeedItems m_items;
};

// "S (n)": the name of the section of the n-th item (from 1) of a feed stored under S.
std::string feedItemSectionName(const std::string& section, std::size_t number);

} // namespace channels
