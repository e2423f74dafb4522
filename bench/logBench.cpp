// One log call in a group that is off and in one that is on, beside an empty function call
// and a std::snprintf of the same line. The log is open on a scratch file with every prefix
// field on, and the debug file that switches the groups is watched, as in the program.

#include "lib/log/log.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

const char* const kUrl = "http://127.0.0.77/feed123.xml";

std::string scratchPath(const char* name) {
    return (std::filesystem::temp_directory_path() / name).string();
}

// Opens the log and switches the two groups once for the whole program.
struct LogSetUp {
    msglog::MsgGroup& off = msglog::registerMsgGroup("BenchOff");
    msglog::MsgGroup& on = msglog::registerMsgGroup("BenchOn");
    LogSetUp() {
        const std::string debugIni = scratchPath("pelsu-bench-debug.ini");
        std::ofstream(debugIni) << "[MessageGroups]\nBenchOff=0\nBenchOn=1\n";
        msglog::watchMsgGroupSettings({debugIni});
        msglog::CMessageLog::instance().open(scratchPath("pelsu-bench.log"));
    }
};

LogSetUp& logSetUp() {
    static LogSetUp setUp;
    return setUp;
}

[[gnu::noinline]] void emptyCall(const char* url, int status) {
    benchmark::DoNotOptimize(url);
    benchmark::DoNotOptimize(status);
}

void BM_EmptyFunctionCall(benchmark::State& state) {
    for (auto _ : state)
        emptyCall(kUrl, 200);
}
BENCHMARK(BM_EmptyFunctionCall)->Threads(1)->Threads(2);

void BM_SnprintfOfTheLine(benchmark::State& state) {
    char line[256];
    for (auto _ : state) {
        std::snprintf(line, sizeof line, "Fetching %s ; status=%d", kUrl, 200);
        benchmark::DoNotOptimize(line);
    }
}
BENCHMARK(BM_SnprintfOfTheLine);

void BM_LogCallInGroupThatIsOff(benchmark::State& state) {
    msglog::MsgGroup& group = logSetUp().off;
    for (auto _ : state)
        PELSU_LOG(group, "Fetching " << kUrl << " ; status=" << 200);
}
BENCHMARK(BM_LogCallInGroupThatIsOff)->Threads(1)->Threads(2);

void BM_LogCallInGroupThatIsOn(benchmark::State& state) {
    msglog::MsgGroup& group = logSetUp().on;
    for (auto _ : state)
        PELSU_LOG(group, "Fetching " << kUrl << " ; status=" << 200);
}
BENCHMARK(BM_LogCallInGroupThatIsOn)->Threads(1)->Threads(2);

} // namespace

BENCHMARK_MAIN();
