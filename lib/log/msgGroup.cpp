#include "lib/log/msgGroup.h"

#include "lib/misc/profileFile.h"
#include "lib/misc/text.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace msglog {

namespace {

const char* const kSettingsSection = "MessageGroups";

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<MsgGroup>> all; // every record ever made
    std::map<std::string, MsgGroup*> registered;          // the ones registered now
    std::map<std::string, bool> settings;                 // by lower-cased name; "*" for all
    std::set<std::string> quiet;                          // off unless named in the settings
    std::vector<std::string> watchedFiles;
    std::string watchedSignature;
    std::chrono::steady_clock::time_point lastPoll{};
    MsgGroupPollClock clock;
};

// Called with the registry's mutex held.
std::chrono::steady_clock::time_point pollTime(const Registry& r) {
    return r.clock ? r.clock() : std::chrono::steady_clock::now();
}

Registry& registry() {
    static auto* instance = new Registry; // outlives the static registrations
    return *instance;
}

// Called with the registry's mutex held. Quiet groups follow only their own key.
bool settingFor(const Registry& r, const std::string& key, bool& enabled, bool useWildcard = true) {
    auto it = r.settings.find(key);
    if (it == r.settings.end() && useWildcard && !r.quiet.count(key))
        it = r.settings.find("*");
    if (it == r.settings.end())
        return false;
    enabled = it->second;
    return true;
}

void applyLocked(Registry& r) {
    for (auto& [key, group] : r.all) {
        bool enabled = !r.quiet.count(key);
        settingFor(r, key, enabled);
        group->setEnabled(enabled);
    }
}

// The watched files' settings as one text, so that a change is noticed.
std::string readSettings(const std::vector<std::string>& files,
                         std::map<std::string, bool>& settings) {
    std::string signature;
    for (const std::string& file : files) {
        for (const std::string& key : profile::listKeys(file, kSettingsSection)) {
            std::string value = profile::readValue(file, kSettingsSection, key).value_or("");
            settings[misc::lowered(key)] = !value.empty() && value != "0";
            signature += file + '\n' + key + '=' + value + '\n';
        }
    }
    return signature;
}

} // namespace

MsgGroup& registerMsgGroup(const std::string& name) {
    auto& r = registry();
    std::lock_guard guard(r.mutex);
    const std::string key = misc::lowered(name);
    auto& record = r.all[key];
    if (!record) {
        record = std::make_unique<MsgGroup>(name, static_cast<int>(r.all.size()));
        bool enabled = true;
        if (settingFor(r, key, enabled))
            record->setEnabled(enabled);
    }
    r.registered[key] = record.get();
    return *record;
}

MsgGroup& registerQuietMsgGroup(const std::string& name) {
    auto& r = registry();
    {
        std::lock_guard guard(r.mutex);
        r.quiet.insert(misc::lowered(name));
    }
    MsgGroup& group = registerMsgGroup(name);
    std::lock_guard guard(r.mutex);
    bool enabled = false;
    if (!settingFor(r, misc::lowered(name), enabled, false))
        enabled = false;
    group.setEnabled(enabled);
    return group;
}

MsgGroup* findMsgGroup(const std::string& name) {
    auto& r = registry();
    std::lock_guard guard(r.mutex);
    auto it = r.registered.find(misc::lowered(name));
    return it == r.registered.end() ? nullptr : it->second;
}

void unregisterMsgGroup(const std::string& name) {
    auto& r = registry();
    std::lock_guard guard(r.mutex);
    r.registered.erase(misc::lowered(name));
}

std::vector<std::string> msgGroupNames() {
    auto& r = registry();
    std::lock_guard guard(r.mutex);
    std::vector<std::string> names;
    for (const auto& [key, group] : r.registered)
        names.push_back(group->name());
    return names;
}

bool setMsgGroupEnabled(const std::string& name, bool enabled) {
    auto& r = registry();
    std::lock_guard guard(r.mutex);
    const std::string key = misc::lowered(name);
    r.settings[key] = enabled;
    auto it = r.all.find(key);
    if (it == r.all.end())
        return false;
    it->second->setEnabled(enabled);
    return r.registered.count(key) != 0;
}

void applyMsgGroupSettings(const std::vector<std::string>& debugFiles) {
    std::map<std::string, bool> settings;
    readSettings(debugFiles, settings);
    auto& r = registry();
    std::lock_guard guard(r.mutex);
    r.settings = std::move(settings);
    applyLocked(r);
}

void watchMsgGroupSettings(const std::vector<std::string>& debugFiles) {
    std::map<std::string, bool> settings;
    std::string signature = readSettings(debugFiles, settings);
    auto& r = registry();
    std::lock_guard guard(r.mutex);
    r.watchedFiles = debugFiles;
    r.watchedSignature = std::move(signature);
    r.settings = std::move(settings);
    r.lastPoll = pollTime(r);
    applyLocked(r);
}

void pollMsgGroupSettings() {
    auto& r = registry();
    std::vector<std::string> files;
    {
        std::lock_guard guard(r.mutex);
        const auto now = pollTime(r);
        if (r.watchedFiles.empty() || now - r.lastPoll < std::chrono::seconds(1))
            return;
        r.lastPoll = now;
        files = r.watchedFiles;
    }
    std::map<std::string, bool> settings;
    std::string signature = readSettings(files, settings);
    std::lock_guard guard(r.mutex);
    if (signature == r.watchedSignature)
        return;
    r.watchedSignature = std::move(signature);
    r.settings = std::move(settings);
    applyLocked(r);
}

void setMsgGroupPollClock(MsgGroupPollClock clock) {
    auto& r = registry();
    std::lock_guard guard(r.mutex);
    r.clock = std::move(clock);
}

} // namespace msglog
