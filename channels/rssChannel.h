// A channel whose feed is fetched from an address: http, a local file, or a page of the
// program's own local plugin server.
#pragma once

#include "channels/channel.h"
#include "channels/rssChannelConfig.h"

namespace channels {

// "http://127.0.0.1:": addresses served by the program's own local plugin server.
inline constexpr const char* kLoopbackPrefix = "http://127.0.0.1:";

class RssChannel : public Channel {
public:
    RssChannel(ChannelManager* manager, std::string id) : Channel(manager, std::move(id)) {}

    RssChannelConfig& config() override { return m_config; }
    const RssChannelConfig& config() const override { return m_config; }

    void fetch(std::string& text, bool firstFetch, bool& unchanged) override;
    void changeLoopbackPort(int oldPort, int newPort) override;
    const char* fileExtension() const override { return ".rss"; }
    std::string address() const override { return m_config.rssChannelUrl(); }

private:
    RssChannelConfig m_config;
};

// The address with a loopback address's port replaced by the given one; other addresses
// come back unchanged.
std::string withLoopbackPort(const std::string& url, int port);
// True when the address is on the loopback prefix with exactly this port.
bool isLoopbackAddressOnPort(const std::string& url, int port);

} // namespace channels
