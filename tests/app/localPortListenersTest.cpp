#include "app/localPortListeners.h"

#include "channels/appPluginManager.h"
#include "channels/channelManager.h"
#include "channels/rssChannel.h"
#include "tests/support/testSupport.h"

#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::HasSubstr;
using testing::Not;
using namespace app;
using namespace channels;
using testing_support::httpGet;
using testing_support::RawConnection;
using testing_support::TempDir;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

// Approves or refuses as told and remembers what it was asked.
class TestApprover : public SubscriptionApprover {
public:
    std::string approveSubscription(const std::string& address) override {
        std::lock_guard guard(m_mutex);
        asked.push_back(address);
        return refusal;
    }
    std::mutex m_mutex;
    std::vector<std::string> asked;
    std::string refusal;
};

// Every listener, each on a free port.
LocalPortListenerOptions everyListenerOnAFreePort() {
    LocalPortListenerOptions options;
    options.appServerPort = options.appPluginServerPort = 0;
    options.amphetaDesk = options.radioUserland = options.headlineViewer = true;
    options.amphetaDeskPort = options.radioUserlandPort = options.headlineViewerPort = 0;
    return options;
}

// A channel manager, two plugins and every listener, each on a free port.
class LocalPortListenersTest : public ::testing::Test {
protected:
    LocalPortListenersTest() {
        fs::create_directories(m_dir.file("Channels"));
        fs::create_directories(m_dir.file("plugins"));
        fs::copy_file(PELSU_TEST_PLUGIN_PATH, m_dir.file("plugins/lib.so"));
        writeFile(m_dir.file("plugins/Lib.plugin"), "[Config]\nPlugin=lib.so\n");
        m_plugins.setAppPluginsDir(m_dir.file("plugins"));
        m_plugins.loadAppPlugins();
    }
    ~LocalPortListenersTest() override {
        m_listeners.stop();
        m_channels.discardChannels();
    }
    int port(const char* name) const { return m_listeners.port(name); }
    // The address of every channel, in table order.
    std::vector<std::string> addresses() const {
        std::vector<std::string> result;
        for (Channel* channel : m_channels.channels())
            result.push_back(channel->address());
        return result;
    }

