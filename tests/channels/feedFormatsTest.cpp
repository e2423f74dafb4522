#include "channels/feedFormats.h"
#include "channels/exception.h"
#include "channels/rssParser.h"
#include "expat/encoding.h"

#include <gtest/gtest.h>

using namespace channels;

namespace {

ParseOptions allFormats() {
    ParseOptions options;
    options.formats = FeedFormats{true, true, true};
    options.documentAddress = "http://site.example/feeds/atom.xml";
    return options;
}

std::unique_ptr<Feed> parse(const std::string& text, ParseOptions options = allFormats(),
                            int maxItems = 0) {
    RssParser parser;
    return parseFeed(parser, options, text, maxItems);
}

std::string failureOf(const std::string& text, ParseOptions options = allFormats()) {
    try {
        parse(text, options);
    } catch (const std::exception& failure) {
        return failure.what();
    }
    return "no failure";
}

FeedItem item(std::string id, std::string title, std::string url, std::string description = "",
              std::string author = "", std::string pubDate = "") {
    FeedItem result;
    result.id = std::move(id);
    result.title = std::move(title);
    result.url = std::move(url);
    result.description = std::move(description);
    result.author = std::move(author);
    result.pubDateString = std::move(pubDate);
    return result;
}

const char* const kAtom = R"(<?xml version="1.0" encoding="utf-8"?>
<feed xmlns="http://www.w3.org/2005/Atom" xmlns:media="http://search.yahoo.com/mrss/"
      xml:base="http://blog.example/">
  <title type="html">Caf&#xE9; &amp;amp; news</title>
  <subtitle>All of it</subtitle>
  <link rel="self" href="/atom.xml"/>
  <link href="home/"/>
  <author><name>Feed Author</name></author>
  <updated>2024-05-01T10:00:00Z</updated>
  <entry>
    <id> urn:one </id>
    <title type="xhtml"><div xmlns="http://www.w3.org/1999/xhtml">A <b>bold</b> &lt;tag&gt;</div></title>
    <link rel="enclosure" href="/a.mp3"/>
    <link rel="alternate" type="application/pdf" href="one.pdf"/>
    <link rel="alternate" type="text/html" href="posts/one"/>
    <media:title>Not this one</media:title>
    <author><name>Entry Author</name></author>
    <published>2024-04-01T00:00:00Z</published>
    <updated>2024-04-02T00:00:00Z</updated>
    <summary>Short</summary>
    <content type="html">&lt;p&gt;Long&lt;/p&gt;</content>
  </entry>
  <entry xml:base="http://other.example/dir/">
    <link href="two"/>
    <content type="xhtml"><div xmlns="http://www.w3.org/1999/xhtml"><p>One two three four five six. Seven</p><br/></div></content>
    <updated>2024-04-03T00:00:00Z</updated>
    <source><title>Source title is not the entry's</title></source>
  </entry>
  <entry><title>No id, no link</title></entry>
  <entry><id>urn:four</id>
    <media:group><media:content url="/v.mp4"><media:title> Video title </media:title></media:content></media:group>
  </entry>
</feed>)";

} // namespace

TEST(AtomFeeds, EntriesBecomeItemsThroughTheSharedSteps) {
    const auto feed = parse(kAtom);
    const FeedChannelFields& channel = feed->channel();
    EXPECT_EQ(channel.channelDisplayName, "Caf\xE9 & news");
    EXPECT_EQ(channel.channelDescription, "All of it");
    EXPECT_EQ(channel.channelHomeUrl, "http://blog.example/home/");
    EXPECT_EQ(channel.lastBuildDateString, "2024-05-01T10:00:00Z");
    ASSERT_EQ(feed->itemCount(), 4u);
    // The xhtml title keeps its mark-up (escaped text stays escaped and is then decoded like
    // any RSS title); the text/html alternate link wins over the PDF one and the enclosure.
    EXPECT_EQ(feed->items()[0],
              item("urn:one", "A <b>bold</b> <tag>", "http://blog.example/posts/one", "Short",
                   "Entry Author", "2024-04-01T00:00:00Z"));
    // No id: the link is the id; no title: one is made from the content; the author comes
    // from the feed; updated stands in for published; the inner xml:base applies.
    EXPECT_EQ(feed->items()[1], item("http://other.example/dir/two", "One two three four five six.",
                                     "http://other.example/dir/two",
                                     "<p>One two three four five six. Seven</p><br />",
                                     "Feed Author", "2024-04-03T00:00:00Z"));
    EXPECT_EQ(feed->items()[2], item("http://blog.example/home/", "No id, no link",
                                     "http://blog.example/home/", "", "Feed Author"));
    // Without an Atom title, a Media RSS title stands in (the first entry's did not).
    EXPECT_EQ(feed->items()[3].title, "Video title");
}

