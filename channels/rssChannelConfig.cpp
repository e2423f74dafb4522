#include "channels/rssChannelConfig.h"

#include "lib/misc/iniValues.h"

namespace channels {

namespace {

const char* const kWebPageKey = "SubscribedFromWebPage";

bool namesCodeProjectFeed(const std::string& url) {
    const std::string marker = "/CodeProject/";
    const auto at = url.find(marker);
    if (at == std::string::npos)
        return false;
    const std::string rest = url.substr(at + marker.size());
    for (const char* page : {"TheLounge", "MessageBoards", "Articles"})
        if (rest.rfind(page, 0) == 0)
            return true;
    return false;
}

} // namespace

void RssChannelConfig::load(const std::string& file) {
    ChannelConfig::load(file);
    threadSafety::ScopedLock guard(lock());
    m_rssChannelUrl = profile::readIniString(file, "Config", "RssChannelUrl");
    m_isCodeProjectFeed = namesCodeProjectFeed(m_rssChannelUrl);
    m_subscribedFromWebPage = profile::readIniBool(file, "Config", kWebPageKey, false);
}

void RssChannelConfig::save(const std::string& file) const {
    ChannelConfig::save(file);
    threadSafety::ScopedLock guard(lock());
    profile::writeIniString(file, "Config", "RssChannelUrl", m_rssChannelUrl);
    // Other channels' files stay as they were: the key is written only when it is set.
    if (m_subscribedFromWebPage)
        profile::writeIniBool(file, "Config", kWebPageKey, true);
}

std::string RssChannelConfig::rssChannelUrl() const {
    threadSafety::ScopedLock guard(lock());
    return m_rssChannelUrl;
}

void RssChannelConfig::setRssChannelUrl(const std::string& url) {
    threadSafety::ScopedLock guard(lock());
    m_rssChannelUrl = url;
    m_isCodeProjectFeed = namesCodeProjectFeed(url);
    changed();
}

bool RssChannelConfig::subscribedFromWebPage() const {
    threadSafety::ScopedLock guard(lock());
    return m_subscribedFromWebPage;
}

void RssChannelConfig::setSubscribedFromWebPage(bool fromWebPage) {
    threadSafety::ScopedLock guard(lock());
    m_subscribedFromWebPage = fromWebPage;
    changed();
}

bool RssChannelConfig::isCodeProjectFeed() const {
    threadSafety::ScopedLock guard(lock());
    return m_isCodeProjectFeed;
}

} // namespace channels
