#include "expat/parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

// Records what the handlers and hooks saw. Its rows include names of one length, and names
// longer than the indexed lengths, in both events.
class Recorder : public expat::Parser {
public:
    Recorder() : expat::Parser(kTable) {}
    std::vector<std::string> seen;

protected:
    void onEndElement(const char* name) override { seen.push_back(std::string("hook ") + name); }

private:
    static const expat::ElementHandler kTable[];
    void titleEnd() {
        seen.push_back("title=" + characterData() + (isParent("ITEM") ? " in item" : ""));
    }
    void titleEndAgain() { seen.push_back("second row"); }
    void rootEnd() {
        seen.push_back(std::string("root parent? ") + (isParent("X") ? "yes" : "no"));
    }
    void itemStart() { seen.push_back("item start"); }
    void guidEnd() { seen.push_back("guid " + characterData()); }
    void linkEnd() { seen.push_back("link " + characterData()); }
    void linkStart() { seen.push_back("link start"); }
    void longEnd() { seen.push_back("long " + characterData()); }
    void longerEnd() { seen.push_back("longer " + characterData()); }
};

const expat::ElementHandler Recorder::kTable[] = {
    {expat::kEndElement, static_cast<expat::Handler>(&Recorder::titleEnd), "TITLE"},
    {expat::kEndElement, static_cast<expat::Handler>(&Recorder::titleEndAgain), "title"},
    {expat::kEndElement, static_cast<expat::Handler>(&Recorder::rootEnd), "ROOT"},
    {expat::kStartElement, static_cast<expat::Handler>(&Recorder::itemStart), "Item"},
    {expat::kEndElement, static_cast<expat::Handler>(&Recorder::guidEnd), "GUID"},
    {expat::kEndElement, static_cast<expat::Handler>(&Recorder::linkEnd), "LINK"},
    {expat::kStartElement, static_cast<expat::Handler>(&Recorder::linkStart), "link"},
    {expat::kEndElement, static_cast<expat::Handler>(&Recorder::longEnd),
     "an-element-whose-name-is-longer-than-most-1"},
    {expat::kEndElement, static_cast<expat::Handler>(&Recorder::longerEnd),
     "an-element-whose-name-is-longer-than-most-12"},
    {expat::kEndOfTable, nullptr, nullptr},
};

} // namespace

TEST(ExpatParser, HandlersMatchNamesWithoutCaseAndOnlyTheFirstRowFires) {
    Recorder parser;
    const std::string xml = "<root><item><Title>Fish &amp; chips</Title></item><Guid>g</Guid>"
                            "<link>l</link><an-element-whose-name-is-longer-than-most-12>b"
                            "</an-element-whose-name-is-longer-than-most-12>"
                            "<AN-ELEMENT-WHOSE-NAME-IS-LONGER-THAN-MOST-1>a"
                            "</AN-ELEMENT-WHOSE-NAME-IS-LONGER-THAN-MOST-1></root>";
    parser.parse(xml.data(), xml.size());
    EXPECT_EQ(parser.seen, (std::vector<std::string>{
                               "item start", "hook Title", "title=Fish & chips in item",
                               "hook item", "hook Guid", "guid g", "link start", "hook link",
                               "link l", "hook an-element-whose-name-is-longer-than-most-12",
                               "longer b", "hook AN-ELEMENT-WHOSE-NAME-IS-LONGER-THAN-MOST-1",
                               "long a", "hook root", "root parent? no"}));
}

TEST(ExpatParser, TextIsLatin1WithAQuestionMarkPerUtf16Unit) {
    Recorder parser;
    const std::string xml = "<root><title>caf\xC3\xA9 \xE4\xB8\xAD \xF0\x9F\x98\x80</title></root>";
    parser.parse(xml.data(), xml.size());
    EXPECT_EQ(parser.seen[1], "title=caf\xE9 ? ??");
    std::string out;
    expat::appendUtf8AsLatin1(out, "\xC2\xA0\xC3\xBF\xC4\x80", 6);
    EXPECT_EQ(out, "\xA0\xFF?");
}

TEST(ExpatParser, FailuresCarryCodeLineAndColumnAfterEarlierHandlersRan) {
    Recorder parser;
    const std::string xml = "<root>\n<title>ok</title>\n  <a></b></root>";
    try {
        parser.parse(xml.data(), xml.size());
        FAIL() << "expected a parse failure";
    } catch (const expat::Exception& failure) {
        EXPECT_STREQ(failure.what(), "XML parse failed (7:L3/C7): mismatched tag");
    }
    EXPECT_EQ(parser.seen[1], "title=ok");
    const std::string undeclared = "<root>&nbsp;</root>";
    EXPECT_THROW(parser.parse(undeclared.data(), undeclared.size()), expat::Exception);
}

