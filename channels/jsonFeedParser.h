// Turns a JSON Feed document (versions 1 and 1.1) into a Feed: each item goes through the steps
// every collected item goes through.
#pragma once

#include "channels/feed.h"
#include "channels/rssParser.h"

#include <iosfwd>
#include <memory>
#include <string>

namespace channels {

// The feed of a JSON Feed document. Throws channels::Exception with "JSON parse failed: " and
// the reason for text that is not JSON, "Not a JSON feed." for JSON without the JSON Feed
// version, and the item and nesting limits' errors.
std::unique_ptr<Feed> parseJsonFeed(const ParseOptions& options, const std::string& text,
                                    int maxItems, std::ostream* parseLog);

} // namespace channels
