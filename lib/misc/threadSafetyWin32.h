// Locks and waits with the process-wide thread-safety debugging timeout.
//
// When the debugging timeout is set (greater than 0), every lock acquisition and
// every wait that would otherwise block forever is bounded by it; running into the
// bound is treated as a deadlock and ends the program through the fatal handler
// (the message log installs its program abort there). When it is not set, locks
// and waits block without limit.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace threadSafety {

constexpr std::uint32_t INFINITE_WAIT = 0xFFFFFFFFu;
constexpr std::uint32_t WAIT_OBJECT_0 = 0x0u;
constexpr std::uint32_t WAIT_TIMEOUT = 0x102u;
constexpr std::uint32_t WAIT_FAILED = 0xFFFFFFFFu;

// The debugging timeout in seconds; below 0.0 means "not set" (the default -1.0).
float debuggingTimeout();
// Stores the timeout. Called once at start-up, before any worker thread exists.
void setDebuggingTimeout(float seconds);
// Applies the integer setting of the debug file: only values greater than 0 are taken.
void applyDebuggingTimeoutSetting(int seconds);

// Handler for fatal conditions (deadlock, failed wait). It must not return when it
// ends the program; if it returns, the caller carries on as best it can.
using FatalHandler = void (*)(const char* message, const char* function, const char* file,
                              unsigned line);
void setFatalHandler(FatalHandler handler);
void reportFatal(const char* message, const char* function, const char* file, unsigned line);

// A small number that identifies the calling thread in diagnostics.
unsigned long currentThreadId();

// Where a lock stands in the program's lock order: a thread takes plugin locks before
// channel locks, and channel locks before the channel manager's. Unranked locks are free.
enum class LockRank { None = 0, Plugin = 1, Channel = 2, Manager = 3 };
// When on, taking a ranked lock while the same thread holds one of a higher rank is reported
// through the fatal handler ("Lock order violated: Channel after ChannelManager."), whether
// or not the two threads would ever meet. Off by default; tests and debugging turn it on.
void setLockOrderChecking(bool on);

// Re-entrant mutual exclusion, one per guarded object.
class CriticalSection {
public:
    explicit CriticalSection(const char* name = "", LockRank rank = LockRank::None);
    ~CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    bool tryEnter();
    void enterBlocking();
    void leave();
    bool isLocked() const;
    // "[LOCKED]" or "[UNLOCKED]".
    std::string toString() const;
    const char* name() const { return m_name; }
    LockRank rank() const { return m_rank; }

private:
    friend std::string listLocks();
    const char* m_name;
    LockRank m_rank;
    std::recursive_mutex m_mutex;
    mutable std::mutex m_stateMutex;
    unsigned long m_owner = 0;
    unsigned m_count = 0;
};

// Returns when the calling thread owns the section (bounded by the debugging timeout).
void enterCriticalSection(CriticalSection& section);
void leaveCriticalSection(CriticalSection& section);

// Takes the section on construction, leaves it on destruction.
class ScopedLock {
public:
    explicit ScopedLock(CriticalSection& section) : m_section(section) {
        enterCriticalSection(m_section);
    }
    ~ScopedLock() { leaveCriticalSection(m_section); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    CriticalSection& m_section;
};

// Something a thread can wait for. Signal state changes are made under one
// process-wide mutex, which lets a thread wait for several objects at once.
class Waitable {
public:
    virtual ~Waitable() = default;

protected:
    friend class WaitAccess;
    // Both are called with the process-wide wait mutex held.
    virtual bool isSignaledLocked() const = 0;
    virtual void consumeLocked() {}
    static std::mutex& waitMutex();
    static void notifyAll();
};

// A manual-reset or auto-reset event.
class Event : public Waitable {
public:
    explicit Event(bool manualReset = true, bool initiallySet = false);
    void set();
    void reset();
    bool isSet() const;

protected:
    bool isSignaledLocked() const override { return m_set; }
    void consumeLocked() override {
        if (!m_manualReset)
            m_set = false;
    }

private:
    bool m_manualReset;
    bool m_set;
};

// Waits with the debugging-timeout rules; returns WAIT_OBJECT_0, WAIT_TIMEOUT or
// WAIT_FAILED (a null handle). A bounded infinite wait that runs out is fatal.
std::uint32_t waitForSingleObject(Waitable* handle, std::uint32_t timeoutMs);
// Returns WAIT_OBJECT_0 + index of the first signalled object (any), WAIT_OBJECT_0
// when all are signalled (waitAll), WAIT_TIMEOUT or WAIT_FAILED.
std::uint32_t waitForMultipleObjects(std::uint32_t count, Waitable* const* handles, bool waitAll,
                                     std::uint32_t timeoutMs);

// The locks held at this moment, for diagnostics.
std::string listLocks();

} // namespace threadSafety
