#include "lib/misc/threadSafetyWin32.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace threadSafety {

namespace {

// Report positions of the fatal conditions, kept stable so that an abort report
// can be matched to its cause whatever else changes in this file.
constexpr unsigned kEnterTimedOutLine = 71;
constexpr unsigned kWaitTimedOutLine = 100;
constexpr unsigned kWaitFailedLine = 102;

float g_debuggingTimeout = -1.0f;

void defaultFatalHandler(const char* message, const char* function, const char* file,
                         unsigned line) {
    std::fprintf(stderr, "PROGRAM ABORT: %s\n", message);
    if (function)
        std::fprintf(stderr, "- FUNCTION: %s()\n", function);
    std::fprintf(stderr, "- FILE:     %s (line %u)\n", file ? file : "<unknown>", line);
    std::fflush(stderr);
    std::_Exit(1);
}

std::atomic<FatalHandler> g_fatalHandler{&defaultFatalHandler};

std::uint32_t tickCount() {
    using namespace std::chrono;
    return static_cast<std::uint32_t>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

// Every live critical section, so that the listing can show who holds what.
struct LockRegistry {
    std::mutex mutex;
    std::set<CriticalSection*> sections;
};
LockRegistry& lockRegistry() {
    static LockRegistry* registry = new LockRegistry; // outlives static destructors
    return *registry;
}

std::atomic<bool> g_checkLockOrder{false};

// The ranked locks the calling thread holds, in the order taken (one entry per entry).
std::vector<const CriticalSection*>& heldRankedLocks() {
    thread_local std::vector<const CriticalSection*> held;
    return held;
}

void checkLockOrder(const CriticalSection& section) {
    auto& held = heldRankedLocks();
    if (std::find(held.begin(), held.end(), &section) == held.end())
        for (const CriticalSection* other : held)
            if (other->rank() > section.rank()) {
                const std::string message = std::string("Lock order violated: ") + section.name() +
                                            " after " + other->name() + ".";
                reportFatal(message.c_str(), nullptr, __FILE__, __LINE__);
                break;
            }
    held.push_back(&section);
}

void forgetHeldLock(const CriticalSection& section) {
    auto& held = heldRankedLocks();
    const auto it = std::find(held.rbegin(), held.rend(), &section);
    if (it != held.rend())
        held.erase(std::next(it).base());
}

std::string formatThreadId(unsigned long id) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "<%08lx>", id);
    return buffer;
}

} // namespace

float debuggingTimeout() { return g_debuggingTimeout; }
void setDebuggingTimeout(float seconds) { g_debuggingTimeout = seconds; }
void applyDebuggingTimeoutSetting(int seconds) {
    if (seconds > 0)
        g_debuggingTimeout = static_cast<float>(seconds);
}

void setFatalHandler(FatalHandler handler) {
    g_fatalHandler = handler ? handler : &defaultFatalHandler;
}
void reportFatal(const char* message, const char* function, const char* file, unsigned line) {
    g_fatalHandler.load()(message, function, file, line);
}

unsigned long currentThreadId() {
    thread_local unsigned long id = static_cast<unsigned long>(::syscall(SYS_gettid));
    return id;
}

void setLockOrderChecking(bool on) { g_checkLockOrder = on; }

CriticalSection::CriticalSection(const char* name, LockRank rank)
    : m_name(name ? name : ""), m_rank(rank) {
    auto& registry = lockRegistry();
    std::lock_guard guard(registry.mutex);
    registry.sections.insert(this);
}

CriticalSection::~CriticalSection() {
    auto& registry = lockRegistry();
    std::lock_guard guard(registry.mutex);
    registry.sections.erase(this);
}

bool CriticalSection::tryEnter() {
    if (!m_mutex.try_lock())
        return false;
    std::lock_guard guard(m_stateMutex);
    m_owner = currentThreadId();
    ++m_count;
    return true;
}

void CriticalSection::enterBlocking() {
    m_mutex.lock();
    std::lock_guard guard(m_stateMutex);
    m_owner = currentThreadId();
    ++m_count;
}

void CriticalSection::leave() {
    {
        std::lock_guard guard(m_stateMutex);
        if (m_count > 0 && --m_count == 0)
            m_owner = 0;
    }
    m_mutex.unlock();
}

bool CriticalSection::isLocked() const {
    std::lock_guard guard(m_stateMutex);
    return m_count > 0;
}

std::string CriticalSection::toString() const { return isLocked() ? "[LOCKED]" : "[UNLOCKED]"; }

void enterCriticalSection(CriticalSection& section) {
    if (section.rank() != LockRank::None && g_checkLockOrder)
        checkLockOrder(section);
    const float timeout = g_debuggingTimeout;
    if (timeout < 0.0f) {
        section.enterBlocking();
        return;
    }
    if (section.tryEnter())
        return;
    const std::uint32_t start = tickCount();
    const auto limit = static_cast<std::uint32_t>(timeout * 1000.0f);
    // Deliberately a spin that only yields: this path is a debugging aid.
    std::uint32_t elapsed = tickCount() - start;
    while (elapsed < limit) {
        if (section.tryEnter())
            return;
        std::this_thread::yield();
        elapsed = tickCount() - start;
    }
    reportFatal("EnterCriticalSection() timed out.", nullptr, __FILE__, kEnterTimedOutLine);
    // Back here only when another report is already ending the process: the caller still
    // gets the lock it asked for, or waits for it, as a lock without a time-out would.
    section.enterBlocking();
}

