#include "channels/appPluginManager.h"
#include "channels/channelManager.h"
#include "channels/dllAppPlugin.h"
#include "channels/exception.h"
#include "channels/rssChannel.h"
#include "channels/scriptAppPlugin.h"
#include "lib/misc/iniValues.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sys/stat.h>

using namespace channels;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

// Collects the load errors and the events' text forms.
struct Errors : EventListener {
    std::vector<std::string> messages;
    std::vector<std::string> texts;
    void onAppPluginError(AppPluginErrorEvent& event) override {
        messages.push_back(event.errorText());
        texts.push_back(event.text());
    }
};

// A plugins directory with a manager that loads it.
class AppPluginTest : public ::testing::Test {
protected:
    AppPluginTest() {
        m_manager.setAppPluginsDir(m_dir.path().string());
        m_manager.setPorts(5335, 2605);
        m_manager.setScriptTimeout(2);
        m_manager.addListener(&m_errors);
    }
    ~AppPluginTest() override {
        m_manager.removeListener(&m_errors);
        ::unsetenv("PELSU_TEST_PLUGIN_MISSING");
        ::unsetenv("PELSU_TEST_PLUGIN_FAIL");
        ::unsetenv("PELSU_TEST_PLUGIN_EMPTY");
    }
    void script(const std::string& name, const std::string& text) {
        writeFile(m_dir.file(name), text);
        ::chmod(m_dir.file(name).c_str(), 0755);
    }
    // A copy of the test library under the given name.
    void library(const std::string& name) {
        fs::create_directories(fs::path(m_dir.file(name)).parent_path());
        fs::copy_file(PELSU_TEST_PLUGIN_PATH, m_dir.file(name),
                      fs::copy_options::overwrite_existing);
    }
    TempDir m_dir;
    AppPluginManager m_manager;
    Errors m_errors;
};

} // namespace

TEST_F(AppPluginTest, ScriptPluginWritesItsMainPageAndAnswersRequests) {
    // The script's path may be written with backslashes.
    fs::create_directories(m_dir.file("deep/er/scripts"));
    writeFile(m_dir.file("deep/er/Stats.PLUGIN"),
              "[Config]\nPlugin=scripts\\stats.sh\nAppPluginDisplayName=Statistics\n"
              "[PluginParameterDefinition-1]\nName=Greeting\nType=string\nDefaultValue=hello\n"
              "[ChannelParameterDefinition-1]\nName=Topic\nType=string\nDefaultValue=t0\n");
    script("deep/er/scripts/stats.sh",
           "sed -n 's/^Command=//p; s/^Greeting=//p; s/^PluginRequest=//p; s/^ParamString=//p;"
           " s/^Topic=//p' \"$1\" | tr '\\n' ' '\n");
    m_manager.loadAppPlugins();
    ASSERT_TRUE(m_errors.messages.empty()) << m_errors.messages.front();
    AppPlugin* plugin = m_manager.findAppPlugin("stats");
    ASSERT_NE(plugin, nullptr);
    EXPECT_EQ(plugin->displayName(), "Statistics");
    plugin->GenerateMainPage();
    EXPECT_EQ(readFile(plugin->mainPageFile()), "GenerateMainPage hello ");
    std::string response = "<";
    plugin->ProcessRequest("refresh", "a=1&b=%41", response, nullptr);
    EXPECT_EQ(response, "<ProcessRequest refresh a=1&b=%2541 hello ")
        << "values are stored escaped";

    fs::create_directories(m_dir.file("Channels"));
    ChannelManager channels(m_dir.file("Channels"), {});
    auto channel = std::make_unique<RssChannel>(&channels, "c");
    Channel* added = channels.addChannel(std::move(channel));
    profile::writeIniString(added->fileName(), "ChannelParameters", "Topic", "science");
    response.clear();
    plugin->ProcessRequest("r", "", response, added);
    EXPECT_EQ(response, "ProcessRequest r  hello science ");
    channels.discardChannels();
}

TEST_F(AppPluginTest, ScriptFailuresBecomePagesOrTimeOuts) {
    writeFile(m_dir.file("bad.plugin"), "[Config]\nPlugin=bad.sh\n");
    script("bad.sh", "echo partial; echo broken >&2\n");
    writeFile(m_dir.file("slow.plugin"), "[Config]\nPlugin=slow.sh\n");
    script("slow.sh", "sleep 30\n");
    writeFile(m_dir.file("flood.plugin"), "[Config]\nPlugin=flood.sh\n");
    script("flood.sh", "head -c 5000000 /dev/zero | tr '\\0' x\n");
    m_manager.loadAppPlugins();
    std::string response;
    m_manager.findAppPlugin("bad")->ProcessRequest("x", "", response, nullptr);
    EXPECT_NE(response.find("<P>The script caused an error:"), std::string::npos) << response;
    EXPECT_THROW(m_manager.findAppPlugin("slow")->GenerateMainPage(), Exception);
    response.clear();
    m_manager.findAppPlugin("flood")->ProcessRequest("x", "", response, nullptr);
    EXPECT_EQ(response.size(), 5000000u);
}

