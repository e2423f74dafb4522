#include "lib/log/log.h"
#include "lib/misc/profileFile.h"
#include "tests/support/testSupport.h"

#include <gmock/gmock.h>

#include <atomic>
#include <csignal>
#include <iomanip>
#include <sstream>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

using testing::HasSubstr;
using namespace msglog;
using testing_support::readFile;
using testing_support::runInChild;
using testing_support::TempDir;
using testing_support::writeFile;

namespace {

// 5 Nov 2003 14:07:09 local time.
std::time_t sampleTime() {
    std::tm local{};
    local.tm_year = 103;
    local.tm_mon = 10;
    local.tm_mday = 5;
    local.tm_hour = 14;
    local.tm_min = 7;
    local.tm_sec = 9;
    local.tm_isdst = -1;
    return std::mktime(&local);
}

const LogSwitches kNoPrefix{false, false, false, false, false};

// Opens the log on a fresh file with no line prefix; restores the defaults afterwards.
class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(log().open(m_dir.file("test.log")));
        log().setMaxFileSize(0);
        log().setSwitches(kNoPrefix);
    }
    void TearDown() override {
        log().close();
        log().setSwitches(LogSwitches{});
        CMessageLog::setCurrentSource(nullptr);
    }
    static CMessageLog& log() { return CMessageLog::instance(); }
    std::string contents() const {
        log().flush();
        return readFile(m_dir.file("test.log"));
    }
    TempDir m_dir;
};

} // namespace

TEST_F(LogTest, PrefixFieldsFollowTheirSwitches) {
    const std::time_t when = sampleTime();
    const LogSwitches source{true, false, false, false, false};
    const LogSwitches position{false, false, false, false, true};
    LogSource seven{7}, wide{1234}, negative{-5};
    const struct {
        LogSwitches switches;
        LogSource* source;
        const char* file;
        unsigned line;
        std::string prefix;
    } rows[] = {
        {source, nullptr, "x.cpp", 1, "      "},
        {source, &seven, "x.cpp", 1, "[007] "},
        {source, &wide, "x.cpp", 1, "[1234] "},
        {source, &negative, "x.cpp", 1, "[-05] "},
        {{false, false, true, false, false}, nullptr, "x.cpp", 1, "14:07:09 | "},
        {{false, false, false, true, false}, nullptr, "x.cpp", 1, "05nov03 | "},
        // A long base name widens the field; the line number is not cut.
        {position, nullptr, "/src/channels/ChannelManager.CPP", 1234567,
         "channelmanager.cpp:1234567 | "},
        {position, nullptr, nullptr, 0, "         ???:   ??? | "},
        {position, nullptr, "/src/Makefile", 3, "makefile    :000003 | "},
        {kNoPrefix, nullptr, "x.cpp", 1, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.prefix);
        CMessageLog::setCurrentSource(row.source);
        log().setSwitches(row.switches);
        EXPECT_EQ(log().formatPrefix(row.file, row.line, when), row.prefix);
    }
    CMessageLog::setCurrentSource(nullptr);
    log().setSwitches(LogSwitches{});
    char sequence[16];
    std::snprintf(sequence, sizeof sequence, "%06lu",
                  static_cast<unsigned long>(log().sequenceNumber()));
    EXPECT_EQ(log().formatPrefix("c:\\src\\tools\\net.cpp", 42, when),
              std::string("      ") + sequence + " 05nov03 14:07:09      net.cpp:000042 | ");
}

TEST_F(LogTest, LinesGoToTheFileWithIndentationAndDisabledGroupsAreSilent) {
    MsgGroup& on = registerMsgGroup("LogTestOn");
    MsgGroup& off = registerMsgGroup("LogTestOff");
    off.setEnabled(false);
    PELSU_LOG(on, "Headline " << 42);
    {
        LogIndent indent;
        PELSU_LOG(on, "- ID: abc");
    }
    PELSU_LOG(off, "never");
    log().writeBytes(nullptr, 0, "a\x01\xff\x62", 4); // 0x62 is b
    {
        // The stream buffer adapter writes one line per line break, and the rest at the end.
        CMessageLogStreamBuf buffer(nullptr, __FILE__, __LINE__);
        std::ostream out(&buffer);
        out << "first " << 1 << "\nsecond";
    }
    EXPECT_EQ(contents(), "Headline 42\n  - ID: abc\na<01><ff>b\nfirst 1\nsecond\n");
}

namespace {

// A value whose insertion into a line logs a line of its own.
struct Chatty {
    MsgGroup* group;
};

std::ostream& operator<<(std::ostream& out, const Chatty& chatty) {
    PELSU_LOG(*chatty.group, "inner " << std::hex << 255);
    return out << "chatty";
}

} // namespace

