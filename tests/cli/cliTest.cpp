#include "tests/cli/cliProcess.h"
#include "tests/support/testHttpServer.h"

#include <gmock/gmock.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

using namespace cli_testing;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing_support::readFile;
using testing_support::rssFeed;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

struct CliRun {
    int status = -1;
    std::string out; // standard output and error together
};

// Runs pelsu-cli through the shell with the arguments (a command line fragment) on the given
// home, after the prefix (a command that runs pelsu-cli, such as setpriv).
CliRun cli(const std::string& home, const std::string& arguments, const std::string& prefix = "") {
    const std::string command = prefix + testing_support::pelsuCli() +
                                (home.empty() ? "" : " --home '" + home + "'") + " " + arguments +
                                " 2>&1";
    CliRun run;
    FILE* pipe = ::popen(command.c_str(), "r");
    std::array<char, 4096> buffer;
    size_t count;
    while ((count = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        run.out.append(buffer.data(), count);
    const int status = ::pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

} // namespace

TEST(PelsuCli, MistakesInTheCommandLineExitWithTwo) {
    EXPECT_EQ(cli("", "").status, 0);
    TempDir home;
    const struct {
        std::string arguments, says;
    } mistakes[] = {
        {"frobnicate", ""},
        {"--bogus", ""},
        {"--home '" + home.path().string() + "' add", "usage: pelsu-cli add"},
        {"--home '" + home.path().string() + "' add x --interval soon", ""},
        {"parse", ""},
        {"--home '' list", ""},
        {"parse x.xml --max-items 99999999999", "--max-items needs a whole number"},
    };
    for (const auto& [arguments, says] : mistakes) {
        const CliRun run = cli("", arguments);
        EXPECT_EQ(run.status, 2) << arguments;
        EXPECT_THAT(run.out, HasSubstr(says)) << arguments << ": " << run.out;
    }
}

TEST(PelsuCli, ChannelsAreAddedUpdatedShownAndRemoved) {
    TempDir home, feeds;
    writeFile(feeds.file("a.xml"), rssFeed("12"));
    CliRun added = cli(home.path(), "add '" + feeds.file("a.xml") + "' --id mine --interval 60");
    ASSERT_EQ(added.status, 0) << added.out;
    CliRun update = cli(home.path(), "update mine");
    EXPECT_EQ(update.status, 0) << update.out;
    EXPECT_THAT(update.out, HasSubstr("new:     Item 1"));
    writeFile(feeds.file("a.xml"), rssFeed("23"));
    update = cli(home.path(), "update mine");
    EXPECT_THAT(update.out, AllOf(HasSubstr("expired: Item 1"), HasSubstr("new:     Item 3")));
    const CliRun list = cli(home.path(), "list");
    EXPECT_THAT(list.out, AllOf(HasSubstr("mine"), HasSubstr("T 23")));
    EXPECT_THAT(list.out, HasSubstr("PelsuNews")) << "the default channel";
    const CliRun show = cli(home.path(), "show mine");
    EXPECT_THAT(show.out, HasSubstr("[1] Item 2\n"));
    EXPECT_EQ(cli(home.path(), "show nobody").status, 1);
    // A channel that fails makes the whole update fail, and the others still update.
    ASSERT_EQ(cli(home.path(), "add '" + feeds.file("missing.xml") + "' --id broken").status, 0);
    update = cli(home.path(), "update");
    EXPECT_EQ(update.status, 1) << update.out;
    EXPECT_THAT(update.out, AllOf(HasSubstr("3 channel(s)"), HasSubstr("1 failed")));
    EXPECT_EQ(cli(home.path(), "remove broken").status, 0);
    EXPECT_THAT(cli(home, {"list"}).out, Not(HasSubstr("broken")));
}

namespace {

// What pelsu-cli parse makes of a feed file: "items N", or the first line of its message;
// "exit N" for any other ending.
std::string parseOutcome(const fs::path& file) {
    const CliRun run = cli("", "parse '" + file.string() + "'");
    if (run.status == 1)
        return run.out.substr(0, run.out.find('\n'));
    if (run.status != 0)
        return "exit " + std::to_string(run.status);
    int items = 0;
    for (std::size_t at = 0; (at = run.out.find("\n[Last Feed (", at)) != std::string::npos; ++at)
        ++items;
    return "items " + std::to_string(items);
}

} // namespace

// A sample of real feeds kept with the tests, each with the outcome it is known to have.
TEST(PelsuCli, SampleFeedsParseAsRecorded) {
    const fs::path dir = testing_support::sourceDir() / "tests/data/feeds";
    std::ifstream manifest(dir / "MANIFEST.tsv");
    ASSERT_TRUE(manifest) << dir;
    std::string row;
    std::getline(manifest, row); // the heading
    int files = 0;
    while (std::getline(manifest, row)) {
        const std::string file = row.substr(0, row.find('\t'));
        const std::string expected = row.substr(row.rfind('\t') + 1);
        EXPECT_EQ(parseOutcome(dir / file), expected) << file;
        ++files;
    }
    EXPECT_GE(files, 20);
}

TEST(PelsuCli, OpmlImportFlattensSkipsDuplicatesRefusesWhatIsNotAFeedAndExportsBack) {
    TempDir home, other;
    writeFile(home.file("feed.xml"), rssFeed("a"));
    ASSERT_EQ(::mkfifo(home.file("fifo").c_str(), 0600), 0);
    std::string outlines =
        R"(<outline text="Group"><outline text="One" xmlUrl="http://one.example/rss"/>
<outline text="Deeper"><outline title="Two &amp; more" xmlUrl="http://two.example/feed.xml"/>
</outline></outline><outline text="One again" xmlUrl="http://one.example/rss"/>)"
        "<outline text=\"Caf\xc3\xa9\" xmlUrl=\"http://example.org/caf\xc3\xa9.xml\"/>"
        "<outline text=\"Ftp\" xmlUrl=\"ftp://example.org/rss\"/>";
    for (const std::string& address :
         {std::string("/dev/zero"), std::string("file:///proc/self/environ"), home.file("fifo"),
          home.path().string(), home.file("feed.xml")})
        outlines += "<outline text=\"x\" xmlUrl=\"" + address + "\"/>";
    writeFile(home.file("list.opml"), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                                      "<opml version=\"2.0\"><body>" +
                                          outlines + "</body></opml>");
    const std::string import = "import-opml '" + home.file("list.opml") + "'";
    const CliRun imported = cli(home.path(), import);
    EXPECT_EQ(imported.status, 0) << imported.out;
    EXPECT_THAT(imported.out,
                HasSubstr("Imported 4 channel(s); skipped 1 duplicate(s); refused 5 address(es)."));
    for (const std::string& refused :
         {std::string("refused: /dev/zero: Not a regular file: /dev/zero"),
          std::string("refused: file:///proc/self/environ: Not a regular file: /proc/self/environ"),
          "refused: " + home.file("fifo") + ": Not a regular file: " + home.file("fifo"),
          "refused: " + home.path().string() + ": ",
          std::string("refused: ftp://example.org/rss: ")})
        EXPECT_THAT(imported.out, HasSubstr(refused));
    EXPECT_THAT(cli(home.path(), import).out, HasSubstr("Imported 0 channel(s); skipped 5"));
    writeFile(home.file("bad.opml"), "<opml><body>");
    EXPECT_EQ(cli(home.path(), "import-opml '" + home.file("bad.opml") + "'").status, 1);

    // Text and addresses come back as they went in, through another home as well; a channel
    // never updated is named by its address.
    ASSERT_EQ(cli(home.path(), "add http://never.example/feed.xml --id never").status, 0);
    ASSERT_EQ(cli(home.path(), "export-opml '" + home.file("out.opml") + "'").status, 0);
    const CliRun reimported = cli(other.path(), "import-opml '" + home.file("out.opml") + "'");
    EXPECT_THAT(reimported.out, HasSubstr("Imported 5 channel(s); skipped 1 duplicate(s).\n"));
    const CliRun exported = cli(other.path(), "export-opml");
    for (const char* entry :
         {"title=\"Two &amp; more\" xmlUrl=\"http://two.example/feed.xml\"",
          "text=\"http://never.example/feed.xml\" title=\"http://never.example/feed.xml\"",
          "text=\"Caf\xc3\xa9\" title=\"Caf\xc3\xa9\" "
          "xmlUrl=\"http://example.org/caf\xc3\xa9.xml\""})
        EXPECT_THAT(exported.out, HasSubstr(entry));
    EXPECT_THAT(exported.out, Not(HasSubstr("Unknown")));
}

TEST(PelsuCli, RunKeepsTheScheduleAndStopsCleanlyOnAnInterrupt) {
    TempDir home;
    CliProcess run(home, {"run"});
    // The default channel was never fetched, so the worker's first pass (after a second)
    // updates it.
    EXPECT_TRUE(run.waitFor("new:"));
    run.signal(SIGINT);
    EXPECT_EQ(run.finish(), 0);
    EXPECT_THAT(run.output(),
                AllOf(HasSubstr("PelsuNews (Pelsu News): 3 new, 0 expired"),
                      HasSubstr("Stopping..."), HasSubstr("Updated 1 channel(s): 3 new item(s)")));
    EXPECT_THAT(cli(home, {"list"}).out, HasSubstr("Pelsu News"));
}

TEST(PelsuCli, RunServesPluginsAndTakesSubscriptionsOnlyWhenAllowed) {
    TempDir home;
    const std::string config = (userDir(home) / "config.ini").string();
    int appPort, pluginPort;
    {
        const testing_support::LoopbackPort app, plugin;
        appPort = app.port();
        pluginPort = plugin.port();
    }
    writeFile(config, "[Global Options]\nAppServerPortNo=" + std::to_string(appPort) +
                          "\nAppPluginServerPortNo=" + std::to_string(pluginPort) + "\n");
    const std::string link = "/subscribe?url=feed://example.org/news.xml";
    for (const bool allowed : {false, true}) {
        SCOPED_TRACE(allowed);
        CliProcess run(home, allowed ? std::vector<std::string>{"run", "--allow-subscriptions"}
                                     : std::vector<std::string>{"run"});
        ASSERT_TRUE(run.waitFor("Running with"));
        EXPECT_THAT(run.output(), HasSubstr("The app server listens on http://127.0.0.1:" +
                                            std::to_string(appPort)));
        EXPECT_EQ(testing_support::httpGet(pluginPort, "/Hello").status, 200);
        const auto answer = testing_support::httpGet(appPort, link);
        EXPECT_EQ(answer.status, allowed ? 200 : 403);
        EXPECT_THAT(answer.body, HasSubstr(allowed ? "example_org_news" : "--allow-subscriptions"));
        // Refused, it is logged; taken, the worker takes the new channel's first update at once.
        EXPECT_TRUE(run.waitFor(allowed ? "example_org_news: "
                                        : "Refused a subscription to http://example.org/news.xml"));
        run.signal(SIGINT);
        EXPECT_EQ(run.finish(), 0);
        EXPECT_EQ(cli(home, {"list"}).out.find("http://example.org/news.xml") != std::string::npos,
                  allowed);
    }
}

TEST(PelsuCli, SamplePluginsLoadAndAnswer) {
    TempDir home, folder;
    const CliRun list = cli(home.path(), "plugins");
    EXPECT_EQ(list.status, 0) << list.out;
    for (const char* id : {"FolderFeed ", "Hello ", "Statistics "})
        EXPECT_THAT(list.out, HasSubstr(id));
    const CliRun greet = cli(home.path(), "plugin Hello greet 'who=me'");
    EXPECT_THAT(greet.out, AllOf(HasSubstr("You asked for greet with 'who=me'"),
                                 HasSubstr("href=\"http://127.0.0.1:2605/Hello\"")));
    const CliRun stats = cli(home.path(), "plugin Statistics");
    EXPECT_THAT(stats.out, HasSubstr("<h1>My channels</h1>"));
    EXPECT_EQ(cli(home.path(), "plugin Nobody").status, 1);

    writeFile(folder.file("note <1>.txt"), "x");
    const CliRun added = cli(home.path(), "add --plugin folderFeed/folderFeed.sh --param 'Folder=" +
                                              folder.path().string() + "' --id files");
    ASSERT_EQ(added.status, 0) << added.out;
    const CliRun update = cli(home.path(), "update files");
    EXPECT_EQ(update.status, 0) << update.out;
    EXPECT_THAT(update.out, HasSubstr("new:     note <1>.txt"));
}

TEST(PelsuCli, PluginScriptsInFoldersWithBlanksRunWithinTheOutputLimit) {
    TempDir home, scripts;
    writeFile((userDir(home) / "config.ini").string(), "[Global Options]\nMaxScriptOutputKB=1\n");
    fs::create_directories(scripts.file("my scripts"));
    const std::string script = scripts.file("my scripts/big.sh");
    writeFile(script, "head -c \"$SIZE\" /dev/zero | tr '\\0' x\n");
    ASSERT_EQ(cli(home.path(), "add --plugin '" + script + "' --id big").status, 0);
    // Within the limit the output reaches the parser (and is no feed); past it the run stops.
    const CliRun small = cli(home.path(), "update big", "SIZE=1024 ");
    EXPECT_THAT(small.out, HasSubstr("XML parse failed"));
    const CliRun large = cli(home.path(), "update big", "SIZE=1025 ");
    EXPECT_THAT(large.out, HasSubstr("The script wrote more than 1 KB of output (the limit set by "
                                     "MaxScriptOutputKB)."));
}

TEST(PelsuCli, PageWritesTheSummaryPageThatStays) {
    TempDir home;
    ASSERT_EQ(cli(home.path(), "update PelsuNews").status, 0);
    const CliRun page = cli(home.path(), "page PelsuNews");
    ASSERT_EQ(page.status, 0) << page.out;
    const std::string path = page.out.substr(0, page.out.find('\n'));
    EXPECT_THAT(readFile(path), HasSubstr("Working offline")) << path;
}

// Two channels update at once: the server answers "alpha" only after "beta" asked for its
// feed, so both updates are under way together. Each item line must still stand under the
// line of its own channel.
TEST(PelsuCli, UpdateKeepsEachChannelsLinesUnderItsName) {
    TempDir home;
    writeFile((userDir(home) / "config.ini").string(), "[Global Options]\nHonourUrlPort=1\n");
    testing_support::Gate betaAsked;
    // Not 127.0.0.1: the reader sends that address to its own plugin server.
    testing_support::TestHttpServer server("127.0.0.2");
    server.server().Get("/alpha", [&](const httplib::Request&, httplib::Response& response) {
        betaAsked.wait();
        response.set_content(rssFeed("12", "alpha"), "application/rss+xml");
    });
    server.server().Get("/beta", [&](const httplib::Request&, httplib::Response& response) {
        betaAsked.open();
        response.set_content(rssFeed("345", "beta"), "application/rss+xml");
    });
    ASSERT_TRUE(server.start());
    for (const char* id : {"alpha", "beta"})
        ASSERT_EQ(
            cli(home.path(), "add " + server.url(std::string("/") + id) + " --id " + id).status, 0);
    const CliRun update = cli(home.path(), "update alpha beta");
    EXPECT_EQ(update.status, 0) << update.out;
    std::istringstream lines(update.out);
    std::string line, heading;
    int items = 0;
    while (std::getline(lines, line)) {
        if (line.rfind("  new:     ", 0) != 0) {
            heading = line;
            continue;
        }
        ++items;
        const std::string id = line.substr(11, line.find(' ', 11) - 11);
        EXPECT_THAT(heading, HasSubstr(" " + id + " "))
            << "\"" << line << "\" stands under \"" << heading << "\"\n"
            << update.out;
    }
    EXPECT_EQ(items, 5) << update.out;
    EXPECT_THAT(update.out, HasSubstr("alpha (T 12): 2 new, 0 expired\n"));
}

namespace {

// Root passes every permission check; the program then runs without the capabilities that
// let it, so that a read-only or unreadable directory stops it as it stops any user.
std::string withoutPermissionOverride() {
    return ::geteuid() == 0 ? "setpriv --bounding-set=-dac_override,-dac_read_search " : "";
}

// Gives a directory back its permissions however the test ends.
struct PermissionsBack {
    fs::path path;
    ~PermissionsBack() { fs::permissions(path, fs::perms::owner_all, fs::perm_options::add); }
};

} // namespace

TEST(PelsuCli, ChannelsThatCannotBeSavedOrReadFailTheCommand) {
    if (::geteuid() == 0 && std::system((withoutPermissionOverride() + "true").c_str()) != 0)
        GTEST_SKIP() << "setpriv can't drop the capabilities that override permissions here";
    TempDir home, feeds;
    writeFile(feeds.file("a.xml"), rssFeed("12"));
    ASSERT_EQ(cli(home.path(), "add '" + feeds.file("a.xml") + "' --id mine").status, 0);
    const fs::path channels = userDir(home) / "Channels";
    const std::string before = readFile((channels / "mine.rss").string());
    PermissionsBack restore{channels};

    fs::permissions(channels, fs::perms::owner_write, fs::perm_options::remove);
    const CliRun update = cli(home.path(), "update", withoutPermissionOverride());
    EXPECT_EQ(update.status, 1) << update.out;
    EXPECT_THAT(update.out, AllOf(HasSubstr("Can't save the channel details."),
                                  HasSubstr("2 failed (PelsuNews, mine).")));
    EXPECT_EQ(readFile((channels / "mine.rss").string()), before);

    fs::permissions(channels, fs::perms::owner_write, fs::perm_options::add);
    fs::permissions(channels, fs::perms::owner_read, fs::perm_options::remove);
    for (const char* command : {"list", "update"}) {
        const CliRun run = cli(home.path(), command, withoutPermissionOverride());
        EXPECT_EQ(run.status, 1) << command << ": " << run.out;
        EXPECT_THAT(run.out, HasSubstr("Can't read the channels directory. " + channels.string() +
                                       ": Permission denied"));
    }
}

// The Channels directory becomes a small file system of its own, filled up, in a mount
// namespace of the command's own.
TEST(PelsuCli, UpdateOnAFullDiskFails) {
    if (std::system("unshare -m true 2>/dev/null") != 0)
        GTEST_SKIP() << "no mount namespace can be made here (it needs root)";
    TempDir home, feeds;
    writeFile(feeds.file("a.xml"), rssFeed("12"));
    ASSERT_EQ(cli(home.path(), "add '" + feeds.file("a.xml") + "' --id mine").status, 0);
    const fs::path channels = userDir(home) / "Channels";
    fs::copy(channels, home.file("saved"));
    const std::string fill = "mount -t tmpfs -o size=64k tmpfs '" + channels.string() +
                             "' && cp '" + home.file("saved") + "'/* '" + channels.string() +
                             "' && dd if=/dev/zero of='" + channels.string() +
                             "/filler' bs=4k 2>/dev/null; exec ";
    // The shell's quotes open before pelsu-cli and close after its arguments.
    const CliRun update = cli(home.path(), "update\"", "unshare -m sh -c \"" + fill);
    EXPECT_EQ(update.status, 1) << update.out;
    EXPECT_THAT(update.out, AllOf(HasSubstr("No space left on device"),
                                  HasSubstr("2 failed (PelsuNews, mine).")));
}

TEST(PelsuCli, LoadingRemovesOldUnfinishedSavesAndSaysWhichFileOfAClashItLeaves) {
    TempDir home;
    const fs::path channels = userDir(home) / "Channels";
    writeFile((channels / "mine.rss.tmp-Ab12Cd").string(), "[Config]\n");
    writeFile((channels / "mine.rss.tmp-Xy34Zw").string(), "[Config]\n");
    fs::last_write_time(channels / "mine.rss.tmp-Ab12Cd",
                        fs::file_time_type::clock::now() - std::chrono::minutes(2));
    writeFile((channels / "twin.rss").string(), "[Config]\nRssChannelUrl=http://twin.example/\n");
    writeFile((channels / "twin.plugin").string(), "[Config]\nScriptFilename=/twin.sh\n");

    const CliRun list = cli(home.path(), "list");
    EXPECT_FALSE(fs::exists(channels / "mine.rss.tmp-Ab12Cd")) << "a killed save's leftover";
    EXPECT_TRUE(fs::exists(channels / "mine.rss.tmp-Xy34Zw")) << "may be a save in progress";
    EXPECT_THAT(list.out, HasSubstr("Can't load channel file \"twin.plugin\". The channel twin is "
                                    "already loaded from twin.rss"));
    EXPECT_THAT(list.out, HasSubstr("http://twin.example/"));
    EXPECT_TRUE(fs::exists(channels / "twin.plugin"));
}

TEST(PelsuCli, FeedTextReachesTheTerminalWithoutControlCharacters) {
    TempDir home, feeds;
    writeFile(feeds.file("evil.xml"),
              "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><rss><channel><title>Evil</title>"
              "<item><guid>1</guid><title>Real&#x9b;2J</title>"
              "<link>http://e/&#13;[2] Forged&#10;x</link></item></channel></rss>");
    ASSERT_EQ(cli(home.path(), "add '" + feeds.file("evil.xml") + "' --id evil").status, 0);
    const CliRun update = cli(home.path(), "update evil");
    EXPECT_THAT(update.out, HasSubstr("  new:     Real\\x9b2J\n"));
    const CliRun show = cli(home.path(), "show evil");
    EXPECT_THAT(show.out, AllOf(HasSubstr("[1] Real\\x9b2J\n    http://e/\\x0d[2] Forged\\x0ax\n"),
                                Not(HasSubstr("\r")), Not(HasSubstr("\xc2\x9b"))));
}

TEST(PelsuCli, GlobalOptionsThatCannotBeReadStopWithTheReason) {
    TempDir home;
    const fs::path config = userDir(home) / "config.ini";
    fs::remove(config);
    fs::create_directory(config);
    const CliRun list = cli(home.path(), "list");
    EXPECT_EQ(list.status, 1);
    EXPECT_THAT(list.out, HasSubstr("Couldn't load the global options.\n\nNot a regular file: " +
                                    config.string()));
}
