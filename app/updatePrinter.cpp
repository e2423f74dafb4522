#include "app/updatePrinter.h"

#include "app/terminalText.h"

namespace app {

void UpdatePrinter::watchOnly(std::set<const channels::Channel*> channels) {
    std::lock_guard guard(m_mutex);
    m_filtered = true;
    m_watched = std::move(channels);
}

bool UpdatePrinter::waitForUpdates(std::size_t count, std::stop_token stop) {
    std::unique_lock lock(m_mutex);
    return m_ended.wait(lock, stop, [&] { return m_endedChannels.size() >= count; });
}

void UpdatePrinter::onBeginChannelUpdate(channels::BeginChannelUpdateEvent& event) {
    std::lock_guard guard(m_mutex);
    if (m_filtered && (!event.isExplicit() || !m_watched.count(event.channel())))
        return;
    m_pending[event.channel()] = Block{};
}

void UpdatePrinter::onNewFeedItem(channels::NewFeedItemEvent& event) {
    itemLine(*event.channel(), event.feedItemIndex(), "  new:     ", &Block::newItems);
}

void UpdatePrinter::onExpiredFeedItem(channels::ExpiredFeedItemEvent& event) {
    itemLine(*event.channel(), event.feedItemIndex(), "  expired: ", &Block::expiredItems);
}

void UpdatePrinter::onChannelError(channels::ChannelErrorEvent& event) {
    std::lock_guard guard(m_mutex);
    const std::string text = toTerminal(event.message()) + " " + toTerminal(event.detail());
    const channels::Channel* channel = event.channel();
    if (auto block = m_pending.find(channel); channel && block != m_pending.end()) {
        m_failed.insert(channel->id());
        block->second.failed = true;
        block->second.lines += "  error:   " + text + "\n";
    } else if (!m_filtered) { // a watching printer leaves the errors of others' updates out
        if (channel)
            m_failed.insert(channel->id());
        m_err << "pelsu-cli: " << (channel ? channel->id() + ": " : "") << text << std::endl;
    }
}

void UpdatePrinter::onEndChannelUpdate(channels::EndChannelUpdateEvent& event) {
    {
        std::lock_guard guard(m_mutex);
        auto block = m_pending.find(event.channel());
        if (block == m_pending.end())
            return;
        ++m_updated;
        m_endedChannels.insert(event.channel());
        Block& done = block->second;
        if (!event.success() || done.failed) {
            m_failed.insert(event.channel()->id());
            done.failed = true;
        }
        m_out << progress() << heading(*event.channel(), done) << '\n' << done.lines << std::flush;
        m_pending.erase(block);
    }
    m_ended.notify_all();
}

bool UpdatePrinter::hasFailed(const std::string& id) const {
    std::lock_guard guard(m_mutex);
    return m_failed.count(id) > 0;
}

std::size_t UpdatePrinter::failed() const {
    std::lock_guard guard(m_mutex);
    return m_failed.size();
}

std::string UpdatePrinter::summary() const {
    std::lock_guard guard(m_mutex);
    std::string text = "Updated " + std::to_string(m_updated) +
                       " channel(s): " + std::to_string(m_newItems) + " new item(s), " +
                       std::to_string(m_expiredItems) + " expired, " +
                       std::to_string(m_failed.size()) + " failed";
    const char* separator = " (";
    for (const std::string& id : m_failed) {
        text += separator + id;
        separator = ", ";
    }
    return text + (m_failed.empty() ? "." : ").");
}

void UpdatePrinter::itemLine(channels::Channel& channel, int index, const char* label,
                             int Block::*count) {
    const std::string title = channel.state().feed().itemTitle(static_cast<std::size_t>(index));
    std::lock_guard guard(m_mutex);
    auto block = m_pending.find(&channel);
    if (block == m_pending.end())
        return;
    ++(block->second.*count);
    ++(count == &Block::newItems ? m_newItems : m_expiredItems);
    std::string& lines = block->second.lines;
    lines += label;
    appendTerminal(lines, title);
    lines += '\n';
}

std::string UpdatePrinter::heading(const channels::Channel& channel, const Block& block) {
    std::string text = channel.id();
    if (const std::string name = channel.name(); name != "<Unknown>")
        text += " (" + toTerminal(name) + ")";
    if (block.failed)
        return text + ": failed";
    if (block.newItems == 0 && block.expiredItems == 0)
        return text + ": no change";
    return text + ": " + std::to_string(block.newItems) + " new, " +
           std::to_string(block.expiredItems) + " expired";
}

std::string UpdatePrinter::progress() const {
    if (m_total == 0)
        return "";
    return "[" + std::to_string(m_updated) + "/" + std::to_string(m_total) + "] ";
}

} // namespace app
