#include "channels/channelManager.h"

#include "channels/common.h"
#include "channels/exception.h"
#include "channels/internal/scriptRunner.h"
#include "channels/pluginChannel.h"
#include "channels/rssChannel.h"
#include "lib/log/log.h"
#include "lib/misc/profileFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace channels {

namespace {

// The worker runs below the user interface, as the platform's lowest thread priority does.
void lowerCurrentThreadPriority() {
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)), 10);
}

} // namespace

ChannelManager::ChannelManager(std::string channelsDir, ChannelManagerOptions options, Clock clock)
    : m_channelsDir(std::move(channelsDir)), m_options(std::move(options)),
      m_clock(clock ? std::move(clock) : Clock([] { return std::time(nullptr); })),
      m_appPluginServerPort(m_options.appPluginServerPort),
      m_disableInternet(m_options.disableInternet),
      m_scriptTimeoutSeconds(m_options.scriptTimeoutSeconds),
      m_logChannelProcessing(m_options.logChannelProcessing) {
    setFeedFormats(m_options.feedFormats);
    PELSU_LOG(channelManagerGroup(), "Channel Manager created:");
    PELSU_LOG(channelManagerGroup(), "- channelsDir=" << m_channelsDir);
}

void ChannelManager::setFeedFormats(FeedFormats formats) {
    m_feedFormats =
        (formats.atom ? 1u : 0u) | (formats.json ? 2u : 0u) | (formats.convertEncodings ? 4u : 0u);
}

void ChannelManager::setLiveOptions(bool disableInternet, int scriptTimeoutSeconds,
                                    bool logChannelProcessing) {
    m_disableInternet = disableInternet;
    m_scriptTimeoutSeconds = scriptTimeoutSeconds;
    m_logChannelProcessing = logChannelProcessing;
}

FeedFormats ChannelManager::feedFormats() const {
    const unsigned bits = m_feedFormats.load();
    return FeedFormats{(bits & 1u) != 0, (bits & 2u) != 0, (bits & 4u) != 0};
}

ChannelManager::~ChannelManager() {
    stop();
    PELSU_LOG(channelManagerGroup(), "Channel Manager destroyed:");
    PELSU_LOG(channelManagerGroup(), "- channelsDir=" << m_channelsDir);
}

std::unique_ptr<Channel> ChannelManager::makeChannel(const std::string& id,
                                                     const std::string& extension) {
    if (extension == ".plugin")
        return std::make_unique<PluginChannel>(this, id);
    return std::make_unique<RssChannel>(this, id);
}

namespace {

// Temporary files of channel saves that a killed process left behind ("x.rss.tmp-AbC123").
bool isChannelSaveLeftover(const fs::path& file) {
    const std::string name = file.filename().string();
    for (const char* extension : {".rss.tmp-", ".plugin.tmp-"}) {
        const auto at = name.rfind(extension);
        if (at != std::string::npos && at > 0 && name.size() == at + std::strlen(extension) + 6)
            return true;
    }
    return false;
}

} // namespace

bool ChannelManager::listChannelsDir(std::vector<fs::path>& files) {
    std::error_code error;
    for (fs::directory_iterator it(m_channelsDir, error), end; !error && it != end;
         it.increment(error))
        files.push_back(it->path());
    if (!error) {
        std::sort(files.begin(), files.end());
        return true;
    }
    const std::string message = "Can't read the channels directory.";
    PELSU_LOG(channelManagerGroup(), message << " " << m_channelsDir << ": " << error.message());
    ChannelErrorEvent event(now(), nullptr, message, m_channelsDir + ": " + error.message());
    raiseEvent(event);
    return false;
}

void ChannelManager::removeSaveLeftovers(const std::vector<fs::path>& files) {
    // A save in progress in another process is a moment old at most; a minute is a safe margin.
    constexpr std::time_t kLeftoverAge = 60;
    const std::time_t time = now();
    for (const fs::path& file : files) {
        struct stat info {};
        if (!isChannelSaveLeftover(file) || ::lstat(file.c_str(), &info) != 0 ||
            !S_ISREG(info.st_mode) || info.st_mtime > time - kLeftoverAge)
            continue;
        std::error_code error;
        if (fs::remove(file, error))
            PELSU_LOG(channelManagerGroup(), "Removed an unfinished save: " << file.string());
    }
}

