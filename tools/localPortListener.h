// A small HTTP server on a port of the loopback address. One thread watches every connection
// (so an idle or slow client costs a connection slot, never a thread), and a few worker
// threads run the handler on complete requests. Only GET requests whose Host names
// 127.0.0.1 or localhost with this port reach the handler; the request head, the number of
// headers and the number of connections are bounded.
#pragma once

#include "tools/exception.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace tools {

struct LocalRequest {
    std::string target; // as sent: "/path?query"
    std::string path;   // the target up to the first "?"
    std::string query;  // what follows the first "?", still encoded
    std::string host;   // the Host header: "127.0.0.1:PORT" or "localhost:PORT"
    std::string origin; // the Origin and Referer headers, empty when not sent
    std::string referer;
};

struct LocalAnswer {
    int status = 200;
    std::string contentType = "text/html; charset=ISO-8859-1";
    std::string body;
};

// Runs on a worker thread; an exception becomes a 500 answer carrying its message.
using RequestHandler = std::function<LocalAnswer(const LocalRequest&)>;

struct ListenerLimits {
    std::size_t maxHeadBytes = 8192;  // request line and headers together
    std::size_t maxHeaders = 64;      // header lines
    std::size_t maxConnections = 256; // more are answered 503 and closed
    unsigned workers = 4;             // requests handled at once
    int headTimeoutMs = 10000;        // a request begun must be whole by then
    int idleTimeoutMs = 60000;        // a kept-alive connection that says nothing
    int writeTimeoutMs = 30000;       // a client that does not read its answer
};

class LocalPortListener {
public:
    // name appears in messages ("app server"); port 0 takes any free port.
    LocalPortListener(std::string name, int port, RequestHandler handler,
                      ListenerLimits limits = {});
    ~LocalPortListener();
    LocalPortListener(const LocalPortListener&) = delete;
    LocalPortListener& operator=(const LocalPortListener&) = delete;

    // Binds 127.0.0.1:port and starts the threads. Throws tools::Exception
    // ("Can't listen on 127.0.0.1:2605 (app-plugin server): Address already in use").
    void start();
    // Closes every connection and joins the threads; a handler running ends first.
    void stop();
    bool isRunning() const;
    // The bound port (the one chosen when 0 was asked for).
    int port() const;
    const std::string& name() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace tools
