#include "channels/channelManager.h"
#include "channels/exception.h"
#include "channels/rssChannel.h"
#include "lib/log/log.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "lib/misc/threadSafetyWin32.h"
#include "tests/support/testHttpServer.h"
#include "tests/support/testSupport.h"
#include "tools/hostAddress.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace channels;
using testing_support::Gate;
using testing_support::TempDir;
using testing_support::TestHttpServer;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

// Items carry a title, a link and a description made from their ids.
std::string rss(const std::vector<std::string>& ids) {
    std::string text = "<?xml version=\"1.0\"?><rss version=\"2.0\"><channel><title>News</title>"
                       "<link>http://example.org/</link>";
    for (const std::string& id : ids)
        text += "<item><title>Item " + id + "</title><link>http://example.org/" + id +
                "</link><guid>" + id + "</guid><description>Text of " + id +
                "</description></item>";
    return text + "</channel></rss>";
}

void serveRss(TestHttpServer& server, const std::string& path, std::vector<std::string> ids) {
    server.server().Get(path, [ids](const httplib::Request&, httplib::Response& res) {
        res.set_content(rss(ids), "application/rss+xml");
    });
}

// Records every event as a short line: "begin", "expired 0", "new 2", "error <message>", "end 1".
class Recorder : public EventListener {
public:
    void onBeginChannelUpdate(BeginChannelUpdateEvent& e) override {
        add("begin " + e.channel()->id() + (e.isExplicit() ? " explicit" : ""));
    }
    void onEndChannelUpdate(EndChannelUpdateEvent& e) override {
        add("end " + e.channel()->id() + (e.success() ? " ok" : " failed"));
    }
    void onNewFeedItem(NewFeedItemEvent& e) override {
        add("new " + std::to_string(e.feedItemIndex()) + " " +
            e.channel()->state().feed().item(static_cast<size_t>(e.feedItemIndex())).id);
    }
    void onExpiredFeedItem(ExpiredFeedItemEvent& e) override {
        add("expired " + std::to_string(e.feedItemIndex()) + " " +
            e.channel()->state().feed().item(static_cast<size_t>(e.feedItemIndex())).id);
    }
    void onChannelError(ChannelErrorEvent& e) override {
        add("error " + e.message() + " " + e.detail());
    }
    std::vector<std::string> take() {
        std::lock_guard guard(m_mutex);
        return std::exchange(m_lines, {});
    }
    // Waits until `count` lines not yet taken begin with `prefix`; false after 20 s.
    bool waitFor(const std::string& prefix, std::size_t count) {
        std::unique_lock lock(m_mutex);
        return m_added.wait_for(lock, std::chrono::seconds(20), [&] {
            return static_cast<std::size_t>(
                       std::count_if(m_lines.begin(), m_lines.end(), [&](const std::string& line) {
                           return line.rfind(prefix, 0) == 0;
                       })) >= count;
        });
    }

private:
    void add(std::string line) {
        {
            std::lock_guard guard(m_mutex);
            m_lines.push_back(std::move(line));
        }
        m_added.notify_all();
    }
    std::mutex m_mutex;
    std::condition_variable m_added;
    std::vector<std::string> m_lines;
};

// Turns on the lock-order check for a test and records what it reports instead of ending
// the program.
std::mutex g_lockReportsMutex;
std::vector<std::string> g_lockReports;
class LockOrderWatch {
public:
    LockOrderWatch() {
        taken();
        threadSafety::setFatalHandler([](const char* message, const char*, const char*, unsigned) {
            std::lock_guard guard(g_lockReportsMutex);
            g_lockReports.push_back(message);
        });
        threadSafety::setLockOrderChecking(true);
    }
    ~LockOrderWatch() {
        threadSafety::setLockOrderChecking(false);
        threadSafety::setFatalHandler(nullptr);
    }
    LockOrderWatch(const LockOrderWatch&) = delete;
    LockOrderWatch& operator=(const LockOrderWatch&) = delete;
    // The reports since the last call.
    static std::vector<std::string> taken() {
        std::lock_guard guard(g_lockReportsMutex);
        return std::exchange(g_lockReports, {});
    }
};

