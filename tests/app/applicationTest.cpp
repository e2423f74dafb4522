#include "app/application.h"
#include "app/singleInstance.h"
#include "channels/channel.h"
#include "lib/misc/iniValues.h"
#include "tests/support/testSupport.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <mutex>
#include <sstream>

using testing::AnyOf;
using testing::Each;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using testing::StrEq;
using testing::ThrowsMessage;
using namespace app;
using testing_support::Gate;
using testing_support::kShutdownLines;
using testing_support::logTexts;
using testing_support::TempDir;
namespace fs = std::filesystem;

namespace {

std::string programDir() { return (testing_support::sourceDir() / "resources").string(); }

// Records the hooks in the order they are called.
class RecordingFrontEnd : public FrontEnd {
public:
    bool failMainFrame = false;
    bool failCleanUp = false;
    Gate shown;

    std::vector<std::string> calls() const {
        std::lock_guard guard(m_mutex);
        return m_calls;
    }

    void createMainFrame(Environment&) override {
        record("createMainFrame");
        if (failMainFrame)
            throw std::runtime_error("no display");
    }
    void loadChannelDesktopSettings(Environment&) override { record("loadChannelDesktopSettings"); }
    void installEventHandler(channels::ChannelManager&) override { record("installEventHandler"); }
    SubscriptionApprover* subscriptionApprover() override { return nullptr; }
    void createTrayIcon() override { record("createTrayIcon"); }
    void queueWelcomeNotification(const std::string& text) override { record("welcome: " + text); }
    void reportStartupProblem(const std::string&) override {}
    void showMainWindow() override { shown.open(); }
    void uninstallMouseHook() override { record("uninstallMouseHook"); }
    void cleanUpDesktopSettings() override {
        record("cleanUpDesktopSettings");
        if (failCleanUp)
            throw std::runtime_error("the table is gone");
    }
    void uninstallEventHandler(channels::ChannelManager&) override {
        record("uninstallEventHandler");
    }
    void unloadRichText() override { record("unloadRichText"); }
    void shutDownToolkit() override { record("shutDownToolkit"); }

private:
    void record(const std::string& call) {
        std::lock_guard guard(m_mutex);
        m_calls.push_back(call);
    }
    mutable std::mutex m_mutex;
    std::vector<std::string> m_calls;
};

Application::Options optionsFor(const TempDir& home) {
    Application::Options options;
    options.home = home.path().string();
    options.programDir = programDir();
    options.startListeners = false;
    return options;
}

// The user directory of a home, created as a first start creates it.
std::string userDirOf(const TempDir& home) {
    return findEnvironment(home.path().string(), programDir()).paths.userDir;
}

} // namespace

TEST(Application, StartsStepByStepAndShutsDownWithTheElevenLinesInOrder) {
    TempDir home;
    RecordingFrontEnd frontEnd;
    frontEnd.failCleanUp = true;
    Application application;
    ASSERT_EQ(application.start(frontEnd, optionsFor(home)), Application::StartResult::Started);
    const std::string userDir = application.environment().paths.userDir;
    const std::string logFile = application.environment().paths.logFile;
    EXPECT_FALSE(SingleInstance::tryLock(userDir)) << "the instance holds the user directory";
    application.shutDown();
    application.shutDown(); // nothing more

    const std::vector<std::string> calls = frontEnd.calls();
    ASSERT_EQ(calls.size(), 10u);
    EXPECT_EQ(std::vector<std::string>(calls.begin(), calls.begin() + 4),
              (std::vector<std::string>{"createMainFrame", "loadChannelDesktopSettings",
                                        "installEventHandler", "createTrayIcon"}));
    EXPECT_THAT(calls[4], AnyOf("welcome: " + Application::greeting(0) + " has started.",
                                "welcome: " + Application::greeting(8) + " has started.",
                                "welcome: " + Application::greeting(14) + " has started."));
    EXPECT_EQ(
        std::vector<std::string>(calls.begin() + 5, calls.end()),
        (std::vector<std::string>{"uninstallMouseHook", "cleanUpDesktopSettings",
                                  "uninstallEventHandler", "unloadRichText", "shutDownToolkit"}));

    // The eleven lines in order, the failed step's exception right after its line, indented
    // as a detail line.
    std::vector<std::string> logged;
    for (const std::string& text : logTexts(logFile))
        if (std::find(kShutdownLines.begin(), kShutdownLines.end(), text) != kShutdownLines.end() ||
            text.rfind("  - Exception caught:", 0) == 0)
            logged.push_back(text);
    std::vector<std::string> expected = kShutdownLines;
    expected.insert(expected.begin() + 4, "  - Exception caught: the table is gone");
    EXPECT_EQ(logged, expected);

    EXPECT_TRUE(SingleInstance::tryLock(userDir)) << "shut-down releases the user directory";
    EXPECT_FALSE(fs::exists(SingleInstance::socketPath(userDir)));
}

