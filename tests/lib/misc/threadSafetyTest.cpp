#include "lib/log/log.h"
#include "lib/misc/threadSafetyWin32.h"
#include "tests/support/testSupport.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

using testing::HasSubstr;
using namespace threadSafety;
using testing_support::runInChild;

namespace {

// Restores the process-wide timeout after a test changes it.
struct TimeoutGuard {
    float saved = debuggingTimeout();
    ~TimeoutGuard() { setDebuggingTimeout(saved); }
};

// Holds a lock on another thread until released.
class Holder {
public:
    explicit Holder(CriticalSection& section) {
        m_thread = std::thread([&] {
            ScopedLock lock(section);
            m_held = true;
            m_release.wait(false);
        });
        while (!m_held)
            std::this_thread::yield();
    }
    ~Holder() {
        m_release = true;
        m_release.notify_all();
        m_thread.join();
    }

private:
    std::atomic<bool> m_held{false};
    std::atomic<bool> m_release{false};
    std::thread m_thread;
};

} // namespace

TEST(DebuggingTimeout, OnlyPositiveSettingsAreTakenAndFiniteWaitsStillTimeOut) {
    TimeoutGuard guard;
    setDebuggingTimeout(-1.0f);
    applyDebuggingTimeoutSetting(0);
    EXPECT_FLOAT_EQ(debuggingTimeout(), -1.0f);
    applyDebuggingTimeoutSetting(-3);
    EXPECT_FLOAT_EQ(debuggingTimeout(), -1.0f);
    applyDebuggingTimeoutSetting(5);
    EXPECT_FLOAT_EQ(debuggingTimeout(), 5.0f);
    // A finite wait times out as usual, even past the debugging timeout.
    setDebuggingTimeout(0.05f);
    Event event;
    EXPECT_EQ(waitForSingleObject(&event, 100), WAIT_TIMEOUT);
    Waitable* both[2] = {&event, &event};
    EXPECT_EQ(waitForMultipleObjects(2, both, false, 100), WAIT_TIMEOUT);
}

TEST(CriticalSection, IsReentrantAndShowsItsState) {
    CriticalSection section("test");
    EXPECT_EQ(section.toString(), "[UNLOCKED]");
    {
        ScopedLock outer(section);
        ScopedLock inner(section);
        EXPECT_EQ(section.toString(), "[LOCKED]");
    }
    EXPECT_EQ(section.toString(), "[UNLOCKED]");
}

// With no timeout, or one longer than the lock is held, a waiter waits without a report and
// then takes the lock.
TEST(CriticalSection, LockHeldShorterThanTheTimeoutOrWithoutOneIsWaitedForAndTaken) {
    for (const float timeout : {-1.0f, 5.0f}) {
        SCOPED_TRACE(timeout);
        TimeoutGuard guard;
        setDebuggingTimeout(timeout);
        CriticalSection section;
        std::atomic<bool> entered{false};
        std::thread waiter;
        {
            Holder holder(section);
            waiter = std::thread([&] {
                ScopedLock lock(section);
                entered = true;
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
            EXPECT_FALSE(entered);
        }
        waiter.join();
        EXPECT_TRUE(entered);
    }
}

namespace {

struct AbortCase {
    const char* what;
    std::function<void()> body;
    std::vector<std::string> reports; // parts of what the child writes to standard error
};

const std::vector<AbortCase>& abortCases() {
    static const std::vector<AbortCase> cases = {
        {"lock held elsewhere",
         [] {
             setDebuggingTimeout(0.3f);
             CriticalSection section;
             Holder holder(section);
             enterCriticalSection(section);
         },
         {"PROGRAM ABORT: EnterCriticalSection() timed out.\n", "threadSafetyWin32.cpp (line 71)"}},
        {"endless single wait",
         [] {
             setDebuggingTimeout(0.2f);
             Event event;
             waitForSingleObject(&event, INFINITE_WAIT);
         },
         {"PROGRAM ABORT: WaitForSingleObject() timed out.", "(line 100)"}},
        {"endless multiple wait",
         [] {
             setDebuggingTimeout(0.2f);
             Event a, b;
             Waitable* handles[2] = {&a, &b};
             waitForMultipleObjects(2, handles, true, INFINITE_WAIT);
         },
         {"PROGRAM ABORT: WaitForMultipleObjects() timed out."}},
        {"failed wait",
         [] { waitForSingleObject(nullptr, 10); },
         {"WaitForSingleObject() failed ; rc=4294967295"}},
    };
    return cases;
}

} // namespace

// Waits that the debugging timeout bounds, and waits that fail, end the program with a report
// of what timed out and where.
TEST(Waits, BoundedLocksAndWaitsAndFailedWaitsAbortWithTheirOwnMessages) {
    for (const AbortCase& abort : abortCases()) {
        SCOPED_TRACE(abort.what);
        const auto result = runInChild(abort.body);
        EXPECT_EQ(result.status, 1);
        for (const std::string& report : abort.reports)
            EXPECT_THAT(result.errorOutput, HasSubstr(report));
    }
}

TEST(Waits, EventsWakeWaitersAndAutoResetOnesAreConsumed) {
    Event manual(true), automatic(false);
    std::thread setter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        automatic.set();
    });
    Waitable* handles[2] = {&manual, &automatic};
    EXPECT_EQ(waitForMultipleObjects(2, handles, false, 5000), WAIT_OBJECT_0 + 1);
    setter.join();
    EXPECT_FALSE(automatic.isSet());

    manual.set();
    EXPECT_EQ(waitForSingleObject(&manual, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(manual.isSet());
    EXPECT_EQ(waitForMultipleObjects(2, handles, true, 50), WAIT_TIMEOUT);
    automatic.set();
    EXPECT_EQ(waitForMultipleObjects(2, handles, true, 50), WAIT_OBJECT_0);
}

TEST(LockListing, ShowsHoldersUnderTheExclusiveHeading) {
    CriticalSection section("listed lock");
    std::string idle = listLocks();
    EXPECT_EQ(idle.rfind("SHARED LOCKS:\n- None.\nEXCLUSIVE LOCKS:\n", 0), 0u) << idle;

    ScopedLock lock(section);
    const std::string listing = listLocks();
    char holder[32];
    std::snprintf(holder, sizeof holder, "<%08lx>", currentThreadId());
    EXPECT_THAT(listing, HasSubstr(std::string("- ") + holder + " listed lock"));
}

TEST(LockOrder, ALockTakenUnderOneOfAHigherRankIsReported) {
    auto result = runInChild([] {
        setLockOrderChecking(true);
        CriticalSection plugin("AppPlugin", LockRank::Plugin);
        CriticalSection channel("Channel", LockRank::Channel);
        CriticalSection manager("ChannelManager", LockRank::Manager);
        CriticalSection unranked("unranked");
        {
            ScopedLock first(plugin);
            ScopedLock second(channel);
            ScopedLock third(manager);
            ScopedLock free(unranked);
        }
        std::fputs("in order\n", stderr);
        ScopedLock third(manager);
        ScopedLock second(channel);
    });
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errorOutput.find("PROGRAM ABORT"),
              result.errorOutput.find("in order\nPROGRAM ABORT: Lock order violated: Channel "
                                      "after ChannelManager.\n") +
                  9)
        << result.errorOutput;
}
