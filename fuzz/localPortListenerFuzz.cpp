// Any bytes sent to the local listeners, over a real connection: the first byte picks the
// listener, "{P}" in the rest stands for its port (so that requests can pass the Host check).
// Every connection ends, and whatever comes back is an HTTP answer.

#include "app/localPortListeners.h"
#include "channels/appPluginManager.h"
#include "channels/channelManager.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Subscriptions are parsed and checked, then refused: the fuzzer writes no channel files.
class Refuser : public app::SubscriptionApprover {
public:
    std::string approveSubscription(const std::string&) override { return "no"; }
};

struct Servers {
    Servers() {
        const std::string dir = "/tmp/pelsu-fuzz-listeners-" + std::to_string(::getpid());
        std::filesystem::create_directories(dir);
        manager =
            std::make_unique<channels::ChannelManager>(dir, channels::ChannelManagerOptions{});
        listeners = std::make_unique<app::LocalPortListeners>(*manager, plugins, &refuser);
        app::LocalPortListenerOptions options;
        options.appServerPort = options.appPluginServerPort = 0;
        options.amphetaDesk = options.radioUserland = options.headlineViewer = true;
        options.amphetaDeskPort = options.radioUserlandPort = options.headlineViewerPort = 0;
        if (!listeners->start(options).empty())
            std::abort();
    }
    channels::AppPluginManager plugins;
    Refuser refuser;
    std::unique_ptr<channels::ChannelManager> manager;
    std::unique_ptr<app::LocalPortListeners> listeners;
};

std::string withPort(std::string text, int port) {
    for (std::size_t at; (at = text.find("{P}")) != std::string::npos;)
        text.replace(at, 3, std::to_string(port));
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Servers servers;
    static const char* const names[] = {"app server", "app-plugin server", "AmphetaDesk listener",
                                        "Radio Userland listener", "Headline Viewer listener"};
    if (size == 0 || size > 65536)
        return 0;
    const int port = servers.listeners->port(names[data[0] % 5]);
    const std::string request =
        withPort(std::string(reinterpret_cast<const char*>(data) + 1, size - 1), port);

    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 && errno != EINTR)
        std::abort();
    for (std::size_t sent = 0; sent < request.size();) {
        const ssize_t count =
            ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break; // the server may close early, having refused the request
        sent += static_cast<std::size_t>(count);
    }
    ::shutdown(fd, SHUT_WR);
    // The server must answer what it understood and then close: the client has said all.
    std::string answer;
    char buffer[4096];
    for (;;) {
        pollfd entry{fd, POLLIN, 0};
        int ready;
        // libFuzzer's timer signal interrupts waits now and then.
        while ((ready = ::poll(&entry, 1, 5000)) < 0 && errno == EINTR) {
        }
        if (ready <= 0)
            std::abort(); // the connection hangs
        const ssize_t count = ::recv(fd, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        answer.append(buffer, static_cast<std::size_t>(count));
    }
    // Closed with a reset: thousands of connections a second would otherwise use up the
    // loopback's ports in TIME_WAIT, and new connections would stall for seconds.
    const linger reset{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    ::close(fd);
    if (!answer.empty() && answer.rfind("HTTP/1.1 ", 0) != 0)
        std::abort();
    return 0;
}
