// The main window over a real channel manager: the channel tree after updates from a loopback
// server (names, unviewed counts, colours, the failing mark), the delete command with its
// question, the channel windows in the MDI area, the layout kept across two windows, the
// commands' keys and accessible names; and the worker's hand-offs: lines arrive by queued calls
// and the panes keep only the newest, and detaching at shut-down releases a waiting worker.
#include "trayClient/mainFrame.h"

#include "channels/channel.h"
#include "channels/channelManager.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "tests/support/testHttpServer.h"
#include "tests/support/testSupport.h"
#include "tests/trayClient/support/clientTestSupport.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/controlCenter.h"
#include "trayClient/notificationRequest.h"
#include "trayClient/reportBox.h"
#include "trayClient/uiStyle.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QAction>
#include <QApplication>
#include <QDockWidget>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QMenuBar>
#include <QMessageBox>
#include <QTimer>
#include <QToolBar>
#include <QTreeWidget>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

namespace fs = std::filesystem;
using client_testing::storyFeed;
using client_testing::waitFor;
using client_testing::waitWithoutEvents;
using testing_support::TempDir;
using testing_support::writeFile;
using namespace trayClient;

namespace {

// Options whose channel colours can't be mistaken for the defaults: red for channels that
// update automatically, blue for the others.
app::GlobalOptions distinctColours() {
    app::GlobalOptions options;
    options.controlCenterAutoUpdateChannelFgdCol = 0x0000FF;
    options.controlCenterNonAutoUpdateChannelFgdCol = 0xFF0000;
    return options;
}

// Answers the next message box with the button; the question it asked is kept.
std::shared_ptr<QString> answerNextQuestion(QMessageBox::StandardButton button) {
    auto question = std::make_shared<QString>();
    QTimer::singleShot(0, [question, button] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        ASSERT_NE(box, nullptr);
        *question = box->text();
        box->button(button)->click();
    });
    return question;
}

// A channel window with the commands the main window forwards.
class FakeChannelWindow : public QWidget {
    Q_OBJECT
public:
    int markAllCalls = 0;
public slots:
    void markAllViewed() { ++markAllCalls; }
};

// A manager on a temporary home whose channels read a loopback server; the window gets the
// worker's events through the real event handler.
class MainWindowTest : public ::testing::Test {
protected:
    MainWindowTest() {
        m_web.server().Get("/news", [this](const httplib::Request&, httplib::Response& answer) {
            answer.set_content(storyFeed("Local news", m_items), "application/rss+xml");
        });
        EXPECT_TRUE(m_web.start());
        fs::create_directories(m_channelsDir);
        // Addresses of 127.0.0.1 are the program's own plugin server; "localhost" is not.
        addChannel("web", "http://localhost:" + std::to_string(m_web.port()) + "/news");
        addChannel("broken", m_dir.file("missing.xml"));
        addChannel("manual", m_dir.file("manual.xml"), "Manual");
        profile::writeIniBool(channelFile("manual"), "Settings", "IsAutoUpdateEnabled", false);
        m_settings.loadAll(channelsInDirectory(m_channelsDir));
        m_manager.addListener(&m_handler);
        m_manager.loadChannels();
        m_frame.setContext(&m_manager, &m_settings, &m_options);
        m_frame.attach();
    }
    ~MainWindowTest() override {
        m_handler.stopDelivering();
        m_frame.detach();
        m_manager.removeListener(&m_handler);
        m_manager.stop();
        profile::clearCache();
    }
    std::string channelFile(const std::string& id) const {
        return m_channelsDir + "/" + id + ".rss";
    }
    void addChannel(const std::string& id, const std::string& url, const std::string& name = {}) {
        profile::writeIniString(channelFile(id), "Config", "RssChannelUrl", url);
        if (!name.empty())
            profile::writeIniString(channelFile(id), "Config", "PreferredChannelDisplayName", name);
        profile::writeIniInt(channelFile(id), "Settings", "AutoUpdateInterval", 3600);
    }
    // One pass of the worker an hour later, on a thread of its own: the end of each update
    // waits for this (the UI) thread.
    void update() {
        m_now += 3600;
        std::atomic<bool> done{false};
        std::thread worker([&] {
            m_manager.runUpdatePass();
            done = true;
        });
        EXPECT_TRUE(waitFor([&] { return done.load(); }));
        worker.join();
        QCoreApplication::sendPostedEvents();
    }
    QTreeWidgetItem* row(const QString& id) const {
        return m_frame.controlCenter()->channelItem(id);
    }
    channels::ChannelManagerOptions managerOptions() const {
        channels::ChannelManagerOptions options;
        options.net.honourUrlPort = true;
        return options;
    }

