// Collects the message log's lines, without their prefixes, while it lives (for the tests of
// log lines).
#pragma once

#include "lib/log/log.h"

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace testing_support {

class LogCapture {
public:
    LogCapture() {
        auto& log = msglog::CMessageLog::instance();
        m_previous = log.switches();
        log.setSwitches({false, false, false, false, false});
        log.setMirror(&m_text);
    }
    ~LogCapture() {
        auto& log = msglog::CMessageLog::instance();
        log.setMirror(nullptr);
        log.setSwitches(m_previous);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Every line so far, trimmed of indentation.
    std::vector<std::string> lines() {
        msglog::LogBlock block;
        std::vector<std::string> result;
        std::istringstream in(m_text.str());
        for (std::string line; std::getline(in, line);)
            result.push_back(line.substr(std::min(line.find_first_not_of(' '), line.size())));
        return result;
    }
    // The lines that start with one of the prefixes, in order.
    std::vector<std::string> linesStartingWith(const std::vector<std::string>& prefixes) {
        std::vector<std::string> result;
        for (const std::string& line : lines())
            for (const std::string& prefix : prefixes)
                if (line.rfind(prefix, 0) == 0) {
                    result.push_back(line);
                    break;
                }
        return result;
    }
    void clear() {
        msglog::LogBlock block;
        m_text.str({});
    }

private:
    msglog::LogSwitches m_previous;
    std::ostringstream m_text;
};

} // namespace testing_support
