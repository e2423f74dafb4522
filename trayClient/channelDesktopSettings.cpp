#include "trayClient/channelDesktopSettings.h"

#include "channels/channel.h"
#include "lib/log/log.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"

#include <algorithm>
#include <filesystem>
#include <unordered_set>
#include <variant>

namespace trayClient {

namespace {

const msglog::MsgGroupRegistration g_viewedFeedItems("ViewedFeedItems");

msglog::MsgGroup& viewedGroup() { return msglog::registerMsgGroup("ViewedFeedItems"); }

const char* const kSettingsSection = "Desktop Settings";
const char* const kViewedSection = "ViewedFeedItems";
const char* const kViewedKeyPrefix = "ViewedFeedItemId-";

using S = ChannelDesktopSettings;

// One key of "Desktop Settings": its name, its field and its default.
struct Key {
    const char* name;
    std::variant<bool S::*, std::string S::*, std::int32_t S::*> field;
};
const Key kKeys[] = {
    {"ConsolidateMultipleItems", &S::consolidateMultipleItems},
    {"AnimateOnNewItem", &S::animateOnNewItem},
    {"NotifyOnNewItem", &S::notifyOnNewItem},
    {"PlaySoundOnNewItem", &S::playSoundOnNewItem},
    {"NewItemSoundFile", &S::newItemSoundFile},
    {"UseQuickAccessMenu", &S::useQuickAccessMenu},
    {"UseQuickAccessSubMenus", &S::useQuickAccessSubMenus},
    {"LastViewTime", &S::lastViewTime},
    {"LastNewItemTime", &S::lastNewItemTime},
};

std::string viewedKey(std::size_t number) { return kViewedKeyPrefix + std::to_string(number); }

void readKey(const std::string& file, const Key& key, S& settings, const S& defaults) {
    std::visit(
        [&](auto field) {
            using Field = std::remove_cvref_t<decltype(settings.*field)>;
            if constexpr (std::is_same_v<Field, bool>)
                settings.*field =
                    profile::readIniBool(file, kSettingsSection, key.name, defaults.*field);
            else if constexpr (std::is_same_v<Field, std::string>)
                settings.*field =
                    profile::readIniString(file, kSettingsSection, key.name, defaults.*field);
            else
                settings.*field =
                    profile::readIniInt(file, kSettingsSection, key.name, defaults.*field);
        },
        key.field);
}

void writeKey(const std::string& file, const Key& key, const S& settings) {
    std::visit(
        [&](auto field) {
            using Field = std::remove_cvref_t<decltype(settings.*field)>;
            if constexpr (std::is_same_v<Field, bool>)
                profile::writeIniBool(file, kSettingsSection, key.name, settings.*field);
            else if constexpr (std::is_same_v<Field, std::string>)
                profile::writeIniString(file, kSettingsSection, key.name, settings.*field);
            else
                profile::writeIniInt(file, kSettingsSection, key.name, settings.*field);
        },
        key.field);
}

// A free name beside the file for keeping a copy that could not be read.
std::string asideName(const std::string& file) {
    std::string candidate = file + ".corrupt";
    for (int number = 2; std::filesystem::exists(candidate); ++number)
        candidate = file + ".corrupt" + std::to_string(number);
    return candidate;
}

} // namespace

bool ChannelDesktopSettings::load(const std::string& file, const std::string& channelName,
                                  std::string* problem) {
    *this = ChannelDesktopSettings{};
    if (std::string reason = profile::fileProblem(file); !reason.empty()) {
        if (problem)
            *problem = reason;
        return false;
    }
    // A batch without writes reads every key from one consistent copy of the file.
    profile::WriteBatch snapshot(file);
    const ChannelDesktopSettings defaults;
    for (const Key& key : kKeys)
        readKey(file, key, *this, defaults);

    PELSU_LOG(viewedGroup(), "Loading viewed feed item list for " << displayName(channelName));
    for (std::size_t number = 1;; ++number) {
        std::string id = profile::readIniString(file, kViewedSection, viewedKey(number));
        if (id.empty())
            break;
        viewedItems.insert(std::move(id));
    }
    PELSU_LOG_DETAIL(viewedGroup(), "- # viewed feed items: " << viewedItems.size());
    return true;
}

bool ChannelDesktopSettings::save(const std::string& file, const std::string& channelName,
                                  std::string* problem) const {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(file).parent_path(), ignored);
    profile::WriteBatch batch(file);
    for (const Key& key : kKeys)
        writeKey(file, key, *this);

