// The failure type of the tools library: one complete English message.
#pragma once

#include "lib/misc/exception.h"

namespace tools {

class Exception : public misc::MessageException {
public:
    using MessageException::MessageException;
};

} // namespace tools
