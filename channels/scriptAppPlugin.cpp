#include "channels/scriptAppPlugin.h"

#include "channels/appPluginManager.h"
#include "channels/channel.h"
#include "channels/common.h"
#include "channels/exception.h"
#include "channels/internal/scriptRunner.h"
#include "lib/log/log.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"

namespace channels {

namespace {
// The configuration file is dumped into the log only when this group is switched on.
msglog::MsgGroup& configDumpGroup() { return msglog::registerQuietMsgGroup("ScriptConfigFiles"); }
} // namespace

void ScriptAppPlugin::load(const std::string& configFilename) {
    threadSafety::ScopedLock lock(m_lock);
    m_scriptFilename = pluginPath(configFilename);
}

std::string ScriptAppPlugin::scriptFilename() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_scriptFilename;
}

std::string ScriptAppPlugin::commandLineFor(const std::string& configFile) const {
    const std::string commandLine = m_manager->buildScriptCommandLine(m_scriptFilename, configFile);
    PELSU_LOG(scriptPluginsGroup(), "Running plugin script: " << commandLine);
    if (configDumpGroup().isEnabled()) {
        msglog::LogBlock block;
        PELSU_LOG(configDumpGroup(), "--- BEGIN CONFIG FILE ---");
        std::ifstream in(configFile, std::ios::binary);
        std::string line;
        while (std::getline(in, line))
            PELSU_LOG(configDumpGroup(), line);
        PELSU_LOG(configDumpGroup(), "--- END CONFIG FILE ---");
    }
    return commandLine;
}

void ScriptAppPlugin::GenerateMainPage() {
    threadSafety::ScopedLock lock(m_lock);
    auto config =
        buildScriptConfigFile("GenerateMainPage", m_pluginParamDefs, m_pluginParamValues, nullptr);
    const std::string commandLine = commandLineFor(config->path());
    const std::string directory = scriptDirectory(m_scriptFilename);
    runScript(commandLine, directory, m_mainPage, m_manager->getScriptTimeout());
}

void ScriptAppPlugin::ProcessRequest(const std::string& pluginRequest,
                                     const std::string& paramString, std::string& response,
                                     Channel* channel) {
    threadSafety::ScopedLock lock(m_lock);
    tools::TempFile output;
    std::unique_ptr<tools::TempFile> config;
    if (!channel) {
        config = buildScriptConfigFile("ProcessRequest", m_pluginParamDefs, m_pluginParamValues,
                                       nullptr);
    } else {
        threadSafety::ScopedLock channelLock(channel->lock());
        ParamValues channelValues;
        loadParamValues(channel->fileName(), kChannelParametersSection, m_channelParamDefs,
                        channelValues);
        config = buildScriptConfigFileForChannel("ProcessRequest", m_pluginParamDefs,
                                                 m_pluginParamValues, m_channelParamDefs,
                                                 channelValues, channel);
    }
    {
        profile::WriteBatch batch(config->path());
        profile::writeIniString(config->path(), kSystemSection, "PluginRequest", pluginRequest);
        profile::writeIniString(config->path(), kSystemSection, "ParamString", paramString);
    }
    const std::string commandLine = commandLineFor(config->path());
    const std::string directory = scriptDirectory(m_scriptFilename);
    runScript(commandLine, directory, output, m_manager->getScriptTimeout());
    if (response.empty())
        response = output.read(); // no second copy of a large answer
    else
        response += output.read();
}

} // namespace channels
