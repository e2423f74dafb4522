// A channel whose feed is the output of a channel plugin script.
#pragma once

#include "channels/channel.h"
#include "channels/pluginChannelConfig.h"

#include <string>

namespace channels {

class PluginChannel : public Channel {
public:
    PluginChannel(ChannelManager* manager, std::string id) : Channel(manager, std::move(id)) {}

    PluginChannelConfig& config() override { return m_config; }
    const PluginChannelConfig& config() const override { return m_config; }

    void fetch(std::string& text, bool firstFetch, bool& unchanged) override;
    const char* fileExtension() const override { return ".plugin"; }
    std::string address() const override { return m_config.scriptFilename(); }
    bool channelParameterFlag(const std::string& name, bool defaultValue) const override;

    // The plugin's description file: the script's path with the extension ".plugin".
    std::string pluginFileName() const;

private:
    PluginChannelConfig m_config;
};

// The validators of plugin downloads, by address, shared by every plugin channel.
void pluginDownloadValidators(const std::string& url, std::string& lastModified, std::string& etag);
void setPluginDownloadValidators(const std::string& url, const std::string& lastModified,
                                 const std::string& etag);

} // namespace channels
