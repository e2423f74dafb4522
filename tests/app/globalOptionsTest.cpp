#include "app/globalOptions.h"
#include "tests/support/testSupport.h"

#include <gmock/gmock.h>

using app::GlobalOptions;
using testing::HasSubstr;
using testing::Not;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;

TEST(GlobalOptions, BoundsFallBackToDefaultsAndTheColourKeyPairIsKept) {
    TempDir dir;
    const std::string config = dir.file("config.ini");
    writeFile(config, "[Global Options]\nNotificationBalloonDisplayTime=0\n"
                      "AppPluginServerPortNo=999\nOneClickMode=7\nScriptTimeout=301\n"
                      "_HttpUserAgent=Agent/1\n");
    GlobalOptions options;
    ASSERT_TRUE(options.load(config, ""));
    EXPECT_EQ(options.notificationBalloonDisplayTime, 30);
    EXPECT_EQ(options.appPluginServerPortNo, 2605);
    EXPECT_TRUE(options.oneClickMode);
    EXPECT_EQ(options.scriptTimeout, 15);
    EXPECT_EQ(options.httpUserAgent, "Agent/1");

    options.notificationBalloonDisplayTime = 1800;
    options.controlCenterNonAutoUpdateChannelFgdCol = 0x123456;
    ASSERT_TRUE(options.save(config));
    const std::string text = readFile(config);
    EXPECT_THAT(text, HasSubstr("ControlCenterNonAutoUpdateChannelFgdCol=1193046"));
    EXPECT_THAT(text, Not(HasSubstr("ActivityLogFgdCol"))) << "read-only keys are not written";
    GlobalOptions reloaded;
    ASSERT_TRUE(reloaded.load(config, ""));
    EXPECT_EQ(reloaded.notificationBalloonDisplayTime, 1800);
    EXPECT_EQ(reloaded.controlCenterNonAutoUpdateChannelFgdCol, 0x808080u)
        << "the colour is read under another key, so a saved value does not come back";
}

TEST(GlobalOptions, ScriptFileTypesComeFromTheProgramsGlobalIni) {
    TempDir dir;
    writeFile(dir.file("global.ini"),
              "[Script File Types]\nPython scripts=.py\n"
              "[Scripting File Associations]\n.PY=python3 %1 %*\nrb=ruby\n");
    GlobalOptions options;
    ASSERT_TRUE(options.load(dir.file("config.ini"), dir.file("global.ini")));
    EXPECT_EQ(options.scriptFileTypeCommands.at(".py"), "python3 %1 %*");
    EXPECT_EQ(options.scriptFileTypeCommands.at(".rb"), "ruby");
    EXPECT_EQ(options.scriptFileTypeCommands.at(".class"), "java %1 %*");
    ASSERT_EQ(options.scriptFileTypes.size(), 1u);

    // A global.ini that names no file types leaves the built-in list.
    writeFile(dir.file("global.ini"), "[Scripting File Associations]\n.py=python3 %1 %*\n");
    GlobalOptions builtIn;
    ASSERT_TRUE(builtIn.load(dir.file("config.ini"), dir.file("global.ini")));
    const std::vector<std::pair<std::string, std::string>> expected = {{"Executables", ".exe"},
                                                                       {"Python scripts", ".py"},
                                                                       {"Perl scripts", ".pl"},
                                                                       {"Java scripts", ".class"}};
    EXPECT_EQ(builtIn.scriptFileTypes, expected);
}

TEST(GlobalOptions, SavedScriptFileTypesReplaceTheOldRowsAndKeepTheRestOfGlobalIni) {
    TempDir dir;
    const std::string globalIni = dir.file("global.ini");
    writeFile(globalIni, "[Other]\nKeep=1\n[Script File Types]\nPerl scripts=.pl\n"
                         "[Scripting File Associations]\n.pl=perl %1\n");
    GlobalOptions options;
    ASSERT_TRUE(options.load(dir.file("config.ini"), globalIni));
    options.scriptFileTypes = {{"Python scripts", ".py"}};
    options.scriptFileTypeCommands = {{".py", "python3 \"%1\" %*"}};
    ASSERT_TRUE(options.saveScriptFileTypes(globalIni));

    GlobalOptions reloaded;
    ASSERT_TRUE(reloaded.load(dir.file("config.ini"), globalIni));
    EXPECT_EQ(reloaded.scriptFileTypes, options.scriptFileTypes);
    EXPECT_EQ(reloaded.scriptFileTypeCommands.at(".py"), "python3 \"%1\" %*");
    EXPECT_EQ(reloaded.scriptFileTypeCommands.count(".pl"), 0u);
    EXPECT_THAT(readFile(globalIni), HasSubstr("Keep=1"));
}