    TempDir m_dir;
    std::atomic<std::time_t> m_now{1'700'000'000};
    ChannelManager m_channels{m_dir.file("Channels"), {}, [this] { return m_now.load(); }};
    AppPluginManager m_plugins;
    TestApprover m_approver;
    LocalPortListeners m_listeners{m_channels, m_plugins, &m_approver};
    LocalPortListenerOptions m_options = everyListenerOnAFreePort();
};

// A GET to the listener on port with extra header lines ("Name: value\r\n" each).
RawConnection::Answer getWithHeaders(int port, const std::string& target,
                                     const std::string& headers) {
    RawConnection connection(port);
    connection.send("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                    "\r\n" + headers + "Connection: close\r\n\r\n");
    return connection.readAnswer();
}

} // namespace

TEST(SubscriptionAddresses, EveryWrittenFormOfThisComputerAndEveryOtherSchemeIsRefused) {
    for (const char* host :
         {"2130706433",  "0x7f000001",         "0177.0.0.1",        "0",
          "0x0",         "[::ffff:127.0.0.1]", "[0:0:0:0:0:0:0:1]", "[::]",
          "localhost.",  "0.0.0.0.",           "[::1%25lo]",        "%6c%6f%63%61%6c%68%6f%73%74",
          "127.1",       "169.254.169.254",    "[fe80::1]",         "[::ffff:7f00:1]",
          "a.localhost", "127.0.0.1",          "user@LOCALHOST",    "[::1]"})
        for (const std::string port : {"", ":2605"}) {
            const std::string address = std::string("http://") + host + port + "/feed";
            EXPECT_NE(subscriptionAddressProblem(address), "") << address;
        }
    for (const char* address :
         {"javascript:alert(1)", "file:///etc/passwd", "http://a.org/with space"})
        EXPECT_NE(subscriptionAddressProblem(address), "") << address;
    for (const char* address : {"http://93.184.216.34/feed", "http://[2001:db8::1]:8080/feed",
                                "http://localhost.example.org/feed", "http://a.org/rss?x=1"})
        EXPECT_EQ(subscriptionAddressProblem(address), "") << address;
}

TEST(SubscriptionAddresses, RawAndEncodedFormsAndFeedSchemes) {
    EXPECT_EQ(subscriptionParameter("url=http://a.org/f?x=1&y=2&go", "url"),
              "http://a.org/f?x=1&y=2");
    EXPECT_EQ(subscriptionParameter("url=http%3A%2F%2Fa.org%2Ff%3Fx%3D1%26y%3D2&go", "url"),
              "http://a.org/f?x=1&y=2");
    EXPECT_EQ(subscriptionParameter("x=1&url=HTTPS://a.org/f", "url"), "HTTPS://a.org/f");
    EXPECT_EQ(subscriptionParameter("add_urls=a,b", "add_url"), std::nullopt);
    EXPECT_EQ(subscriptionParameter("curl=http://a.org/", "url"), std::nullopt);
    EXPECT_EQ(subscriptionParameter("url=", "url"), "");
    EXPECT_EQ(feedAddress("feed://a.org/rss"), "http://a.org/rss");
    EXPECT_EQ(feedAddress(" feed:https://a.org/rss "), "https://a.org/rss");
    EXPECT_EQ(feedAddress("a.org:8080/rss"), "http://a.org:8080/rss");
    EXPECT_EQ(feedAddress("javascript:alert(1)"), "javascript:alert(1)");
}

TEST_F(LocalPortListenersTest, EveryFormOfSubscriptionLinkSubscribes) {
    ASSERT_TRUE(m_listeners.start(m_options).empty());
    const struct {
        const char* listener;
        std::string target;
    } links[] = {
        {"app server", "/subscribe?url=http://one.org/feed.xml?a=1&b=2&go"},
        {"app server", "/subscribe?url=feed%3A%2F%2Ftwo.org%2Frss"},
        {"app server", "/subscribe?url=feed:https://three.org/atom"},
        {"AmphetaDesk listener", "/index.html?add_url=http://four.org/rss"},
        {"AmphetaDesk listener",
         "/anything?add_urls=http%3A%2F%2Ffive.org%2Fa%2Chttp%3A%2F%2Fsix.org%2Fb"},
        {"Radio Userland listener", "/system/pages/subscriptions?url=http://seven.org/r"},
        {"Radio Userland listener", "/system/pages/subscriptions/?url=http://eight.org/r&go"},
        {"Headline Viewer listener", "/add_provider?url=http%3A%2F%2Fnine.org%2Fh"},
    };
    for (const auto& [listener, target] : links) {
        const auto answer = httpGet(port(listener), target);
        EXPECT_EQ(answer.status, 200) << target;
        EXPECT_THAT(answer.body, HasSubstr("Subscribed to"));
    }
    auto subscribed = addresses();
    std::sort(subscribed.begin(), subscribed.end());
    EXPECT_EQ(subscribed,
              (std::vector<std::string>{
                  "http://eight.org/r", "http://five.org/a", "http://four.org/rss",
                  "http://nine.org/h", "http://one.org/feed.xml?a=1&b=2", "http://seven.org/r",
                  "http://six.org/b", "http://two.org/rss", "https://three.org/atom"}));
    for (Channel* channel : m_channels.channels())
        EXPECT_TRUE(fs::exists(channel->fileName())) << channel->id();
    EXPECT_TRUE(m_channels.findChannel("one_org_feed"));
    // The older readers' paths are their own; other paths find nothing.
    EXPECT_EQ(httpGet(port("Radio Userland listener"), "/x?url=http://a.org/").status, 404);
    EXPECT_EQ(httpGet(port("Headline Viewer listener"), "/x?url=http://a.org/").status, 404);
    EXPECT_EQ(httpGet(port("app server"), "/subscribe?feed=http://a.org/").status, 400);
}

TEST_F(LocalPortListenersTest, DuplicatesBadAddressesAndRefusalsSubscribeNothing) {
    ASSERT_TRUE(m_listeners.start(m_options).empty());
    const int app = port("app server");
    ASSERT_EQ(httpGet(app, "/subscribe?url=http://a.org/rss").status, 200);
    auto answer = httpGet(app, "/subscribe?url=feed://a.org/rss");
    EXPECT_EQ(answer.status, 200);
    EXPECT_THAT(answer.body, AllOf(HasSubstr("Already subscribed"), HasSubstr("a_org_rss")));

    answer = httpGet(app, "/subscribe?url=javascript:alert(%22%3Cb%3E%22)");
    EXPECT_EQ(answer.status, 400);
    EXPECT_THAT(answer.body, Not(HasSubstr("<b>"))) << "the address is escaped";
    EXPECT_EQ(httpGet(app, "/subscribe?url=http://127.0.0.1:2605/Lib").status, 400);

    // An address made to climb out of the channels directory still gives a plain ID there.
    EXPECT_EQ(httpGet(app, "/subscribe?url=http://..%2F..%2Fx/..%2F.rss").status, 200);
    for (Channel* channel : m_channels.channels()) {
        EXPECT_EQ(channel->id().find_first_not_of(
                      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-"),
                  std::string::npos)
            << channel->id();
        EXPECT_EQ(fs::path(channel->fileName()).parent_path(), fs::path(m_dir.file("Channels")));
    }

    m_approver.refusal = "The user said <no>.";
    answer = httpGet(app, "/subscribe?url=http://b.org/rss");
    EXPECT_EQ(answer.status, 403);
    EXPECT_THAT(answer.body, HasSubstr("The user said &lt;no&gt;."));
    EXPECT_EQ(m_channels.channels().size(), 2u);
    EXPECT_EQ(m_approver.asked.back(), "http://b.org/rss");
}

TEST_F(LocalPortListenersTest, PluginServerRoutesToThePluginsAndExplainsFailures) {
    ASSERT_TRUE(m_listeners.start(m_options).empty());
    const int server = port("app-plugin server");
    EXPECT_EQ(m_plugins.getAppPluginServerPort(), server) << "scripts learn the real port";
    EXPECT_EQ(m_plugins.getAppServerPort(), port("app server"));
    const std::string base = "http://127.0.0.1:" + std::to_string(server);
    for (const char* target : {"/lib", "/lib/", "/lib?from=menu"}) {
        const auto answer = httpGet(server, target);
        EXPECT_EQ(answer.status, 200) << target;
        EXPECT_EQ(answer.body, "<a href=\"" + base + "/x\">main</a>");
    }
    auto answer = httpGet(server, "/lib/echo?a=1&b=%41");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body.substr(0, answer.body.find('|', 11)), "echo|a=1&b=%41");

    answer = httpGet(server, "/lib/fail");
    EXPECT_EQ(answer.status, 500);
    EXPECT_THAT(answer.body, HasSubstr("the request failed"));
    answer = httpGet(server, "/<script>/x");
    EXPECT_EQ(answer.status, 404);
    EXPECT_THAT(answer.body, AllOf(HasSubstr("&lt;script&gt;"), Not(HasSubstr("<script>"))));
    answer = httpGet(server, "/");
    EXPECT_THAT(answer.body, HasSubstr("href=\"/lib\"")) << "an index of the plugins";
}

TEST_F(LocalPortListenersTest, APortInUseIsReportedAndTheRestRun) {
    const testing_support::LoopbackPort taken(true);
    m_options.appServerPort = taken.port();
    m_options.radioUserland = false;

    const auto problems = m_listeners.start(m_options);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0], "Can't listen on 127.0.0.1:" + std::to_string(m_options.appServerPort) +
                               " (app server): Address already in use");
    EXPECT_EQ(port("app server"), 0);
    EXPECT_EQ(port("Radio Userland listener"), 0) << "switched off";
    EXPECT_EQ(httpGet(port("app-plugin server"), "/lib").status, 200);
    EXPECT_EQ(httpGet(port("Headline Viewer listener"), "/add_provider?url=http://a.org/").status,
              200);
}