// A manager on a temporary channels directory with a clock the test moves.
class EngineTest : public ::testing::Test {
protected:
    EngineTest() {
        m_channelsDir = m_dir.file("Channels");
        fs::create_directories(m_channelsDir);
    }
    ~EngineTest() override {
        if (m_manager) {
            m_manager->stop();
            m_manager->removeListener(&m_recorder);
        }
        EXPECT_EQ(m_lockOrder.taken(), std::vector<std::string>{});
    }
    ChannelManager& manager(ChannelManagerOptions options = {}) {
        options.stopWaitMs = m_stopWaitMs;
        m_manager = std::make_unique<ChannelManager>(m_channelsDir, options,
                                                     [this] { return m_now.load(); });
        m_manager->addListener(&m_recorder);
        m_manager->loadChannels();
        return *m_manager;
    }
    // Writes a channel file that reads the given address.
    void addChannelFile(const std::string& id, const std::string& url, int interval = 3600) {
        const std::string file = m_channelsDir + "/" + id + ".rss";
        profile::writeIniString(file, "Config", "RssChannelUrl", url);
        profile::writeIniInt(file, "Settings", "AutoUpdateInterval", interval);
    }
    // Options that fetch from the test servers' own ports.
    static ChannelManagerOptions overHttp() {
        ChannelManagerOptions options;
        options.net.honourUrlPort = true;
        return options;
    }
    std::string feedFile(const std::string& name, const std::string& text) {
        writeFile(m_dir.file(name), text);
        return m_dir.file(name);
    }

    LockOrderWatch m_lockOrder; // every test here also checks the lock order
    TempDir m_dir;
    std::string m_channelsDir;
    std::atomic<std::time_t> m_now{1'700'000'000};
    unsigned m_stopWaitMs = 30000;
    Recorder m_recorder;
    std::unique_ptr<ChannelManager> m_manager;
};

} // namespace

TEST_F(EngineTest, UpdatesRaiseExpiredEventsBeforeTheReplacementAndNewOnesAfter) {
    const std::string feed = feedFile("feed.xml", rss({"a", "b", "c"}));
    addChannelFile("news", feed);
    auto& m = manager();
    m.runUpdatePass();
    EXPECT_EQ(m_recorder.take(), (std::vector<std::string>{"begin news", "new 0 a", "new 1 b",
                                                           "new 2 c", "end news ok"}));
    writeFile(feed, rss({"b", "d", "c"}));
    m_now += 3600;
    m.runUpdatePass();
    EXPECT_EQ(m_recorder.take(),
              (std::vector<std::string>{"begin news", "expired 0 a", "new 1 d", "end news ok"}));
    // Reordered items with the same ids raise nothing; the channel was saved.
    writeFile(feed, rss({"c", "d", "b"}));
    m_now += 3600;
    m.runUpdatePass();
    EXPECT_EQ(m_recorder.take(), (std::vector<std::string>{"begin news", "end news ok"}));
    profile::clearCache();
    Feed stored;
    stored.load(m_channelsDir + "/news.rss", "Last Feed");
    EXPECT_EQ(stored.itemCount(), 3u);
    EXPECT_EQ(stored.item(0).id, "c");
    EXPECT_EQ(stored.feedTime(), static_cast<std::int32_t>(m_now.load()));
}

