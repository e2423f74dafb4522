#include "htmlStripper/htmlStripper.h"

#include <gtest/gtest.h>

using htmlStripper::decodeEntities;
using htmlStripper::stripMarkup;

TEST(HtmlStripper, EntitiesDecodeLenientlyAsPrefixesWithoutTheSemicolon) {
    EXPECT_EQ(decodeEntities("A &lt; B &AMP; C&nbsp;D &quot;q&quot; &tilde;&circ;"),
              "A < B & C D \"q\" ~^");
    EXPECT_EQ(decodeEntities("&ltb &amplifier"), "<b &lifier");
    EXPECT_EQ(decodeEntities("&copy; &#233; & &x"), "&copy; &#233; & &x");
    EXPECT_EQ(decodeEntities("tail &"), "tail &");
    EXPECT_EQ(decodeEntities("&lt;;"), "<;");
}

TEST(HtmlStripper, MarkupAndQuotedTextAreDropped) {
    EXPECT_EQ(stripMarkup("<p class=\"x>y\">Hello</p> world"), " Hello  world");
    EXPECT_EQ(stripMarkup("He said \"nothing\" here"), "He said  here");
    EXPECT_EQ(stripMarkup("don't stop 'me' now"), "donme") << "an apostrophe opens a quote";
    EXPECT_EQ(stripMarkup("a\tb &amp;lt; c"), "a b &lt; c");
}
