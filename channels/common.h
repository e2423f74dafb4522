// Names shared by every module of the channel engine: message groups and section names.
#pragma once

#include "channels/exception.h"
#include "lib/log/msgGroup.h"

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

} // namespace channels
