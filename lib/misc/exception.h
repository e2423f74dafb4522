// The common base of the engine libraries' failure types: each layer declares its own
// (tools::Exception, expat::Exception, channels::Exception) on top of this one, so that a
// boundary catching any engine failure gets the one complete English message.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace misc {

class MessageException : public std::exception {
public:
    explicit MessageException(std::string message) : m_message(std::move(message)) {}
    const char* what() const noexcept override { return m_message.c_str(); }
    const std::string& message() const noexcept { return m_message; }

private:
    std::string m_message;
};

} // namespace misc
