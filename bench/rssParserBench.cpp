// Parse throughput of the RSS parser beside expat alone with handlers that do nothing, on the
// same bytes: the corpus's RSS documents, and a farm of generated feeds (bench/farm/makeFarm.py).

#include "channels/rssParser.h"
#include "expat/parser.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

std::string readWhole(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The documents repeated to about 20 MB, so that one pass is long enough to time.
std::vector<std::string> repeated(const std::vector<std::string>& found) {
    std::vector<std::string> result;
    std::size_t total = 0;
    while (!found.empty() && total < 20u * 1024u * 1024u)
        for (const std::string& doc : found) {
            result.push_back(doc);
            total += doc.size();
        }
    return result;
}

// The corpus's RSS documents that the parser turns into a feed.
const std::vector<std::string>& corpusDocuments() {
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
            std::string text = readWhole(entry.path());
            try {
                channels::RssParser parser;
                channels::parseFeed(parser, {}, text, 0);
                found.push_back(std::move(text));
            } catch (const std::exception&) {
            }
        }
        return repeated(found);
    }();
    return docs;
}

// Two hundred feeds of the farm, written by its generator into a directory removed afterwards.
const std::vector<std::string>& farmDocuments() {
    static const std::vector<std::string> docs = [] {
        std::string dir = (std::filesystem::temp_directory_path() / "pelsu-farm-XXXXXX").string();
        if (!::mkdtemp(dir.data()))
            return std::vector<std::string>();
        const std::string command = "python3 '" PELSU_SOURCE_DIR "/bench/farm/makeFarm.py' '" +
                                    dir + "' --count 200 >/dev/null";
        std::vector<std::filesystem::path> paths;
        if (std::system(command.c_str()) == 0)
            for (const auto& entry : std::filesystem::directory_iterator(dir))
                paths.push_back(entry.path());
        std::sort(paths.begin(), paths.end());
        std::vector<std::string> found;
        for (const auto& path : paths)
            found.push_back(readWhole(path));
        std::error_code error;
        std::filesystem::remove_all(dir, error);
        return repeated(found);
    }();
    return docs;
}

using Documents = const std::vector<std::string>& (*)();

std::int64_t totalBytes(const std::vector<std::string>& docs) {
    std::int64_t total = 0;
    for (const std::string& doc : docs)
        total += static_cast<std::int64_t>(doc.size());
    return total;
}

void BM_BareExpat(benchmark::State& state, Documents documents) {
    const auto& docs = documents();
    if (docs.empty())
        state.SkipWithError("no documents (set PELSU_CORPUS, or python3 for the farm)");
    for (auto _ : state)
        for (const std::string& doc : docs)
            benchmark::DoNotOptimize(expat::parseWithEmptyHandlers(doc.data(), doc.size()));
    state.SetBytesProcessed(state.iterations() * totalBytes(docs));
}
BENCHMARK_CAPTURE(BM_BareExpat, corpus, &corpusDocuments)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_BareExpat, farm, &farmDocuments)->Unit(benchmark::kMillisecond);

void BM_RssParser(benchmark::State& state, Documents documents) {
    const auto& docs = documents();
    if (docs.empty())
        state.SkipWithError("no documents (set PELSU_CORPUS, or python3 for the farm)");
    channels::RssParser parser;
    for (auto _ : state)
        for (const std::string& doc : docs)
            benchmark::DoNotOptimize(channels::parseFeed(parser, {}, doc, 0));
    state.SetBytesProcessed(state.iterations() * totalBytes(docs));
}
BENCHMARK_CAPTURE(BM_RssParser, corpus, &corpusDocuments)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_RssParser, farm, &farmDocuments)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();

namespace {

// The same items written as RSS 2.0 and as Atom: 2,000 items of a title, a link, an id, a
// date, an author and a paragraph of HTML.
std::string sameItems(bool atom) {
    std::string text = atom
                           ? "<?xml version=\"1.0\"?>\n<feed xmlns=\"http://www.w3.org/2005/Atom\">"
                             "<title>Same items</title><link href=\"http://bench.example/\"/>\n"
                           : "<?xml version=\"1.0\"?>\n<rss version=\"2.0\"><channel>"
                             "<title>Same items</title><link>http://bench.example/</link>\n";
    const std::string paragraph =
        "&lt;p&gt;The quick brown fox jumps over the lazy dog, again and again, while the "
        "reader counts how often &amp;amp; how fast it happens.&lt;/p&gt;";
    for (int i = 0; i < 2000; ++i) {
        const std::string n = std::to_string(i);
        const std::string link = "http://bench.example/posts/" + n;
        text += atom ? "<entry><title>Item number " + n + "</title><link href=\"" + link +
                           "\"/><id>urn:bench:" + n +
                           "</id><published>2024-01-01T00:00:00Z</published><author><name>A. "
                           "Writer</name></author><summary type=\"html\">" +
                           paragraph + "</summary></entry>\n"
                     : "<item><title>Item number " + n + "</title><link>" + link +
                           "</link><guid>urn:bench:" + n +
                           "</guid><pubDate>Mon, 01 Jan 2024 00:00:00 GMT</pubDate><author>A. "
                           "Writer</author><description>" +
                           paragraph + "</description></item>\n";
    }
    return text + (atom ? "</feed>\n" : "</channel></rss>\n");
}

void parseSameItems(benchmark::State& state, bool atom) {
    const std::string text = sameItems(atom);
    channels::ParseOptions options;
    options.formats.atom = true;
    channels::RssParser parser;
    for (auto _ : state)
        benchmark::DoNotOptimize(channels::parseFeed(parser, options, text, 0));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

// expat alone on the same two documents: how much of the difference is the XML itself.
void bareSameItems(benchmark::State& state, bool atom) {
    const std::string text = sameItems(atom);
    for (auto _ : state)
        benchmark::DoNotOptimize(expat::parseWithEmptyHandlers(text.data(), text.size()));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void BM_SameItemsAsRssBareExpat(benchmark::State& state) { bareSameItems(state, false); }
BENCHMARK(BM_SameItemsAsRssBareExpat)->Unit(benchmark::kMillisecond);

void BM_SameItemsAsAtomBareExpat(benchmark::State& state) { bareSameItems(state, true); }
BENCHMARK(BM_SameItemsAsAtomBareExpat)->Unit(benchmark::kMillisecond);

void BM_SameItemsAsRss(benchmark::State& state) { parseSameItems(state, false); }
BENCHMARK(BM_SameItemsAsRss)->Unit(benchmark::kMillisecond);

void BM_SameItemsAsAtom(benchmark::State& state) { parseSameItems(state, true); }
BENCHMARK(BM_SameItemsAsAtom)->Unit(benchmark::kMillisecond);

} // namespace
