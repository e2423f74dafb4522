#include "tests/support/testHttpServer.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using testing_support::readFile;
using testing_support::rssFeed;
using testing_support::TempDir;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

struct CliRun {
    int status = -1;
    std::string out; // standard output and error together
};

// Runs pelsu-cli with the arguments (a shell command line fragment) on the given home, after
// the prefix (a command that runs pelsu-cli, such as setpriv).
CliRun cli(const std::string& home, const std::string& arguments, bool mergeErrors = true,
           const std::string& prefix = "") {
    const std::string command = prefix + testing_support::pelsuCli() +
                                (home.empty() ? "" : " --home '" + home + "'") + " " + arguments +
                                (mergeErrors ? " 2>&1" : "");
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

// The user directory of a home, created by a first run.
fs::path userDir(const TempDir& home) {
    if (!fs::exists(home.file("Users"))) {
        EXPECT_EQ(cli(home.path().string(), "list").status, 0);
    }
    return fs::directory_iterator(home.file("Users"))->path();
}

// pelsu-cli run in the background on a home, stopped by an interrupt.
class BackgroundRun {
public:
    BackgroundRun(const TempDir& home, const std::string& arguments) : m_home(home) {
        const std::string start = "'" + testing_support::pelsuCli() + "' --home '" +
                                  home.path().string() + "' run " + arguments + " > '" +
                                  home.file("run.out") + "' 2>&1 & echo $! > '" + home.file("pid") +
                                  "'";
        EXPECT_EQ(std::system(start.c_str()), 0);
    }
    ~BackgroundRun() { stop(); }
    // Waits until the output holds the text (or ten seconds passed); returns the output.
    std::string waitFor(const std::string& text) const {
        std::string out;
        for (int i = 0; i < 100 && out.find(text) == std::string::npos; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            out = readFile(m_home.file("run.out"));
        }
        return out;
    }
    std::string stop() {
        if (!m_stopped)
            std::system(("kill -INT " + readFile(m_home.file("pid"))).c_str());
        m_stopped = true;
        return waitFor("Updated ");
    }

private:
    const TempDir& m_home;
    bool m_stopped = false;
};

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
        EXPECT_NE(run.out.find(says), std::string::npos) << arguments << ": " << run.out;
    }
}

