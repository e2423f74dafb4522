#include "channels/rssParser.h"

#include "channels/atomParser.h"
#include "channels/common.h"
#include "channels/exception.h"
#include "channels/feedFormats.h"
#include "expat/encoding.h"
#include "expat/parser.h"
#include "htmlStripper/htmlStripper.h"
#include "lib/log/log.h"
#include "lib/misc/text.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string_view>

namespace channels {

namespace {

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Appends the clean-up of a title or description: the text trimmed, its entities decoded and
// every carriage return and line feed made a blank. No entity name holds a line break, so the
// breaks can be replaced after decoding, each in one pass over the appended text.
void appendCleanFeedText(std::string& out, std::string_view text) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && isSpace(text[begin]))
        ++begin;
    while (end > begin && isSpace(text[end - 1]))
        --end;
    const std::size_t from = out.size();
    htmlStripper::appendDecodedEntities(out, text.substr(begin, end - begin));
    for (const char lineBreak : {'\r', '\n'}) {
        char* const last = out.data() + out.size();
        for (char* at = out.data() + from;
             (at = static_cast<char*>(
                  std::memchr(at, lineBreak, static_cast<std::size_t>(last - at))));)
            *at++ = ' ';
    }
}

// Whether the clean-up would leave text as it is: nothing to trim, decode or blank.
bool isCleanAlready(std::string_view text) {
    if (text.empty())
        return true;
    if (isSpace(text.front()) || isSpace(text.back()))
        return false;
    for (const char special : {'\n', '&', '\r'})
        if (std::memchr(text.data(), special, text.size()))
            return false;
    return true;
}

} // namespace

// Collects the channel's and the items' fields while expat walks the document. One reader
// serves the parses of one RssParser in turn, so its fields keep their capacity between feeds.
class RssXmlParser : public expat::Parser {
public:
    RssXmlParser() : expat::Parser(kHandlers) {}

    // Parses one document into feed, every field starting empty; returns whether the root was
    // an RSS root. Throws what expat::Parser::parse throws.
    bool read(Feed& feed, const std::string& text, int maxItems, const ParseOptions& options,
              std::ostream* parseLog);

protected:
    void onStartElement(const char* name, const char** attributes) override;
    void onEndElement(const char* name) override;

private:
    static const expat::ElementHandler kHandlers[];
    using Field = std::string RssXmlParser::*;
    static const Field kChannelFields[];
    static const Field kItemFields[];

    void trace(const std::string& line) {
        if (m_parseLog)
            *m_parseLog << line << '\n';
    }
    void clear(const Field* fields) {
        for (; *fields; ++fields)
            (this->*(*fields)).clear();
    }
    bool parentIsRssRoot() const { return isParent("RSS") || isParent("RDF:RDF"); }
    // Only the document's root marks it as a feed: an "rss" element inside a page is not one.
    void startRss() { m_isRss = m_isRss || tagStack().size() == 1; }
    void startChannel();
    void endChannel();
    void startItem();
    void endItem();
    void endGuid() { setField("ITEM", m_guid); }
    void endLink() { setItemOrChannelField(m_itemLink, m_link); }
    void endTitle() { setItemOrChannelField(m_itemTitle, m_title); }
    void endDescription();
    void endUrl() { setField("IMAGE", m_imageUrl); }
    void endWidth();
    void endHeight();
    void endCopyright() { setField("CHANNEL", m_copyright); }
    void endManagingEditor() { setField("CHANNEL", m_managingEditor); }
    void endWebMaster() { setField("CHANNEL", m_webMaster); }
    void endPubDate();
    void endLastBuildDate() { setField("CHANNEL", m_lastBuildDate); }
    void endGenerator() { setField("CHANNEL", m_generator); }
    void endSource() { setField("ITEM", m_source); }
    void endAuthor() { setField("ITEM", m_author); }
    void endComments() { setField("ITEM", m_comments); }

