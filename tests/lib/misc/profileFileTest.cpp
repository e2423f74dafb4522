#include "lib/misc/profileFile.h"
#include "lib/misc/iniValues.h"
#include "tests/support/testSupport.h"

#include <gmock/gmock.h>

#include <csignal>
#include <set>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using testing::HasSubstr;
using namespace profile;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;

namespace {

ino_t inodeOf(const std::string& path) {
    struct stat info {};
    ::stat(path.c_str(), &info);
    return info.st_ino;
}

} // namespace

TEST(ProfileFile, HandEditedFileFollowsThePlatformRules) {
    TempDir dir;
    const std::string path = dir.file("edited.ini");
    writeFile(path, "; a comment\r\n"
                    "  [ Config ]  \r\n"
                    "  Name  =  My Channel  \r\n"
                    "Quoted=\"kept\"\r\n"
                    "name=second occurrence\r\n"
                    "Flag\r\n"
                    "Empty=\r\n"
                    "Url=http://a/b?c=d\r\n"
                    "[config]\n"
                    "Hidden=in a duplicate section\n"
                    "[Other]\n"
                    "Name=other\n");
    EXPECT_EQ(readValue(path, "CONFIG", "NAME"), "My Channel");
    EXPECT_EQ(readValue(path, "Config", "Quoted"), "\"kept\"");
    EXPECT_EQ(readValue(path, "Config", "Url"), "http://a/b?c=d");
    EXPECT_EQ(readValue(path, "Config", "Flag"), "");
    EXPECT_EQ(readValue(path, "Config", "Hidden"), std::nullopt);
    EXPECT_EQ(readValue(path, "Other", "Name"), "other");
    EXPECT_EQ(readValue(path, "Missing", "Name"), std::nullopt);
    EXPECT_EQ(listKeys(path, "config"),
              (std::vector<std::string>{"Name", "Quoted", "Flag", "Empty", "Url"}));
    EXPECT_EQ(listSections(path), (std::vector<std::string>{"Config", "Other"}));
    EXPECT_EQ(readIniInt(path, "Config", "Empty", 7), 7);
}

TEST(ProfileFile, WritesKeepCommentsAndUntouchedLinesAndDeletionsTakeEveryOccurrence) {
    TempDir dir;
    const std::string path = dir.file("keep.ini");
    writeFile(path, "; top comment\n[A]\n  x = 1 ; not a comment\n\n[B]\ny=2\n");
    ASSERT_TRUE(writeValue(path, "a", "z", "3"));
    ASSERT_TRUE(writeValue(path, "B", "Y", "4"));
    ASSERT_TRUE(writeValue(path, "C", "w", "5"));
    EXPECT_EQ(readFile(path),
              "; top comment\n[A]\n  x = 1 ; not a comment\nz=3\n\n[B]\ny=4\n[C]\nw=5\n");
    writeFile(path, "[S]\na=1\n[T]\nb=2\n[s]\nc=3\n");
    ASSERT_TRUE(deleteSection(path, "S"));
    EXPECT_EQ(readFile(path), "[T]\nb=2\n");
    ASSERT_TRUE(deleteKey(path, "T", "B"));
    EXPECT_TRUE(listKeys(path, "T").empty());
}

TEST(ProfileFile, AnotherProcessChangeIsSeenAtTheNextRead) {
    TempDir dir;
    const std::string path = dir.file("shared.ini");
    ASSERT_TRUE(writeValue(path, "S", "k", "ours"));
    EXPECT_EQ(readValue(path, "S", "k"), "ours");
    auto child = testing_support::runInChild([&] {
        clearCache();
        writeValue(path, "S", "k", "theirs");
    });
    ASSERT_EQ(child.status, 0);
    EXPECT_EQ(readValue(path, "S", "k"), "theirs");
    // Even a same-size edit made by hand within the same second.
    writeFile(path, "[S]\nk=THEIRS\n");
    EXPECT_EQ(readValue(path, "S", "k"), "THEIRS");
}

