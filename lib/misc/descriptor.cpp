#include "lib/misc/descriptor.h"

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace misc {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other)
        reset(other.release());
    return *this;
}

void Descriptor::reset(int fd) {
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = fd;
}

int Descriptor::release() {
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

ChildProcess::~ChildProcess() {
    if (m_pid > 0)
        killAndReap();
}

bool ChildProcess::reapIfEnded(int& status, bool& failed) {
    const pid_t done = ::waitpid(m_pid, &status, WNOHANG);
    failed = done < 0;
    if (done != m_pid)
        return false;
    m_pid = -1;
    return true;
}

int ChildProcess::killAndReap() {
    int status = 0;
    if (m_pid <= 0)
        return status;
    // The group, so that what the child started goes too; the child alone if it has none yet.
    if (::kill(-m_pid, SIGKILL) != 0)
        ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, &status, 0);
    m_pid = -1;
    return status;
}

} // namespace misc