    // Assignment keeps the field's capacity from the items and feeds before.
    void setField(const char* parent, std::string& field) {
        if (isParent(parent))
            field = characterData();
    }
    void setItemOrChannelField(std::string& itemField, std::string& channelField) {
        if (isParent("ITEM"))
            itemField = characterData();
        else if (isParent("CHANNEL"))
            channelField = characterData();
    }

    Feed* m_feed = nullptr;
    int m_maxItems = 0;
    int m_itemLimit = 0;
    int m_itemsSeen = 0;
    std::ostream* m_parseLog = nullptr;
    std::string m_title, m_description, m_link, m_imageUrl;
    int m_imageWidth = 0;
    int m_imageHeight = 0;
    std::string m_copyright, m_managingEditor, m_webMaster, m_pubDate, m_lastBuildDate, m_generator;
    bool m_isRss = false;
    std::string m_guid, m_itemLink, m_itemTitle, m_itemDescription, m_source, m_author, m_comments,
        m_itemPubDate;
    FeedItem m_item; // the item being saved
};

#define PELSU_RSS_HANDLER(event, method, name)                                                     \
    expat::ElementHandler { expat::event, static_cast<expat::Handler>(&RssXmlParser::method), name }

// Tried from the top; the first row whose event and name match alone runs. The first rows
// name the root elements that make a document a feed of this kind.
const expat::ElementHandler RssXmlParser::kHandlers[] = {
    PELSU_RSS_HANDLER(kStartElement, startRss, "RSS"),
    PELSU_RSS_HANDLER(kStartElement, startRss, "RDF:RDF"),
    PELSU_RSS_HANDLER(kStartElement, startChannel, "CHANNEL"),
    PELSU_RSS_HANDLER(kEndElement, endChannel, "CHANNEL"),
    PELSU_RSS_HANDLER(kStartElement, startItem, "ITEM"),
    PELSU_RSS_HANDLER(kEndElement, endItem, "ITEM"),
    PELSU_RSS_HANDLER(kEndElement, endGuid, "GUID"),
    PELSU_RSS_HANDLER(kEndElement, endLink, "LINK"),
    PELSU_RSS_HANDLER(kEndElement, endTitle, "TITLE"),
    PELSU_RSS_HANDLER(kEndElement, endDescription, "DESCRIPTION"),
    PELSU_RSS_HANDLER(kEndElement, endUrl, "URL"),
    PELSU_RSS_HANDLER(kEndElement, endWidth, "WIDTH"),
    PELSU_RSS_HANDLER(kEndElement, endHeight, "HEIGHT"),
    PELSU_RSS_HANDLER(kEndElement, endCopyright, "COPYRIGHT"),
    PELSU_RSS_HANDLER(kEndElement, endManagingEditor, "MANAGINGEDITOR"),
    PELSU_RSS_HANDLER(kEndElement, endWebMaster, "WEBMASTER"),
    PELSU_RSS_HANDLER(kEndElement, endPubDate, "PUBDATE"),
    PELSU_RSS_HANDLER(kEndElement, endLastBuildDate, "LASTBUILDDATE"),
    PELSU_RSS_HANDLER(kEndElement, endGenerator, "GENERATOR"),
    PELSU_RSS_HANDLER(kEndElement, endSource, "SOURCE"),
    PELSU_RSS_HANDLER(kEndElement, endAuthor, "AUTHOR"),
    PELSU_RSS_HANDLER(kEndElement, endComments, "COMMENTS"),
    PELSU_RSS_HANDLER(kEndElement, endPubDate, "PUBDATE"),
    expat::ElementHandler{expat::kEndOfTable, nullptr, nullptr},
};

