#include "app/startup.h"

#include "channels/exception.h"
#include "lib/log/log.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "lib/misc/systemValues.h"
#include "lib/misc/threadSafetyWin32.h"
#include "tools/net.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <pwd.h>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace app {

using channels::Exception;

namespace {

const char* const kDebugSection = "Debug";
const char* const kTemplateName = "DefaultChannelSummary.template";
const char* const kBackgroundName = "DefaultChannelSummary.gif";
const char* const kDefaultChannelFile = "PelsuNews.rss";
const char* const kNewsFeedPath = "Resources/feeds/PelsuNews.xml";

bool isProgramDirectory(const fs::path& dir) {
    std::error_code error;
    return fs::exists(dir / "Resources" / kTemplateName, error);
}

std::string loggedOnUserName() {
    if (const passwd* entry = ::getpwuid(::geteuid()); entry && entry->pw_name && *entry->pw_name)
        return entry->pw_name;
    if (const char* name = std::getenv("USER"); name && *name)
        return name;
    return "";
}

// Copies a file that ships with the program into the user directory.
void copyResource(const AppPaths& paths, const char* name) {
    fs::copy_file(fs::path(paths.programDir) / "Resources" / name, fs::path(paths.userDir) / name,
                  fs::copy_options::overwrite_existing);
}

void createDefaultChannel(const AppPaths& paths) {
    const std::string file = (fs::path(paths.channelsDir) / kDefaultChannelFile).string();
    if (!profile::writeIniString(file, "Config", "RssChannelUrl",
                                 defaultNewsFeedAddress(paths.programDir)))
        throw Exception(profile::lastWriteError());
}

} // namespace

std::string findProgramDirectory(const std::string& executablePath) {
    std::error_code error;
    fs::path executable = fs::weakly_canonical(executablePath, error);
    if (error)
        executable = executablePath;
    const fs::path dir = executable.parent_path();
    for (const fs::path& candidate :
         {dir, dir.parent_path(), dir.parent_path() / "share" / "pelsu"})
        if (isProgramDirectory(candidate))
            return candidate.string();
    throw Exception("Can't find the program's resources beside " + executable.string());
}

std::string findDataRoot(const std::string& explicitHome) {
    if (!explicitHome.empty())
        return fs::absolute(explicitHome).lexically_normal().string();
    if (const char* home = std::getenv("PELSU_HOME"); home && *home)
        return fs::absolute(home).lexically_normal().string();
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data)
        return (fs::path(data) / "pelsu").string();
    const char* home = std::getenv("HOME");
    return (fs::path(home && *home ? home : "/tmp") / ".local" / "share" / "pelsu").string();
}

std::string determineUserName(const std::string& programDebugFile) {
    std::string name = profile::readIniString(programDebugFile, kDebugSection, "UserName");
    if (name.empty())
        name = loggedOnUserName();
    return name.empty() ? "default" : name;
}

AppPaths buildAppPaths(const std::string& programDir, const std::string& dataRoot,
                       const std::string& userName) {
    AppPaths paths;
    paths.programDir = programDir;
    paths.dataRoot = dataRoot;
    paths.userName = userName;
    const fs::path user = fs::path(dataRoot) / "Users" / userName;
    paths.userDir = user.string();
    paths.configFile = (user / "config.ini").string();
    paths.userDebugFile = (user / "debug.ini").string();
    paths.programDebugFile = (fs::path(programDir) / "debug.ini").string();
    paths.globalIniFile = (fs::path(programDir) / "global.ini").string();
    paths.channelsDir = (user / "Channels").string();
    paths.logsDir = (user / "Logs").string();
    paths.logFile = (user / "Logs" / "pelsu.log").string();
    paths.appPluginsDir = (fs::path(programDir) / "appPlugins").string();
    return paths;
}

bool prepareUserDirectory(const AppPaths& paths) {
    std::error_code error;
    const bool isNew = !fs::exists(paths.userDir, error);
    try {
        if (isNew) {
            // Built beside the final place under a name no user can have and no other start
            // uses, then renamed: a failure leaves no half user, and of two first starts at
            // once the second finds the first one's directory in place and takes it.
            const fs::path users = fs::path(paths.userDir).parent_path();
            fs::create_directories(users);
            std::string pattern = (users / ".new-XXXXXX").string();
            if (!::mkdtemp(pattern.data()))
                throw std::system_error(errno, std::generic_category(),
                                        "can't create a directory in " + users.string());
            const fs::path staging = pattern;
            try {
                fs::create_directories(staging / "Channels");
                fs::create_directories(staging / "Logs");
                AppPaths staged = buildAppPaths(paths.programDir, paths.dataRoot, paths.userName);
                staged.userDir = staging.string();
                staged.channelsDir = (staging / "Channels").string();
                copyResource(staged, kTemplateName);
                copyResource(staged, kBackgroundName);
                createDefaultChannel(staged);
                fs::rename(staging, paths.userDir, error);
                if (error && !fs::is_directory(paths.userDir))
                    throw fs::filesystem_error("cannot rename", staging, paths.userDir, error);
            } catch (...) {
                fs::remove_all(staging, error);
                throw;
            }
            fs::remove_all(staging, error); // left when another start's directory came first
        }
    } catch (const std::exception& failure) {
        throw StartupError("Can't create a new directory for user: " + paths.userName,
                           failure.what());
    }
    // A folder missing from a user's directory comes back; one that can't is a failure of
    // its own, not of making a new user.
    fs::create_directories(paths.channelsDir);
    fs::create_directories(paths.logsDir);
    return isNew;
}

int readDebugInt(const AppPaths& paths, const std::string& key, int defaultValue) {
    const int programValue =
        profile::readIniInt(paths.programDebugFile, kDebugSection, key, defaultValue);
    return profile::readIniInt(paths.userDebugFile, kDebugSection, key, programValue);
}

void applyDebugSettings(const AppPaths& paths) {
    threadSafety::applyDebuggingTimeoutSetting(
        readDebugInt(paths, "ThreadSafetyDebuggingTimeout", 0));
    tools::setUseHttpHeaders(readDebugInt(paths, "DisableHttpHeaders", 0) == 0);
    msglog::watchMsgGroupSettings({paths.programDebugFile, paths.userDebugFile});
    const int maxLogKiB = readDebugInt(paths, "MaxLogFileSizeKB", 5 * 1024);
    msglog::CMessageLog::instance().setMaxFileSize(
        static_cast<std::uint64_t>(maxLogKiB > 0 ? maxLogKiB : 0) * 1024u);
}

void openMessageLog(const AppPaths& paths) {
    std::string error;
    if (!msglog::CMessageLog::instance().open(paths.logFile, &error))
        throw Exception(error);
}

void publishSystemValues(const AppPaths& paths, const std::string& version) {
    auto& values = misc::SystemValues::instance();
    values.set("VersionString", version);
    values.set("AppHomeUrl", "https://pelsu.example.org/");
    values.set("FeedbackEmailAddress", "feedback@pelsu.example.org");
    values.set("SupportEmailAddress", "support@pelsu.example.org");
    values.set("UserName", paths.userName);
    values.set("UserConfigFile", paths.configFile);
    values.set("ChannelsDir", paths.channelsDir);
    values.set("AppPluginsDir", paths.appPluginsDir);
}

std::string defaultNewsFeedAddress(const std::string& programDir) {
    return (fs::path(programDir) / kNewsFeedPath).string();
}

} // namespace app
