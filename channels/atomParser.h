// Turns an Atom 1.0 document (or one of its 0.3 drafts) into a Feed: each entry becomes an
// item, through the steps every collected item goes through.
#pragma once

#include "channels/feed.h"
#include "channels/rssParser.h"

#include <iosfwd>
#include <memory>
#include <string>

namespace channels {

class AtomXmlParser;

// Parses Atom documents one after another; the buffers of one parse serve the next.
class AtomReader {
public:
    AtomReader();
    ~AtomReader();
    AtomReader(const AtomReader&) = delete;
    AtomReader& operator=(const AtomReader&) = delete;
    // What parseAtomFeed returns and throws.
    std::unique_ptr<Feed> parse(const ParseOptions& options, const std::string& text, int maxItems,
                                std::ostream* parseLog);

private:
    std::unique_ptr<AtomXmlParser> m_reader; // made by the first parse
};

// The feed of an Atom document whose root is "feed". Elements count as Atom's when they are in
// the root's namespace; links resolve against xml:base and options.documentAddress. Throws
// expat::Exception for a document that is not well-formed, and "Not an Atom feed." when the
// root is not "feed".
std::unique_ptr<Feed> parseAtomFeed(const ParseOptions& options, const std::string& text,
                                    int maxItems, std::ostream* parseLog);

} // namespace channels
