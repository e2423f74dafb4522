// A channel: one subscription with its configuration, settings, state and file. The kinds
// (RSS feeds and plugin scripts) differ only in how they fetch the feed text.
#pragma once

#include "channels/channelConfig.h"
#include "channels/channelSettings.h"
#include "channels/channelState.h"
#include "channels/feed.h"
#include "lib/misc/profileFile.h"
#include "lib/misc/threadSafetyWin32.h"
#include "tools/tempFile.h"

#include <atomic>
#include <ctime>
#include <memory>
#include <string>

namespace channels {

class ChannelManager;

class Channel {
public:
    Channel(ChannelManager* manager, std::string id);
    virtual ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    virtual ChannelConfig& config() = 0;
    virtual const ChannelConfig& config() const = 0;
    ChannelSettings& settings() { return m_settings; }
    const ChannelSettings& settings() const { return m_settings; }
    ChannelState& state() { return m_state; }
    const ChannelState& state() const { return m_state; }

    // Fetches the feed text; sets unchanged (and leaves text alone) when the source reports
    // that nothing changed since the last fetch. Throws channels::Exception on failure.
    virtual void fetch(std::string& text, bool firstFetch, bool& unchanged) = 0;
    // Re-points an address served by the local plugin server from one port to another.
    virtual void changeLoopbackPort(int oldPort, int newPort);
    // ".rss" or ".plugin".
    virtual const char* fileExtension() const = 0;
    // Where the feed comes from: the feed's address or the plugin's script.
    virtual std::string address() const = 0;

    const std::string& id() const { return m_id; }
    ChannelManager* manager() const { return m_manager; }
    // The display name: the user's name for the channel, else the feed's title, else
    // "<Unknown>".
    std::string name() const;
    // The same name, empty when the channel has none.
    std::string ownName() const;
    // <channels directory>/<id><extension>.
    std::string fileName() const;
    // The path of the channel's log file for a suffix such as ".parse".
    std::string logFileName(const std::string& suffix) const;

    // Configuration, settings and state (with the last feed), in that order, under the
    // channel's lock. The save writes the file once.
    void load();
    void save();
    // Whether a save would write anything: the channel changed since it was loaded or last
    // saved, or its file no longer is the one then read or written (another program replaced
    // or removed it). A failed save leaves the channel in need of one.
    bool needsSave() const;
    // Whether this process has written the channel's file: until then the file may lack keys
    // or hold values a save would write otherwise (made by hand, or by an older version).
    bool savedThisRun() const;
    // Drops the feed from memory (it was saved); it is read from the file when next used.
    void releaseFeed();

    // True when the channel should be updated automatically at this time.
    bool isDue(std::time_t now);
    // Fetches and parses: no feed when the source reports the feed unchanged.
    std::unique_ptr<Feed> update(bool firstFetch);
    // Parses fetched feed text with the channel's settings. Throws channels::Exception.
    std::unique_ptr<Feed> parse(const std::string& text);

    // The force flag of a fetch: always on a first fetch, else the channel's choice.
    bool forceDownload(bool firstFetch) const;
    // Whether detailed processing logs are written ("LogChannelProcessing").
    bool logChannelProcessing() const;
    // A channel parameter read as a flag ("SkipLeadingRssFeedBinaryData", ...).
    virtual bool channelParameterFlag(const std::string& name, bool defaultValue) const;

    // Set when the channel left the manager: it is then never saved again.
    void markRemoved();
    bool isRemoved() const;

    // The summary page's ".html" temporary file, created on first use.
    tools::TempFile& summaryPage();
    // Whether the summary page file was created and written to.
    bool hasSummaryPage() const;

    // Something shows the channel's summary page (a channel window, a plugin, pelsu-cli page):
    // while at least one viewer is registered, each update that changes the feed writes the
    // page again. Viewers are counted, so that each removes only its own interest.
    void addPageViewer();
    void removePageViewer();
    bool isPageWanted() const;
    threadSafety::CriticalSection& lock() const { return m_lock; }

private:
    // Whether the channel keeps its file's text between load and save (see
    // ChannelManagerOptions::keepLoadedFiles).
    bool keepsFiles() const;
    ChannelManager* m_manager;
    std::string m_id;
    ChannelSettings m_settings;
    ChannelState m_state;
    std::unique_ptr<tools::TempFile> m_summaryPage;
    std::atomic<int> m_pageViewers{0};
    mutable threadSafety::CriticalSection m_lock{"Channel", threadSafety::LockRank::Channel};
    bool m_removed = false;
    std::uint64_t revision() const;
    std::uint64_t m_savedRevision = 0; // the revision the file holds
    profile::FileStamp m_savedStamp;   // the file as last loaded or saved
    bool m_savedThisRun = false;
};

} // namespace channels
