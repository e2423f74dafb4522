#include "channels/jsonFeedParser.h"

#include "channels/exception.h"
#include "expat/parser.h"

#include <nlohmann/json.hpp>

#include <ostream>

namespace channels {

namespace {

using Json = nlohmann::json;

// A member's text in Latin-1: strings as they are, numbers as written; empty otherwise.
std::string textOf(const Json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end())
        return {};
    if (found->is_number())
        return found->dump();
    if (!found->is_string())
        return {};
    const auto& text = found->get_ref<const std::string&>();
    std::string latin1;
    expat::appendUtf8AsLatin1(latin1, text.data(), text.size());
    return latin1;
}

// The first of the keys with a text.
std::string firstTextOf(const Json& object, std::initializer_list<const char*> keys) {
    for (const char* key : keys)
        if (std::string text = textOf(object, key); !text.empty())
            return text;
    return {};
}

// The first author's name: "authors" (version 1.1), else "author" (version 1).
std::string authorOf(const Json& object) {
    const auto authors = object.find("authors");
    if (authors != object.end() && authors->is_array())
        for (const Json& author : *authors)
            if (author.is_object())
                if (std::string name = textOf(author, "name"); !name.empty())
                    return name;
    const auto author = object.find("author");
    return author != object.end() && author->is_object() ? textOf(*author, "name") : std::string();
}

Json parseJson(const std::string& text, int depthLimit) {
    const auto limitDepth = [depthLimit](int depth, Json::parse_event_t, Json&) {
        if (depthLimit > 0 && depth > depthLimit)
            throw Exception("The document nests elements deeper than " +
                            std::to_string(depthLimit) + " levels");
        return true;
    };
    try {
        return Json::parse(text, limitDepth);
    } catch (const Json::exception& failure) {
        std::string reason = failure.what();
        if (const std::size_t bracket = reason.find("] ");
            reason[0] == '[' && bracket != reason.npos)
            reason.erase(0, bracket + 2); // the library's own error name
        throw Exception("JSON parse failed: " + reason);
    }
}

void readChannel(const Json& document, FeedChannelFields& channel) {
    channel.channelDisplayName = cleanFeedText(textOf(document, "title"));
    channel.channelDescription = cleanFeedText(textOf(document, "description"));
    channel.channelHomeUrl = textOf(document, "home_page_url");
    channel.channelImageUrl = textOf(document, "icon");
}

CollectedItem collect(const Json& entry, const std::string& feedAuthor) {
    CollectedItem item;
    item.guid = textOf(entry, "id");
    item.link = firstTextOf(entry, {"url", "external_url"});
    item.title = textOf(entry, "title");
    // The summary, when there is one, is the shorter text.
    item.description = firstTextOf(entry, {"summary", "content_html", "content_text"});
    item.author = authorOf(entry);
    if (item.author.empty())
        item.author = feedAuthor;
    item.pubDate = firstTextOf(entry, {"date_published", "date_modified"});
    return item;
}

} // namespace

std::unique_ptr<Feed> parseJsonFeed(const ParseOptions& options, const std::string& text,
                                    int maxItems, std::ostream* parseLog) {
    const Json document = parseJson(text, options.depthLimit);
    if (!document.is_object() ||
        textOf(document, "version").rfind("https://jsonfeed.org/version/", 0) != 0)
        throw Exception("Not a JSON feed.");
    auto feed = std::make_unique<Feed>();
    readChannel(document, feed->channel());
    const auto items = document.find("items");
    if (items == document.end() || !items->is_array())
        return feed;
    if (options.itemLimit > 0 && items->size() > static_cast<std::size_t>(options.itemLimit))
        throw Exception(tooManyItemsMessage(options.itemLimit));
    const std::string feedAuthor = authorOf(document);
    for (const Json& entry : *items) {
        if (!entry.is_object())
            continue;
        if (parseLog)
            *parseLog << "Starting a new item.\n";
        CollectedItem item = collect(entry, feedAuthor);
        saveCollectedItem(*feed, item, feed->channel().channelHomeUrl, maxItems, parseLog);
    }
    return feed;
}

} // namespace channels
