// The failure types of the engine libraries: one per namespace, each carrying one
// complete English message.
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

namespace channels {
class Exception : public misc::MessageException {
public:
    using MessageException::MessageException;
};
} // namespace channels

namespace expat {
class Exception : public misc::MessageException {
public:
    using MessageException::MessageException;
};
} // namespace expat
