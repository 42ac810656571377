#include "VellumCore/ChannelOrder.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace vellum {
namespace {

std::string unmappedLine(AudioChannelLabel label) {
  return "🔉 BS.1770 weight: unmapped channel label " + std::to_string(label) +
         " defaulted to 1.0 (full weight)\n";
}

// The weight of a label, and what was written to standard error meanwhile.
struct Weighed {
  float weight;
  std::string log;
};

Weighed weigh(AudioChannelLabel label) {
  testing::internal::CaptureStderr();
  const float weight = ChannelOrder::bs1770Weight(label);
  return {weight, testing::internal::GetCapturedStderr()};
}

TEST(ChannelOrder, FrontChannelsHaveFullWeight) {
  for (const AudioChannelLabel label : {1u, 2u, 3u, 7u, 8u}) {
    const Weighed result = weigh(label);
    EXPECT_EQ(result.weight, 1.0f) << label;
    EXPECT_EQ(result.log, "") << label;
  }
}

// ITU-R BS.1770-5: surround channels count 1.5 dB more.
TEST(ChannelOrder, SurroundChannelsCountOneAndAHalfDecibelsMore) {
  for (const AudioChannelLabel label : {5u, 6u, 10u, 11u, 33u, 34u}) {
    const Weighed result = weigh(label);
    EXPECT_EQ(result.weight, 1.41253f) << label;
    EXPECT_NEAR(10 * std::log10(static_cast<double>(result.weight)), 1.5, 1e-4) << label;
    EXPECT_EQ(result.log, "") << label;
  }
}

TEST(ChannelOrder, LowFrequencyChannelsDoNotCount) {
  for (const AudioChannelLabel label : {4u, 37u}) {
    const Weighed result = weigh(label);
    EXPECT_EQ(result.weight, 0.0f) << label;
    EXPECT_EQ(result.log, "") << label;
  }
}

TEST(ChannelOrder, EveryOtherLabelCountsFullyAndSaysSo) {
  for (AudioChannelLabel label = 0; label < 400; ++label) {
    if ((label >= 1 && label <= 8) || label == 10 || label == 11 || label == 33 || label == 34 || label == 37)
      continue;
    const Weighed result = weigh(label);
    EXPECT_EQ(result.weight, 1.0f) << label;
    EXPECT_EQ(result.log, unmappedLine(label));
  }
  EXPECT_EQ(weigh(0xFFFFFFFFu).log, unmappedLine(4294967295u));
}

TEST(ChannelOrder, ListsKeepTheirOrder) {
  const std::vector<AudioChannelLabel> labels = {3, 4, 9, 6};
  testing::internal::CaptureStderr();
  EXPECT_EQ(ChannelOrder::bs1770Weights(labels), (std::vector<float>{1.0f, 0.0f, 1.0f, 1.41253f}));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), unmappedLine(9));
  EXPECT_EQ(ChannelOrder::bs1770Weights({}), std::vector<float>{});
}

TEST(ChannelOrder, ShortNamesOfLabels) {
  const std::vector<AudioChannelLabel> labels = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 33, 34, 37, 42};
  EXPECT_EQ(ChannelOrder::displayShortNames(labels),
            (std::vector<std::string>{"L", "R", "C", "LFE", "Ls", "Rs", "Lc", "Rc", "Cs", "Lss", "Rss", "Lb",
                                      "Rb", "LFE2", "M"}));
}

TEST(ChannelOrder, ALabelWithoutANameIsNamedByItsPosition) {
  EXPECT_EQ(ChannelOrder::displayShortName(12, 7), "Ch7");
  EXPECT_EQ(ChannelOrder::displayShortName(0, 1), "Ch1");
  const std::vector<AudioChannelLabel> labels = {1, 2, 3, 4, 5, 6, 12};
  EXPECT_EQ(ChannelOrder::displayShortNames(labels).back(), "Ch7");
}

}  // namespace
}  // namespace vellum
