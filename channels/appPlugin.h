// App plugins: pages of their own, made by a script or a library, and the manager that finds
// and loads them.
#pragma once

#include "channels/internal/paramDefs.h"
#include "lib/misc/threadSafetyWin32.h"
#include "tools/tempFile.h"

#include <string>

namespace channels {

class AppPluginManager;
class Channel;

class AppPlugin {
public:
    explicit AppPlugin(AppPluginManager* manager);
    virtual ~AppPlugin();
    AppPlugin(const AppPlugin&) = delete;
    AppPlugin& operator=(const AppPlugin&) = delete;

    // Writes the plugin's main page into mainPageFile().
    virtual void GenerateMainPage() = 0;
    // Appends the answer to one request to response; the channel (may be null) is the one the
    // request is made for.
    virtual void ProcessRequest(const std::string& pluginRequest, const std::string& paramString,
                                std::string& response, Channel* channel) = 0;

    // Reads the description and parameters from the ".plugin" file, then the kind's own part.
    void loadAppPlugin(const std::string& configFilename);
    // Writes the plugin's parameter values into the file's "PluginParameters" section.
    void saveParamValues(const std::string& configFilename);

    std::string id() const;
    std::string displayName() const;
    std::string authorName() const;
    std::string authorEmailAddress() const;
    std::string pluginNotes() const;
    std::string configFilename() const;
    const std::string& mainPageFile() const { return m_mainPage.path(); }
    ParamValues pluginParamValues() const;
    void setPluginParamValues(const ParamValues& values);
    const ParamDefTable& pluginParamDefs() const { return m_pluginParamDefs; }
    const ParamDefTable& channelParamDefs() const { return m_channelParamDefs; }

protected:
    // The kind-specific part of loading, called last by loadAppPlugin.
    virtual void load(const std::string& configFilename) = 0;
    // The script or library: the ".plugin" file's directory joined with the "Plugin" value.
    // Throws channels::Exception when the value is missing.
    std::string pluginPath(const std::string& configFilename) const;

    AppPluginManager* m_manager;
    mutable threadSafety::CriticalSection m_lock{"AppPlugin", threadSafety::LockRank::Plugin};
    tools::TempFile m_mainPage{".html"};
    std::string m_id;
    std::string m_configFilename;
    std::string m_displayName;
    std::string m_authorName;
    std::string m_authorEmailAddress;
    std::string m_pluginNotes;
    ParamDefTable m_pluginParamDefs;
    ParamValues m_pluginParamValues;
    ParamDefTable m_channelParamDefs;
};

} // namespace channels
