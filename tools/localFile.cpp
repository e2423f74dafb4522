#include "tools/localFile.h"

#include "lib/misc/descriptor.h"
#include "lib/misc/text.h"
#include "tools/exception.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace tools {

using misc::Descriptor;

namespace {

bool isScheme(const std::string& url, const char* scheme) {
    const std::string prefix = std::string(scheme) + ":";
    return misc::lowered(url.substr(0, prefix.size())) == prefix;
}

bool existsAsNonDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode);
}

// The kernel's own files (/proc, /sys) claim to be regular but are made up as they are read.
bool isKernelFileSystem(int fd) {
    struct statfs info {};
    if (::fstatfs(fd, &info) != 0)
        return false;
    return info.f_type == PROC_SUPER_MAGIC || info.f_type == SYSFS_MAGIC ||
           info.f_type == DEBUGFS_MAGIC;
}

// A problem with what an open descriptor or a stat call describes.
std::string typeProblem(const struct stat& info, const std::string& path) {
    if (S_ISDIR(info.st_mode))
        return "Can't open file: " + path;
    if (!S_ISREG(info.st_mode))
        return "Not a regular file: " + path;
    return "";
}

} // namespace

std::string localFilePath(const std::string& url) {
    if (isScheme(url, "file")) {
        std::string path = url.substr(5);
        if (path.rfind("//", 0) == 0) {
            const size_t slash = path.find('/', 2); // skip the (empty or local) host
            path = slash == std::string::npos ? "" : path.substr(slash);
        }
        if (!existsAsNonDirectory(path) && existsAsNonDirectory(misc::percentDecoded(path)))
            path = misc::percentDecoded(path);
        return path.empty() ? url : path;
    }
    if (!isScheme(url, "http") && !isScheme(url, "https") && existsAsNonDirectory(url))
        return url;
    return "";
}

std::string localFileProblem(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        return "Can't open file: " + path;
    if (std::string problem = typeProblem(info, path); !problem.empty())
        return problem;
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid())
        return "Can't open file: " + path;
    if (isKernelFileSystem(file.get()))
        return "Not a regular file: " + path;
    return "";
}

void readLocalFile(const std::string& path, const std::string& url, std::uint64_t maxBytes,
                   std::string& body) {
    // The type is checked before opening, so a FIFO is never waited on, and again on the
    // descriptor, in case the path changed in between.
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        throw Exception("Can't open file: " + path);
    if (std::string problem = typeProblem(info, path); !problem.empty())
        throw Exception(problem);
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid() || ::fstat(file.get(), &info) != 0)
        throw Exception("Can't open file: " + path);
    if (std::string problem = typeProblem(info, path); !problem.empty())
        throw Exception(problem);
    if (isKernelFileSystem(file.get()))
        throw Exception("Not a regular file: " + path);
    const auto tooLarge = [&] {
        return Exception("The download is larger than the limit of " + std::to_string(maxBytes) +
                         " bytes: " + url);
    };
    if (maxBytes != 0 && static_cast<std::uint64_t>(info.st_size) > maxBytes)
        throw tooLarge();
    body.clear();
    body.reserve(static_cast<std::size_t>(info.st_size));
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(file.get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw Exception("Can't read the URL: " + url);
        if (got == 0)
            break;
        if (maxBytes != 0 && body.size() + static_cast<std::uint64_t>(got) > maxBytes)
            throw tooLarge(); // the file grew while it was read
        body.append(buffer, static_cast<std::size_t>(got));
    }
}

} // namespace tools