// While a new feed is parsed the old one waits in the channel's file; listeners of the
// expired-item events still read each expired item's id, title and link, and an update that
// fails on the way leaves the channel its old items whole.
TEST_F(EngineTest, ExpiredItemsKeepTheirHeadlinesAndFailedUpdatesKeepTheOldItemsWhole) {
    class ExpiryReader : public EventListener {
    public:
        void onExpiredFeedItem(ExpiredFeedItemEvent& e) override {
            const FeedItem item =
                e.channel()->state().feed().item(static_cast<size_t>(e.feedItemIndex()));
            seen.push_back(item.id + " | " + item.title + " | " + item.url);
            if (fail)
                throw Exception("listener failed");
        }
        std::vector<std::string> seen;
        bool fail = false;
    } reader;
    const std::string feed = feedFile("feed.xml", rss({"a", "b"}));
    addChannelFile("news", feed);
    auto& m = manager();
    m.addListener(&reader);
    m.runUpdatePass();
    const auto description = [&](std::size_t index) {
        return m.findChannel("news")->state().feed().item(index).description;
    };

    // The parse fails: the old items come back from the file.
    writeFile(feed, rss({"b"}) + "<broken");
    m_now += 3600;
    m.runUpdatePass();
    EXPECT_TRUE(m.findChannel("news")->state().isFeedLoaded());
    EXPECT_EQ(description(0), "Text of a");
    // A listener fails during the expired-item events: the same.
    writeFile(feed, rss({"b"}));
    reader.fail = true;
    m_now += 3600;
    m.runUpdatePass();
    EXPECT_EQ(reader.seen, std::vector<std::string>{"a | Item a | http://example.org/a"});
    EXPECT_EQ(description(0), "Text of a");
    EXPECT_EQ(description(1), "Text of b");
    reader.fail = false;
    m_now += 3600;
    m.runUpdatePass();
    EXPECT_EQ(reader.seen.size(), 2u);
    EXPECT_EQ(description(0), "Text of b");
    m.removeListener(&reader);
    m.stop();
    profile::clearCache();
    Feed stored;
    stored.load(m_channelsDir + "/news.rss", "Last Feed");
    ASSERT_EQ(stored.itemCount(), 1u);
    EXPECT_EQ(stored.item(0).description, "Text of b");
}

TEST_F(EngineTest, DueTestFollowsTheIntervalAndExplicitRequestsComeFirstAndOnce) {
    const std::string feed = feedFile("feed.xml", rss({"a"}));
    addChannelFile("a", feed, 100);
    addChannelFile("b", feed, 0); // never due on its own
    auto& m = manager();
    m.runUpdatePass();
    EXPECT_EQ(m_recorder.take(), (std::vector<std::string>{"begin a", "new 0 a", "end a ok"}));
    m_now += 99;
    m.runUpdatePass();
    EXPECT_TRUE(m_recorder.take().empty());
    m_now += 1;
    ASSERT_TRUE(m.requestUpdate("b"));
    ASSERT_TRUE(m.requestUpdate("a"));
    m.runUpdatePass();
    EXPECT_EQ(m_recorder.take(),
              (std::vector<std::string>{"begin b explicit", "new 0 a", "end b ok",
                                        "begin a explicit", "end a ok"}));
    EXPECT_FALSE(m.requestUpdate("missing"));
}

// An unchanged feed (304) raises no item events but the fetch time moves; a failing channel
// reports its error, keeps its feed, and the others still update.
TEST_F(EngineTest, UnchangedAndFailingFeedsKeepTheirItemsAndOthersStillUpdate) {
    TestHttpServer server("127.0.0.2");
    std::atomic<int> mode{0};
    server.server().Get("/feed", [&](const httplib::Request& req, httplib::Response& res) {
        if (mode == 0 && req.get_header_value("If-None-Match") == "\"v1\"") {
            res.status = 304;
        } else if (mode == 0) {
            res.set_header("ETag", "\"v1\"");
            res.set_content(rss({"x"}), "application/rss+xml");
        } else if (mode == 1) {
            res.status = 500;
        } else {
            res.set_content("<html>not a feed", "text/html");
        }
    });
    serveRss(server, "/good", {"g"});
    ASSERT_TRUE(server.start());
    addChannelFile("bad", server.url("/feed"));
    addChannelFile("good", server.url("/good"));
    auto& m = manager(overHttp());
    m.runUpdatePass();
    m_recorder.take();
    m_now += 3600;
    m.runUpdatePass();
    EXPECT_EQ(m_recorder.take(),
              (std::vector<std::string>{"begin bad", "end bad ok", "begin good", "end good ok"}));
    const ChannelState& state = m.findChannel("bad")->state();
    EXPECT_EQ(state.lastFetchTime(), static_cast<std::int32_t>(m_now.load()));
    EXPECT_EQ(state.httpETag(), "\"v1\"");
    EXPECT_TRUE(state.isFeedLoaded()) << "back from the file, not a copy of it";
    EXPECT_EQ(state.feed().itemId(0), "x");
    for (int failure : {1, 2}) {
        mode = failure;
        m_now += 3600;
        m.runUpdatePass();
        auto events = m_recorder.take();
        ASSERT_EQ(events.size(), 5u);
        EXPECT_EQ(events[0], "begin bad");
        EXPECT_EQ(events[1].rfind("error Can't update the feed. ", 0), 0u) << events[1];
        EXPECT_EQ(events[2], "end bad failed");
        EXPECT_EQ(events[3], "begin good");
        if (failure == 1) {
            EXPECT_EQ(events[1], "error Can't update the feed. Feed update error: HTTP 500 "
                                 "Internal Server Error");
        }
        EXPECT_EQ(state.feed().itemCount(), 1u);
        EXPECT_EQ(state.lastFetchTime(), static_cast<std::int32_t>(m_now.load()));
    }
}