TEST(Application, ASecondStartShowsTheRunningOneAndGoesNoFurther) {
    TempDir home;
    RecordingFrontEnd firstFrontEnd, secondFrontEnd;
    Application first, second;
    ASSERT_EQ(first.start(firstFrontEnd, optionsFor(home)), Application::StartResult::Started);
    EXPECT_EQ(second.start(secondFrontEnd, optionsFor(home)),
              Application::StartResult::HandedToRunningInstance);
    EXPECT_TRUE(firstFrontEnd.shown.wait());
    EXPECT_TRUE(secondFrontEnd.calls().empty());
}

// Both run, neither serves the other, and neither greets when told not to.
TEST(Application, AllowMultipleInstancesLetsBothRunAndNeitherServesTheOther) {
    TempDir home;
    const std::string userDir = userDirOf(home);
    testing_support::writeFile(userDir + "/debug.ini", "[Debug]\nAllowMultipleInstances=1\n");
    testing_support::writeFile(userDir + "/config.ini",
                               "[Global Options]\nNoWelcomeNotification=1\n");
    RecordingFrontEnd firstFrontEnd, secondFrontEnd;
    Application first, second;
    ASSERT_EQ(first.start(firstFrontEnd, optionsFor(home)), Application::StartResult::Started);
    ASSERT_EQ(second.start(secondFrontEnd, optionsFor(home)), Application::StartResult::Started);
    EXPECT_FALSE(fs::exists(SingleInstance::socketPath(userDir)));
    EXPECT_FALSE(sendShowYourself(userDir));
    EXPECT_TRUE(SingleInstance::tryLock(userDir)) << "neither holds the user directory";
    EXPECT_THAT(firstFrontEnd.calls(), Each(Not(StartsWith("welcome"))));
}

TEST(Application, AStartThatFailsReleasesTheUserDirectoryAndSaysWhy) {
    TempDir home;
    const std::string userDir = userDirOf(home);
    {
        auto holder = SingleInstance::tryLock(userDir); // a pelsu-cli command at work
        RecordingFrontEnd frontEnd;
        Application application;
        Application::Options options = optionsFor(home);
        options.lockWait = std::chrono::milliseconds(200);
        EXPECT_THAT([&] { application.start(frontEnd, options); },
                    ThrowsMessage<StartupError>(
                        HasSubstr("Another Pelsu process is using the user directory " + userDir)));
        EXPECT_TRUE(frontEnd.calls().empty());
    }
    RecordingFrontEnd frontEnd;
    frontEnd.failMainFrame = true;
    Application application;
    EXPECT_THAT([&] { application.start(frontEnd, optionsFor(home)); },
                ThrowsMessage<StartupError>(StrEq("Can't load the main frame window.")));
    EXPECT_TRUE(SingleInstance::tryLock(userDir));
}

TEST(Application, TheGreetingFollowsTheHour) {
    const std::vector<std::pair<int, std::string>> table = {
        {0, "Kombanwa"},    {3, "Kombanwa"},    {4, "Ohayo gozaimasu"}, {11, "Ohayo gozaimasu"},
        {12, "Konnichiwa"}, {17, "Konnichiwa"}, {18, "Kombanwa"},       {23, "Kombanwa"}};
    for (const auto& [hour, greeting] : table)
        EXPECT_EQ(Application::greeting(hour), greeting) << hour;
}

