#include "channels/rssParser.h"

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
#include <fstream>
#include <optional>

namespace channels {

namespace {

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Collects the channel's and the items' fields while expat walks the document.
class RssXmlParser : public expat::Parser {
public:
    RssXmlParser(Feed& feed, int maxItems, int itemLimit, std::ostream* parseLog);

    bool isRss() const { return m_isRss; }

protected:
    void onStartElement(const char* name, const char** attributes) override;
    void onEndElement(const char* name) override;

private:
    static const expat::ElementHandler kHandlers[];

    void trace(const std::string& line) {
        if (m_parseLog)
            *m_parseLog << line << '\n';
    }
    void startRss() { m_isRss = true; }
    void startChannel();
    void endChannel();
    void startItem();
    void endItem();
    void endGuid() { setItemField(m_guid); }
    void endLink();
    void endTitle();
    void endDescription();
    void endUrl() { setChannelField("IMAGE", m_imageUrl); }
    void endWidth();
    void endHeight();
    void endCopyright() { setChannelField("CHANNEL", m_copyright); }
    void endManagingEditor() { setChannelField("CHANNEL", m_managingEditor); }
    void endWebMaster() { setChannelField("CHANNEL", m_webMaster); }
    void endPubDate();
    void endLastBuildDate() { setChannelField("CHANNEL", m_lastBuildDate); }
    void endGenerator() { setChannelField("CHANNEL", m_generator); }
    void endSource() { setItemField(m_source); }
    void endAuthor() { setItemField(m_author); }
    void endComments() { setItemField(m_comments); }

    void setItemField(std::string& field) {
        if (isParent("ITEM"))
            field = characterData();
    }
    void setChannelField(const char* parent, std::string& field) {
        if (isParent(parent))
            field = characterData();
    }