    PELSU_LOG(viewedGroup(), "Saving viewed feed item list for " << displayName(channelName));
    // The section is written anew, so keys of a longer earlier list don't linger after the end.
    profile::deleteIniSection(file, kViewedSection);
    std::size_t number = 0;
    for (const std::string& id : viewedItems)
        profile::writeIniString(file, kViewedSection, viewedKey(++number), id);
    PELSU_LOG_DETAIL(viewedGroup(), "- # viewed feed items: " << viewedItems.size());
    if (batch.commit())
        return true;
    if (problem)
        *problem = profile::lastWriteError();
    return false;
}

std::vector<ChannelRef> channelsInDirectory(const std::string& channelsDir) {
    std::vector<ChannelRef> channels;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(channelsDir, error)) {
        const std::string extension = entry.path().extension().string();
        if (!entry.is_regular_file(error) || (extension != ".rss" && extension != ".plugin"))
            continue;
        const std::string file = entry.path().string();
        std::string name = profile::readIniString(file, "Config", "PreferredChannelDisplayName");
        if (name.empty())
            name = profile::readIniString(file, "Last Feed", "ChannelDisplayName");
        const std::string id = entry.path().stem().string();
        channels.push_back({id, name});
    }
    std::sort(channels.begin(), channels.end(),
              [](const ChannelRef& a, const ChannelRef& b) { return a.id < b.id; });
    return channels;
}

std::vector<std::string> feedItemIds(const channels::Channel& channel) {
    std::vector<std::string> ids;
    channel.state().readFeed([&](const channels::Feed& feed) {
        ids.reserve(feed.itemCount());
        for (std::size_t index = 0; index < feed.itemCount(); ++index)
            ids.push_back(feed.itemId(index));
    });
    return ids;
}

std::string displayName(const std::string& channelName) {
    return channelName.empty() ? "<Unspecified channel>" : channelName;
}

ChannelDesktopSettingsTable::ChannelDesktopSettingsTable(std::string userDir)
    : m_directory((std::filesystem::path(userDir) / "DesktopSettings").string()) {}

std::string ChannelDesktopSettingsTable::fileFor(const std::string& channelId) const {
    return (std::filesystem::path(m_directory) / (channelId + ".ini")).string();
}

std::vector<ChannelDesktopSettingsTable::LoadFailure>
ChannelDesktopSettingsTable::loadAll(const std::vector<ChannelRef>& channels) {
    std::vector<LoadFailure> failures;
    for (const ChannelRef& channel : channels)
        if (std::optional<LoadFailure> failure = load(channel))
            failures.push_back(std::move(*failure));
    return failures;
}

std::optional<ChannelDesktopSettingsTable::LoadFailure>
ChannelDesktopSettingsTable::load(const ChannelRef& channel) {
    const std::string file = fileFor(channel.id);
    ChannelDesktopSettings settings;
    std::string problem;
    std::optional<LoadFailure> failure;
    if (!settings.load(file, channel.name, &problem)) {
        // The record starts again from its defaults; the unreadable file is kept beside it
        // for the user rather than overwritten by the next save.
        failure = LoadFailure{channel, problem, asideName(file)};
        std::error_code error;
        std::filesystem::rename(file, failure->keptAs, error);
        if (error)
            failure->keptAs.clear();
        profile::forget(file);
    }
    threadSafety::ScopedLock lock(m_lock);
    Entry& entry = m_entries[channel.id];
    entry.name = channel.name;
    entry.settings = std::move(settings);
    return failure;
}

bool ChannelDesktopSettingsTable::contains(const std::string& channelId) const {
    threadSafety::ScopedLock lock(m_lock);
    return m_entries.count(channelId) != 0;
}

ChannelDesktopSettings ChannelDesktopSettingsTable::get(const std::string& channelId) const {
    threadSafety::ScopedLock lock(m_lock);
    auto entry = m_entries.find(channelId);
    return entry == m_entries.end() ? ChannelDesktopSettings{} : entry->second.settings;
}

ChannelDesktopSettingsTable::Entry*
ChannelDesktopSettingsTable::entryLocked(const std::string& channelId) {
    return m_cleanedUp ? nullptr : &m_entries[channelId];
}

