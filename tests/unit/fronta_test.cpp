#include "alarmd/fronta.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

TEST(Fronta, GivesEntriesInTheOrderOfTheirArrival) {
    Fronta<int> queue;
    for (int i = 1; i <= 3; ++i) queue.push(i);
    EXPECT_EQ(queue.size(), 3);
    int item = 0;
    for (int i = 1; i <= 3; ++i) {
        ASSERT_TRUE(queue.take(item));
        EXPECT_EQ(item, i);
    }
    EXPECT_TRUE(queue.empty());
}

TEST(Fronta, AnEmptyQueueGivesNothingAndLeavesTheItem) {
    Fronta<std::string> queue;
    std::string item = "old";
    EXPECT_FALSE(queue.take(item));
    EXPECT_EQ(item, "old");
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(queue.size(), 0);
}

TEST(Fronta, PushTakesACopy) {
    Fronta<std::string> queue;
    std::string item = "text";
    queue.push(item);
    item = "changed";
    ASSERT_TRUE(queue.take(item));
    EXPECT_EQ(item, "text");
}

TEST(Fronta, ClearDropsAllEntries) {
    Fronta<int> queue;
    queue.push(1);
    queue.push(2);
    queue.clear();
    EXPECT_TRUE(queue.empty());
    int item = 0;
    EXPECT_FALSE(queue.take(item));
    queue.push(3);
    ASSERT_TRUE(queue.take(item));
    EXPECT_EQ(item, 3);
}

TEST(Fronta, EveryEntryOfSeveralProducersIsTakenOnceAndInTheProducersOrder) {
    constexpr int kProducers = 3;
    constexpr int kEach = 2000;
    Fronta<std::pair<int, int>> queue;
    std::vector<std::thread> producers;
    for (int producer = 0; producer < kProducers; ++producer) {
        producers.emplace_back([&queue, producer] {
            for (int i = 0; i < kEach; ++i) queue.push({producer, i});
        });
    }
    int next[kProducers] = {};
    int taken = 0;
    while (taken < kProducers * kEach) {
        std::pair<int, int> item;
        if (!queue.take(item)) {
            std::this_thread::yield();
            continue;
        }
        ++taken;
        ASSERT_EQ(item.second, next[item.first]++);
    }
    for (std::thread& producer : producers) producer.join();
    EXPECT_TRUE(queue.empty());
}

}  // namespace