TEST(ProfileFile, FailedWritesGiveAReasonAndBinaryOrUnreadableFilesAreProblems) {
    TempDir dir;
    const std::string path = dir.file("no/such/dir.ini");
    EXPECT_FALSE(writeValue(path, "S", "k", "v"));
    EXPECT_THAT(lastWriteError(), HasSubstr(path));
    EXPECT_FALSE(writeValue(dir.file("x.ini"), "S", "k", "two\nlines"));
    EXPECT_EQ(fileProblem(dir.file("missing.ini")), "");
    writeFile(dir.file("good.ini"), "[S]\nk=v\n");
    EXPECT_EQ(fileProblem(dir.file("good.ini")), "");
    writeFile(dir.file("binary.ini"), std::string("[S]\nk=\0\x01\x02", 9));
    EXPECT_THAT(fileProblem(dir.file("binary.ini")), HasSubstr("NUL"));
    std::filesystem::create_directory(dir.file("dir.ini"));
    EXPECT_NE(fileProblem(dir.file("dir.ini")), "");
}

TEST(ProfileFile, BatchWritesTheFileOnceAndSeesItsOwnWrites) {
    TempDir dir;
    const std::string path = dir.file("batch.ini");
    ASSERT_TRUE(writeValue(path, "S", "before", "1"));
    const ino_t before = inodeOf(path);
    {
        WriteBatch batch(path);
        for (int i = 0; i < 50; ++i)
            writeIniInt(path, "Items", "k" + std::to_string(i), i);
        deleteSection(path, "S");
        EXPECT_EQ(readIniInt(path, "Items", "k49", -1), 49);
        EXPECT_EQ(inodeOf(path), before) << "nothing is written before the commit";
        std::thread other([&] { EXPECT_EQ(readIniInt(path, "Items", "k49", -1), -1); });
        other.join();
        ASSERT_TRUE(batch.commit());
    }
    EXPECT_NE(inodeOf(path), before);
    EXPECT_EQ(readIniInt(path, "Items", "k0", -1), 0);
    EXPECT_FALSE(readValue(path, "S", "before").has_value());
}

TEST(ProfileFile, BatchMergesItsDeletionsAndChangesIntoAFileChangedMeanwhile) {
    TempDir dir;
    const std::string path = dir.file("merge3.ini");
    writeFile(path, "[Keep]\nx=1\ny=2\n[Gone]\nz=3\n");
    WriteBatch batch(path);
    writeValue(path, "Keep", "x", "10");
    deleteKey(path, "Keep", "y");
    deleteSection(path, "Gone");
    writeValue(path, "New", "n", "4");
    std::thread other([&] {
        EXPECT_TRUE(writeValue(path, "Keep", "theirs", "5"));
        EXPECT_TRUE(writeValue(path, "Keep", "y", "2")); // unchanged by them: still deleted
        EXPECT_TRUE(writeValue(path, "Theirs", "b", "2"));
    });
    other.join();
    ASSERT_TRUE(batch.commit());
    clearCache();
    EXPECT_EQ(readFile(path), "[Keep]\nx=10\ntheirs=5\n[Theirs]\nb=2\n[New]\nn=4\n");
}

// A batch takes over the cached copy of a file read as it is, instead of copying it: other
// threads then still read the file as it was, and a change made on disk meanwhile is merged.
TEST(ProfileFile, BatchThatTookOverTheCachedCopyLeavesOthersTheFileAsItWas) {
    TempDir dir;
    const std::string path = dir.file("taken.ini");
    writeFile(path, "[Keep]\nx=1\n[Gone]\nz=3\n");
    clearCache();
    EXPECT_EQ(readValue(path, "Keep", "x"), "1");
    {
        WriteBatch batch(path);
        writeValue(path, "Keep", "x", "10");
        deleteSection(path, "Gone");
        Snapshot before;
        std::thread other([&] {
            EXPECT_EQ(readValue(path, "Keep", "x"), "1");
            EXPECT_EQ(readValue(path, "Gone", "z"), "3");
            before = snapshot(path);
        });
        other.join();
        ASSERT_TRUE(batch.commit());
        EXPECT_EQ(readFile(path), "[Keep]\nx=10\n");
        ReadFromSnapshot asBefore(path, before);
        EXPECT_EQ(readValue(path, "Gone", "z"), "3") << "a snapshot keeps the text it was given";
    }
    {
        WriteBatch batch(path);
        writeValue(path, "Keep", "x", "11");
        writeFile(path, "[Keep]\nx=10\nhand=edited\n"); // another program, meanwhile
        ASSERT_TRUE(batch.commit());
    }
    EXPECT_EQ(readFile(path), "[Keep]\nx=11\nhand=edited\n");
}

