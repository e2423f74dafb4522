#include "tools/address.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string_view>
#include <vector>

namespace tools {

namespace {

// The scheme's end (the index of ':') when the address starts with one, else npos.
std::size_t schemeEnd(const std::string& address) {
    const std::size_t colon = address.find(':');
    if (colon == std::string::npos || colon == 0 ||
        !std::isalpha(static_cast<unsigned char>(address[0])))
        return std::string::npos;
    for (std::size_t i = 1; i < colon; ++i)
        if (!std::isalnum(static_cast<unsigned char>(address[i])) &&
            std::string_view("+-.").find(address[i]) == std::string_view::npos)
            return std::string::npos;
    return colon;
}

// A path without its "." and ".." segments.
std::string withoutDotSegments(const std::string& path) {
    std::vector<std::string> segments;
    std::size_t i = 0;
    while (i <= path.size()) {
        std::size_t end = path.find('/', i);
        if (end == std::string::npos)
            end = path.size();
        segments.push_back(path.substr(i, end - i));
        i = end + 1;
    }
    std::vector<std::string> kept;
    for (std::size_t s = 0; s < segments.size(); ++s) {
        const bool last = s + 1 == segments.size();
        if (segments[s] == "." || segments[s] == "..") {
            if (segments[s] == ".." && kept.size() > 1)
                kept.pop_back();
            if (last)
                kept.emplace_back(); // "a/.." names the directory
            continue;
        }
        kept.push_back(segments[s]);
    }
    std::string out;
    for (std::size_t s = 0; s < kept.size(); ++s)
        out += (s == 0 ? "" : "/") + kept[s];
    return out;
}

} // namespace

std::string resolveAddress(const std::string& base, const std::string& reference) {
    if (reference.empty())
        return base.substr(0, base.find('#'));
    if (schemeEnd(reference) != std::string::npos)
        return reference;
    const std::size_t colon = schemeEnd(base);
    if (colon == std::string::npos) { // a local path
        if (reference[0] == '/')
            return reference;
        return (std::filesystem::path(base).parent_path() / reference).lexically_normal().string();
    }
    const std::string scheme = base.substr(0, colon + 1);
    if (reference.rfind("//", 0) == 0)
        return scheme + reference;
    const bool hasAuthority = base.compare(colon + 1, 2, "//") == 0;
    const std::size_t pathStart =
        hasAuthority ? std::min(base.find_first_of("/?#", colon + 3), base.size()) : colon + 1;
    const std::string origin = base.substr(0, pathStart);
    const std::string rest = base.substr(pathStart);
    const std::string path = rest.substr(0, rest.find_first_of("?#"));
    if (reference[0] == '#')
        return base.substr(0, base.find('#')) + reference;
    if (reference[0] == '?')
        return origin + path + reference;
    const std::size_t queryAt = reference.find_first_of("?#");
    const std::string refPath = reference.substr(0, queryAt);
    const std::string tail = queryAt == std::string::npos ? "" : reference.substr(queryAt);
    std::string merged;
    if (refPath[0] == '/')
        merged = refPath;
    else if (hasAuthority && path.empty())
        merged = "/" + refPath;
    else
        merged = path.substr(0, path.rfind('/') + 1) + refPath;
    return origin + withoutDotSegments(merged) + tail;
}

} // namespace tools
