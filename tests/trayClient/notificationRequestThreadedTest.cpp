// The notification queue fed by several threads while the UI thread takes requests.
#include "trayClient/notificationRequest.h"

#include "tests/support/testSupport.h"
#include "trayClient/channelDesktopSettings.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

using namespace trayClient;
using testing_support::TempDir;

// Producers queue new items of a plain, a consolidating and an animating channel, and errors;
// the consumer takes requests meanwhile. Every item and every error comes out exactly once.
TEST(NotificationQueueThreaded, ItemsQueuedFromManyThreadsComeOutOnceEach) {
    TempDir dir;
    ChannelDesktopSettingsTable settings(dir.path().string());
    settings.change("merge", [](ChannelDesktopSettings& s) { s.consolidateMultipleItems = true; });
    settings.change("jump", [](ChannelDesktopSettings& s) { s.animateOnNewItem = true; });
    NotificationRequestQueue queue(settings, -1);

    constexpr int kProducers = 3;
    constexpr int kItems = 200;
    const char* const channels[] = {"plain", "merge", "jump"};
    std::atomic<int> running{kProducers};
    std::vector<std::thread> producers;
    for (int producer = 0; producer < kProducers; ++producer)
        producers.emplace_back([&, producer] {
            for (int n = 0; n < kItems; ++n) {
                const std::string channel = channels[n % 3];
                const std::string id = std::to_string(producer) + "-" + std::to_string(n);
                queue.queue(std::make_unique<NewFeedItemNotificationRequest>(
                    channel, channel, NewFeedItem{id, id, "", 0}));
                if (n % 50 == 0)
                    queue.queue(std::make_unique<ErrorNotificationRequest>("Plugin P", id));
            }
            --running;
        });

    std::multiset<std::string> items;
    int errors = 0;
    for (;;) {
        const bool finished = running.load() == 0;
        auto request = queue.processNext();
        if (!request) {
            if (finished)
                break;
            std::this_thread::yield();
            continue;
        }
        if (request->kind() == NotificationRequest::Kind::Error) {
            ++errors;
            continue;
        }
        if (request->kind() == NotificationRequest::Kind::NewFeedItem) {
            const auto& single = static_cast<NewFeedItemNotificationRequest&>(*request);
            items.insert(single.channelId() + " " + single.item().id);
        } else {
            const auto& batch = static_cast<ConsolidatedNewFeedItemsNotificationRequest&>(*request);
            EXPECT_EQ(batch.channelId(), "merge");
            for (const NewFeedItem& item : batch.items())
                items.insert("merge " + item.id);
        }
    }
    for (std::thread& producer : producers)
        producer.join();
    EXPECT_EQ(errors, kProducers * (kItems / 50));
    ASSERT_EQ(items.size(), static_cast<std::size_t>(kProducers * kItems));
    for (int producer = 0; producer < kProducers; ++producer)
        for (int n = 0; n < kItems; ++n)
            EXPECT_EQ(items.count(std::string(channels[n % 3]) + " " + std::to_string(producer) +
                                  "-" + std::to_string(n)),
                      1u);
}
