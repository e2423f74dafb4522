#include "channels/appPluginManager.h"

#include "channels/channelManager.h"
#include "channels/common.h"
#include "channels/dllAppPlugin.h"
#include "channels/exception.h"
#include "channels/internal/scriptRunner.h"
#include "channels/scriptAppPlugin.h"
#include "lib/log/log.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/text.h"

#include <atomic>
#include <ctime>
#include <filesystem>
#include <strings.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace channels {

namespace {
std::atomic<AppPluginManager*> g_instance{nullptr};
} // namespace

AppPluginManager::AppPluginManager() { g_instance = this; }

AppPluginManager::~AppPluginManager() {
    AppPluginManager* self = this;
    g_instance.compare_exchange_strong(self, nullptr);
}

AppPluginManager& AppPluginManager::instance() {
    static AppPluginManager manager;
    AppPluginManager* current = g_instance.load();
    return current ? *current : manager;
}

void AppPluginManager::loadAppPlugins() {
    // The manager's lock is not held while plugins load: a plugin takes its own lock first and
    // the manager's after it, never the other way round.
    const std::string dir = getAppPluginsDir();
    PELSU_LOG(pluginLoadGroup(), "Starting to load app plugins: appPluginDir=" << dir);
    {
        threadSafety::ScopedLock lock(m_lock);
        m_searchedDirs.clear();
    }
    doLoadAppPlugins(dir);
}

bool AppPluginManager::firstVisit(const std::string& dir) {
    struct stat info {};
    if (::stat(dir.c_str(), &info) != 0)
        return true; // the search itself reports what is wrong with it
    threadSafety::ScopedLock lock(m_lock);
    return m_searchedDirs
        .emplace(static_cast<std::uint64_t>(info.st_dev), static_cast<std::uint64_t>(info.st_ino))
        .second;
}

void AppPluginManager::doLoadAppPlugins(const std::string& dir) {
    auto& group = pluginLoadGroup();
    PELSU_LOG(group, "doLoadAppPlugins(): dir=" << dir);
    if (!firstVisit(dir)) {
        PELSU_LOG(group, "This directory has been searched already - skipping it.");
        return;
    }
    PELSU_LOG(group, "Searching for files: " << (fs::path(dir) / "*.*").string());
    std::error_code error;
    fs::directory_iterator entries(dir, error);
    if (error) {
        PELSU_LOG(group, "Couldn't find any files - exiting.");
        return;
    }
    // A directory's search finds its "." and ".." entries first, which the iterator leaves out.
    PELSU_LOG(group, "Skipping ./..");
    PELSU_LOG(group, "Skipping ./..");
    for (const fs::directory_entry& entry : entries) {
        const std::string name = entry.path().filename().string();
        PELSU_LOG(group, "Found file/directory: " << name);
        const std::string path = entry.path().string();
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) {
            PELSU_LOG(group, "Can't get the file/directory info: " << path);
            continue;
        }
        if (S_ISDIR(info.st_mode)) {
            PELSU_LOG(group, "Found a directory - recursing into it.");
            doLoadAppPlugins(path);
            continue;
        }
        if (::strcasecmp(misc::fileExtension(name).c_str(), ".plugin") != 0) {
            PELSU_LOG(group, "This is not a .plugin file - skipping it.");
            continue;
        }
        loadPluginFile(path, name);
    }
    PELSU_LOG(group, "Leaving doLoadAppPlugin().");
}

