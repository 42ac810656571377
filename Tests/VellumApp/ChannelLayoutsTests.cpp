#include "VellumApp/ChannelLayouts.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VellumCore/LoudnessProcessor.hpp"

namespace vellum {
namespace {

using Labels = std::vector<AudioChannelLabel>;
using Names = std::vector<std::string>;

TEST(ChannelLayouts, LabelsTellNamesAndWeights) {
  const Labels labels = {1, 3, 2, 33, 34, 4};
  EXPECT_EQ(ChannelLayouts::names(labels, 6), (Names{"L", "C", "R", "Lb", "Rb", "LFE"}));
  EXPECT_EQ(ChannelLayouts::weights(labels, 6), (std::vector<float>{1, 1, 1, 1.41253f, 1.41253f, 0}));
}

TEST(ChannelLayouts, WithoutLabelsTheCountTellsNames) {
  const std::vector<Names> names = {{"M"},
                                    {"L", "R"},
                                    {"L", "R", "C"},
                                    {"L", "R", "Ls", "Rs"},
                                    {"L", "R", "C", "Ls", "Rs"},
                                    {"L", "R", "C", "LFE", "Ls", "Rs"},
                                    {"Ch1", "Ch2", "Ch3", "Ch4", "Ch5", "Ch6", "Ch7"},
                                    {"L", "R", "C", "LFE", "Ls", "Rs", "Lb", "Rb"},
                                    {"Ch1", "Ch2", "Ch3", "Ch4", "Ch5", "Ch6", "Ch7", "Ch8", "Ch9"}};
  for (std::size_t k = 0; k < names.size(); ++k)
    EXPECT_EQ(ChannelLayouts::names({}, static_cast<std::int64_t>(k) + 1), names[k]);
}

// The names go with the weights that the meter has for a count: 0 for the LFE, more for surrounds.
TEST(ChannelLayouts, WithoutLabelsNamesAndWeightsAgree) {
  for (std::int64_t count = 1; count <= 12; ++count) {
    const std::vector<float> weights = ChannelLayouts::weights({}, count);
    const Names names = ChannelLayouts::names({}, count);
    EXPECT_EQ(weights, LoudnessProcessor::staticChannelWeights(count));
    ASSERT_EQ(weights.size(), names.size());
    for (std::size_t c = 0; c < names.size(); ++c) {
      const bool isSurround = names[c] == "Ls" || names[c] == "Rs" || names[c] == "Lb" || names[c] == "Rb";
      EXPECT_EQ(weights[c], names[c] == "LFE" ? 0.0f : isSurround ? 1.41253f : 1.0f) << names[c];
    }
  }
}

TEST(ChannelLayouts, MonoIsWeighedWithoutAWord) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(ChannelLayouts::weights(Labels{42}, 1), std::vector<float>{1});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(ChannelLayouts::names(Labels{42}, 1), Names{"M"});
}

TEST(ChannelLayouts, ALabelWithoutAWeightIsTold) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(ChannelLayouts::weights(Labels{1, 2, 9}, 3), (std::vector<float>{1, 1, 1}));
  EXPECT_NE(testing::internal::GetCapturedStderr().find("unmapped channel label 9"), std::string::npos);
}

// --- Order -----------------------------------------------------------------------------------------------

using Places = std::vector<std::int64_t>;

TEST(ChannelLayouts, ThreeToSixLabelledChannelsAreMeteredInCanonicalOrder) {
  EXPECT_EQ(ChannelLayouts::meteredOrder(Labels{1, 2, 5, 6, 3, 4}, 6), (Places{0, 1, 4, 5, 2, 3}));
  EXPECT_EQ(ChannelLayouts::meteredOrder(Labels{1, 3, 2, 33, 34, 4}, 6), (Places{0, 2, 1, 5, 3, 4}));
  EXPECT_EQ(ChannelLayouts::meteredOrder(Labels{3, 1, 2}, 3), (Places{1, 2, 0}));
}

TEST(ChannelLayouts, OtherChannelsAreMeteredAsTheyAre) {
  EXPECT_EQ(ChannelLayouts::meteredOrder({}, 3), (Places{0, 1, 2}));
  EXPECT_EQ(ChannelLayouts::meteredOrder(Labels{42}, 1), Places{0});
  EXPECT_EQ(ChannelLayouts::meteredOrder(Labels{2, 1}, 2), (Places{0, 1}));
  EXPECT_EQ(ChannelLayouts::meteredOrder(Labels{9, 2, 1}, 3), (Places{0, 1, 2}));
  EXPECT_EQ(ChannelLayouts::meteredOrder(Labels{3, 1, 2, 5, 6, 9, 4}, 7), (Places{0, 1, 2, 3, 4, 5, 6}));
}

}  // namespace
}  // namespace vellum