TEST(ProfileFile, ManyThreadsWritingDifferentKeysLoseNothing) {
    TempDir dir;
    const std::string path = dir.file("threads.ini");
    constexpr int kThreads = 8;
    constexpr int kKeys = 40;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int k = 0; k < kKeys; ++k) {
                const std::string section = "T" + std::to_string(t % 3);
                EXPECT_TRUE(writeIniInt(path, section,
                                        "k" + std::to_string(t) + "_" + std::to_string(k),
                                        t * 1000 + k));
                readIniInt(path, section, "k0_0", 0);
            }
        });
    for (auto& thread : threads)
        thread.join();
    clearCache();
    for (int t = 0; t < kThreads; ++t)
        for (int k = 0; k < kKeys; ++k)
            EXPECT_EQ(readIniInt(path, "T" + std::to_string(t % 3),
                                 "k" + std::to_string(t) + "_" + std::to_string(k), -1),
                      t * 1000 + k);
}

TEST(ProfileFile, ProcessKilledWhileSavingLeavesAWholeFile) {
    TempDir dir;
    const std::string path = dir.file("channel.rss");
    const std::string filler(2000, 'x');
    // Each generation writes 200 keys holding its own number; a whole file has one number.
    auto saveGeneration = [&](int generation) {
        WriteBatch batch(path);
        for (int k = 0; k < 200; ++k)
            writeValue(path, "S" + std::to_string(k % 10), "k" + std::to_string(k),
                       std::to_string(generation) + filler);
        batch.commit();
    };
    saveGeneration(0);
    for (int round = 0; round < 6; ++round) {
        int progress[2];
        ASSERT_EQ(::pipe(progress), 0);
        pid_t child = ::fork();
        if (child == 0) {
            ::close(progress[0]);
            clearCache();
            for (int generation = 1;; ++generation) {
                saveGeneration(generation);
                [[maybe_unused]] const ssize_t sent = ::write(progress[1], "g", 1);
            }
        }
        ::close(progress[1]);
        // Once the child has saved, it is killed at another point of its next saves each round.
        char byte;
        EXPECT_EQ(::read(progress[0], &byte, 1), 1);
        ::usleep(static_cast<useconds_t>(round * 1300));
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        ::close(progress[0]);
        clearCache();
        std::set<std::string> generations;
        for (int k = 0; k < 200; ++k) {
            auto value = readValue(path, "S" + std::to_string(k % 10), "k" + std::to_string(k));
            ASSERT_TRUE(value.has_value()) << "key " << k << " missing after kill " << round;
            generations.insert(value->substr(0, value->size() - filler.size()));
        }
        EXPECT_EQ(generations.size(), 1u) << "torn file after kill " << round;
    }
}

namespace {

// Numbered sections "Item (n)" with the keys Id and Text, as a feed's items are stored.
class NumberedSections : public SectionSource {
public:
    explicit NumberedSections(std::size_t count) : m_count(count) {}
    std::size_t sectionCount() const override { return m_count; }
    std::string sectionName(std::size_t index) const override {
        return "Item (" + std::to_string(index + 1) + ")";
    }
    std::optional<std::size_t> indexOf(std::string_view name) const override {
        for (std::size_t i = 0; i < m_count; ++i)
            if (::strcasecmp(std::string(name).c_str(), sectionName(i).c_str()) == 0)
                return i;
        return std::nullopt;
    }
    void sectionKeys(std::size_t index,
                     std::vector<std::pair<std::string, std::string>>& keys) const override {
        keys.emplace_back("Id", "id-" + std::to_string(index + 1));
        keys.emplace_back("Text", "text " + std::to_string(index + 1));
    }

private:
    std::size_t m_count;
};

// What appendSections must produce: the same keys written one by one.
void writeOneByOne(const std::string& path, const SectionSource& source) {
    std::vector<std::pair<std::string, std::string>> keys;
    for (std::size_t i = 0; i < source.sectionCount(); ++i) {
        keys.clear();
        source.sectionKeys(i, keys);
        for (const auto& [key, value] : keys)
            ASSERT_TRUE(writeValue(path, source.sectionName(i), key, value));
    }
}

} // namespace

