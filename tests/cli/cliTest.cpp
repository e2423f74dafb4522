#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;
namespace fs = std::filesystem;

namespace {

struct CliRun {
    int status = -1;
    std::string out; // standard output and error together
};

// Runs pelsu-cli with the arguments (a shell command line fragment) on the given home.
CliRun cli(const std::string& home, const std::string& arguments, bool mergeErrors = true) {
    const std::string command = (testing_support::binaryDir() / "cli" / "pelsu-cli").string() +
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

std::string feed(const std::string& ids) {
    std::string text = "<rss><channel><title>T " + ids + "</title><link>http://t/</link>";
    for (char id : ids)
        text += std::string("<item><guid>") + id + "</guid><title>Item " + id + "</title></item>";
    return text + "</channel></rss>";
}

// pelsu-cli run in the background on a home, stopped by an interrupt.
class BackgroundRun {
public:
    BackgroundRun(const TempDir& home, const std::string& arguments) : m_home(home) {
        const std::string cliPath = (testing_support::binaryDir() / "cli" / "pelsu-cli").string();
        const std::string start = "'" + cliPath + "' --home '" + home.path().string() + "' run " +
                                  arguments + " > '" + home.file("run.out") +
                                  "' 2>&1 & echo $! > '" + home.file("pid") + "'";
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
    EXPECT_EQ(cli("", "frobnicate").status, 2);
    EXPECT_EQ(cli("", "--bogus").status, 2);
    TempDir home;
    const CliRun noAddress = cli(home.path(), "add");
    EXPECT_EQ(noAddress.status, 2);
    EXPECT_NE(noAddress.out.find("usage: pelsu-cli add"), std::string::npos) << noAddress.out;
    EXPECT_EQ(cli(home.path(), "add x --interval soon").status, 2);
    EXPECT_EQ(cli("", "parse").status, 2);
}

TEST(PelsuCli, ChannelsAreAddedUpdatedShownAndRemoved) {
    TempDir home, feeds;
    writeFile(feeds.file("a.xml"), feed("12"));
    CliRun added = cli(home.path(), "add '" + feeds.file("a.xml") + "' --id mine --interval 60");
    ASSERT_EQ(added.status, 0) << added.out;
    CliRun update = cli(home.path(), "update mine");
    EXPECT_EQ(update.status, 0) << update.out;
    EXPECT_NE(update.out.find("new:     Item 1"), std::string::npos) << update.out;
    writeFile(feeds.file("a.xml"), feed("23"));
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

TEST(PelsuCli, OpmlImportFlattensOutlinesSkipsDuplicatesAndExportsBack) {
    TempDir home;
    writeFile(home.file("list.opml"),
              "<?xml version=\"1.0\"?><opml version=\"1.0\"><body>"
              "<outline text=\"Group\"><outline text=\"One\" xmlUrl=\"http://one.example/rss\"/>"
              "<outline text=\"Deeper\"><outline title=\"Two &amp; more\" "
              "xmlUrl=\"http://two.example/feed.xml\"/>"
              "</outline></outline><outline text=\"One again\" xmlUrl=\"http://one.example/rss\"/>"
              "</body></opml>");
    const CliRun imported = cli(home.path(), "import-opml '" + home.file("list.opml") + "'");
    EXPECT_EQ(imported.status, 0) << imported.out;
    EXPECT_NE(imported.out.find("Imported 2 channel(s); skipped 1 duplicate(s)."),
              std::string::npos)
        << imported.out;
    const CliRun exported = cli(home.path(), "export-opml");
    EXPECT_NE(exported.out.find("title=\"Two &amp; more\" xmlUrl=\"http://two.example/feed.xml\""),
              std::string::npos)
        << exported.out;
    const CliRun again = cli(home.path(), "import-opml '" + home.file("list.opml") + "'");
    EXPECT_NE(again.out.find("Imported 0 channel(s); skipped 3"), std::string::npos) << again.out;
    writeFile(home.file("bad.opml"), "<opml><body>");
    EXPECT_EQ(cli(home.path(), "import-opml '" + home.file("bad.opml") + "'").status, 1);
}

TEST(PelsuCli, OpmlKeepsTextOutsideAsciiAndRefusesWhatIsNotAFeed) {
    TempDir home, other;
    writeFile(home.file("feed.xml"), feed("a"));
    ASSERT_EQ(::mkfifo(home.file("fifo").c_str(), 0600), 0);
    const std::string local = home.file("feed.xml");
    writeFile(home.file("list.opml"),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?><opml version=\"2.0\"><body>"
              "<outline text=\"Caf\xc3\xa9\" xmlUrl=\"http://example.org/caf\xc3\xa9.xml\"/>"
              "<outline text=\"Zero\" xmlUrl=\"/dev/zero\"/>"
              "<outline text=\"Env\" xmlUrl=\"file:///proc/self/environ\"/>"
              "<outline text=\"Fifo\" xmlUrl=\"" +
                  home.file("fifo") +
                  "\"/>"
                  "<outline text=\"Dir\" xmlUrl=\"" +
                  home.path().string() +
                  "\"/>"
                  "<outline text=\"Ftp\" xmlUrl=\"ftp://example.org/rss\"/>"
                  "<outline text=\"Local\" xmlUrl=\"" +
                  local +
                  "\"/>"
                  "</body></opml>");
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

    // Text and addresses come back as they went in, through another home as well.
    const CliRun exported = cli(home.path(), "export-opml '" + home.file("out.opml") + "'");
    ASSERT_EQ(exported.status, 0) << exported.out;
    const std::string first = readFile(home.file("out.opml"));
    EXPECT_NE(first.find("text=\"Caf\xc3\xa9\" title=\"Caf\xc3\xa9\" "
                         "xmlUrl=\"http://example.org/caf\xc3\xa9.xml\""),
              std::string::npos)
        << first;
    ASSERT_EQ(cli(other.path(), "import-opml '" + home.file("out.opml") + "'").status, 0);
    const CliRun again = cli(other.path(), "export-opml");
    EXPECT_NE(again.out.find("text=\"Caf\xc3\xa9\" title=\"Caf\xc3\xa9\" "
                             "xmlUrl=\"http://example.org/caf\xc3\xa9.xml\""),
              std::string::npos)
        << again.out;
}

TEST(PelsuCli, EveryCorpusFeedEndsInAFeedOrAKnownMessage) {
    const fs::path corpus = testing_support::sourceDir() / "../shared/corpus/feeds";
    if (!fs::exists(corpus))
        GTEST_SKIP() << "the feed corpus is not beside the repository";
    const std::set<std::string> known = {"Empty RSS feed.", "Not an RSS feed.",
                                         "The channel returned no items."};
    int files = 0, feeds = 0;
    for (const auto& entry : fs::recursive_directory_iterator(corpus)) {
        if (!entry.is_regular_file() || entry.path().filename() == "MANIFEST.tsv")
            continue;
        ++files;
        const CliRun run =
            cli("", "parse '" + entry.path().string() + "' >/dev/null 2>&1; echo $?", false);
        const int status = std::stoi(run.out);
        ASSERT_TRUE(status == 0 || status == 1) << entry.path() << " ended with " << status;
        if (status == 0) {
            ++feeds;
            continue;
        }
        const CliRun failure =
            cli("", "parse '" + entry.path().string() + "' 2>&1 >/dev/null", false);
        const std::string message = failure.out.substr(0, failure.out.find('\n'));
        EXPECT_TRUE(known.count(message) || message.rfind("XML parse failed (", 0) == 0)
            << entry.path() << ": " << message;
    }
    EXPECT_GT(files, 800);
    EXPECT_GT(feeds, 300);
}

TEST(PelsuCli, RunKeepsTheScheduleAndStopsCleanlyOnAnInterrupt) {
    TempDir home;
    const std::string cliPath = (testing_support::binaryDir() / "cli" / "pelsu-cli").string();
    const std::string start = "'" + cliPath + "' --home '" + home.path().string() + "' run > '" +
                              home.file("run.out") + "' 2>&1 & echo $! > '" + home.file("pid") +
                              "'";
    ASSERT_EQ(std::system(start.c_str()), 0);
    // The default channel was never fetched, so the worker's first pass (after a second)
    // updates it.
    std::string out;
    for (int i = 0; i < 100 && out.find("new:") == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        out = readFile(home.file("run.out"));
    }
    const std::string pid = readFile(home.file("pid"));
    ASSERT_EQ(std::system(("kill -INT " + pid).c_str()), 0);
    for (int i = 0; i < 100 && out.find("Updated ") == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        out = readFile(home.file("run.out"));
    }
    EXPECT_NE(out.find("Updating PelsuNews"), std::string::npos) << out;
    EXPECT_NE(out.find("Stopping..."), std::string::npos) << out;
    EXPECT_NE(out.find("Updated 1 channel(s): 3 new item(s)"), std::string::npos) << out;
    const CliRun list = cli(home.path().string(), "list");
    EXPECT_NE(list.out.find("Pelsu News"), std::string::npos) << list.out;
}

TEST(PelsuCli, RunServesPluginsAndTakesSubscriptionsOnlyWhenAllowed) {
    TempDir home;
    ASSERT_EQ(cli(home.path().string(), "list").status, 0);
    const auto users = fs::directory_iterator(home.file("Users"));
    const std::string config = (users->path() / "config.ini").string();
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
        EXPECT_NE(run.waitFor("Updating example_org_news").find("Updating example_org_news"),
                  std::string::npos);
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

TEST(PelsuCli, PageWritesTheSummaryPageThatStays) {
    TempDir home;
    ASSERT_EQ(cli(home.path().string(), "update PelsuNews").status, 0);
    const CliRun page = cli(home.path().string(), "page PelsuNews");
    ASSERT_EQ(page.status, 0) << page.out;
    const std::string path = page.out.substr(0, page.out.find('\n'));
    EXPECT_NE(readFile(path).find("Working offline"), std::string::npos) << path;
}