TEST_F(EngineTest, DisabledInternetFailsEveryDownloadFromTheNextOneOn) {
    addChannelFile("n", feedFile("feed.xml", rss({"a"})));
    ChannelManagerOptions options;
    options.disableInternet = true;
    auto& m = manager(options);
    m.runUpdatePass();
    auto events = m_recorder.take();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[1], "error Can't update the feed. Internet access has been disabled.");
    // The user works online again: the next update fetches.
    m.setLiveOptions(false, 15, false);
    ASSERT_TRUE(m.requestUpdate("n"));
    m.runUpdatePass();
    EXPECT_EQ(m_recorder.take(),
              (std::vector<std::string>{"begin n explicit", "new 0 a", "end n ok"}));
}

TEST_F(EngineTest, WorkerServesRequestsFromManyThreadsAndStopsSavingEverything) {
    const std::string feed = feedFile("feed.xml", rss({"a", "b"}));
    for (int i = 0; i < 5; ++i)
        addChannelFile("c" + std::to_string(i), feed, 0);
    auto& m = manager();
    m.start("test-agent");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i)
                m.requestUpdate("c" + std::to_string((t + i) % 5));
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_TRUE(m_recorder.waitFor("end ", 80));
    m.stop();
    for (int i = 0; i < 5; ++i) {
        Feed stored;
        stored.load(m_channelsDir + "/c" + std::to_string(i) + ".rss", "Last Feed");
        EXPECT_EQ(stored.itemCount(), 2u);
    }
}

TEST_F(EngineTest, StopForcesAWorkerStuckOnAServerThatNeverAnswers) {
    Gate arrived, release;
    TestHttpServer server("127.0.0.2");
    server.server().Get("/hang", [&](const httplib::Request&, httplib::Response& res) {
        arrived.open();
        release.wait(std::chrono::seconds(30));
        res.set_content(rss({"late"}), "application/rss+xml");
    });
    ASSERT_TRUE(server.start());
    ChannelManagerOptions options = overHttp();
    options.net.lowSpeedTimeSeconds = 0; // no time limit: only the forced stop ends it
    addChannelFile("hang", server.url("/hang"));
    m_stopWaitMs = 1500;
    const std::string logFile = m_dir.file("pelsu.log");
    ASSERT_TRUE(msglog::CMessageLog::instance().open(logFile));
    auto& m = manager(options);
    m.start("agent");
    ASSERT_TRUE(arrived.wait()) << "the worker is in the fetch";
    const auto before = std::chrono::steady_clock::now();
    m.stop();
    const auto took = std::chrono::steady_clock::now() - before;
    release.open();
    EXPECT_GE(took, std::chrono::milliseconds(1400));
    EXPECT_LT(took, std::chrono::seconds(10));
    auto events = m_recorder.take();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front(), "begin hang");
    EXPECT_TRUE(std::none_of(events.begin(), events.end(), [](const std::string& e) {
        return e.rfind("end ", 0) == 0;
    })) << "nothing after the forced stop reaches a listener";
    // Nor the log: the worker that was given up on leaves no line after the stop's.
    msglog::CMessageLog::instance().close();
    const std::vector<std::string> logged = testing_support::logTexts(logFile);
    const auto killing = std::find_if(logged.begin(), logged.end(), [](const std::string& t) {
        return t.rfind("Couldn't stop the worker thread", 0) == 0;
    });
    ASSERT_NE(killing, logged.end());
    for (auto line = killing; line != logged.end(); ++line)
        EXPECT_TRUE(line->find("EndChannelUpdate") == std::string::npos &&
                    line->find("worker thread ending") == std::string::npos &&
                    line->find("Exception caught") == std::string::npos)
            << *line;
    // The channel was saved by the stop, with the fetch time it had reached.
    profile::clearCache();
    EXPECT_EQ(profile::readIniInt(m_channelsDir + "/hang.rss", "State", "LastFetchTime", 0),
              static_cast<int>(m_now.load()));
}

