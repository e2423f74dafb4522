#include "tools/net.h"

#include "lib/log/log.h"
#include "lib/misc/text.h"
#include "tools/exception.h"
#include "tools/hostAddress.h"
#include "tools/localFile.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <curl/curl.h>
#include <mutex>
#include <vector>

namespace tools {

namespace {

msglog::MsgGroup& downloadsGroup() { return msglog::registerMsgGroup("InternetDownloads"); }
msglog::MsgGroup& headersGroup() { return msglog::registerMsgGroup("HttpHeaders"); }
const msglog::MsgGroupRegistration g_downloads("InternetDownloads");
const msglog::MsgGroupRegistration g_headers("HttpHeaders");

std::atomic<bool> g_useHttpHeaders{true};
constexpr long kReadStep = 65536;
// A validator is read into a buffer of this size, its end included: a longer one is missing.
constexpr std::size_t kMaxValidatorBytes = 1024;

// libcurl is set up once for the process, before any thread uses it.
struct CurlGlobal {
    CurlGlobal() { curl_global_init(CURL_GLOBAL_DEFAULT); }
};
void initCurl() { static CurlGlobal global; }

// The scheme of an address written "scheme://...", lower-cased, or empty when it has none:
// only such addresses can be split into host and path.
std::string schemeOf(const std::string& url) {
    const size_t end = url.find("://");
    if (end == std::string::npos || end == 0 || !std::isalpha(static_cast<unsigned char>(url[0])))
        return "";
    for (size_t i = 1; i < end; ++i) {
        const auto c = static_cast<unsigned char>(url[i]);
        if (!std::isalnum(c) && c != '+' && c != '-' && c != '.')
            return "";
    }
    return misc::lowered(url.substr(0, end));
}

bool tryLocalFile(InternetSession& session, const std::string& url, long* statusCode,
                  std::string* statusText, std::string& body) {
    const std::string path = localFilePath(url);
    if (path.empty())
        return false;
    readLocalFile(path, url, session.options().maxBodyBytes, body);
    PELSU_LOG(downloadsGroup(), "Read the local file OK: #bytes="
                                    << body.size() << " ; faking an HTTP 200 OK status.");
    if (statusCode)
        *statusCode = 200;
    if (statusText)
        *statusText = "OK";
    return true;
}

} // namespace

// The share handle (DNS results and TLS sessions) and a pool of idle transfers, each with its
// open connections, so that connections and transfer set-up are reused between downloads.
struct InternetSession::Impl {
    CURLSH* share = nullptr;
    std::mutex shareLocks[CURL_LOCK_DATA_LAST];
    std::mutex poolMutex;
    std::vector<CURL*> idle;

