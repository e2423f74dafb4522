// The engine's front object: the channel table, the worker thread that keeps the channels up
// to date, the Internet session, and the event source through which the application hears
// what happened.
#pragma once

#include "channels/exception.h"

#include "channels/channel.h"
#include "channels/events.h"
#include "channels/rssParser.h"
#include "tools/net.h"

#include <atomic>
#include <ctime>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace channels {

// What the manager takes from the global options.
struct ChannelManagerOptions {
    bool disableInternet = false;      // "DisableInternet"
    int scriptTimeoutSeconds = 15;     // "ScriptTimeout"
    bool logChannelProcessing = false; // "LogChannelProcessing"
    int appServerPort = 0;             // the local servers' ports, for plugin scripts
    int appPluginServerPort = 2605;    // at start; appPluginServerPort() has the current one
    tools::NetOptions net;             // time limits, size limit, port and TLS rules
    int feedItemLimit = 500000;        // "MaxItemsPerFeed"
    int feedDepthLimit = 1000;         // "MaxFeedNestingDepth"
    FeedFormats feedFormats;           // at start; feedFormats() has the current ones
    unsigned stopWaitMs = 30000;       // how long stop waits for the worker
    // Each channel keeps its file's text as loaded, so that a file another program replaces or
    // removes costs no items at the next save. Front ends that only read, and commands that run
    // for seconds, turn it off: their channels then hold nothing of their files but the keys,
    // read the feed when asked, and let a file's text go again once they saved it.
    bool keepLoadedFiles = true;
};

// Seconds since 1970; tests move it forward instead of sleeping.
using Clock = std::function<std::time_t()>;

class ChannelManager : public TEventSource<Event> {
public:
    ChannelManager(std::string channelsDir, ChannelManagerOptions options, Clock clock = {});
    ~ChannelManager();
    ChannelManager(const ChannelManager&) = delete;
    ChannelManager& operator=(const ChannelManager&) = delete;

    // Loads every ".rss" and then every ".plugin" file of the channels directory; a file
    // that fails, or a ".plugin" file whose ID a ".rss" file took, gives a ChannelErrorEvent
    // and is left out. Unfinished saves older than a minute are removed first. Returns false,
    // after a ChannelErrorEvent, when the directory can't be read.
    bool loadChannels();
    // Opens the Internet session and starts the worker. Throws channels::Exception.
    void start(const std::string& userAgent);
    // Which channels stop() saves: every one (those this process saved and left unchanged
    // since are skipped, as their files already hold what a save would write), or only those
    // changed since they were loaded or saved (for commands that touch a few channels).
    enum class SaveAtStop { Every, Changed };
    // Stops the worker (forcing it after the wait), saves the channels, drops every channel
    // and closes the session. Safe to call when not started.
    void stop(SaveAtStop which = SaveAtStop::Every);
    bool isRunning() const;
    // Drops every channel without saving it (for callers that only read); not while running.
    void discardChannels();

    // Asks the worker to update the channel soon; unknown ids are ignored (returns false).
    bool requestUpdate(const std::string& id);
    // Adds a channel (saving it first); throws when the id is taken. Returns the channel.
    Channel* addChannel(std::unique_ptr<Channel> channel);
    // Deletes the channel's file and removes it. Throws "Can't delete the channel config
    // file: " + file when the file can't be deleted.
    void deleteChannel(const std::string& id);

    Channel* findChannel(const std::string& id) const;
    // The channels in table order (by id).
    std::vector<Channel*> channels() const;
    const std::string& channelsDir() const { return m_channelsDir; }
    const ChannelManagerOptions& options() const { return m_options; }
    std::time_t now() const { return m_clock(); }
    // The user agent of downloads made without a start (the manager's default otherwise).
    void setUserAgent(const std::string& userAgent) { m_userAgent = userAgent; }

    // Downloads for a channel, through the Internet-access gate.
    void download(const std::string& url, std::string& lastModified, std::string& etag,
                  bool forceDownload, long& statusCode, std::string& statusText, std::string& body,
                  const tools::DownloadRules& rules = {});
    // Re-points loopback addresses when the local plugin server moves; safe while the worker
    // fetches.
    void changeLoopbackPort(int oldPort, int newPort);
    int appPluginServerPort() const { return m_appPluginServerPort.load(); }
    // The formats and encodings feeds are read in; a change applies from the next parse on,
    // also while the worker runs.
    void setFeedFormats(FeedFormats formats);
    FeedFormats feedFormats() const;
    // "DisableInternet", "ScriptTimeout" and "LogChannelProcessing" as the user changes them:
    // the next download, script run or parse uses them, also while the worker runs.
    void setLiveOptions(bool disableInternet, int scriptTimeoutSeconds, bool logChannelProcessing);
    bool internetDisabled() const { return m_disableInternet.load(); }
    int scriptTimeoutSeconds() const { return m_scriptTimeoutSeconds.load(); }
    bool logsChannelProcessing() const { return m_logChannelProcessing.load(); }

    // One pass of the worker over the due and requested channels, on the calling thread
    // (the worker calls it every second; tests call it directly with their clock).
    void runUpdatePass();
    // Updates one channel now, raising its events.
    void updateChannel(Channel& channel, bool isExplicit);

    // True once a forced stop began: the worker then touches no listener and no file.
    bool isForcedStop() const { return m_forcedStop.load(); }
    // The lock that guards the table and the request queue.
    threadSafety::CriticalSection& lock() const { return m_lock; }
    // Raises an event unless a forced stop is under way.
    void raiseEvent(Event& event);

private:
    // Logs "Can't save the channel details for" and raises the channel's error event.
    void reportFailedSave(Channel& channel, const std::exception& failure);
    bool listChannelsDir(std::vector<std::filesystem::path>& files);
    void removeSaveLeftovers(const std::vector<std::filesystem::path>& files);
    void loadChannelFiles(const std::vector<std::filesystem::path>& files, const char* extension);
    // Empties the table and the request queue under the manager's lock; returns the channels.
    std::vector<std::shared_ptr<Channel>> takeChannels();
    std::unique_ptr<Channel> makeChannel(const std::string& id, const std::string& extension);
    void workerLoop();
    void updateFeed(Channel& channel);
    // Parses the fetched text, raises the item events and hands the new feed to the channel;
    // false when a forced stop began meanwhile.
    bool replaceFeed(Channel& channel, std::string text);
    // Fills the channel's summary page after an update; a failure is only logged.
    void writeSummaryPage(Channel& channel);
    std::shared_ptr<Channel> takeNextChannel(std::vector<std::shared_ptr<Channel>>& due,
                                             bool& isExplicit);

    std::string m_channelsDir;
    ChannelManagerOptions m_options;
    Clock m_clock;
    mutable threadSafety::CriticalSection m_lock{"ChannelManager", threadSafety::LockRank::Manager};
    std::map<std::string, std::shared_ptr<Channel>> m_channels;
    std::deque<std::shared_ptr<Channel>> m_requests;
    std::unique_ptr<tools::InternetSession> m_session;
    std::string m_userAgent;
    threadSafety::Event m_stopEvent{true, false};
    threadSafety::Event m_workerEnded{true, false};
    std::thread m_worker;
    std::atomic<bool> m_forcedStop{false};
    // Read by the worker for loopback feeds while the user moves the server.
    std::atomic<int> m_appPluginServerPort;
    std::atomic<unsigned> m_feedFormats; // FeedFormats as bits, read by the worker
    std::atomic<bool> m_disableInternet;
    std::atomic<int> m_scriptTimeoutSeconds;
    std::atomic<bool> m_logChannelProcessing;
};

} // namespace channels