TEST(PelsuCli, ChannelsAreAddedUpdatedShownAndRemoved) {
    TempDir home, feeds;
    writeFile(feeds.file("a.xml"), rssFeed("12"));
    CliRun added = cli(home.path(), "add '" + feeds.file("a.xml") + "' --id mine --interval 60");
    ASSERT_EQ(added.status, 0) << added.out;
    CliRun update = cli(home.path(), "update mine");
    EXPECT_EQ(update.status, 0) << update.out;
    EXPECT_NE(update.out.find("new:     Item 1"), std::string::npos) << update.out;
    writeFile(feeds.file("a.xml"), rssFeed("23"));
    update = cli(home.path(), "update mine");
    EXPECT_NE(update.out.find("expired: Item 1"), std::string::npos) << update.out;
    EXPECT_NE(update.out.find("new:     Item 3"), std::string::npos) << update.out;
    const CliRun list = cli(home.path(), "list");
    EXPECT_NE(list.out.find("mine"), std::string::npos);
    EXPECT_NE(list.out.find("T 23"), std::string::npos) << list.out;
    EXPECT_NE(list.out.find("PelsuNews"), std::string::npos) << "the default channel";
    const CliRun show = cli(home.path(), "show mine");
    EXPECT_NE(show.out.find("[1] Item 2\n"), std::string::npos) << show.out;
    EXPECT_EQ(cli(home.path(), "show nobody").status, 1);
    // A channel that fails makes the whole update fail, and the others still update.
    ASSERT_EQ(cli(home.path(), "add '" + feeds.file("missing.xml") + "' --id broken").status, 0);
    update = cli(home.path(), "update");
    EXPECT_EQ(update.status, 1) << update.out;
    EXPECT_NE(update.out.find("3 channel(s)"), std::string::npos) << update.out;
    EXPECT_NE(update.out.find("1 failed"), std::string::npos) << update.out;
    EXPECT_EQ(cli(home.path(), "remove broken").status, 0);
    EXPECT_EQ(cli(home.path(), "list").out.find("broken"), std::string::npos);
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

TEST(PelsuCli, OpmlImportFlattensOutlinesSkipsDuplicatesAndExportsBack) {
    TempDir home, other;
    writeFile(home.file("list.opml"), R"(<?xml version="1.0"?><opml version="1.0"><body>
<outline text="Group"><outline text="One" xmlUrl="http://one.example/rss"/>
<outline text="Deeper"><outline title="Two &amp; more" xmlUrl="http://two.example/feed.xml"/>
</outline></outline><outline text="One again" xmlUrl="http://one.example/rss"/></body></opml>)");
    const CliRun imported = cli(home.path(), "import-opml '" + home.file("list.opml") + "'");
    EXPECT_EQ(imported.status, 0) << imported.out;
    EXPECT_NE(imported.out.find("Imported 2 channel(s); skipped 1 duplicate(s)."),
              std::string::npos)
        << imported.out;
    const CliRun again = cli(home.path(), "import-opml '" + home.file("list.opml") + "'");
    EXPECT_NE(again.out.find("Imported 0 channel(s); skipped 3"), std::string::npos) << again.out;
    writeFile(home.file("bad.opml"), "<opml><body>");
    EXPECT_EQ(cli(home.path(), "import-opml '" + home.file("bad.opml") + "'").status, 1);

    // Text and addresses come back as they went in, through another home as well; a channel
    // never updated is named by its address.
    ASSERT_EQ(cli(home.path(), "add http://never.example/feed.xml --id never").status, 0);
    ASSERT_EQ(cli(home.path(), "export-opml '" + home.file("out.opml") + "'").status, 0);
    ASSERT_EQ(cli(other.path(), "import-opml '" + home.file("out.opml") + "'").status, 0);
    const CliRun exported = cli(other.path(), "export-opml");
    for (const char* entry :
         {"title=\"Two &amp; more\" xmlUrl=\"http://two.example/feed.xml\"",
          "text=\"http://never.example/feed.xml\" title=\"http://never.example/feed.xml\""})
        EXPECT_NE(exported.out.find(entry), std::string::npos) << entry << "\n" << exported.out;
    EXPECT_EQ(exported.out.find("Unknown"), std::string::npos) << exported.out;
}

TEST(PelsuCli, OpmlKeepsTextOutsideAsciiAndRefusesWhatIsNotAFeed) {
    TempDir home, other;
    writeFile(home.file("feed.xml"), rssFeed("a"));
    ASSERT_EQ(::mkfifo(home.file("fifo").c_str(), 0600), 0);
    std::string outlines =
        "<outline text=\"Caf\xc3\xa9\" xmlUrl=\"http://example.org/caf\xc3\xa9.xml\"/>"
        "<outline text=\"Ftp\" xmlUrl=\"ftp://example.org/rss\"/>";
    for (const std::string& address :
         {std::string("/dev/zero"), std::string("file:///proc/self/environ"), home.file("fifo"),
          home.path().string(), home.file("feed.xml")})
        outlines += "<outline text=\"x\" xmlUrl=\"" + address + "\"/>";
    writeFile(home.file("list.opml"), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                                      "<opml version=\"2.0\"><body>" +
                                          outlines + "</body></opml>");
    const CliRun imported = cli(home.path(), "import-opml '" + home.file("list.opml") + "'");
    EXPECT_EQ(imported.status, 0) << imported.out;
    EXPECT_NE(imported.out.find("Imported 2 channel(s); skipped 0 duplicate(s); refused 5"),
              std::string::npos)
        << imported.out;
    for (const std::string& refused :
         {std::string("refused: /dev/zero: Not a regular file: /dev/zero"),
          std::string("refused: file:///proc/self/environ: Not a regular file: /proc/self/environ"),
          "refused: " + home.file("fifo") + ": Not a regular file: " + home.file("fifo"),
          "refused: " + home.path().string() + ": ",
          std::string("refused: ftp://example.org/rss: ")})
        EXPECT_NE(imported.out.find(refused), std::string::npos) << refused << "\n" << imported.out;

    ASSERT_EQ(cli(home.path(), "export-opml '" + home.file("out.opml") + "'").status, 0);
    ASSERT_EQ(cli(other.path(), "import-opml '" + home.file("out.opml") + "'").status, 0);
    const CliRun again = cli(other.path(), "export-opml");
    EXPECT_NE(again.out.find("text=\"Caf\xc3\xa9\" title=\"Caf\xc3\xa9\" "
                             "xmlUrl=\"http://example.org/caf\xc3\xa9.xml\""),
              std::string::npos)
        << again.out;
}

TEST(PelsuCli, RunKeepsTheScheduleAndStopsCleanlyOnAnInterrupt) {
    TempDir home;
    BackgroundRun run(home, "");
    // The default channel was never fetched, so the worker's first pass (after a second)
    // updates it.
    run.waitFor("new:");
    const std::string out = run.stop();
    EXPECT_NE(out.find("PelsuNews (Pelsu News): 3 new, 0 expired"), std::string::npos) << out;
    EXPECT_NE(out.find("Stopping..."), std::string::npos) << out;
    EXPECT_NE(out.find("Updated 1 channel(s): 3 new item(s)"), std::string::npos) << out;
    const CliRun list = cli(home.path().string(), "list");
    EXPECT_NE(list.out.find("Pelsu News"), std::string::npos) << list.out;
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
    {
        BackgroundRun run(home, "");
        run.waitFor("Running with");
        EXPECT_EQ(testing_support::httpGet(pluginPort, "/Hello").status, 200);
        const auto refused = testing_support::httpGet(appPort, link);
        EXPECT_EQ(refused.status, 403);
        EXPECT_NE(refused.body.find("--allow-subscriptions"), std::string::npos);
        EXPECT_NE(run.stop().find("Refused a subscription to http://example.org/news.xml"),
                  std::string::npos);
    }
    EXPECT_EQ(cli(home.path().string(), "list").out.find("example.org"), std::string::npos);
    {
        BackgroundRun run(home, "--allow-subscriptions");
        const std::string out = run.waitFor("Running with");
        EXPECT_NE(out.find("The app server listens on http://127.0.0.1:" + std::to_string(appPort)),
                  std::string::npos)
            << out;
        const auto accepted = testing_support::httpGet(appPort, link);
        EXPECT_EQ(accepted.status, 200);
        EXPECT_NE(accepted.body.find("example_org_news"), std::string::npos) << accepted.body;
        // The worker takes the new channel's first update at once.
        EXPECT_NE(run.waitFor("example_org_news: ").find("example_org_news: "), std::string::npos);
    }
    EXPECT_NE(cli(home.path().string(), "list").out.find("http://example.org/news.xml"),
              std::string::npos);
}

TEST(PelsuCli, SamplePluginsLoadAndAnswer) {
    TempDir home, folder;
    const CliRun list = cli(home.path().string(), "plugins");
    EXPECT_EQ(list.status, 0) << list.out;
    for (const char* id : {"FolderFeed ", "Hello ", "Statistics "})
        EXPECT_NE(list.out.find(id), std::string::npos) << list.out;
    const CliRun greet = cli(home.path().string(), "plugin Hello greet 'who=me'");
    EXPECT_NE(greet.out.find("You asked for greet with 'who=me'"), std::string::npos) << greet.out;
    EXPECT_NE(greet.out.find("href=\"http://127.0.0.1:2605/Hello\""), std::string::npos);
    const CliRun stats = cli(home.path().string(), "plugin Statistics");
    EXPECT_NE(stats.out.find("<h1>My channels</h1>"), std::string::npos) << stats.out;
    EXPECT_EQ(cli(home.path().string(), "plugin Nobody").status, 1);

    writeFile(folder.file("note <1>.txt"), "x");
    const CliRun added =
        cli(home.path().string(), "add --plugin folderFeed/folderFeed.sh --param 'Folder=" +
                                      folder.path().string() + "' --id files");
    ASSERT_EQ(added.status, 0) << added.out;
    const CliRun update = cli(home.path().string(), "update files");
    EXPECT_EQ(update.status, 0) << update.out;
    EXPECT_NE(update.out.find("new:     note <1>.txt"), std::string::npos) << update.out;
}

TEST(PelsuCli, PluginScriptsInFoldersWithBlanksRunWithinTheOutputLimit) {
    TempDir home, scripts;
    writeFile((userDir(home) / "config.ini").string(), "[Global Options]\nMaxScriptOutputKB=1\n");
    fs::create_directories(scripts.file("my scripts"));
    const std::string script = scripts.file("my scripts/big.sh");
    writeFile(script, "head -c \"$SIZE\" /dev/zero | tr '\\0' x\n");
    ASSERT_EQ(cli(home.path().string(), "add --plugin '" + script + "' --id big").status, 0);
    // Within the limit the output reaches the parser (and is no feed); past it the run stops.
    const CliRun small = cli(home.path().string(), "update big", true, "SIZE=1024 ");
    EXPECT_NE(small.out.find("XML parse failed"), std::string::npos) << small.out;
    const CliRun large = cli(home.path().string(), "update big", true, "SIZE=1025 ");
    EXPECT_NE(large.out.find("The script wrote more than 1 KB of output (the limit set by "
                             "MaxScriptOutputKB)."),
              std::string::npos)
        << large.out;
}

TEST(PelsuCli, PageWritesTheSummaryPageThatStays) {
    TempDir home;
    ASSERT_EQ(cli(home.path().string(), "update PelsuNews").status, 0);
    const CliRun page = cli(home.path().string(), "page PelsuNews");
    ASSERT_EQ(page.status, 0) << page.out;
    const std::string path = page.out.substr(0, page.out.find('\n'));
    EXPECT_NE(readFile(path).find("Working offline"), std::string::npos) << path;
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
        EXPECT_NE(heading.find(" " + id + " "), std::string::npos)
            << "\"" << line << "\" stands under \"" << heading << "\"\n"
            << update.out;
    }
    EXPECT_EQ(items, 5) << update.out;
    EXPECT_NE(update.out.find("alpha (T 12): 2 new, 0 expired\n"), std::string::npos) << update.out;
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
    const CliRun update = cli(home.path(), "update", true, withoutPermissionOverride());
    EXPECT_EQ(update.status, 1) << update.out;
    EXPECT_NE(update.out.find("Can't save the channel details."), std::string::npos) << update.out;
    EXPECT_NE(update.out.find("2 failed (PelsuNews, mine)."), std::string::npos) << update.out;
    EXPECT_EQ(readFile((channels / "mine.rss").string()), before);

    fs::permissions(channels, fs::perms::owner_write, fs::perm_options::add);
    fs::permissions(channels, fs::perms::owner_read, fs::perm_options::remove);
    for (const char* command : {"list", "update"}) {
        const CliRun run = cli(home.path(), command, true, withoutPermissionOverride());
        EXPECT_EQ(run.status, 1) << command << ": " << run.out;
        EXPECT_NE(run.out.find("Can't read the channels directory. " + channels.string() +
                               ": Permission denied"),
                  std::string::npos)
            << run.out;
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
    const CliRun update = cli(home.path(), "update\"", true, "unshare -m sh -c \"" + fill);
    EXPECT_EQ(update.status, 1) << update.out;
    EXPECT_NE(update.out.find("No space left on device"), std::string::npos) << update.out;
    EXPECT_NE(update.out.find("2 failed (PelsuNews, mine)."), std::string::npos) << update.out;
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
    EXPECT_NE(list.out.find("Can't load channel file \"twin.plugin\". The channel twin is "
                            "already loaded from twin.rss"),
              std::string::npos)
        << list.out;
    EXPECT_NE(list.out.find("http://twin.example/"), std::string::npos) << list.out;
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
    EXPECT_NE(update.out.find("  new:     Real\\x9b2J\n"), std::string::npos) << update.out;
    const CliRun show = cli(home.path(), "show evil");
    EXPECT_NE(show.out.find("[1] Real\\x9b2J\n    http://e/\\x0d[2] Forged\\x0ax\n"),
              std::string::npos)
        << show.out;
    EXPECT_EQ(show.out.find('\r'), std::string::npos);
    EXPECT_EQ(show.out.find("\xc2\x9b"), std::string::npos);
}

TEST(PelsuCli, GlobalOptionsThatCannotBeReadStopWithTheReason) {
    TempDir home;
    const fs::path config = userDir(home) / "config.ini";
    fs::remove(config);
    fs::create_directory(config);
    const CliRun list = cli(home.path(), "list");
    EXPECT_EQ(list.status, 1);
    EXPECT_NE(list.out.find("Couldn't load the global options.\n\nNot a regular file: " +
                            config.string()),
              std::string::npos)
        << list.out;
}
