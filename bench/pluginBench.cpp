// Requests that a trivial script plugin and a trivial library plugin answer through
// ProcessRequest, beside the bare start of a process (/bin/true) that every script run pays.

#include "channels/appPluginManager.h"
#include "channels/internal/scriptRunner.h"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

extern char** environ;

namespace {

namespace fs = std::filesystem;

// A plugins directory with a one-line shell plugin and the sample library plugin.
struct Plugins {
    fs::path dir = fs::temp_directory_path() / "pelsu-bench-plugins";
    channels::AppPluginManager manager;
    Plugins() {
        fs::remove_all(dir);
        fs::create_directories(dir);
        std::ofstream(dir / "echo.plugin") << "[Config]\nPlugin=echo.sh\n";
        std::ofstream(dir / "echo.sh") << "echo ok\n";
        ::chmod((dir / "echo.sh").c_str(), 0755);
        fs::copy_file(fs::path(PELSU_BINARY_DIR) / "appPlugins/hello/hello.so", dir / "hello.so");
        std::ofstream(dir / "hello.plugin") << "[Config]\nPlugin=hello.so\nAppPluginId=Hello\n";
        manager.setAppPluginsDir(dir.string());
        manager.setScriptTimeout(10);
        manager.loadAppPlugins();
    }
    ~Plugins() { fs::remove_all(dir); }
};

Plugins& plugins() {
    static Plugins instance;
    return instance;
}

void BM_BareProcessStart(benchmark::State& state) {
    char trueProgram[] = "/bin/true";
    char* argv[] = {trueProgram, nullptr};
    for (auto _ : state) {
        pid_t child = 0;
        ::posix_spawn(&child, "/bin/true", nullptr, nullptr, argv, environ);
        int status = 0;
        ::waitpid(child, &status, 0);
    }
}
BENCHMARK(BM_BareProcessStart)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_ScriptPluginRequest(benchmark::State& state) {
    channels::AppPlugin* plugin = plugins().manager.findAppPlugin("echo");
    std::string response;
    for (auto _ : state) {
        response.clear();
        plugin->ProcessRequest("ping", "", response, nullptr);
    }
    state.counters["requests/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ScriptPluginRequest)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_LibraryPluginRequest(benchmark::State& state) {
    channels::AppPlugin* plugin = plugins().manager.findAppPlugin("Hello");
    std::string response;
    for (auto _ : state) {
        response.clear();
        plugin->ProcessRequest("greet", "who=you", response, nullptr);
    }
    state.counters["requests/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_LibraryPluginRequest)->Unit(benchmark::kMicrosecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
