#include "channels/events.h"

#include "channels/appPlugin.h"
#include "channels/channel.h"

#include <sstream>

namespace channels {

namespace {

// Writes "[Kind:" name ":" detail "]", or "[Kind:<unknown>]" without a channel.
template <typename Detail>
void writeChannelEvent(std::ostream& out, const char* kind, const Channel* channel,
                       const Detail& detail) {
    if (!channel) {
        out << '[' << kind << ":<unknown>]";
        return;
    }
    out << '[' << kind << ':' << channel->name() << ':' << detail << ']';
}

} // namespace

std::string Event::text() const {
    std::ostringstream out;
    write(out);
    return out.str();
}

std::ostream& operator<<(std::ostream& out, const Event& event) {
    event.write(out);
    return out;
}

void BeginChannelUpdateEvent::write(std::ostream& out) const {
    out << "[BeginChannelUpdateEvent:" << (m_channel ? m_channel->name() : "<Unknown>") << ']';
}

void EndChannelUpdateEvent::write(std::ostream& out) const {
    out << "[EndChannelUpdateEvent:" << (m_channel ? m_channel->name() : "<Unknown>") << ']';
}

void FeedItemEvent::writeAs(std::ostream& out, const char* name) const {
    writeChannelEvent(out, name, m_channel, m_index);
}

void ChannelErrorEvent::write(std::ostream& out) const {
    writeChannelEvent(out, "ChannelErrorEvent", m_channel, m_message);
}

AppPluginErrorEvent::AppPluginErrorEvent(std::time_t time, AppPlugin* plugin, std::string text)
    : Event(time), m_plugin(plugin), m_text(std::move(text)) {
    if (plugin)
        m_pluginName = plugin->displayName().empty() ? plugin->id() : plugin->displayName();
}

void AppPluginErrorEvent::write(std::ostream& out) const {
    if (!m_plugin)
        out << "[AppPluginErrorEvent:<unknown>]";
    else
        out << "[AppPluginErrorEvent:" << m_pluginName << ']';
}

void EventListener::handleEvent(Event& event) {
    if (auto* begin = dynamic_cast<BeginChannelUpdateEvent*>(&event))
        onBeginChannelUpdate(*begin);
    else if (auto* end = dynamic_cast<EndChannelUpdateEvent*>(&event))
        onEndChannelUpdate(*end);
    else if (auto* added = dynamic_cast<NewFeedItemEvent*>(&event))
        onNewFeedItem(*added);
    else if (auto* expired = dynamic_cast<ExpiredFeedItemEvent*>(&event))
        onExpiredFeedItem(*expired);
    else if (auto* error = dynamic_cast<ChannelErrorEvent*>(&event))
        onChannelError(*error);
    else if (auto* pluginError = dynamic_cast<AppPluginErrorEvent*>(&event))
        onAppPluginError(*pluginError);
}

} // namespace channels
