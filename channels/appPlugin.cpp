#include "channels/appPlugin.h"

#include "channels/appPluginManager.h"
#include "channels/common.h"
#include "lib/log/log.h"
#include "lib/misc/iniValues.h"

#include <algorithm>
#include <filesystem>

namespace channels {

AppPlugin::AppPlugin(AppPluginManager* manager) : m_manager(manager) {}

AppPlugin::~AppPlugin() = default;

void AppPlugin::loadAppPlugin(const std::string& configFilename) {
    threadSafety::ScopedLock lock(m_lock);
    PELSU_LOG(pluginLoadGroup(), "AppPlugin::loadAppPlugin(): configFilename=" << configFilename);
    m_configFilename = configFilename;
    const std::string& file = configFilename;
    m_id = pluginIdentity(profile::readIniString(file, kConfigSection, "AppPluginId"),
                          profile::readIniString(file, kConfigSection, "Plugin"));
    m_displayName = profile::readIniString(file, kConfigSection, "AppPluginDisplayName", m_id);
    m_authorName = profile::readIniString(file, kConfigSection, "AuthorName");
    m_authorEmailAddress = profile::readIniString(file, kConfigSection, "AuthorEmailAddress");
    m_pluginNotes = profile::readIniString(file, kConfigSection, "PluginNotes");
    loadParamDefTable(file, m_pluginParamDefs, "PluginParameterDefinition-");
    loadParamValues(file, kPluginParametersSection, m_pluginParamDefs, m_pluginParamValues);
    loadParamDefTable(file, m_channelParamDefs, "ChannelParameterDefinition-");
    load(file);
}

void AppPlugin::saveParamValues(const std::string& configFilename) {
    threadSafety::ScopedLock lock(m_lock);
    channels::saveParamValues(configFilename, kPluginParametersSection, m_pluginParamValues);
}

std::string AppPlugin::pluginPath(const std::string& configFilename) const {
    const std::string value = profile::readIniString(configFilename, kConfigSection, "Plugin");
    if (value.empty())
        throw Exception("Missing 'Plugin' parameter: " + value);
    // Written with either separator ("scripts\\news.py"), as the plugin's id is read.
    std::string relative = value;
    std::replace(relative.begin(), relative.end(), '\\', '/');
    return (std::filesystem::path(configFilename).parent_path() / relative).string();
}

#define PELSU_PLUGIN_GETTER(name, member)                                                          \
    std::string AppPlugin::name() const {                                                          \
        threadSafety::ScopedLock lock(m_lock);                                                     \
        return member;                                                                             \
    }
PELSU_PLUGIN_GETTER(id, m_id)
PELSU_PLUGIN_GETTER(displayName, m_displayName)
PELSU_PLUGIN_GETTER(authorName, m_authorName)
PELSU_PLUGIN_GETTER(authorEmailAddress, m_authorEmailAddress)
PELSU_PLUGIN_GETTER(pluginNotes, m_pluginNotes)
PELSU_PLUGIN_GETTER(configFilename, m_configFilename)

ParamValues AppPlugin::pluginParamValues() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_pluginParamValues;
}

void AppPlugin::setPluginParamValues(const ParamValues& values) {
    threadSafety::ScopedLock lock(m_lock);
    m_pluginParamValues = values;
}

} // namespace channels
