#include "vellum/AxisTicks.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace vellum {
namespace {

std::string labels(const std::vector<Tick>& ticks) {
  std::string text;
  for (const Tick& tick : ticks) text.append(text.empty() ? "" : " ").append(tick.label);
  return text;
}

TEST(AxisTicks, FrequenciesGoByDigitsOfDecades) {
  EXPECT_EQ(labels(frequencyTicks(frequencyAxisOf(FrequencyScale::log, 48000), 15)),
            "20 50 100 200 500 1k 2k 5k 10k 20k");
  EXPECT_EQ(labels(frequencyTicks(frequencyAxisOf(FrequencyScale::log, 48000), 5)), "100 1k 10k");
  EXPECT_EQ(labels(frequencyTicks(frequencyAxisOf(FrequencyScale::linear, 44100), 6)), "0 5k 10k 15k 20k");
  EXPECT_EQ(labels(frequencyTicks(frequencyAxisOf(FrequencyScale::linear, 5), 6)), "0 0.5 1 1.5 2 2.5");
  EXPECT_EQ(minorFrequencies(frequencyAxisOf(FrequencyScale::log, 200)).size(),
            18u + 1);  // 1, 2 ... 9, 10, 20 ... 100
  EXPECT_TRUE(minorFrequencies(frequencyAxisOf(FrequencyScale::linear, 200)).empty());
}

TEST(AxisTicks, LevelsAreWhole) {
  EXPECT_EQ(labels(levelTicks(-100, 0, 10)), "-100 -90 -80 -70 -60 -50 -40 -30 -20 -10 0");
  EXPECT_EQ(labels(levelTicks(-23.5, -21, 10)), "-23 -22 -21");
}

TEST(AxisTicks, TimesAreRoundToAPerson) {
  EXPECT_EQ(labels(timeTicks(0, 10, 10)), "0 1 2 3 4 5 6 7 8 9 10");
  EXPECT_EQ(labels(timeTicks(1.23, 1.27, 4)), "1.23 1.24 1.25 1.26 1.27");
  EXPECT_EQ(labels(timeTicks(0, 90, 6)), "0:00 0:15 0:30 0:45 1:00 1:15 1:30");
  EXPECT_EQ(labels(timeTicks(3600, 7200, 6)), "1:00:00 1:10:00 1:20:00 1:30:00 1:40:00 1:50:00 2:00:00");
  EXPECT_EQ(labels(timeTicks(0, 3600, 11)), "0:00 10:00 20:00 30:00 40:00 50:00 1:00:00");
  EXPECT_EQ(labels(timeTicks(3599.98, 3600.02, 4)), "59:59.98 59:59.99 1:00:00.00 1:00:00.01 1:00:00.02");
  EXPECT_EQ(labels(timeTicks(0, 200000, 5)), "0:00 20:00:00 40:00:00");
}

}  // namespace
}  // namespace vellum
