// The process-wide table of published values ("VersionString", "UserName",
// "ChannelsDir", ...), filled at start-up and copied into every script's
// configuration file.
#pragma once

#include "lib/misc/threadSafetyWin32.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace misc {

class SystemValues {
public:
    static SystemValues& instance();

    void set(const std::string& name, const std::string& value);
    // The value, or the empty string when the name is not published.
    std::string get(const std::string& name) const;
    bool has(const std::string& name) const;
    // Every name and value, in name order.
    std::vector<std::pair<std::string, std::string>> all() const;
    void clear();

private:
    mutable threadSafety::CriticalSection m_lock{"SystemValues"};
    std::map<std::string, std::string> m_values;
};

} // namespace misc
