// The failure type of the channels library: one complete English message.
#pragma once

#include "lib/misc/exception.h"

namespace channels {

class Exception : public misc::MessageException {
public:
    using MessageException::MessageException;
};

} // namespace channels
