// Saving a channel's feed as the item count grows from 100 to 100,000: the first save into a
// file without items, and the second save of a changed feed over the items of the first. The
// "per_item" counter is the time per item; flat means the save is linear.

#include "channels/feed.h"
#include "lib/misc/profileFile.h"

#include <benchmark/benchmark.h>

#include <filesystem>

namespace {

channels::Feed makeFeed(std::int64_t items, int edition) {
    channels::Feed feed;
    feed.setFeedTime(1700000000 + edition);
    feed.channel().channelDisplayName = "Example News";
    for (std::int64_t i = 0; i < items; ++i) {
        channels::FeedItem item;
        // Each edition drops the oldest tenth of the items and brings as many new ones.
        const std::int64_t number = i + edition * (items / 10);
        item.id = "http://news.example/story/" + std::to_string(number);
        item.url = item.id;
        item.title = "Story number " + std::to_string(number);
        item.description = std::string(200, 'd');
        item.pubDateString = "Mon, 23 Nov 2026 08:00:00 GMT";
        feed.appendItem(std::move(item));
    }
    return feed;
}

std::string scratch() {
    return (std::filesystem::temp_directory_path() / "pelsu-bench-save.rss").string();
}

void save(const channels::Feed& feed, const std::string& file) {
    profile::WriteBatch batch(file);
    profile::writeValue(file, "State", "LastFetchTime", "1700000000");
    feed.save(file, "Last Feed");
    batch.commit();
}

void setPerItem(benchmark::State& state) {
    state.counters["per_item"] = benchmark::Counter(static_cast<double>(state.range(0)),
                                                    benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
}

void BM_FirstSave(benchmark::State& state) {
    const channels::Feed feed = makeFeed(state.range(0), 0);
    const std::string file = scratch();
    for (auto _ : state) {
        state.PauseTiming();
        std::filesystem::remove(file);
        profile::clearCache();
        state.ResumeTiming();
        save(feed, file);
    }
    setPerItem(state);
    std::filesystem::remove(file);
}
BENCHMARK(BM_FirstSave)->RangeMultiplier(10)->Range(100, 100000)->Unit(benchmark::kMillisecond);

void BM_SecondSave(benchmark::State& state) {
    const channels::Feed first = makeFeed(state.range(0), 0);
    const channels::Feed second = makeFeed(state.range(0), 1);
    const std::string file = scratch();
    for (auto _ : state) {
        state.PauseTiming();
        std::filesystem::remove(file);
        profile::clearCache();
        save(first, file);
        state.ResumeTiming();
        save(second, file);
    }
    setPerItem(state);
    std::filesystem::remove(file);
}
BENCHMARK(BM_SecondSave)->RangeMultiplier(10)->Range(100, 100000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