TEST(ExpatParser, EntityExpansionAttacksAreRefused) {
    std::string xml = "<?xml version=\"1.0\"?><!DOCTYPE lolz [<!ENTITY lol \"lol\">";
    std::string previous = "lol";
    for (int i = 1; i <= 9; ++i) {
        xml += "<!ENTITY lol" + std::to_string(i) + " \"";
        for (int k = 0; k < 10; ++k)
            xml += "&" + previous + ";";
        xml += "\">";
        previous = "lol" + std::to_string(i);
    }
    xml += "]><root>&lol9;</root>";
    Recorder parser;
    EXPECT_THROW(parser.parse(xml.data(), xml.size()), expat::Exception);
}

TEST(ExpatParser, Latin1ConversionFindsOtherCharactersAnywhereInLongText) {
    // The scan tests whole blocks of ASCII at once: a character beyond ASCII must be found at
    // every place in and across the blocks, and runs of them must convert in turn.
    for (std::size_t at = 0; at <= 140; ++at) {
        std::string utf8(140, 'a');
        std::string expected = "x" + utf8;
        utf8.insert(at, "\xC3\xA9");
        expected.insert(at + 1, "\xE9");
        utf8 += "\xF0\x9F\x98\x80\xC3\xBF\xE4\xB8\xAD" + std::string(at, 'b');
        expected += "??\xFF?" + std::string(at, 'b');
        std::string out = "x";
        expat::appendUtf8AsLatin1(out, utf8.data(), utf8.size());
        ASSERT_EQ(out, expected) << "at " << at;
    }
}

TEST(ExpatParser, Latin1ConversionOfCutSequencesStaysWithinTheirBytes) {
    // What expat would never hand over still converts to no more bytes than it takes.
    const std::string whole = "ok \xF0\x9F\x98\x80\xE4\xB8\xAD\xC3\xA9\x80\xBF";
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        std::string out;
        expat::appendUtf8AsLatin1(out, whole.data(), length);
        EXPECT_LE(out.size(), length);
        EXPECT_EQ(out.substr(0, 3), whole.substr(0, std::min<std::size_t>(length, 3)));
    }
}

namespace {

// Moves the text of each LEAF into its field; PARENT and ROOT read the text at their end, which
// is the text since the last start tag: the last child's text and the parent's own after it.
class Mover : public expat::Parser {
public:
    Mover() : expat::Parser(kTable) {}
    std::string field;
    std::vector<std::string> seen;

private:
    static const expat::ElementHandler kTable[];
    void leafEnd() { moveCharacterDataInto(field); }
    void parentEnd() { seen.push_back(characterData() + "|" + field); }
};

const expat::ElementHandler Mover::kTable[] = {
    {expat::kEndElement, static_cast<expat::Handler>(&Mover::leafEnd), "LEAF"},
    {expat::kEndElement, static_cast<expat::Handler>(&Mover::leafEnd), "GROUP"},
    {expat::kEndElement, static_cast<expat::Handler>(&Mover::parentEnd), "PARENT"},
    {expat::kEndElement, static_cast<expat::Handler>(&Mover::parentEnd), "ROOT"},
    {expat::kEndOfTable, nullptr, nullptr},
};

} // namespace

// Records, at every start tag, the text that came before it.
class TextBeforeTags : public expat::Parser {
public:
    std::vector<std::string> seen;

protected:
    void onStartElement(const char* name, const char**) override {
        seen.push_back(characterData() + "<" + name);
    }
};

TEST(ExpatParser, TheStartHookStillReadsTheTextBeforeTheTag) {
    TextBeforeTags parser;
    const std::string xml = "<root>a&amp;b<x>c</x>d<y/>caf\xC3\xA9<z/></root>";
    parser.parse(xml.data(), xml.size());
    EXPECT_EQ(parser.seen, (std::vector<std::string>{"<root", "a&b<x", "cd<y", "caf\xE9<z"}));
}

TEST(ExpatParser, MovedTextStillReadsAsTheTextSinceTheLastStartTag) {
    Mover parser;
    const std::string xml = "<root><parent><leaf>abc</leaf>tail</parent><leaf>x</leaf>"
                            "<parent/><group><leaf>ab</leaf>cd</group>ef</root>";
    parser.parse(xml.data(), xml.size());
    EXPECT_EQ(parser.seen, (std::vector<std::string>{"abctail|abc", "|x", "abcdef|abcd"}));
    // A second document starts from nothing moved.
    const std::string next = "<root>z</root>";
    parser.parse(next.data(), next.size());
    EXPECT_EQ(parser.seen.back(), "z|abcd");
}