    Feed& m_feed;
    int m_maxItems;
    int m_itemLimit;
    int m_itemsSeen = 0;
    std::ostream* m_parseLog;
    std::string m_title, m_description, m_link, m_imageUrl;
    int m_imageWidth = 0;
    int m_imageHeight = 0;
    std::string m_copyright, m_managingEditor, m_webMaster, m_pubDate, m_lastBuildDate, m_generator;
    bool m_isRss = false;
    std::string m_guid, m_itemLink, m_itemTitle, m_itemDescription, m_source, m_author, m_comments,
        m_itemPubDate;
};

#define PELSU_RSS_HANDLER(event, method, name)                                                     \
    expat::ElementHandler { expat::event, static_cast<expat::Handler>(&RssXmlParser::method), name }

// Tried from the top; the first row whose event and name match alone runs.
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

RssXmlParser::RssXmlParser(Feed& feed, int maxItems, int itemLimit, std::ostream* parseLog)
    : expat::Parser(kHandlers), m_feed(feed), m_maxItems(maxItems), m_itemLimit(itemLimit),
      m_parseLog(parseLog) {}

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
    if (!isParent("RSS") && !isParent("RDF:RDF"))
        return;
    trace("Starting a new channel.");
    m_title.clear();
    m_description.clear();
    m_link.clear();
    m_imageUrl.clear();
    m_imageWidth = m_imageHeight = 0;
    m_copyright.clear();
    m_managingEditor.clear();
    m_webMaster.clear();
    m_pubDate.clear();
    m_lastBuildDate.clear();
    m_generator.clear();
}

void RssXmlParser::endChannel() {
    if (!isParent("RSS") && !isParent("RDF:RDF"))
        return;
    trace("Saving the channel details.");
    FeedChannelFields& channel = m_feed.channel();
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
    m_guid.clear();
    m_itemLink.clear();
    m_itemTitle.clear();
    m_itemDescription.clear();
    m_source.clear();
    m_author.clear();
    m_comments.clear();
    m_itemPubDate.clear();
}

void RssXmlParser::endItem() {
    if (m_itemLimit > 0 && ++m_itemsSeen > m_itemLimit) {
        abort(tooManyItemsMessage(m_itemLimit));
        return;
    }
    CollectedItem item{m_guid,   m_itemLink, m_itemTitle, m_itemDescription,
                       m_source, m_author,   m_comments,  m_itemPubDate};
    saveCollectedItem(m_feed, item, m_link, m_maxItems, m_parseLog);
    m_itemLink = std::move(item.link); // an item nested in this one sees the link it was given
}

void RssXmlParser::endLink() {
    if (isParent("ITEM"))
        m_itemLink = characterData();
    else if (isParent("CHANNEL"))
        m_link = characterData();
}

void RssXmlParser::endTitle() {
    if (isParent("ITEM"))
        m_itemTitle = characterData();
    else if (isParent("CHANNEL"))
        m_title = characterData();
}

void RssXmlParser::endDescription() {
    if (isParent("ITEM"))
        m_itemDescription = characterData();
    else if (isParent("CHANNEL"))
        m_description = characterData();
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
    if (maxItems >= 1 && feed.itemCount() >= static_cast<std::size_t>(maxItems))
        return;
    if (item.link.empty())
        item.link = item.guid.empty() ? channelLink : item.guid;
    if (parseLog)
        *parseLog << "Saving the new item.\n";
    if (item.title.empty())
        item.title = makeTitle(item.description, item.link);
    FeedItem saved;
    saved.id = item.guid.empty() ? item.link : std::move(item.guid);
    saved.title = cleanFeedText(item.title);
    saved.description = cleanFeedText(item.description);
    saved.url = item.link;
    saved.source = std::move(item.source);
    saved.author = std::move(item.author);
    saved.commentsUrl = std::move(item.comments);
    saved.pubDateString = std::move(item.pubDate);
    feed.appendItem(std::move(saved));
}

std::string tooManyItemsMessage(int limit) {
    return "The feed holds more than " + std::to_string(limit) +
           " items, the limit set by MaxItemsPerFeed";
}

std::string cleanFeedText(const std::string& text) {
    std::string cleaned = misc::trimmed(text);
    for (char& c : cleaned)
        if (c == '\r' || c == '\n')
            c = ' ';
    return htmlStripper::decodeEntities(cleaned);
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
            title = misc::trimmed(title) + " ...";
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

std::unique_ptr<Feed> RssParser::parse(const ParseOptions& options, const std::string& feedText,
                                       int maxItems) {
    std::ofstream parseLog;
    if (options.logChannelProcessing && !options.parseLogPath.empty())
        parseLog.open(options.parseLogPath, std::ios::trunc);
    if (feedText.empty())
        throw Exception("Empty RSS feed.");
    std::optional<std::string> converted;
    if (options.formats.convertEncodings)
        converted = expat::convertedToUtf8(feedText);
    const std::string& text = converted ? *converted : feedText;
    if (auto other =
            parseOtherFormat(options, text, maxItems, parseLog.is_open() ? &parseLog : nullptr))
        return other;
    auto feed = std::make_unique<Feed>();
    RssXmlParser parser(*feed, maxItems, options.itemLimit,
                        parseLog.is_open() ? &parseLog : nullptr);
    parser.setMaxDepth(static_cast<std::size_t>(std::max(options.depthLimit, 0)));
    parser.setReadUnknownEncodings(options.formats.convertEncodings);
    // Traces of every element, the tag stack and the text, off unless switched on by name.
    static msglog::MsgGroup& elements = msglog::registerQuietMsgGroup("XmlElements");
    static msglog::MsgGroup& tagStack = msglog::registerQuietMsgGroup("XmlTagStack");
    static msglog::MsgGroup& characterData = msglog::registerQuietMsgGroup("XmlCharacterData");
    parser.setTraceGroups(&elements, &tagStack, &characterData);
    parser.parse(text.data(), text.size());
    if (!parser.isRss())
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
