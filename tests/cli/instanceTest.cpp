// pelsu-cli as the running instance of a user directory, and the commands that other
// pelsu-cli processes hand to it: real processes on a temporary home.

#include "tests/support/testHttpServer.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using testing_support::Gate;
using testing_support::rssFeed;
using testing_support::TempDir;
using testing_support::writeFile;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

extern char** environ;

namespace {

// A pelsu-cli process whose standard output and error are read as they come.
class CliProcess {
public:
    CliProcess(const TempDir& home, std::vector<std::string> args,
               const std::string& workingDir = "") {
        const std::string program = testing_support::pelsuCli();
        args.insert(args.begin(), {program, "--home", home.path().string()});
        std::vector<char*> argv;
        for (std::string& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
        posix_spawn_file_actions_adddup2(&actions, ends[1], 2);
        if (!workingDir.empty())
            posix_spawn_file_actions_addchdir_np(&actions, workingDir.c_str());
        EXPECT_EQ(::posix_spawn(&m_pid, program.c_str(), &actions, nullptr, argv.data(), environ),
                  0);
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        m_reader = std::thread([this, fd = ends[0]] { read(fd); });
    }
    ~CliProcess() { finish(1s); }
    CliProcess(const CliProcess&) = delete;
    CliProcess& operator=(const CliProcess&) = delete;

    // True when the output holds the text within the limit.
    bool waitFor(const std::string& text, std::chrono::seconds limit = 20s) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, limit,
                                  [&] { return m_output.find(text) != std::string::npos; });
    }
    std::string output() const {
        std::lock_guard guard(m_mutex);
        return m_output;
    }
    void signal(int number) { ::kill(m_pid, number); }
    // Waits for the end (killing the process after the limit): its exit status, or 128 and
    // the signal that ended it.
    int finish(std::chrono::seconds limit = 20s) {
        if (m_status >= 0)
            return m_status;
        {
            std::unique_lock lock(m_mutex);
            if (!m_changed.wait_for(lock, limit, [&] { return m_ended; })) {
                ADD_FAILURE() << "pelsu-cli did not end in time; its output:\n" << m_output;
                ::kill(m_pid, SIGKILL);
            }
        }
        m_reader.join();
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return m_status;
    }

private:
    void read(int fd) {
        char buffer[4096];
        for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) != 0;) {
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                break;
            std::lock_guard guard(m_mutex);
            m_output.append(buffer, static_cast<std::size_t>(got));
            m_changed.notify_all();
        }
        ::close(fd);
        std::lock_guard guard(m_mutex);
        m_ended = true;
        m_changed.notify_all();
    }

    pid_t m_pid = -1;
    int m_status = -1;
    std::thread m_reader;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_output;
    bool m_ended = false;
};

struct Finished {
    int status;
    std::string out;
};

Finished cli(const TempDir& home, std::vector<std::string> args,
             const std::string& workingDir = "") {
    CliProcess process(home, std::move(args), workingDir);
    const int status = process.finish();
    return {status, process.output()};
}

fs::path userDir(const TempDir& home) {
    if (!fs::exists(home.file("Users"))) {
        EXPECT_EQ(cli(home, {"list"}).status, 0);
    }
    return fs::directory_iterator(home.file("Users"))->path();
}

// A pelsu-cli run on the home, ready for commands.
std::unique_ptr<CliProcess> startRun(const TempDir& home) {
    auto run =
        std::make_unique<CliProcess>(home, std::vector<std::string>{"run", "--no-listeners"});
    EXPECT_TRUE(run->waitFor("Running with")) << run->output();
    return run;
}

// A feed server whose answer waits until the test releases it; the home fetches from its port.
class SlowFeed {
public:
    Gate requested, released;
    explicit SlowFeed(const TempDir& home) {
        writeFile((userDir(home) / "config.ini").string(), "[Global Options]\nHonourUrlPort=1\n");
        m_server.server().Get("/slow", [this](const httplib::Request&, httplib::Response& answer) {
            requested.open();
            released.wait(30s);
            answer.set_content(rssFeed("ab"), "application/rss+xml");
        });
        EXPECT_TRUE(m_server.start());
    }
    ~SlowFeed() { released.open(); }
    std::string url() const { return m_server.url("/slow"); }

private:
    // Not 127.0.0.1: the reader sends that address to its own plugin server.
    testing_support::TestHttpServer m_server{"127.0.0.2"};
};

std::vector<std::string> logTexts(const TempDir& home) {
    return testing_support::logTexts((userDir(home) / "Logs" / "pelsu.log").string());
}

} // namespace

TEST(PelsuCliInstance, RemoveDuringRunStaysRemovedAfterRunEnds) {
    TempDir home;
    writeFile(home.file("f.xml"), rssFeed("a"));
    ASSERT_EQ(cli(home, {"add", home.file("f.xml"), "--id", "f1", "--interval", "0"}).status, 0);
    auto run = startRun(home);
    const Finished removed = cli(home, {"remove", "f1"});
    EXPECT_EQ(removed.status, 0);
    EXPECT_EQ(removed.out, "Removed channel f1\n");
    run->signal(SIGINT);
    EXPECT_EQ(run->finish(), 0) << run->output();

    EXPECT_FALSE(fs::exists(userDir(home) / "Channels" / "f1.rss"));
    EXPECT_EQ(cli(home, {"list"}).out.find("f1"), std::string::npos);
}

