// A temporary file with a unique name in the system's temporary directory.
#pragma once

#include "tools/exception.h"

#include <fstream>
#include <string>

namespace tools {

class TempFile {
public:
    // Creates the file (empty) with the extension ("" or, say, ".html"); it is removed when
    // this object is destroyed if deleteOnDestroy is set. Throws tools::Exception when no
    // file can be created.
    explicit TempFile(const std::string& extension = "", bool deleteOnDestroy = true);
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    const std::string& path() const { return m_path; }
    // The output stream on the file, opened on first use.
    std::ofstream& stream();
    // Closes the stream and opens it again, emptying the file when truncate is set.
    std::ofstream& reopen(bool truncate = true);
    // Closes the stream so that others can read what was written.
    void close();
    // The whole content of the file.
    std::string read() const;

private:
    std::string m_path;
    bool m_deleteOnDestroy;
    std::ofstream m_stream;
};

} // namespace tools