TEST(AtomFeeds, ArePlainlyRefusedWhileTheOptionIsOff) {
    ParseOptions off;
    EXPECT_EQ(failureOf(kAtom, off), "Not an RSS feed.");
    ParseOptions jsonOnly;
    jsonOnly.formats.json = true;
    EXPECT_EQ(failureOf(kAtom, jsonOnly), "Not an RSS feed.");
}

TEST(AtomFeeds, ElementsCountByNamespaceNotByPrefix) {
    // Atom under a prefix, and an unprefixed element of another namespace.
    const auto feed = parse(R"(<a:feed xmlns:a="http://www.w3.org/2005/Atom">
  <a:title>Prefixed</a:title>
  <a:entry><a:id>x</a:id><title xmlns="urn:other">Foreign</title><a:title>Mine</a:title></a:entry>
</a:feed>)");
    EXPECT_EQ(feed->channel().channelDisplayName, "Prefixed");
    ASSERT_EQ(feed->itemCount(), 1u);
    EXPECT_EQ(feed->items()[0].title, "Mine");
}

TEST(AtomFeeds, Atom03DocumentsReadTheirOwnNames) {
    const auto feed = parse(R"(<feed version="0.3" xmlns="http://purl.org/atom/ns#">
  <title>Old</title><tagline>Line</tagline>
  <link rel="alternate" type="text/html" href="http://old.example/"/>
  <entry><title mode="escaped" type="text/html">A &amp;lt;i&amp;gt;b</title>
    <issued>2004-01-01</issued><modified>2004-01-02</modified><id>tag:1</id></entry>
</feed>)");
    EXPECT_EQ(feed->channel().channelDescription, "Line");
    ASSERT_EQ(feed->itemCount(), 1u);
    EXPECT_EQ(feed->items()[0].title, "A <i>b");
    EXPECT_EQ(feed->items()[0].url, "tag:1");
    EXPECT_EQ(feed->items()[0].pubDateString, "2004-01-01");
}

TEST(AtomFeeds, TextAroundNestedTagsKeepsItsPlaceAndItsEscaping) {
    // Tags inside an html summary are copied as they stand; xhtml text is escaped again,
    // around tags nested two deep; a content after a summary is dropped, one before it is not.
    const auto feed = parse(R"(<feed xmlns="http://www.w3.org/2005/Atom"><entry><id>1</id>
  <title>T</title><summary type="html">a &amp;amp; <b>x</b>c<i>y<u>z</u>w</i>d</summary>
  <content>dropped</content></entry><entry><id>2</id><title>U</title>
  <content type="xhtml"><div xmlns="http://www.w3.org/1999/xhtml">1 &lt; 2 <p>3 <em>&amp;</em> 4</p> 5</div></content>
  <summary>kept</summary></entry></feed>)");
    ASSERT_EQ(feed->itemCount(), 2u);
    EXPECT_EQ(feed->items()[0].description, "a & <b>x</b>c<i>y<u>z</u>w</i>d");
    EXPECT_EQ(feed->items()[1].description, "kept");
    const auto xhtml = parse(R"(<feed xmlns="http://www.w3.org/2005/Atom"><entry><id>2</id>
  <title>U</title><content type="xhtml"><div xmlns="http://www.w3.org/1999/xhtml">1 &lt; 2 <p>3 <em>&amp;</em> 4</p> 5</div></content></entry></feed>)");
    EXPECT_EQ(xhtml->items()[0].description, "1 < 2 <p>3 <em>&</em> 4</p> 5");
}

