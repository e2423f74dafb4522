#include "tools/tempFile.h"

#include <gtest/gtest.h>

#include <filesystem>

TEST(TempFile, UniqueNamesWithTheExtensionAndDeletionOnDestroy) {
    std::string kept;
    {
        tools::TempFile page(".html");
        tools::TempFile other(".html");
        tools::TempFile keep("", false);
        kept = keep.path();
        EXPECT_NE(page.path(), other.path());
        EXPECT_EQ(std::filesystem::path(page.path()).extension(), ".html");
        EXPECT_TRUE(std::filesystem::exists(page.path()));
        page.stream() << "old text that is longer";
        page.reopen(true) << "new";
        page.close();
        EXPECT_EQ(page.read(), "new");
        page.stream() << "+more";
        page.close();
        EXPECT_EQ(page.read(), "new+more");
        EXPECT_TRUE(std::filesystem::exists(other.path()));
    }
    EXPECT_TRUE(std::filesystem::exists(kept));
    std::filesystem::remove(kept);
}
