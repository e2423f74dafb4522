// Any bytes through the Atom path (and the encoding conversion): a feed or one of its error
// messages, never a crash.

#include "channels/rssParser.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    channels::ParseOptions options;
    options.allowEmptyFeeds = size % 2 == 0;
    options.formats.atom = true;
    options.formats.convertEncodings = size % 3 != 0;
    options.documentAddress = "http://fuzz.example/feeds/atom.xml";
    try {
        channels::RssParser parser;
        auto feed = channels::parseFeed(parser, options, text, static_cast<int>(size % 7) - 1);
        for (const channels::FeedItem& item : feed->items())
            if (item.id.empty() && !item.url.empty())
                __builtin_trap(); // an entry without an id takes its link as id
    } catch (const std::exception&) {
    }
    return 0;
}