    TempDir m_dir;
    std::string m_channelsDir = m_dir.file("Channels");
    std::vector<std::string> m_items{"a", "b", "c"};
    testing_support::TestHttpServer m_web;
    std::atomic<std::time_t> m_now{1'700'000'000};
    app::GlobalOptions m_options = distinctColours();
    CMainFrame m_frame{m_options};
    ChannelDesktopSettingsTable m_settings{m_dir.path().string()};
    NotificationRequestQueue m_queue{m_settings, -1};
    ChannelEventHandler m_handler{m_frame, m_queue, m_settings, 3, [this] { return m_now.load(); }};
    channels::ChannelManager m_manager{m_channelsDir, managerOptions(),
                                       [this] { return m_now.load(); }};
};

} // namespace

// A fatal or assertion report from another thread is shown by the interface thread in a box
// owned by no window while the reporting thread waits for it to close; when the interface
// thread does not take it in time, the reporter goes on without waiting for the box.
TEST(ReportBox, OtherThreadsHandTheirReportsToTheInterfaceThread) {
    std::atomic<bool> returned{false};
    // The box runs its own event loop: a timer in it reads the box and clicks OK.
    QStringList shown;
    QTimer closer;
    QObject::connect(&closer, &QTimer::timeout, [&] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            shown << box->windowTitle() + "|" + box->text() + "|" + QString::number(box->icon()) +
                         "|" + QString::number(box->parentWidget() != nullptr) + "|" +
                         QString::number(returned.load());
            box->button(QMessageBox::Ok)->click();
        }
    });
    closer.start(20);
    std::thread reporter([&] {
        showReportBox("PROGRAM ASSERTION ERROR", "the report");
        returned = true;
    });
    EXPECT_TRUE(waitFor([&] { return returned.load(); }, std::chrono::seconds(10)));
    reporter.join();
    EXPECT_EQ(shown,
              QStringList{
                  QString("PROGRAM ASSERTION ERROR|the report|%1|0|0").arg(QMessageBox::Warning)});

    std::thread stuck([] { showReportBox("PROGRAM ABORT", "late", 1); });
    stuck.join(); // this thread runs no events meanwhile
    EXPECT_TRUE(waitFor([&] { return shown.size() == 2; }, std::chrono::seconds(10)))
        << "the box comes once the interface thread is free";
    EXPECT_TRUE(shown.value(1).startsWith("PROGRAM ABORT|late|"));
}

TEST(UiStyle, ColourReferencesKeepRedInTheLowByte) {
    EXPECT_EQ(fromColourRef(0x0000FF), QColor(255, 0, 0));
    EXPECT_EQ(fromColourRef(0xF5FFFF), QColor(255, 255, 245));
    EXPECT_EQ(fromColourRef(0xFF123456), QColor(0x56, 0x34, 0x12));
    EXPECT_EQ(toColourRef(QColor(0x56, 0x34, 0x12)), 0x123456u);
}

TEST_F(MainWindowTest, AfterAnUpdateEachChannelShowsItsNameAndUnviewedCountInItsColour) {
    ASSERT_EQ(m_frame.controlCenter()->channelTree()->topLevelItemCount(), 3);
    update();
    ASSERT_TRUE(row("web"));
    EXPECT_EQ(row("web")->text(0), "Local news (3)");
    // The feed's name moved the channel to its place: by name, whatever the case.
    QTreeWidget* tree = m_frame.controlCenter()->channelTree();
    EXPECT_EQ(tree->topLevelItem(0)->text(0), "broken (0)");
    EXPECT_EQ(tree->topLevelItem(1), row("web"));
    EXPECT_EQ(row("manual")->text(0), "Manual (0)");
    EXPECT_EQ(row("web")->foreground(0).color(), QColor(255, 0, 0));
    EXPECT_EQ(row("manual")->foreground(0).color(), QColor(0, 0, 255));

    // Viewing an item lowers the count; a new item on the server raises it again.
    m_settings.markViewed("web", "http://example.com/b");
    m_frame.channelItemsViewedChanged("web");
    EXPECT_EQ(row("web")->text(0), "Local news (2)");
    m_items.push_back("d");
    update();
    EXPECT_EQ(row("web")->text(0), "Local news (3)");

    // New options recolour the rows that are there.
    app::GlobalOptions swapped;
    swapped.controlCenterAutoUpdateChannelFgdCol = 0x00FF00;
    m_frame.applyOptions(swapped);
    EXPECT_EQ(row("web")->foreground(0).color(), QColor(0, 255, 0));
    EXPECT_EQ(row("manual")->foreground(0).color(), fromColourRef(0x808080));
}