namespace {

// The CPU time a process has used, in clock ticks.
long cpuTicks(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    long user = 0, system = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14)
            user = std::stol(field);
        if (i == 15)
            system = std::stol(field);
    }
    return user + system;
}

} // namespace

// Five listeners of 256 connections would need more than the usual 1,024 descriptors: the
// listeners run in a child held to that limit, and this process fills every one of them.
TEST(ListenersUnderADescriptorLimit, FilledListenersStayQuietAndStillAnswer) {
    TempDir dir;
    fs::create_directories(dir.file("Channels"));
    int portsPipe[2], quitPipe[2];
    ASSERT_EQ(::pipe(portsPipe), 0);
    ASSERT_EQ(::pipe(quitPipe), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        rlimit limit{1024, 1024};
        ::setrlimit(RLIMIT_NOFILE, &limit);
        ChannelManager channels(dir.file("Channels"), {});
        AppPluginManager plugins;
        LocalPortListeners listeners(channels, plugins, nullptr);
        listeners.start(everyListenerOnAFreePort());
        int ports[5] = {};
        const char* names[5] = {"app server", "app-plugin server", "AmphetaDesk listener",
                                "Radio Userland listener", "Headline Viewer listener"};
        for (int i = 0; i < 5; ++i)
            ports[i] = listeners.port(names[i]);
        [[maybe_unused]] const ssize_t sent = ::write(portsPipe[1], ports, sizeof ports);
        char quit;
        [[maybe_unused]] const ssize_t got = ::read(quitPipe[0], &quit, 1);
        std::_Exit(0);
    }
    ::close(portsPipe[1]);
    ::close(quitPipe[0]);
    int ports[5] = {};
    const bool started = ::read(portsPipe[0], ports, sizeof ports) == sizeof ports;
    std::vector<std::unique_ptr<testing_support::RawConnection>> held;
    for (int round = 0; started && round < 256; ++round)
        for (int port : ports)
            held.push_back(std::make_unique<testing_support::RawConnection>(port));
    const long cpuBefore = cpuTicks(child);
    const auto answer = httpGet(ports[0], "/subscribe?url=http://example.org/feed");
    EXPECT_FALSE(held.front()->closedByServer(1000)) << "an admitted connection stays";
    const long cpu = cpuTicks(child) - cpuBefore;
    [[maybe_unused]] const ssize_t sent = ::write(quitPipe[1], "q", 1);
    ::waitpid(child, nullptr, 0);
    ::close(portsPipe[0]);
    ::close(quitPipe[1]);
    ASSERT_TRUE(started);
    EXPECT_NE(answer.status, 0) << "the subscription request got no answer";
    EXPECT_LT(cpu, ::sysconf(_SC_CLK_TCK) / 5) << "the listeners spin on accepts that fail";
}

