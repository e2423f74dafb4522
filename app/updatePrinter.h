// Channel updates as text: each channel's update printed as one block when it ends, so that
// the lines of two channels updated at once never mix, and a summary of them all.
#pragma once

#include "channels/channelManager.h"
#include "channels/events.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <ostream>
#include <set>
#include <stop_token>
#include <string>

namespace app {

class UpdatePrinter : public channels::EventListener {
public:
    // Errors outside an update (a save at the end) go to err at once, naming their channel.
    UpdatePrinter(std::ostream& out, std::ostream& err) : m_out(out), m_err(err) {}

    // Only the explicit updates of these channels are printed and counted (by default all).
    void watchOnly(std::set<const channels::Channel*> channels);
    // The blocks start with "[done/total] ".
    void setTotal(std::size_t total) { m_total = total; }
    // Waits until the updates of count channels ended or stop is requested; true when they
    // ended.
    bool waitForUpdates(std::size_t count, std::stop_token stop);

    bool hasFailed(const std::string& id) const;
    std::size_t failed() const;
    // "Updated N channel(s): N new item(s), N expired, N failed (ids)."
    std::string summary() const;

    void onBeginChannelUpdate(channels::BeginChannelUpdateEvent& event) override;
    void onNewFeedItem(channels::NewFeedItemEvent& event) override;
    void onExpiredFeedItem(channels::ExpiredFeedItemEvent& event) override;
    void onChannelError(channels::ChannelErrorEvent& event) override;
    void onEndChannelUpdate(channels::EndChannelUpdateEvent& event) override;

private:
    struct Block {
        std::string lines;
        int newItems = 0;
        int expiredItems = 0;
        bool failed = false;
    };

    void itemLine(channels::Channel& channel, int index, const char* label, int Block::*count);
    static std::string heading(const channels::Channel& channel, const Block& block);
    std::string progress() const;

    std::ostream& m_out;
    std::ostream& m_err;
    mutable std::mutex m_mutex;
    std::condition_variable_any m_ended;
    bool m_filtered = false;
    std::set<const channels::Channel*> m_watched;
    std::map<const channels::Channel*, Block> m_pending;
    std::set<const channels::Channel*> m_endedChannels;
    std::set<std::string> m_failed;
    std::size_t m_total = 0;
    std::size_t m_updated = 0;
    int m_newItems = 0;
    int m_expiredItems = 0;
};

} // namespace app