TEST_F(MainWindowTest, AFailingChannelIsMarkedWithItsErrorUntilAnUpdateSucceeds) {
    update();
    ASSERT_TRUE(row("broken"));
    EXPECT_FALSE(row("broken")->icon(0).isNull());
    EXPECT_TRUE(row("broken")->toolTip(0).contains("missing.xml"))
        << row("broken")->toolTip(0).toStdString();
    EXPECT_TRUE(row("web")->icon(0).isNull());
    EXPECT_TRUE(row("web")->toolTip(0).isEmpty());
    // The mark survives a rebuild of the tree.
    m_frame.refreshChannels();
    EXPECT_FALSE(row("broken")->icon(0).isNull());

    // Brief summaries: counts and headlines, unviewed ones bold, then the error if any.
    CControlCenter& centre = *m_frame.controlCenter();
    EXPECT_EQ(centre.channelToolTip("web"), "");
    m_options.showBriefChannelSummaries = true;
    m_frame.applyOptions(m_options);
    m_settings.markViewed("web", "http://example.com/b");
    const QString brief = centre.channelToolTip("web");
    EXPECT_TRUE(brief.contains("<b>Local news</b>")) << brief.toStdString();
    EXPECT_TRUE(brief.contains("3 items, 2 unviewed")) << brief.toStdString();
    EXPECT_TRUE(
        brief.contains("<div><b>Story a</b></div><div>Story b</div><div><b>Story c</b></div>"))
        << brief.toStdString();
    EXPECT_TRUE(centre.channelToolTip("broken").contains("missing.xml"));

    writeFile(m_dir.file("missing.xml"), storyFeed("Found", {"x"}));
    update();
    EXPECT_TRUE(row("broken")->icon(0).isNull());
    EXPECT_TRUE(row("broken")->toolTip(0).isEmpty());
    EXPECT_EQ(row("broken")->text(0), "Found (1)");
}

TEST_F(MainWindowTest, DeleteAsksWithTheChannelsNameAndRemovesItOnlyWhenTheAnswerIsYes) {
    update();
    ASSERT_TRUE(m_frame.controlCenter()->selectChannel("web"));
    ASSERT_TRUE(fs::exists(m_settings.fileFor("web")));
    ASSERT_TRUE(m_frame.actions().deleteChannel->isEnabled());

    auto declined = answerNextQuestion(QMessageBox::No);
    m_frame.actions().deleteChannel->trigger();
    EXPECT_TRUE(declined->contains("\"Local news\"")) << declined->toStdString();
    EXPECT_TRUE(m_manager.findChannel("web"));
    EXPECT_TRUE(row("web"));

    answerNextQuestion(QMessageBox::Yes);
    m_frame.actions().deleteChannel->trigger();
    EXPECT_EQ(m_manager.findChannel("web"), nullptr);
    EXPECT_FALSE(fs::exists(channelFile("web")));
    EXPECT_FALSE(fs::exists(m_settings.fileFor("web")));
    EXPECT_FALSE(m_settings.contains("web"));
    EXPECT_EQ(row("web"), nullptr);
    EXPECT_NE(m_frame.selectedChannelId(), "web");
}