TEST_F(EngineTest, KillDuringAPassLeavesEveryChannelFileWhole) {
    const std::string feed = feedFile("feed.xml", rss({"a", "b", "c", "d"}));
    for (int i = 0; i < 40; ++i)
        addChannelFile("k" + std::to_string(i), feed, 0);
    for (int round = 0; round < 3; ++round) {
        int progress[2];
        ASSERT_EQ(::pipe(progress), 0);
        pid_t child = ::fork();
        if (child == 0) {
            ::close(progress[0]);
            profile::clearCache();
            ChannelManager m(m_channelsDir, {});
            m.loadChannels();
            for (;;)
                for (Channel* c : m.channels()) {
                    m.updateChannel(*c, true);
                    [[maybe_unused]] const ssize_t sent = ::write(progress[1], "u", 1);
                }
        }
        ::close(progress[1]);
        // Once the child is in its pass, it is killed at another point of it each round.
        char byte;
        EXPECT_EQ(::read(progress[0], &byte, 1), 1);
        ::usleep(static_cast<useconds_t>(round * 3700));
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        ::close(progress[0]);
        profile::clearCache();
        for (int i = 0; i < 40; ++i) {
            const std::string file = m_channelsDir + "/k" + std::to_string(i) + ".rss";
            EXPECT_EQ(profile::fileProblem(file), "");
            EXPECT_EQ(profile::readIniString(file, "Config", "RssChannelUrl"), feed);
            Feed stored;
            stored.load(file, "Last Feed");
            EXPECT_TRUE(stored.itemCount() == 0 || stored.itemCount() == 4) << file;
        }
    }
}

TEST_F(EngineTest, FailedSaveIsReportedAfterTheItemEventsAndTheUpdateStillCounts) {
    const std::string feed = feedFile("feed.xml", rss({"a"}));
    addChannelFile("n", feed);
    auto& m = manager();
    fs::rename(m_channelsDir, m_dir.file("Moved")); // the channel can no longer be written
    m.runUpdatePass();
    auto events = m_recorder.take();
    fs::rename(m_dir.file("Moved"), m_channelsDir);
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[1], "new 0 a");
    EXPECT_EQ(events[2].rfind("error Can't save the channel details. ", 0), 0u) << events[2];
    EXPECT_EQ(events[3], "end n ok");
}

TEST_F(EngineTest, TrickleAndDroppedConnectionsFailOnlyTheirChannel) {
    Gate passDone;
    TestHttpServer server("127.0.0.2");
    // One byte, then nothing until the pass is over: the stall check must end the download.
    server.server().Get("/trickle", [&](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("text/xml", [&](size_t offset, httplib::DataSink& sink) {
            if (offset > 0) {
                passDone.wait();
                return false;
            }
            sink.write("<", 1);
            return true;
        });
    });
    serveRss(server, "/good", {"g"});
    ASSERT_TRUE(server.start());
    // A listener that takes connections and closes them at once.
    TestHttpServer closer("127.0.0.3");
    closer.server().Get("/", [](const httplib::Request&, httplib::Response&) {});
    ASSERT_TRUE(closer.start());
    const int closedPort = closer.port();
    closer.stop(); // nothing listens there any more: the connection is refused
    ChannelManagerOptions options = overHttp();
    options.net.lowSpeedTimeSeconds = 1;
    addChannelFile("a_trickle", server.url("/trickle"));
    addChannelFile("b_closed", "http://127.0.0.3:" + std::to_string(closedPort) + "/feed");
    addChannelFile("c_good", server.url("/good"));
    auto& m = manager(options);
    m.runUpdatePass();
    passDone.open();
    auto events = m_recorder.take();
    ASSERT_EQ(events.size(), 9u);
    EXPECT_EQ(events[1],
              "error Can't update the feed. The download timed out: " + server.url("/trickle"));
    EXPECT_EQ(events[4].rfind("error Can't update the feed. Can't send the HTTP request: ", 0), 0u)
        << events[4];
    EXPECT_EQ(events[7], "new 0 g");
}