// The string fields of the channel and of one item, each list ended by null.
const RssXmlParser::Field RssXmlParser::kChannelFields[] = {&RssXmlParser::m_title,
                                                            &RssXmlParser::m_description,
                                                            &RssXmlParser::m_link,
                                                            &RssXmlParser::m_imageUrl,
                                                            &RssXmlParser::m_copyright,
                                                            &RssXmlParser::m_managingEditor,
                                                            &RssXmlParser::m_webMaster,
                                                            &RssXmlParser::m_pubDate,
                                                            &RssXmlParser::m_lastBuildDate,
                                                            &RssXmlParser::m_generator,
                                                            nullptr};
const RssXmlParser::Field RssXmlParser::kItemFields[] = {&RssXmlParser::m_guid,
                                                         &RssXmlParser::m_itemLink,
                                                         &RssXmlParser::m_itemTitle,
                                                         &RssXmlParser::m_itemDescription,
                                                         &RssXmlParser::m_source,
                                                         &RssXmlParser::m_author,
                                                         &RssXmlParser::m_comments,
                                                         &RssXmlParser::m_itemPubDate,
                                                         nullptr};

bool RssXmlParser::read(Feed& feed, const std::string& text, int maxItems,
                        const ParseOptions& options, std::ostream* parseLog) {
    m_feed = &feed;
    m_maxItems = maxItems;
    m_itemLimit = options.itemLimit;
    m_itemsSeen = 0;
    m_parseLog = parseLog;
    clear(kChannelFields);
    clear(kItemFields);
    m_imageWidth = m_imageHeight = 0;
    m_isRss = false;
    setMaxDepth(static_cast<std::size_t>(std::max(options.depthLimit, 0)));
    // The items' text is most of a document: room for all of it saves moving the items
    // again and again as they grow; what they leave unused is given back.
    feed.reserveItemBytes(text.size());
    parse(text.data(), text.size());
    feed.releaseSpareItemBytes();
    return m_isRss;
}

void RssXmlParser::onStartElement(const char* name, const char** attributes) {
    if (!m_parseLog)
        return;
    trace(std::string("START ELEMENT: ") + name);
    for (const char** attribute = attributes; attribute && *attribute; attribute += 2)
        trace(std::string("- ") + attribute[0] + " = '" + attribute[1] + "'");
}

void RssXmlParser::onEndElement(const char* name) {
    if (m_parseLog)
        trace(std::string("END ELEMENT: ") + name);
}

void RssXmlParser::startChannel() {
    if (!parentIsRssRoot())
        return;
    trace("Starting a new channel.");
    clear(kChannelFields);
    m_imageWidth = m_imageHeight = 0;
}

void RssXmlParser::endChannel() {
    if (!parentIsRssRoot())
        return;
    trace("Saving the channel details.");
    FeedChannelFields& channel = m_feed->channel();
    channel.channelDisplayName = cleanFeedText(m_title);
    channel.channelDescription = cleanFeedText(m_description);
    channel.channelHomeUrl = m_link;
    channel.channelImageUrl = m_imageUrl;
    channel.channelImageWidth = m_imageWidth;
    channel.channelImageHeight = m_imageHeight;
    channel.copyrightString = m_copyright;
    channel.editorEmailAddress = m_managingEditor;
    channel.webMasterEmailAddress = m_webMaster;
    channel.pubDateString = m_pubDate;
    channel.lastBuildDateString = m_lastBuildDate;
    channel.feedGenerator = m_generator;
}

void RssXmlParser::startItem() {
    trace("Starting a new item.");
    clear(kItemFields);
}

