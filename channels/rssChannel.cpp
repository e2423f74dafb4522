#include "channels/rssChannel.h"

#include "channels/channelManager.h"
#include "channels/common.h"
#include "channels/exception.h"

#include <cstring>

namespace channels {

namespace {
const std::size_t kLoopbackPrefixLength = std::strlen(kLoopbackPrefix);
// The port runs to the path, the query, the fragment or the end of the address.
const char* const kAfterPort = "/?#";

bool isLoopbackAddress(const std::string& url) {
    return url.compare(0, kLoopbackPrefixLength, kLoopbackPrefix) == 0;
}
} // namespace

std::string withLoopbackPort(const std::string& url, int port) {
    if (!isLoopbackAddress(url))
        return url;
    const std::size_t end = url.find_first_of(kAfterPort, kLoopbackPrefixLength);
    const std::string rest = end == std::string::npos ? std::string() : url.substr(end);
    return kLoopbackPrefix + std::to_string(port) + rest;
}

bool isLoopbackAddressOnPort(const std::string& url, int port) {
    const std::string start = kLoopbackPrefix + std::to_string(port);
    if (url.compare(0, start.size(), start) != 0)
        return false;
    // The whole port must match: 260 is not the beginning of 2605.
    return url.size() == start.size() || std::strchr(kAfterPort, url[start.size()]) != nullptr;
}

void RssChannel::fetch(std::string& text, bool firstFetch, bool& unchanged) {
    ChannelManager* owner = manager();
    if (!owner)
        throw Exception("The channel has no manager.");
    if (owner->internetDisabled())
        throw Exception("Internet access has been disabled.");
    std::string url = m_config.rssChannelUrl();
    std::string lastModified = state().httpLastModified();
    std::string etag = state().httpETag();
    tools::DownloadRules rules;
    rules.remoteOnly = m_config.subscribedFromWebPage();
    if (isLoopbackAddress(url)) {
        // The program's own app-plugin server, on the port it listens on now.
        url = withLoopbackPort(url, owner->appPluginServerPort());
        rules.useUrlPort = true;
    }
    long status = 0;
    std::string statusText;
    std::string body;
    owner->download(url, lastModified, etag, forceDownload(firstFetch), status, statusText, body,
                    rules);
    if (!feedDownloadChanged(status, statusText)) {
        unchanged = true;
        return;
    }
    state().setHttpLastModified(lastModified);
    state().setHttpETag(etag);
    text = std::move(body);
}

void RssChannel::changeLoopbackPort(int oldPort, int newPort) {
    {
        const std::string url = m_config.rssChannelUrl();
        if (!isLoopbackAddressOnPort(url, oldPort))
            return;
        m_config.setRssChannelUrl(withLoopbackPort(url, newPort));
    }
    save();
}

} // namespace channels