void ChannelManager::loadChannelFiles(const std::vector<fs::path>& files, const char* extension) {
    for (const fs::path& file : files) {
        std::error_code error;
        if (file.extension() != extension || !fs::is_regular_file(file, error))
            continue;
        const std::string id = file.stem().string();
        try {
            if (findChannel(id))
                throw Exception("The channel " + id + " is already loaded from " + id +
                                ".rss; this file is left as it is.");
            if (const std::string problem = profile::fileProblem(file.string()); !problem.empty())
                throw Exception(problem);
            auto channel = makeChannel(id, extension);
            channel->load();
            threadSafety::ScopedLock lock(m_lock);
            m_channels[id] = std::move(channel);
        } catch (const std::exception& failure) {
            const std::string message =
                "Can't load channel file \"" + file.filename().string() + "\".";
            PELSU_LOG(channelManagerGroup(), message << " " << failure.what());
            ChannelErrorEvent event(now(), nullptr, message, failure.what());
            raiseEvent(event);
        }
    }
}

bool ChannelManager::loadChannels() {
    PELSU_LOG(channelManagerGroup(), "Loading RSS channels...");
    std::vector<fs::path> files;
    if (!listChannelsDir(files))
        return false;
    removeSaveLeftovers(files);
    loadChannelFiles(files, ".rss");
    loadChannelFiles(files, ".plugin");
    return true;
}

void ChannelManager::start(const std::string& userAgent) {
    PELSU_LOG(channelManagerGroup(), "Opening an Internet connection: userAgent=" << userAgent);
    try {
        threadSafety::ScopedLock lock(m_lock);
        m_userAgent = userAgent;
        m_session = std::make_unique<tools::InternetSession>(userAgent, m_options.net);
    } catch (const std::exception&) {
        throw Exception("Can't open an Internet connection.");
    }
    PELSU_LOG(channelManagerGroup(), "Creating the stop event.");
    m_stopEvent.reset();
    m_workerEnded.reset();
    m_forcedStop = false;
    PELSU_LOG(channelManagerGroup(), "Starting the channel update thread.");
    try {
        m_worker = std::thread([this] {
            lowerCurrentThreadPriority();
            workerLoop();
            m_workerEnded.set();
        });
    } catch (const std::exception&) {
        throw Exception("Can't start the channel update thread.");
    }
    PELSU_LOG(channelManagerGroup(), "Channel manager started OK.");
}

bool ChannelManager::isRunning() const { return m_worker.joinable(); }

void ChannelManager::discardChannels() {
    for (const auto& channel : takeChannels())
        channel->markRemoved();
}

// Channel locks come before the manager's, so the table is emptied under the manager's lock
// and its channels are marked only after that lock is released.
std::vector<std::shared_ptr<Channel>> ChannelManager::takeChannels() {
    std::vector<std::shared_ptr<Channel>> taken;
    threadSafety::ScopedLock lock(m_lock);
    for (auto& [id, channel] : m_channels)
        taken.push_back(std::move(channel));
    m_channels.clear();
    m_requests.clear();
    return taken;
}

void ChannelManager::stop(SaveAtStop which) {
    if (m_worker.joinable()) {
        PELSU_LOG(channelManagerGroup(), "Stopping the channel manager worker thread.");
        m_stopEvent.set();
        const std::uint32_t rc =
            threadSafety::waitForSingleObject(&m_workerEnded, m_options.stopWaitMs);
        if (rc == threadSafety::WAIT_OBJECT_0) {
            PELSU_LOG(channelManagerGroup(), "Stopped OK.");
        } else {
            PELSU_LOG(channelManagerGroup(),
                      "Couldn't stop the worker thread (rc=" << rc << ") - killing it.");
            // From here on the worker reaches no listener and no file; its fetch or script
            // run is cut short so that it can be joined.
            m_forcedStop = true;
            if (m_session)
                m_session->abortAll();
            abortAllScripts();
        }
        m_worker.join();
    }
    if (m_channels.empty() && !m_session)
        return;
    PELSU_LOG(channelManagerGroup(), "Saving channels.");
    for (Channel* channel : channels()) { // a copy: no channel is locked under the table's lock
        try {
            if (channel->needsSave() || (which == SaveAtStop::Every && !channel->savedThisRun()))
                channel->save();
        } catch (const std::exception& failure) {
            reportFailedSave(*channel, failure);
        }
    }
    PELSU_LOG(channelManagerGroup(), "Cleaning up the channel table.");
    discardChannels();
    PELSU_LOG(channelManagerGroup(), "Destroying the stop event.");
    m_stopEvent.reset();
    PELSU_LOG(channelManagerGroup(), "Closing the Internet connection.");
    m_session.reset();
    PELSU_LOG(channelManagerGroup(), "Channel Manager stopped OK.");
}

