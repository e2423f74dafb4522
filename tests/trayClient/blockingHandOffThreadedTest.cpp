// The worker's blocking hand-off to the UI thread: a task runs on the UI side while its caller
// waits, and closing releases every waiting caller at once, so shut-down never deadlocks.
#include "trayClient/blockingHandOff.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

using trayClient::CBlockingHandOff;

namespace {

// A stand-in for the UI thread's event queue: tasks wait until the owner runs them.
class TaskQueue {
public:
    void post(std::function<void()> task) {
        {
            std::lock_guard lock(m_mutex);
            m_tasks.push_back(std::move(task));
        }
        m_posted.notify_all();
    }
    // Runs the tasks waiting now; returns how many.
    int runPending() {
        std::deque<std::function<void()>> tasks;
        {
            std::lock_guard lock(m_mutex);
            tasks.swap(m_tasks);
        }
        for (auto& task : tasks)
            task();
        return static_cast<int>(tasks.size());
    }
    // Waits until at least count tasks are waiting.
    bool waitForPosted(std::size_t count) {
        std::unique_lock lock(m_mutex);
        return m_posted.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return m_tasks.size() >= count; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_posted;
    std::deque<std::function<void()>> m_tasks;
};

} // namespace

TEST(BlockingHandOff, EveryWorkerReturnsAfterItsTaskRanOnTheUiSide) {
    TaskQueue ui;
    CBlockingHandOff handOff([&](std::function<void()> task) { ui.post(std::move(task)); });
    const int workers = 8;
    const int callsEach = 200;
    int ranOnUi = 0; // touched only by the UI side
    std::atomic<int> completed{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int w = 0; w < workers; ++w)
        threads.emplace_back([&] {
            for (int call = 0; call < callsEach; ++call) {
                bool before = false;
                // The task's effect is visible to the caller once run returns.
                bool ran = handOff.run([&] {
                    ++ranOnUi;
                    before = true;
                });
                EXPECT_TRUE(ran);
                EXPECT_TRUE(before);
                ++completed;
            }
        });
    std::thread uiThread([&] {
        while (!stop)
            if (ui.runPending() == 0)
                std::this_thread::yield();
    });
    for (auto& thread : threads)
        thread.join();
    stop = true;
    uiThread.join();
    EXPECT_EQ(completed.load(), workers * callsEach);
    EXPECT_EQ(ranOnUi, workers * callsEach);
    EXPECT_EQ(handOff.waiting(), 0);
}

TEST(BlockingHandOff, CloseReleasesWaitingWorkersAndTheirTasksNeverRun) {
    TaskQueue ui;
    CBlockingHandOff handOff([&](std::function<void()> task) { ui.post(std::move(task)); });
    std::atomic<int> ran{0};
    std::vector<std::thread> workers;
    std::atomic<int> released{0};
    for (int w = 0; w < 4; ++w)
        workers.emplace_back([&] {
            EXPECT_FALSE(handOff.run([&] { ++ran; }));
            ++released;
        });
    // Every worker has posted and waits; the UI side runs nothing (it is shutting down).
    ASSERT_TRUE(ui.waitForPosted(4));
    handOff.close();
    for (auto& worker : workers)
        worker.join();
    EXPECT_EQ(released.load(), 4);
    // The tasks left in the UI queue do nothing when it finally runs them.
    EXPECT_EQ(ui.runPending(), 4);
    EXPECT_EQ(ran.load(), 0);
}

TEST(BlockingHandOff, CallsAfterCloseReturnAtOnceAndReopenAcceptsNewOnesButNeverStaleOnes) {
    TaskQueue ui;
    std::atomic<int> posted{0};
    CBlockingHandOff handOff([&](std::function<void()> task) {
        ++posted;
        ui.post(std::move(task));
    });
    handOff.close();
    EXPECT_FALSE(handOff.run([] {}));
    EXPECT_EQ(posted.load(), 0);

    // A task posted before a close never runs, not even after a reopen.
    handOff.reopen();
    std::atomic<bool> staleRan{false};
    std::thread stale([&] { EXPECT_FALSE(handOff.run([&] { staleRan = true; })); });
    ASSERT_TRUE(ui.waitForPosted(1));
    handOff.close();
    stale.join();
    handOff.reopen();
    std::atomic<bool> ran{false};
    std::thread worker([&] { EXPECT_TRUE(handOff.run([&] { ran = true; })); });
    ASSERT_TRUE(ui.waitForPosted(2));
    ui.runPending();
    worker.join();
    EXPECT_TRUE(ran);
    EXPECT_FALSE(staleRan);
}

TEST(BlockingHandOff, CloseWaitsForATaskThatIsRunning) {
    TaskQueue ui;
    CBlockingHandOff handOff([&](std::function<void()> task) { ui.post(std::move(task)); });
    std::mutex gate;
    std::condition_variable changed;
    bool taskStarted = false;
    bool letTaskEnd = false;
    std::atomic<bool> taskEnded{false};
    std::thread worker([&] {
        handOff.run([&] {
            std::unique_lock lock(gate);
            taskStarted = true;
            changed.notify_all();
            changed.wait(lock, [&] { return letTaskEnd; });
            taskEnded = true;
        });
    });
    ASSERT_TRUE(ui.waitForPosted(1));
    std::thread uiThread([&] { ui.runPending(); });
    {
        std::unique_lock lock(gate);
        changed.wait(lock, [&] { return taskStarted; });
    }
    std::thread closer([&] {
        handOff.close();
        // Whatever the task used is still there while it runs.
        EXPECT_TRUE(taskEnded);
    });
    {
        std::lock_guard lock(gate);
        letTaskEnd = true;
    }
    changed.notify_all();
    closer.join();
    uiThread.join();
    worker.join();
}