void RssXmlParser::endItem() {
    if (m_itemLimit > 0 && ++m_itemsSeen > m_itemLimit) {
        abort(tooManyItemsMessage(m_itemLimit));
        return;
    }
    if (m_maxItems >= 1 && m_feed->itemCount() >= static_cast<std::size_t>(m_maxItems))
        return;
    if (m_itemLink.empty())
        m_itemLink = m_guid.empty() ? m_link : m_guid;
    trace("Saving the new item.");
    // The item is a member so that its fields keep their capacity from item to item.
    FeedItem& item = m_item;
    item.id = m_guid.empty() ? m_itemLink : m_guid;
    item.title.clear();
    if (m_itemTitle.empty())
        item.title = cleanFeedText(makeTitle(m_itemDescription, m_itemLink));
    else
        appendCleanFeedText(item.title, m_itemTitle);
    // A description the clean-up would not change is lent to the item rather than copied,
    // and given back afterwards (the collected text may still be read through it).
    const bool lendDescription = isCleanAlready(m_itemDescription);
    if (lendDescription) {
        item.description.swap(m_itemDescription);
    } else {
        item.description.clear();
        appendCleanFeedText(item.description, m_itemDescription);
    }
    item.url = m_itemLink;
    item.source = m_source;
    item.author = m_author;
    item.commentsUrl = m_comments;
    item.pubDateString = m_itemPubDate;
    m_feed->appendItem(item);
    if (lendDescription)
        item.description.swap(m_itemDescription);
}

// Descriptions, the bulk of a feed's text, are moved rather than copied: nothing changes
// either field before the next start tag.
void RssXmlParser::endDescription() {
    if (isParent("ITEM"))
        moveCharacterDataInto(m_itemDescription);
    else if (isParent("CHANNEL"))
        moveCharacterDataInto(m_description);
}

void RssXmlParser::endWidth() {
    if (isParent("IMAGE"))
        m_imageWidth = std::atoi(characterData().c_str());
}

void RssXmlParser::endHeight() {
    if (isParent("IMAGE"))
        m_imageHeight = std::atoi(characterData().c_str());
}

void RssXmlParser::endPubDate() {
    if (isParent("CHANNEL"))
        m_pubDate = characterData();
    else if (isParent("ITEM"))
        m_itemPubDate = characterData();
}

namespace {

void logFeed(const ParseOptions& options, const Feed& feed) {
    auto& group = channelManagerActivityGroup();
    if (!group.isEnabled() || !options.logChannelProcessing)
        return;
    msglog::LogBlock block;
    const FeedChannelFields& channel = feed.channel();
    PELSU_LOG(group, "Parsed feed for " << options.channelName
                                        << ": title=" << channel.channelDisplayName
                                        << " ; link=" << channel.channelHomeUrl
                                        << " ; #items=" << feed.itemCount());
    msglog::LogIndent indent;
    for (const FeedItem& item : feed.items())
        PELSU_LOG(group, "- id=" << item.id << " ; title=" << item.title << " ; url=" << item.url);
}

} // namespace

void saveCollectedItem(Feed& feed, CollectedItem& item, const std::string& channelLink,
                       int maxItems, std::ostream* parseLog) {
    FeedItem saved;
    saveCollectedItem(feed, item, channelLink, maxItems, parseLog, saved);
}

void saveCollectedItem(Feed& feed, CollectedItem& item, const std::string& channelLink,
                       int maxItems, std::ostream* parseLog, FeedItem& saved) {
    if (maxItems >= 1 && feed.itemCount() >= static_cast<std::size_t>(maxItems))
        return;
    if (item.link.empty())
        item.link = item.guid.empty() ? channelLink : item.guid;
    if (parseLog)
        *parseLog << "Saving the new item.\n";
    saved.id = item.guid.empty() ? item.link : item.guid;
    saved.title.clear();
    if (item.title.empty())
        appendCleanFeedText(saved.title, makeTitle(item.description, item.link));
    else
        appendCleanFeedText(saved.title, item.title);
    // As for RSS items: a description the clean-up would not change is lent, then given back.
    const bool lendDescription = isCleanAlready(item.description);
    if (lendDescription) {
        saved.description.swap(item.description);
    } else {
        saved.description.clear();
        appendCleanFeedText(saved.description, item.description);
    }
    saved.url = item.link;
    saved.source = item.source;
    saved.author = item.author;
    saved.commentsUrl = item.comments;
    saved.pubDateString = item.pubDate;
    feed.appendItem(saved);
    if (lendDescription)
        saved.description.swap(item.description);
}