    static void lock(CURL*, curl_lock_data data, curl_lock_access, void* user) {
        static_cast<Impl*>(user)->shareLocks[data].lock();
    }
    static void unlock(CURL*, curl_lock_data data, void* user) {
        static_cast<Impl*>(user)->shareLocks[data].unlock();
    }
    CURL* acquire() {
        {
            std::lock_guard guard(poolMutex);
            if (!idle.empty()) {
                CURL* handle = idle.back();
                idle.pop_back();
                curl_easy_reset(handle);
                return handle;
            }
        }
        return curl_easy_init();
    }
    void release(CURL* handle) {
        std::lock_guard guard(poolMutex);
        idle.push_back(handle);
    }
};

InternetSession::InternetSession(std::string userAgent, NetOptions options)
    : m_userAgent(std::move(userAgent)), m_options(options), m_impl(std::make_unique<Impl>()) {
    initCurl();
    m_impl->share = curl_share_init();
    if (!m_impl->share)
        throw Exception("Can't open an Internet connection.");
    curl_share_setopt(m_impl->share, CURLSHOPT_LOCKFUNC, &Impl::lock);
    curl_share_setopt(m_impl->share, CURLSHOPT_UNLOCKFUNC, &Impl::unlock);
    curl_share_setopt(m_impl->share, CURLSHOPT_USERDATA, m_impl.get());
    curl_share_setopt(m_impl->share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    // Connections are not shared between threads (libcurl does not support that); each
    // pooled transfer keeps its own connections alive for the next download instead.
    curl_share_setopt(m_impl->share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
}

InternetSession::~InternetSession() {
    for (CURL* handle : m_impl->idle)
        curl_easy_cleanup(handle);
    curl_share_cleanup(m_impl->share);
}

void InternetSession::abortAll() { ++m_abortGeneration; }

void setUseHttpHeaders(bool use) { g_useHttpHeaders = use; }
bool useHttpHeaders() { return g_useHttpHeaders; }

namespace {

// One transfer: its handle, what the callbacks collect, and how it ended.
struct Transfer {
    InternetSession& session;
    std::string url;
    std::string& body;
    DownloadRules rules;
    std::uint64_t startGeneration;
    CURL* handle = nullptr;
    curl_slist* headers = nullptr;
    std::string statusLine;
    std::string lastModified;
    std::string etag;
    bool haveLastModified = false;
    bool haveETag = false;
    bool tooLarge = false;
    bool aborted = false;
    bool simple = false;        // the simple path: its failures all read "Can't open the URL: "
    std::string refusedAddress; // a connection to this computer that the rules refused

    Transfer(InternetSession& s, std::string u, std::string& b, const DownloadRules& r)
        : session(s), url(std::move(u)), body(b), rules(r), startGeneration(s.abortGeneration()) {}
    ~Transfer() {
        curl_slist_free_all(headers);
        if (handle)
            session.impl().release(handle);
    }

    static size_t onBody(char* data, size_t size, size_t count, void* user) {
        auto* self = static_cast<Transfer*>(user);
        const size_t bytes = size * count;
        const std::uint64_t limit = self->session.options().maxBodyBytes;
        if (limit != 0 && self->body.size() + bytes > limit) {
            self->tooLarge = true;
            return 0;
        }
        if (self->body.empty() && bytes > 0) { // the announced size at once, within the limit
            curl_off_t announced = -1;
            if (curl_easy_getinfo(self->handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced) ==
                    CURLE_OK &&
                announced > 0 && (limit == 0 || static_cast<std::uint64_t>(announced) <= limit))
                self->body.reserve(std::min<std::uint64_t>(static_cast<std::uint64_t>(announced),
                                                           std::uint64_t{64} << 20));
        }
        self->body.append(data, bytes);
        return bytes;
    }

    // Keeps the status line and validators of the last response (after any redirects).
    static size_t onHeader(char* data, size_t size, size_t count, void* user) {
        auto* self = static_cast<Transfer*>(user);
        std::string line(data, size * count);
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
            line.pop_back();
        if (line.rfind("HTTP/", 0) == 0) {
            self->statusLine = line;
            self->haveLastModified = self->haveETag = false;
            self->lastModified.clear();
            self->etag.clear();
            self->body.clear();
            return size * count;
        }
        const size_t colon = line.find(':');
        if (colon == std::string::npos)
            return size * count;
        const std::string name = misc::lowered(line.substr(0, colon));
        size_t start = colon + 1;
        while (start < line.size() && (line[start] == ' ' || line[start] == '\t'))
            ++start;
        // The first of repeated headers counts, and one that does not fit the validator's
        // buffer counts as missing.
        const auto take = [&](std::string& value, bool& have) {
            if (have)
                return;
            have = true;
            value = line.substr(start);
            if (value.size() >= kMaxValidatorBytes)
                value.clear();
        };
        if (name == "last-modified")
            take(self->lastModified, self->haveLastModified);
        else if (name == "etag")
            take(self->etag, self->haveETag);
        return size * count;
    }

    static int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
        auto* self = static_cast<Transfer*>(user);
        if (self->session.abortGeneration() != self->startGeneration) {
            self->aborted = true;
            return 1;
        }
        return 0;
    }

    // Every connection, the first and those of redirects, is checked here before it is made.
    static curl_socket_t onOpenSocket(void* user, curlsocktype, curl_sockaddr* address) {
        auto* self = static_cast<Transfer*>(user);
        if (self->rules.remoteOnly && isThisComputer(&address->addr)) {
            self->refusedAddress = addressText(&address->addr);
            return CURL_SOCKET_BAD;
        }
        return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    }

    // The status text: what follows the code on the status line.
    std::string reasonPhrase() const {
        const size_t first = statusLine.find(' ');
        if (first == std::string::npos)
            return "";
        const size_t second = statusLine.find(' ', first + 1);
        return second == std::string::npos ? "" : statusLine.substr(second + 1);
    }
};

// The address as it is requested: every scheme but https (with the port honoured) is fetched
// as plain HTTP. An address that can't be split into scheme, host and path is refused.
// The address as it goes on the request line: blanks, control characters and bytes beyond
// ASCII, which an address may hold as the user typed it, are sent escaped ("%20").
std::string escapedForRequest(const std::string& url) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(url.size());
    for (const char c : url) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte >= 0x7f) {
            out += '%';
            out += kHex[byte >> 4];
            out += kHex[byte & 0x0f];
        } else {
            out += c;
        }
    }
    return out;
}

