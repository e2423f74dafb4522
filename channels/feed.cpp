#include "channels/feed.h"

#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "lib/misc/text.h"

#include <algorithm>
#include <optional>
#include <string_view>

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
    const std::string& bytes = m_storage->bytes;
    std::size_t position = m_storage->starts[index];
    for (const ItemKey& key : kItemKeys) {
        const std::size_t length = readLength(bytes, position);
        (item.*key.field).assign(bytes, position, length);
        position += length;
    }
    return item;
}

std::string PackedFeedItems::id(std::size_t index) const { return field(index, &FeedItem::id); }

void PackedFeedItems::forEachField(std::size_t index,
                                   const std::function<void(std::string_view)>& function) const {
    const std::string& bytes = m_storage->bytes;
    std::size_t position = m_storage->starts[index];
    for (std::size_t key = 0; key < std::size(kItemKeys); ++key) {
        const std::size_t length = readLength(bytes, position);
        function(std::string_view(bytes).substr(position, length));
        position += length;
    }
}

std::string PackedFeedItems::field(std::size_t index, std::string FeedItem::*field) const {
    const std::string& bytes = m_storage->bytes;
    std::size_t position = m_storage->starts[index];
    for (const ItemKey& key : kItemKeys) {
        const std::size_t length = readLength(bytes, position);
        if (key.field == field)
            return bytes.substr(position, length);
        position += length;
    }
    return {};
}

PackedFeedItems::Storage& PackedFeedItems::mutableStorage() {
    if (!m_storage)
        m_storage = std::make_shared<Storage>();
    else if (m_storage.use_count() > 1) // a copy still reads the old items
        m_storage = std::make_shared<Storage>(*m_storage);
    return *m_storage;
}

void PackedFeedItems::push_back(const FeedItem& item) {
    Storage& storage = mutableStorage();
    storage.starts.push_back(storage.bytes.size());
    for (const ItemKey& key : kItemKeys) {
        appendLength(storage.bytes, (item.*key.field).size());
        storage.bytes += item.*key.field;
    }
}

void PackedFeedItems::truncate(std::size_t count) {
    if (count >= size())
        return;
    Storage& storage = mutableStorage();
    storage.bytes.resize(storage.starts[count]);
    storage.starts.resize(count);
}

void PackedFeedItems::reserve(std::size_t bytes) { mutableStorage().bytes.reserve(bytes); }

void PackedFeedItems::releaseSpareRoom() {
    if (!m_storage || m_storage.use_count() > 1)
        return;
    if (size() == 0)
        m_storage.reset(); // an empty list holds no storage
    else if (m_storage->bytes.capacity() > 2 * m_storage->bytes.size())
        m_storage->bytes.shrink_to_fit();
}

bool PackedFeedItems::operator==(const PackedFeedItems& other) const {
    if (m_storage == other.m_storage || size() != other.size())
        return m_storage == other.m_storage || size() == other.size(); // both empty, or unequal
    return m_storage->bytes == other.m_storage->bytes;
}

std::string feedItemSectionName(const std::string& section, std::size_t number) {
    return section + " (" + std::to_string(number) + ")";
}

namespace {

// Section names compare without regard to the case of ASCII letters.
bool sameName(std::string_view a, std::string_view b) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [&](char x, char y) { return lower(x) == lower(y); });
}

