// Parse throughput of the RSS parser on the corpus's RSS documents, beside expat alone with
// handlers that do nothing, on the same bytes.

#include "channels/rssParser.h"
#include "expat/parser.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

// The corpus's RSS documents that the parser turns into a feed, repeated to about 20 MB.
const std::vector<std::string>& documents() {
    static const std::vector<std::string> docs = [] {
        std::vector<std::string> found;
        const char* override = std::getenv("PELSU_CORPUS");
        const std::filesystem::path corpus =
            override ? override
                     : std::filesystem::path(PELSU_SOURCE_DIR) / "../shared/corpus/feeds";
        std::error_code error;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(corpus, error)) {
            if (!entry.is_regular_file())
                continue;
            std::ifstream in(entry.path(), std::ios::binary);
            std::ostringstream text;
            text << in.rdbuf();
            try {
                channels::RssParser parser;
                channels::parseFeed(parser, {}, text.str(), 0);
                found.push_back(text.str());
            } catch (const std::exception&) {
            }
        }
        std::vector<std::string> repeated;
        std::size_t total = 0;
        while (!found.empty() && total < 20u * 1024u * 1024u)
            for (const std::string& doc : found) {
                repeated.push_back(doc);
                total += doc.size();
            }
        return repeated;
    }();
    return docs;
}

std::int64_t totalBytes() {
    std::int64_t total = 0;
    for (const std::string& doc : documents())
        total += static_cast<std::int64_t>(doc.size());
    return total;
}

void BM_BareExpat(benchmark::State& state) {
    if (documents().empty())
        state.SkipWithError("no corpus (set PELSU_CORPUS)");
    for (auto _ : state)
        for (const std::string& doc : documents())
            benchmark::DoNotOptimize(expat::parseWithEmptyHandlers(doc.data(), doc.size()));
    state.SetBytesProcessed(state.iterations() * totalBytes());
}
BENCHMARK(BM_BareExpat)->Unit(benchmark::kMillisecond);

void BM_RssParser(benchmark::State& state) {
    if (documents().empty())
        state.SkipWithError("no corpus (set PELSU_CORPUS)");
    channels::RssParser parser;
    for (auto _ : state)
        for (const std::string& doc : documents())
            benchmark::DoNotOptimize(channels::parseFeed(parser, {}, doc, 0));
    state.SetBytesProcessed(state.iterations() * totalBytes());
}
BENCHMARK(BM_RssParser)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
