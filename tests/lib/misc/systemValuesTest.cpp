#include "lib/misc/systemValues.h"

#include <gtest/gtest.h>

#include <thread>

TEST(SystemValues, ManyThreadsPublishAndEveryValueIsThere) {
    auto& values = misc::SystemValues::instance();
    values.clear();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i)
                values.set("Name" + std::to_string(t * 100 + i), std::to_string(i));
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(values.all().size(), 400u);
    EXPECT_EQ(values.get("Name399"), "99");
    EXPECT_EQ(values.get("Unknown"), "");
    values.clear();
}
