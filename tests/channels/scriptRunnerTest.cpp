#include "channels/internal/scriptRunner.h"
#include "app/globalOptions.h"
#include "channels/events.h"
#include "channels/exception.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/systemValues.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <optional>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace channels;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;

namespace {

// Writes a script into the directory and returns its path.
std::string script(const TempDir& dir, const std::string& name, const std::string& text) {
    const std::string path = dir.file(name);
    writeFile(path, text);
    ::chmod(path.c_str(), 0755);
    return path;
}

// Runs a script with its configuration file; returns the result and the output.
std::pair<int, std::string> run(const std::string& scriptPath, int timeout = 10) {
    ParamDefTable none;
    auto config = buildScriptConfigFile("ProcessRequest", none, {}, nullptr);
    tools::TempFile output;
    const int rc =
        runScript(buildScriptCommandLine(scriptPath, config->path()),
                  std::filesystem::path(scriptPath).parent_path().string(), output, timeout);
    return {rc, output.read()};
}

// True when the process (not necessarily a child of ours) ends within ten seconds.
bool processEnds(pid_t pid) {
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0)
        return errno == ESRCH;
    pollfd ended{fd, POLLIN, 0};
    const bool result = ::poll(&ended, 1, 10000) == 1;
    ::close(fd);
    return result;
}

std::string failureOf(const std::function<void()>& body) {
    try {
        body();
    } catch (const Exception& failure) {
        return failure.what();
    }
    return "no failure";
}

// Changes the script settings while it lives; the old ones come back however the test ends.
class ScriptSettingsOverride {
public:
    template <typename Change>
    explicit ScriptSettingsOverride(Change change) : m_saved(scriptSettings()) {
        ScriptSettings settings = m_saved;
        change(settings);
        setScriptSettings(settings);
    }
    ~ScriptSettingsOverride() { setScriptSettings(m_saved); }
    ScriptSettingsOverride(const ScriptSettingsOverride&) = delete;
    ScriptSettingsOverride& operator=(const ScriptSettingsOverride&) = delete;

private:
    ScriptSettings m_saved;
};

} // namespace

// The file-type table gives the command; every path in it stays one argument, however it is
// quoted in the table and whatever blanks or quotes the path holds.
TEST(ScriptRunner, CommandLinesFollowTheFileTypeTableAndEveryPathStaysOneArgument) {
    const ScriptSettingsOverride changed([&](ScriptSettings& settings) {
        settings.fileTypeCommands[".py"] = "/opt/py/python \"%1\" %*";
        settings.fileTypeCommands[".pl"] = "perl";
        settings.fileTypeCommands[".x"] = "";
        settings.fileTypeCommands[".py3"] = "python3 %1 %*";
        settings.fileTypeCommands[".sh"] = "sh '%1' %*";
        settings.fileTypeCommands[".rb"] = "ruby -w";
        settings.fileTypeCommands[".t1"] = "echo \"%1\" %* %*";
        settings.fileTypeCommands[".t2"] = "run 100%% %1!s! %*";
        settings.fileTypeCommands[".t3"] = "run %1%0tail %*";
    });
    EXPECT_EQ(buildScriptCommandLine("/s/news.py", "/tmp/cfg"),
              "/opt/py/python \"/s/news.py\" /tmp/cfg");
    EXPECT_EQ(buildScriptCommandLine("/s/a.pl", "/tmp/cfg"), "perl /s/a.pl /tmp/cfg");
    EXPECT_EQ(buildScriptCommandLine("/s/dir/Main.CLASS", "/tmp/cfg"),
              "java -cp /s/dir/ Main /tmp/cfg");
    // The template expands as the platform's message formatting expands it.
    EXPECT_EQ(buildScriptCommandLine("/s/a.t1", "c"), "echo \"/s/a.t1\" c *");
    EXPECT_EQ(buildScriptCommandLine("/s/a.t2", "c"), "run 100% /s/a.t2 c");
    EXPECT_EQ(buildScriptCommandLine("/s/a.t3", "c"), "run /s/a.t3");
    EXPECT_EQ(failureOf([] { buildScriptCommandLine("/s/a.x", "c"); }),
              "This file type has no 'shell/open' command specified: .x");
    EXPECT_EQ(failureOf([] { buildScriptCommandLine("/nonexistent/a.zz", "c"); }),
              "No application is registered for this file type: .zz");
    EXPECT_EQ(splitCommandLine("a \"b c\" 'd e' f\\ g \"h\\\"i\""),
              (std::vector<std::string>{"a", "b c", "d e", "f g", "h\"i"}));

    const std::string config = "/tmp/t m p/cfg";
    const auto arguments = [&](const std::string& scriptPath) {
        return splitCommandLine(buildScriptCommandLine(scriptPath, config));
    };
    using Args = std::vector<std::string>;
    EXPECT_EQ(arguments("/a b/x.py3"), (Args{"python3", "/a b/x.py3", config}));
    EXPECT_EQ(arguments("/a \"b\"\\/x.py"), (Args{"/opt/py/python", "/a \"b\"\\/x.py", config}));
    EXPECT_EQ(arguments("/it's here/x.sh"), (Args{"sh", "/it's here/x.sh", config}));
    EXPECT_EQ(arguments("/a b/x.rb"), (Args{"ruby", "-w", "/a b/x.rb", config}));
    EXPECT_EQ(arguments("/a b/x.pl"), (Args{"perl", "/a b/x.pl", config}));
    EXPECT_EQ(arguments("/a b/Main.class"), (Args{"java", "-cp", "/a b/", "Main", config}));
}