TEST(ProfileFile, UntouchedSectionsAreWrittenAsReadWithLineEndsAndHeadersTidied) {
    TempDir dir;
    const std::string path = dir.file("tidy.ini");
    writeFile(path, "; top\r\n[A]\r\nx=1\r\n  [ B ] trailing\r\n\r\ny = 2\r\n[C]\nz=3");
    EXPECT_EQ(readValue(path, "b", "Y"), "2");
    ASSERT_TRUE(writeValue(path, "D", "w", "4"));
    EXPECT_EQ(readFile(path), "; top\n[A]\nx=1\n[B]\n\ny = 2\n[C]\nz=3\n[D]\nw=4\n");
    // A section added after the file was indexed is found, and a key added to it is kept.
    ASSERT_TRUE(writeValue(path, "d", "v", "5"));
    EXPECT_EQ(listSections(path), (std::vector<std::string>{"A", "B", "C", "D"}));
    EXPECT_EQ(listKeys(path, "D"), (std::vector<std::string>{"w", "v"}));
}

TEST(ProfileFile, SectionsNotReadYetComeFromTheFileAsItIsNow) {
    TempDir dir;
    const std::string path = dir.file("lazy.ini");
    writeFile(path, "[Config]\nName=first\n[Items]\nCount=1\n");
    EXPECT_EQ(readValue(path, "Config", "Name"), "first"); // indexed, [Items] not read yet
    Snapshot before = snapshot(path);
    auto child = testing_support::runInChild([&] {
        clearCache();
        writeFile(path, "[Items]\nCount=2\n[Config]\nName=second\n");
    });
    ASSERT_EQ(child.status, 0);
    EXPECT_EQ(readValue(path, "Items", "Count"), "2");
    EXPECT_EQ(readValue(path, "Config", "Name"), "second");
    // A snapshot taken before keeps reading the text it was taken of.
    ReadFromSnapshot pinned(path, before);
    EXPECT_EQ(readValue(path, "Items", "Count"), "1");
    EXPECT_EQ(readValues(path, "Config", {"name", "Missing"}),
              (std::vector<std::optional<std::string>>{"first", std::nullopt}));
}

TEST(ProfileFile, AppendedSectionsWriteTheBytesOfKeysWrittenOneByOne) {
    TempDir dir;
    const std::string start = "[State]\nTime=1\n[Item (7)]\nId=old\n[Other]\nk=v\n";
    const auto source = std::make_shared<NumberedSections>(3);
    const std::string expected = dir.file("expected.ini"), actual = dir.file("actual.ini");
    for (const std::string& path : {expected, actual})
        writeFile(path, start);
    writeOneByOne(expected, *source);
    {
        WriteBatch batch(actual);
        ASSERT_TRUE(writeValue(actual, "State", "Time", "2"));
        ASSERT_TRUE(appendSections(actual, source));
        // Inside the batch the sections read as written, and changing one keeps the rest.
        EXPECT_EQ(readValue(actual, "item (2)", "TEXT"), "text 2");
        EXPECT_EQ(listSections(actual),
                  (std::vector<std::string>{"State", "Item (7)", "Other", "Item (1)", "Item (2)",
                                            "Item (3)"}));
        ASSERT_TRUE(writeValue(actual, "Item (2)", "Text", "changed"));
        ASSERT_TRUE(writeValue(actual, "Last", "k", "after the items"));
        ASSERT_TRUE(batch.commit());
    }
    ASSERT_TRUE(writeValue(expected, "State", "Time", "2"));
    ASSERT_TRUE(writeValue(expected, "Item (2)", "Text", "changed"));
    ASSERT_TRUE(writeValue(expected, "Last", "k", "after the items"));
    EXPECT_EQ(readFile(actual), readFile(expected));
    EXPECT_EQ(readValue(actual, "Item (3)", "Id"), "id-3");

    // When the file already holds one of the sections, the keys go where writes put them.
    const std::string clash = dir.file("clash.ini"), clashExpected = dir.file("clash-x.ini");
    for (const std::string& path : {clash, clashExpected})
        writeFile(path, "[item (2)]\nKeep=1\n[Tail]\nt=1\n");
    ASSERT_TRUE(appendSections(clash, source));
    writeOneByOne(clashExpected, *source);
    EXPECT_EQ(readFile(clash), readFile(clashExpected));
}

