// The desktop settings table used by the worker and the UI thread at once.
#include "trayClient/channelDesktopSettings.h"

#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace trayClient;
using testing_support::TempDir;

namespace {

constexpr int kRounds = 300;

std::string itemId(int round) { return "item-" + std::to_string(round); }

bool fileHasViewed(const std::string& file, const std::string& id) {
    ChannelDesktopSettings stored;
    return stored.load(file, "News") && stored.viewedItems.count(id) != 0;
}

} // namespace

// The worker stamps LastNewItemTime and saves; the UI thread marks items viewed and saves; on
// the same channel, many rounds. Each thread reads the file after its own save: a save that
// wrote an older copy of the record over a newer one would lose the other thread's change.
TEST(DesktopSettingsThreaded, SavesFromTheWorkerAndTheUiThreadKeepBothChanges) {
    TempDir dir;
    ChannelDesktopSettingsTable table(dir.path().string());
    table.loadAll({{"news", "News"}});
    const std::string file = table.fileFor("news");
    std::vector<std::string> feed;
    for (int round = 0; round < kRounds; ++round)
        feed.push_back(itemId(round));

    std::atomic<int> lostByWorker{0};
    std::atomic<int> lostByUi{0};
    std::thread worker([&] {
        for (int round = 1; round <= kRounds; ++round) {
            table.change("news", [&](ChannelDesktopSettings& s) { s.lastNewItemTime = round; });
            ASSERT_TRUE(table.save("news", feed));
            if (profile::readIniInt(file, "Desktop Settings", "LastNewItemTime", 0) < round)
                ++lostByWorker;
        }
    });
    std::thread ui([&] {
        for (int round = 0; round < kRounds; ++round) {
            table.markViewed("news", itemId(round));
            ASSERT_TRUE(table.save("news"));
            if (!fileHasViewed(file, itemId(round)))
                ++lostByUi;
        }
    });
    worker.join();
    ui.join();
    EXPECT_EQ(lostByWorker.load(), 0);
    EXPECT_EQ(lostByUi.load(), 0);

    profile::clearCache();
    ChannelDesktopSettingsTable reloaded(dir.path().string());
    ASSERT_TRUE(reloaded.loadAll({{"news", "News"}}).empty());
    const ChannelDesktopSettings stored = reloaded.get("news");
    EXPECT_EQ(stored.lastNewItemTime, kRounds);
    EXPECT_EQ(stored.viewedItems.size(), static_cast<std::size_t>(kRounds));
    EXPECT_EQ(stored, table.get("news"));
}
