// Addresses of web resources and local files: making a reference absolute against a base.
#pragma once

#include <string>

namespace tools {

// The reference made absolute against base, as browsers resolve links ("../a", "/a",
// "//host/a", "?q"); a base that is a local path (no scheme) resolves as a path.
std::string resolveAddress(const std::string& base, const std::string& reference);

} // namespace tools
