// One running instance per user directory. The instance (a pelsu or a pelsu-cli run) holds an
// flock on "<userDir>/pelsu.lock" and serves the Unix-domain socket "<userDir>/pelsu.socket" on
// a thread of its own. Other processes of the user talk to it over the socket: a second start
// asks it to show its main window, and pelsu-cli hands it the commands that change channels,
// which then run on the instance's own channel manager, so that no process undoes another's
// changes. The lock goes with the process that holds it, however it ends; a socket left behind
// by a killed process answers nobody and is replaced by the next instance.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <stop_token>
#include <string>
#include <vector>

namespace app {

constexpr int kShowYourselfCommand = 32844;

// A command line handed over by another process.
struct HandedOverCommand {
    std::vector<std::string> args; // the command's name, then its arguments
    std::string workingDir;        // the sender's, against which relative file names resolve
};

// Carries out a handed-over command in the instance: writes to out and err as it goes (what
// is written reaches the sender at each newline and flush) and returns the exit status. A
// command that waits (an update) gives up when stop is requested: the instance is stopping.
using CommandHandler = std::function<int(const HandedOverCommand& command, std::ostream& out,
                                         std::ostream& err, std::stop_token stop)>;

class SingleInstance {
public:
    static std::string lockPath(const std::string& userDir);
    static std::string socketPath(const std::string& userDir);

    // Takes the user directory's lock without waiting; null when another process holds it.
    // Throws channels::Exception when the lock file can't be opened.
    static std::unique_ptr<SingleInstance> tryLock(const std::string& userDir);

    // Stops serving (as stopCommands), removes the socket and releases the lock.
    ~SingleInstance();
    SingleInstance(const SingleInstance&) = delete;
    SingleInstance& operator=(const SingleInstance&) = delete;

    // Serves the socket on a thread of its own: "show yourself" calls onShow on that thread;
    // each command runs through onCommand on a thread of its own, one command at a time.
    // Replaces a socket file left behind. Throws channels::Exception when it can't listen.
    void serve(std::function<void()> onShow, CommandHandler onCommand);
    // From now on commands and "show yourself" are refused (their senders wait for the lock
    // and then run the command, or start, themselves); asks the running command to stop and
    // waits for it to end. Safe to call twice.
    void stopCommands();

    const std::string& userDir() const { return m_userDir; }

private:
    SingleInstance(std::string userDir, int lockFd);
    struct Server;
    std::string m_userDir;
    int m_lockFd = -1;
    std::unique_ptr<Server> m_server;
};

// Asks the instance serving the user directory to show its main window; false when no
// instance answers.
bool sendShowYourself(const std::string& userDir);

// What a process that means to be the instance (pelsu, pelsu-cli run) gets.
struct InstanceClaim {
    std::unique_ptr<SingleInstance> instance; // the lock is ours
    bool shownOther = false;                  // or: the running instance was told to show itself
};
// Takes the lock; when another instance serves the socket and showOther is set, tells it to
// show itself instead. A process that holds the lock without serving (a pelsu-cli command
// that changes channels) is waited for up to wait. Throws channels::Exception ("Another Pelsu
// process is using the user directory" and the directory) when the lock stays taken.
InstanceClaim claimInstance(const std::string& userDir, bool showOther,
                            std::chrono::milliseconds wait);

// For a command that changes channels: hands it to the running instance when one serves the
// socket, streaming its output to out and err as it comes, and returns its exit status;
// otherwise takes the lock (waiting up to wait for another holder, then throwing as
// claimInstance) and returns no status with lock set, for the caller to run the command itself
// while it holds the lock.
std::optional<int> handOverCommand(const std::string& userDir, const HandedOverCommand& command,
                                   std::ostream& out, std::ostream& err,
                                   std::chrono::milliseconds wait,
                                   std::unique_ptr<SingleInstance>& lock);

} // namespace app
