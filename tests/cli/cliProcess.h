// pelsu-cli as a real process on a temporary home, for the tests of the command line.
#pragma once

#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace cli_testing {

using namespace std::chrono_literals;
using testing_support::TempDir;

// A pelsu-cli process on the home whose standard output and error are read as they come.
class CliProcess {
public:
    CliProcess(const TempDir& home, std::vector<std::string> args,
               const std::string& workingDir = "") {
        const std::string program = testing_support::pelsuCli();
        args.insert(args.begin(), {program, "--home", home.path().string()});
        std::vector<char*> argv;
        for (std::string& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
        posix_spawn_file_actions_adddup2(&actions, ends[1], 2);
        if (!workingDir.empty())
            posix_spawn_file_actions_addchdir_np(&actions, workingDir.c_str());
        EXPECT_EQ(::posix_spawn(&m_pid, program.c_str(), &actions, nullptr, argv.data(), environ),
                  0);
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        m_reader = std::thread([this, fd = ends[0]] { read(fd); });
    }
    ~CliProcess() { finish(1s); }
    CliProcess(const CliProcess&) = delete;
    CliProcess& operator=(const CliProcess&) = delete;

    // True when the output holds the text within the limit.
    bool waitFor(const std::string& text, std::chrono::seconds limit = 20s) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, limit,
                                  [&] { return m_output.find(text) != std::string::npos; });
    }
    std::string output() const {
        std::lock_guard guard(m_mutex);
        return m_output;
    }
    void signal(int number) { ::kill(m_pid, number); }
    // Waits for the end (killing the process after the limit): its exit status, or 128 and
    // the signal that ended it.
    int finish(std::chrono::seconds limit = 20s) {
        if (m_status >= 0)
            return m_status;
        {
            std::unique_lock lock(m_mutex);
            if (!m_changed.wait_for(lock, limit, [&] { return m_ended; })) {
                ADD_FAILURE() << "pelsu-cli did not end in time; its output:\n" << m_output;
                ::kill(m_pid, SIGKILL);
            }
        }
        m_reader.join();
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return m_status;
    }

private:
    void read(int fd) {
        char buffer[4096];
        for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) != 0;) {
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                break;
            std::lock_guard guard(m_mutex);
            m_output.append(buffer, static_cast<std::size_t>(got));
            m_changed.notify_all();
        }
        ::close(fd);
        std::lock_guard guard(m_mutex);
        m_ended = true;
        m_changed.notify_all();
    }

    pid_t m_pid = -1;
    int m_status = -1;
    std::thread m_reader;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_output;
    bool m_ended = false;
};

struct Finished {
    int status;
    std::string out; // standard output and error together
};

// Runs pelsu-cli on the home to its end.
inline Finished cli(const TempDir& home, std::vector<std::string> args,
                    const std::string& workingDir = "") {
    CliProcess process(home, std::move(args), workingDir);
    const int status = process.finish();
    return {status, process.output()};
}

// The user directory of a home, created by a first run.
inline std::filesystem::path userDir(const TempDir& home) {
    if (!std::filesystem::exists(home.file("Users"))) {
        EXPECT_EQ(cli(home, {"list"}).status, 0);
    }
    return std::filesystem::directory_iterator(home.file("Users"))->path();
}

} // namespace cli_testing
