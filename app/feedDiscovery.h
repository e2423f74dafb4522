// Finding the feeds a web page offers: the "alternate" links of its mark-up, with their
// addresses made absolute. Hand-written scanning: pages are rarely well-formed, and only the
// link elements matter.
#pragma once

#include "tools/address.h"

#include <string>
#include <vector>

namespace app {

// One feed a page offers. Text is Latin-1, as the engine keeps it.
struct FeedLink {
    std::string address; // absolute
    std::string title;   // may be empty
    std::string type;    // the media type, in lower case ("application/rss+xml")

    bool operator==(const FeedLink&) const = default;
};

// The feed links of an HTML page, in document order without repeated addresses: <link>
// elements whose rel holds "alternate" (or "feed") and whose type is a feed's media type.
// Relative addresses resolve against the page's <base href>, else against pageAddress.
// Attribute names and values may be quoted either way or not at all; entities in values are
// decoded. Links inside comments, scripts and styles don't count.
std::vector<FeedLink> discoverFeedLinks(const std::string& html, const std::string& pageAddress);

using tools::resolveAddress;

// True when the text's beginning shows an HTML document (a doctype or an html element)
// rather than a feed.
bool looksLikeHtml(const std::string& text);

} // namespace app