TEST(ScriptRunner, ConfigurationFileCarriesSystemValuesAndParameters) {
    misc::SystemValues::instance().set("UserName", "tester");
    ParamDefTable defs;
    defs.push_back(std::make_unique<ParamDef>(ParamDef{"b", kParamString, "dflt", "", "", ""}));
    defs.push_back(std::make_unique<ParamDef>(ParamDef{"a", kParamInt, "1", "", "", ""}));
    ParamDefTable channelDefs;
    channelDefs.push_back(std::make_unique<ParamDef>(ParamDef{"c", kParamString, "", "", "", ""}));
    auto config = buildScriptConfigFileForChannel("GenerateMainPage", defs, {{"a", "5%"}},
                                                  channelDefs, {{"c", "x"}}, nullptr);
    const std::string text = readFile(config->path());
    EXPECT_EQ(text.rfind("[System]\nCommand=GenerateMainPage\nAppServerUrl=http://127.0.0.1:", 0),
              0u)
        << text;
    EXPECT_NE(text.find("UserName=tester\n"), std::string::npos);
    EXPECT_NE(text.find("[PluginParameters]\nb=dflt\na=5%25\n[ChannelParameters]\nc=x\n"),
              std::string::npos)
        << text;
}

TEST(ScriptRunner, RealScriptsSucceedOrBecomeErrorPages) {
    TempDir dir;
    auto [ok, page] = run(script(dir, "ok.sh", "echo \"<rss>$(basename \"$1\" | head -c 0)\"\n"));
    EXPECT_EQ(ok, 0);
    EXPECT_EQ(page, "<rss>\n");
    auto [silent, silentPage] = run(script(dir, "silent.sh", "exit 0\n"));
    EXPECT_EQ(silent, -1);
    EXPECT_EQ(silentPage, "<HTML><BODY>\n<P>The script failed: rc=0\n</BODY></HTML>\n");
    auto [failed, failedPage] =
        run(script(dir, "failed.py", "import sys\nprint('x')\nsys.exit(3)\n"));
    EXPECT_EQ(failed, -1);
    EXPECT_EQ(failedPage, "<HTML><BODY>\n<P>The script failed: rc=3\n</BODY></HTML>\n");
    auto [noisy, noisyPage] =
        run(script(dir, "noisy.pl", "print \"out\";\nprint STDERR \"<b>bad</b>\";\n"));
    EXPECT_EQ(noisy, -1);
    EXPECT_EQ(noisyPage, "<HTML><BODY>\n<P>The script caused an error:\n"
                         "<PRE style='margin-left:30px'>\n<b>bad</b>\n</PRE>\n</BODY></HTML>\n");
    auto [crashed, crashedPage] = run(script(dir, "crash.sh", "kill -SEGV $$\n"));
    EXPECT_EQ(crashed, -1);
    EXPECT_NE(crashedPage.find("rc=139"), std::string::npos) << crashedPage;
    // The working directory is the script's own.
    auto [here, herePage] = run(script(dir, "pwd.sh", "pwd\n"));
    EXPECT_EQ(herePage, std::filesystem::canonical(dir.path()).string() + "\n");
}