TEST_F(AppPluginTest, LibraryPluginPagesGoThroughTheTemplateProcessor) {
    library("lib/CodeProject.so");
    writeFile(m_dir.file("lib/cp.plugin"), "[Config]\nPlugin=CodeProject.so\n");
    m_manager.loadAppPlugins();
    ASSERT_TRUE(m_errors.messages.empty()) << m_errors.messages.front();
    auto* plugin = dynamic_cast<DllAppPlugin*>(m_manager.findAppPlugin("CodeProject"));
    ASSERT_NE(plugin, nullptr);
    plugin->GenerateMainPage();
    EXPECT_EQ(readFile(plugin->mainPageFile()), "<a href=\"http://127.0.0.1:2605/x\">main</a>");
    std::string response;
    plugin->ProcessRequest("list", "q=1", response, nullptr);
    EXPECT_EQ(response, "list|q=1|http://127.0.0.1:2605|{%APP_PLUGIN_SERVER_URL%}");
    try {
        plugin->ProcessRequest("fail", "", response, nullptr);
        FAIL();
    } catch (const Exception& failure) {
        EXPECT_STREQ(failure.what(), "the request failed");
    }
    EXPECT_EQ(plugin->namedValues(),
              (std::map<std::string, std::int32_t>{
                  {"Articles", 33}, {"MessageBoards", 22}, {"TheLounge", 11}}));
}

TEST_F(AppPluginTest, EmptyLibraryPagesAreErrorsAndNeverGoBackToTheLibrary) {
    library("lib/empty.so");
    writeFile(m_dir.file("lib/empty.plugin"), "[Config]\nPlugin=empty.so\n");
    m_manager.loadAppPlugins();
    AppPlugin* plugin = m_manager.findAppPlugin("empty");
    ASSERT_NE(plugin, nullptr);
    // The library's plugin_free ends the process when it gets its static empty string back,
    // so each call runs in a child of its own.
    const auto outcome = [&](const char* mode, const std::function<void()>& call) {
        return testing_support::runInChild([&] {
            ::setenv("PELSU_TEST_PLUGIN_EMPTY", mode, 1);
            try {
                call();
                std::fputs("no exception", stderr);
            } catch (const Exception& failure) {
                std::fputs(failure.what(), stderr);
            }
        });
    };
    for (const char* mode : {"static", "null"}) {
        const auto result = outcome(mode, [&] { plugin->GenerateMainPage(); });
        EXPECT_EQ(result.status, 0) << mode << ": " << result.errorOutput;
        EXPECT_EQ(result.errorOutput, "The plugin returned an empty main page.") << mode;
    }
    std::string response = "old";
    const auto result = outcome("-", [&] {
        plugin->ProcessRequest("empty", "", response, nullptr);
        std::fputs(("response=[" + response + "] ").c_str(), stderr);
    });
    EXPECT_EQ(result.status, 0) << result.errorOutput;
    EXPECT_EQ(result.errorOutput, "empty response given back; response=[] no exception");
}