TEST_F(LogTest, EachLineStartsAsAFreshStreamEvenWhenLinesNest) {
    MsgGroup& on = registerMsgGroup("LogTestNested");
    PELSU_LOG(on, "hex " << std::hex << std::setw(4) << std::setfill('.') << 255);
    PELSU_LOG(on, "outer " << Chatty{&on} << ' ' << 255 << ' ' << 1.0 / 3);
    PELSU_LOG(on, "after " << 255);
    EXPECT_EQ(contents(), "hex ..ff\ninner ff\nouter chatty 255 0.333333\nafter 255\n");
}

TEST_F(LogTest, GroupsAreSwitchedFromTheDebugFileWhileRunning) {
    MsgGroup& group = registerMsgGroup("LogTestSwitched");
    const std::string debugIni = m_dir.file("debug.ini");
    writeFile(debugIni, "[MessageGroups]\nLogTestSwitched=0\n");
    watchMsgGroupSettings({debugIni});
    PELSU_LOG(group, "hidden");
    writeFile(debugIni, "[MessageGroups]\n*=0\nlogtestswitched=1\n");
    pollMsgGroupSettings();
    PELSU_LOG(group, "shown");
    // Values read as other integer settings: "00" is off, an empty one leaves the default.
    writeFile(debugIni, "[MessageGroups]\nlogtestswitched=00\n");
    pollMsgGroupSettings();
    EXPECT_FALSE(group.isEnabled());
    writeFile(debugIni, "[MessageGroups]\nlogtestswitched=\n");
    pollMsgGroupSettings();
    EXPECT_TRUE(group.isEnabled());
    EXPECT_FALSE(findMsgGroup("LogTestOn") && findMsgGroup("LogTestOn")->isEnabled());

    // Nobody polls now: the watching thread notices the change by itself.
    writeFile(debugIni, "[MessageGroups]\nLogTestSwitched=0\n");
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (group.isEnabled() && std::chrono::steady_clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    PELSU_LOG(group, "hidden again");
    EXPECT_EQ(contents(), "shown\n");
    watchMsgGroupSettings({});
    applyMsgGroupSettings({});
}

TEST_F(LogTest, BlocksFromSeveralThreadsStayTogether) {
    MsgGroup& group = registerMsgGroup("LogTestThreads");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                LogBlock block;
                PELSU_LOG(group, "head " << t);
                PELSU_LOG(group, "- detail " << t);
            }
        });
    for (auto& thread : threads)
        thread.join();
    std::istringstream lines(contents());
    std::string head, detail;
    int blocks = 0;
    while (std::getline(lines, head) && std::getline(lines, detail)) {
        EXPECT_EQ("- detail " + head.substr(5), detail);
        ++blocks;
    }
    EXPECT_EQ(blocks, 200);
}

TEST_F(LogTest, FileRollsOverToOneOldFileAtItsSizeLimit) {
    log().setMaxFileSize(1000);
    for (int i = 0; i < 300; ++i)
        log().writeLine(nullptr, 0, "line number " + std::to_string(i));
    EXPECT_LE(contents().size(), 1000u);
    EXPECT_LE(readFile(m_dir.file("test.log.old")).size(), 1000u);
    EXPECT_THAT(contents(), HasSubstr("line number 299\n"));
}

// Many threads call into a group that is off while the log's lock is held elsewhere and
// another thread keeps switching groups: the calls never wait for the lock, and the lines of
// a group switched back and forth come out whole.
TEST_F(LogTest, CallsInGroupsThatAreOffNeitherWaitNorRace) {
    MsgGroup& quiet = registerMsgGroup("LogTestQuiet");
    MsgGroup& flipped = registerMsgGroup("LogTestFlipped");
    quiet.setEnabled(false); // and the switcher's settings keep it off
    const std::string debugIni = m_dir.file("debug.ini");
    std::atomic<bool> stopSwitching{false};
    std::thread switcher([&] {
        for (int round = 0; !stopSwitching; ++round) {
            writeFile(debugIni, "[MessageGroups]\nLogTestQuiet=0\nLogTestFlipped=" +
                                    std::to_string(round % 2) + "\n");
            applyMsgGroupSettings({debugIni});
            setMsgGroupEnabled("LogTestFlipped", round % 3 == 0);
        }
    });
    auto runLoggers = [](auto&& body) {
        std::vector<std::thread> loggers;
        for (int t = 0; t < 4; ++t)
            loggers.emplace_back(body, t);
        return loggers;
    };
    std::atomic<int> finished{0};
    std::vector<std::thread> loggers;
    {
        LogBlock held;
        loggers = runLoggers([&](int) {
            for (int i = 0; i < 20000; ++i)
                PELSU_LOG(quiet, "never " << i);
            ++finished;
        });
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (finished < 4 && std::chrono::steady_clock::now() < limit)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(finished.load(), 4) << "a call in a group that is off waited for the lock";
    }
    for (auto& logger : loggers)
        logger.join();
    loggers = runLoggers([&](int t) {
        for (int i = 0; i < 2000; ++i)
            PELSU_LOG(flipped, "flipped " << t << ' ' << i);
    });
    for (auto& logger : loggers)
        logger.join();
    stopSwitching = true;
    switcher.join();
    applyMsgGroupSettings({});
    std::istringstream lines(contents());
    std::string line;
    while (std::getline(lines, line))
        ASSERT_TRUE(line.rfind("flipped ", 0) == 0 && line.size() >= 11) << line;
}

