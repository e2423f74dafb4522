// Saving and loading a channel-sized profile file (12 channel keys and 100 items of 8 keys)
// through the profile layer, beside writing and reading the same bytes with plain stdio.

#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace {

struct Key {
    std::string section, key, value;
};

std::vector<Key> channelKeys() {
    std::vector<Key> keys;
    const char* channelNames[] = {
        "ChannelDisplayName",    "ChannelDescription", "ChannelHomeUrl",      "ChannelImageUrl",
        "ChannelImageWidth",     "ChannelImageHeight", "CopyrightString",     "EditorEmailAddress",
        "WebMasterEmailAddress", "PubDateString",      "LastBuildDateString", "FeedGenerator"};
    for (const char* name : channelNames)
        keys.push_back({"Last Feed", name, std::string("value of ") + name});
    const char* itemNames[] = {"Id",     "Title",  "Description", "Url",
                               "Source", "Author", "CommentsUrl", "PubDateString"};
    for (int i = 1; i <= 100; ++i)
        for (const char* name : itemNames)
            keys.push_back({"Last Feed (" + std::to_string(i) + ")", name,
                            std::string(name) + " of item " + std::to_string(i) +
                                " with some text to make it the size of a real item"});
    return keys;
}

std::string scratchPath(const char* name) {
    return (std::filesystem::temp_directory_path() / name).string();
}

// The bytes the profile layer writes for these keys.
std::string fileText(const std::vector<Key>& keys) {
    std::string text, section;
    for (const Key& k : keys) {
        if (k.section != section) {
            section = k.section;
            text += "[" + section + "]\n";
        }
        text += k.key + "=" + profile::escapeIniValue(k.value) + "\n";
    }
    return text;
}

void BM_SaveWithPlainStdio(benchmark::State& state) {
    const std::string text = fileText(channelKeys());
    const std::string path = scratchPath("pelsu-bench-stdio.ini");
    for (auto _ : state) {
        FILE* file = std::fopen(path.c_str(), "wb");
        std::fwrite(text.data(), 1, text.size(), file);
        std::fclose(file);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    std::filesystem::remove(path);
}
BENCHMARK(BM_SaveWithPlainStdio);

void BM_SaveThroughProfileLayer(benchmark::State& state) {
    const auto keys = channelKeys();
    const std::string path = scratchPath("pelsu-bench-profile.ini");
    for (auto _ : state) {
        profile::WriteBatch batch(path);
        for (const Key& k : keys)
            profile::writeIniString(path, k.section, k.key, k.value);
        batch.commit();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * fileText(keys).size()));
    std::filesystem::remove(path);
}
BENCHMARK(BM_SaveThroughProfileLayer);

void BM_LoadWithPlainStdio(benchmark::State& state) {
    const std::string text = fileText(channelKeys());
    const std::string path = scratchPath("pelsu-bench-stdio-load.ini");
    FILE* out = std::fopen(path.c_str(), "wb");
    std::fwrite(text.data(), 1, text.size(), out);
    std::fclose(out);
    std::vector<char> buffer(text.size() + 1);
    for (auto _ : state) {
        FILE* file = std::fopen(path.c_str(), "rb");
        benchmark::DoNotOptimize(std::fread(buffer.data(), 1, buffer.size(), file));
        std::fclose(file);
    }
    std::filesystem::remove(path);
}
BENCHMARK(BM_LoadWithPlainStdio);

// Every key read back with a cold cache, as a freshly started program loads a channel.
void BM_LoadThroughProfileLayer(benchmark::State& state) {
    const auto keys = channelKeys();
    const std::string path = scratchPath("pelsu-bench-profile-load.ini");
    {
        profile::WriteBatch batch(path);
        for (const Key& k : keys)
            profile::writeIniString(path, k.section, k.key, k.value);
    }
    for (auto _ : state) {
        profile::clearCache();
        for (const Key& k : keys)
            benchmark::DoNotOptimize(profile::readIniString(path, k.section, k.key));
    }
    std::filesystem::remove(path);
}
BENCHMARK(BM_LoadThroughProfileLayer);

// The same inside a batch, which reads one consistent copy without checking the disk per key.
void BM_LoadThroughProfileLayerInBatch(benchmark::State& state) {
    const auto keys = channelKeys();
    const std::string path = scratchPath("pelsu-bench-profile-load2.ini");
    {
        profile::WriteBatch batch(path);
        for (const Key& k : keys)
            profile::writeIniString(path, k.section, k.key, k.value);
    }
    for (auto _ : state) {
        profile::clearCache();
        profile::WriteBatch snapshot(path);
        for (const Key& k : keys)
            benchmark::DoNotOptimize(profile::readIniString(path, k.section, k.key));
    }
    std::filesystem::remove(path);
}
BENCHMARK(BM_LoadThroughProfileLayerInBatch);

} // namespace

BENCHMARK_MAIN();
