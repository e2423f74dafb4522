#include "channels/feedFormats.h"

#include "channels/atomParser.h"
#include "channels/jsonFeedParser.h"

#include <cctype>
#include <cstring>

namespace channels {

namespace {

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::size_t afterByteOrderMark(const std::string& text) {
    return text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
}

// Skips what may stand before the root element: white space, processing instructions,
// comments and the document type (with its internal subset).
std::size_t rootElementAt(const std::string& text) {
    std::size_t at = afterByteOrderMark(text);
    while (at < text.size()) {
        if (isSpace(text[at])) {
            ++at;
        } else if (text.compare(at, 2, "<?") == 0) {
            at = text.find("?>", at + 2);
            at = at == std::string::npos ? at : at + 2;
        } else if (text.compare(at, 4, "<!--") == 0) {
            at = text.find("-->", at + 4);
            at = at == std::string::npos ? at : at + 3;
        } else if (text.compare(at, 2, "<!") == 0) {
            const std::size_t subset = text.find_first_of("[>", at);
            if (subset != std::string::npos && text[subset] == '[')
                at = text.find("]", subset);
            at = at == std::string::npos ? at : text.find('>', at);
            at = at == std::string::npos ? at : at + 1;
        } else {
            return text[at] == '<' ? at + 1 : std::string::npos;
        }
    }
    return std::string::npos;
}

bool isRootFeed(const std::string& text) {
    const std::size_t at = rootElementAt(text);
    if (at == std::string::npos)
        return false;
    std::size_t end = at;
    while (end < text.size() && !isSpace(text[end]) && text[end] != '>' && text[end] != '/')
        ++end;
    const std::size_t colon = text.rfind(':', end);
    const std::size_t local = colon != std::string::npos && colon >= at ? colon + 1 : at;
    return text.compare(local, end - local, "feed") == 0;
}

} // namespace

FeedFormat detectFeedFormat(const std::string& text) {
    std::size_t first = afterByteOrderMark(text);
    while (first < text.size() && isSpace(text[first]))
        ++first;
    if (first < text.size() && text[first] == '{')
        return FeedFormat::Json;
    return isRootFeed(text) ? FeedFormat::Atom : FeedFormat::Xml;
}

std::unique_ptr<Feed> parseOtherFormat(AtomReader& atom, const ParseOptions& options,
                                       const std::string& text, int maxItems,
                                       std::ostream* parseLog) {
    if (!options.formats.atom && !options.formats.json)
        return nullptr;
    switch (detectFeedFormat(text)) {
    case FeedFormat::Json:
        return options.formats.json ? parseJsonFeed(options, text, maxItems, parseLog) : nullptr;
    case FeedFormat::Atom:
        return options.formats.atom ? atom.parse(options, text, maxItems, parseLog) : nullptr;
    case FeedFormat::Xml:
        break;
    }
    return nullptr;
}

} // namespace channels