TEST(PelsuCliInstance, AddAndUpdateDuringRunComeBackWithTheirOutputAndStatus) {
    TempDir home, feeds;
    writeFile(feeds.file("feed.xml"), rssFeed("ab"));
    auto run = startRun(home);

    // The file name is the sender's: it is found from the sender's working directory.
    const Finished added =
        cli(home, {"add", "feed.xml", "--id", "f2", "--interval", "0"}, feeds.path().string());
    EXPECT_EQ(added.status, 0);
    EXPECT_EQ(added.out, "Added channel f2: " + feeds.file("feed.xml") + "\n");

    const Finished updated = cli(home, {"update", "f2"});
    EXPECT_EQ(updated.status, 0) << updated.out;
    EXPECT_NE(updated.out.find("[1/1] f2 (T ab): 2 new, 0 expired\n  new:     Item a\n"),
              std::string::npos)
        << updated.out;
    EXPECT_NE(updated.out.find("Updated 1 channel(s): 2 new item(s), 0 expired, 0 failed."),
              std::string::npos)
        << updated.out;

    const Finished unknown = cli(home, {"update", "nope"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.out, "pelsu-cli: No channel with the ID nope (pelsu-cli list shows them).\n");
    const Finished mistaken = cli(home, {"add"});
    EXPECT_EQ(mistaken.status, 2);
    EXPECT_NE(mistaken.out.find("usage: pelsu-cli add"), std::string::npos) << mistaken.out;

    run->signal(SIGINT);
    EXPECT_EQ(run->finish(), 0) << run->output();
    const std::vector<std::string> log = logTexts(home);
    EXPECT_NE(std::find(log.begin(), log.end(), "Running a command handed over: update"),
              log.end());
    EXPECT_NE(cli(home, {"show", "f2"}).out.find("Items:      2"), std::string::npos);
}

TEST(PelsuCliInstance, ShutDownWhileAnUpdateRunsEndsTheWaitingCommandAndSavesTheUpdate) {
    TempDir home;
    SlowFeed server(home);
    ASSERT_EQ(cli(home, {"add", server.url(), "--id", "slow", "--interval", "0"}).status, 0);
    auto run = startRun(home);
    CliProcess update(home, {"update", "slow"});
    ASSERT_TRUE(server.requested.wait());

    run->signal(SIGTERM);
    EXPECT_EQ(update.finish(), 1);
    EXPECT_NE(update.output().find("Pelsu is stopping"), std::string::npos) << update.output();
    server.released.open();
    EXPECT_EQ(run->finish(), 0) << run->output();

    // The manager waited for the worker's update before it was deleted, and shut-down went
    // on to its last line.
    const std::vector<std::string> expected = {
        "ExitInstance() called.", "Stopping the local channel manager.", "Stopped OK.",
        "Deleting the local channel manager.", "Unloading BlackBox."};
    std::vector<std::string> logged;
    for (const std::string& text : logTexts(home))
        if (std::find(expected.begin(), expected.end(), text) != expected.end())
            logged.push_back(text);
    EXPECT_EQ(logged, expected);
    EXPECT_NE(cli(home, {"show", "slow"}).out.find("Items:      2"), std::string::npos);
}

TEST(PelsuCliInstance, AnInterruptedUpdateDoesNotHoldBackTheNextCommand) {
    TempDir home;
    SlowFeed server(home);
    ASSERT_EQ(cli(home, {"add", server.url(), "--id", "slow", "--interval", "0"}).status, 0);
    auto run = startRun(home);
    CliProcess update(home, {"update", "slow"});
    ASSERT_TRUE(server.requested.wait());
    update.signal(SIGINT);
    EXPECT_EQ(update.finish(), 128 + SIGINT);

    const Finished removed = cli(home, {"remove", "PelsuNews"});
    EXPECT_EQ(removed.status, 0) << removed.out;
    server.released.open();
    run->signal(SIGINT);
    EXPECT_EQ(run->finish(), 0) << run->output();
}

TEST(PelsuCliInstance, AStaleLockAndSocketOfAKilledRunNeverBlock) {
    TempDir home;
    auto killed = startRun(home);
    killed->signal(SIGKILL);
    EXPECT_EQ(killed->finish(), 128 + SIGKILL);
    EXPECT_TRUE(fs::exists(userDir(home) / "pelsu.socket"));

    const Finished removed = cli(home, {"remove", "PelsuNews"});
    EXPECT_EQ(removed.status, 0) << removed.out;
    auto run = startRun(home);
    const Finished second = cli(home, {"run", "--no-listeners"});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.out.find("Pelsu is already running for the user directory"), std::string::npos)
        << second.out;
    writeFile(home.file("f.xml"), rssFeed("a"));
    EXPECT_EQ(cli(home, {"add", home.file("f.xml"), "--id", "f", "--interval", "0"}).status, 0);
    run->signal(SIGINT);
    EXPECT_EQ(run->finish(), 0) << run->output();
    EXPECT_TRUE(fs::exists(userDir(home) / "Channels" / "f.rss"));
}

TEST(PelsuCliInstance, ARunStartingWhileACommandHoldsTheUserDirectoryWaitsForIt) {
    TempDir home;
    SlowFeed server(home);
    ASSERT_EQ(cli(home, {"add", server.url(), "--id", "slow", "--interval", "0"}).status, 0);
    CliProcess update(home, {"update", "slow"}); // no instance: it runs by itself
    ASSERT_TRUE(server.requested.wait());
    CliProcess run(home, {"run", "--no-listeners"});
    server.released.open();
    EXPECT_EQ(update.finish(), 0) << update.output();
    EXPECT_TRUE(run.waitFor("Running with")) << run.output();
    run.signal(SIGINT);
    EXPECT_EQ(run.finish(), 0) << run.output();
    // The run loaded the channel after the update saved it, and kept its items.
    EXPECT_NE(cli(home, {"show", "slow"}).out.find("Items:      2"), std::string::npos);
}