TEST_F(LocalPortListenersTest, RequestsFromPagesOfOtherSitesAreRefused) {
    ASSERT_TRUE(m_listeners.start(m_options).empty());
    const int app = port("app server");
    const int amphetaDesk = port("AmphetaDesk listener");
    const std::string subscribe = "/subscribe?url=http://one.org/rss";
    for (const std::string& header : std::vector<std::string>{
             "Origin: http://evil.example\r\n", "Referer: http://evil.example/page.html\r\n",
             "Origin: null\r\n", "Origin: http://127.0.0.1:" + std::to_string(app + 1) + "\r\n",
             "Referer: http://127.0.0.1:" + std::to_string(app) + ".evil.example/\r\n"}) {
        const auto answer = getWithHeaders(app, subscribe, header);
        EXPECT_EQ(answer.status, 403) << header;
        EXPECT_THAT(answer.body, HasSubstr("another site"));
    }
    EXPECT_EQ(getWithHeaders(amphetaDesk, "/?add_url=http://one.org/rss",
                             "Referer: https://evil.example/\r\n")
                  .status,
              403);
    EXPECT_TRUE(addresses().empty());
    EXPECT_TRUE(m_approver.asked.empty()) << "a refused request never reaches the user";

    // The listener's own pages, and requests that name no page, may subscribe.
    const std::string own = "http://localhost:" + std::to_string(app);
    EXPECT_EQ(
        getWithHeaders(app, subscribe, "Origin: " + own + "\r\nReferer: " + own + "/x\r\n").status,
        200);
    EXPECT_EQ(getWithHeaders(app, "/subscribe?url=http://two.org/rss", "").status, 200);
    EXPECT_EQ(addresses(), (std::vector<std::string>{"http://one.org/rss", "http://two.org/rss"}));
}