TEST(ProfileFile, SectionsHoldingExactlyTheAppendedKeysTakeThemInPlace) {
    // As a feed's items without ids stay in the file and are written over at the next save.
    TempDir dir;
    const auto source = std::make_shared<NumberedSections>(3);
    const std::string start = "[item (1)]\nId=\nText=old 1\n[Tail]\nt=1\n[Item (2)]\nId=\nText=\n";
    const std::string actual = dir.file("actual.ini"), expected = dir.file("expected.ini");
    for (const std::string& path : {actual, expected})
        writeFile(path, start);
    writeOneByOne(expected, *source);
    {
        WriteBatch batch(actual);
        ASSERT_TRUE(appendSections(actual, source));
        EXPECT_EQ(readValue(actual, "Item (1)", "Text"), "text 1");
        EXPECT_EQ(listSections(actual),
                  (std::vector<std::string>{"item (1)", "Tail", "Item (2)", "Item (3)"}));
        ASSERT_TRUE(batch.commit());
    }
    EXPECT_EQ(readFile(actual), readFile(expected));
    // A write into such a section keeps the keys the source gave it.
    writeFile(actual, start);
    {
        WriteBatch batch(actual);
        ASSERT_TRUE(appendSections(actual, source));
        ASSERT_TRUE(writeValue(actual, "ITEM (2)", "More", "m"));
        ASSERT_TRUE(batch.commit());
    }
    ASSERT_TRUE(writeValue(expected, "ITEM (2)", "More", "m"));
    EXPECT_EQ(readFile(actual), readFile(expected));
}

TEST(ProfileFile, AChangeWithinOneSectorIsWrittenInPlaceAndAnyOtherReplacesTheFile) {
    TempDir dir;
    const std::string path = dir.file("channel.rss");
    const std::string items(3000, 'x'); // the state's keys end in the first sector, items follow
    writeFile(path, "[State]\r\nLastFetchTime=1700000000\nHttpETag=\"v1\"\n[Items]\nText=" + items +
                        "\n");
    // The first write tidies the line end: the size changes, the file is replaced.
    auto inode = inodeOf(path);
    ASSERT_TRUE(writeValue(path, "State", "LastFetchTime", "1700003600"));
    EXPECT_NE(inodeOf(path), inode);
    EXPECT_EQ(readFile(path).substr(0, 50),
              "[State]\nLastFetchTime=1700003600\nHttpETag=\"v1\"\n[It");

    // Times and validators of the same length: written in place, and every write changes the
    // file's stamp, however close together they come.
    inode = inodeOf(path);
    for (int hour = 2; hour < 6; ++hour) {
        const FileStamp before = fileStamp(path);
        WriteBatch batch(path);
        writeValue(path, "State", "LastFetchTime", std::to_string(1700000000 + hour * 3600));
        writeValue(path, "State", "HttpETag", "\"v" + std::to_string(hour) + "\"");
        ASSERT_TRUE(batch.commit());
        EXPECT_EQ(inodeOf(path), inode);
        EXPECT_FALSE(fileStamp(path) == before) << "after write " << hour;
        EXPECT_EQ(readValue(path, "State", "HttpETag"), "\"v" + std::to_string(hour) + "\"");
    }
    EXPECT_EQ(readFile(path).substr(0, 47), "[State]\nLastFetchTime=1700018000\nHttpETag=\"v5\"\n");
    clearCache();
    EXPECT_EQ(readValue(path, "State", "LastFetchTime"), "1700018000");

    // Changes in two sectors, or of another length, replace the file.
    ASSERT_TRUE(writeValue(path, "Items", "Text", items + "y"));
    EXPECT_NE(inodeOf(path), inode) << "another length";
    inode = inodeOf(path);
    ASSERT_TRUE(writeValue(path, "Items", "Text", items + "z"));
    EXPECT_EQ(inodeOf(path), inode) << "one sector, far from the first";
    {
        WriteBatch batch(path);
        writeValue(path, "State", "HttpETag", "\"v6\"");
        writeValue(path, "Items", "Text", items + "!");
    }
    EXPECT_NE(inodeOf(path), inode);
    inode = inodeOf(path);
    ASSERT_TRUE(writeValue(path, "State", "HttpETag", "\"v10\""));
    EXPECT_NE(inodeOf(path), inode);
    clearCache();
    EXPECT_EQ(readValue(path, "Items", "Text"), items + "!");

    // A file another program replaced meanwhile is read again, not patched.
    clearCache();
    EXPECT_EQ(readValue(path, "State", "HttpETag"), "\"v10\"");
    std::string text = readFile(path);
    text.replace(text.find("xxx"), 3, "abc");
    writeFile(dir.file("other"), text);
    ::rename(dir.file("other").c_str(), path.c_str());
    ASSERT_TRUE(writeValue(path, "State", "HttpETag", "\"v11\""));
    EXPECT_THAT(readFile(path), HasSubstr("abc"));
    EXPECT_EQ(readValue(path, "State", "HttpETag"), "\"v11\"");
}
