// The worker's blocking hand-off to the UI thread: the task is queued to the UI thread and the
// worker waits until it has run, unless the hand-off is closed first. Closing (at shut-down,
// before the UI thread waits for the worker) releases every waiting worker at once, and tasks
// still queued then never run, so the two threads never wait for each other.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace trayClient {

class CBlockingHandOff {
public:
    // Hands a task to the thread that will run it (for example a queued invocation). The task
    // keeps what it needs alive itself, so it may run after the hand-off is gone.
    using Post = std::function<void(std::function<void()>)>;

    explicit CBlockingHandOff(Post post);
    CBlockingHandOff(const CBlockingHandOff&) = delete;
    CBlockingHandOff& operator=(const CBlockingHandOff&) = delete;
    ~CBlockingHandOff(); // closes

    // Posts the task and waits until it has run (true) or the hand-off was closed (false). A
    // call after close returns false at once without posting. Never call it on the thread
    // that runs the tasks.
    bool run(std::function<void()> task);
    // Releases every waiting caller; tasks queued and not yet started never run, and later
    // calls of run return at once. A task running on another thread finishes first, so
    // nothing it touches goes away under it.
    void close();
    // Accepts calls again; tasks queued before the close still never run.
    void reopen();
    bool isClosed() const;
    // How many callers wait right now.
    int waiting() const;

private:
    struct State;
    std::shared_ptr<State> m_state;
    Post m_post;
};

} // namespace trayClient
