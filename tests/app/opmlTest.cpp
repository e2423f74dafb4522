// OPML lists: what is read from nested outlines, what a written list reads back as, and which
// entries an import subscribes to.
#include "app/opml.h"

#include "channels/channelManager.h"
#include "channels/rssChannel.h"
#include "tests/support/testSupport.h"

#include <gmock/gmock.h>

using app::OpmlEntry;
using app::OpmlOutcome;
using testing::HasSubstr;
using testing_support::TempDir;

TEST(Opml, WrittenListsReadBackWithTheirTitlesAndAddresses) {
    const std::vector<OpmlEntry> entries = {
        {"Caf\xe9 & \"friends\" <3", "http://example.org/caf\xe9.xml?a=1&b=2", ""},
        {"Plain", "https://example.org/rss", ""}};
    const std::string text = app::writeOpml(entries);
    EXPECT_THAT(text, HasSubstr("text=\"Caf\xc3\xa9 &amp; &quot;friends&quot; &lt;3\""));
    EXPECT_EQ(app::parseOpml(text), entries);
}

TEST(Opml, NestedOutlinesAreFlattenedAndUnusableAddressesCarryTheirReason) {
    TempDir dir;
    const std::string text =
        "<opml version=\"1.0\"><body><outline text=\"Group\">"
        "<outline text=\"By text\" xmlUrl=\"http://a.example/rss\"/>"
        "<outline text=\"ignored\" title=\"By title\" xmlUrl=\"HTTPS://b.example/rss\"/>"
        "<outline text=\"No feed here\" htmlUrl=\"http://c.example/\"/></outline>"
        "<outline text=\"Ftp\" xmlUrl=\"ftp://d.example/rss\"/>"
        "<outline text=\"Device\" xmlUrl=\"/dev/null\"/></body></opml>";
    const auto entries = app::parseOpml(text);
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0], (OpmlEntry{"By text", "http://a.example/rss", ""}));
    EXPECT_EQ(entries[1], (OpmlEntry{"By title", "HTTPS://b.example/rss", ""}));
    EXPECT_EQ(entries[2].problem, "not an http or https address or an existing local file");
    EXPECT_EQ(entries[3].problem, "Not a regular file: /dev/null");
    EXPECT_THROW(app::readOpml(dir.file("none.opml"), "none.opml"), std::exception);
}

TEST(Opml, ImportSubscribesOnlyToNewUsableAddressesAndReportsEachEntry) {
    TempDir dir;
    channels::ChannelManager manager(dir.path().string(), {});
    auto known = std::make_unique<channels::RssChannel>(&manager, "known");
    known->config().setRssChannelUrl("http://known.example/rss");
    manager.addChannel(std::move(known));
    const std::vector<OpmlEntry> entries = {{"Known", "http://known.example/rss", ""},
                                            {"New", "http://new.example/rss", ""},
                                            {"New again", "http://new.example/rss", ""},
                                            {"Bad", "gopher://x", "not usable"}};
    std::vector<OpmlOutcome> outcomes;
    const auto counts =
        app::importOpmlEntries(manager, entries, [&](const OpmlEntry&, OpmlOutcome outcome) {
            outcomes.push_back(outcome);
        });
    EXPECT_EQ(outcomes,
              (std::vector<OpmlOutcome>{OpmlOutcome::AlreadySubscribed, OpmlOutcome::Added,
                                        OpmlOutcome::AlreadySubscribed, OpmlOutcome::Refused}));
    EXPECT_EQ(app::opmlImportSummary(counts),
              "Imported 1 channel(s); skipped 2 duplicate(s); refused 1 address(es).");
    ASSERT_EQ(manager.channels().size(), 2u);
    const auto exported = app::opmlEntriesOf(manager);
    EXPECT_NE(
        std::find(exported.begin(), exported.end(), OpmlEntry{"New", "http://new.example/rss", ""}),
        exported.end());
}
