#include "channels/atomParser.h"

#include "channels/exception.h"
#include "expat/parser.h"
#include "tools/address.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ostream>
#include <string_view>
#include <vector>

namespace channels {

namespace {

// What an open element is to the feed. Text constructs (titles, subtitle, rights, summary,
// content) keep everything inside them as mark-up; elements inside them are Inside.
enum class Kind : unsigned char {
    Other,
    Feed,
    Entry,
    FeedTitle,
    FeedSubtitle,
    FeedRights,
    FeedLink,
    FeedAuthor,
    FeedAuthorName,
    FeedGenerator,
    FeedLogo,
    FeedUpdated,
    EntryId,
    EntryTitle,
    EntryLink,
    EntrySummary,
    EntryContent,
    EntryAuthor,
    EntryAuthorName,
    EntryPublished,
    EntryUpdated,
    MediaContainer, // Media RSS's group or content in an entry
    EntryMediaTitle,
    Inside,
};

bool isTextConstruct(Kind kind) {
    switch (kind) {
    case Kind::FeedTitle:
    case Kind::FeedSubtitle:
    case Kind::FeedRights:
    case Kind::EntryTitle:
    case Kind::EntrySummary:
    case Kind::EntryContent:
        return true;
    default:
        return false;
    }
}

// An Atom element's kind by its parent's kind and its own local name (Atom 1.0 names, then the
// 0.3 drafts' names for the same things).
struct Rule {
    Kind parent;
    std::string_view name;
    Kind kind;
};

constexpr Rule kRules[] = {
    {Kind::Feed, "entry", Kind::Entry},
    {Kind::Feed, "title", Kind::FeedTitle},
    {Kind::Feed, "subtitle", Kind::FeedSubtitle},
    {Kind::Feed, "rights", Kind::FeedRights},
    {Kind::Feed, "link", Kind::FeedLink},
    {Kind::Feed, "author", Kind::FeedAuthor},
    {Kind::Feed, "generator", Kind::FeedGenerator},
    {Kind::Feed, "logo", Kind::FeedLogo},
    {Kind::Feed, "updated", Kind::FeedUpdated},
    {Kind::Feed, "tagline", Kind::FeedSubtitle},
    {Kind::Feed, "copyright", Kind::FeedRights},
    {Kind::Feed, "modified", Kind::FeedUpdated},
    {Kind::FeedAuthor, "name", Kind::FeedAuthorName},
    {Kind::Entry, "id", Kind::EntryId},
    {Kind::Entry, "title", Kind::EntryTitle},
    {Kind::Entry, "link", Kind::EntryLink},
    {Kind::Entry, "summary", Kind::EntrySummary},
    {Kind::Entry, "content", Kind::EntryContent},
    {Kind::Entry, "author", Kind::EntryAuthor},
    {Kind::Entry, "published", Kind::EntryPublished},
    {Kind::Entry, "updated", Kind::EntryUpdated},
    {Kind::Entry, "issued", Kind::EntryPublished},
    {Kind::Entry, "modified", Kind::EntryUpdated},
    {Kind::EntryAuthor, "name", Kind::EntryAuthorName},
};

// Media RSS elements read in an entry: its title stands in for a missing Atom title, as video
// sites put it there, at the entry's level or inside a group or content element.
constexpr Rule kMediaRules[] = {
    {Kind::Entry, "title", Kind::EntryMediaTitle},
    {Kind::Entry, "group", Kind::MediaContainer},
    {Kind::Entry, "content", Kind::MediaContainer},
    {Kind::MediaContainer, "title", Kind::EntryMediaTitle},
    {Kind::MediaContainer, "content", Kind::MediaContainer},
};

// The namespaces whose elements the reader knows.
enum class ElementSpace : unsigned char { Atom, Media, Other };

bool isMediaNamespace(std::string_view uri) {
    return uri == "http://search.yahoo.com/mrss/" || uri == "http://search.yahoo.com/mrss";
}

// Every element of a feed goes through here: names compare by length first.
template <std::size_t N>
Kind kindOf(const Rule (&rules)[N], Kind parent, std::string_view localName) {
    for (const Rule& rule : rules)
        if (rule.parent == parent && rule.name == localName)
            return rule.kind;
    return Kind::Other;
}

const char* localNameOf(const char* name) {
    const char* colon = std::strrchr(name, ':');
    return colon ? colon + 1 : name;
}

// An element's name split in one pass: the prefix before its first colon (empty without one)
// and the local name after its last.
struct SplitName {
    std::string_view prefix, local;
};

SplitName splitName(const char* name) {
    const char* first = nullptr;
    const char* last = nullptr;
    const char* at = name;
    for (; *at; ++at)
        if (*at == ':') {
            first = first ? first : at;
            last = at;
        }
    const char* local = last ? last + 1 : name;
    return {std::string_view(name, first ? static_cast<std::size_t>(first - name) : 0),
            std::string_view(local, static_cast<std::size_t>(at - local))};
}

// HTML elements without an end tag: written as "<br />" so that no "</br>" follows.
bool isVoidElement(const char* name) {
    for (const char* empty : {"br", "hr", "img", "input", "meta", "link", "area", "base", "col",
                              "embed", "param", "source", "track", "wbr"})
        if (std::strcmp(name, empty) == 0)
            return true;
    return false;
}

void appendEscaped(std::string& out, std::string_view text, bool inAttribute) {
    for (const char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += inAttribute ? "&quot;" : "\"";
            break;
        default:
            out += c;
        }
    }
}

// The attributes an Atom element's meaning depends on.
struct Attributes {
    const char* base = nullptr; // xml:base
    const char* type = nullptr;
    const char* mode = nullptr; // Atom 0.3's content mode
    const char* rel = nullptr;
    const char* href = nullptr;
};

// A namespace declaration in scope: made by the element at depth.
struct Namespace {
    std::size_t depth;
    std::string prefix;
    std::string uri;
};

// The entry being collected, and the link it will keep.
struct Entry {
    CollectedItem item;
    std::string published, updated, mediaTitle;
    int linkRank = -1; // of the link taken (see takeLink)
};

// The feed's own details as collected.
struct FeedFields {
    std::string title, subtitle, rights, link, author, generator, logo, updated;
    int linkRank = -1;
};

// Empties every field, keeping its capacity for the next entry or feed.
void clearEntry(Entry& entry) {
    CollectedItem& item = entry.item;
    for (std::string* field :
         {&item.guid, &item.link, &item.title, &item.description, &item.source, &item.author,
          &item.comments, &item.pubDate, &entry.published, &entry.updated, &entry.mediaTitle})
        field->clear();
    entry.linkRank = -1;
}

void clearFeedFields(FeedFields& fields) {
    for (std::string* field : {&fields.title, &fields.subtitle, &fields.rights, &fields.link,
                               &fields.author, &fields.generator, &fields.logo, &fields.updated})
        field->clear();
    fields.linkRank = -1;
}

// field = text without its leading and trailing white space, in field's own buffer.
void assignTrimmed(std::string& field, std::string_view text) {
    const auto space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    while (!text.empty() && space(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && space(text.back()))
        text.remove_suffix(1);
    field.assign(text);
}

} // namespace

// Collects the feed's and the entries' fields while expat walks the document. One reader
// serves the parses of one AtomReader in turn, so its fields keep their capacity between feeds.
class AtomXmlParser : public expat::Parser {
public:
    // Parses one document into feed; returns whether the root was an Atom feed. Throws what
    // expat::Parser::parse throws.
    bool read(Feed& feed, const std::string& text, int maxItems, const ParseOptions& options,
              std::ostream* parseLog);

protected:
    void onStartElement(const char* name, const char** attributes) override;
    void onEndElement(const char* name) override;

private:
    void trace(std::string_view line) {
        if (m_parseLog)
            *m_parseLog << line << '\n';
    }
    void traceStart(const char* name, const char** attributes);
    Attributes scanAttributes(const char** attributes, std::size_t depth);
    const std::string& namespaceOf(std::string_view prefix) const;
    const std::string& currentBase() const;
    Kind classify(Kind parent, const char* name, std::size_t depth);
    void begin(Kind kind, const Attributes& attributes);
    void end(Kind kind);
    void beginTextConstruct(const Attributes& attributes, std::size_t depth);
    void takeText();
    void copyStartTag(const char* name, const char** attributes, std::size_t depth);
    void copyEndTag(const char* name, std::size_t depth);
    void takeLink(const Attributes& attributes, std::string& link, int& linkRank);
    void endTextConstruct(Kind kind);
    std::string* textConstructField(Kind kind);
    void endEntry();
    void endFeed();
    void leaveScopes(std::size_t depth);

