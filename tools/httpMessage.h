// The HTTP messages of the local listeners: reading a request head, writing an answer.
#pragma once

#include "tools/localPortListener.h"

#include <string>

namespace tools {

// A parsed request head, or the refusal it earns.
struct ParsedHead {
    LocalRequest request;
    bool keepAlive = true;
    bool refused = false;
    LocalAnswer refusalAnswer;
};

// Where the request head ends (after its blank line), or npos while it is incomplete.
std::size_t headEnd(const std::string& buffer);
// The request head (request line and headers) checked against the limits, the port the
// Host must name and the methods served.
ParsedHead parseHead(const std::string& head, int port, const ListenerLimits& limits);
// A listener's own refusal: a fixed text, so nothing from the request is echoed.
LocalAnswer refusal(int status, const std::string& text);
// The answer as bytes on the wire.
std::string serialize(const LocalAnswer& answer, bool keepAlive);

} // namespace tools
