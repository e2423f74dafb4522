// How many descriptors the process may open, and how the local listeners share them.
#pragma once

#include <cstddef>

namespace tools {

// Raises the soft limit on open descriptors to the hard limit (at most 65536) where the
// system allows; returns the soft limit in force afterwards.
std::size_t raiseDescriptorLimit();
// The number of descriptors the process has open now.
std::size_t openDescriptorCount();
// The connection limit for each of `listeners` listeners, at most `wanted`, such that the
// listeners together leave a quarter of `limit` (and at least 64) to the rest of the
// program, given `open` descriptors already in use. Never below 4.
std::size_t connectionsPerListener(std::size_t wanted, std::size_t listeners, std::size_t limit,
                                   std::size_t open);

} // namespace tools