void AppPluginManager::loadPluginFile(const std::string& path, const std::string& name) {
    std::unique_ptr<AppPlugin> plugin;
    try {
        const std::string value = profile::readIniString(path, kConfigSection, "Plugin");
        if (value.empty())
            throw Exception("Missing 'Plugin' parameter: " + path);
        PELSU_LOG(pluginLoadGroup(), "Loading the plugin: pluginFilename=" << name);
        const std::string extension = misc::fileExtension(value);
        if (::strcasecmp(extension.c_str(), ".dll") == 0 ||
            ::strcasecmp(extension.c_str(), ".so") == 0)
            plugin = std::make_unique<DllAppPlugin>(this);
        else if (extension.empty())
            throw Exception("The configured plugin script has no filename extension: " + value);
        else
            plugin = std::make_unique<ScriptAppPlugin>(this);
        plugin->loadAppPlugin(path);
        const std::string id = plugin->id();
        std::unique_ptr<AppPlugin> replaced; // goes after the manager's lock is released
        threadSafety::ScopedLock lock(m_lock);
        auto& slot = m_plugins[id];
        replaced = std::move(slot); // a later file with the same id replaces the earlier
        slot = std::move(plugin);
    } catch (const std::exception& failure) {
        reportLoadFailure(name, plugin.get(), failure.what());
    } catch (...) { // a library plugin may throw anything: the scan goes on all the same
        reportLoadFailure(name, plugin.get(), "unknown error");
    }
}

void AppPluginManager::reportLoadFailure(const std::string& name, AppPlugin* plugin,
                                         const std::string& reason) {
    PELSU_LOG(pluginLoadGroup(), "Plugin didn't load: " << reason);
    AppPluginErrorEvent event(std::time(nullptr), plugin,
                              "Can't load the plugin " + name + ": " + reason);
    raise(event);
}

AppPlugin* AppPluginManager::findAppPlugin(const std::string& id) const {
    threadSafety::ScopedLock lock(m_lock);
    auto it = m_plugins.find(id);
    return it == m_plugins.end() ? nullptr : it->second.get();
}

std::vector<std::string> AppPluginManager::appPluginIds() const {
    threadSafety::ScopedLock lock(m_lock);
    std::vector<std::string> ids;
    for (const auto& [id, plugin] : m_plugins)
        ids.push_back(id);
    return ids;
}

void AppPluginManager::setPorts(int appServerPort, int appPluginServerPort) {
    threadSafety::ScopedLock lock(m_lock);
    if (m_appPluginServerPort != 0 && m_appPluginServerPort != appPluginServerPort &&
        m_channelManager)
        m_channelManager->changeLoopbackPort(m_appPluginServerPort, appPluginServerPort);
    m_appServerPort = appServerPort;
    m_appPluginServerPort = appPluginServerPort;
    ScriptSettings settings = scriptSettings();
    settings.appServerPort = appServerPort;
    settings.appPluginServerPort = appPluginServerPort;
    setScriptSettings(settings);
}

void AppPluginManager::setAppPluginsDir(const std::string& dir) {
    threadSafety::ScopedLock lock(m_lock);
    m_appPluginsDir = dir;
}
std::string AppPluginManager::getAppPluginsDir() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_appPluginsDir;
}
int AppPluginManager::getAppServerPort() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_appServerPort;
}
int AppPluginManager::getAppPluginServerPort() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_appPluginServerPort;
}
void AppPluginManager::setScriptTimeout(int seconds) {
    threadSafety::ScopedLock lock(m_lock);
    m_scriptTimeout = seconds;
}
int AppPluginManager::getScriptTimeout() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_scriptTimeout;
}
void AppPluginManager::setFileTypeCommands(const std::map<std::string, std::string>& commands) {
    ScriptSettings settings = scriptSettings();
    for (const auto& [extension, command] : commands)
        settings.fileTypeCommands[extension] = command;
    setScriptSettings(settings);
}
void AppPluginManager::setChannelManager(ChannelManager* manager) {
    threadSafety::ScopedLock lock(m_lock);
    m_channelManager = manager;
}
void AppPluginManager::clear() {
    std::map<std::string, std::unique_ptr<AppPlugin>> plugins;
    {
        threadSafety::ScopedLock lock(m_lock);
        plugins.swap(m_plugins);
    }
}

std::string AppPluginManager::buildScriptCommandLine(const std::string& scriptFilename,
                                                     const std::string& configFilename) const {
    return channels::buildScriptCommandLine(scriptFilename, configFilename);
}

} // namespace channels
