// An app plugin whose pages are written by a script, run once per page.
#pragma once

#include "channels/appPlugin.h"

namespace channels {

class ScriptAppPlugin : public AppPlugin {
public:
    using AppPlugin::AppPlugin;

    void GenerateMainPage() override;
    void ProcessRequest(const std::string& pluginRequest, const std::string& paramString,
                        std::string& response, Channel* channel) override;
    std::string scriptFilename() const;

protected:
    void load(const std::string& configFilename) override;

private:
    // Builds the command line and logs it (with the configuration file when detail logging is
    // on); returns the command line.
    std::string commandLineFor(const std::string& configFile) const;

    std::string m_scriptFilename;
};

} // namespace channels
