#include "channels/rssParser.h"
#include "channels/exception.h"
#include "expat/exception.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>

using namespace channels;
using testing_support::readFile;
using testing_support::TempDir;

namespace {

std::unique_ptr<Feed> parse(const std::string& text, int maxItems = 0, ParseOptions options = {}) {
    RssParser parser;
    return parseFeed(parser, options, text, maxItems);
}

std::string failureOf(const std::string& text, ParseOptions options = {}) {
    try {
        parse(text, 0, options);
    } catch (const std::exception& failure) {
        return failure.what();
    }
    return "no failure";
}

FeedItem item(std::string id, std::string title, std::string url, std::string description = "") {
    FeedItem result;
    result.id = std::move(id);
    result.title = std::move(title);
    result.url = std::move(url);
    result.description = std::move(description);
    return result;
}

} // namespace

TEST(RssParser, Rss2DocumentBecomesTheWholeFeed) {
    const auto feed = parse(R"(<?xml version="1.0"?>
<rss version="2.0"><channel>
  <title>  News
 Today </title><link>http://news.example/</link>
  <description>All &amp;amp; more</description>
  <image><title>Logo title</title><link>http://img/</link><url>http://img/logo.png</url>
    <width>88abc</width><height>31</height></image>
  <copyright>(c) us</copyright><managingEditor>ed@x</managingEditor><webMaster>wm@x</webMaster>
  <pubDate>Mon, 1 Jan 2024</pubDate><lastBuildDate>Tue</lastBuildDate><generator>gen</generator>
  <item><title>First</title><link>http://news.example/1</link><guid>g1</guid>
    <description>Text one</description><source>src</source><author>me</author>
    <comments>http://c/1</comments><pubDate>Wed</pubDate><category>ignored</category></item>
  <item><title>No guid</title><link>http://news.example/2</link></item>
  <item><guid>urn:3</guid><title>Guid only</title></item>
  <item><title>Neither</title></item>
</channel></rss>)");
    Feed expected;
    FeedChannelFields& channel = expected.channel();
    channel.channelDisplayName = "News  Today";
    channel.channelDescription = "All & more";
    channel.channelHomeUrl = "http://news.example/";
    channel.channelImageUrl = "http://img/logo.png";
    channel.channelImageWidth = 88;
    channel.channelImageHeight = 31;
    channel.copyrightString = "(c) us";
    channel.editorEmailAddress = "ed@x";
    channel.webMasterEmailAddress = "wm@x";
    channel.pubDateString = "Mon, 1 Jan 2024";
    channel.lastBuildDateString = "Tue";
    channel.feedGenerator = "gen";
    FeedItem first = item("g1", "First", "http://news.example/1", "Text one");
    first.source = "src";
    first.author = "me";
    first.commentsUrl = "http://c/1";
    first.pubDateString = "Wed";
    expected.appendItem(first);
    expected.appendItem(item("http://news.example/2", "No guid", "http://news.example/2"));
    expected.appendItem(item("urn:3", "Guid only", "urn:3"));
    expected.appendItem(item("http://news.example/", "Neither", "http://news.example/"));
    EXPECT_EQ(*feed, expected);
}

