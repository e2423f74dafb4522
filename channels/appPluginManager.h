// Finds the ".plugin" files under the app-plugins directory, loads each as a script or a
// library plugin, keeps them by id, and reports the ones that fail as AppPluginErrorEvents.
// It also holds what every script run shares: the local servers' ports, the script time-out
// and the file-type commands.
#pragma once

#include "channels/appPlugin.h"
#include "channels/events.h"

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace channels {

class ChannelManager;

class AppPluginManager : public TEventSource<Event> {
public:
    AppPluginManager();
    virtual ~AppPluginManager();
    // The single manager (made on first use).
    static AppPluginManager& instance();

    // Scans the app-plugins directory (recursively) and loads every ".plugin" file.
    void loadAppPlugins();
    // The plugin with exactly this id, or null; valid until the manager goes.
    AppPlugin* findAppPlugin(const std::string& id) const;
    // Every loaded plugin's id.
    std::vector<std::string> appPluginIds() const;

    // Stores the ports; when the plugin server moves from one port to another, the channels
    // that point at it are re-pointed first.
    void setPorts(int appServerPort, int appPluginServerPort);
    void setAppPluginsDir(const std::string& dir);
    std::string getAppPluginsDir() const;
    int getAppServerPort() const;
    int getAppPluginServerPort() const;
    void setScriptTimeout(int seconds);
    int getScriptTimeout() const;
    void setFileTypeCommands(const std::map<std::string, std::string>& commands);
    // The channel manager whose channels follow the plugin server's port (may be null).
    void setChannelManager(ChannelManager* manager);
    // Drops every plugin (tests; the program keeps them until it ends).
    void clear();

    // The command line that runs a script with its configuration file.
    std::string buildScriptCommandLine(const std::string& scriptFilename,
                                       const std::string& configFilename) const;

protected:
    virtual void doLoadAppPlugins(const std::string& dir);

private:
    void loadPluginFile(const std::string& path, const std::string& name);
    // Logs "Plugin didn't load:" and raises the plugin error event.
    void reportLoadFailure(const std::string& name, AppPlugin* plugin, const std::string& reason);
    // True the first time a directory (by device and inode) is met in this load.
    bool firstVisit(const std::string& dir);

    mutable threadSafety::CriticalSection m_lock{"AppPluginManager"};
    std::string m_appPluginsDir;
    int m_appServerPort = 0;
    int m_appPluginServerPort = 0;
    int m_scriptTimeout = 15;
    std::map<std::string, std::unique_ptr<AppPlugin>> m_plugins;
    // Directories searched in the current load, so that links in a loop are followed once.
    std::set<std::pair<std::uint64_t, std::uint64_t>> m_searchedDirs;
    ChannelManager* m_channelManager = nullptr;
};

} // namespace channels
