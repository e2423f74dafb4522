// What the engine tells the application: event objects raised on an event source, delivered
// synchronously on the raising thread to every registered listener.
#pragma once

#include "lib/misc/threadSafetyWin32.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <ostream>
#include <string>
#include <vector>

namespace channels {

class Channel;
class AppPlugin;

class Event {
public:
    explicit Event(std::time_t time) : m_time(time) {}
    virtual ~Event() = default;
    // Writes the event's text form, such as "[NewFeedItemEvent:News:3]".
    virtual void write(std::ostream& out) const = 0;
    std::string text() const;
    std::time_t time() const { return m_time; }

private:
    std::time_t m_time;
};

std::ostream& operator<<(std::ostream& out, const Event& event);

class BeginChannelUpdateEvent : public Event {
public:
    BeginChannelUpdateEvent(std::time_t time, Channel* channel, bool isExplicit)
        : Event(time), m_channel(channel), m_explicit(isExplicit) {}
    void write(std::ostream& out) const override;
    Channel* channel() const { return m_channel; }
    bool isExplicit() const { return m_explicit; }

private:
    Channel* m_channel;
    bool m_explicit;
};

class EndChannelUpdateEvent : public Event {
public:
    EndChannelUpdateEvent(std::time_t time, Channel* channel, bool success, bool isExplicit)
        : Event(time), m_channel(channel), m_success(success), m_explicit(isExplicit) {}
    void write(std::ostream& out) const override;
    Channel* channel() const { return m_channel; }
    bool success() const { return m_success; }
    bool isExplicit() const { return m_explicit; }

private:
    Channel* m_channel;
    bool m_success;
    bool m_explicit;
};

// What the two item events share: the channel and the item's index in its feed.
class FeedItemEvent : public Event {
public:
    Channel* channel() const { return m_channel; }
    std::int32_t feedItemIndex() const { return m_index; }

protected:
    FeedItemEvent(std::time_t time, Channel* channel, std::int32_t feedItemIndex)
        : Event(time), m_channel(channel), m_index(feedItemIndex) {}
    // Writes "[<name>:<channel>:<index>]".
    void writeAs(std::ostream& out, const char* name) const;

private:
    Channel* m_channel;
    std::int32_t m_index;
};

// feedItemIndex() is the new item's index in the channel's current feed.
class NewFeedItemEvent : public FeedItemEvent {
public:
    NewFeedItemEvent(std::time_t time, Channel* channel, std::int32_t feedItemIndex)
        : FeedItemEvent(time, channel, feedItemIndex) {}
    void write(std::ostream& out) const override { writeAs(out, "NewFeedItemEvent"); }
};

// feedItemIndex() is the vanished item's index in the old feed, which the channel still holds
// while the event runs: its items' ids, titles and links at least (an update keeps only those
// of a feed it could read again from the channel's file).
class ExpiredFeedItemEvent : public FeedItemEvent {
public:
    ExpiredFeedItemEvent(std::time_t time, Channel* channel, std::int32_t feedItemIndex)
        : FeedItemEvent(time, channel, feedItemIndex) {}
    void write(std::ostream& out) const override { writeAs(out, "ExpiredFeedItemEvent"); }
};

class ChannelErrorEvent : public Event {
public:
    ChannelErrorEvent(std::time_t time, Channel* channel, std::string message, std::string detail)
        : Event(time), m_channel(channel), m_message(std::move(message)),
          m_detail(std::move(detail)) {}
    void write(std::ostream& out) const override;
    Channel* channel() const { return m_channel; }
    const std::string& message() const { return m_message; }
    const std::string& detail() const { return m_detail; }

private:
    Channel* m_channel;
    std::string m_message;
    std::string m_detail;
};

class AppPluginErrorEvent : public Event {
public:
    // plugin is null when the failure came before a plugin object existed. The plugin's name
    // is taken now: a plugin that failed to load is deleted after the event.
    AppPluginErrorEvent(std::time_t time, AppPlugin* plugin, std::string text);
    void write(std::ostream& out) const override;
    AppPlugin* plugin() const { return m_plugin; }
    // The plugin's display name, or "" without a plugin.
    const std::string& pluginName() const { return m_pluginName; }
    const std::string& errorText() const { return m_text; }

private:
    AppPlugin* m_plugin;
    std::string m_pluginName;
    std::string m_text;
};

// A receiver of events. handleEvent dispatches on the event's kind to the typed operations;
// an override that also wants the dispatch calls EventListener::handleEvent.
class EventListener {
public:
    virtual ~EventListener() = default;
    virtual void handleEvent(Event& event);
    virtual void onBeginChannelUpdate(BeginChannelUpdateEvent&) {}
    virtual void onEndChannelUpdate(EndChannelUpdateEvent&) {}
    virtual void onNewFeedItem(NewFeedItemEvent&) {}
    virtual void onExpiredFeedItem(ExpiredFeedItemEvent&) {}
    virtual void onChannelError(ChannelErrorEvent&) {}
    virtual void onAppPluginError(AppPluginErrorEvent&) {}
};

// The source of events: its listeners, in registration order, under its own lock, which is
// held while an event is delivered (a listener must not add or remove listeners then).
template <typename EventType>
class TEventSource {
public:
    virtual ~TEventSource() = default;
    void addListener(EventListener* listener) {
        threadSafety::ScopedLock lock(m_eventLock);
        m_listeners.push_back(listener);
    }
    void removeListener(EventListener* listener) {
        threadSafety::ScopedLock lock(m_eventLock);
        std::erase(m_listeners, listener);
    }
    // Delivers the event to every listener and returns when all have run.
    void raise(EventType& event) {
        threadSafety::ScopedLock lock(m_eventLock);
        for (EventListener* listener : m_listeners)
            listener->handleEvent(event);
    }

private:
    threadSafety::CriticalSection m_eventLock{"TEventSource"};
    std::vector<EventListener*> m_listeners;
};

} // namespace channels
