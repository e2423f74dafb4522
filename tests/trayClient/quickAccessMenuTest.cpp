// The tray's quick-access menu: which channels it lists and how, the look of viewed and
// unviewed items, what choosing an item does, and the commands at its end.
#include "trayClient/quickAccessMenu.h"

#include "channels/channelManager.h"
#include "channels/feed.h"
#include "channels/rssChannel.h"
#include "tests/support/testSupport.h"
#include "tests/trayClient/support/clientTestSupport.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/notificationPresenter.h"

#include <QAction>

#include <gtest/gtest.h>

using namespace trayClient;

namespace {

QStringList texts(const QMenu& menu) {
    QStringList result;
    for (const QAction* action : menu.actions())
        result << (action->isSeparator() && action->text().isEmpty() ? QString("---")
                                                                     : action->text());
    return result;
}

QAction* find(const QMenu& menu, const QString& text) {
    for (QAction* action : menu.actions())
        if (action->text() == text)
            return action;
    return nullptr;
}

const QStringList kCommands{"Open Pelsu", "Update All Channels", "Global Options\u2026", "---",
                            "Exit"};

class QuickAccessMenuTest : public ::testing::Test {
protected:
    // A channel whose feed holds the items given as {id, title}.
    void addChannel(const std::string& id, const std::string& name,
                    const std::vector<std::pair<std::string, std::string>>& items, bool inMenu,
                    bool subMenus = true) {
        auto channel = std::make_unique<channels::RssChannel>(&manager, id);
        auto feed = std::make_unique<channels::Feed>();
        feed->channel().channelDisplayName = name;
        for (const auto& [itemId, title] : items) {
            channels::FeedItem item;
            item.id = itemId;
            item.title = title;
            item.url = "http://example.com/" + itemId;
            feed->appendItem(item);
        }
        channel->state().replaceFeed(std::move(feed));
        manager.addChannel(std::move(channel));
        settings.change(id, [&](ChannelDesktopSettings& record) {
            record.useQuickAccessMenu = inMenu;
            record.useQuickAccessSubMenus = subMenus;
        });
    }

    testing_support::TempDir dir;
    channels::ChannelManager manager{dir.path().string(), {}};
    ChannelDesktopSettingsTable settings{dir.path().string()};
    CNotificationActions actions{settings, nullptr};
    client_testing::UrlCatcher browser;
};

} // namespace

TEST_F(QuickAccessMenuTest, ListsOnlyChannelsThatAskForItInSubMenusOrInline) {
    addChannel("a-news", "News", {{"n1", "First"}, {"n2", "Second"}}, true);
    addChannel("b-hidden", "Hidden", {{"h1", "Secret"}}, false);
    addChannel("c-blog", "Blog & Co", {{"b1", "Post"}}, true, false);
    addChannel("d-empty", "Empty", {}, true);
    settings.markViewed("a-news", "n2");
    CQuickAccessMenu menu(manager, settings, actions);

    QStringList expected{"News (1)", "Blog && Co", "Post", "Empty", "---"};
    expected += kCommands;
    EXPECT_EQ(texts(menu), expected);
    EXPECT_TRUE(menu.actions()[1]->isSeparator()); // the inline channel's section header

    const QMenu* news = find(menu, "News (1)")->menu();
    ASSERT_NE(news, nullptr);
    EXPECT_TRUE(find(menu, "News (1)")->font().bold());
    EXPECT_EQ(texts(*news), (QStringList{"First", "Second"}));
    EXPECT_TRUE(news->actions()[0]->font().bold());
    EXPECT_FALSE(news->actions()[0]->font().italic());
    EXPECT_TRUE(news->actions()[1]->font().italic());
    EXPECT_FALSE(news->actions()[1]->font().bold());
    const QMenu* empty = find(menu, "Empty")->menu();
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(texts(*empty), QStringList{"(no items)"});
    EXPECT_FALSE(empty->actions()[0]->isEnabled());
}

TEST_F(QuickAccessMenuTest, ShowsTheLatestFifteenItemsWithLongTitlesCut) {
    std::vector<std::pair<std::string, std::string>> items;
    for (int index = 0; index < 20; ++index)
        items.emplace_back("i" + std::to_string(index), "Item " + std::to_string(index));
    items[0].second = std::string(300, 'x') + "\tend";
    addChannel("news", "News", items, true, false);
    CQuickAccessMenu menu(manager, settings, actions);

    // The header, fifteen items, the separator and the commands.
    ASSERT_EQ(menu.actions().size(), 1 + 15 + 1 + kCommands.size());
    const QString first = menu.actions()[1]->text();
    EXPECT_LT(first.size(), 150);
    EXPECT_TRUE(first.endsWith(QString(u'\u2026')));
    EXPECT_EQ(menu.actions()[15]->text(), "Item 14");
}

TEST_F(QuickAccessMenuTest, ChoosingAnItemOpensItsLinkAndMarksItViewedOnDisk) {
    addChannel("news", "News", {{"n1", "First"}, {"n2", "Second"}}, true);
    CQuickAccessMenu menu(manager, settings, actions);
    QStringList opened;
    QObject::connect(&menu, &CQuickAccessMenu::itemOpened,
                     [&](const QString& channelId) { opened << channelId; });
    const QMenu* news = find(menu, "News (2)")->menu();
    ASSERT_NE(news, nullptr);
    news->actions()[1]->trigger();

    EXPECT_EQ(browser.urls, QStringList{"http://example.com/n2"});
    EXPECT_EQ(opened, QStringList{"news"});
    // Saved at once: a table read from the files knows it.
    ChannelDesktopSettingsTable reread(dir.path().string());
    reread.loadAll({{"news", "News"}});
    EXPECT_TRUE(reread.hasViewed("news", "n2"));

    // The menu is built again when it is about to show.
    emit menu.aboutToShow();
    news = find(menu, "News (1)")->menu();
    ASSERT_NE(news, nullptr);
    EXPECT_TRUE(news->actions()[1]->font().italic());
}

TEST_F(QuickAccessMenuTest, CommandsReachTheClient) {
    addChannel("news", "News", {}, false);
    CQuickAccessMenu menu(manager, settings, actions);
    EXPECT_EQ(texts(menu), kCommands);
    QStringList requested;
    QObject::connect(&menu, &CQuickAccessMenu::openMainWindowRequested,
                     [&] { requested << "open"; });
    QObject::connect(&menu, &CQuickAccessMenu::globalOptionsRequested,
                     [&] { requested << "options"; });
    QObject::connect(&menu, &CQuickAccessMenu::exitRequested, [&] { requested << "exit"; });
    for (const char* command : {"Open Pelsu", "Global Options\u2026", "Exit"})
        find(menu, QString::fromUtf8(command))->trigger();
    EXPECT_EQ(requested, (QStringList{"open", "options", "exit"}));
}

int main(int argc, char** argv) { return client_testing::runClientTests(argc, argv); }
