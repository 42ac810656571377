#include "vellum/OrderedJobs.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <thread>
#include <vector>

namespace vellum {
namespace {

const auto doNothing = [] {};

void sleepMs(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

TEST(OrderedJobs, ResultsComeInOrderWhateverEndsFirst) {
  for (const std::size_t threads : {1u, 2u, 7u, 50u}) {
    std::atomic<bool> stop = false;
    std::vector<std::size_t> delivered;
    runInOrder(
        20, threads, stop,
        [](std::size_t index) {
          sleepMs(index % 3 == 0 ? 10 : 0);
          return index * index;
        },
        [&](std::size_t index, std::size_t result) {
          EXPECT_EQ(result, index * index);
          delivered.push_back(index);
        },
        doNothing);
    ASSERT_EQ(delivered.size(), 20u);
    for (std::size_t k = 0; k < delivered.size(); ++k) EXPECT_EQ(delivered[k], k);
  }
}

TEST(OrderedJobs, NothingToDoEndsAtOnce) {
  std::atomic<bool> stop = false;
  runInOrder(
      0, 4, stop, [](std::size_t index) { return index; }, [](std::size_t, std::size_t) { FAIL(); },
      doNothing);
}

// While the first one takes its time, the others do not run through the whole list.
TEST(OrderedJobs, FewResultsWaitForAnUnfinishedOne) {
  std::atomic<bool> stop = false, firstMayEnd = false;
  std::atomic<std::size_t> started = 0;
  std::size_t startedWhileWaiting = 0;
  int ticks = 0;
  runInOrder(
      1000, 3, stop,
      [&](std::size_t index) {
        ++started;
        while (index == 0 && !firstMayEnd) sleepMs(1);
        return index;
      },
      [](std::size_t, std::size_t) {},
      [&] {
        if (++ticks != 3) return;
        startedWhileWaiting = started;
        firstMayEnd = true;
      });
  EXPECT_EQ(startedWhileWaiting, 6u);  // twice the threads
  EXPECT_EQ(started, 1000u);
}

TEST(OrderedJobs, StopEndsItWithoutDeliveringMore) {
  std::atomic<bool> stop = false;
  std::atomic<std::size_t> started = 0;
  std::size_t delivered = 0;
  runInOrder(
      1000, 2, stop,
      [&](std::size_t index) {
        ++started;
        return index;
      },
      [&](std::size_t, std::size_t) {
        if (++delivered == 5) stop = true;
      },
      doNothing);
  EXPECT_EQ(delivered, 5u);
  EXPECT_LT(started, 20u);
}

TEST(OrderedJobs, AStopByTickComesBeforeTheNextDelivery) {
  std::atomic<bool> stop = false;
  runInOrder(
      10, 1, stop, [](std::size_t index) { return index; }, [](std::size_t, std::size_t) { FAIL(); },
      [&] { stop = true; });
}

TEST(OrderedJobs, WhatDeliverThrowsPassesThroughOnceTheThreadsHaveEnded) {
  std::atomic<bool> stop = false;
  std::atomic<int> working = 0;
  const auto run = [&] {
    runInOrder(
        1000, 4, stop,
        [&](std::size_t index) {
          ++working;
          sleepMs(1);
          --working;
          return index;
        },
        [](std::size_t index, std::size_t) {
          if (index == 3) throw std::runtime_error("no more room");
        },
        doNothing);
  };
  EXPECT_THROW(run(), std::runtime_error);
  EXPECT_EQ(working, 0);
  EXPECT_TRUE(stop);
}

}  // namespace
}  // namespace vellum
