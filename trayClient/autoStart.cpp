#include "trayClient/autoStart.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;

namespace trayClient {

namespace {

const char* const kEntryName = "pelsu.desktop";
const char* const kAdvice = "\n\nPlease contact your system administrator.";

// One argument of the Exec key: quoted, with the characters that are special inside quotes
// escaped, and "%" doubled because the key expands field codes.
std::string execArgument(const std::string& argument) {
    std::string quoted = "\"";
    for (char c : argument) {
        if (c == '"' || c == '`' || c == '$' || c == '\\')
            quoted += '\\';
        quoted += c;
        if (c == '%')
            quoted += '%';
    }
    return quoted + "\"";
}

// The user's message keeps the program's own words (the entry stands where the run key of
// other systems does); which file and why go with it apart.
AutoStartProblem failure(const char* what, bool enable, const std::string& path,
                         const std::string& reason) {
    std::ostringstream message;
    message << "Couldn't " << what << " the registry to " << (enable ? "enable" : "disable")
            << " auto-start." << kAdvice;
    return {message.str(), path + ": " + reason};
}

} // namespace

std::string autostartDirectory() {
    const char* configHome = std::getenv("XDG_CONFIG_HOME");
    if (configHome && *configHome == '/')
        return (fs::path(configHome) / "autostart").string();
    const char* home = std::getenv("HOME");
    return (fs::path(home ? home : "") / ".config" / "autostart").string();
}

std::string autostartEntry(const std::string& program, const std::vector<std::string>& arguments) {
    std::string exec = execArgument(program);
    for (const auto& argument : arguments)
        exec += " " + execArgument(argument);
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Pelsu\n"
           "Comment=News-feed reader in the notification area\n"
           "Exec=" +
           exec +
           "\n"
           "Terminal=false\n"
           "X-GNOME-Autostart-enabled=true\n";
}

AutoStartProblem applyAutoStart(bool enable, const std::string& directory,
                                const std::string& program,
                                const std::vector<std::string>& arguments) {
    fs::path file = fs::path(directory) / kEntryName;
    std::error_code error;
    if (!enable) {
        if (!fs::remove(file, error) && error)
            return failure("update", false, file.string(), error.message());
        return {};
    }
    fs::create_directories(directory, error);
    if (error)
        return failure("open", true, directory, error.message());
    // Written beside the entry and renamed over it, so the desktop never reads half an entry.
    fs::path temporary = file;
    temporary += ".new";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << autostartEntry(program, arguments);
        out.close();
        if (!out) {
            std::string reason = std::strerror(errno);
            fs::remove(temporary, error);
            return failure("update", true, file.string(), reason);
        }
    }
    fs::rename(temporary, file, error);
    if (error) {
        std::string reason = error.message();
        fs::remove(temporary, error);
        return failure("update", true, file.string(), reason);
    }
    return {};
}

} // namespace trayClient
