#include "lib/log/msgGroup.h"

#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "lib/misc/text.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

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
};

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
            signature += file + '\n' + key + '=' + value + '\n';
            // Read as every integer setting is: an empty value leaves the group as it was.
            if (!misc::trimmed(value).empty())
                settings[misc::lowered(key)] = profile::parseIniInt(value) != 0;
        }
    }
    return signature;
}

// Re-reads the watched files once a second on its own thread, so that a log call never has to.
class SettingsWatcher {
public:
    void start() {
        std::lock_guard guard(m_mutex);
        if (m_thread.joinable())
            return;
        const std::uint64_t generation = ++m_generation;
        m_thread = std::thread([this, generation] { run(generation); });
        if (!m_atExitRegistered)
            m_atExitRegistered = std::atexit([] { watcher().stop(); }) == 0;
    }
    void stop() {
        std::thread thread;
        {
            std::lock_guard guard(m_mutex);
            ++m_generation;
            thread = std::move(m_thread);
        }
        m_wake.notify_all();
        if (thread.joinable())
            thread.join();
    }
    static SettingsWatcher& watcher() {
        static auto* instance = new SettingsWatcher; // outlives the static registrations
        return *instance;
    }

private:
    // Ends when stop() or a later start() moves the generation on.
    void run(std::uint64_t generation) {
        std::unique_lock lock(m_mutex);
        while (!m_wake.wait_for(lock, std::chrono::seconds(1),
                                [&] { return generation != m_generation; })) {
            lock.unlock();
            pollMsgGroupSettings();
            lock.lock();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::uint64_t m_generation = 0;
    bool m_atExitRegistered = false;
    std::thread m_thread;
};

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
    {
        auto& r = registry();
        std::lock_guard guard(r.mutex);
        r.watchedFiles = debugFiles;
        r.watchedSignature = std::move(signature);
        r.settings = std::move(settings);
        applyLocked(r);
    }
    if (debugFiles.empty())
        SettingsWatcher::watcher().stop();
    else
        SettingsWatcher::watcher().start();
}

void pollMsgGroupSettings() {
    auto& r = registry();
    std::vector<std::string> files;
    {
        std::lock_guard guard(r.mutex);
        if (r.watchedFiles.empty())
            return;
        files = r.watchedFiles;
    }
    std::map<std::string, bool> settings;
    std::string signature = readSettings(files, settings);
    std::lock_guard guard(r.mutex);
    if (signature == r.watchedSignature || files != r.watchedFiles)
        return;
    r.watchedSignature = std::move(signature);
    r.settings = std::move(settings);
    applyLocked(r);
}

} // namespace msglog
