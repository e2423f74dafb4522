#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "tests/support/testSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

using namespace profile;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;

TEST(IniValues, EscapesNonPrintableBytesAndPercentInUpperCaseHex) {
    EXPECT_EQ(escapeIniValue("100% sure\r\nnext\t\x7f\xe9"), "100%25 sure%0D%0Anext%09%7F%E9");
    // Every byte value at every place of a value longer than the eight bytes read at a time.
    for (int byte = 0; byte < 256; ++byte)
        for (std::size_t at = 0; at < 19; ++at) {
            std::string value(19, 'a');
            value[at] = static_cast<char>(byte);
            const bool escaped = byte == '%' || byte < 0x20 || byte > 0x7E;
            char hex[4];
            std::snprintf(hex, sizeof hex, "%%%02X", byte);
            const std::string expected = std::string(at, 'a') +
                                         (escaped ? hex : value.substr(at, 1)) +
                                         std::string(18 - at, 'a');
            ASSERT_EQ(escapeIniValue(value), expected) << "byte " << byte << " at " << at;
        }
    EXPECT_EQ(unescapeIniValue("%41%4a%zz%4"), "AJ%zz%4");
}

TEST(IniValues, StringsRoundTripThroughAFileIncludingLineBreaksAndLatin1) {
    TempDir dir;
    const std::string path = dir.file("values.ini");
    const std::string value = "first line\r\nsecond line with 50% off, caf\xe9 = ok; [x]";
    ASSERT_TRUE(writeIniString(path, "Config", "Text", value));
    clearCache();
    EXPECT_EQ(readIniString(path, "Config", "Text"), value);
    const std::string text = readFile(path);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << "one line per key: " << text;
}

TEST(IniValues, ReadingDecodesEscapesThenTrims) {
    TempDir dir;
    const std::string path = dir.file("read.ini");
    writeFile(path, "[S]\nA=%41\nPadded=   a title   \nEscapedBlank=%20x%20\nPercent=5%\n");
    EXPECT_EQ(readIniString(path, "S", "A"), "A");
    EXPECT_EQ(readIniString(path, "S", "Padded"), "a title");
    EXPECT_EQ(readIniString(path, "S", "EscapedBlank"), "x");
    EXPECT_EQ(readIniString(path, "S", "EscapedBlank", "", false), " x ");
    EXPECT_EQ(readIniString(path, "S", "Percent"), "5%");
    EXPECT_EQ(readIniString(path, "S", "Missing", "fallback"), "fallback");
}

TEST(IniValues, IntegersReadLikeThePlatformAndRangesFallBackToTheDefault) {
    TempDir dir;
    const std::string path = dir.file("ints.ini");
    writeFile(path, "[S]\nneg=-1\nbig=501\nlow=-2\nzero=0\ntext=abc\nlead=42abc\nplus=+7\n"
                    "blank=\nspaced=  12  \n");
    EXPECT_EQ(readIniInt(path, "S", "neg", 5), -1);
    EXPECT_EQ(readIniInt(path, "S", "text", 5), 0);
    EXPECT_EQ(readIniInt(path, "S", "lead", 5), 42);
    EXPECT_EQ(readIniInt(path, "S", "plus", 5), 7);
    EXPECT_EQ(readIniInt(path, "S", "blank", 5), 5);
    EXPECT_EQ(readIniInt(path, "S", "spaced", 5), 12);
    EXPECT_EQ(readIniInt(path, "S", "missing", 5), 5);
    EXPECT_EQ(readIniIntRange(path, "S", "big", -1, 500, -1), -1);
    EXPECT_EQ(readIniIntRange(path, "S", "low", -1, 500, -1), -1);
    EXPECT_EQ(readIniIntRange(path, "S", "neg", -1, 500, 3), -1);
    EXPECT_EQ(readIniIntRange(path, "S", "zero", -1, 100, -1), 0);
}

TEST(IniValues, BooleansAndIntegersAreWrittenAsThePlatformWritesThem) {
    TempDir dir;
    const std::string path = dir.file("w.ini");
    writeIniBool(path, "S", "on", true);
    writeIniBool(path, "S", "off", false);
    writeIniInt(path, "S", "n", -42);
    EXPECT_EQ(readFile(path), "[S]\non=1\noff=0\nn=-42\n");
    writeFile(path, "[S]\nyes=2\nno=0\n");
    EXPECT_TRUE(readIniBool(path, "S", "yes", false));
    EXPECT_FALSE(readIniBool(path, "S", "no", true));
    EXPECT_TRUE(readIniBool(path, "S", "missing", true));
}