// Points TMPDIR at another directory while it lives.
class TemporaryDirectoryOverride {
public:
    explicit TemporaryDirectoryOverride(const std::string& dir) {
        if (const char* old = std::getenv("TMPDIR"))
            m_old = old;
        ::setenv("TMPDIR", dir.c_str(), 1);
    }
    ~TemporaryDirectoryOverride() {
        if (m_old)
            ::setenv("TMPDIR", m_old->c_str(), 1);
        else
            ::unsetenv("TMPDIR");
    }

private:
    std::optional<std::string> m_old;
};

TEST(ScriptRunner, ScriptsInFoldersWithBlanksRunWithTheShippedFileTypes) {
    TempDir dir;
    std::filesystem::create_directories(dir.file("my plugins"));
    std::filesystem::create_directories(dir.file("temp files"));
    app::GlobalOptions options;
    ASSERT_TRUE(options.load("", (testing_support::sourceDir() / "resources/global.ini").string()));
    const ScriptSettingsOverride changed([&](ScriptSettings& settings) {
        settings.fileTypeCommands = builtInFileTypeCommands();
        for (const auto& [extension, command] : options.scriptFileTypeCommands)
            settings.fileTypeCommands[extension] = command;
    });
    TemporaryDirectoryOverride temp(dir.file("temp files"));
    // Each script prints how many arguments it got and the Command its configuration holds.
    const std::map<std::string, std::string> scripts = {
        {"count.sh", "printf '%s ' $#; sed -n 's/^Command=//p' \"$1\"\n"},
        {"count.py", "import sys\nprint(len(sys.argv) - 1, [l.strip()[8:] for l in "
                     "open(sys.argv[1]) if l.startswith('Command=')][0])\n"},
        {"count.pl", "open(F, $ARGV[0]) or die; while (<F>) { print scalar(@ARGV), \" $1\" "
                     "if /^Command=(.*)/ }\n"},
    };
    for (const auto& [name, text] : scripts) {
        auto [rc, page] = run(script(dir, "my plugins/" + name, text));
        EXPECT_EQ(rc, 0) << name << ": " << page;
        EXPECT_EQ(page.substr(0, page.find_last_not_of('\n') + 1), "1 ProcessRequest") << name;
    }
}

