// A look at a feed before it is subscribed to: the address is fetched and parsed as a
// channel's update would, and nothing is saved. A page that is HTML instead of a feed offers
// its feed links instead.
#pragma once

#include "app/feedDiscovery.h"
#include "channels/channelManager.h"
#include "channels/feed.h"

#include <memory>
#include <string>
#include <vector>

namespace tools {
class InternetSession;
} // namespace tools

namespace app {

struct FeedPreview {
    std::string address;                   // what was fetched
    channels::FeedChannelFields channel;   // the feed's title, description, ...
    std::vector<channels::FeedItem> items; // the first ones
    // The engine's own words for what went wrong ("Feed update error: HTTP 404 Not Found",
    // the parser's message, "Can't open file: ..."); empty when the address gave a feed.
    std::string error;
    // When the address gave an HTML page: the feeds it offers (error then holds the parse
    // error).
    std::vector<FeedLink> links;
    // When the address gave an Atom or JSON feed that the options don't let the parser read:
    // the option that would ("AcceptAtomFeeds", "AcceptJsonFeeds"); empty otherwise.
    std::string formatOption;

    bool isFeed() const { return error.empty(); }
};

struct PreviewOptions {
    channels::ChannelManagerOptions manager; // Internet gate, limits, local plugin server
    std::string userAgent;
    int maxItems = 10;
};

// Fetches and parses previews on a connection session of its own, so that one in progress
// can be cut short without touching the channels' downloads.
class FeedPreviewer {
public:
    explicit FeedPreviewer(PreviewOptions options);
    ~FeedPreviewer();
    FeedPreviewer(const FeedPreviewer&) = delete;
    FeedPreviewer& operator=(const FeedPreviewer&) = delete;

    // Fetches (http and https addresses, file: URLs, local paths) and parses; blocks. Never
    // throws: failures come back in the preview's error.
    FeedPreview preview(const std::string& address);
    // Makes the previews in progress (from any thread) end at once with the download's
    // "aborted" error.
    void abort();

private:
    std::string fetch(const std::string& address);

    PreviewOptions m_options;
    std::unique_ptr<tools::InternetSession> m_session;
};

// One preview on a session of its own.
FeedPreview previewFeed(const std::string& address, const PreviewOptions& options);

} // namespace app