TEST(AtomFeeds, OneParserReadsFeedAfterFeedAsIfEachWereItsFirst) {
    const std::string first = R"(<feed xmlns="http://www.w3.org/2005/Atom">
  <link href="http://first.example/"/><author><name>First</name></author>
  <entry><id>a</id><title>A</title><link href="http://first.example/a"/>
    <published>2024-01-01</published><summary>Long &amp; plain</summary></entry></feed>)";
    const std::string second = R"(<feed xmlns="http://www.w3.org/2005/Atom">
  <entry><id>b</id><summary>Second</summary></entry></feed>)";
    RssParser parser;
    const auto one = parseFeed(parser, allFormats(), first, 0);
    const auto two = parseFeed(parser, allFormats(), second, 0);
    EXPECT_EQ(one->items()[0],
              item("a", "A", "http://first.example/a", "Long & plain", "First", "2024-01-01"));
    // Nothing of the first feed (its link, author, date or fields) leaks into the second.
    EXPECT_EQ(*two, *parse(second));
    EXPECT_EQ(two->items()[0], item("b", "Second", "b", "Second"));
    EXPECT_EQ(*parseFeed(parser, allFormats(), first, 0), *one);
}

TEST(AtomFeeds, KeepTheLimitsOfRssFeeds) {
    std::string entries;
    for (int i = 0; i < 4; ++i)
        entries += "<entry><id>" + std::to_string(i) + "</id></entry>";
    const std::string text = "<feed xmlns='http://www.w3.org/2005/Atom'>" + entries + "</feed>";
    EXPECT_EQ(parse(text, allFormats(), 3)->itemCount(), 3u);
    ParseOptions limited = allFormats();
    limited.itemLimit = 2;
    EXPECT_EQ(failureOf(text, limited),
              "The feed holds more than 2 items, the limit set by MaxItemsPerFeed (L1/C117)");
    EXPECT_EQ(failureOf("<feed xmlns='http://www.w3.org/2005/Atom'></feed>"),
              "The channel returned no items.");
    EXPECT_EQ(failureOf("<feed><entry></feed>").rfind("XML parse failed (7:", 0), 0u);
}

TEST(JsonFeeds, ItemsComeFromEitherVersion) {
    const auto feed = parse(R"({"version": "https://jsonfeed.org/version/1.1",
  "title": "J\u00e9 &amp; co", "home_page_url": "https://j.example/", "description": "About",
  "authors": [{"name": "Feed Author"}],
  "items": [
    {"id": 17, "url": "https://j.example/17", "title": "Seventeen",
     "content_html": "<p>Seventeen \u4e2d</p>", "date_published": "2024-01-01T00:00:00Z",
     "authors": [{"url": "x"}, {"name": "Item Author"}]},
    {"id": "b", "content_text": "One two three four five six. Seven", "summary": "",
     "date_modified": "2024-01-02T00:00:00Z", "author": {"name": "Old Style"}},
    "not an item",
    {"external_url": "https://elsewhere.example/", "summary": "Sum", "content_html": "Full"}
  ]})");
    EXPECT_EQ(feed->channel().channelDisplayName, "J\xE9 & co");
    EXPECT_EQ(feed->channel().channelHomeUrl, "https://j.example/");
    ASSERT_EQ(feed->itemCount(), 3u);
    EXPECT_EQ(feed->items()[0], item("17", "Seventeen", "https://j.example/17",
                                     "<p>Seventeen ?</p>", "Item Author", "2024-01-01T00:00:00Z"));
    EXPECT_EQ(feed->items()[1],
              item("b", "One two three four five six.", "b", "One two three four five six. Seven",
                   "Old Style", "2024-01-02T00:00:00Z"));
    EXPECT_EQ(feed->items()[2], item("https://elsewhere.example/", "Sum",
                                     "https://elsewhere.example/", "Sum", "Feed Author"));
}

