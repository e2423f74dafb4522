// Which socket addresses belong to this computer: the check that keeps downloads made for
// web pages away from the program's own servers and from everything else on this machine.
#pragma once

#include <string>
#include <sys/socket.h>

namespace tools {

// True for loopback, unspecified (0.0.0.0, ::, 0.x.x.x), link-local and broadcast
// addresses, IPv4-mapped and IPv4-compatible forms of those, and the addresses of this
// computer's own network interfaces.
bool isThisComputer(const sockaddr* address);
// True when a host as written in an address names this computer: "localhost" and its
// subdomains, with or without a final dot or percent-encoding, and every numeric form of an
// address isThisComputer refuses (2130706433, 0x7f000001, 0177.0.0.1, 0, [::ffff:127.0.0.1],
// [::1%25lo]). The port is the one the address names.
bool hostNamesThisComputer(const std::string& host, int port);
// The address as text ("127.0.0.1", "::1").
std::string addressText(const sockaddr* address);

// For tests only: connections to 127.x.x.x on this port count as another computer, so that a
// test server can stand in for a feed elsewhere. 0 (the default) turns it off.
void setRemoteTestPort(int port);

} // namespace tools