void ChannelDesktopSettingsTable::change(const std::string& channelId,
                                         const std::function<void(ChannelDesktopSettings&)>& edit) {
    threadSafety::ScopedLock lock(m_lock);
    if (Entry* entry = entryLocked(channelId))
        edit(entry->settings);
}

void ChannelDesktopSettingsTable::setChannelName(const std::string& channelId,
                                                 const std::string& name) {
    threadSafety::ScopedLock lock(m_lock);
    if (Entry* entry = entryLocked(channelId))
        entry->name = name;
}

std::string ChannelDesktopSettingsTable::channelName(const std::string& channelId) const {
    threadSafety::ScopedLock lock(m_lock);
    auto entry = m_entries.find(channelId);
    return entry == m_entries.end() ? std::string() : entry->second.name;
}

bool ChannelDesktopSettingsTable::markViewed(const std::string& channelId,
                                             const std::string& feedItemId) {
    PELSU_LOG(viewedGroup(), "Marking feed item as viewed: " << feedItemId);
    threadSafety::ScopedLock lock(m_lock);
    auto entry = m_entries.find(channelId);
    return entry != m_entries.end() && entry->second.settings.viewedItems.insert(feedItemId).second;
}

bool ChannelDesktopSettingsTable::hasViewed(const std::string& channelId,
                                            const std::string& feedItemId) const {
    std::string name;
    bool viewed = false;
    {
        threadSafety::ScopedLock lock(m_lock);
        if (auto entry = m_entries.find(channelId); entry != m_entries.end()) {
            name = entry->second.name;
            viewed = entry->second.settings.viewedItems.count(feedItemId) != 0;
        }
    }
    PELSU_LOG(viewedGroup(), "Checking if feed item has been viewed for " << displayName(name));
    return viewed;
}

void ChannelDesktopSettingsTable::clearViewed(const std::string& channelId) {
    std::string name;
    {
        threadSafety::ScopedLock lock(m_lock);
        if (auto entry = m_entries.find(channelId); entry != m_entries.end()) {
            name = entry->second.name;
            entry->second.settings.viewedItems.clear();
        }
    }
    PELSU_LOG(viewedGroup(), "Clearing viewed feed item list for " << displayName(name));
}

bool ChannelDesktopSettingsTable::save(const std::string& channelId,
                                       const std::optional<std::vector<std::string>>& itemsInFeed,
                                       std::string* problem) {
    std::shared_ptr<std::mutex> saveMutex;
    {
        threadSafety::ScopedLock lock(m_lock);
        auto entry = m_entries.find(channelId);
        if (entry == m_entries.end())
            return true; // removed, or after the clean-up: no record to write
        saveMutex = entry->second.saveMutex;
    }
    // Saves of one channel run one at a time, and each copies the record only once the one
    // before it has written: the last save to finish always writes the newest record.
    std::lock_guard saving(*saveMutex);
    ChannelDesktopSettings copy;
    std::string name;
    {
        threadSafety::ScopedLock lock(m_lock);
        auto entry = m_entries.find(channelId);
        if (entry == m_entries.end() || entry->second.saveMutex != saveMutex)
            return true; // forgotten meanwhile: the channel was removed
        if (itemsInFeed) {
            const std::unordered_set<std::string> present(itemsInFeed->begin(), itemsInFeed->end());
            std::erase_if(entry->second.settings.viewedItems,
                          [&](const std::string& id) { return present.count(id) == 0; });
        }
        copy = entry->second.settings;
        name = entry->second.name;
    }
    return copy.save(fileFor(channelId), name, problem);
}

void ChannelDesktopSettingsTable::forget(const std::string& channelId) {
    std::shared_ptr<std::mutex> saveMutex;
    {
        threadSafety::ScopedLock lock(m_lock);
        auto entry = m_entries.find(channelId);
        if (entry != m_entries.end())
            saveMutex = entry->second.saveMutex;
    }
    std::unique_lock<std::mutex> saving;
    if (saveMutex)
        saving = std::unique_lock(*saveMutex);
    {
        threadSafety::ScopedLock lock(m_lock);
        m_entries.erase(channelId);
    }
    const std::string file = fileFor(channelId);
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
    profile::forget(file);
}

void ChannelDesktopSettingsTable::cleanUp() {
    threadSafety::ScopedLock lock(m_lock);
    m_entries.clear();
    m_cleanedUp = true;
}

} // namespace trayClient
