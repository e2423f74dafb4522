// Any bytes through the JSON Feed path: a feed or one of its error messages, never a crash.

#include "channels/rssParser.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    channels::ParseOptions options;
    options.allowEmptyFeeds = size % 2 == 0;
    options.formats.json = true;
    options.depthLimit = static_cast<int>(size % 50);
    try {
        channels::RssParser parser;
        auto feed = channels::parseFeed(parser, options, text, static_cast<int>(size % 7) - 1);
        for (const channels::FeedItem& item : feed->items())
            if (item.id.empty() && !item.url.empty())
                __builtin_trap(); // an item without an id takes its link as id
    } catch (const std::exception&) {
    }
    return 0;
}
