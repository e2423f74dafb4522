#include "app/startup.h"
#include "app/environment.h"
#include "channels/exception.h"
#include "lib/log/log.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/systemValues.h"
#include "tests/support/testSupport.h"
#include "tools/net.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;
using namespace app;
using namespace channels;
using testing_support::TempDir;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

// A program directory like the one that ships: the resources of the source tree.
std::string programDir() { return (testing_support::sourceDir() / "resources").string(); }

} // namespace

TEST(Startup, NewUserGetsTheFirstRunContentsAndTheOfflineNewsChannel) {
    TempDir home;
    const AppPaths paths = buildAppPaths(programDir(), home.path().string(), "alice");
    EXPECT_TRUE(prepareUserDirectory(paths));
    EXPECT_TRUE(fs::exists(fs::path(paths.userDir) / "DefaultChannelSummary.template"));
    EXPECT_TRUE(fs::exists(fs::path(paths.userDir) / "DefaultChannelSummary.gif"));
    EXPECT_TRUE(fs::is_directory(paths.logsDir));
    const std::string channel = (fs::path(paths.channelsDir) / "PelsuNews.rss").string();
    const std::string address = profile::readIniString(channel, "Config", "RssChannelUrl");
    EXPECT_EQ(address, defaultNewsFeedAddress(programDir()));
    EXPECT_TRUE(fs::exists(address)) << "the default channel must work offline";

    // A second start keeps what the user changed.
    fs::remove(channel);
    EXPECT_FALSE(prepareUserDirectory(paths));
    EXPECT_FALSE(fs::exists(channel));
}

TEST(Startup, FirstStartsAtOnceAllSucceedAndLeaveOtherUsersAlone) {
    TempDir home;
    const AppPaths paths = buildAppPaths(programDir(), home.path().string(), "carol");
    const AppPaths other = buildAppPaths(programDir(), home.path().string(), "carol.new");
    prepareUserDirectory(other);
    std::atomic<int> failures{0};
    std::vector<std::thread> starts;
    for (int i = 0; i < 4; ++i)
        starts.emplace_back([&] {
            try {
                prepareUserDirectory(paths);
            } catch (const std::exception&) {
                ++failures;
            }
        });
    for (auto& start : starts)
        start.join();
    EXPECT_EQ(failures, 0);
    std::vector<std::string> users;
    for (const auto& entry : fs::directory_iterator(fs::path(paths.userDir).parent_path()))
        users.push_back(entry.path().filename().string());
    std::sort(users.begin(), users.end());
    EXPECT_EQ(users, (std::vector<std::string>{"carol", "carol.new"}));
    EXPECT_TRUE(fs::exists(fs::path(paths.channelsDir) / "PelsuNews.rss"));
}

TEST(Startup, UserDirectoryThatCannotBeCreatedIsReportedWithTheUserName) {
    TempDir home;
    writeFile(home.file("Users"), "a file where the directory should be");
    const AppPaths paths = buildAppPaths(programDir(), home.path().string(), "bob");
    try {
        prepareUserDirectory(paths);
        FAIL() << "expected a failure";
    } catch (const app::StartupError& failure) {
        // The message is exactly the step's own; the system's reason goes with it apart.
        EXPECT_STREQ(failure.what(), "Can't create a new directory for user: bob");
        EXPECT_THAT(failure.detail(), HasSubstr("Not a directory"));
    }
    // In a user's directory that exists, a folder that can't be made is another failure.
    fs::remove(home.file("Users"));
    prepareUserDirectory(paths);
    fs::remove_all(paths.logsDir);
    writeFile(paths.logsDir, "a file where the folder should be");
    EXPECT_THROW(prepareUserDirectory(paths), fs::filesystem_error);
}

// The user name comes from the program's debug.ini unless empty; the user's own debug.ini wins
// over the program's for the other settings.
TEST(Startup, DebugSettingsComeFromTheUserThenTheProgramDebugFile) {
    TempDir dir;
    AppPaths paths = buildAppPaths(dir.path().string(), dir.path().string(), "u");
    fs::create_directories(paths.userDir);
    writeFile(paths.programDebugFile, "[Debug]\nUserName=  tester  \nA=1\nB=2\n");
    writeFile(paths.userDebugFile, "[Debug]\nB=3\n");
    EXPECT_EQ(determineUserName(paths.programDebugFile), "tester");
    EXPECT_EQ(readDebugInt(paths, "A", 0), 1);
    EXPECT_EQ(readDebugInt(paths, "B", 0), 3);
    EXPECT_EQ(readDebugInt(paths, "C", 9), 9);
    writeFile(paths.programDebugFile, "[Debug]\nUserName=\n");
    EXPECT_THAT(determineUserName(paths.programDebugFile), Not(AnyOf("", "tester")));
}

// "DisableHttpHeaders" chooses the simple fetch path from the user's debug.ini or among the
// global options; without it the header-aware path stands.
TEST(Startup, DisableHttpHeadersComesFromTheDebugFileOrTheGlobalOptions) {
    for (const char* where : {"", "debug.ini", "config.ini"}) {
        SCOPED_TRACE(where);
        TempDir home;
        Environment environment = findEnvironment(home.path().string(), programDir());
        const std::string file = environment.paths.userDir + "/" + where;
        if (std::string(where) == "debug.ini")
            writeFile(file, "[Debug]\nDisableHttpHeaders=1\n");
        else if (*where)
            writeFile(file, "[Global Options]\nDisableHttpHeaders=1\n");
        openEnvironment(environment);
        EXPECT_EQ(tools::useHttpHeaders(), !*where);
        msglog::CMessageLog::instance().close();
    }
    tools::setUseHttpHeaders(true);
}

TEST(Startup, PublishesTheSystemValues) {
    const AppPaths paths = buildAppPaths("/opt/pelsu", "/home/x/.local/share/pelsu", "x");
    publishSystemValues(paths, "1.2.3");
    auto& values = misc::SystemValues::instance();
    EXPECT_EQ(values.get("VersionString"), "1.2.3");
    EXPECT_EQ(values.get("UserName"), "x");
    EXPECT_EQ(values.get("ChannelsDir"), "/home/x/.local/share/pelsu/Users/x/Channels");
    EXPECT_EQ(values.get("AppPluginsDir"), "/opt/pelsu/appPlugins");
    for (const char* name :
         {"AppHomeUrl", "FeedbackEmailAddress", "SupportEmailAddress", "UserConfigFile"})
        EXPECT_FALSE(values.get(name).empty()) << name;
}