TEST(Application, CarriesOutHandedOverCommandsOnItsOwnChannels) {
    TempDir home, feeds;
    testing_support::writeFile(feeds.file("feed.xml"),
                               "<rss><channel><title>F</title><item><guid>1</guid><title>One"
                               "</title></item></channel></rss>");
    RecordingFrontEnd frontEnd;
    Application application;
    ASSERT_EQ(application.start(frontEnd, optionsFor(home)), Application::StartResult::Started);
    const std::string userDir = application.environment().paths.userDir;
    auto send = [&](std::vector<std::string> args, std::string* output = nullptr) {
        std::ostringstream out, err;
        std::unique_ptr<SingleInstance> lock;
        const auto status = handOverCommand(userDir, {std::move(args), feeds.path().string()}, out,
                                            err, std::chrono::seconds(5), lock);
        EXPECT_FALSE(lock);
        if (output)
            *output = out.str() + err.str();
        return status.value_or(-1);
    };
    EXPECT_EQ(send({"add", "feed.xml", "--id", "f", "--interval", "0"}), 0);
    ASSERT_TRUE(application.manager().findChannel("f"));
    std::string updated;
    EXPECT_EQ(send({"update", "f"}, &updated), 0);
    EXPECT_THAT(updated, HasSubstr("[1/1] f (F): 1 new, 0 expired"));
    EXPECT_EQ(application.manager().findChannel("f")->state().itemCount(), 1u);
    EXPECT_EQ(send({"remove", "f"}), 0);
    EXPECT_FALSE(application.manager().findChannel("f"));
    std::string refused;
    EXPECT_EQ(send({"list"}, &refused), 2) << "read-only commands run in their own process";
    application.shutDown();
    EXPECT_FALSE(fs::exists(fs::path(userDir) / "Channels" / "f.rss"));
}

// Ports changed in the options move the listeners at once; moving the app-plugin server
// re-points the channels it serves, and nothing else.
TEST(Application, ChangedListenerPortsMoveTheServersAndTheChannelsTheyServe) {
    TempDir home;
    const std::string userDir = userDirOf(home);
    int appPort = 0, pluginPort = 0, movedPort = 0;
    {
        testing_support::LoopbackPort a, b, c; // three free ports, free again after this block
        appPort = a.port();
        pluginPort = b.port();
        movedPort = c.port();
    }
    testing_support::writeFile(userDir + "/config.ini",
                               "[Global Options]\nAppServerPortNo=" + std::to_string(appPort) +
                                   "\nAppPluginServerPortNo=" + std::to_string(pluginPort) + "\n");
    const std::string served = userDir + "/Channels/served.rss";
    const std::string other = userDir + "/Channels/other.rss";
    const std::string loopback = "http://127.0.0.1:";
    testing_support::writeFile(served, "[Config]\nRssChannelUrl=" + loopback +
                                           std::to_string(pluginPort) + "/plugin/feed\n");
    testing_support::writeFile(other, "[Config]\nRssChannelUrl=http://example.org/feed\n");
    RecordingFrontEnd frontEnd;
    Application application;
    Application::Options options = optionsFor(home);
    options.startListeners = true;
    ASSERT_EQ(application.start(frontEnd, options), Application::StartResult::Started);
    ASSERT_EQ(application.listeners()->port("app-plugin server"), pluginPort);

    EXPECT_TRUE(application.applyListenerOptions().empty()) << "nothing changed";
    application.environment().options.appPluginServerPortNo = movedPort;
    EXPECT_TRUE(application.applyListenerOptions().empty());
    EXPECT_EQ(application.listeners()->port("app-plugin server"), movedPort);
    EXPECT_EQ(application.listeners()->port("app server"), appPort);
    EXPECT_EQ(profile::readIniString(served, "Config", "RssChannelUrl"),
              loopback + std::to_string(movedPort) + "/plugin/feed");
    EXPECT_EQ(profile::readIniString(other, "Config", "RssChannelUrl"), "http://example.org/feed");
    application.shutDown();
}
