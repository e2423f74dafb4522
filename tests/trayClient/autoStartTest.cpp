// "AutoStartApp": the XDG autostart entry is written, replaced and removed, its Exec line
// survives awkward paths, and failures say what could not be done and why.
#include "trayClient/autoStart.h"

#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;
using trayClient::applyAutoStart;
using trayClient::autostartEntry;

TEST(AutoStart, EnablingWritesOrReplacesTheEntryAndDisablingRemovesIt) {
    TempDir dir;
    std::string autostart = dir.file("config/autostart");
    ASSERT_EQ(applyAutoStart(true, autostart, "/opt/pelsu/bin/pelsu", {}).message, "");
    std::string entry = readFile(autostart + "/pelsu.desktop");
    EXPECT_NE(entry.find("[Desktop Entry]\n"), std::string::npos);
    EXPECT_NE(entry.find("\nExec=\"/opt/pelsu/bin/pelsu\"\n"), std::string::npos);
    EXPECT_NE(entry.find("\nType=Application\n"), std::string::npos);

    ASSERT_EQ(applyAutoStart(true, autostart, "/new/pelsu", {"--home", "/h"}).message, "");
    entry = readFile(autostart + "/pelsu.desktop");
    EXPECT_EQ(entry.find("/opt/pelsu"), std::string::npos);
    EXPECT_NE(entry.find("Exec=\"/new/pelsu\" \"--home\" \"/h\"\n"), std::string::npos);
    EXPECT_FALSE(fs::exists(autostart + "/pelsu.desktop.new"));

    EXPECT_EQ(applyAutoStart(false, autostart, "/new/pelsu", {}).message, "");
    EXPECT_FALSE(fs::exists(autostart + "/pelsu.desktop"));
    // Disabling what is not there is no failure.
    EXPECT_EQ(applyAutoStart(false, autostart, "/new/pelsu", {}).message, "");
    EXPECT_EQ(applyAutoStart(false, dir.file("never/made"), "/new/pelsu", {}).message, "");
}

TEST(AutoStart, ExecQuotesArgumentsAndEscapesWhatTheDesktopWouldExpand) {
    std::string entry =
        autostartEntry("/home/a b/pelsu", {"--home", "/data/100% \"news\" $HOME `x` back\\slash"});
    EXPECT_NE(entry.find("\nExec=\"/home/a b/pelsu\" \"--home\" "
                         "\"/data/100%% \\\"news\\\" \\$HOME \\`x\\` back\\\\slash\"\n"),
              std::string::npos)
        << entry;
}

TEST(AutoStart, FailuresSayWhatCouldNotBeDoneAndKeepTheFileAndReasonApart) {
    TempDir dir;
    // A file where the autostart folder should be.
    writeFile(dir.file("blocked"), "");
    auto problem = applyAutoStart(true, dir.file("blocked/autostart"), "/p/pelsu", {});
    EXPECT_EQ(problem.message, "Couldn't open the registry to enable auto-start.\n\n"
                               "Please contact your system administrator.");
    EXPECT_EQ(problem.detail.rfind(dir.file("blocked/autostart") + ": ", 0), 0u) << problem.detail;

    // A directory where the entry should be: it can be neither replaced nor removed.
    fs::create_directories(dir.file("taken/pelsu.desktop/inside"));
    problem = applyAutoStart(true, dir.file("taken"), "/p/pelsu", {});
    EXPECT_EQ(problem.message, "Couldn't update the registry to enable auto-start.\n\n"
                               "Please contact your system administrator.");
    problem = applyAutoStart(false, dir.file("taken"), "/p/pelsu", {});
    EXPECT_EQ(problem.message, "Couldn't update the registry to disable auto-start.\n\n"
                               "Please contact your system administrator.");
    EXPECT_NE(problem.detail.find("pelsu.desktop: "), std::string::npos) << problem.detail;
    EXPECT_TRUE(fs::exists(dir.file("taken/pelsu.desktop/inside")));
}