// Channels added and deleted while the worker runs, a loopback port move, and the managers'
// locks: no channel lock is ever taken under the manager's own.
TEST_F(EngineTest, ChannelsComeAndGoWhileTheWorkerRunsAndLoopbackPortsMove) {
    const std::string feed = feedFile("feed.xml", rss({"a"}));
    auto& m = manager();
    m.start("agent");
    auto channel = std::make_unique<RssChannel>(&m, "late");
    channel->config().setRssChannelUrl(feed);
    m.addChannel(std::move(channel));
    ASSERT_TRUE(m.requestUpdate("late"));
    EXPECT_TRUE(m_recorder.waitFor("end late", 1));
    m.deleteChannel("late");
    EXPECT_FALSE(fs::exists(m_channelsDir + "/late.rss"));
    EXPECT_EQ(m.findChannel("late"), nullptr);

    auto local = std::make_unique<RssChannel>(&m, "local");
    local->config().setRssChannelUrl("http://127.0.0.1:2605/news/feed");
    auto other = std::make_unique<RssChannel>(&m, "other");
    other->config().setRssChannelUrl("http://127.0.0.1:26050/x");
    auto blocked = std::make_unique<RssChannel>(&m, "blocked");
    blocked->config().setRssChannelUrl("http://127.0.0.1:2605/blocked");
    m.addChannel(std::move(local));
    m.addChannel(std::move(other));
    m.addChannel(std::move(blocked));
    // A channel that can't be saved is reported, and the others still move.
    fs::remove(m_channelsDir + "/blocked.rss");
    fs::create_directory(m_channelsDir + "/blocked.rss");
    m_recorder.take();
    m.changeLoopbackPort(2605, 3000);
    EXPECT_EQ(profile::readIniString(m_channelsDir + "/local.rss", "Config", "RssChannelUrl"),
              "http://127.0.0.1:3000/news/feed");
    const std::vector<std::string> events = m_recorder.take();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].rfind("error Can't save the channel details. ", 0), 0u) << events[0];
    fs::remove(m_channelsDir + "/blocked.rss");
    writeFile(m_channelsDir + "/blocked.rss", "");
    m.deleteChannel("blocked");
    EXPECT_EQ(dynamic_cast<RssChannel*>(m.findChannel("other"))->config().rssChannelUrl(),
              "http://127.0.0.1:26050/x");
    m.stop();
    // Another manager loads what is left and lets it go, taking no lock out of order.
    ChannelManager reader(m_channelsDir, {});
    reader.loadChannels();
    ASSERT_EQ(reader.channels().size(), 2u);
    reader.discardChannels();
    EXPECT_TRUE(reader.channels().empty());
}

// A corrupt file gives one error and the others load; deleting a channel whose file is
// already gone fails and changes nothing.
TEST_F(EngineTest, BrokenOrMissingChannelFilesFailAloneAndChangeNothing) {
    addChannelFile("gone", "/nowhere.xml");
    writeFile(m_channelsDir + "/broken.rss", std::string("\0\x01\x02garbage", 10));
    auto& m = manager();
    auto events = m_recorder.take();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].rfind("error Can't load channel file \"broken.rss\". ", 0), 0u)
        << events[0];
    EXPECT_EQ(m.findChannel("broken"), nullptr);
    const std::string file = m_channelsDir + "/gone.rss";
    fs::remove(file);
    try {
        m.deleteChannel("gone");
        ADD_FAILURE() << "a missing file was taken as deleted";
    } catch (const Exception& e) {
        EXPECT_EQ(std::string(e.what()), "Can't delete the channel config file: " + file);
    }
    ASSERT_NE(m.findChannel("gone"), nullptr);
    EXPECT_FALSE(m.findChannel("gone")->isRemoved());
    EXPECT_TRUE(m.requestUpdate("gone"));
}

