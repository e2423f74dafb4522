// Turns the bytes of an RSS 0.9x/2.0 or RSS 1.0 document into a Feed (and, when the options
// accept them, of an Atom or JSON Feed document).
#pragma once

#include "channels/feed.h"

#include <iosfwd>
#include <memory>
#include <string>

namespace channels {

class AtomReader;
class Channel;
class RssXmlParser;

// The documents a parse reads besides RSS; all off, it reads RSS alone and expat's own
// encodings, as it always has.
struct FeedFormats {
    bool atom = false;             // "AcceptAtomFeeds"
    bool json = false;             // "AcceptJsonFeeds"
    bool convertEncodings = false; // "ConvertUnknownEncodings": iconv's encodings besides expat's

    bool operator==(const FeedFormats&) const = default;
};

// What a parse needs to know about the channel it parses for.
struct ParseOptions {
    std::string channelName;           // for the log
    bool logChannelProcessing = false; // write a trace of the parse to parseLogPath
    std::string parseLogPath;
    bool skipLeadingBinaryData = true; // "SkipLeadingRssFeedBinaryData"
    bool allowEmptyFeeds = false;      // "AllowEmptyFeeds"
    // What one feed may hold: a document with more items, or elements nested deeper, is
    // refused with an error ("MaxItemsPerFeed", "MaxFeedNestingDepth"; 0: no limit).
    int itemLimit = 500000;
    int depthLimit = 1000;
    FeedFormats formats;
    std::string documentAddress; // what relative links of an Atom feed resolve against
};

// One item's fields as a parser found them, before anything is made of them.
struct CollectedItem {
    std::string guid, link, title, description, source, author, comments, pubDate;
};

// Parses feeds one after another; the buffers of one parse serve the next.
class RssParser {
public:
    RssParser();
    virtual ~RssParser();
    // One parse attempt; returns the feed or throws (channels::Exception or expat::Exception).
    virtual std::unique_ptr<Feed> parse(const ParseOptions& options, const std::string& feedText,
                                        int maxItems);

private:
    std::unique_ptr<RssXmlParser> m_reader;   // made by the first parse
    std::unique_ptr<AtomReader> m_atomReader; // its reader is made by the first Atom parse
};

// Parses, retrying once without the leading bytes of value 128 and above (when the options
// allow it); rejects a feed without items unless empty feeds are allowed.
std::unique_ptr<Feed> parseFeed(RssParser& parser, const ParseOptions& options,
                                const std::string& feedText, int maxItems);
// The same with the options taken from the channel.
std::unique_ptr<Feed> parseFeed(RssParser& parser, Channel& channel, const std::string& feedText,
                                int maxItems);

// What becomes of every collected item, whatever the format: dropped when the feed already
// holds maxItems (at least 1) items; otherwise the link falls back to the guid and then to the
// channel link, a missing title is made from the description, title and description are
// cleaned, and the item (with the guid, else the link, as its id) joins the feed. The item's
// link is left as it was saved.
void saveCollectedItem(Feed& feed, CollectedItem& item, const std::string& channelLink,
                       int maxItems, std::ostream* parseLog);
// The same through saved, an item a parser keeps from one item to the next so that its
// fields keep their capacity. Only item's link may change (as above).
void saveCollectedItem(Feed& feed, CollectedItem& item, const std::string& channelLink,
                       int maxItems, std::ostream* parseLog, FeedItem& saved);
// The error of a feed with more than limit items ("MaxItemsPerFeed").
std::string tooManyItemsMessage(int limit);

// Title and description clean-up: trimmed, line breaks as blanks, entities decoded.
std::string cleanFeedText(const std::string& text);
// A title made from an item's description: at most twenty words, ended early at a sentence
// boundary from the sixth word on; the default when nothing is left.
std::string makeTitle(const std::string& description, const std::string& defaultTitle);

} // namespace channels
