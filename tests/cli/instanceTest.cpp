// pelsu-cli as the running instance of a user directory, and the commands that other
// pelsu-cli processes hand to it: real processes on a temporary home.

#include "tests/cli/cliProcess.h"
#include "tests/support/testHttpServer.h"

#include <gmock/gmock.h>

using namespace cli_testing;
using testing::HasSubstr;
using testing::Not;
using testing_support::Gate;
using testing_support::rssFeed;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

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

// Commands handed to a run come back with their output and status, and what they changed
// outlives the run.
TEST(PelsuCliInstance, AddUpdateAndRemoveDuringRunAnswerAndLast) {
    TempDir home, feeds;
    writeFile(feeds.file("feed.xml"), rssFeed("ab"));
    ASSERT_EQ(cli(home, {"add", feeds.file("feed.xml"), "--id", "f1", "--interval", "0"}).status,
              0);
    auto run = startRun(home);
    const Finished removed = cli(home, {"remove", "f1"});
    EXPECT_EQ(removed.status, 0);
    EXPECT_EQ(removed.out, "Removed channel f1\n");

    // The file name is the sender's: it is found from the sender's working directory.
    const Finished added =
        cli(home, {"add", "feed.xml", "--id", "f2", "--interval", "0"}, feeds.path().string());
    EXPECT_EQ(added.status, 0);
    EXPECT_EQ(added.out, "Added channel f2: " + feeds.file("feed.xml") + "\n");
    const Finished updated = cli(home, {"update", "f2"});
    EXPECT_EQ(updated.status, 0) << updated.out;
    EXPECT_THAT(updated.out, HasSubstr("[1/1] f2 (T ab): 2 new, 0 expired\n  new:     Item a\n"));
    EXPECT_THAT(updated.out,
                HasSubstr("Updated 1 channel(s): 2 new item(s), 0 expired, 0 failed."));
    const Finished unknown = cli(home, {"update", "nope"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.out, "pelsu-cli: No channel with the ID nope (pelsu-cli list shows them).\n");
    const Finished mistaken = cli(home, {"add"});
    EXPECT_EQ(mistaken.status, 2);
    EXPECT_THAT(mistaken.out, HasSubstr("usage: pelsu-cli add"));

    run->signal(SIGINT);
    EXPECT_EQ(run->finish(), 0) << run->output();
    EXPECT_THAT(logTexts(home), testing::Contains("Running a command handed over: update"));
    EXPECT_FALSE(fs::exists(userDir(home) / "Channels" / "f1.rss"));
    EXPECT_THAT(cli(home, {"list"}).out, Not(HasSubstr("f1")));
    EXPECT_THAT(cli(home, {"show", "f2"}).out, HasSubstr("Items:      2"));
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
    EXPECT_THAT(update.output(), HasSubstr("Pelsu is stopping"));
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
    EXPECT_THAT(cli(home, {"show", "slow"}).out, HasSubstr("Items:      2"));
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
    EXPECT_THAT(second.out, HasSubstr("Pelsu is already running for the user directory"));
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
    EXPECT_THAT(cli(home, {"show", "slow"}).out, HasSubstr("Items:      2"));
}