namespace {

// A forked child that is killed when the test ends, whatever happened.
struct ChildGuard {
    pid_t pid;
    ~ChildGuard() {
        if (pid > 0 && ::kill(pid, SIGKILL) == 0)
            ::waitpid(pid, nullptr, 0);
    }
};

} // namespace

// The child writes a batch of lines, tells the parent, and goes on writing a line every 50 ms,
// so that the log is never quiet long enough to flush for that reason; the whole log stays
// far below the size at which stdio writes by itself.
TEST(LogFile, LinesWrittenASecondBeforeAKillAreInTheFile) {
    TempDir dir;
    const std::string path = dir.file("killed.log");
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    ChildGuard child{::fork()};
    if (child.pid == 0) {
        ::close(ready[0]);
        MsgGroup& group = registerMsgGroup("LogTestKilled");
        CMessageLog::instance().setSwitches(kNoPrefix);
        CMessageLog::instance().open(path);
        for (int i = 0; i < 20; ++i)
            PELSU_LOG(group, "batch line " << i);
        if (::write(ready[1], "x", 1) != 1)
            std::_Exit(2);
        for (;;) {
            PELSU_LOG(group, "filler");
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    ::close(ready[1]);
    char written = 0;
    ASSERT_EQ(::read(ready[0], &written, 1), 1);
    ::close(ready[0]);
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    ASSERT_EQ(::kill(child.pid, SIGKILL), 0);
    int status = 0;
    ::waitpid(child.pid, &status, 0);
    child.pid = 0;
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    const std::string text = readFile(path);
    for (int i = 0; i < 20; ++i)
        EXPECT_THAT(text, HasSubstr("batch line " + std::to_string(i) + "\n")) << i;
}

TEST(LogFile, LinesWrittenJustBeforeTheProcessEndsAreInTheFile) {
    TempDir dir;
    const std::string path = dir.file("ended.log");
    auto result = runInChild([&] {
        MsgGroup& group = registerMsgGroup("LogTestEnded");
        CMessageLog::instance().open(path);
        PELSU_LOG(group, "last words");
        std::exit(0);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(readFile(path), HasSubstr("last words\n"));
}

TEST(ProgramAbort, ReportsOnceToStandardErrorAndTheLogAndExitsWithOne) {
    TempDir dir;
    const std::string logPath = dir.file("abort.log");
    auto result = runInChild([&] {
        CMessageLog::instance().open(logPath);
        setReportHandler([](const std::string& title, const std::string&) {
            std::fprintf(stderr, "[dialog %s]\n", title.c_str());
            programAbort("second", nullptr, nullptr, 0); // returns at once, on any thread
            std::thread([] { programAbort("third", nullptr, nullptr, 0); }).join();
        });
        programAbort("first failure", "doWork", "/src/x.cpp", 12);
        std::fprintf(stderr, "still running\n");
    });
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errorOutput, "PROGRAM ABORT: first failure\n"
                                  "- FUNCTION: doWork()\n"
                                  "- FILE:     /src/x.cpp (line 12)\n"
                                  "[dialog PROGRAM ABORT]\n");
    EXPECT_THAT(readFile(logPath), HasSubstr("PROGRAM ABORT: first failure\n"));
    EXPECT_EQ(formatAbortReport("m", nullptr, nullptr, 3),
              "PROGRAM ABORT: m\n- FILE:     <unknown> (line 3)\n");
}

TEST(ProgramAbort, AssertionFailureReportsAndReturns) {
    auto result = runInChild([] {
        int value = 1;
        PELSU_ASSERT(value == 2, "value must be two");
        std::fprintf(stderr, "went on\n");
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.errorOutput, HasSubstr("ASSERTION FAILURE: value must be two\n"
                                              "- EXPRESSION: value == 2\n"
                                              "- FUNCTION:   operator()()\n"));
    EXPECT_THAT(result.errorOutput, HasSubstr("went on\n"));
}
