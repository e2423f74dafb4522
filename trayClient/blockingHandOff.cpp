#include "trayClient/blockingHandOff.h"

namespace trayClient {

struct CBlockingHandOff::State {
    std::mutex mutex;
    std::condition_variable changed;
    bool closed = false;
    // Tasks carry the generation they were posted in; a close starts a new one.
    unsigned generation = 0;
    int waiting = 0;
    bool taskRunning = false;
    std::thread::id taskThread;
};

CBlockingHandOff::CBlockingHandOff(Post post)
    : m_state(std::make_shared<State>()), m_post(std::move(post)) {}

CBlockingHandOff::~CBlockingHandOff() { close(); }

bool CBlockingHandOff::run(std::function<void()> task) {
    auto state = m_state;
    auto done = std::make_shared<bool>(false);
    unsigned generation = 0;
    {
        std::lock_guard lock(state->mutex);
        if (state->closed)
            return false;
        generation = state->generation;
        ++state->waiting;
    }
    m_post([state, done, generation, task = std::move(task)] {
        {
            std::lock_guard lock(state->mutex);
            if (state->closed || state->generation != generation)
                return;
            state->taskRunning = true;
            state->taskThread = std::this_thread::get_id();
        }
        task();
        {
            std::lock_guard lock(state->mutex);
            state->taskRunning = false;
            *done = true;
        }
        state->changed.notify_all();
    });
    std::unique_lock lock(state->mutex);
    state->changed.wait(lock, [&] { return *done || state->generation != generation; });
    --state->waiting;
    return *done;
}

void CBlockingHandOff::close() {
    std::unique_lock lock(m_state->mutex);
    m_state->closed = true;
    ++m_state->generation;
    m_state->changed.notify_all();
    // A close from inside a running task (a nested event loop) must not wait for itself.
    if (m_state->taskThread != std::this_thread::get_id())
        m_state->changed.wait(lock, [this] { return !m_state->taskRunning; });
}

void CBlockingHandOff::reopen() {
    std::lock_guard lock(m_state->mutex);
    m_state->closed = false;
}

bool CBlockingHandOff::isClosed() const {
    std::lock_guard lock(m_state->mutex);
    return m_state->closed;
}

int CBlockingHandOff::waiting() const {
    std::lock_guard lock(m_state->mutex);
    return m_state->waiting;
}

} // namespace trayClient
