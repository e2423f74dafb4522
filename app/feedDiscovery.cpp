#include "app/feedDiscovery.h"

#include "lib/misc/text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <set>
#include <string_view>

namespace app {

namespace {

// The media types of feeds that pages announce.
constexpr std::array<std::string_view, 7> kFeedTypes = {"application/rss+xml",
                                                        "application/atom+xml",
                                                        "application/rdf+xml",
                                                        "application/feed+json",
                                                        "application/json",
                                                        "application/xml",
                                                        "text/xml"};

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// One character reference's text, in Latin-1 ('?' past it); empty when it names none.
std::string referenceText(std::string_view name) {
    static const std::map<std::string_view, char> named = {
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}, {"nbsp", '\xa0'}};
    if (name.size() > 1 && name[0] == '#') {
        const bool hex = name[1] == 'x' || name[1] == 'X';
        const std::string digits(name.substr(hex ? 2 : 1));
        if (digits.empty() || digits.size() > 7 ||
            digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") !=
                std::string::npos)
            return "";
        const long code = std::stol(digits, nullptr, hex ? 16 : 10);
        return std::string(1, code > 0 && code < 256 ? static_cast<char>(code) : '?');
    }
    const auto found = named.find(name);
    return found == named.end() ? "" : std::string(1, found->second);
}

std::string decodeReferences(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::size_t end = text[i] == '&' ? text.find(';', i) : std::string::npos;
        const std::string decoded =
            end != std::string::npos && end - i <= 10
                ? referenceText(std::string_view(text).substr(i + 1, end - i - 1))
                : "";
        if (decoded.empty()) {
            out += text[i];
            continue;
        }
        out += decoded;
        i = end;
    }
    return out;
}

// A start tag's name and attributes (names in lower case, values decoded).
struct Tag {
    std::string name;
    std::map<std::string, std::string> attributes;
};

// Reads the tag that starts at text[at] ('<'); at ends past its '>'.
Tag readTag(const std::string& text, std::size_t& at) {
    Tag tag;
    std::size_t i = at + 1;
    while (i < text.size() && (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '-'))
        tag.name += static_cast<char>(std::tolower(static_cast<unsigned char>(text[i++])));
    while (i < text.size() && text[i] != '>') {
        if (isSpace(text[i]) || text[i] == '/') {
            ++i;
            continue;
        }
        std::string name;
        while (i < text.size() && !isSpace(text[i]) && text[i] != '=' && text[i] != '>' &&
               text[i] != '/')
            name += static_cast<char>(std::tolower(static_cast<unsigned char>(text[i++])));
        while (i < text.size() && isSpace(text[i]))
            ++i;
        std::string value;
        if (i < text.size() && text[i] == '=') {
            ++i;
            while (i < text.size() && isSpace(text[i]))
                ++i;
            const char quote = i < text.size() && (text[i] == '"' || text[i] == '\'') ? text[i] : 0;
            const std::size_t start = quote ? i + 1 : i;
            std::size_t end = start;
            if (quote)
                end = std::min(text.find(quote, start), text.size());
            else
                while (end < text.size() && !isSpace(text[end]) && text[end] != '>')
                    ++end;
            value = decodeReferences(text.substr(start, end - start));
            i = quote && end < text.size() ? end + 1 : end;
        }
        if (!name.empty())
            tag.attributes.emplace(name, value); // the first of a repeated attribute counts
    }
    at = i < text.size() ? i + 1 : i;
    return tag;
}

// Where the raw text of a script or style ends (the start of its closing tag).
std::size_t rawTextEnd(const std::string& lowered, const std::string& name, std::size_t from) {
    const std::size_t end = lowered.find("</" + name, from);
    return end == std::string::npos ? lowered.size() : end;
}

bool hasWord(const std::string& words, const std::string& word) {
    std::size_t i = 0;
    while (i < words.size()) {
        while (i < words.size() && isSpace(words[i]))
            ++i;
        std::size_t end = i;
        while (end < words.size() && !isSpace(words[end]))
            ++end;
        if (misc::lowered(words.substr(i, end - i)) == word)
            return true;
        i = end;
    }
    return false;
}

std::string attribute(const Tag& tag, const std::string& name) {
    const auto found = tag.attributes.find(name);
    return found == tag.attributes.end() ? "" : found->second;
}

// The feed link a <link> element makes, when it makes one (address not yet resolved).
bool feedLinkOf(const Tag& tag, FeedLink& link) {
    const std::string rel = attribute(tag, "rel");
    if (!hasWord(rel, "alternate") && !hasWord(rel, "feed"))
        return false;
    std::string type = misc::lowered(misc::trimmed(attribute(tag, "type")));
    type = type.substr(0, type.find(';')); // "application/rss+xml; charset=utf-8"
    type = misc::trimmed(type);
    if (std::find(kFeedTypes.begin(), kFeedTypes.end(), type) == kFeedTypes.end())
        return false;
    link.address = misc::trimmed(attribute(tag, "href"));
    link.title = misc::trimmed(attribute(tag, "title"));
    link.type = type;
    return !link.address.empty();
}

// Each element of interest in turn: links and the base, outside comments and raw text.
template <typename OnTag>
void scanTags(const std::string& html, OnTag onTag) {
    const std::string lower = misc::lowered(html);
    std::size_t at = 0;
    while ((at = html.find('<', at)) != std::string::npos) {
        if (html.compare(at, 4, "<!--") == 0) {
            const std::size_t end = html.find("-->", at + 4);
            at = end == std::string::npos ? html.size() : end + 3;
            continue;
        }
        const Tag tag = readTag(html, at);
        if (tag.name == "script" || tag.name == "style")
            at = rawTextEnd(lower, tag.name, at);
        else
            onTag(tag);
    }
}

} // namespace

std::vector<FeedLink> discoverFeedLinks(const std::string& html, const std::string& pageAddress) {
    std::string base;
    std::vector<FeedLink> found;
    scanTags(html, [&](const Tag& tag) {
        FeedLink link;
        if (tag.name == "base" && base.empty())
            base = misc::trimmed(attribute(tag, "href"));
        else if (tag.name == "link" && feedLinkOf(tag, link))
            found.push_back(std::move(link));
    });
    // A base of its own is itself relative to the page.
    const std::string against = base.empty() ? pageAddress : resolveAddress(pageAddress, base);
    std::vector<FeedLink> links;
    std::set<std::string> seen;
    for (FeedLink& link : found) {
        link.address = resolveAddress(against, link.address);
        if (seen.insert(link.address).second)
            links.push_back(std::move(link));
    }
    return links;
}

bool looksLikeHtml(const std::string& text) {
    // Pages may open with an XML declaration, comments or blank lines before the document.
    const std::string start = misc::lowered(text.substr(0, 2048));
    return start.find("<!doctype html") != std::string::npos ||
           start.find("<html") != std::string::npos;
}

} // namespace app
