// Downloads over HTTP (libcurl) and reads local files, as conditional requests that carry the
// validators of the previous download and hand back the new ones.
#pragma once

#include "tools/exception.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace tools {

// Limits and rules of downloads. The defaults keep the classic behaviour: every request goes
// to port 80 as plain HTTP.
struct NetOptions {
    // Use the port the address names and fetch https with TLS and certificate checks.
    bool honourUrlPort = false;
    // Seconds allowed to connect; 0 is no limit.
    long connectTimeoutSeconds = 30;
    // A transfer that moves no data for this many seconds fails; 0 is no limit.
    long lowSpeedTimeSeconds = 120;
    // Largest body accepted, in bytes (local files too); 0 is no limit.
    std::uint64_t maxBodyBytes = std::uint64_t{64} * 1024 * 1024;
    // Seconds a whole transfer may take, however steadily data arrives; 0 is no limit.
    long maxTransferSeconds = 300;
};

// Rules that depend on whom a download is for rather than on the session.
struct DownloadRules {
    // For a channel that a web page added: only http and https, and every connection (the
    // first and those of redirects) must go to another computer, directly, not via a proxy.
    bool remoteOnly = false;
    // A page of the program's own app-plugin server: the address's port is used whatever
    // the session's port rule says.
    bool useUrlPort = false;
};

// The Internet connection of the channel manager: reuses connections, DNS results and TLS
// sessions between the downloads of every thread; each download is a transfer of its own.
class InternetSession {
public:
    explicit InternetSession(std::string userAgent, NetOptions options = {});
    ~InternetSession();
    InternetSession(const InternetSession&) = delete;
    InternetSession& operator=(const InternetSession&) = delete;

    const std::string& userAgent() const { return m_userAgent; }
    const NetOptions& options() const { return m_options; }

    // Makes every download in progress (from any thread) fail with "The download was
    // aborted: " + url. Later downloads run normally.
    void abortAll();

    struct Impl;
    Impl& impl() { return *m_impl; }
    std::uint64_t abortGeneration() const { return m_abortGeneration.load(); }

private:
    std::string m_userAgent;
    NetOptions m_options;
    std::unique_ptr<Impl> m_impl;
    std::atomic<std::uint64_t> m_abortGeneration{0};
};

// Process-wide: true (the default) for the header-aware path with validators; false for the
// simple path, which reports every download as 200 "OK". Set once at start-up.
void setUseHttpHeaders(bool use);
bool useHttpHeaders();

// Downloads url (an address "scheme://host/path", a file: URL or the path of an existing
// regular file) into body; schemes other than http and https are fetched as plain HTTP.
// lastModified and etag (optional) carry the previous validators in and, after a 200, the
// new ones out (emptied when the server sent none). forceDownload sends no validators and
// asks every cache to reload. statusCode and statusText (optional) receive the status;
// non-200 statuses are not errors. rules depend on the channel the download is for.
// Throws tools::Exception on failure.
void readUrl(InternetSession& session, const std::string& url, std::string* lastModified,
             std::string* etag, bool forceDownload, long* statusCode, std::string* statusText,
             std::string& body, const DownloadRules& rules = {});

// The text of the calling thread's last system error (errno).
std::string lastSystemErrorText();

} // namespace tools
