// The client as a process: SIGTERM and SIGINT end it with the eleven shut-down lines, a second
// start hands over to the first and exits 0, and start-up failures reach standard error with
// exit status 1.
#include "app/startup.h"
#include "tests/support/testSupport.h"
#include "tests/trayClient/support/clientTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;

extern char** environ;

namespace {

// A pelsu process with the given environment changes (through env(1), which execs it in the
// same process); its standard error goes to a file.
class ClientProcess {
public:
    ClientProcess(const std::vector<std::string>& args, const std::vector<std::string>& setEnv,
                  const std::vector<std::string>& unsetEnv, const std::string& errorFile) {
        std::vector<std::string> command{"env"};
        for (const std::string& name : unsetEnv)
            command.insert(command.end(), {"-u", name});
        command.insert(command.end(), setEnv.begin(), setEnv.end());
        command.push_back((testing_support::binaryDir() / "trayClient" / "pelsu").string());
        command.insert(command.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& word : command)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        EXPECT_EQ(posix_spawnp(&m_pid, "env", &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
    }
    ~ClientProcess() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    void signal(int number) { ::kill(m_pid, number); }
    // The exit status (128 + signal when killed); -1 when it has not ended within the limit.
    int wait(std::chrono::seconds limit = std::chrono::seconds(30)) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return -1;
    }

private:
    pid_t m_pid = -1;
};

class ClientProcessTest : public ::testing::Test {
protected:
    ClientProcessTest() {
        std::string programDir = testing_support::binaryDir().string();
        userDir = home.path() / "Users" /
                  app::determineUserName((fs::path(programDir) / "debug.ini").string());
        fs::create_directories(userDir / "Channels");
        // The listeners on free ports, away from the usual ones that other tests may hold.
        int appPort = 0;
        int pluginPort = 0;
        {
            testing_support::LoopbackPort first;
            testing_support::LoopbackPort second;
            appPort = first.port();
            pluginPort = second.port();
        }
        writeFile((userDir / "config.ini").string(),
                  "[Global Options]\nAppServerPortNo=" + std::to_string(appPort) +
                      "\nAppPluginServerPortNo=" + std::to_string(pluginPort) +
                      "\nDisableAllSound=1\n");
    }
    std::unique_ptr<ClientProcess> launch(const std::string& errorFile,
                                          const std::string& address = {}) {
        std::vector<std::string> args{"--home", home.path().string()};
        if (!address.empty())
            args.push_back(address);
        return std::make_unique<ClientProcess>(
            args,
            std::vector<std::string>{"QT_QPA_PLATFORM=offscreen",
                                     "XDG_CONFIG_HOME=" + home.file("config")},
            std::vector<std::string>{"DBUS_SESSION_BUS_ADDRESS"}, errorFile);
    }
    std::string log() const { return readFile((userDir / "Logs" / "pelsu.log").string()); }
    bool waitForLog(const std::string& text) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (std::chrono::steady_clock::now() < deadline) {
            if (fs::exists(userDir / "Logs" / "pelsu.log") && log().find(text) != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    void expectShutdownLinesInOrder() {
        EXPECT_EQ(client_testing::shutdownLines((userDir / "Logs" / "pelsu.log").string()),
                  client_testing::kShutdownLines);
    }

    TempDir home;
    fs::path userDir;
};

} // namespace

TEST_F(ClientProcessTest, SigtermAndSigintEndItWithTheElevenShutdownLinesAndStatusZero) {
    for (int number : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(number);
        fs::remove_all(userDir / "Logs");
        auto client = launch(home.file("stderr"));
        ASSERT_TRUE(waitForLog("The tray icon is shown.")) << readFile(home.file("stderr"));
        client->signal(number);
        EXPECT_EQ(client->wait(), 0);
        expectShutdownLinesInOrder();
    }
}

// A second start hands over to the first and exits 0: without arguments it raises the main
// window; with a feed's address (from a browser) the running one opens its wizard with it, and
// still ends cleanly with the wizard open.
TEST_F(ClientProcessTest, ASecondStartHandsOverToTheFirstAndExitsZero) {
    auto first = launch(home.file("stderr1"));
    ASSERT_TRUE(waitForLog("The tray icon is shown."));
    auto second = launch(home.file("stderr2"));
    EXPECT_EQ(second->wait(), 0) << readFile(home.file("stderr2"));
    EXPECT_TRUE(waitForLog("Another start asked for the main window."));
    auto third = launch(home.file("stderr3"), "feed:https://example.org/news.xml");
    EXPECT_EQ(third->wait(), 0) << readFile(home.file("stderr3"));
    EXPECT_TRUE(waitForLog("The new-channel wizard was asked for: https://example.org/news.xml"));
    first->signal(SIGTERM);
    EXPECT_EQ(first->wait(), 0);
    expectShutdownLinesInOrder();
}

TEST_F(ClientProcessTest, AStartUpFailureGoesToStandardErrorWithStatusOne) {
    // The data root is a file: the user directory can't be made.
    writeFile(home.file("notADirectory"), "");
    ClientProcess client({"--home", home.file("notADirectory")}, {"QT_QPA_PLATFORM=offscreen"},
                         {"DBUS_SESSION_BUS_ADDRESS"}, home.file("stderr"));
    EXPECT_EQ(client.wait(), 1);
    EXPECT_NE(readFile(home.file("stderr")).find("Can't create a new directory for user:"),
              std::string::npos)
        << readFile(home.file("stderr"));
}

TEST_F(ClientProcessTest, WithoutADisplayItSaysSoAndExitsOne) {
    ClientProcess client({"--home", home.path().string()}, {},
                         {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY"}, home.file("stderr"));
    EXPECT_EQ(client.wait(), 1);
    EXPECT_NE(readFile(home.file("stderr")).find("There is no display"), std::string::npos);
    EXPECT_FALSE(fs::exists(userDir / "Logs"));
}
