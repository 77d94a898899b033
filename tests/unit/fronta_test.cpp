#include "alarmd/fronta.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
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

TEST(Fronta, RemovesWhatIsWantedAndKeepsTheOrderOfBoth) {
    Fronta<int> queue;
    const auto odd = [](int number) { return number % 2 == 1; };
    EXPECT_TRUE(queue.removeIf(odd).empty());
    for (const int number : {5, 2, 3, 4, 1}) queue.push(number);
    EXPECT_EQ(queue.removeIf(odd), (std::vector<int>{5, 3, 1}));
    EXPECT_TRUE(queue.removeIf(odd).empty());
    EXPECT_EQ(queue.size(), 2);
    queue.push(7);
    int item = 0;
    for (const int expected : {2, 4, 7}) {
        ASSERT_TRUE(queue.take(item));
        EXPECT_EQ(item, expected);
    }
    for (const int number : {1, 3}) queue.push(number);
    EXPECT_EQ(queue.removeIf(odd).size(), 2U);
    EXPECT_TRUE(queue.empty());
}

TEST(Fronta, AnEntryIsTakenOrRemovedAndNeverBoth) {
    constexpr int kEntries = 20000;
    Fronta<int> queue;
    std::vector<int> seen(kEntries);
    std::atomic<bool> taking{true};
    int taken = 0;
    std::thread taker([&] {
        int item = 0;
        while (taking || !queue.empty()) {
            if (queue.take(item)) {
                ++taken;
                seen[static_cast<size_t>(item)] += 1;
            }
        }
    });
    std::vector<int> removed;
    for (int i = 0; i < kEntries; ++i) {
        queue.push(i);
        if (i % 100 != 0) continue;
        for (const int entry : queue.removeIf([](int entry) { return entry % 3 == 0; }))
            removed.push_back(entry);
    }
    taking = false;
    taker.join();
    for (const int entry : removed) seen[static_cast<size_t>(entry)] += 1;
    EXPECT_EQ(static_cast<size_t>(taken) + removed.size(), seen.size());
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](int times) { return times == 1; }));
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

size_t lengthOf(const std::string& text) {
    return text.size();
}

using Texts = BoundedFronta<std::string>;

TEST(BoundedFronta, TakesSoManyEntriesAndGivesThemInTheirOrder) {
    Texts queue(3, 100, lengthOf);
    EXPECT_TRUE(queue.push("a"));
    EXPECT_TRUE(queue.push(""));
    EXPECT_TRUE(queue.push("c"));
    EXPECT_FALSE(queue.push(""));
    EXPECT_EQ(queue.size(), 3);
    std::string item;
    for (const char* expected : {"a", "", "c"}) {
        ASSERT_TRUE(queue.take(item));
        EXPECT_EQ(item, expected);
    }
    EXPECT_FALSE(queue.take(item));
    EXPECT_EQ(item, "c");
    EXPECT_TRUE(queue.empty());
}

TEST(BoundedFronta, TakesSoManyBytes) {
    Texts queue(100, 10, lengthOf);
    EXPECT_FALSE(queue.push(std::string(11, 'x')));
    EXPECT_TRUE(queue.push("1234567"));
    EXPECT_FALSE(queue.push("1234"));
    EXPECT_TRUE(queue.push("123"));
    EXPECT_TRUE(queue.push(""));
    EXPECT_FALSE(queue.push("1"));
    EXPECT_EQ(queue.size(), 3);
}

TEST(BoundedFronta, WhatIsTakenOrClearedMakesRoom) {
    Texts queue(2, 10, lengthOf);
    std::string item;
    for (int round = 0; round < 5; ++round) {
        ASSERT_TRUE(queue.push("12345"));
        ASSERT_TRUE(queue.push("12345"));
        ASSERT_FALSE(queue.push(""));
        ASSERT_TRUE(queue.take(item));
        ASSERT_TRUE(queue.push("54321"));
        queue.clear();
        EXPECT_TRUE(queue.empty());
    }
}

TEST(BoundedFronta, APlaceThatIsTakenCountsLikeAnEntry) {
    Texts queue(2, 10, lengthOf);
    auto first = queue.place("123456");
    ASSERT_TRUE(first);
    EXPECT_EQ(queue.size(), 0);
    EXPECT_FALSE(queue.push("12345"));
    EXPECT_TRUE(queue.push("1234"));
    EXPECT_FALSE(queue.place(""));
    std::string item;
    ASSERT_TRUE(queue.take(item));
    queue.clear();
    EXPECT_FALSE(queue.push("12345"));
    first->push();
    first->push();
    EXPECT_EQ(queue.size(), 1);
    first.reset();
    EXPECT_FALSE(queue.push("12345"));
    ASSERT_TRUE(queue.take(item));
    EXPECT_EQ(item, "123456");
    EXPECT_TRUE(queue.push("1234567890"));
}

TEST(BoundedFronta, APlaceThatIsNotUsedIsGivenBack) {
    Texts queue(1, 10, lengthOf);
    {
        auto place = queue.place("1234567890");
        ASSERT_TRUE(place);
        const auto moved = std::move(*place);
        EXPECT_FALSE(queue.push(""));
    }
    EXPECT_TRUE(queue.empty());
    EXPECT_TRUE(queue.push("0987654321"));
}

TEST(BoundedFronta, WhoHasAPlaceIsNeverTurnedAwayAndTheBoundHolds) {
    constexpr int kMost = 5;
    constexpr int kProducers = 4;
    BoundedFronta<int> queue(kMost, 1000, [](const int&) { return size_t{1}; });
    std::atomic<int> accepted{0};
    std::atomic<int> running{kProducers};
    std::vector<std::thread> producers;
    for (int producer = 0; producer < kProducers; ++producer) {
        producers.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                auto place = queue.place(i);
                if (!place) continue;
                std::this_thread::yield();
                place->push();
                ++accepted;
            }
            --running;
        });
    }
    int taken = 0;
    int item = 0;
    while (running > 0) {
        EXPECT_LE(queue.size(), kMost);
        if (queue.take(item)) ++taken;
    }
    for (std::thread& producer : producers) producer.join();
    while (queue.take(item)) ++taken;
    EXPECT_EQ(taken, accepted);
    EXPECT_GE(taken, kMost);
    for (int i = 0; i < kMost; ++i) EXPECT_TRUE(queue.push(i));
    EXPECT_FALSE(queue.push(kMost));
}

}  // namespace
