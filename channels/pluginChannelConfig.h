// The configuration of a plugin channel: the common keys and its plugin's script.
#pragma once

#include "channels/channelConfig.h"

namespace channels {

class PluginChannelConfig : public ChannelConfig {
public:
    void load(const std::string& file) override;
    void save(const std::string& file) const override;

    std::string scriptFilename() const;
    void setScriptFilename(const std::string& file);

private:
    std::string m_scriptFilename;
};

} // namespace channels
