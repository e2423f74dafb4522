#include "tests/support/testSupport.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace testing_support {

std::filesystem::path binaryDir() { return PELSU_BINARY_DIR; }

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pelsu-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

std::filesystem::path sourceDir() { return PELSU_SOURCE_DIR; }

ChildResult runInChild(const std::function<void()>& body) {
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0)
        throw std::runtime_error("pipe failed");
    pid_t child = ::fork();
    if (child == 0) {
        ::close(pipeEnds[0]);
        ::dup2(pipeEnds[1], STDERR_FILENO);
        body();
        std::_Exit(0);
    }
    ::close(pipeEnds[1]);
    ChildResult result;
    char buffer[4096];
    ssize_t count;
    while ((count = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0)
        result.errorOutput.append(buffer, static_cast<size_t>(count));
    ::close(pipeEnds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

} // namespace testing_support
