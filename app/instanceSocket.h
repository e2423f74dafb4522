// The conversation on the single instance's socket: one request per connection ("show
// yourself", or a command line with the sender's working directory), answered by frames of
// output, then the exit status. Both ends run on one machine, so numbers go in its own order.
#pragma once

#include "app/singleInstance.h"
#include "lib/misc/descriptor.h"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <streambuf>
#include <string>
#include <sys/un.h>

namespace app::instanceSocket {

// A frame is a type byte, a 32-bit length and the payload.
enum Frame : char {
    kWindowCommand = 'S', // -> a command for the main window, as a 32-bit number
    kCommand = 'C',       // -> a command: the working directory, then the arguments
    kShown = 'A',         // <- the window was asked to show
    kOut = 'O',           // <- standard output
    kErr = 'E',           // <- standard error
    kExit = 'X',          // <- the exit status, as a 32-bit integer; the last frame
    kRefused = 'R',       // <- the instance is stopping: run the command yourself
};

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

// False when the peer has gone.
bool sendFrame(int fd, char type, const std::string& payload);
// False when the peer went, the frame is too large or the deadline passed.
bool readFrame(int fd, char& type, std::string& payload, Deadline deadline = std::nullopt);

std::string encodeCommand(const HandedOverCommand& command);
// False when the payload is not a command line.
bool decodeCommand(const std::string& payload, HandedOverCommand& command);

// The socket's address. A path too long for an address is reached through the user
// directory's descriptor, which the address then names under /proc/self/fd.
struct SocketAddress {
    sockaddr_un address{};
    misc::Descriptor directory;
};
void fillAddress(SocketAddress& target, const std::string& userDir);
// A connection to the instance serving the user directory, or -1 when none answers.
int connectToInstance(const std::string& userDir);

// Whether the peer of fd closed its end within the time (-1: until wake becomes readable).
bool hungUp(int fd, int timeoutMs, int wake = -1);

// Output written by a handed-over command, sent to its sender at each newline and flush. The
// command's own thread and the worker (an update's progress) may both write; sendLock keeps
// their frames whole.
class FrameBuffer : public std::streambuf {
public:
    FrameBuffer(int fd, char type, std::mutex& sendLock)
        : m_fd(fd), m_type(type), m_sendLock(sendLock) {}

protected:
    int overflow(int c) override;
    std::streamsize xsputn(const char* data, std::streamsize size) override;
    int sync() override;

private:
    void sendPending();
    int m_fd;
    char m_type;
    std::mutex& m_sendLock;
    std::string m_pending;
    bool m_broken = false;
};

} // namespace app::instanceSocket
