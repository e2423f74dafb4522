// Feed links found in the head sections of pages as sites write them.
#include "app/feedDiscovery.h"

#include <gtest/gtest.h>

using app::discoverFeedLinks;
using app::FeedLink;
using app::resolveAddress;

TEST(FeedDiscovery, ABlogHeadOffersItsRssAndAtomFeedsResolvedAgainstThePage) {
    const std::string head = R"(<!DOCTYPE html>
<html lang="en"><head>
<meta charset="utf-8">
<title>Notes from the shed</title>
<link rel="stylesheet" href="/style.css" type="text/css">
<link rel="alternate" type="application/rss+xml" title="Posts &amp; replies" href="/feed.xml">
<link href="atom.xml" title='Atom' type='application/atom+xml' rel='alternate'>
<link rel="alternate" hreflang="fr" href="/fr/">
</head><body><a href="/feed.xml">feed</a></body></html>)";
    const std::vector<FeedLink> expected = {
        {"https://shed.example/feed.xml", "Posts & replies", "application/rss+xml"},
        {"https://shed.example/blog/atom.xml", "Atom", "application/atom+xml"}};
    EXPECT_EQ(discoverFeedLinks(head, "https://shed.example/blog/index.html"), expected);
}

TEST(FeedDiscovery, OddMarkupStillGivesTheLinks) {
    // Upper case, unquoted values, several rel words, a charset on the type, self-closing
    // tags, new lines inside the tag and a numeric reference.
    const std::string head = "<HEAD><LINK REL=\"Alternate Home\" TYPE=APPLICATION/RSS+XML "
                             "HREF=http://news.example/rss?a=1&amp;b=2 TITLE=News/>\n"
                             "<link\n rel=alternate\n type=\"application/rss+xml; charset=utf-8\"\n"
                             " title=\"Caf&#233; &#x26; more\"\n href=\"//cdn.example/cafe.rss\" />"
                             "<link rel=\"feed alternate\" type=\"application/feed+json\" "
                             "href=\"feed.json\"></head>";
    const auto links = discoverFeedLinks(head, "http://news.example/a/b");
    ASSERT_EQ(links.size(), 3u);
    EXPECT_EQ(links[0],
              (FeedLink{"http://news.example/rss?a=1&b=2", "News/", "application/rss+xml"}));
    EXPECT_EQ(links[1].address, "http://cdn.example/cafe.rss");
    EXPECT_EQ(links[1].title, "Caf\xe9 & more");
    EXPECT_EQ(links[2].address, "http://news.example/a/feed.json");
}

TEST(FeedDiscovery, BaseHrefGovernsRelativeLinksAndRepeatsAreDropped) {
    const std::string head = "<head><base href=\"/static/v2/\">"
                             "<link rel=alternate type=application/rss+xml href=\"../rss.xml\">"
                             "<link rel=alternate type=application/rss+xml "
                             "href=\"http://site.example/static/rss.xml\" title=\"again\">"
                             "<link rel=alternate type=application/atom+xml href=\"atom\"></head>";
    const auto links = discoverFeedLinks(head, "http://site.example/page?x=1");
    ASSERT_EQ(links.size(), 2u);
    EXPECT_EQ(links[0].address, "http://site.example/static/rss.xml");
    EXPECT_EQ(links[0].title, "");
    EXPECT_EQ(links[1].address, "http://site.example/static/v2/atom");
}

TEST(FeedDiscovery, NothingIsFoundInCommentsScriptsOrPagesWithoutFeeds) {
    EXPECT_TRUE(
        discoverFeedLinks("<html><head><title>x</title></head></html>", "http://a/").empty());
    EXPECT_TRUE(discoverFeedLinks("", "http://a/").empty());
    const std::string hidden =
        "<!-- <link rel=alternate type=application/rss+xml href=/old.xml> -->"
        "<script>var s = '<link rel=alternate type=application/rss+xml href=/js.xml>';</script>"
        "<link rel=alternate type=application/rss+xml>" // no address
        "<link rel=alternate type=text/html href=/mobile>"
        "<link rel=\"alternate\" type=\"application/rss+xml\" href=\"/real.xml\"";
    const auto links = discoverFeedLinks(hidden, "http://a.example/");
    ASSERT_EQ(links.size(), 1u); // the unfinished last tag still counts
    EXPECT_EQ(links[0].address, "http://a.example/real.xml");
}

TEST(FeedDiscovery, ReferencesResolveAsBrowsersResolveThem) {
    const std::string base = "http://h.example/a/b/c?q#f";
    EXPECT_EQ(resolveAddress(base, "d"), "http://h.example/a/b/d");
    EXPECT_EQ(resolveAddress(base, "./d/"), "http://h.example/a/b/d/");
    EXPECT_EQ(resolveAddress(base, "../../../../d"), "http://h.example/d");
    EXPECT_EQ(resolveAddress(base, "/d?x=1"), "http://h.example/d?x=1");
    EXPECT_EQ(resolveAddress(base, "?y"), "http://h.example/a/b/c?y");
    EXPECT_EQ(resolveAddress(base, "//other.example/x"), "http://other.example/x");
    EXPECT_EQ(resolveAddress(base, "HTTPS://x.example/"), "HTTPS://x.example/");
    EXPECT_EQ(resolveAddress("http://h.example", "feed"), "http://h.example/feed");
    EXPECT_EQ(resolveAddress("http://h.example:8080/x/", ".."), "http://h.example:8080/");
    // A page read from a local file offers files beside it.
    EXPECT_EQ(resolveAddress("/home/u/pages/site.html", "../feeds/a.xml"), "/home/u/feeds/a.xml");
    EXPECT_EQ(resolveAddress("file:///home/u/site.html", "a.xml"), "file:///home/u/a.xml");
}

TEST(FeedDiscovery, HtmlIsToldFromFeeds) {
    EXPECT_TRUE(app::looksLikeHtml("\xef\xbb\xbf\n<!DOCTYPE HTML><html>"));
    EXPECT_TRUE(app::looksLikeHtml("<?xml version=\"1.0\"?>\n<!-- x --><html xmlns=\"x\">"));
    EXPECT_FALSE(app::looksLikeHtml("<?xml version=\"1.0\"?><rss version=\"2.0\"><channel>"));
    EXPECT_FALSE(app::looksLikeHtml(""));
}
