// An app plugin whose pages come from a shared library (see include/pelsuPlugin.h).
#pragma once

#include "channels/appPlugin.h"

#include <cstdint>
#include <map>
#include <memory>

#include "include/pelsuPlugin.h"

namespace channels {

class DllAppPlugin : public AppPlugin {
public:
    using AppPlugin::AppPlugin;
    ~DllAppPlugin() override;

    void GenerateMainPage() override;
    void ProcessRequest(const std::string& pluginRequest, const std::string& paramString,
                        std::string& response, Channel* channel) override;
    // Only for the plugin with the id "CodeProject": three words its load left behind.
    std::map<std::string, std::int32_t> namedValues() const;

protected:
    void load(const std::string& configFilename) override;

private:
    std::string takeBuffer(char* buffer, std::int32_t length) const;

    void* m_library = nullptr;
    std::unique_ptr<PelsuPluginInfo> m_info;
    std::map<std::string, std::int32_t> m_namedValues;
};

} // namespace channels
