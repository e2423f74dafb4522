// Text from the engine on the terminal.
#pragma once

#include "app/terminalText.h"

namespace cli {

using app::toTerminal;
using app::toUtf8;

} // namespace cli
