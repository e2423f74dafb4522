#include "channels/internal/paramDefs.h"
#include "channels/exception.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

using namespace channels;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;

namespace {

std::string loadFailure(const std::string& text) {
    TempDir dir;
    writeFile(dir.file("p.plugin"), text);
    ParamDefTable table;
    try {
        loadParamDefTable(dir.file("p.plugin"), table, "PluginParameterDefinition-");
    } catch (const Exception& failure) {
        return failure.what();
    }
    return "no failure";
}

} // namespace

TEST(ParamDefs, TablesEndAtTheFirstGapAndKeepTheirOrder) {
    TempDir dir;
    const std::string file = dir.file("p.plugin");
    writeFile(file, "[PluginParameterDefinition-1]\nName=b\nType=STRING\nDefaultValue= x \n"
                    "FileFilters=ignored|*.x\n"
                    "[PluginParameterDefinition-2]\nName=A\nType=file\nFileFilters=A|*.a\n"
                    "DefaultFileExtn=a\n"
                    "[PluginParameterDefinition-4]\nName=hidden\nType=int\n");
    ParamDefTable table;
    loadParamDefTable(file, table, "PluginParameterDefinition-");
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(*table[0], (ParamDef{"b", kParamString, "x", "", "", ""}));
    EXPECT_EQ(*table[1], (ParamDef{"A", kParamFile, "", "", "a", std::string("A\0*.a\0", 6)}));
    EXPECT_EQ(lookupParamType("Bool"), kParamBool);
    EXPECT_EQ(lookupParamType("text"), -1);
}

TEST(ParamDefs, BadDefinitionsFailWithTheirMessages) {
    EXPECT_EQ(loadFailure("[PluginParameterDefinition-1]\nName=x\nType=text\n"),
              "Invalid type for parameter 'x': text");
    EXPECT_EQ(loadFailure("[PluginParameterDefinition-1]\nName=x\n"),
              "Missing type for parameter 'x'");
    EXPECT_EQ(loadFailure("[PluginParameterDefinition-1]\nName=a\nType=int\n"
                          "[PluginParameterDefinition-2]\nName=a\nType=int\n"),
              "Duplicate parameter name: 'a'");
    EXPECT_EQ(loadFailure("[PluginParameterDefinition-1]\nName=a\nType=int\n"
                          "[PluginParameterDefinition-2]\nName=A\nType=int\n"),
              "no failure");
}

TEST(ParamDefs, ValuesLoadWithDefaultsAndSaveEscaped) {
    TempDir dir;
    const std::string file = dir.file("c.plugin");
    writeFile(file, "[ChannelParameterDefinition-1]\nName=n\nType=int\nDefaultValue=7\n"
                    "[ChannelParameterDefinition-2]\nName=s\nType=string\n"
                    "[ChannelParameters]\ns=  42  \nstray=1\n");
    ParamDefTable table;
    loadParamDefTable(file, table, "ChannelParameterDefinition-");
    ParamValues values;
    loadParamValues(file, "ChannelParameters", table, values);
    EXPECT_EQ(values, (ParamValues{{"n", "7"}, {"s", "42"}}));
    values["s"] = "50%";
    saveParamValues(file, "ChannelParameters", values);
    EXPECT_NE(readFile(file).find("s=50%25\n"), std::string::npos);
    EXPECT_NE(readFile(file).find("stray=1\n"), std::string::npos) << "old keys stay";
}

TEST(ParamDefs, PluginIdentityIsSanitised) {
    EXPECT_EQ(pluginIdentity("a.b c", ""), "a_b_c");
    EXPECT_EQ(pluginIdentity("", "x-y.pl"), "x_y");
    EXPECT_EQ(pluginIdentity("", "scripts\\news.py"), "news");
    EXPECT_EQ(pluginIdentity("My Plugin-2", "z.py"), "My_Plugin_2");
}