bool ChannelManager::requestUpdate(const std::string& id) {
    threadSafety::ScopedLock lock(m_lock);
    auto it = m_channels.find(id);
    if (it == m_channels.end())
        return false;
    m_requests.push_back(it->second);
    return true;
}

Channel* ChannelManager::addChannel(std::unique_ptr<Channel> channel) {
    Channel* added = channel.get();
    {
        threadSafety::ScopedLock lock(m_lock);
        if (m_channels.count(channel->id()))
            throw Exception("A channel with this ID exists already: " + channel->id());
    }
    channel->save();
    threadSafety::ScopedLock lock(m_lock);
    m_channels[added->id()] = std::move(channel);
    return added;
}

void ChannelManager::deleteChannel(const std::string& id) {
    std::shared_ptr<Channel> channel;
    {
        threadSafety::ScopedLock lock(m_lock);
        auto it = m_channels.find(id);
        if (it == m_channels.end())
            throw Exception("No such channel: " + id);
        channel = it->second;
    }
    {
        threadSafety::ScopedLock channelLock(channel->lock());
        const std::string file = channel->fileName();
        // A file already gone is a failure too: the table must not drift from the directory.
        if (::unlink(file.c_str()) != 0)
            throw Exception("Can't delete the channel config file: " + file);
        channel->markRemoved();
    }
    threadSafety::ScopedLock lock(m_lock);
    m_channels.erase(id);
    std::erase(m_requests, channel);
}

Channel* ChannelManager::findChannel(const std::string& id) const {
    threadSafety::ScopedLock lock(m_lock);
    auto it = m_channels.find(id);
    return it == m_channels.end() ? nullptr : it->second.get();
}

std::vector<Channel*> ChannelManager::channels() const {
    threadSafety::ScopedLock lock(m_lock);
    std::vector<Channel*> result;
    for (const auto& [id, channel] : m_channels)
        result.push_back(channel.get());
    return result;
}

void ChannelManager::download(const std::string& url, std::string& lastModified, std::string& etag,
                              bool forceDownload, long& statusCode, std::string& statusText,
                              std::string& body, const tools::DownloadRules& rules) {
    if (internetDisabled())
        throw Exception("Internet access has been disabled.");
    tools::InternetSession* session = nullptr;
    {
        // Without a start (pelsu-cli update) the first download opens the session.
        threadSafety::ScopedLock lock(m_lock);
        if (!m_session)
            m_session = std::make_unique<tools::InternetSession>(m_userAgent, m_options.net);
        session = m_session.get();
    }
    tools::readUrl(*session, url, &lastModified, &etag, forceDownload, &statusCode, &statusText,
                   body, rules);
}

void ChannelManager::changeLoopbackPort(int oldPort, int newPort) {
    m_appPluginServerPort = newPort;
    // A channel that can't be saved keeps its new address in memory, and the others move on.
    for (Channel* channel : channels()) {
        try {
            channel->changeLoopbackPort(oldPort, newPort);
        } catch (const std::exception& failure) {
            reportFailedSave(*channel, failure);
        }
    }
}

void ChannelManager::reportFailedSave(Channel& channel, const std::exception& failure) {
    PELSU_LOG(channelManagerGroup(), "Can't save the channel details for " << channel.name());
    ChannelErrorEvent event(now(), &channel, "Can't save the channel details.", failure.what());
    TEventSource<Event>::raise(event); // also while a stop saves the channels
}

void ChannelManager::raiseEvent(Event& event) {
    if (!m_forcedStop)
        TEventSource<Event>::raise(event);
}

} // namespace channels
