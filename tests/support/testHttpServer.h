// A real HTTP server on the loopback address for the tests, started and stopped by RAII.
#pragma once

#include <httplib.h>

#include <string>
#include <thread>

namespace testing_support {

class TestHttpServer {
public:
    // Set the handlers on server() first, then start(); port 0 picks a free port.
    explicit TestHttpServer(std::string host = "127.0.0.1") : m_host(std::move(host)) {
        // One request per connection: no idle connection keeps the server from stopping.
        m_server.set_keep_alive_max_count(1);
    }
    ~TestHttpServer() { stop(); }
    TestHttpServer(const TestHttpServer&) = delete;
    TestHttpServer& operator=(const TestHttpServer&) = delete;

    httplib::Server& server() { return m_server; }
    // Binds and serves on a thread of its own; returns false when the address can't be bound.
    bool start(int port = 0) {
        m_port = port == 0 ? m_server.bind_to_any_port(m_host.c_str())
                           : (m_server.bind_to_port(m_host.c_str(), port) ? port : -1);
        if (m_port < 0)
            return false;
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        while (!m_server.is_running())
            std::this_thread::yield();
        return true;
    }
    void stop() {
        if (m_thread.joinable()) {
            m_server.stop();
            m_thread.join();
        }
    }
    int port() const { return m_port; }
    std::string url(const std::string& path = "/") const {
        return "http://" + m_host + ":" + std::to_string(m_port) + path;
    }

private:
    std::string m_host;
    httplib::Server m_server;
    std::thread m_thread;
    int m_port = -1;
};

} // namespace testing_support
