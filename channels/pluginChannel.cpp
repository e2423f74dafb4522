#include "channels/pluginChannel.h"

#include "channels/channelManager.h"
#include "channels/common.h"
#include "channels/exception.h"
#include "channels/internal/paramDefs.h"
#include "channels/internal/scriptRunner.h"
#include "lib/log/log.h"
#include "lib/misc/iniValues.h"
#include "tools/tempFile.h"

#include <filesystem>
#include <map>
#include <mutex>
#include <sstream>
#include <string>

namespace channels {

namespace {

struct Validators {
    std::string lastModified;
    std::string etag;
};

// Plugin downloads keep their validators here rather than in a channel's state, so that
// channels that download the same address share them.
struct ValidatorTable {
    threadSafety::CriticalSection lock{"Plugin download validators"};
    std::map<std::string, Validators> entries;
};

ValidatorTable& validatorTable() {
    static ValidatorTable table;
    return table;
}

std::string valueOf(const ParamValues& first, const ParamValues& second, const std::string& name) {
    if (auto it = first.find(name); it != first.end() && !it->second.empty())
        return it->second;
    if (auto it = second.find(name); it != second.end())
        return it->second;
    return "";
}

} // namespace

void pluginDownloadValidators(const std::string& url, std::string& lastModified,
                              std::string& etag) {
    auto& table = validatorTable();
    threadSafety::ScopedLock lock(table.lock);
    const Validators& entry = table.entries[url];
    lastModified = entry.lastModified;
    etag = entry.etag;
}

void setPluginDownloadValidators(const std::string& url, const std::string& lastModified,
                                 const std::string& etag) {
    auto& table = validatorTable();
    threadSafety::ScopedLock lock(table.lock);
    table.entries[url] = Validators{lastModified, etag};
}

std::string PluginChannel::pluginFileName() const {
    std::filesystem::path script = m_config.scriptFilename();
    return script.replace_extension(".plugin").string();
}

bool PluginChannel::channelParameterFlag(const std::string& name, bool defaultValue) const {
    const std::string value =
        profile::readIniString(fileName(), kChannelParametersSection, name, "");
    if (value.empty())
        return defaultValue;
    return profile::parseIniInt(value) != 0;
}

void PluginChannel::fetch(std::string& text, bool firstFetch, bool& unchanged) {
    const std::string script = m_config.scriptFilename();
    if (script.empty())
        throw Exception("The channel names no plugin script.");
    const std::string pluginFile = pluginFileName();
    ParamDefTable pluginDefs, channelDefs;
    loadParamDefTable(pluginFile, pluginDefs, "PluginParameterDefinition-");
    loadParamDefTable(pluginFile, channelDefs, "ChannelParameterDefinition-");
    ParamValues pluginValues, channelValues;
    loadParamValues(fileName(), kPluginParametersSection, pluginDefs, pluginValues);
    loadParamValues(fileName(), kChannelParametersSection, channelDefs, channelValues);

    std::unique_ptr<tools::TempFile> downloaded;
    const std::string downloadUrl = valueOf(channelValues, pluginValues, "DownloadUrl");
    if (!downloadUrl.empty()) {
        std::string lastModified, etag, statusText, body;
        long status = 0;
        pluginDownloadValidators(downloadUrl, lastModified, etag);
        manager()->download(downloadUrl, lastModified, etag, forceDownload(firstFetch), status,
                            statusText, body);
        if (!feedDownloadChanged(status, statusText)) {
            unchanged = true;
            return;
        }
        setPluginDownloadValidators(downloadUrl, lastModified, etag);
        downloaded = std::make_unique<tools::TempFile>();
        downloaded->stream() << body;
        downloaded->close();
    }

    auto configFile = buildScriptConfigFileForChannel("ProcessRequest", pluginDefs, pluginValues,
                                                      channelDefs, channelValues, this);
    if (downloaded) {
        profile::writeIniString(configFile->path(), kSystemSection, "DownloadUrl", downloadUrl);
        profile::writeIniString(configFile->path(), kSystemSection, "DownloadUrlFile",
                                downloaded->path());
    }
    const std::string commandLine = buildScriptCommandLine(script, configFile->path());
    PELSU_LOG(scriptPluginsGroup(), "Running plugin script: " << commandLine);
    if (logChannelProcessing() && scriptPluginsGroup().isEnabled()) {
        msglog::LogBlock block;
        PELSU_LOG(scriptPluginsGroup(), "--- BEGIN CONFIG FILE ---");
        std::istringstream in(configFile->read());
        for (std::string line; std::getline(in, line);)
            PELSU_LOG(scriptPluginsGroup(), line);
        PELSU_LOG(scriptPluginsGroup(), "--- END CONFIG FILE ---");
    }
    tools::TempFile output;
    const std::string scriptDir = scriptDirectory(script);
    // A script that fails leaves its error page in the output: that page is the feed text,
    // and the parser judges it like any other.
    runScript(commandLine, scriptDir, output, manager()->scriptTimeoutSeconds());
    text = output.read();
    unchanged = false;
}

} // namespace channels
