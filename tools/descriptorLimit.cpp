#include "tools/descriptorLimit.h"

#include <algorithm>
#include <filesystem>
#include <sys/resource.h>

namespace tools {

namespace {

// Programs started by the plugins inherit the limit; some still walk every possible
// descriptor, so an unbounded hard limit is not taken whole.
constexpr rlim_t kHighestSoftLimit = 65536;
// Each listener's own descriptors: the socket, the wake-up event, the epoll set, the spare.
constexpr std::size_t kDescriptorsPerListener = 4;
constexpr std::size_t kLeastForTheRest = 64;
constexpr std::size_t kLeastConnections = 4;

} // namespace

std::size_t raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 1024;
    const rlim_t wanted = std::min(limit.rlim_max, kHighestSoftLimit);
    if (limit.rlim_cur < wanted) {
        rlimit raised = limit;
        raised.rlim_cur = wanted;
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0)
            limit = raised;
    }
    return limit.rlim_cur == RLIM_INFINITY ? kHighestSoftLimit
                                           : static_cast<std::size_t>(limit.rlim_cur);
}

std::size_t openDescriptorCount() {
    std::error_code error;
    std::size_t count = 0;
    for (std::filesystem::directory_iterator it("/proc/self/fd", error), end; !error && it != end;
         it.increment(error))
        ++count;
    return count > 0 ? count - 1 : 0; // less the one that lists them
}

std::size_t connectionsPerListener(std::size_t wanted, std::size_t listeners, std::size_t limit,
                                   std::size_t open) {
    listeners = std::max<std::size_t>(listeners, 1);
    const std::size_t rest = std::max(kLeastForTheRest, limit / 4);
    const std::size_t used = open + rest + listeners * (kDescriptorsPerListener + 1);
    const std::size_t share = limit > used ? (limit - used) / listeners : 0;
    return std::max(kLeastConnections, std::min(wanted, share));
}

} // namespace tools
