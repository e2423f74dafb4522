// The new-channel wizard on local files: a page's feed links are offered and the chosen feed
// previewed in the background; finishing writes the channel and its desktop settings and asks
// for the first update; a feed that fails to parse keeps the wizard from going on.
#include "trayClient/newChannelWizard.h"

#include "app/environment.h"
#include "channels/channelManager.h"
#include "lib/misc/iniValues.h"
#include "tests/support/testSupport.h"
#include "tests/trayClient/support/clientTestSupport.h"
#include "trayClient/channelDesktopSettings.h"

#include <QAbstractButton>
#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>

#include <gtest/gtest.h>

#include <filesystem>

using namespace trayClient;
using client_testing::waitFor;
using testing_support::TempDir;
using testing_support::writeFile;

namespace {

const char* const kFeed = "<rss version=\"2.0\"><channel><title>Shed notes</title>"
                          "<item><guid>1</guid><title>Roof fixed</title></item>"
                          "<item><guid>2</guid><title>New door</title></item></channel></rss>";

class NewChannelWizard : public ::testing::Test {
protected:
    NewChannelWizard() {
        std::filesystem::create_directories(m_home.file("Channels"));
        m_environment.paths.userDir = m_home.path().string();
        m_environment.paths.channelsDir = m_home.file("Channels");
    }
    bool nextEnabled(CNewChannelWizard& wizard) {
        return wizard.button(QWizard::NextButton)->isEnabled();
    }
    template <typename Widget>
    Widget* child(CNewChannelWizard& wizard, const char* name) {
        auto* widget = wizard.findChild<Widget*>(name);
        EXPECT_NE(widget, nullptr) << name;
        return widget;
    }

    TempDir m_home;
    app::Environment m_environment;
    channels::ChannelManager m_manager{m_home.file("Channels"), {}};
    ChannelDesktopSettingsTable m_settings{m_home.path().string()};
};

} // namespace

TEST_F(NewChannelWizard, APageOffersItsFeedsAndFinishingAddsTheChosenOne) {
    std::filesystem::create_directories(m_home.file("site/feeds"));
    writeFile(m_home.file("site/feeds/shed.xml"), kFeed);
    writeFile(m_home.file("site/index.html"),
              "<!DOCTYPE html><html><head><link rel=alternate type=application/rss+xml "
              "title=Shed href=feeds/shed.xml></head></html>");
    CNewChannelWizard wizard(m_manager, m_settings, m_environment, nullptr,
                             QString::fromStdString(m_home.file("site/index.html")));
    wizard.show();
    wizard.next();
    ASSERT_EQ(wizard.currentId(), CNewChannelWizard::PreviewPageId);
    ASSERT_TRUE(waitFor([&] { return !wizard.isPreviewRunning(); }));
    EXPECT_FALSE(nextEnabled(wizard)); // a page is no feed
    auto* links = child<QListWidget>(wizard, "feedLinks");
    ASSERT_EQ(links->count(), 1);
    EXPECT_TRUE(links->item(0)->text().startsWith("Shed - "));

    wizard.chooseFeedLink(0);
    ASSERT_TRUE(waitFor([&] { return !wizard.isPreviewRunning(); }));
    ASSERT_TRUE(wizard.preview().isFeed()) << wizard.preview().error;
    EXPECT_EQ(child<QLabel>(wizard, "previewTitle")->text(), "Shed notes");
    EXPECT_EQ(child<QListWidget>(wizard, "previewItems")->count(), 2);
    EXPECT_TRUE(nextEnabled(wizard));

    wizard.next();
    EXPECT_EQ(child<QLineEdit>(wizard, "channelName")->text(), "Shed notes");
    EXPECT_EQ(child<QLineEdit>(wizard, "channelId")->text(), "shed");
    child<QCheckBox>(wizard, "autoUpdate")->setChecked(false); // so only the request updates it
    wizard.next();
    child<QCheckBox>(wizard, "notify")->setChecked(false);
    child<QCheckBox>(wizard, "quickAccess")->setChecked(true);
    wizard.accept();

    ASSERT_EQ(wizard.addedChannelId(), "shed");
    EXPECT_TRUE(std::filesystem::exists(m_home.file("Channels/shed.rss")));
    channels::Channel* channel = m_manager.findChannel("shed");
    ASSERT_NE(channel, nullptr);
    EXPECT_EQ(channel->address(), m_home.file("site/feeds/shed.xml"));
    // The feed's title, left as it was, stays the feed's: no name of the user's is stored.
    EXPECT_EQ(channel->config().preferredChannelDisplayName(), "");
    EXPECT_EQ(m_settings.channelName("shed"), "Shed notes");
    ChannelDesktopSettings stored;
    ASSERT_TRUE(stored.load(m_settings.fileFor("shed"), "shed"));
    EXPECT_FALSE(stored.notifyOnNewItem);
    EXPECT_TRUE(stored.useQuickAccessMenu);
    m_manager.runUpdatePass();
    EXPECT_NE(channel->state().lastFetchTime(), 0);
}

