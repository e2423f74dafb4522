// Named message groups: whole families of diagnostics switched on and off by name.
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace msglog {

class MsgGroup {
public:
    MsgGroup(std::string name, int number) : m_name(std::move(name)), m_number(number) {}
    const std::string& name() const { return m_name; }
    // The order in which the group was first registered, from 1.
    int number() const { return m_number; }
    bool isEnabled() const { return m_enabled.load(std::memory_order_relaxed); }
    void setEnabled(bool enabled) { m_enabled.store(enabled, std::memory_order_relaxed); }

private:
    std::string m_name;
    int m_number;
    std::atomic<bool> m_enabled{true};
};

// Registers a group (names match case-insensitively; registering a known name returns the
// same record). Records live until the process ends.
MsgGroup& registerMsgGroup(const std::string& name);
// The same for a group that stays off unless the debug settings switch it on (for traces that
// would flood the log).
MsgGroup& registerQuietMsgGroup(const std::string& name);
// The group, or null when no group of that name is registered.
MsgGroup* findMsgGroup(const std::string& name);
void unregisterMsgGroup(const std::string& name);
std::vector<std::string> msgGroupNames();

// Switches a group on or off, also one that registers later. Returns whether it is known now.
bool setMsgGroupEnabled(const std::string& name, bool enabled);

// Reads the section "MessageGroups" of each file in turn (later files win): a key names a
// group, "*" stands for every group, and the value is 1 (on) or 0 (off). Groups without a
// key stay on.
void applyMsgGroupSettings(const std::vector<std::string>& debugFiles);
// Remembers the files and applies them, then keeps a thread that applies them again once a
// second when their contents changed, so that groups can be switched while running. An empty
// list stops the thread. A log call never reads the files itself: a group that is off costs
// one atomic load.
void watchMsgGroupSettings(const std::vector<std::string>& debugFiles);
// Applies the watched files again now, when their contents changed.
void pollMsgGroupSettings();

// Registers a group at static initialisation and unregisters it at exit.
class MsgGroupRegistration {
public:
    explicit MsgGroupRegistration(const char* name) : m_group(registerMsgGroup(name)) {}
    ~MsgGroupRegistration() { unregisterMsgGroup(m_group.name()); }
    MsgGroupRegistration(const MsgGroupRegistration&) = delete;
    MsgGroupRegistration& operator=(const MsgGroupRegistration&) = delete;
    operator MsgGroup&() const { return m_group; }
    MsgGroup& group() const { return m_group; }

private:
    MsgGroup& m_group;
};

} // namespace msglog
