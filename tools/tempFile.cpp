#include "tools/tempFile.h"

#include "lib/misc/descriptor.h"
#include "tools/exception.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <unistd.h>

namespace tools {

using misc::Descriptor;

TempFile::TempFile(const std::string& extension, bool deleteOnDestroy)
    : m_deleteOnDestroy(deleteOnDestroy) {
    std::error_code error;
    std::filesystem::path directory = std::filesystem::temp_directory_path(error);
    if (error)
        directory = "/tmp";
    std::string pattern = (directory / "pelsu-XXXXXX").string() + extension;
    // Only the name is kept; the file is opened as a stream when it is written.
    const Descriptor created(::mkstemps(pattern.data(), static_cast<int>(extension.size())));
    if (!created.valid())
        throw tools::Exception("Can't create a temporary file in " + directory.string() + ": " +
                               std::strerror(errno));
    m_path = pattern;
}

TempFile::~TempFile() {
    close();
    if (m_deleteOnDestroy)
        ::unlink(m_path.c_str());
}

std::ofstream& TempFile::stream() {
    if (!m_stream.is_open())
        m_stream.open(m_path, std::ios::binary | std::ios::app);
    return m_stream;
}

std::ofstream& TempFile::reopen(bool truncate) {
    close();
    m_stream.open(m_path, std::ios::binary | (truncate ? std::ios::trunc : std::ios::app));
    return m_stream;
}

void TempFile::close() {
    if (m_stream.is_open())
        m_stream.close();
    m_stream.clear();
}

std::string TempFile::read() const {
    // Sized once from the file, so a large output is held once rather than grown and copied.
    std::ifstream in(m_path, std::ios::binary | std::ios::ate);
    std::string text;
    const std::streamoff size = in ? static_cast<std::streamoff>(in.tellg()) : 0;
    if (size <= 0)
        return text;
    text.resize(static_cast<std::size_t>(size));
    in.seekg(0);
    in.read(text.data(), size);
    text.resize(static_cast<std::size_t>(in.gcount()));
    return text;
}

} // namespace tools