void leaveCriticalSection(CriticalSection& section) {
    if (section.rank() != LockRank::None)
        forgetHeldLock(section);
    section.leave();
}

namespace {
std::condition_variable& waitCondition() {
    static auto* condition = new std::condition_variable;
    return *condition;
}
} // namespace

class WaitAccess {
public:
    static bool signaled(const Waitable* handle) { return handle->isSignaledLocked(); }
    static void consume(Waitable* handle) { handle->consumeLocked(); }
    static std::mutex& mutex() { return Waitable::waitMutex(); }
};

std::mutex& Waitable::waitMutex() {
    static auto* mutex = new std::mutex;
    return *mutex;
}

void Waitable::notifyAll() { waitCondition().notify_all(); }

Event::Event(bool manualReset, bool initiallySet)
    : m_manualReset(manualReset), m_set(initiallySet) {}

void Event::set() {
    std::lock_guard guard(waitMutex());
    m_set = true;
    notifyAll();
}

void Event::reset() {
    std::lock_guard guard(waitMutex());
    m_set = false;
}

bool Event::isSet() const {
    std::lock_guard guard(waitMutex());
    return m_set;
}

namespace {

// The wait itself: returns the index of the satisfying object, or -1 on time-out.
int waitLocked(std::unique_lock<std::mutex>& lock, std::uint32_t count, Waitable* const* handles,
               bool waitAll, bool infinite, std::uint32_t timeoutMs) {
    const auto signaled = &WaitAccess::signaled;
    const auto consume = &WaitAccess::consume;
    auto satisfied = [&]() -> int {
        if (waitAll) {
            for (std::uint32_t i = 0; i < count; ++i)
                if (!signaled(handles[i]))
                    return -1;
            for (std::uint32_t i = 0; i < count; ++i)
                consume(handles[i]);
            return 0;
        }
        for (std::uint32_t i = 0; i < count; ++i)
            if (signaled(handles[i])) {
                consume(handles[i]);
                return static_cast<int>(i);
            }
        return -1;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (int index = satisfied(); index >= 0)
            return index;
        if (infinite)
            waitCondition().wait(lock);
        else if (waitCondition().wait_until(lock, deadline) == std::cv_status::timeout)
            return satisfied();
    }
}

std::uint32_t doWait(std::uint32_t count, Waitable* const* handles, bool waitAll,
                     std::uint32_t timeoutMs, const char* timedOutMessage,
                     const char* failedMessage) {
    bool limitFromDebugging = false;
    if (timeoutMs == INFINITE_WAIT && g_debuggingTimeout >= 0.0f) {
        timeoutMs = static_cast<std::uint32_t>(g_debuggingTimeout * 1000.0f);
        limitFromDebugging = true;
    }
    std::uint32_t result = WAIT_FAILED;
    bool valid = count > 0 && handles != nullptr;
    for (std::uint32_t i = 0; valid && i < count; ++i)
        valid = handles[i] != nullptr;
    if (valid) {
        std::unique_lock lock(WaitAccess::mutex());
        const int index =
            waitLocked(lock, count, handles, waitAll, timeoutMs == INFINITE_WAIT, timeoutMs);
        result = index < 0 ? WAIT_TIMEOUT : WAIT_OBJECT_0 + static_cast<std::uint32_t>(index);
    }
    if (result == WAIT_TIMEOUT && limitFromDebugging)
        reportFatal(timedOutMessage, nullptr, __FILE__, kWaitTimedOutLine);
    if (result == WAIT_FAILED) {
        const std::string text = std::string(failedMessage) + std::to_string(result);
        reportFatal(text.c_str(), nullptr, __FILE__, kWaitFailedLine);
    }
    return result;
}

} // namespace

std::uint32_t waitForSingleObject(Waitable* handle, std::uint32_t timeoutMs) {
    Waitable* handles[1] = {handle};
    return doWait(1, handles, false, timeoutMs, "WaitForSingleObject() timed out.",
                  "WaitForSingleObject() failed ; rc=");
}

std::uint32_t waitForMultipleObjects(std::uint32_t count, Waitable* const* handles, bool waitAll,
                                     std::uint32_t timeoutMs) {
    return doWait(count, handles, waitAll, timeoutMs, "WaitForMultipleObjects() timed out.",
                  "WaitForMultipleObjects() failed ; rc=");
}

std::string listLocks() {
    std::ostringstream out;
    out << "SHARED LOCKS:\n- None.\n";
    out << "EXCLUSIVE LOCKS:\n";
    bool any = false;
    auto& registry = lockRegistry();
    std::lock_guard guard(registry.mutex);
    for (CriticalSection* section : registry.sections) {
        std::lock_guard state(section->m_stateMutex);
        if (section->m_count == 0)
            continue;
        any = true;
        out << "- " << formatThreadId(section->m_owner) << ' '
            << (*section->m_name ? section->m_name : "(unnamed)") << " (depth " << section->m_count
            << ")\n";
    }
    if (!any)
        out << "- None.\n";
    return out.str();
}

} // namespace threadSafety
