// The start-up steps shared by the desktop client and pelsu-cli: the user, the directories,
// the first-run contents of a new user directory, the debug settings, the message log and
// the published system values.
#pragma once

#include <stdexcept>
#include <string>

namespace app {

// A start-up step failed. The message is the one the user is told, exactly (for example
// "Couldn't load the global options.\n\n" and the reason, or "Initialization failed.\n\n" and
// the reason); detail, when not empty, says more (the system's reason) where the user can
// look it up without changing the message.
class StartupError : public std::runtime_error {
public:
    explicit StartupError(const std::string& message, std::string detail = {})
        : std::runtime_error(message), m_detail(std::move(detail)) {}
    const std::string& detail() const noexcept { return m_detail; }

private:
    std::string m_detail;
};

// Where everything lives.
struct AppPaths {
    std::string programDir; // read-only: Resources/, appPlugins/, global.ini, debug.ini
    std::string dataRoot;   // writable: holds Users/<name>/
    std::string userName;
    std::string userDir;          // <dataRoot>/Users/<name>
    std::string configFile;       // <userDir>/config.ini
    std::string userDebugFile;    // <userDir>/debug.ini
    std::string programDebugFile; // <programDir>/debug.ini
    std::string globalIniFile;    // <programDir>/global.ini
    std::string channelsDir;      // <userDir>/Channels
    std::string logsDir;          // <userDir>/Logs
    std::string logFile;          // <logsDir>/pelsu.log
    std::string appPluginsDir;    // <programDir>/appPlugins
};

// The program directory: the first of the executable's directory, its parent and
// <prefix>/share/pelsu that holds "Resources/DefaultChannelSummary.template". Throws
// channels::Exception when there is none.
std::string findProgramDirectory(const std::string& executablePath);

// The writable data root: the explicit home when given, else PELSU_HOME, else
// $XDG_DATA_HOME/pelsu, else ~/.local/share/pelsu.
std::string findDataRoot(const std::string& explicitHome);

// "UserName" of section "Debug" of the program's debug.ini; when empty, the logged-on user's
// name; when that fails, "default".
std::string determineUserName(const std::string& programDebugFile);

AppPaths buildAppPaths(const std::string& programDir, const std::string& dataRoot,
                       const std::string& userName);

// Creates the user directory with its first-run contents when it does not exist (the
// summary template and image, the Channels and Logs directories, the default news channel);
// returns true when it was created. Throws channels::Exception with "Can't create a new
// directory for user:" and the name on failure. Missing Channels or Logs directories of an
// existing user are created again.
bool prepareUserDirectory(const AppPaths& paths);

// A key of section "Debug": the user's debug.ini wins over the program's.
int readDebugInt(const AppPaths& paths, const std::string& key, int defaultValue);

// The debugging switches: the thread-safety timeout, "DisableHttpHeaders" and the message
// groups (watched, so that edits take effect while running).
void applyDebugSettings(const AppPaths& paths);

// Opens the message log in Logs; throws channels::Exception when it can't.
void openMessageLog(const AppPaths& paths);

// Publishes "VersionString", "AppHomeUrl", "FeedbackEmailAddress", "SupportEmailAddress",
// "UserName", "UserConfigFile", "ChannelsDir" and "AppPluginsDir".
void publishSystemValues(const AppPaths& paths, const std::string& version);

// The address of the news feed the default channel reads: a file that ships with the program.
std::string defaultNewsFeedAddress(const std::string& programDir);

} // namespace app
