// Names shared by every module of the channel engine: message groups, section names and the
// reading of a feed download's HTTP status.
#pragma once

#include "channels/exception.h"
#include "lib/log/msgGroup.h"

#include <string>

namespace channels {

// Message groups of the engine.
msglog::MsgGroup& internetDownloadsGroup();      // "InternetDownloads"
msglog::MsgGroup& httpHeadersGroup();            // "HttpHeaders"
msglog::MsgGroup& channelManagerGroup();         // "ChannelManager"
msglog::MsgGroup& channelManagerActivityGroup(); // "ChannelManagerActivity"
msglog::MsgGroup& scriptPluginsGroup();          // "ScriptPlugins"
msglog::MsgGroup& pluginLoadGroup();             // "PluginLoad"

// Section names shared by plugin files, channel files and script configuration files.
inline constexpr const char* kConfigSection = "Config";
inline constexpr const char* kSystemSection = "System";
inline constexpr const char* kPluginParametersSection = "PluginParameters";
inline constexpr const char* kChannelParametersSection = "ChannelParameters";

// What a feed download's status means for both kinds of channel: true for a new feed (200),
// false for an unchanged one (304); any other status throws "Feed update error: HTTP <status>
// <statusText>".
bool feedDownloadChanged(long status, const std::string& statusText);

} // namespace channels