TEST(RssParser, Rss1ItemsAreSiblingsOfTheChannelAndNamesIgnoreCase) {
    const auto feed = parse(R"(<RDF:RDF xmlns:RDF="r"><CHANNEL><TITLE>One</TITLE>
<LINK>http://one/</LINK></CHANNEL><Item><Title>A</Title><Link>http://one/a</Link></Item></RDF:RDF>)");
    Feed expected;
    expected.channel().channelDisplayName = "One";
    expected.channel().channelHomeUrl = "http://one/";
    expected.appendItem(item("http://one/a", "A", "http://one/a"));
    EXPECT_EQ(*feed, expected);
    // A lower-case root is accepted too; an image's title and link are not the channel's.
    const auto image = parse("<rss><channel><title>Real</title><image><title>Logo</title>"
                             "<link>http://logo/</link></image><item><guid>g</guid></item>"
                             "</channel></rss>");
    EXPECT_EQ(image->itemCount(), 1u);
    EXPECT_EQ(image->channel().channelDisplayName, "Real");
    EXPECT_EQ(image->channel().channelHomeUrl, "");
}

// Names fold as ASCII whatever the process's locale: a Turkish one folds "I" to a dotless i.
TEST(RssParser, NamesIgnoreCaseTheSameWayInATurkishLocale) {
    TempDir dir;
    const std::string command =
        "localedef -i tr_TR -f ISO-8859-9 " + dir.file("tr_TR.ISO-8859-9") + " >/dev/null 2>&1";
    ::setenv("LOCPATH", dir.path().c_str(), 1);
    const bool turkish = std::system(command.c_str()) == 0 &&
                         std::setlocale(LC_CTYPE, "tr_TR.ISO-8859-9") != nullptr;
    ::unsetenv("LOCPATH");
    if (!turkish)
        GTEST_SKIP() << "no Turkish locale can be made here";
    const auto feed = parse("<rss><channel><item><title>T</title><link>http://l/</link>"
                            "</item></channel></rss>");
    std::setlocale(LC_CTYPE, "C");
    ASSERT_EQ(feed->itemCount(), 1u);
    EXPECT_EQ(feed->item(0).title, "T");
}

TEST(RssParser, ItemLimitKeepsTheFirstItemsInDocumentOrder) {
    std::string text = "<rss><channel>";
    for (int i = 1; i <= 6; ++i)
        text += "<item><guid>" + std::to_string(i) + "</guid></item>";
    text += "</channel></rss>";
    const auto five = parse(text, 5);
    ASSERT_EQ(five->itemCount(), 5u);
    EXPECT_EQ(five->item(4).id, "5");
    EXPECT_EQ(parse(text, 0)->itemCount(), 6u);
    EXPECT_EQ(parse(text, -1)->itemCount(), 6u);
}

TEST(RssParser, TitlesAreMadeFromDescriptions) {
    EXPECT_EQ(makeTitle("One two three four five six. Seven eight.", "l"),
              "One two three four five six.");
    EXPECT_EQ(makeTitle("One. Two three.", "l"), "One. Two three.");
    EXPECT_EQ(makeTitle("a b c d e f: g", "l"), "a b c d e f");
    std::string thirty;
    for (int i = 1; i <= 30; ++i)
        thirty += "w" + std::to_string(i) + " ";
    // The blank before the 21st word was copied when " ..." is added.
    EXPECT_EQ(makeTitle(thirty, "l"), "w1 w2 w3 w4 w5 w6 w7 w8 w9 w10 w11 w12 w13 w14 w15 w16 w17 "
                                      "w18 w19 w20  ...");
    // Control characters become blanks; Latin-1's accented letters and signs are kept.
    EXPECT_EQ(makeTitle("na\xEF"
                        "ve\tcaf\xE9 \xAB"
                        "bon\xBB\x85!",
                        "l"),
              "na\xEF"
              "ve caf\xE9 \xAB"
              "bon\xBB !");
    EXPECT_EQ(makeTitle("<img src=\"x\">", "http://link"), "http://link");
    const auto feed = parse("<rss><channel><item><link>http://l/</link><description>"
                            "&lt;b&gt;Bold&lt;/b&gt; news</description></item></channel></rss>");
    EXPECT_EQ(feed->item(0).title, "Bold  news");
    EXPECT_EQ(feed->item(0).description, "<b>Bold</b> news");
}

TEST(RssParser, LeadingBinaryBytesAreSkippedOnTheRetryWhenAllowed) {
    const std::string text =
        "\xFF\xFE\x80<rss><channel><item><guid>g</guid></item></channel></rss>";
    EXPECT_EQ(parse(text)->itemCount(), 1u);
    ParseOptions strict;
    strict.skipLeadingBinaryData = false;
    EXPECT_EQ(failureOf(text, strict).rfind("XML parse failed (", 0), 0u)
        << failureOf(text, strict);
    // A UTF-8 byte-order mark is accepted on the first attempt.
    EXPECT_EQ(
        parse("\xEF\xBB\xBF<rss><channel><item><guid>g</guid></item></channel></rss>", 0, strict)
            ->itemCount(),
        1u);
}

TEST(RssParser, FailuresCarryTheirMessages) {
    EXPECT_EQ(failureOf(""), "Empty RSS feed.");
    EXPECT_EQ(failureOf("<feed><entry/></feed>"), "Not an RSS feed.");
    EXPECT_EQ(failureOf("<html><rss><channel><item><guid>g</guid></item></channel></rss></html>"),
              "Not an RSS feed.");
    EXPECT_EQ(failureOf("<rss><channel><title>x</title></channel></rss>"),
              "The channel returned no items.");
    ParseOptions allowEmpty;
    allowEmpty.allowEmptyFeeds = true;
    EXPECT_EQ(parse("<rss><channel/></rss>", 0, allowEmpty)->itemCount(), 0u);
    EXPECT_EQ(
        failureOf("<rss><channel><item></channel></rss>").rfind("XML parse failed (7:L1/C", 0), 0u);
}

TEST(RssParser, ParseLogTracesElementsAndAttributes) {
    TempDir dir;
    ParseOptions options;
    options.logChannelProcessing = true;
    options.parseLogPath = dir.file("news.parse");
    parse("<rss version=\"2.0\"><channel><item><guid>g</guid></item></channel></rss>", 0, options);
    const std::string log = readFile(options.parseLogPath);
    EXPECT_EQ(log.rfind("START ELEMENT: rss\n- version = '2.0'\nSTART ELEMENT: channel\n"
                        "Starting a new channel.\nSTART ELEMENT: item\nStarting a new item.\n",
                        0),
              0u)
        << log;
    EXPECT_NE(log.find("END ELEMENT: item\nSaving the new item.\n"), std::string::npos) << log;
}

TEST(RssParser, LargeAndHostileDocumentsEndInBoundedTime) {
    std::string many = "<rss><channel>";
    for (int i = 0; i < 20000; ++i)
        many += "<item><guid>" + std::to_string(i) + "</guid><title>t</title></item>";
    many += "</channel></rss>";
    EXPECT_EQ(parse(many)->itemCount(), 20000u);
    std::string deep = "<rss>";
    for (int i = 0; i < 100000; ++i)
        deep += "<a>";
    ParseOptions unlimited;
    unlimited.depthLimit = 0;
    EXPECT_EQ(failureOf(deep, unlimited).rfind("XML parse failed (", 0), 0u);
    std::string garbage;
    for (int i = 0; i < 100000; ++i)
        garbage += static_cast<char>((i * 7919) % 256);
    EXPECT_NE(failureOf(garbage), "no failure");
}

TEST(RssParser, FeedsBeyondTheItemAndNestingLimitsAreRefusedWithTheirMessages) {
    const auto feedOf = [](int items, int depth) {
        std::string text = "<rss><channel><link>http://x/</link>";
        for (int i = 0; i < items; ++i)
            text += "<item><title>x</title></item>";
        text += "<item>" + std::string(5 * static_cast<std::size_t>(depth), ' ');
        for (int i = 0; i < depth; ++i)
            text += "<b>";
        for (int i = 0; i < depth; ++i)
            text += "</b>";
        return text + "</item></channel></rss>";
    };
    ParseOptions limits;
    limits.itemLimit = 3;
    limits.depthLimit = 10;
    // At the limits: three items in all, elements open at most ten deep (rss/channel/item/b...).
    EXPECT_EQ(parse(feedOf(2, 7), 0, limits)->itemCount(), 3u);
    EXPECT_EQ(failureOf(feedOf(3, 0), limits),
              "The feed holds more than 3 items, the limit set by MaxItemsPerFeed (L1/C136)");
    EXPECT_EQ(failureOf(feedOf(0, 8), limits)
                  .rfind("The document nests elements deeper than 10 "
                         "levels (L1/C",
                         0),
              0u);
    // The per-channel item limit keeps the first items; the cap still counts every item.
    EXPECT_NE(failureOf(feedOf(5, 0), limits), "no failure");
    limits.itemLimit = 0;
    limits.depthLimit = 0;
    EXPECT_EQ(parse(feedOf(5, 50), 0, limits)->itemCount(), 6u);
}

TEST(RssParser, CleanUpTrimsBeforeDecodingOneLevelAndBlanksEveryLineBreak) {
    // An encoded blank at either end survives the trim; line breaks inside entity names stop
    // them matching, whichever order the steps run in.
    EXPECT_EQ(cleanFeedText(" \t&nbsp;A\r\n&amp;B&nbsp; \n"), " A  &B ");
    EXPECT_EQ(cleanFeedText("&l\nt; &\r\nbsp"), "&l t; &  bsp");
    const std::string xs(100, 'x');
    const std::string ys(100, 'y');
    EXPECT_EQ(cleanFeedText(xs + "&lt;" + ys + "\n&amp"), xs + "<" + ys + " &");
    EXPECT_EQ(cleanFeedText("  line one\r\nline two  "), "line one  line two");
    // A carriage return can only come from a character reference; one level of entities is
    // decoded, leniently.
    const auto feed = parse("<rss><channel><item><guid>g</guid><title>A&#13;B&#10;C</title>"
                            "</item><item><guid>h</guid><title>A &amp;lt; B &amp;copy; "
                            "C &amp;amplifier</title></item></channel></rss>");
    EXPECT_EQ(feed->item(0).title, "A B C");
    EXPECT_EQ(feed->item(1).title, "A < B &copy; C &lifier");
}

TEST(RssParser, OneParserReadsFeedsInTurnWithoutCarryingFieldsOver) {
    RssParser parser;
    const std::string first = "<rss><channel><title>First</title><link>http://first/</link>"
                              "<item><guid>1</guid><title>One</title><author>a</author>"
                              "<comments>c</comments><source>s</source><description>Long "
                              "text</description></item><item/>"
                              "</channel></rss>";
    const auto one = parseFeed(parser, {}, first, 0);
    // The second item takes nothing from the first, and the channel's link as its own.
    EXPECT_EQ(one->item(1), item("http://first/", "http://first/", "http://first/"));
    EXPECT_THROW(parseFeed(parser, {}, "<rss><channel><item><title>x</title>", 0),
                 expat::Exception);
    ParseOptions limits;
    limits.itemLimit = 1;
    EXPECT_THROW(parseFeed(parser, limits, first, 0), expat::Exception);
    // Neither a channel link nor the failed parses' fields may leak into the next feed.
    const std::string second = "<rss><item><description>Only text</description></item></rss>";
    const auto two = parseFeed(parser, {}, second, 0);
    EXPECT_EQ(*two, *parse(second));
    EXPECT_EQ(two->item(0), item("", "Only text", "", "Only text"));
    EXPECT_EQ(two->channel(), FeedChannelFields{});
    EXPECT_EQ(*parseFeed(parser, {}, first, 0), *one);
}
