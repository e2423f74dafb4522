// Saving and loading a channel file whose feed has 100 items, through the channel's
// configuration, settings and state, beside writing and reading the same bytes with stdio.

#include "channels/channelSettings.h"
#include "channels/channelState.h"
#include "channels/rssChannelConfig.h"
#include "lib/misc/profileFile.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

struct ChannelParts {
    channels::RssChannelConfig config;
    channels::ChannelSettings settings;
    channels::ChannelState state;
    ChannelParts() {
        config.setRssChannelUrl("http://news.example/rss.xml");
        auto feed = std::make_unique<channels::Feed>();
        feed->setFeedTime(1700000000);
        feed->channel().channelDisplayName = "Example News";
        feed->channel().channelDescription = "Everything that happened today, and more.";
        for (int i = 1; i <= 100; ++i) {
            channels::FeedItem item;
            item.id = "http://news.example/story/" + std::to_string(i);
            item.url = item.id;
            item.title = "Story number " + std::to_string(i) + " of the day";
            item.description = std::string(300, 'd');
            item.pubDateString = "Mon, 23 Nov 2026 08:00:00 GMT";
            feed->appendItem(item);
        }
        state.replaceFeed(std::move(feed));
    }
    void save(const std::string& file) {
        profile::WriteBatch batch(file);
        config.save(file);
        settings.save(file);
        state.save(file);
        batch.commit();
    }
    void load(const std::string& file) {
        profile::WriteBatch snapshot(file);
        config.load(file);
        settings.load(file);
        state.load(file);
    }
};

std::string scratch(const char* name) {
    return (std::filesystem::temp_directory_path() / name).string();
}

std::string fileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void BM_SaveChannel(benchmark::State& state) {
    ChannelParts parts;
    const std::string file = scratch("pelsu-bench-channel.rss");
    for (auto _ : state)
        parts.save(file);
    std::filesystem::remove(file);
}
BENCHMARK(BM_SaveChannel)->Unit(benchmark::kMicrosecond);

void BM_LoadChannel(benchmark::State& state) {
    ChannelParts parts;
    const std::string file = scratch("pelsu-bench-channel-load.rss");
    parts.save(file);
    ChannelParts loaded;
    for (auto _ : state) {
        profile::clearCache(); // as a freshly started program reads it
        loaded.load(file);
    }
    std::filesystem::remove(file);
}
BENCHMARK(BM_LoadChannel)->Unit(benchmark::kMicrosecond);

void BM_SameBytesWithStdio(benchmark::State& state) {
    ChannelParts parts;
    const std::string file = scratch("pelsu-bench-channel-stdio.rss");
    parts.save(file);
    const std::string text = fileText(file);
    std::string back(text.size(), '\0');
    for (auto _ : state) {
        FILE* out = std::fopen(file.c_str(), "wb");
        std::fwrite(text.data(), 1, text.size(), out);
        std::fclose(out);
        FILE* in = std::fopen(file.c_str(), "rb");
        benchmark::DoNotOptimize(std::fread(back.data(), 1, back.size(), in));
        std::fclose(in);
    }
    state.counters["bytes"] = static_cast<double>(text.size());
    std::filesystem::remove(file);
}
BENCHMARK(BM_SameBytesWithStdio)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
