// The failure type of the expat library: one complete English message.
#pragma once

#include "lib/misc/exception.h"

namespace expat {

class Exception : public misc::MessageException {
public:
    using MessageException::MessageException;
};

} // namespace expat