TEST_F(NewChannelWizard, AFeedThatFailsGoesNoFurtherNorDoTakenOrInvalidIds) {
    writeFile(m_home.file("broken.xml"), "<rss><channel><title>Broken</title><item>");
    CNewChannelWizard wizard(m_manager, m_settings, m_environment);
    wizard.show();
    wizard.setAddress(QString::fromStdString(m_home.file("broken.xml")));
    wizard.next();
    EXPECT_FALSE(nextEnabled(wizard)); // nor while the preview runs
    ASSERT_TRUE(waitFor([&] { return !wizard.isPreviewRunning(); }));
    EXPECT_EQ(child<QLabel>(wizard, "previewError")->text(),
              "XML parse failed (3:L1/C41): no element found");
    EXPECT_FALSE(nextEnabled(wizard));

    // Back on the source page with a good feed, the same wizard goes on.
    writeFile(m_home.file("good.xml"), kFeed);
    writeFile(m_home.file("Channels/good.rss"), "");
    wizard.setAddress(QString::fromStdString(m_home.file("good.xml")));
    EXPECT_EQ(wizard.currentId(), CNewChannelWizard::SourcePageId);
    wizard.next();
    ASSERT_TRUE(waitFor([&] { return !wizard.isPreviewRunning(); }));
    EXPECT_TRUE(nextEnabled(wizard));
    wizard.next();
    auto* id = child<QLineEdit>(wizard, "channelId");
    EXPECT_NE(id->text(), "good"); // the suggestion avoids the existing file
    EXPECT_TRUE(nextEnabled(wizard));
    for (const char* bad : {"good", "", "../x", "a b"}) {
        id->setText(bad);
        EXPECT_FALSE(nextEnabled(wizard)) << bad;
    }
}

TEST_F(NewChannelWizard, APluginChannelTakesItsParametersAndNeedsNoPreview) {
    writeFile(m_home.file("listing.sh"), "#!/bin/sh\n");
    writeFile(m_home.file("listing.plugin"),
              "[ChannelParameterDefinition-1]\nName=Folder\nType=string\nDefaultValue=/srv\n"
              "[ChannelParameterDefinition-2]\nName=Count\nType=int\nDefaultValue=5\n");
    CNewChannelWizard wizard(m_manager, m_settings, m_environment);
    wizard.show();
    child<QLineEdit>(wizard, "source")->setText(QString::fromStdString(m_home.file("listing.sh")));
    child<QAbstractButton>(wizard, "kindPlugin")->click();
    auto* count = child<QLineEdit>(wizard, "param-Count");
    ASSERT_NE(count, nullptr);
    EXPECT_EQ(count->text(), "5");
    count->setText("7");
    wizard.next();
    ASSERT_EQ(wizard.currentId(), CNewChannelWizard::ChannelPageId);
    wizard.next();
    wizard.accept();

    const std::string id = wizard.addedChannelId().toStdString();
    ASSERT_FALSE(id.empty());
    channels::Channel* channel = m_manager.findChannel(id);
    ASSERT_NE(channel, nullptr);
    EXPECT_EQ(channel->address(), m_home.file("listing.sh"));
    EXPECT_EQ(channel->fileName(), m_home.file("Channels/" + id + ".plugin"));
    EXPECT_EQ(profile::readIniString(channel->fileName(), "ChannelParameters", "Count"), "7");
    EXPECT_EQ(profile::readIniString(channel->fileName(), "ChannelParameters", "Folder"), "/srv");
}

TEST_F(NewChannelWizard, AnAtomFeedOffersToTurnItsOptionOnAndThenPreviews) {
    m_environment.paths.configFile = m_home.file("config.ini");
    writeFile(m_home.file("atom.xml"),
              "<feed xmlns='http://www.w3.org/2005/Atom'><title>Ateam"
              "</title><entry><id>1</id><title>One</title></entry></feed>");
    CNewChannelWizard wizard(m_manager, m_settings, m_environment);
    wizard.show();
    wizard.setAddress(QString::fromStdString(m_home.file("atom.xml")));
    wizard.next();
    ASSERT_TRUE(waitFor([&] { return !wizard.isPreviewRunning(); }));
    EXPECT_EQ(wizard.preview().formatOption, "AcceptAtomFeeds");
    EXPECT_TRUE(child<QLabel>(wizard, "previewError")->text().startsWith("Not an RSS feed.\n"));
    auto* turnOn = child<QAbstractButton>(wizard, "turnOnFormat");
    ASSERT_TRUE(turnOn->isVisible());
    EXPECT_FALSE(nextEnabled(wizard));

    turnOn->click();
    ASSERT_TRUE(waitFor([&] { return !wizard.isPreviewRunning(); }));
    ASSERT_TRUE(wizard.preview().isFeed()) << wizard.preview().error;
    EXPECT_EQ(child<QLabel>(wizard, "previewTitle")->text(), "Ateam");
    EXPECT_FALSE(turnOn->isVisible());
    EXPECT_TRUE(nextEnabled(wizard));
    // The option is the user's from now on: saved, and the engine reads Atom feeds.
    EXPECT_TRUE(m_environment.options.acceptAtomFeeds);
    EXPECT_TRUE(m_manager.feedFormats().atom);
    app::GlobalOptions saved;
    ASSERT_TRUE(saved.load(m_environment.paths.configFile, ""));
    EXPECT_TRUE(saved.acceptAtomFeeds);
    EXPECT_FALSE(saved.acceptJsonFeeds);
}

int main(int argc, char** argv) { return client_testing::runClientTests(argc, argv); }
