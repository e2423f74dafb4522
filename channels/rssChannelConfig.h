// The configuration of an RSS channel: the common keys and its feed's address.
#pragma once

#include "channels/channelConfig.h"

namespace channels {

class RssChannelConfig : public ChannelConfig {
public:
    void load(const std::string& file) override;
    void save(const std::string& file) const override;

    std::string rssChannelUrl() const;
    void setRssChannelUrl(const std::string& url);
    // True when the address names a page of the CodeProject support served by the local
    // plugin server ("/CodeProject/" followed by "TheLounge", "MessageBoards" or "Articles").
    bool isCodeProjectFeed() const;
    // True for a channel that a web page added through a subscription link: its downloads
    // may reach only other computers. Kept in the file only when true.
    bool subscribedFromWebPage() const;
    void setSubscribedFromWebPage(bool fromWebPage);

private:
    std::string m_rssChannelUrl;
    bool m_isCodeProjectFeed = false;
    bool m_subscribedFromWebPage = false;
};

} // namespace channels