TEST_F(LocalPortListenersTest, WebPagesSubscribeToABoundedNumberOfAddressesAMinute) {
    m_options.maxWebSubscriptionsPerMinute = 5;
    ASSERT_TRUE(m_listeners.start(m_options).empty());
    const int amphetaDesk = port("AmphetaDesk listener");
    const auto list = [](int first, int count) {
        std::string text;
        for (int i = first; i < first + count; ++i)
            text += (text.empty() ? "" : "%2C") + std::string("http%3A%2F%2Ffeed") +
                    std::to_string(i) + ".org%2Frss";
        return "/?add_urls=" + text;
    };
    // A list counts by its addresses: four, then two more is past five.
    EXPECT_EQ(httpGet(amphetaDesk, list(1, 4)).status, 200);
    const auto refused = httpGet(amphetaDesk, list(5, 2));
    EXPECT_EQ(refused.status, 429);
    EXPECT_THAT(refused.body, HasSubstr("Too many subscriptions"));
    EXPECT_EQ(httpGet(port("app server"), "/subscribe?url=http://feed5.org/rss").status, 200);
    EXPECT_EQ(httpGet(port("app server"), "/subscribe?url=http://feed6.org/rss").status, 429);
    EXPECT_EQ(addresses().size(), 5u);
    // A minute later there is room again.
    m_now += 59;
    EXPECT_EQ(httpGet(amphetaDesk, list(6, 1)).status, 429);
    m_now += 1;
    EXPECT_EQ(httpGet(amphetaDesk, list(6, 5)).status, 200);
    EXPECT_EQ(addresses().size(), 10u);
}

TEST_F(LocalPortListenersTest, ChannelsThatWebPagesAddAreMarkedAndOthersFilesStayAsTheyWere) {
    const std::string own = m_dir.file("Channels/own.rss");
    writeFile(own,
              "[Config]\nRssChannelUrl=http://own.org/rss\n[Settings]\nAutoUpdateInterval=60\n");
    m_channels.loadChannels();
    ASSERT_TRUE(m_listeners.start(m_options).empty());
    ASSERT_EQ(httpGet(port("app server"), "/subscribe?url=http://one.org/rss").status, 200);
    m_listeners.stop();
    m_channels.stop(); // saves every channel
    const std::string before = testing_support::readFile(own);

    ChannelManager reloaded(m_dir.file("Channels"), {});
    reloaded.loadChannels();
    auto* web = dynamic_cast<RssChannel*>(reloaded.findChannel("one_org_rss"));
    auto* mine = dynamic_cast<RssChannel*>(reloaded.findChannel("own"));
    ASSERT_TRUE(web && mine);
    EXPECT_TRUE(web->config().subscribedFromWebPage());
    EXPECT_FALSE(mine->config().subscribedFromWebPage());
    reloaded.stop();
    EXPECT_EQ(testing_support::readFile(own), before);
    EXPECT_THAT(before, Not(HasSubstr("SubscribedFromWebPage")));
}