TEST_F(EngineTest, LoopbackFeedsReachTheAppPluginServerOnItsCurrentPort) {
    TestHttpServer pluginServer;
    std::mutex mutex;
    std::vector<std::string> targets;
    pluginServer.server().Get(".*", [&](const httplib::Request& req, httplib::Response& res) {
        std::lock_guard guard(mutex);
        targets.push_back(req.target);
        res.set_content(rss({"p"}), "application/rss+xml");
    });
    ASSERT_TRUE(pluginServer.start());
    // Stored under an old port, with the port followed by a query, the end, or a path; the
    // default port rule (port 80) does not apply to the program's own server.
    addChannelFile("query", "http://127.0.0.1:1?feed=1");
    addChannelFile("bare", "http://127.0.0.1:1");
    addChannelFile("path", "http://127.0.0.1:1/news/feed");
    ChannelManagerOptions options;
    options.appPluginServerPort = pluginServer.port();
    auto& m = manager(options);
    m.runUpdatePass();
    for (const std::string& line : m_recorder.take())
        EXPECT_EQ(line.find("error"), std::string::npos) << line;
    std::lock_guard guard(mutex);
    EXPECT_EQ(targets, (std::vector<std::string>{"/", "/news/feed", "/?feed=1"}));
    EXPECT_TRUE(isLoopbackAddressOnPort("http://127.0.0.1:2605?x", 2605));
    EXPECT_TRUE(isLoopbackAddressOnPort("http://127.0.0.1:2605", 2605));
    EXPECT_FALSE(isLoopbackAddressOnPort("http://127.0.0.1:26050", 2605));
    EXPECT_EQ(withLoopbackPort("http://127.0.0.1:2605?a=/b", 3000), "http://127.0.0.1:3000?a=/b");
}

TEST_F(EngineTest, ThePluginServerMovesWhileTheWorkerFetchesItsFeeds) {
    TestHttpServer first, second;
    for (TestHttpServer* server : {&first, &second}) {
        serveRss(*server, "/feed", {"x"});
        ASSERT_TRUE(server->start());
    }
    addChannelFile("local", "http://127.0.0.1:" + std::to_string(first.port()) + "/feed");
    ChannelManagerOptions options;
    options.appPluginServerPort = first.port();
    auto& m = manager(options);
    Channel* channel = m.findChannel("local");
    ASSERT_NE(channel, nullptr);
    std::atomic<bool> done{false};
    std::thread mover([&] {
        for (int i = 0; !done; ++i) {
            if (i % 2 == 0)
                m.changeLoopbackPort(first.port(), second.port());
            else
                m.changeLoopbackPort(second.port(), first.port());
        }
    });
    for (int i = 0; i < 20; ++i)
        m.updateChannel(*channel, true);
    done = true;
    mover.join();
    for (const std::string& line : m_recorder.take())
        EXPECT_EQ(line.find("error"), std::string::npos) << line;
}

TEST_F(EngineTest, AChannelThatAWebPageAddedFollowsNoRedirectToThisComputer) {
    TestHttpServer here;
    std::atomic<int> hits{0};
    here.server().Get("/plugin", [&](const httplib::Request&, httplib::Response& res) {
        ++hits;
        res.set_content(rss({"secret"}), "application/rss+xml");
    });
    ASSERT_TRUE(here.start());
    TestHttpServer elsewhere("127.0.0.2"); // stands in for another computer
    elsewhere.server().Get("/feed", [&](const httplib::Request&, httplib::Response& res) {
        res.set_redirect(here.url("/plugin"));
    });
    ASSERT_TRUE(elsewhere.start());
    tools::setRemoteTestPort(elsewhere.port());
    const std::string web = m_channelsDir + "/web.rss";
    addChannelFile("web", elsewhere.url("/feed"));
    profile::writeIniBool(web, "Config", "SubscribedFromWebPage", true);
    addChannelFile("mine", elsewhere.url("/feed"));
    auto& m = manager(overHttp());
    m.runUpdatePass();
    tools::setRemoteTestPort(0);
    const auto events = m_recorder.take();
    ASSERT_EQ(events.size(), 6u);
    EXPECT_EQ(events[0], "begin mine");
    EXPECT_EQ(events[1], "new 0 secret") << "the user's own channel follows the redirect";
    EXPECT_EQ(events[4], "error Can't update the feed. A channel that a web page added may not "
                         "fetch from this computer (127.0.0.1): " +
                             elsewhere.url("/feed"));
    EXPECT_EQ(hits, 1);
}
