// The OPML import dialog's check list and what OK subscribes to; the export reads back.
#include "trayClient/opmlImportDialog.h"

#include "app/environment.h"
#include "channels/channelManager.h"
#include "channels/rssChannel.h"
#include "tests/support/testSupport.h"
#include "tests/trayClient/support/clientTestSupport.h"

#include <QListWidget>

#include <gtest/gtest.h>

using namespace trayClient;
using testing_support::TempDir;
using testing_support::writeFile;

TEST(OpmlImportDialog, ListsEveryFeedSubscribesToTheCheckedOnesAndSaysWhyAFileIsUnread) {
    TempDir home;
    channels::ChannelManager manager(home.path().string(), {});
    auto known = std::make_unique<channels::RssChannel>(&manager, "known");
    known->config().setRssChannelUrl("http://known.example/rss");
    manager.addChannel(std::move(known));
    writeFile(home.file("list.opml"),
              "<opml><body><outline text=\"Known\" xmlUrl=\"http://known.example/rss\"/>"
              "<outline text=\"Wanted\" xmlUrl=\"http://wanted.example/rss\"/>"
              "<outline text=\"Unwanted\" xmlUrl=\"http://unwanted.example/rss\"/>"
              "<outline text=\"Ftp\" xmlUrl=\"ftp://ftp.example/rss\"/></body></opml>");
    const app::Environment environment;
    COpmlImportDialog dialog(manager, environment, QString::fromStdString(home.file("list.opml")));
    QListWidget* list = dialog.list();
    ASSERT_EQ(list->count(), 4);
    EXPECT_EQ(list->item(0)->checkState(), Qt::Unchecked);
    EXPECT_TRUE(list->item(0)->text().contains("already subscribed"));
    EXPECT_EQ(list->item(1)->checkState(), Qt::Checked);
    EXPECT_FALSE(list->item(3)->flags() & Qt::ItemIsEnabled);
    EXPECT_TRUE(list->item(3)->text().contains("not an http or https address"));

    dialog.selectAll(); // the refused one stays unchecked
    EXPECT_EQ(list->item(0)->checkState(), Qt::Checked);
    EXPECT_EQ(list->item(3)->checkState(), Qt::Unchecked);
    dialog.selectNone();
    list->item(1)->setCheckState(Qt::Checked);
    dialog.accept();

    EXPECT_EQ(dialog.summary(), "Imported 1 channel(s); skipped 0 duplicate(s).");
    std::vector<std::string> addresses;
    for (channels::Channel* channel : manager.channels())
        addresses.push_back(channel->address());
    std::sort(addresses.begin(), addresses.end());
    EXPECT_EQ(addresses,
              (std::vector<std::string>{"http://known.example/rss", "http://wanted.example/rss"}));

    const QString exported = QString::fromStdString(home.file("out.opml"));
    ASSERT_EQ(exportOpmlToFile(manager, exported), QString());
    EXPECT_EQ(app::readOpml(exported.toStdString()), app::opmlEntriesOf(manager));
    EXPECT_FALSE(
        exportOpmlToFile(manager, QString::fromStdString(home.file("no/dir/x.opml"))).isEmpty());

    // A file that can't be read says why and lists nothing.
    writeFile(home.file("bad.opml"), "<opml><body>");
    COpmlImportDialog missing(manager, environment, QString::fromStdString(home.file("none")));
    EXPECT_EQ(missing.loadError(), QString::fromStdString("Can't open file: " + home.file("none")));
    COpmlImportDialog broken(manager, environment, QString::fromStdString(home.file("bad.opml")));
    EXPECT_TRUE(broken.loadError().startsWith("XML parse failed"))
        << broken.loadError().toStdString();
    EXPECT_EQ(broken.list()->count(), 0);
}

int main(int argc, char** argv) { return client_testing::runClientTests(argc, argv); }