TEST(ScriptRunner, JavaClassesInFoldersWithBlanksRun) {
    if (std::system("javac -version >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "no Java compiler here; the command line is checked on its own";
    TempDir dir;
    std::filesystem::create_directories(dir.file("my classes"));
    writeFile(dir.file("my classes/Count.java"),
              "public class Count { public static void main(String[] a) {"
              " System.out.println(a.length + \" \" + new java.io.File(a[0]).exists()); } }\n");
    ASSERT_EQ(std::system(("javac '" + dir.file("my classes/Count.java") + "'").c_str()), 0);
    std::filesystem::create_directories(dir.file("temp files"));
    TemporaryDirectoryOverride temp(dir.file("temp files"));
    auto [rc, page] = run(dir.file("my classes/Count.class"), 60);
    EXPECT_EQ(rc, 0) << page;
    EXPECT_EQ(page, "1 true\n");
}

TEST(ScriptRunner, ProcessesLeftBehindByAScriptLiveOn) {
    TempDir dir;
    // The helper keeps the output file open; the run still ends with the script.
    auto [rc, page] = run(script(dir, "spawn.sh", "sleep 30 &\necho $!\n"));
    ASSERT_EQ(rc, 0) << page;
    const int helper = std::stoi(page);
    const std::string stat = readFile("/proc/" + std::to_string(helper) + "/stat");
    const std::size_t close = stat.rfind(')');
    ASSERT_NE(close, std::string::npos) << "the helper is gone";
    EXPECT_NE(stat.substr(close + 2, 1), "Z") << stat;
    ::kill(helper, SIGKILL);
}

TEST(ScriptRunner, OutputPastTheLimitStopsTheScript) {
    TempDir dir;
    const ScriptSettingsOverride changed(
        [&](ScriptSettings& settings) { settings.maxOutputBytes = 1024 * 1024; });
    const std::string message =
        "The script wrote more than 1024 KB of output (the limit set by MaxScriptOutputKB).";
    // A writer that goes on running is stopped at once (not at its time-out); a quick one is
    // caught when it ends.
    EXPECT_EQ(failureOf([&] {
                  run(script(dir, "slow.sh", "head -c 2000000 /dev/zero\nsleep 30\n"), 20);
              }),
              message);
    EXPECT_EQ(
        failureOf([&] { run(script(dir, "errors.sh", "head -c 1100000 /dev/zero >&2\n"), 30); }),
        message);
    auto [rc, page] = run(script(dir, "fits.sh", "head -c 1048576 /dev/zero\n"));
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(page.size(), 1048576u);
}

TEST(ScriptRunner, HangingScriptIsKilledWithItsChildrenAtTheTimeOut) {
    TempDir dir;
    const std::string pidFile = dir.file("child.pid");
    const std::string hang =
        script(dir, "hang.sh", "sleep 30 &\necho $! > " + pidFile + "\nsleep 30\n");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(failureOf([&] { run(hang, 2); }), "The script timed out.");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    const std::string pid = readFile(pidFile);
    ASSERT_FALSE(pid.empty()) << "the script did not start within its time-out";
    EXPECT_TRUE(processEnds(static_cast<pid_t>(std::stoi(pid))))
        << "the whole process group is killed";
}

TEST(ScriptRunner, AnotherThreadCanStopARunningScript) {
    TempDir dir;
    // The script says it runs through a pipe; the stopper holds both ends, so neither side's
    // open waits for the other.
    const std::string started = dir.file("started");
    ASSERT_EQ(::mkfifo(started.c_str(), 0600), 0);
    const std::string hang = script(dir, "hang.sh", "echo > " + started + "\nsleep 30\n");
    const int startedFd = ::open(started.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(startedFd, 0);
    std::thread stopper([startedFd] {
        pollfd running{startedFd, POLLIN, 0};
        ::poll(&running, 1, 10000);
        abortAllScripts();
    });
    EXPECT_EQ(failureOf([&] { run(hang, 60); }), "The script was stopped.");
    stopper.join();
    ::close(startedFd);
    // A program that can't be started is an exception with the system's reason.
    const ScriptSettingsOverride changed([&](ScriptSettings& settings) {
        settings.fileTypeCommands[".zz"] = "/nonexistent/interpreter %1 %*";
    });
    const std::string zz = script(dir, "a.zz", "");
    EXPECT_EQ(failureOf([&] { run(zz, 5); }), "Can't run the script: No such file or directory");
}

TEST(ScriptRunner, PluginAddressesSplitIntoTheirParts) {
    std::string id, request, params;
    parsePluginUri("/news/refresh?x=1&y=2?z/w", id, request, params);
    EXPECT_EQ(id + "|" + request + "|" + params, "news|refresh|x=1&y=2?z/w");
    parsePluginUri("/news", id, request, params);
    EXPECT_EQ(id + "|" + request + "|" + params, "news||");
    EXPECT_EQ(failureOf([&] { parsePluginUri("news/x", id, request, params); }),
              "Invalid plugin URI: news/x");
    EXPECT_TRUE(extractPluginIdFromUrl("http://127.0.0.1:2605/weather/today", id));
    EXPECT_EQ(id, "weather");
    EXPECT_FALSE(extractPluginIdFromUrl("http://127.0.0.1:2605", id));
    EXPECT_FALSE(extractPluginIdFromUrl("http://localhost:2605/x", id));
}

TEST(Events, TextFormsAndDispatchToTheTypedOperations) {
    struct Counter : EventListener {
        int news = 0, errors = 0;
        void onNewFeedItem(NewFeedItemEvent&) override { ++news; }
        void onChannelError(ChannelErrorEvent&) override { ++errors; }
    } counter;
    TEventSource<Event> source;
    NewFeedItemEvent added(0, nullptr, 3);
    source.raise(added); // no listeners: nothing happens
    source.addListener(&counter);
    source.raise(added);
    ChannelErrorEvent error(0, nullptr, "Can't update the feed.", "detail");
    source.raise(error);
    source.removeListener(&counter);
    source.raise(error);
    EXPECT_EQ(counter.news, 1);
    EXPECT_EQ(counter.errors, 1);
    EXPECT_EQ(added.text(), "[NewFeedItemEvent:<unknown>]");
    EXPECT_EQ(error.text(), "[ChannelErrorEvent:<unknown>]");
    EXPECT_EQ(AppPluginErrorEvent(0, nullptr, "x").text(), "[AppPluginErrorEvent:<unknown>]");
    EXPECT_EQ(BeginChannelUpdateEvent(0, nullptr, true).text(),
              "[BeginChannelUpdateEvent:<Unknown>]");
}
