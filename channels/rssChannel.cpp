#include "channels/rssChannel.h"

#include "channels/channelManager.h"
#include "lib/misc/exception.h"

#include <cstring>

namespace channels {

namespace {
const std::size_t kLoopbackPrefixLength = std::strlen(kLoopbackPrefix);
} // namespace

std::string withLoopbackPort(const std::string& url, int port) {
    if (url.compare(0, kLoopbackPrefixLength, kLoopbackPrefix) != 0)
        return url;
    const std::size_t slash = url.find('/', kLoopbackPrefixLength);
    const std::string rest = slash == std::string::npos ? std::string() : url.substr(slash);
    return kLoopbackPrefix + std::to_string(port) + rest;
}

bool isLoopbackAddressOnPort(const std::string& url, int port) {
    const std::string start = kLoopbackPrefix + std::to_string(port);
    if (url.compare(0, start.size(), start) != 0)
        return false;
    // The whole port must match: 260 is not the beginning of 2605.
    return url.size() == start.size() || url[start.size()] == '/';
}

void RssChannel::fetch(std::string& text, bool firstFetch, bool& unchanged) {
    ChannelManager* owner = manager();
    if (!owner)
        throw Exception("The channel has no manager.");
    if (owner->options().disableInternet)
        throw Exception("Internet access has been disabled.");
    std::string url = m_config.rssChannelUrl();
    std::string lastModified = state().httpLastModified();
    std::string etag = state().httpETag();
    if (url.compare(0, kLoopbackPrefixLength, kLoopbackPrefix) == 0)
        url = withLoopbackPort(url, owner->appPluginServerPort());
    long status = 0;
    std::string statusText;
    std::string body;
    owner->download(url, lastModified, etag, forceDownload(firstFetch), status, statusText, body);
    if (status == 304) {
        unchanged = true;
        return;
    }
    if (status != 200)
        throw Exception("Feed update error: HTTP " + std::to_string(status) + " " + statusText);
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
