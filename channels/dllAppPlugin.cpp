#include "channels/dllAppPlugin.h"

#include "channels/appPluginManager.h"
#include "channels/common.h"
#include "channels/exception.h"
#include "include/pelsuPlugin.h"
#include "lib/misc/iniValues.h"
#include "templateProcessor/templateProcessor.h"

#include <cstring>
#include <dlfcn.h>
#include <fstream>

namespace channels {

namespace {

std::string loopbackAddress(int port) { return "http://127.0.0.1:" + std::to_string(port); }

// Each call gets a zeroed buffer for the library's reason.
struct ErrorBuffer {
    char text[PELSU_PLUGIN_ERROR_SIZE] = {};
    std::string message() const { return std::string(text, strnlen(text, sizeof text)); }
};

} // namespace

void DllAppPlugin::load(const std::string& configFilename) {
    threadSafety::ScopedLock lock(m_lock);
    m_library = ::dlopen(pluginPath(configFilename).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!m_library)
        throw Exception("Can't load the plugin DLL: " +
                        profile::readIniString(configFilename, kConfigSection, "Plugin"));
    auto getInfo = reinterpret_cast<PelsuGetPluginInfo>(::dlsym(m_library, "get_plugin_info"));
    if (!getInfo)
        throw Exception("Can't find the DLL's get_plugin_info() entry point.");
    auto info = std::make_unique<PelsuPluginInfo>();
    std::memset(info.get(), 0, sizeof(PelsuPluginInfo));
    getInfo(info.get());
    const std::pair<bool, const char*> entryPoints[] = {
        {info->load_plugin != nullptr, "load_plugin()"},
        {info->unload_plugin != nullptr, "unload_plugin()"},
        {info->plugin_malloc != nullptr, "plugin_malloc()"},
        {info->plugin_free != nullptr, "plugin_free()"},
        {info->generate_main_page != nullptr, "generate_main_page()"},
        {info->process_request != nullptr, "process_request()"},
    };
    for (const auto& [present, name] : entryPoints)
        if (!present)
            throw Exception(std::string("Missing entry point: ") + name);
    ErrorBuffer buffer;
    if (info->load_plugin(configFilename.c_str(), buffer.text) != 0)
        throw Exception("DllAppPlugin initialization error: " + buffer.message());
    m_info = std::move(info);
    if (m_id == "CodeProject") {
        std::int32_t words[3];
        std::memcpy(words, buffer.text, sizeof words);
        m_namedValues = {
            {"TheLounge", words[0]}, {"MessageBoards", words[1]}, {"Articles", words[2]}};
    }
}

DllAppPlugin::~DllAppPlugin() {
    threadSafety::ScopedLock lock(m_lock);
    if (m_info) {
        ErrorBuffer buffer;
        m_info->unload_plugin(buffer.text);
    }
    m_info.reset();
    if (m_library)
        ::dlclose(m_library);
}

// A page or response that a library handed over: copied, then given back to the library,
// null included (a library's free accepts what its own calls may leave null).
std::string DllAppPlugin::takeBuffer(char* buffer, std::int32_t length) const {
    std::string copy;
    if (buffer && length > 0)
        copy.assign(buffer, static_cast<std::size_t>(length));
    m_info->plugin_free(buffer);
    return copy;
}

void DllAppPlugin::GenerateMainPage() {
    char* page = nullptr;
    std::int32_t length = 0;
    ErrorBuffer buffer;
    if (m_info->generate_main_page(&page, &length, buffer.text) != 0)
        throw Exception(buffer.message());
    // An empty page is refused before anything is given back: a library may hand over a
    // static empty string, which is not its allocator's to free.
    if (!page || length <= 0)
        throw Exception("The plugin returned an empty main page.");
    // The page goes back to the library once its file is written (or could not be).
    struct GiveBack {
        const DllAppPlugin& plugin;
        char* page;
        ~GiveBack() { plugin.m_info->plugin_free(page); }
    } giveBack{*this, page};
    const std::string copy(page, static_cast<std::size_t>(length));
    threadSafety::ScopedLock lock(m_lock);
    std::ofstream& out = m_mainPage.reopen(true);
    if (!out)
        throw Exception("Can't open the plugin's HTML output file: " + m_mainPage.path());
    out << templateProcessor::process(
        copy, {{"APP_SERVER_URL", loopbackAddress(m_manager->getAppServerPort())},
               {"APP_PLUGIN_SERVER_URL", loopbackAddress(m_manager->getAppPluginServerPort())}});
    m_mainPage.close();
}

void DllAppPlugin::ProcessRequest(const std::string& pluginRequest, const std::string& paramString,
                                  std::string& response, Channel*) {
    char* answer = nullptr;
    std::int32_t length = 0;
    ErrorBuffer buffer;
    if (m_info->process_request(pluginRequest.c_str(), paramString.c_str(), &answer, &length,
                                buffer.text) != 0)
        throw Exception(buffer.message());
    const std::string copy = takeBuffer(answer, length); // an empty response is allowed
    // Responses name the plugin server PLUGIN_SERVER_URL; APP_PLUGIN_SERVER_URL stays as it is.
    response = templateProcessor::process(
        copy, {{"APP_SERVER_URL", loopbackAddress(m_manager->getAppServerPort())},
               {"PLUGIN_SERVER_URL", loopbackAddress(m_manager->getAppPluginServerPort())}});
}

std::map<std::string, std::int32_t> DllAppPlugin::namedValues() const {
    threadSafety::ScopedLock lock(m_lock);
    return m_namedValues;
}

} // namespace channels
