#include "channels/pluginChannelConfig.h"

#include "channels/common.h"
#include "lib/log/log.h"
#include "lib/misc/iniValues.h"

namespace channels {

void PluginChannelConfig::load(const std::string& file) {
    PELSU_LOG(pluginLoadGroup(), "Loading channel config: " << file);
    ChannelConfig::load(file);
    threadSafety::ScopedLock guard(lock());
    m_scriptFilename = profile::readIniString(file, "Config", "ScriptFilename");
}

void PluginChannelConfig::save(const std::string& file) const {
    ChannelConfig::save(file);
    threadSafety::ScopedLock guard(lock());
    profile::writeIniString(file, "Config", "ScriptFilename", m_scriptFilename);
}

std::string PluginChannelConfig::scriptFilename() const {
    threadSafety::ScopedLock guard(lock());
    return m_scriptFilename;
}

void PluginChannelConfig::setScriptFilename(const std::string& file) {
    threadSafety::ScopedLock guard(lock());
    m_scriptFilename = file;
    changed();
}

} // namespace channels
