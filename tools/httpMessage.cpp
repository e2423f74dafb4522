#include "tools/httpMessage.h"

#include "lib/misc/text.h"

#include <vector>

namespace tools {

namespace {

const char* reasonPhrase(int status) {
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 408:
        return "Request Timeout";
    case 414:
        return "URI Too Long";
    case 429:
        return "Too Many Requests";
    case 431:
        return "Request Header Fields Too Large";
    case 500:
        return "Internal Server Error";
    case 503:
        return "Service Unavailable";
    default:
        return "Unknown";
    }
}

ParsedHead refuse(int status, const std::string& text) {
    ParsedHead parsed;
    parsed.refused = true;
    parsed.keepAlive = false;
    parsed.refusalAnswer = refusal(status, text);
    return parsed;
}

bool isAllowedHost(const std::string& host, int port) {
    const std::string value = misc::lowered(misc::trimmed(host));
    const std::string suffix = ":" + std::to_string(port);
    return value == "127.0.0.1" + suffix || value == "localhost" + suffix;
}

} // namespace

LocalAnswer refusal(int status, const std::string& text) {
    LocalAnswer answer;
    answer.status = status;
    answer.body = "<html><head><title>" + std::to_string(status) + " " + reasonPhrase(status) +
                  "</title></head><body><h1>" + reasonPhrase(status) + "</h1><p>" + text +
                  "</p></body></html>\n";
    return answer;
}

std::string serialize(const LocalAnswer& answer, bool keepAlive) {
    std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " " +
                       reasonPhrase(answer.status) + "\r\nContent-Type: " + answer.contentType +
                       "\r\nContent-Length: " + std::to_string(answer.body.size()) +
                       "\r\nCache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\n";
    if (answer.status == 405)
        head += "Allow: GET\r\n";
    head += keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
    return head + answer.body;
}

std::size_t headEnd(const std::string& buffer) {
    const std::size_t crlf = buffer.find("\r\n\r\n");
    const std::size_t lf = buffer.find("\n\n");
    if (crlf == std::string::npos && lf == std::string::npos)
        return std::string::npos;
    if (lf == std::string::npos || (crlf != std::string::npos && crlf < lf))
        return crlf + 4;
    return lf + 2;
}

ParsedHead parseHead(const std::string& head, int port, const ListenerLimits& limits) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < head.size()) {
        std::size_t end = head.find('\n', start);
        if (end == std::string::npos)
            end = head.size();
        std::string line = head.substr(start, end - start);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty() && !lines.empty())
            break;
        if (!line.empty())
            lines.push_back(std::move(line));
        start = end + 1;
    }
    if (lines.empty())
        return refuse(400, "The request is empty.");
    if (lines.size() - 1 > limits.maxHeaders)
        return refuse(431, "The request has too many headers.");
    const std::string& requestLine = lines[0];
    const std::size_t space1 = requestLine.find(' ');
    const std::size_t space2 = requestLine.rfind(' ');
    if (space1 == std::string::npos || space2 == space1)
        return refuse(400, "The request line is not understood.");
    const std::string method = requestLine.substr(0, space1);
    const std::string target = requestLine.substr(space1 + 1, space2 - space1 - 1);
    const std::string version = requestLine.substr(space2 + 1);
    if (version != "HTTP/1.1" && version != "HTTP/1.0")
        return refuse(400, "Only HTTP/1.0 and HTTP/1.1 are understood.");
    ParsedHead parsed;
    parsed.keepAlive = version == "HTTP/1.1";
    std::string host;
    bool hostSeen = false;
    for (std::size_t i = 1; i < lines.size(); ++i) {
        const std::size_t colon = lines[i].find(':');
        if (colon == std::string::npos || colon == 0)
            return refuse(400, "A header line is not understood.");
        const std::string name = misc::lowered(misc::trimmed(lines[i].substr(0, colon)));
        const std::string value = misc::trimmed(lines[i].substr(colon + 1));
        if (name == "host") {
            if (hostSeen)
                return refuse(400, "The request names its host twice.");
            hostSeen = true;
            host = value;
        } else if (name == "origin") {
            parsed.request.origin = value;
        } else if (name == "referer") {
            parsed.request.referer = value;
        } else if (name == "connection") {
            const std::string lowered = misc::lowered(value);
            if (lowered.find("close") != std::string::npos)
                parsed.keepAlive = false;
            else if (lowered.find("keep-alive") != std::string::npos)
                parsed.keepAlive = true;
        } else if ((name == "content-length" && value != "0") || name == "transfer-encoding") {
            return refuse(400, "A request with a body is not accepted.");
        }
    }
    // Only pages of this computer may ask: a name that merely resolves to the loopback
    // address (DNS rebinding) is turned away.
    if (!isAllowedHost(host, port))
        return refuse(403, "Requests must be addressed to 127.0.0.1 or localhost.");
    if (method != "GET")
        return refuse(405, "Only GET requests are served.");
    if (target.empty() || target[0] != '/')
        return refuse(400, "The request's address is not understood.");
    parsed.request.target = target;
    parsed.request.host = misc::lowered(host);
    const std::size_t question = target.find('?');
    parsed.request.path = target.substr(0, question);
    if (question != std::string::npos)
        parsed.request.query = target.substr(question + 1);
    return parsed;
}

} // namespace tools
