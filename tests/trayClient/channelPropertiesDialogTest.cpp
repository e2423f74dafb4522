// A channel's properties dialog writes what the user changed to the channel file and the
// desktop settings, and refuses input the channel can't use.
#include "trayClient/channelPropertiesDialog.h"

#include "channels/channelManager.h"
#include "channels/common.h"
#include "channels/pluginChannel.h"
#include "channels/rssChannel.h"
#include "lib/misc/profileFile.h"
#include "tests/support/testSupport.h"
#include "tests/trayClient/support/clientTestSupport.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/paramEditors.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QSpinBox>

#include <gtest/gtest.h>

using namespace trayClient;
using testing_support::TempDir;
using testing_support::writeFile;

namespace {

class ChannelPropertiesTest : public ::testing::Test {
protected:
    ChannelPropertiesTest() {
        m_channel.config().setRssChannelUrl("http://127.0.0.1:1/old.xml");
        m_channel.state().setHttpETag("\"v1\"");
        m_channel.state().setHttpLastModified("Mon, 01 Jan 2024 00:00:00 GMT");
        m_channel.save();
    }
    ~ChannelPropertiesTest() override { profile::clearCache(); }

    template <typename T>
    T* editor(QDialog& dialog, const char* name) {
        T* widget = dialog.findChild<T*>(QString::fromLatin1(name));
        EXPECT_NE(widget, nullptr) << name;
        return widget;
    }
    void setText(QDialog& dialog, const char* name, const QString& text) {
        if (auto* chooser = dialog.findChild<CFileChooser*>(QString::fromLatin1(name)))
            chooser->setPath(text);
        else
            editor<QLineEdit>(dialog, name)->setText(text);
    }
    void setInterval(QDialog& dialog, int count, const QString& unit) {
        editor<QSpinBox>(dialog, "AutoUpdateInterval")->setValue(count);
        auto* units = editor<QComboBox>(dialog, "AutoUpdateIntervalUnit");
        units->setCurrentIndex(units->findText(unit));
    }

    TempDir m_dir;
    channels::ChannelManager m_manager{m_dir.path().string(), {}};
    channels::RssChannel m_channel{&m_manager, "news"};
    ChannelDesktopSettingsTable m_desktop{m_dir.file("user")};
};

} // namespace

TEST_F(ChannelPropertiesTest, AnRssChannelAndItsDesktopSettingsRoundTrip) {
    CChannelPropertiesDialog dialog(m_channel, m_desktop);
    EXPECT_EQ(editor<QSpinBox>(dialog, "AutoUpdateInterval")->value(), 1);
    EXPECT_EQ(editor<QComboBox>(dialog, "AutoUpdateIntervalUnit")->currentText(), "days");
    setText(dialog, "RssChannelUrl", " http://127.0.0.1:1/new.xml ");
    setText(dialog, "PreferredChannelDisplayName", "My news");
    setText(dialog, "PreferredChannelDescription", "Caf\u00e9 news");
    setText(dialog, "PreferredChannelHomeUrl", "http://home/");
    setText(dialog, "PreferredImageUrl", "http://home/logo.png");
    setText(dialog, "ChannelSummaryTemplateFilename", "/t/summary.html");
    editor<QSpinBox>(dialog, "PreferredImageWidth")->setValue(120);
    editor<QCheckBox>(dialog, "ForceNetDownloads")->setChecked(true);
    editor<QCheckBox>(dialog, "IsAutoUpdateEnabled")->setChecked(false);
    setInterval(dialog, 90, "minutes");
    editor<QCheckBox>(dialog, "AllowEmptyFeeds")->setChecked(true);
    editor<QSpinBox>(dialog, "MaxFeedItems")->setValue(25);
    editor<QCheckBox>(dialog, "NotifyOnNewItem")->setChecked(false);
    editor<QCheckBox>(dialog, "AnimateOnNewItem")->setChecked(true);
    editor<QCheckBox>(dialog, "UseQuickAccessMenu")->setChecked(true);
    editor<QCheckBox>(dialog, "UseQuickAccessSubMenus")->setChecked(false);
    setText(dialog, "NewItemSoundFile", "/s/ding.oga");
    dialog.accept();
    ASSERT_EQ(dialog.result(), QDialog::Accepted) << dialog.errorText().toStdString();
    EXPECT_TRUE(dialog.sourceChanged());

    profile::clearCache();
    channels::RssChannel reloaded(&m_manager, "news");
    reloaded.load();
    EXPECT_EQ(reloaded.config().rssChannelUrl(), "http://127.0.0.1:1/new.xml");
    EXPECT_EQ(reloaded.config().preferredChannelDisplayName(), "My news");
    EXPECT_EQ(reloaded.config().preferredChannelDescription(), "Caf\xE9 news");
    EXPECT_EQ(reloaded.config().preferredChannelHomeUrl(), "http://home/");
    EXPECT_EQ(reloaded.config().preferredImageUrl(), "http://home/logo.png");
    EXPECT_EQ(reloaded.config().channelSummaryTemplateFilename(), "/t/summary.html");
    EXPECT_EQ(reloaded.config().preferredImageWidth(), 120);
    EXPECT_EQ(reloaded.config().preferredImageHeight(), -1);
    EXPECT_TRUE(reloaded.config().forceNetDownloads());
    EXPECT_FALSE(reloaded.settings().isAutoUpdateEnabled());
    EXPECT_EQ(reloaded.settings().storedAutoUpdateInterval(), 90 * 60);
    EXPECT_TRUE(reloaded.settings().allowEmptyFeeds());
    EXPECT_EQ(reloaded.settings().maxFeedItems(), 25);
    // Another address must not be asked with the old one's validators.
    EXPECT_EQ(reloaded.state().httpETag(), "");
    EXPECT_EQ(reloaded.state().httpLastModified(), "");

    ChannelDesktopSettings expected;
    expected.notifyOnNewItem = false;
    expected.animateOnNewItem = true;
    expected.useQuickAccessMenu = true;
    expected.useQuickAccessSubMenus = false;
    expected.newItemSoundFile = "/s/ding.oga";
    ChannelDesktopSettings stored;
    ASSERT_TRUE(stored.load(m_desktop.fileFor("news"), "news"));
    EXPECT_EQ(stored, expected);
    EXPECT_EQ(m_desktop.get("news"), expected);
}

