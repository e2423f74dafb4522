#include "app/singleInstance.h"
#include "channels/exception.h"
#include "tests/support/testSupport.h"

#include <gmock/gmock.h>

#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <sstream>

using namespace app;
using testing::ThrowsMessage;
using testing_support::Gate;
using testing_support::TempDir;
namespace fs = std::filesystem;

namespace {

// An output stream that opens a gate once a text has arrived.
class WatchedBuffer : public std::stringbuf {
public:
    WatchedBuffer(std::string awaited, Gate& gate) : m_awaited(std::move(awaited)), m_gate(gate) {}

protected:
    int sync() override {
        if (str().find(m_awaited) != std::string::npos)
            m_gate.open();
        return 0;
    }

private:
    std::string m_awaited;
    Gate& m_gate;
};

int noCommands(const HandedOverCommand&, std::ostream&, std::ostream&, std::stop_token) {
    return 99;
}

// Waits until stop is requested, the way an update waits for the worker.
int waitForStop(std::stop_token stop) {
    std::mutex mutex;
    std::condition_variable_any never;
    std::unique_lock lock(mutex);
    never.wait(lock, stop, [] { return false; });
    return 7;
}

} // namespace

// A user directory too deep for a socket address is served all the same.
TEST(SingleInstance, OneHolderAtATimeServesAndTheLockGoesWithItsHolder) {
    TempDir dir;
    const fs::path deep = dir.path() / std::string(60, 'd') / std::string(60, 'e');
    fs::create_directories(deep);
    for (const std::string& userDir : {dir.path().string(), deep.string()}) {
        SCOPED_TRACE(userDir);
        Gate shown;
        auto first = SingleInstance::tryLock(userDir);
        ASSERT_TRUE(first);
        EXPECT_FALSE(SingleInstance::tryLock(userDir));
        first->serve([&] { shown.open(); }, noCommands);
        EXPECT_EQ(fs::status(SingleInstance::socketPath(userDir)).permissions() & fs::perms::all,
                  fs::perms::owner_read | fs::perms::owner_write);
        EXPECT_TRUE(sendShowYourself(userDir));
        EXPECT_TRUE(shown.wait());
        first.reset();
        EXPECT_FALSE(fs::exists(SingleInstance::socketPath(userDir)));
        EXPECT_FALSE(sendShowYourself(userDir)) << "nobody serves any more";
        EXPECT_TRUE(SingleInstance::tryLock(userDir));
    }
}

TEST(SingleInstance, ASecondStartShowsTheRunningInstanceOrIsRefused) {
    TempDir dir;
    const std::string userDir = dir.path().string();
    Gate shown;
    auto running = SingleInstance::tryLock(userDir);
    ASSERT_TRUE(running);
    running->serve([&] { shown.open(); }, noCommands);

    const InstanceClaim claim = claimInstance(userDir, true, std::chrono::seconds(5));
    EXPECT_FALSE(claim.instance);
    EXPECT_TRUE(claim.shownOther);
    EXPECT_TRUE(shown.wait());
    EXPECT_THAT([&] { claimInstance(userDir, false, std::chrono::seconds(5)); },
                ThrowsMessage<channels::Exception>(
                    "Pelsu is already running for the user directory " + userDir + "."));
}

TEST(SingleInstance, AHolderThatDoesNotServeIsWaitedForThenNamed) {
    TempDir dir;
    const std::string userDir = dir.path().string();
    auto holder = SingleInstance::tryLock(userDir); // a pelsu-cli command running by itself
    ASSERT_TRUE(holder);
    EXPECT_THAT([&] { claimInstance(userDir, true, std::chrono::milliseconds(200)); },
                ThrowsMessage<channels::Exception>("Another Pelsu process is using the user "
                                                   "directory " +
                                                   userDir + "; try again when it has finished."));
    holder.reset();
    EXPECT_TRUE(claimInstance(userDir, true, std::chrono::milliseconds(200)).instance);
}

TEST(SingleInstance, HandedOverCommandsStreamTheirOutputAndStatusBack) {
    TempDir dir;
    const std::string userDir = dir.path().string();
    Gate firstLineArrived;
    HandedOverCommand seen;
    auto running = SingleInstance::tryLock(userDir);
    ASSERT_TRUE(running);
    running->serve([] {},
                   [&](const HandedOverCommand& command, std::ostream& out, std::ostream& err,
                       std::stop_token) {
                       seen = command;
                       out << "first line\n";
                       // The sender must have it before the command goes on: output is not held
                       // back.
                       if (!firstLineArrived.wait())
                           out << "the first line was held back\n";
                       err << "a warning\n";
                       out << "no newline at the end";
                       return 3;
                   });

    WatchedBuffer outBuffer("first line\n", firstLineArrived);
    std::ostream out(&outBuffer);
    std::ostringstream err;
    std::unique_ptr<SingleInstance> lock;
    const HandedOverCommand command{{"update", "a b", ""}, "/some/where"};
    const std::optional<int> status =
        handOverCommand(userDir, command, out, err, std::chrono::seconds(5), lock);
    EXPECT_EQ(status, 3);
    EXPECT_FALSE(lock);
    EXPECT_EQ(outBuffer.str(), "first line\nno newline at the end");
    EXPECT_EQ(err.str(), "a warning\n");
    EXPECT_EQ(seen.args, command.args);
    EXPECT_EQ(seen.workingDir, "/some/where");
}

TEST(SingleInstance, CommandsAreRefusedWhileTheInstanceStopsAndRunHereOnceItHasGone) {
    TempDir dir;
    const std::string userDir = dir.path().string();
    Gate started;
    std::atomic<int> calls{0};
    auto running = SingleInstance::tryLock(userDir);
    ASSERT_TRUE(running);
    running->serve(
        [] {},
        [&](const HandedOverCommand&, std::ostream& out, std::ostream&, std::stop_token stop) {
            ++calls;
            out << "waiting" << std::endl;
            started.open();
            return waitForStop(stop);
        });
    auto waiting = std::async(std::launch::async, [&] {
        std::ostringstream out, err;
        std::unique_ptr<SingleInstance> lock;
        return handOverCommand(userDir, {{"update"}, ""}, out, err, std::chrono::seconds(5), lock);
    });
    ASSERT_TRUE(started.wait());
    running->stopCommands();
    EXPECT_EQ(waiting.get(), 7) << "the waiting command ends when the instance stops";
    EXPECT_FALSE(sendShowYourself(userDir)) << "a start now waits to run in its place";

    std::ostringstream out, err;
    std::unique_ptr<SingleInstance> lock;
    EXPECT_THROW(handOverCommand(userDir, {{"remove", "x"}, ""}, out, err,
                                 std::chrono::milliseconds(300), lock),
                 channels::Exception)
        << "refused while the instance stops, and its lock is still held";
    running.reset();
    EXPECT_EQ(
        handOverCommand(userDir, {{"remove", "x"}, ""}, out, err, std::chrono::seconds(5), lock),
        std::nullopt);
    EXPECT_TRUE(lock) << "with the instance gone, the sender runs the command itself";
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(out.str(), "");
}
