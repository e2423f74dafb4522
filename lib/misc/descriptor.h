// Owners of the operating system's handles: a descriptor closed when its owner goes, and a
// child process killed and reaped when its owner goes before it has been waited for.
#pragma once

#include <sys/types.h>

namespace misc {

class Descriptor {
public:
    Descriptor() = default;
    // Takes fd (a negative one means none).
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : m_fd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    // Closes the descriptor held, if any, and takes fd.
    void reset(int fd = -1);
    // Hands the descriptor over to the caller, who closes it.
    int release();

private:
    int m_fd = -1;
};

// A child that leads its own process group.
class ChildProcess {
public:
    explicit ChildProcess(pid_t pid) : m_pid(pid) {}
    // Kills and reaps a child not reaped yet, so that none is left behind on any path.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Reaps the child if it has ended, without waiting: true with its wait status then;
    // failed is set when the child can't be waited for.
    bool reapIfEnded(int& status, bool& failed);
    // Kills the child's whole process group and waits for the child; its wait status.
    int killAndReap();

private:
    pid_t m_pid;
};

} // namespace misc