// The item sections of a feed saved under a section, written straight from its items.
class ItemSections : public profile::SectionSource {
public:
    ItemSections(std::string section, PackedFeedItems items)
        : m_section(std::move(section)), m_items(std::move(items)) {}
    std::size_t sectionCount() const override { return m_items.size(); }
    std::string sectionName(std::size_t index) const override {
        return feedItemSectionName(m_section, index + 1);
    }
    std::optional<std::size_t> indexOf(std::string_view name) const override {
        // "S (n)" with n written as feedItemSectionName writes it, 1 <= n <= the item count.
        const std::size_t prefix = m_section.size() + 2;
        if (name.size() < prefix + 2 || name.substr(m_section.size(), 2) != " (" ||
            name.back() != ')' || !sameName(name.substr(0, m_section.size()), m_section))
            return std::nullopt;
        const std::string_view digits = name.substr(prefix, name.size() - prefix - 1);
        std::size_t number = 0;
        for (char c : digits) {
            if (c < '0' || c > '9' || number > m_items.size())
                return std::nullopt;
            number = number * 10 + static_cast<std::size_t>(c - '0');
        }
        if (number == 0 || number > m_items.size() || std::to_string(number) != digits)
            return std::nullopt;
        return number - 1;
    }
    void sectionKeys(std::size_t index,
                     std::vector<std::pair<std::string, std::string>>& keys) const override {
        std::size_t field = 0; // the packed fields come in the keys' order
        m_items.forEachField(index, [&](std::string_view value) {
            keys.emplace_back(kItemKeys[field++].key, profile::escapeIniValue(value));
        });
    }
    void appendKeyLines(std::size_t index, std::string& out) const override {
        std::size_t field = 0;
        m_items.forEachField(index, [&](std::string_view value) {
            out += kItemKeys[field++].key;
            out += '=';
            profile::appendEscapedIniValue(out, value);
            out += '\n';
        });
    }

private:
    std::string m_section;
    PackedFeedItems m_items;
};

} // namespace

bool FeedItem::load(const std::string& file, const std::string& section) {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> keys;
        for (const ItemKey& key : kItemKeys)
            keys.emplace_back(key.key);
        return keys;
    }();
    const auto values = profile::readValues(file, section, names);
    // As readIniString reads them: unescaped, then trimmed; the id is the first key.
    const auto text = [](const std::optional<std::string>& raw) {
        return raw ? misc::trimmed(profile::unescapeIniValue(*raw)) : std::string();
    };
    std::string itemId = text(values[0]);
    if (itemId.empty())
        return false;
    id = std::move(itemId);
    for (std::size_t i = 1; i < names.size(); ++i)
        this->*kItemKeys[i].field = text(values[i]);
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

std::string Feed::itemTitle(std::size_t index) const {
    threadSafety::ScopedLock lock(m_lock);
    return index < m_items.size() ? m_items.field(index, &FeedItem::title) : std::string();
}

void Feed::appendItem(const FeedItem& item) {
    threadSafety::ScopedLock lock(m_lock);
    m_items.push_back(item);
}

void Feed::truncateItems(std::size_t count) {
    threadSafety::ScopedLock lock(m_lock);
    m_items.truncate(count);
}

void Feed::reserveItemBytes(std::size_t bytes) {
    threadSafety::ScopedLock lock(m_lock);
    m_items.reserve(bytes);
}

void Feed::releaseSpareItemBytes() {
    threadSafety::ScopedLock lock(m_lock);
    m_items.releaseSpareRoom();
}

std::unique_ptr<Feed> Feed::headlines() const {
    threadSafety::ScopedLock lock(m_lock);
    auto copy = std::make_unique<Feed>();
    copy->m_feedTime = m_feedTime;
    copy->m_channel = m_channel;
    FeedItem headline;
    for (std::size_t i = 0; i < m_items.size(); ++i) {
        FeedItem item = m_items.at(i);
        headline.id = std::move(item.id);
        headline.title = std::move(item.title);
        headline.url = std::move(item.url);
        copy->m_items.push_back(headline);
    }
    return copy;
}

std::size_t Feed::storedItemCount(const std::string& file, const std::string& section) {
    // An item is there when its id reads non-empty; a value without escapes is trimmed already.
    const auto holdsId = [](std::string_view raw) {
        if (raw.find('%') == std::string_view::npos)
            return !raw.empty();
        return !misc::trimmed(profile::unescapeIniValue(std::string(raw))).empty();
    };
    return profile::countNumberedSections(file, section + " (", ")", "Id", holdsId);
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
    profile::appendSections(file, std::make_shared<ItemSections>(section, m_items));
}

} // namespace channels
