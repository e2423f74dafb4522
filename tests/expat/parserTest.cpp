#include "expat/parser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Records what the handlers and hooks saw.
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
};

const expat::ElementHandler Recorder::kTable[] = {
    {expat::kEndElement, static_cast<expat::Handler>(&Recorder::titleEnd), "TITLE"},
    {expat::kEndElement, static_cast<expat::Handler>(&Recorder::titleEndAgain), "title"},
    {expat::kEndElement, static_cast<expat::Handler>(&Recorder::rootEnd), "ROOT"},
    {expat::kStartElement, static_cast<expat::Handler>(&Recorder::itemStart), "Item"},
    {expat::kEndOfTable, nullptr, nullptr},
};

} // namespace

TEST(ExpatParser, HandlersMatchNamesWithoutCaseAndOnlyTheFirstRowFires) {
    Recorder parser;
    const std::string xml = "<root><item><Title>Fish &amp; chips</Title></item></root>";
    parser.parse(xml.data(), xml.size());
    EXPECT_EQ(parser.seen,
              (std::vector<std::string>{"item start", "hook Title", "title=Fish & chips in item",
                                        "hook item", "hook root", "root parent? no"}));
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

TEST(ExpatParser, TextIsKeptUntilTheNextStartTag) {
    Recorder parser;
    const std::string xml = "<root><x><title>a</title>tail</x></root>";
    parser.parse(xml.data(), xml.size());
    EXPECT_EQ(parser.seen[0], "hook title");
    // The parent's text at its end is its last child's text plus its own trailing text.
    EXPECT_EQ(parser.characterData(), "atail");
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
