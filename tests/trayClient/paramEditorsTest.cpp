// Typed parameter editors and the app plugin's parameters dialog.
#include "trayClient/paramEditors.h"

#include "channels/appPlugin.h"
#include "channels/common.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "tests/support/testSupport.h"
#include "tests/trayClient/support/clientTestSupport.h"
#include "trayClient/appPluginParametersDialog.h"

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QLineEdit>
#include <QSpinBox>

#include <gtest/gtest.h>

#include <filesystem>

using namespace trayClient;
using channels::ParamDef;
using testing_support::TempDir;
using testing_support::writeFile;

namespace {

// A plugin with no page of its own: only its description and parameters matter here.
class ParametersOnlyPlugin : public channels::AppPlugin {
public:
    ParametersOnlyPlugin() : AppPlugin(nullptr) {}
    void GenerateMainPage() override {}
    void ProcessRequest(const std::string&, const std::string&, std::string&,
                        channels::Channel*) override {}

protected:
    void load(const std::string&) override {}
};

ParamDef definition(int type, std::string defaultValue = {}) {
    ParamDef def;
    def.name = "p";
    def.type = type;
    def.defaultValue = std::move(defaultValue);
    return def;
}

} // namespace

TEST(ParamEditors, FileFiltersBecomeQtFilters) {
    using namespace std::string_literals;
    EXPECT_EQ(qtFileFilter("Text files\0*.txt\0Images\0*.png;*.jpg\0\0"s),
              "Text files (*.txt);;Images (*.png *.jpg)");
    EXPECT_EQ(qtFileFilter("\0"s), "");
    EXPECT_EQ(qtFileFilter("Lonely description\0\0"s), "") << "a pair without patterns";
}

TEST(ParamEditors, EachTypeGetsItsEditorAndValuesStayText) {
    QWidget parent;
    auto integer = makeParamEditor(definition(channels::kParamInt, "42"), &parent);
    auto* spin = qobject_cast<QSpinBox*>(integer->widget());
    ASSERT_NE(spin, nullptr);
    EXPECT_EQ(spin->value(), 42);
    spin->setValue(-7);
    EXPECT_EQ(integer->value(), "-7");

    auto real = makeParamEditor(definition(channels::kParamDouble, "2.5"), &parent);
    auto* doubleSpin = qobject_cast<QDoubleSpinBox*>(real->widget());
    ASSERT_NE(doubleSpin, nullptr);
    EXPECT_EQ(real->value(), "2.5");
    doubleSpin->setValue(0.125);
    EXPECT_EQ(real->value(), "0.125");

    auto flag = makeParamEditor(definition(channels::kParamBool, "7"), &parent);
    auto* box = qobject_cast<QCheckBox*>(flag->widget());
    ASSERT_NE(box, nullptr);
    EXPECT_TRUE(box->isChecked()) << "any non-zero number is true, as the engine reads it";
    box->setChecked(false);
    EXPECT_EQ(flag->value(), "0");

    EXPECT_NE(qobject_cast<QLineEdit*>(
                  makeParamEditor(definition(channels::kParamString), &parent)->widget()),
              nullptr);
    auto file = makeParamEditor(definition(channels::kParamFile, "/a/b.txt"), &parent);
    ASSERT_NE(qobject_cast<CFileChooser*>(file->widget()), nullptr);
    EXPECT_EQ(file->value(), "/a/b.txt");
}

TEST(ParamEditors, AValueTheEditorCantShowComesBackUnlessEdited) {
    QWidget parent;
    for (int type : {channels::kParamInt, channels::kParamDouble, channels::kParamBool}) {
        auto editor = makeParamEditor(definition(type), &parent);
        editor->setValue("abc");
        EXPECT_EQ(editor->value(), "abc") << type;
    }
    auto integer = makeParamEditor(definition(channels::kParamInt), &parent);
    integer->setValue("12 apples");
    qobject_cast<QSpinBox*>(integer->widget())->setValue(5);
    EXPECT_EQ(integer->value(), "5");
}

TEST(AppPluginParametersDialog, SavesEveryTypeToThePluginFile) {
    TempDir dir;
    const std::string file = dir.file("tool.plugin");
    writeFile(file, "[Config]\nPlugin=tool.py\n"
                    "[PluginParameterDefinition-1]\nName=Count\nType=int\nDefaultValue=3\n"
                    "[PluginParameterDefinition-2]\nName=Verbose\nType=bool\nDefaultValue=0\n"
                    "[PluginParameterDefinition-3]\nName=Title\nType=string\n"
                    "[PluginParameterDefinition-4]\nName=Ratio\nType=double\nDefaultValue=1.5\n"
                    "[PluginParameterDefinition-5]\nName=Input\nType=file\n"
                    "FileFilters=Text|*.txt\n"
                    "[PluginParameters]\nTitle=Old title\n");
    ParametersOnlyPlugin plugin;
    plugin.loadAppPlugin(file);
    CAppPluginParametersDialog dialog(plugin);
    EXPECT_EQ(dialog.findChild<QLineEdit*>("Title")->text(), "Old title");
    dialog.findChild<QSpinBox*>("Count")->setValue(10);
    dialog.findChild<QCheckBox*>("Verbose")->setChecked(true);
    dialog.findChild<QLineEdit*>("Title")->setText("100% new");
    dialog.findChild<QDoubleSpinBox*>("Ratio")->setValue(0.25);
    dialog.findChild<CFileChooser*>("Input")->setPath("/data/in.txt");
    dialog.accept();
    ASSERT_EQ(dialog.result(), QDialog::Accepted) << dialog.errorText().toStdString();

    const channels::ParamValues expected{{"Count", "10"},
                                         {"Input", "/data/in.txt"},
                                         {"Ratio", "0.25"},
                                         {"Title", "100% new"},
                                         {"Verbose", "1"}};
    EXPECT_EQ(plugin.pluginParamValues(), expected);
    profile::clearCache();
    ParametersOnlyPlugin reloaded;
    reloaded.loadAppPlugin(file);
    EXPECT_EQ(reloaded.pluginParamValues(), expected);
}

TEST(AppPluginParametersDialog, AFailedSaveKeepsTheDialogOpenAndThePluginsValues) {
    TempDir dir;
    const std::string file = dir.file("tool.plugin");
    writeFile(file, "[PluginParameterDefinition-1]\nName=Title\nType=string\nDefaultValue=a\n");
    ParametersOnlyPlugin plugin;
    plugin.loadAppPlugin(file);
    // The file is replaced by a folder, so it can't be written.
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    CAppPluginParametersDialog dialog(plugin);
    dialog.findChild<QLineEdit*>("Title")->setText("b");
    dialog.accept();
    EXPECT_NE(dialog.result(), QDialog::Accepted);
    EXPECT_TRUE(dialog.errorText().startsWith("Couldn't save the plugin's parameters"));
    EXPECT_EQ(plugin.pluginParamValues().at("Title"), "a");
    profile::clearCache();
}

int main(int argc, char** argv) { return client_testing::runClientTests(argc, argv); }