TEST(JsonFeeds, FailuresSayWhatIsWrong) {
    EXPECT_EQ(failureOf(R"({"title": "x"})"), "Not a JSON feed.");
    EXPECT_EQ(failureOf("{\"version\": 1,"),
              "JSON parse failed: parse error at line 1, column 15: syntax error while parsing "
              "object key - unexpected end of input; expected string literal");
    EXPECT_EQ(failureOf(R"({"version": "https://jsonfeed.org/version/1", "items": []})"),
              "The channel returned no items.");
    ParseOptions shallow = allFormats();
    shallow.depthLimit = 3;
    EXPECT_EQ(
        failureOf(R"({"version": "https://jsonfeed.org/version/1", "x": [[[[1]]]]})", shallow),
        "The document nests elements deeper than 3 levels");
    ParseOptions off;
    EXPECT_EQ(failureOf(R"({"version": "https://jsonfeed.org/version/1"})", off)
                  .rfind("XML parse failed (4:", 0),
              0u);
}

TEST(FeedEncodings, SingleByteEncodingsAreReadThroughIconvsTable) {
    const std::string text = "<?xml version=\"1.0\" encoding=\"windows-1252\"?>"
                             "<rss><channel><item><title>\x80 caf\xE9 \x93q\x94</title>"
                             "</item></channel></rss>";
    EXPECT_EQ(failureOf(text, ParseOptions{}), "XML parse failed (18:L1/C30): unknown encoding");
    EXPECT_EQ(parse(text)->items()[0].title, "? caf\xE9 ?q?");
    const std::string koi8 = "<?xml version='1.0' encoding='KOI8-R'?><rss><channel><item>"
                             "<title>\xC1 b</title></item></channel></rss>";
    EXPECT_EQ(parse(koi8)->items()[0].title, "? b");
    EXPECT_EQ(failureOf("<?xml version='1.0' encoding='bogus'?><rss/>"),
              "XML parse failed (18:L1/C30): unknown encoding");
}

TEST(FeedEncodings, MultiByteDocumentsAreConvertedFirst) {
    // "Nihon" in Shift_JIS, then an Atom feed in UTF-16 that calls itself "utf16".
    const std::string sjis = "<?xml version=\"1.0\" encoding=\"Shift_JIS\"?><rss><channel><item>"
                             "<title>\x93\xFA\x96\x7B caf</title></item></channel></rss>";
    EXPECT_EQ(failureOf(sjis, ParseOptions{}), "XML parse failed (18:L1/C30): unknown encoding");
    EXPECT_EQ(parse(sjis)->items()[0].title, "?? caf");
    const std::string ascii = "<?xml version='1.0' encoding='utf16'?><feed "
                              "xmlns='http://www.w3.org/2005/Atom'><entry><id>\xE9</id></entry>"
                              "</feed>";
    std::string utf16 = "\xFE\xFF";
    for (const char c : ascii)
        utf16 += std::string(1, '\0') + c;
    EXPECT_EQ(parse(utf16)->items()[0].id, "\xE9");
    EXPECT_EQ(expat::declaredEncoding(*expat::convertedToUtf8(sjis)), "UTF-8");
    EXPECT_FALSE(expat::convertedToUtf8("<?xml version='1.0' encoding='ISO-8859-1'?><a/>"));
}

TEST(FeedFormatDetection, LooksAtTheFirstCharacterAndTheRootElement) {
    EXPECT_EQ(detectFeedFormat("\xEF\xBB\xBF \n{\"version\""), FeedFormat::Json);
    EXPECT_EQ(detectFeedFormat("<?xml version='1.0'?><!-- <rss> --><!DOCTYPE feed [<!ENTITY a "
                               "'>'>]>\n<feed>"),
              FeedFormat::Atom);
    EXPECT_EQ(detectFeedFormat("<atom:feed xmlns:atom='x'/>"), FeedFormat::Atom);
    EXPECT_EQ(detectFeedFormat("<feeds/>"), FeedFormat::Xml);
    EXPECT_EQ(detectFeedFormat("<rss><feed/></rss>"), FeedFormat::Xml);
}
