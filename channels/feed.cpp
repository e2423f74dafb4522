#include "channels/feed.h"

#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"

namespace channels {

namespace {

// The item keys in storage order, with the field each one holds.
struct ItemKey {
    const char* key;
    std::string FeedItem::*field;
};
constexpr ItemKey kItemKeys[] = {
    {"Id", &FeedItem::id},
    {"Title", &FeedItem::title},
    {"Description", &FeedItem::description},
    {"Url", &FeedItem::url},
    {"Source", &FeedItem::source},
    {"Author", &FeedItem::author},
    {"CommentsUrl", &FeedItem::commentsUrl},
    {"PubDateString", &FeedItem::pubDateString},
};

// The channel-level keys in storage order; width and height are the two integers.
struct ChannelKey {
    const char* key;
    std::string FeedChannelFields::*text;
    int FeedChannelFields::*number;
};
constexpr ChannelKey kChannelKeys[] = {
    {"ChannelDisplayName", &FeedChannelFields::channelDisplayName, nullptr},
    {"ChannelDescription", &FeedChannelFields::channelDescription, nullptr},
    {"ChannelHomeUrl", &FeedChannelFields::channelHomeUrl, nullptr},
    {"ChannelImageUrl", &FeedChannelFields::channelImageUrl, nullptr},
    {"ChannelImageWidth", nullptr, &FeedChannelFields::channelImageWidth},
    {"ChannelImageHeight", nullptr, &FeedChannelFields::channelImageHeight},
    {"CopyrightString", &FeedChannelFields::copyrightString, nullptr},
    {"EditorEmailAddress", &FeedChannelFields::editorEmailAddress, nullptr},
    {"WebMasterEmailAddress", &FeedChannelFields::webMasterEmailAddress, nullptr},
    {"PubDateString", &FeedChannelFields::pubDateString, nullptr},
    {"LastBuildDateString", &FeedChannelFields::lastBuildDateString, nullptr},
    {"FeedGenerator", &FeedChannelFields::feedGenerator, nullptr},
};

constexpr int kImageSizeMaximum = 500;

} // namespace

namespace {

void appendLength(std::string& out, std::size_t length) {
    do {
        const auto low = static_cast<unsigned char>(length & 0x7F);
        length >>= 7;
        out += static_cast<char>(length ? low | 0x80 : low);
    } while (length);
}

std::size_t readLength(const std::string& bytes, std::size_t& position) {
    std::size_t length = 0;
    for (int shift = 0;; shift += 7) {
        const auto byte = static_cast<unsigned char>(bytes[position++]);
        length |= static_cast<std::size_t>(byte & 0x7F) << shift;
        if (!(byte & 0x80))
            return length;
    }
}

} // namespace

FeedItem PackedFeedItems::at(std::size_t index) const {
    FeedItem item;
    std::size_t position = m_starts[index];
    for (const ItemKey& key : kItemKeys) {
        const std::size_t length = readLength(m_bytes, position);
        (item.*key.field).assign(m_bytes, position, length);
        position += length;
    }
    return item;
}

std::string PackedFeedItems::id(std::size_t index) const {
    std::size_t position = m_starts[index];
    const std::size_t length = readLength(m_bytes, position); // the id is the first field
    return m_bytes.substr(position, length);
}

void PackedFeedItems::push_back(const FeedItem& item) {
    m_starts.push_back(m_bytes.size());
    for (const ItemKey& key : kItemKeys) {
        appendLength(m_bytes, (item.*key.field).size());
        m_bytes += item.*key.field;
    }
}

void PackedFeedItems::truncate(std::size_t count) {
    if (count >= m_starts.size())
        return;
    m_bytes.resize(m_starts[count]);
    m_starts.resize(count);
}

std::string feedItemSectionName(const std::string& section, std::size_t number) {
    return section + " (" + std::to_string(number) + ")";
}

bool FeedItem::load(const std::string& file, const std::string& section) {
    const std::string itemId = profile::readIniString(file, section, "Id");
    if (itemId.empty())
        return false;
    for (const ItemKey& key : kItemKeys)
        this->*key.field = profile::readIniString(file, section, key.key);
    return true;
}

void FeedItem::save(const std::string& file, const std::string& section) const {
    for (const ItemKey& key : kItemKeys)
        profile::writeIniString(file, section, key.key, this->*key.field);
}

void FeedChannelFields::load(const std::string& file, const std::string& section) {
    for (const ChannelKey& key : kChannelKeys) {
        if (key.text)
            this->*key.text = profile::readIniString(file, section, key.key);
        else
            this->*key.number =
                profile::readIniIntRange(file, section, key.key, 0, kImageSizeMaximum, 0);
    }
}

void FeedChannelFields::save(const std::string& file, const std::string& section) const {
    for (const ChannelKey& key : kChannelKeys) {
        if (key.text)
            profile::writeIniString(file, section, key.key, this->*key.text);
        else
            profile::writeIniInt(file, section, key.key, this->*key.number);
    }
}

Feed::Feed(const Feed& other) {
    threadSafety::ScopedLock lock(other.m_lock);
    m_feedTime = other.m_feedTime;
    m_channel = other.m_channel;
    m_items = other.m_items;
}

Feed& Feed::operator=(const Feed& other) {
    if (this == &other)
        return *this;
    Feed copy(other);
    threadSafety::ScopedLock lock(m_lock);
    m_feedTime = copy.m_feedTime;
    m_channel = std::move(copy.m_channel);
    m_items = std::move(copy.m_items);
    return *this;
}

bool Feed::operator==(const Feed& other) const {
    if (this == &other)
        return true;
    Feed mine(*this);
    Feed theirs(other);
    return mine.m_feedTime == theirs.m_feedTime && mine.m_channel == theirs.m_channel &&
           mine.m_items == theirs.m_items;
}

std::int32_t Feed::feedTime() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_feedTime;
}

