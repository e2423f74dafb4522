#include "channels/common.h"

namespace channels {

namespace {
// Registered at static initialisation, unregistered at exit.
const msglog::MsgGroupRegistration g_internetDownloads("InternetDownloads");
const msglog::MsgGroupRegistration g_httpHeaders("HttpHeaders");
const msglog::MsgGroupRegistration g_channelManager("ChannelManager");
const msglog::MsgGroupRegistration g_channelManagerActivity("ChannelManagerActivity");
const msglog::MsgGroupRegistration g_scriptPlugins("ScriptPlugins");
const msglog::MsgGroupRegistration g_pluginLoad("PluginLoad");
} // namespace

// Looked up by name so that callers during static initialisation get the same records.
msglog::MsgGroup& internetDownloadsGroup() { return msglog::registerMsgGroup("InternetDownloads"); }
msglog::MsgGroup& httpHeadersGroup() { return msglog::registerMsgGroup("HttpHeaders"); }
msglog::MsgGroup& channelManagerGroup() { return msglog::registerMsgGroup("ChannelManager"); }
msglog::MsgGroup& channelManagerActivityGroup() {
    return msglog::registerMsgGroup("ChannelManagerActivity");
}
msglog::MsgGroup& scriptPluginsGroup() { return msglog::registerMsgGroup("ScriptPlugins"); }
msglog::MsgGroup& pluginLoadGroup() { return msglog::registerMsgGroup("PluginLoad"); }

bool feedDownloadChanged(long status, const std::string& statusText) {
    if (status == 304)
        return false;
    if (status != 200)
        throw Exception("Feed update error: HTTP " + std::to_string(status) + " " + statusText);
    return true;
}

} // namespace channels
