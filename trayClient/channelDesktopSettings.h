// The client's own record for one channel: how the desktop reacts to its new items, whether
// the tray's quick-access menu lists it, two time stamps, and the ids of the items the user
// has viewed. The engine knows nothing of it.
//
// Each channel's record lives in a file of its own, <userDir>/DesktopSettings/<channelId>.ini
// (sections "Desktop Settings" and "ViewedFeedItems"), not in the channel file: the worker
// rewrites channel files, and a second writer of the same file would race with it.
//
// Both the UI thread (marking items viewed, the options dialog) and the channel worker
// (LastNewItemTime, saving after an update) use the table, so every operation takes its lock,
// and saves of one channel are serialised: a save copies the record after the previous save
// of that channel has finished, so the last save always writes the newest state and no save
// loses another's change.
#pragma once

#include "lib/misc/threadSafetyWin32.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace channels {
class Channel;
}

namespace trayClient {

struct ChannelDesktopSettings {
    bool consolidateMultipleItems = false; // "ConsolidateMultipleItems"
    bool animateOnNewItem = false;         // "AnimateOnNewItem"
    bool notifyOnNewItem = true;           // "NotifyOnNewItem"
    bool playSoundOnNewItem = true;        // "PlaySoundOnNewItem"
    std::string newItemSoundFile;          // "NewItemSoundFile"
    bool useQuickAccessMenu = false;       // "UseQuickAccessMenu"
    bool useQuickAccessSubMenus = true;    // "UseQuickAccessSubMenus"
    std::int32_t lastViewTime = 0;         // "LastViewTime", seconds since 1970
    std::int32_t lastNewItemTime = 0;      // "LastNewItemTime", seconds since 1970
    // The ids of the items the user has viewed (section "ViewedFeedItems"); a set, so marking
    // an item twice keeps one entry.
    std::set<std::string> viewedItems;

    bool operator==(const ChannelDesktopSettings&) const = default;

    // Reads both sections; missing keys keep their defaults, and the viewed list ends at the
    // first "ViewedFeedItemId-<n>" that is missing or empty. Logs in "ViewedFeedItems" under
    // the channel's name ("<Unspecified channel>" when empty). Returns false, with the reason
    // in problem and the record at its defaults, when the file exists but can't be read as a
    // profile file.
    bool load(const std::string& file, const std::string& channelName,
              std::string* problem = nullptr);
    // Writes both sections in one atomic rewrite of the file; the viewed ids are numbered from
    // 1 without gaps and keys left over from a longer list are removed. Returns false, with
    // the reason in problem, when the file can't be written.
    bool save(const std::string& file, const std::string& channelName,
              std::string* problem = nullptr) const;
};

// A channel the table knows: its id (the channel file's name without extension) and its
// display name for log lines.
struct ChannelRef {
    std::string id;
    std::string name;
};

// The channels whose files lie in a channels directory (".rss" and ".plugin"), in id order,
// each named as the channel's configuration names it (empty when it names none).
std::vector<ChannelRef> channelsInDirectory(const std::string& channelsDir);

// The ids of the items in a channel's current feed (taken under the feed's lock): what a save
// passes so that ids of items that left the feed are dropped from the viewed list.
std::vector<std::string> feedItemIds(const channels::Channel& channel);

// A channel's name as the lines about its record show it: "<Unspecified channel>" when empty.
std::string displayName(const std::string& channelName);

class ChannelDesktopSettingsTable {
public:
    // The records are kept in <userDir>/DesktopSettings/.
    explicit ChannelDesktopSettingsTable(std::string userDir);
    ChannelDesktopSettingsTable(const ChannelDesktopSettingsTable&) = delete;
    ChannelDesktopSettingsTable& operator=(const ChannelDesktopSettingsTable&) = delete;

    // <userDir>/DesktopSettings.
    const std::string& directory() const { return m_directory; }
    // <userDir>/DesktopSettings/<channelId>.ini.
    std::string fileFor(const std::string& channelId) const;

    // A record that failed to load: the user sees "Can't load the channel desktop settings
    // for " + name, and the reason. The record is in the table with its defaults; a file that
    // can't be read as settings was moved aside to keptAs so that nothing is lost.
    struct LoadFailure {
        ChannelRef channel;
        std::string reason;
        std::string keptAs;
    };
    // Loads (replacing) the record of every channel given; returns the ones that failed.
    std::vector<LoadFailure> loadAll(const std::vector<ChannelRef>& channels);
    // Loads one channel's record (a channel added while running).
    std::optional<LoadFailure> load(const ChannelRef& channel);

    bool contains(const std::string& channelId) const;
    // A copy of the record (defaults for an unknown channel).
    ChannelDesktopSettings get(const std::string& channelId) const;
    // Changes one record under the table's lock (creating it with defaults when unknown,
    // until the clean-up). The function must not call back into the table.
    void change(const std::string& channelId,
                const std::function<void(ChannelDesktopSettings&)>& edit);
    // The name used in the record's log lines; events keep it current.
    void setChannelName(const std::string& channelId, const std::string& name);
    std::string channelName(const std::string& channelId) const;

    // Adds the item to the viewed set ("Marking feed item as viewed:"); false when it was
    // already there or the channel has no record (removed meanwhile).
    bool markViewed(const std::string& channelId, const std::string& feedItemId);
    // Whether the user has viewed the item ("Checking if feed item has been viewed for").
    bool hasViewed(const std::string& channelId, const std::string& feedItemId) const;
    // Empties the viewed set ("Clearing viewed feed item list for").
    void clearViewed(const std::string& channelId);

    // Writes the record to its file, atomically. When itemsInFeed is given, viewed ids that
    // are not among them are dropped first (in memory too), so the list does not grow
    // forever. Returns false, with the reason in problem, when the file can't be written; a
    // channel without a record (removed, or after the clean-up) writes nothing.
    bool save(const std::string& channelId,
              const std::optional<std::vector<std::string>>& itemsInFeed = std::nullopt,
              std::string* problem = nullptr);
    // Forgets a removed channel and deletes its file.
    void forget(const std::string& channelId);
    // Empties the table at shut-down ("Cleaning up ChannelDesktopSettings table." is the
    // caller's line); every record was saved when it changed. Nothing makes records after it.
    void cleanUp();

private:
    struct Entry {
        std::string name;
        ChannelDesktopSettings settings;
        // Held while the record is written, so that saves of one channel run one at a time.
        std::shared_ptr<std::mutex> saveMutex = std::make_shared<std::mutex>();
    };
    // The channel's record, made with defaults when unknown unless the table was cleaned up
    // (then null).
    Entry* entryLocked(const std::string& channelId);

    std::string m_directory;
    mutable threadSafety::CriticalSection m_lock{"ChannelDesktopSettingsTable"};
    std::map<std::string, Entry> m_entries;
    bool m_cleanedUp = false;
};

} // namespace trayClient