void Feed::setFeedTime(std::int32_t time) {
    threadSafety::ScopedLock lock(m_lock);
    m_feedTime = time;
}

std::size_t Feed::itemCount() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_items.size();
}

FeedItem Feed::item(std::size_t index) const {
    threadSafety::ScopedLock lock(m_lock);
    return index < m_items.size() ? m_items.at(index) : FeedItem{};
}

std::vector<FeedItem> Feed::items() const {
    threadSafety::ScopedLock lock(m_lock);
    std::vector<FeedItem> items;
    items.reserve(m_items.size());
    for (std::size_t i = 0; i < m_items.size(); ++i)
        items.push_back(m_items.at(i));
    return items;
}

std::string Feed::itemId(std::size_t index) const {
    threadSafety::ScopedLock lock(m_lock);
    return index < m_items.size() ? m_items.id(index) : std::string();
}

void Feed::appendItem(FeedItem item) {
    threadSafety::ScopedLock lock(m_lock);
    m_items.push_back(item);
}

void Feed::truncateItems(std::size_t count) {
    threadSafety::ScopedLock lock(m_lock);
    m_items.truncate(count);
}

std::size_t Feed::storedItemCount(const std::string& file, const std::string& section) {
    profile::WriteBatch snapshot(file);
    std::size_t count = 0;
    while (!profile::readIniString(file, feedItemSectionName(section, count + 1), "Id").empty())
        ++count;
    return count;
}

void Feed::load(const std::string& file, const std::string& section) {
    profile::WriteBatch snapshot(file);
    std::int32_t feedTime = profile::readIniInt(file, section, "FeedTime", 0);
    FeedChannelFields channel;
    channel.load(file, section);
    PackedFeedItems items;
    for (std::size_t n = 1;; ++n) {
        FeedItem item;
        if (!item.load(file, feedItemSectionName(section, n)))
            break;
        items.push_back(item);
    }
    threadSafety::ScopedLock lock(m_lock);
    m_feedTime = feedTime;
    m_channel = std::move(channel);
    m_items = std::move(items);
}

void Feed::writeAsNewFile(std::ostream& out, const std::string& section) const {
    threadSafety::ScopedLock lock(m_lock);
    out << '[' << section << "]\nFeedTime=" << m_feedTime << '\n';
    for (const ChannelKey& key : kChannelKeys) {
        out << key.key << '=';
        if (key.text)
            out << profile::escapeIniValue(m_channel.*key.text) << '\n';
        else
            out << m_channel.*key.number << '\n';
    }
    for (std::size_t i = 0; i < m_items.size(); ++i) {
        const FeedItem item = m_items.at(i);
        out << '[' << feedItemSectionName(section, i + 1) << "]\n";
        for (const ItemKey& key : kItemKeys)
            out << key.key << '=' << profile::escapeIniValue(item.*key.field) << '\n';
    }
}

void Feed::save(const std::string& file, const std::string& section) const {
    threadSafety::ScopedLock lock(m_lock);
    profile::WriteBatch batch(file);
    profile::writeIniInt(file, section, "FeedTime", m_feedTime);
    m_channel.save(file, section);
    for (std::size_t n = 1;; ++n) {
        const std::string itemSection = feedItemSectionName(section, n);
        if (profile::readIniString(file, itemSection, "Id").empty())
            break;
        profile::deleteIniSection(file, itemSection);
    }
    for (std::size_t i = 0; i < m_items.size(); ++i)
        m_items.at(i).save(file, feedItemSectionName(section, i + 1));
}

} // namespace channels