    Feed* m_feed = nullptr;
    const ParseOptions* m_options = nullptr;
    int m_maxItems = 0;
    int m_itemsSeen = 0;
    std::ostream* m_parseLog = nullptr;
    bool m_isAtom = false;
    std::string m_atomNamespace; // the root's
    std::vector<Kind> m_kinds;   // of the open elements
    std::vector<Namespace> m_namespaces;
    // The namespace last looked up for an element, by its prefix: valid while m_namespaces
    // is as it was then (m_namespacesChanged counts its changes).
    std::size_t m_namespacesChanged = 0;
    std::size_t m_lookedUpAt = ~std::size_t{0};
    std::string m_lookedUpPrefix;
    ElementSpace m_lookedUpSpace = ElementSpace::Other;
    std::vector<std::pair<std::size_t, std::string>> m_bases; // xml:base by depth, resolved
    // The text construct being copied: its depth (0: none), whether it is XHTML, the depth of
    // the XHTML container div that is left out (0: none), the copy of what is inside it up to
    // the last tag within, and how much of characterData() that copy already holds.
    std::size_t m_textDepth = 0;
    bool m_xhtml = false;
    std::size_t m_containerDepth = 0;
    std::string m_text;
    std::size_t m_textTaken = 0;
    std::string m_scratch;
    Entry m_entry;
    FeedFields m_fields;
    FeedItem m_saved; // the item being saved
};

bool AtomXmlParser::read(Feed& feed, const std::string& text, int maxItems,
                         const ParseOptions& options, std::ostream* parseLog) {
    m_feed = &feed;
    m_options = &options;
    m_maxItems = maxItems;
    m_itemsSeen = 0;
    m_parseLog = parseLog;
    m_isAtom = false;
    m_atomNamespace.clear();
    m_kinds.clear();
    m_namespaces.clear();
    ++m_namespacesChanged;
    m_bases.clear();
    m_textDepth = 0;
    m_text.clear();
    clearEntry(m_entry);
    clearFeedFields(m_fields);
    setMaxDepth(static_cast<std::size_t>(std::max(options.depthLimit, 0)));
    setReadUnknownEncodings(options.formats.convertEncodings);
    // As for RSS: room for all the items' text up front, the unused part given back.
    feed.reserveItemBytes(text.size());
    parse(text.data(), text.size());
    feed.releaseSpareItemBytes();
    return m_isAtom;
}

Attributes AtomXmlParser::scanAttributes(const char** attributes, std::size_t depth) {
    Attributes found;
    for (const char** at = attributes; at && *at; at += 2) {
        const char* name = at[0];
        if (!std::strchr("xtmrh", name[0])) // none of the names below
            continue;
        if (std::strncmp(name, "xmlns", 5) == 0 && (name[5] == '\0' || name[5] == ':')) {
            m_namespaces.push_back({depth, name[5] ? name + 6 : "", at[1]});
            ++m_namespacesChanged;
        } else if (std::strcmp(name, "xml:base") == 0) {
            found.base = at[1];
        } else if (std::strcmp(name, "type") == 0) {
            found.type = at[1];
        } else if (std::strcmp(name, "mode") == 0) {
            found.mode = at[1];
        } else if (std::strcmp(name, "rel") == 0) {
            found.rel = at[1];
        } else if (std::strcmp(name, "href") == 0) {
            found.href = at[1];
        }
    }
    if (found.base)
        m_bases.emplace_back(depth, tools::resolveAddress(currentBase(), found.base));
    return found;
}

const std::string& AtomXmlParser::namespaceOf(std::string_view prefix) const {
    static const std::string none;
    for (auto it = m_namespaces.rbegin(); it != m_namespaces.rend(); ++it)
        if (it->prefix == prefix)
            return it->uri;
    return none;
}

const std::string& AtomXmlParser::currentBase() const {
    return m_bases.empty() ? m_options->documentAddress : m_bases.back().second;
}

Kind AtomXmlParser::classify(Kind parent, const char* name, std::size_t depth) {
    if (parent == Kind::Other && depth != 1)
        return Kind::Other;
    const SplitName split = splitName(name);
    if (depth == 1) {
        m_isAtom = split.local == "feed";
        m_atomNamespace = namespaceOf(split.prefix);
        return m_isAtom ? Kind::Feed : Kind::Other;
    }
    if (m_lookedUpAt != m_namespacesChanged || split.prefix != m_lookedUpPrefix) {
        const std::string& uri = namespaceOf(split.prefix);
        m_lookedUpSpace = uri == m_atomNamespace  ? ElementSpace::Atom
                          : isMediaNamespace(uri) ? ElementSpace::Media
                                                  : ElementSpace::Other;
        m_lookedUpPrefix.assign(split.prefix);
        m_lookedUpAt = m_namespacesChanged;
    }
    switch (m_lookedUpSpace) {
    case ElementSpace::Atom:
        return kindOf(kRules, parent, split.local);
    case ElementSpace::Media:
        return kindOf(kMediaRules, parent, split.local);
    default:
        return Kind::Other;
    }
}

void AtomXmlParser::traceStart(const char* name, const char** attributes) {
    trace(std::string("START ELEMENT: ") + name);
    for (const char** attribute = attributes; attribute && *attribute; attribute += 2)
        trace(std::string("- ") + attribute[0] + " = '" + attribute[1] + "'");
}

void AtomXmlParser::onStartElement(const char* name, const char** attributes) {
    const std::size_t depth = tagStack().size();
    if (m_parseLog)
        traceStart(name, attributes);
    const Attributes found = scanAttributes(attributes, depth);
    const Kind parent = m_kinds.empty() ? Kind::Other : m_kinds.back();
    if (parent == Kind::Inside || isTextConstruct(parent)) {
        m_kinds.push_back(Kind::Inside);
        takeText();
        m_textTaken = 0; // the text starts again after this tag
        copyStartTag(name, attributes, depth);
        return;
    }
    const Kind kind = classify(parent, name, depth);
    m_kinds.push_back(kind);
    if (kind == Kind::Other)
        return;
    begin(kind, found);
    if (isTextConstruct(kind))
        beginTextConstruct(found, depth);
}

void AtomXmlParser::onEndElement(const char* name) {
    const std::size_t depth = tagStack().size();
    if (m_parseLog)
        trace(std::string("END ELEMENT: ") + name);
    const Kind kind = m_kinds.back();
    m_kinds.pop_back();
    if (kind == Kind::Inside) {
        takeText();
        copyEndTag(name, depth);
    } else if (kind != Kind::Other) {
        end(kind);
    }
    leaveScopes(depth);
}

void AtomXmlParser::leaveScopes(std::size_t depth) {
    while (!m_namespaces.empty() && m_namespaces.back().depth == depth) {
        m_namespaces.pop_back();
        ++m_namespacesChanged;
    }
    if (!m_bases.empty() && m_bases.back().first == depth)
        m_bases.pop_back();
}

// Copies the text of the construct not yet copied (all of it since the last tag inside the
// construct): XHTML's escaped again, as it is mark-up.
void AtomXmlParser::takeText() {
    const std::string_view text = std::string_view(characterData()).substr(m_textTaken);
    if (m_xhtml)
        appendEscaped(m_text, text, false);
    else
        m_text += text;
    m_textTaken += text.size();
}

void AtomXmlParser::begin(Kind kind, const Attributes& attributes) {
    switch (kind) {
    case Kind::Entry:
        trace("Starting a new item.");
        clearEntry(m_entry);
        break;
    case Kind::FeedLink:
        takeLink(attributes, m_fields.link, m_fields.linkRank);
        break;
    case Kind::EntryLink:
        takeLink(attributes, m_entry.item.link, m_entry.linkRank);
        break;
    default:
        break;
    }
}

void AtomXmlParser::end(Kind kind) {
    if (isTextConstruct(kind))
        return endTextConstruct(kind);
    const auto leaf = [this](std::string& field) {
        if (field.empty())
            assignTrimmed(field, characterData());
    };
    switch (kind) {
    case Kind::Feed:
        return endFeed();
    case Kind::Entry:
        return endEntry();
    case Kind::FeedAuthorName:
        return leaf(m_fields.author);
    case Kind::FeedGenerator:
        return leaf(m_fields.generator);
    case Kind::FeedLogo:
        return leaf(m_fields.logo);
    case Kind::FeedUpdated:
        return leaf(m_fields.updated);
    case Kind::EntryId:
        return leaf(m_entry.item.guid);
    case Kind::EntryAuthorName:
        return leaf(m_entry.item.author);
    case Kind::EntryPublished:
        return leaf(m_entry.published);
    case Kind::EntryUpdated:
        return leaf(m_entry.updated);
    case Kind::EntryMediaTitle:
        return leaf(m_entry.mediaTitle);
    default:
        return;
    }
}

// The alternate links (a link without rel is one) rank by type: one that says it is a web
// page first, then one that names no type, then any other; the first of the best rank wins.
void AtomXmlParser::takeLink(const Attributes& attributes, std::string& link, int& linkRank) {
    if (!attributes.href || (attributes.rel && std::strcmp(attributes.rel, "alternate") != 0))
        return;
    const int rank = !attributes.type ? 1
                     : std::strcmp(attributes.type, "text/html") == 0 ||
                             std::strcmp(attributes.type, "application/xhtml+xml") == 0
                         ? 2
                         : 0;
    if (rank <= linkRank)
        return;
    m_scratch.clear();
    expat::appendUtf8AsLatin1(m_scratch, attributes.href, std::strlen(attributes.href));
    assignTrimmed(m_scratch, m_scratch);
    link = tools::resolveAddress(currentBase(), m_scratch);
    linkRank = rank;
}

void AtomXmlParser::beginTextConstruct(const Attributes& attributes, std::size_t depth) {
    const std::string_view type = attributes.type ? attributes.type : "text";
    const std::string_view mode = attributes.mode ? attributes.mode : "";
    m_textDepth = depth;
    m_xhtml = type == "xhtml" || (mode == "xml" && type.find("xhtml") != std::string_view::npos);
    m_containerDepth = 0;
    m_text.clear();
    m_textTaken = 0;
}

void AtomXmlParser::copyStartTag(const char* name, const char** attributes, std::size_t depth) {
    const char* local = localNameOf(name);
    if (m_xhtml && depth == m_textDepth + 1 && m_containerDepth == 0 &&
        std::strcmp(local, "div") == 0) {
        m_containerDepth = depth;
        return;
    }
    m_text += '<';
    m_text += local;
    for (const char** at = attributes; at && *at; at += 2) {
        if (std::strncmp(at[0], "xmlns", 5) == 0)
            continue;
        m_scratch.clear();
        expat::appendUtf8AsLatin1(m_scratch, at[1], std::strlen(at[1]));
        m_text += ' ';
        m_text += localNameOf(at[0]);
        m_text += "=\"";
        appendEscaped(m_text, m_scratch, true);
        m_text += '"';
    }
    m_text += isVoidElement(local) ? " />" : ">";
}

void AtomXmlParser::copyEndTag(const char* name, std::size_t depth) {
    const char* local = localNameOf(name);
    if (depth == m_containerDepth)
        return;
    if (!isVoidElement(local)) {
        m_text += "</";
        m_text += local;
        m_text += '>';
    }
}

// The field a construct's text goes to; null when it is dropped (content after a summary).
std::string* AtomXmlParser::textConstructField(Kind kind) {
    switch (kind) {
    case Kind::FeedTitle:
        return &m_fields.title;
    case Kind::FeedSubtitle:
        return &m_fields.subtitle;
    case Kind::FeedRights:
        return &m_fields.rights;
    case Kind::EntryTitle:
        return &m_entry.item.title;
    case Kind::EntrySummary:
        return &m_entry.item.description;
    case Kind::EntryContent: // the summary, when there is one, is the shorter text
        return m_entry.item.description.empty() ? &m_entry.item.description : nullptr;
    default:
        return nullptr;
    }
}

void AtomXmlParser::endTextConstruct(Kind kind) {
    m_textDepth = 0;
    std::string* field = textConstructField(kind);
    if (!field)
        return;
    // Plain text with no tag inside, by far the most common, is moved rather than copied:
    // nothing changes the field before the next start tag but the saving of the entry, which
    // gives back what it borrows.
    if (!m_xhtml && m_text.empty() && m_textTaken == 0)
        return moveCharacterDataInto(*field);
    takeText();
    field->swap(m_text);
    m_text.clear();
}

void AtomXmlParser::endEntry() {
    if (m_options->itemLimit > 0 && ++m_itemsSeen > m_options->itemLimit)
        return abort(tooManyItemsMessage(m_options->itemLimit));
    CollectedItem& item = m_entry.item;
    item.pubDate = m_entry.published.empty() ? m_entry.updated : m_entry.published;
    if (item.title.empty())
        item.title.swap(m_entry.mediaTitle);
    if (item.author.empty())
        item.author = m_fields.author;
    saveCollectedItem(*m_feed, item, m_fields.link, m_maxItems, m_parseLog, m_saved);
}

void AtomXmlParser::endFeed() {
    trace("Saving the channel details.");
    FeedChannelFields& channel = m_feed->channel();
    channel.channelDisplayName = cleanFeedText(m_fields.title);
    channel.channelDescription = cleanFeedText(m_fields.subtitle);
    channel.channelHomeUrl = m_fields.link;
    channel.channelImageUrl = m_fields.logo;
    channel.copyrightString = m_fields.rights;
    channel.lastBuildDateString = m_fields.updated;
    channel.feedGenerator = m_fields.generator;
}

AtomReader::AtomReader() = default;

AtomReader::~AtomReader() = default;

std::unique_ptr<Feed> AtomReader::parse(const ParseOptions& options, const std::string& text,
                                        int maxItems, std::ostream* parseLog) {
    if (!m_reader)
        m_reader = std::make_unique<AtomXmlParser>();
    auto feed = std::make_unique<Feed>();
    if (!m_reader->read(*feed, text, maxItems, options, parseLog))
        throw Exception("Not an Atom feed.");
    return feed;
}

std::unique_ptr<Feed> parseAtomFeed(const ParseOptions& options, const std::string& text,
                                    int maxItems, std::ostream* parseLog) {
    AtomReader reader;
    return reader.parse(options, text, maxItems, parseLog);
}

} // namespace channels
