// "AutoStartApp": the desktop starts the client at log-in through an XDG autostart entry,
// $XDG_CONFIG_HOME/autostart/pelsu.desktop (~/.config/autostart when the variable is unset).
#pragma once

#include <string>
#include <vector>

namespace trayClient {

// The directory that holds the autostart entries.
std::string autostartDirectory();

// The entry's text: starts the program with the given arguments.
std::string autostartEntry(const std::string& program, const std::vector<std::string>& arguments);

// Why auto-start could not be applied: the message for the user ("Couldn't open the registry
// to enable auto-start." and the advice to contact the administrator) and, apart, the file and
// the system's reason. Both empty on success.
struct AutoStartProblem {
    std::string message;
    std::string detail;
};

// Writes the entry (enable) or removes it (disable) in directory.
AutoStartProblem applyAutoStart(bool enable, const std::string& directory,
                                const std::string& program,
                                const std::vector<std::string>& arguments);

} // namespace trayClient
