#include "lib/misc/systemValues.h"

namespace misc {

SystemValues& SystemValues::instance() {
    static SystemValues values;
    return values;
}

void SystemValues::set(const std::string& name, const std::string& value) {
    threadSafety::ScopedLock lock(m_lock);
    m_values[name] = value;
}

std::string SystemValues::get(const std::string& name) const {
    threadSafety::ScopedLock lock(m_lock);
    auto it = m_values.find(name);
    return it == m_values.end() ? std::string() : it->second;
}

bool SystemValues::has(const std::string& name) const {
    threadSafety::ScopedLock lock(m_lock);
    return m_values.count(name) != 0;
}

std::vector<std::pair<std::string, std::string>> SystemValues::all() const {
    threadSafety::ScopedLock lock(m_lock);
    return {m_values.begin(), m_values.end()};
}

void SystemValues::clear() {
    threadSafety::ScopedLock lock(m_lock);
    m_values.clear();
}

} // namespace misc