TEST_F(ChannelPropertiesTest, InvalidInputKeepsTheDialogOpenAndTheChannelUnchanged) {
    struct Case {
        QString address;
        int count;
        QString unit;
        const char* message;
    };
    const Case cases[] = {
        {"  ", 1, "days", "Please enter the channel's address."},
        {"http://x/", 30, "seconds", "The update interval must be between"},
        {"http://x/", 366, "days", "The update interval must be between"},
        {"http://x/", 999999, "days", "The update interval must be between"},
    };
    for (const Case& each : cases) {
        CChannelPropertiesDialog dialog(m_channel, m_desktop);
        setText(dialog, "RssChannelUrl", each.address);
        setText(dialog, "PreferredChannelDisplayName", "Not saved");
        setInterval(dialog, each.count, each.unit);
        dialog.accept();
        EXPECT_NE(dialog.result(), QDialog::Accepted) << each.message;
        EXPECT_TRUE(dialog.errorText().startsWith(each.message))
            << dialog.errorText().toStdString();
    }
    EXPECT_EQ(m_channel.config().rssChannelUrl(), "http://127.0.0.1:1/old.xml");
    EXPECT_EQ(m_channel.config().preferredChannelDisplayName(), "");
    EXPECT_FALSE(m_desktop.contains("news"));
}

TEST_F(ChannelPropertiesTest, StatusShowsTheValidatorsItemsAndLastErrorWhichARenameKeeps) {
    {
        CChannelPropertiesDialog dialog(m_channel, m_desktop, nullptr, "HTTP 404 Not Found");
        EXPECT_EQ(editor<QLabel>(dialog, "LastFetchTime")->text(), "Never");
        EXPECT_EQ(editor<QLabel>(dialog, "HttpETag")->text(), "\"v1\"");
        EXPECT_EQ(editor<QLabel>(dialog, "ItemCount")->text(), "0");
        EXPECT_EQ(editor<QLabel>(dialog, "LastError")->text(), "HTTP 404 Not Found");
    }
    CChannelPropertiesDialog quiet(m_channel, m_desktop);
    EXPECT_EQ(quiet.findChild<QLabel*>("LastError"), nullptr);
    // An unchanged address keeps its validators.
    setText(quiet, "PreferredChannelDisplayName", "Renamed");
    quiet.accept();
    ASSERT_EQ(quiet.result(), QDialog::Accepted);
    EXPECT_FALSE(quiet.sourceChanged());
    EXPECT_EQ(m_channel.state().httpETag(), "\"v1\"");
}

TEST_F(ChannelPropertiesTest, APluginChannelsParametersAreEditedByType) {
    const std::string plugin = m_dir.file("weather.plugin");
    writeFile(plugin, "[ChannelParameterDefinition-1]\nName=City\nType=string\n"
                      "DefaultValue=Oslo\n[ChannelParameterDefinition-2]\nName=Days\nType=int\n"
                      "DefaultValue=3\n[PluginParameterDefinition-1]\nName=Metric\nType=bool\n"
                      "DefaultValue=1\n");
    channels::PluginChannel channel(&m_manager, "weather");
    channel.config().setScriptFilename(m_dir.file("weather.py"));
    channel.save();
    CChannelPropertiesDialog dialog(channel, m_desktop);
    EXPECT_EQ(editor<QLineEdit>(dialog, "City")->text(), "Oslo");
    editor<QLineEdit>(dialog, "City")->setText("Bergen");
    editor<QSpinBox>(dialog, "Days")->setValue(7);
    editor<QCheckBox>(dialog, "Metric")->setChecked(false);
    dialog.accept();
    ASSERT_EQ(dialog.result(), QDialog::Accepted) << dialog.errorText().toStdString();

    channels::ParamDefTable channelDefs, pluginDefs;
    channels::loadParamDefTable(plugin, channelDefs, "ChannelParameterDefinition-");
    channels::loadParamDefTable(plugin, pluginDefs, "PluginParameterDefinition-");
    channels::ParamValues channelValues, pluginValues;
    channels::loadParamValues(channel.fileName(), channels::kChannelParametersSection, channelDefs,
                              channelValues);
    channels::loadParamValues(channel.fileName(), channels::kPluginParametersSection, pluginDefs,
                              pluginValues);
    EXPECT_EQ(channelValues, (channels::ParamValues{{"City", "Bergen"}, {"Days", "7"}}));
    EXPECT_EQ(pluginValues, (channels::ParamValues{{"Metric", "0"}}));

    // Without a script the channel has nothing to run.
    CChannelPropertiesDialog second(channel, m_desktop);
    setText(second, "ScriptFilename", "");
    second.accept();
    EXPECT_EQ(second.errorText(), "Please choose the channel's plugin script.");
}

int main(int argc, char** argv) { return client_testing::runClientTests(argc, argv); }