// Every file is met once, however the folders' links loop.
TEST_F(AppPluginTest, EveryLoadFaultIsAnEventOnceAndTheOthersLoad) {
    fs::create_directories(m_dir.file("sub"));
    fs::create_directory_symlink(".", m_dir.file("a"));
    fs::create_directory_symlink(".", m_dir.file("b"));
    fs::create_directory_symlink("..", m_dir.file("sub/up"));
    writeFile(m_dir.file("sub/one.plugin"), "[Config]\nPlugin=one.sh\n");
    writeFile(m_dir.file("two.plugin"), "[Config]\nPlugin=two.sh\nAppPluginId=\n");
    writeFile(m_dir.file("noplugin.plugin"), "[Config]\nAuthorName=x\n");
    writeFile(m_dir.file("noext.plugin"), "[Config]\nPlugin=tool\n");
    writeFile(m_dir.file("badtype.plugin"),
              "[Config]\nPlugin=ok.sh\n[PluginParameterDefinition-1]\nName=x\nType=text\n");
    writeFile(m_dir.file("nolib.plugin"), "[Config]\nPlugin=missing.so\n");
    writeFile(m_dir.file("good.plugin"), "[Config]\nPlugin=ok.sh\nAppPluginId=good one\n");
    writeFile(m_dir.file("readme.txt"), "not a plugin");
    script("ok.sh", "echo ok\n");
    // Names that start with their extension's dot have that extension.
    writeFile(m_dir.file(".plugin"), "[Config]\nPlugin=.sh\nAppPluginId=dotted\n");
    script(".sh", "echo ok\n");
    m_manager.loadAppPlugins();
    std::vector<std::string> messages = m_errors.messages;
    std::sort(messages.begin(), messages.end());
    ASSERT_EQ(messages.size(), 4u);
    EXPECT_EQ(messages[0],
              "Can't load the plugin badtype.plugin: Invalid type for parameter 'x': text");
    EXPECT_EQ(messages[1],
              "Can't load the plugin noext.plugin: The configured plugin script has no "
              "filename extension: tool");
    EXPECT_EQ(messages[2],
              "Can't load the plugin nolib.plugin: Can't load the plugin DLL: missing.so");
    EXPECT_EQ(messages[3], "Can't load the plugin noplugin.plugin: Missing 'Plugin' parameter: " +
                               m_dir.file("noplugin.plugin"));
    EXPECT_NE(m_manager.findAppPlugin("good_one"), nullptr);
    EXPECT_NE(m_manager.findAppPlugin("dotted"), nullptr);
    EXPECT_NE(m_manager.findAppPlugin("one"), nullptr);
    EXPECT_NE(m_manager.findAppPlugin("two"), nullptr);
    // The event names the plugin only when a plugin object was made.
    std::vector<std::string> texts = m_errors.texts;
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(texts, (std::vector<std::string>{
                         "[AppPluginErrorEvent:<unknown>]", "[AppPluginErrorEvent:<unknown>]",
                         "[AppPluginErrorEvent:missing]", "[AppPluginErrorEvent:ok]"}));
    // A second load searches the same folders again.
    m_manager.clear();
    m_manager.loadAppPlugins();
    EXPECT_NE(m_manager.findAppPlugin("one"), nullptr);
}

TEST_F(AppPluginTest, LibraryFaultsAreCheckedInOrder) {
    library("a.so");
    writeFile(m_dir.file("a.plugin"), "[Config]\nPlugin=a.so\n");
    // A real library that is no plugin: the C library's mathematics.
    for (const char* libm :
         {"/lib/x86_64-linux-gnu/libm.so.6", "/usr/lib/x86_64-linux-gnu/libm.so.6",
          "/lib64/libm.so.6", "/usr/lib/libm.so.6"})
        if (fs::exists(libm)) {
            fs::copy_file(libm, m_dir.file("m.so"));
            break;
        }
    writeFile(m_dir.file("m.plugin"), "[Config]\nPlugin=m.so\n");
    ::setenv("PELSU_TEST_PLUGIN_MISSING", "process_request", 1);
    m_manager.loadAppPlugins();
    ASSERT_EQ(m_errors.messages.size(), 2u);
    std::sort(m_errors.messages.begin(), m_errors.messages.end());
    EXPECT_EQ(
        m_errors.messages[1],
        "Can't load the plugin m.plugin: Can't find the DLL's get_plugin_info() entry point.");
    m_errors.messages.erase(m_errors.messages.begin() + 1);
    fs::remove(m_dir.file("m.plugin"));
    ::unsetenv("PELSU_TEST_PLUGIN_MISSING");
    ::setenv("PELSU_TEST_PLUGIN_FAIL", "1", 1);
    m_manager.clear();
    m_manager.loadAppPlugins();
    ASSERT_EQ(m_errors.messages.size(), 2u);
    EXPECT_EQ(m_errors.messages[0],
              "Can't load the plugin a.plugin: Missing entry point: process_request()");
    EXPECT_EQ(m_errors.messages[1],
              "Can't load the plugin a.plugin: DllAppPlugin initialization error: no licence");
}

TEST_F(AppPluginTest, PortMovesRepointChannelsOnlyBetweenTwoRealPorts) {
    fs::create_directories(m_dir.file("Channels"));
    ChannelManager channels(m_dir.file("Channels"), {});
    auto channel = std::make_unique<RssChannel>(&channels, "local");
    channel->config().setRssChannelUrl("http://127.0.0.1:2605/news");
    auto* local = static_cast<RssChannel*>(channels.addChannel(std::move(channel)));
    AppPluginManager fresh;
    fresh.setChannelManager(&channels);
    fresh.setPorts(1, 2605); // from 0: nothing to re-point
    EXPECT_EQ(local->config().rssChannelUrl(), "http://127.0.0.1:2605/news");
    fresh.setPorts(1, 4000);
    EXPECT_EQ(local->config().rssChannelUrl(), "http://127.0.0.1:4000/news");
    channels.discardChannels();
    m_manager.setPorts(5335, 2605); // the shared script settings follow the test fixture again
}
