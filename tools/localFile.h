// Local feeds: file: URLs and plain paths, read only when they are regular files of a
// bounded size.
#pragma once

#include "tools/exception.h"

#include <cstdint>
#include <string>

namespace tools {

// The local file an address names ("file:" URLs, or the path of an existing non-directory),
// or empty when it names none.
std::string localFilePath(const std::string& url);
// Why the path can't be read as a feed ("Can't open file: ...", "Not a regular file: ..."),
// or empty when it can. Links are followed.
std::string localFileProblem(const std::string& path);
// Reads a regular file whole into body; throws tools::Exception with the problem, or
// with the size limit's message (naming url) past maxBytes (0 = no limit). Never blocks on
// a FIFO or a device.
void readLocalFile(const std::string& path, const std::string& url, std::uint64_t maxBytes,
                   std::string& body);

} // namespace tools