TEST_F(MainWindowTest, ChannelsOpenOnceAsChildWindowsThatReceiveTheForwardedCommands) {
    update();
    // Without a factory (no channel window yet) activating does nothing.
    emit m_frame.controlCenter()->channelActivated("web");
    EXPECT_TRUE(m_frame.mdiArea()->subWindowList().isEmpty());

    std::vector<QString> made;
    FakeChannelWindow* web = nullptr;
    m_frame.setChannelWindowFactory([&](const QString& id) -> QWidget* {
        made.push_back(id);
        if (id != "web")
            return new QWidget;
        web = new FakeChannelWindow;
        return web;
    });
    emit m_frame.controlCenter()->channelActivated("web");
    emit m_frame.controlCenter()->channelActivated("web");
    ASSERT_EQ(made, std::vector<QString>{"web"});
    ASSERT_EQ(m_frame.mdiArea()->subWindowList().size(), 1);
    QMdiSubWindow* child = m_frame.mdiArea()->subWindowList().first();
    EXPECT_EQ(child->windowTitle(), "Local news");
    EXPECT_TRUE(child->isMaximized());
    EXPECT_EQ(m_frame.selectedChannelId(), "web");

    m_frame.actions().markAllViewed->trigger();
    EXPECT_EQ(web->markAllCalls, 1);
    // A child without the command leaves it off, and the tree follows the open channel.
    emit m_frame.controlCenter()->channelActivated("manual");
    EXPECT_EQ(m_frame.mdiArea()->subWindowList().size(), 2);
    EXPECT_EQ(m_frame.selectedChannelId(), "manual");
    EXPECT_FALSE(m_frame.actions().markAllViewed->isEnabled());
    m_frame.actions().markAllViewed->trigger();
    EXPECT_EQ(web->markAllCalls, 1);
}

TEST(MainWindow, AnAppPluginOpensAsAChildTitledByItsName) {
    CMainFrame frame;
    frame.setAppPlugins({{"weather", "Weather"}, {"stocks", "Stocks"}});
    QStringList requested;
    QObject::connect(&frame, &CMainFrame::appPluginRequested,
                     [&](const QString& id) { requested << id; });
    emit frame.controlCenter()->appPluginActivated("weather");
    EXPECT_EQ(requested, QStringList{"weather"});
    EXPECT_TRUE(frame.mdiArea()->subWindowList().isEmpty());

    frame.setPluginWindowFactory([](const QString&) { return new QWidget; });
    emit frame.controlCenter()->appPluginActivated("weather");
    ASSERT_EQ(frame.mdiArea()->subWindowList().size(), 1);
    EXPECT_EQ(frame.mdiArea()->subWindowList().first()->windowTitle(), "Weather");
    EXPECT_EQ(frame.controlCenter()->pluginTree()->topLevelItem(0)->text(0), "Weather");
}

TEST(MainWindow, TheLayoutOfOneWindowIsRestoredInTheNext) {
    TempDir dir;
    const QString layout = QString::fromStdString(dir.file("window.ini"));
    {
        CMainFrame first({}, layout);
        first.show();
        first.setGeometry(40, 50, 700, 420);
        auto* controlCenter = first.findChild<QDockWidget*>("controlCenterDock");
        first.addDockWidget(Qt::RightDockWidgetArea, controlCenter);
        first.findChild<QDockWidget*>("errorLogDock")->hide();
        first.close();
        EXPECT_TRUE(first.isHidden());
    }
    CMainFrame second({}, layout);
    EXPECT_EQ(second.size(), QSize(700, 420));
    EXPECT_EQ(second.dockWidgetArea(second.findChild<QDockWidget*>("controlCenterDock")),
              Qt::RightDockWidgetArea);
    second.show();
    EXPECT_FALSE(second.findChild<QDockWidget*>("errorLogDock")->isVisible());
    EXPECT_TRUE(second.findChild<QDockWidget*>("activityLogDock")->isVisible());
}