std::string requestAddress(const std::string& url, const NetOptions& options) {
    const std::string scheme = schemeOf(url);
    if (scheme.empty())
        throw Exception("Can't parse URL: " + url);
    if (scheme == "http" || (scheme == "https" && options.honourUrlPort))
        return escapedForRequest(url);
    return "http" + escapedForRequest(url.substr(scheme.size()));
}

void setUp(Transfer& transfer, bool forceDownload) {
    CURL* h = transfer.handle;
    const NetOptions& options = transfer.session.options();
    curl_easy_setopt(h, CURLOPT_URL, requestAddress(transfer.url, options).c_str());
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, options.honourUrlPort ? "http,https" : "http");
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, options.honourUrlPort ? "http,https" : "http");
    if (!options.honourUrlPort && !transfer.rules.useUrlPort)
        curl_easy_setopt(h, CURLOPT_PORT, 80L);
    if (options.maxTransferSeconds > 0)
        curl_easy_setopt(h, CURLOPT_TIMEOUT, options.maxTransferSeconds);
    if (transfer.rules.remoteOnly) {
        // Each connection is new and direct, so the check sees every address connected to.
        curl_easy_setopt(h, CURLOPT_PROXY, "");
        curl_easy_setopt(h, CURLOPT_FRESH_CONNECT, 1L);
        curl_easy_setopt(h, CURLOPT_FORBID_REUSE, 1L);
    }
    curl_easy_setopt(h, CURLOPT_OPENSOCKETFUNCTION, &Transfer::onOpenSocket);
    curl_easy_setopt(h, CURLOPT_OPENSOCKETDATA, &transfer);
    curl_easy_setopt(h, CURLOPT_SHARE, transfer.session.impl().share);
    curl_easy_setopt(h, CURLOPT_USERAGENT, transfer.session.userAgent().c_str());
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(h, CURLOPT_MAXREDIRS, 20L);
    curl_easy_setopt(h, CURLOPT_ACCEPT_ENCODING, "");
    // HTTP/1.1 even over TLS: HTTP/2 responses carry no reason phrase for the status text.
    curl_easy_setopt(h, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_BUFFERSIZE, kReadStep);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, options.connectTimeoutSeconds);
    // A declared length past the limit fails before the body is read; the write callback
    // still counts the decoded bytes, which compression can make far larger.
    if (options.maxBodyBytes != 0)
        curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE,
                         static_cast<curl_off_t>(options.maxBodyBytes));
    if (options.lowSpeedTimeSeconds > 0) {
        curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, options.lowSpeedTimeSeconds);
    }
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
    curl_easy_setopt(h, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, &Transfer::onProgress);
    curl_easy_setopt(h, CURLOPT_XFERINFODATA, &transfer);
    transfer.headers = curl_slist_append(transfer.headers, "Accept:"); // no accept types
    if (forceDownload) {
        transfer.headers = curl_slist_append(transfer.headers, "Cache-Control: no-cache");
        transfer.headers = curl_slist_append(transfer.headers, "Pragma: no-cache");
    }
}

// Runs the transfer; throws the message of a failure. failedText is the message of a
// failure to reach the server.
void storeValidator(std::string* target, bool present, const std::string& value, const char* tag,
                    const char* missing) {
    if (!target)
        return;
    if (!present) {
        PELSU_LOG(headersGroup(), missing);
        target->clear();
        return;
    }
    PELSU_LOG(headersGroup(), "Found HTTP tag: " << tag << "='" << value << "'");
    *target = value;
}

// The response's status line, and for a 200 its validators (stored where given), as they are
// logged once the headers are in.
void reportResponse(Transfer& transfer, long code, std::string* lastModified, std::string* etag) {
    PELSU_LOG(downloadsGroup(), "HTTP response: " << code << " " << transfer.reasonPhrase());
    if (code != 200)
        return;
    storeValidator(lastModified, transfer.haveLastModified, transfer.lastModified, "LastModified",
                   "No LastModified HTTP tag was returned.");
    storeValidator(etag, transfer.haveETag, transfer.etag, "ETag",
                   "No ETag HTTP tag was returned.");
}

