#include "VellumApp/ChapterLimits.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace vellum {
namespace {

using ChapterLimits::faultOf;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

ChapterReport reportOf(const std::vector<std::pair<double, double>>& times) {
  ChapterReport report{.chapters = {}, .medianLUFS = {}, .fileFingerprint = {}, .origin = {}};
  for (const auto& [start, end] : times)
    report.chapters.push_back({.id = {}, .index = 1, .name = "x", .startSec = start, .endSec = end});
  return report;
}

TEST(ChapterLimits, TheDefaultSettingsAreWithin) {
  EXPECT_FALSE(faultOf(ChapterDetectionSettings::defaultValue()));
}

TEST(ChapterLimits, EachSettingHasItsRange) {
  const auto faultWith = [](auto member, auto value) {
    ChapterDetectionSettings settings = ChapterDetectionSettings::defaultValue();
    settings.*member = value;
    return faultOf(settings);
  };
  using S = ChapterDetectionSettings;
  EXPECT_EQ(faultWith(&S::blockDuration, 0.0), "blockDuration: 0 is not from 0.001 to 60");
  EXPECT_EQ(faultWith(&S::blockDuration, -1.0), "blockDuration: -1 is not from 0.001 to 60");
  EXPECT_TRUE(faultWith(&S::blockDuration, nan));
  EXPECT_TRUE(faultWith(&S::blockDuration, 1e-300));
  EXPECT_TRUE(faultWith(&S::blockDuration, infinity));
  EXPECT_FALSE(faultWith(&S::blockDuration, 0.001));
  EXPECT_EQ(faultWith(&S::silenceThresholdDB, 0.1f), "silenceThresholdDB: 0.1 is not from -200 to 0");
  EXPECT_TRUE(faultWith(&S::silenceThresholdDB, -std::numeric_limits<float>::infinity()));
  EXPECT_EQ(faultWith(&S::minSilenceDuration, -0.5), "minSilenceDuration: -0.5 is not from 0 to 86400");
  EXPECT_TRUE(faultWith(&S::minSilenceDuration, nan));
  EXPECT_EQ(faultWith(&S::deviationThresholdLU, -1.0f), "deviationThresholdLU: -1 is not from 0 to 200");
}

TEST(ChapterLimits, TheFirstFaultyTimeIsNamed) {
  EXPECT_FALSE(faultOf(reportOf({{0, 10}, {5, 6}, {100, 1e9}})));
  EXPECT_EQ(faultOf(reportOf({{0, 10}, {-1, 6}})), "chapters[1].startSec: -1 is not from 0 to 1000000000");
  EXPECT_EQ(faultOf(reportOf({{0, 1e10}})), "chapters[0].endSec: 10000000000 is not from 0 to 1000000000");
  EXPECT_TRUE(faultOf(reportOf({{nan, 1}})));
  EXPECT_TRUE(faultOf(reportOf({{0, infinity}})));
  EXPECT_EQ(faultOf(reportOf({{0, 1}, {1, 2}, {7, 5}})), "chapters[2].endSec: 5 is not after the start at 7");
  EXPECT_TRUE(faultOf(reportOf({{7, 7}})));
}

TEST(ChapterLimits, AtMost16ChaptersHoldOneFrame) {
  std::vector<std::pair<double, double>> times(16, {0, 100});
  times.push_back({100, 200});  // after the others
  EXPECT_FALSE(faultOf(reportOf(times)));
  times.insert(times.begin(), {99, 101});
  EXPECT_EQ(faultOf(reportOf(times)), "chapters[0].startSec: more than 16 chapters overlap here");
}

TEST(ChapterLimits, AtMost100000ChaptersAreTaken) {
  std::vector<std::pair<double, double>> times;
  for (int k = 0; k < 100'000; ++k) times.push_back({k, k + 1});
  EXPECT_FALSE(faultOf(reportOf(times)));
  times.push_back({0, 1});
  EXPECT_EQ(faultOf(reportOf(times)), "chapters: there are 100001, and at most 100000 are measured");
}

}  // namespace
}  // namespace vellum
