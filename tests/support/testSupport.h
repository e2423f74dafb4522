// Helpers shared by the tests: temporary directories, whole files, child processes.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace testing_support {

// A fresh directory under the temporary directory, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return m_path; }
    std::string file(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

// The project's source directory (for fixtures).
std::filesystem::path sourceDir();
// The build directory (for the programs under test, such as pelsu-cli).
std::filesystem::path binaryDir();

// Runs body in a forked child; returns its exit status (or 128 + signal) and what it wrote to
// standard error.
struct ChildResult {
    int status = -1;
    std::string errorOutput;
};
ChildResult runInChild(const std::function<void()>& body);

} // namespace testing_support