void perform(Transfer& transfer, const std::string& failedText) {
    if (transfer.headers)
        curl_easy_setopt(transfer.handle, CURLOPT_HTTPHEADER, transfer.headers);
    char error[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(transfer.handle, CURLOPT_ERRORBUFFER, error);
    const auto started = std::chrono::steady_clock::now();
    const CURLcode rc = curl_easy_perform(transfer.handle);
    if (rc == CURLE_OK)
        return;
    const std::string& url = transfer.url;
    // Aborted when a stop gave up waiting for the worker: a worker ended that way says nothing.
    if (transfer.aborted)
        throw Exception("The download was aborted: " + url);
    const bool bodyFailed = !transfer.statusLine.empty() && !transfer.tooLarge &&
                            (rc == CURLE_RECV_ERROR || rc == CURLE_PARTIAL_FILE ||
                             rc == CURLE_BAD_CONTENT_ENCODING || rc == CURLE_WRITE_ERROR);
    if (bodyFailed) {
        // The headers came: they are logged as for a whole response before the body fails.
        long code = 0;
        if (!transfer.simple &&
            curl_easy_getinfo(transfer.handle, CURLINFO_RESPONSE_CODE, &code) == CURLE_OK) {
            std::string lastModified, etag; // not kept: the download failed
            reportResponse(transfer, code, &lastModified, &etag);
        }
    }
    PELSU_LOG(downloadsGroup(), "- Transfer failed: " << (*error ? error : curl_easy_strerror(rc)));
    if (bodyFailed)
        throw Exception("Can't read the URL: " + url);
    const long maxSeconds = transfer.session.options().maxTransferSeconds;
    if (!transfer.refusedAddress.empty() && rc == CURLE_COULDNT_CONNECT)
        throw Exception("A channel that a web page added may not fetch from this computer (" +
                        transfer.refusedAddress + "): " + url);
    // The transfer's own clock may call time a moment before ours does.
    if (rc == CURLE_OPERATION_TIMEDOUT && maxSeconds > 0 &&
        std::chrono::steady_clock::now() - started >=
            std::chrono::seconds(maxSeconds) - std::chrono::milliseconds(200))
        throw Exception("The download took longer than " + std::to_string(maxSeconds) +
                        " seconds: " + url);
    if (transfer.tooLarge || rc == CURLE_FILESIZE_EXCEEDED)
        throw Exception("The download is larger than the limit of " +
                        std::to_string(transfer.session.options().maxBodyBytes) + " bytes: " + url);
    switch (rc) {
    case CURLE_URL_MALFORMAT:
        throw Exception((transfer.simple ? failedText : "Can't parse URL: ") + url);
    case CURLE_UNSUPPORTED_PROTOCOL: // a reply that is not HTTP, or a redirect elsewhere
    case CURLE_WEIRD_SERVER_REPLY:
        throw Exception((transfer.simple ? failedText : "Can't read the HTTP response: ") + url);
    case CURLE_OPERATION_TIMEDOUT:
        throw Exception("The download timed out: " + url);
    default:
        break;
    }
    throw Exception(failedText + url);
}

void addValidator(Transfer& transfer, const std::string* value, const char* header,
                  const char* missing) {
    if (!value || value->empty()) {
        PELSU_LOG(headersGroup(), missing);
        return;
    }
    const std::string line = std::string(header) + *value;
    PELSU_LOG(headersGroup(), "Setting HTTP header: " << line);
    transfer.headers = curl_slist_append(transfer.headers, line.c_str());
}

// A channel that a web page added reaches only http and https addresses on other computers.
void checkRemoteOnly(const std::string& url, const DownloadRules& rules) {
    const std::string scheme = schemeOf(url);
    if (rules.remoteOnly && scheme != "http" && scheme != "https")
        throw Exception("A channel that a web page added may fetch only http and https "
                        "addresses: " +
                        url);
}

// Checks the rules and reads a local file: false, with body emptied, for a network URL.
bool readLocally(InternetSession& session, const std::string& url, long* statusCode,
                 std::string* statusText, std::string& body, const DownloadRules& rules) {
    checkRemoteOnly(url, rules);
    if (tryLocalFile(session, url, statusCode, statusText, body))
        return true;
    body.clear();
    return false;
}

// Gives the transfer a handle from the session's pool; throws noHandleText and the URL when
// there is none.
// The host and the path of an address, as a request names them.
std::pair<std::string, std::string> hostAndPath(const std::string& url) {
    const std::size_t separator = url.find("://");
    const std::size_t hostStart = separator == std::string::npos ? 0 : separator + 3;
    const std::size_t pathStart = std::min(url.find('/', hostStart), url.size());
    return {url.substr(hostStart, pathStart - hostStart), url.substr(pathStart)};
}

void openTransfer(Transfer& transfer, bool forceDownload) {
    transfer.handle = transfer.session.impl().acquire();
    if (!transfer.handle) { // the simple path turns this into its own text
        const auto [host, path] = hostAndPath(transfer.url);
        throw Exception("Can't open request: host=" + host + " ; urlPath=" + path);
    }
    setUp(transfer, forceDownload);
}

void readWithHeaders(InternetSession& session, const std::string& url, std::string* lastModified,
                     std::string* etag, bool forceDownload, long* statusCode,
                     std::string* statusText, std::string& body, const DownloadRules& rules) {
    PELSU_LOG(downloadsGroup(), "Reading URL: " << url);
    if (readLocally(session, url, statusCode, statusText, body, rules))
        return;
    Transfer transfer(session, url, body, rules);
    // There is no connection to make to no host at all.
    if (const auto [host, path] = hostAndPath(url); host.empty() && !schemeOf(url).empty())
        throw Exception("Can't open an session with host: " + host);
    openTransfer(transfer, forceDownload);
    if (forceDownload) {
        PELSU_LOG(headersGroup(), "ForceDownload is requested - skipping HTTP headers.");
    } else {
        addValidator(transfer, lastModified,
                     "If-Modified-Since: ", "No Last-Modified HTTP header was provided.");
        addValidator(transfer, etag, "If-None-Match: ", "No ETag HTTP header was provided.");
    }
    perform(transfer, "Can't send the HTTP request: ");
    long code = 0;
    if (curl_easy_getinfo(transfer.handle, CURLINFO_RESPONSE_CODE, &code) != CURLE_OK || code == 0)
        throw Exception("Can't read the HTTP response: " + url);
    const std::string text = transfer.reasonPhrase();
    if (statusCode)
        *statusCode = code;
    if (statusText)
        *statusText = text;
    reportResponse(transfer, code, lastModified, etag);
    PELSU_LOG(downloadsGroup(), "Received file OK: #bytes=" << body.size());
}

void readSimple(InternetSession& session, const std::string& url, bool forceDownload,
                std::string& body, const DownloadRules& rules) {
    PELSU_LOG(downloadsGroup(), "Reading URL (old version): " << url);
    if (readLocally(session, url, nullptr, nullptr, body, rules))
        return;
    Transfer transfer(session, url, body, rules);
    transfer.simple = true;
    try {
        openTransfer(transfer, forceDownload);
    } catch (const Exception&) { // an address that can't be split is one that can't be opened
        throw Exception("Can't open the URL: " + url);
    }
    perform(transfer, "Can't open the URL: ");
    PELSU_LOG(downloadsGroup(), "Received file OK: #bytes=" << body.size());
}

} // namespace

void readUrl(InternetSession& session, const std::string& url, std::string* lastModified,
             std::string* etag, bool forceDownload, long* statusCode, std::string* statusText,
             std::string& body, const DownloadRules& rules) {
    if (g_useHttpHeaders) {
        readWithHeaders(session, url, lastModified, etag, forceDownload, statusCode, statusText,
                        body, rules);
        return;
    }
    readSimple(session, url, forceDownload, body, rules);
    PELSU_LOG(headersGroup(), "Faking an HTTP status of 200 OK.");
    if (statusCode)
        *statusCode = 200;
    if (statusText)
        *statusText = "OK";
}

std::string lastSystemErrorText() {
    const int code = errno;
    if (code != 0) {
        // strerror_r: listener threads call this too, and strerror may share one buffer.
        char buffer[1024] = "";
        const char* text = strerror_r(code, buffer, sizeof buffer);
        if (text && *text)
            return text;
    }
    return "errno " + std::to_string(code);
}

} // namespace tools