std::string tooManyItemsMessage(int limit) {
    return "The feed holds more than " + std::to_string(limit) +
           " items, the limit set by MaxItemsPerFeed";
}

std::string cleanFeedText(const std::string& text) {
    std::string cleaned;
    appendCleanFeedText(cleaned, text);
    return cleaned;
}

std::string makeTitle(const std::string& description, const std::string& defaultTitle) {
    const std::string text = htmlStripper::stripMarkup(description);
    std::string title;
    int words = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (i > 0 && !isSpace(c) &&
            (isSpace(text[i - 1]) || std::ispunct(static_cast<unsigned char>(text[i - 1]))))
            ++words;
        if (words > 19) {
            // After the text copied so far, the blank before the 21st word included: only the
            // ends are trimmed below.
            title += " ...";
            break;
        }
        const bool endsHere = i + 1 == text.size() || isSpace(text[i + 1]);
        if (words > 4 && endsHere && (c == ';' || c == ':'))
            break;
        title += c;
        if (words > 4 && endsHere && (c == '.' || c == '!' || c == '?'))
            break;
    }
    title = misc::trimmed(title);
    return title.empty() ? defaultTitle : title;
}

RssParser::RssParser() : m_atomReader(std::make_unique<AtomReader>()) {}

RssParser::~RssParser() = default;

std::unique_ptr<Feed> RssParser::parse(const ParseOptions& options, const std::string& feedText,
                                       int maxItems) {
    std::unique_ptr<std::ofstream> parseLog;
    if (options.logChannelProcessing && !options.parseLogPath.empty()) {
        parseLog = std::make_unique<std::ofstream>(options.parseLogPath, std::ios::trunc);
        if (!parseLog->is_open())
            parseLog.reset();
    }
    if (feedText.empty())
        throw Exception("Empty RSS feed.");
    std::optional<std::string> converted;
    if (options.formats.convertEncodings)
        converted = expat::convertedToUtf8(feedText);
    const std::string& text = converted ? *converted : feedText;
    if (auto other = parseOtherFormat(*m_atomReader, options, text, maxItems, parseLog.get()))
        return other;
    auto feed = std::make_unique<Feed>();
    if (!m_reader) {
        m_reader = std::make_unique<RssXmlParser>();
        // Traces of every element, the tag stack and the text, off unless switched on by name.
        static msglog::MsgGroup& elements = msglog::registerQuietMsgGroup("XmlElements");
        static msglog::MsgGroup& tagStack = msglog::registerQuietMsgGroup("XmlTagStack");
        static msglog::MsgGroup& characterData = msglog::registerQuietMsgGroup("XmlCharacterData");
        m_reader->setTraceGroups(&elements, &tagStack, &characterData);
    }
    m_reader->setReadUnknownEncodings(options.formats.convertEncodings);
    if (!m_reader->read(*feed, text, maxItems, options, parseLog.get()))
        throw Exception("Not an RSS feed.");
    return feed;
}

std::unique_ptr<Feed> parseFeed(RssParser& parser, const ParseOptions& options,
                                const std::string& feedText, int maxItems) {
    std::unique_ptr<Feed> feed;
    try {
        feed = parser.parse(options, feedText, maxItems);
    } catch (const std::exception&) {
        std::size_t skip = 0;
        if (options.skipLeadingBinaryData)
            while (skip < feedText.size() && static_cast<unsigned char>(feedText[skip]) >= 128)
                ++skip;
        if (skip == 0)
            throw; // the same text again would fail the same way
        feed = parser.parse(options, feedText.substr(skip), maxItems);
    }
    logFeed(options, *feed);
    if (feed->itemCount() == 0 && !options.allowEmptyFeeds)
        throw Exception("The channel returned no items.");
    return feed;
}

} // namespace channels