TEST(MainWindow, EveryCommandHasItsOwnKeyAndAnAccessibleName) {
    CMainFrame frame;
    QList<QKeySequence> keys;
    const QList<QAction*> actions = frame.actions().all();
    ASSERT_EQ(actions.size(), 15);
    for (QAction* action : actions) {
        ASSERT_NE(action, nullptr);
        ASSERT_FALSE(action->shortcut().isEmpty()) << action->text().toStdString();
        EXPECT_FALSE(keys.contains(action->shortcut())) << action->text().toStdString();
        keys << action->shortcut();
    }
    // What assistive technology reads: the menus' entries and the tool bar's buttons.
    int entries = 0;
    for (QAction* menu : frame.menuBar()->actions()) {
        QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(menu->menu());
        ASSERT_NE(accessible, nullptr);
        for (int index = 0; index < accessible->childCount(); ++index) {
            QAccessibleInterface* entry = accessible->child(index);
            if (entry->role() == QAccessible::Separator)
                continue;
            EXPECT_FALSE(entry->text(QAccessible::Name).isEmpty());
            EXPECT_FALSE(entry->text(QAccessible::Name).contains('&'));
            ++entries;
        }
    }
    EXPECT_EQ(entries, actions.size());
    auto* toolBar = frame.findChild<QToolBar*>("mainToolBar");
    ASSERT_NE(toolBar, nullptr);
    for (QAction* action : toolBar->actions()) {
        if (!action->isSeparator()) {
            EXPECT_FALSE(toolBar->widgetForAction(action)->accessibleName().isEmpty());
        }
    }
}

TEST(MainWindow, TheOptionsChooseTabbedChildrenAndKeepTheWindowOffTheTaskBar) {
    app::GlobalOptions options;
    options.mdiTabs = 1;
    options.hideInTaskbar = true;
    CMainFrame frame(options);
    EXPECT_EQ(frame.mdiArea()->viewMode(), QMdiArea::TabbedView);
    EXPECT_TRUE(frame.windowFlags().testFlag(Qt::Tool));
    frame.show();
    options.mdiTabs = 0;
    options.hideInTaskbar = false;
    frame.applyOptions(options);
    EXPECT_EQ(frame.mdiArea()->viewMode(), QMdiArea::SubWindowView);
    EXPECT_FALSE(frame.windowFlags().testFlag(Qt::Tool));
    EXPECT_TRUE(frame.isVisible());
}

TEST(MainFrame, LinesFromTheWorkerReachTheirPanesAndEachPaneKeepsOnlyItsNewest) {
    app::GlobalOptions options;
    options.maxActivityLogMsgs = 3;
    options.maxErrorLogMsgs = 2;
    CMainFrame frame(options);
    frame.attach();
    auto line = [](const std::string& text) {
        return ActivityRecord{text, 1700000000, ActivityRecord::Kind::Progress};
    };
    std::thread worker([&] {
        for (int i = 1; i <= 10; ++i)
            frame.postActivityLine(line("activity " + std::to_string(i)));
        for (int i = 1; i <= 5; ++i)
            frame.postErrorLine(line("error " + std::to_string(i) + "\nsecond part"));
    });
    worker.join();
    ASSERT_TRUE(waitFor([&] {
        return !frame.errorLines().isEmpty() && frame.errorLines().last().contains("error 5");
    }));
    QStringList activity = frame.activityLines();
    ASSERT_EQ(activity.size(), 3);
    EXPECT_TRUE(activity[0].endsWith("activity 8"));
    EXPECT_TRUE(activity[2].endsWith("activity 10"));
    QStringList errors = frame.errorLines();
    ASSERT_EQ(errors.size(), 2);
    // A line with a line break stays one line of the pane.
    EXPECT_TRUE(errors[1].endsWith("error 5 second part"));
}

TEST(MainFrame, DetachingReleasesAWaitingWorkerAndLaterCallsReturnAtOnce) {
    CMainFrame frame;
    frame.attach();
    EXPECT_TRUE(frame.present());
    std::atomic<bool> returned{false};
    std::thread worker([&] {
        frame.endChannelUpdate("news");
        returned = true;
    });
    // The UI thread does not run its event loop: it is shutting down.
    ASSERT_TRUE(waitWithoutEvents([&] { return frame.workersWaiting() == 1; }));
    frame.detach();
    worker.join();
    EXPECT_TRUE(returned);
    EXPECT_FALSE(frame.present());
    frame.endChannelUpdate("news");
    // The released hand-off never runs later either: the queued call finds it closed.
    QCoreApplication::sendPostedEvents();
    EXPECT_EQ(frame.channelUpdatesSeen(), 0);
}

int main(int argc, char** argv) { return client_testing::runClientTests(argc, argv); }

#include "mainWindowTest.moc"
