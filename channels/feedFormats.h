// Telling the kind of a feed document from its first bytes, and handing the documents that
// are not RSS to their own parsers.
#pragma once

#include "channels/feed.h"
#include "channels/rssParser.h"

#include <iosfwd>
#include <memory>
#include <string>

namespace channels {

enum class FeedFormat { Xml, Atom, Json };

// Json when the first character (after a UTF-8 byte-order mark and white space) is "{"; Atom
// when the root element is named "feed" (with or without a prefix); Xml otherwise.
FeedFormat detectFeedFormat(const std::string& text);

class AtomReader;

// The feed of an Atom or JSON Feed document when the options accept its format (Atom read by
// atom); null for a document that is left to the RSS parser. Throws as the RSS parser does.
std::unique_ptr<Feed> parseOtherFormat(AtomReader& atom, const ParseOptions& options,
                                       const std::string& text, int maxItems,
                                       std::ostream* parseLog);

} // namespace channels
