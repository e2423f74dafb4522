// Text from the engine on the terminal.
#pragma once

#include <string>
#include <string_view>

namespace app {

// Latin-1 text from the engine as UTF-8 for the terminal.
std::string toUtf8(const std::string& latin1);
// The same for text a feed chose: its control characters (C0, DEL, C1) are written as
// "\xNN", so that a feed can't move the cursor or forge lines of output.
std::string toTerminal(const std::string& latin1);
// The same, added to the end of out.
void appendTerminal(std::string& out, std::string_view latin1);

} // namespace app
