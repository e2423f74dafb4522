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

// Writes the entry (enable) or removes it (disable) in directory. Returns "" on success, else
// the message for the user, such as "Couldn't update the autostart entry to enable
// auto-start." with the file and the reason.
std::string applyAutoStart(bool enable, const std::string& directory, const std::string& program,
                           const std::vector<std::string>& arguments);

} // namespace trayClient
