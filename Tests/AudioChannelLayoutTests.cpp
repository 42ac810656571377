#include "VellumCore/AudioChannelLayout.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

namespace vellum {
namespace {

using Labels = std::vector<AudioChannelLabel>;

// By number, from Core Audio's documentation of its layout tags.
const std::map<std::uint32_t, Labels>& orders() {
  static const std::map<std::uint32_t, Labels> table = {
      {100, {42}},
      {101, {1, 2}},
      {102, {301, 302}},
      {103, {38, 39}},
      {104, {204, 205}},
      {108, {1, 2, 5, 6}},
      {109, {1, 2, 5, 6, 3}},
      {110, {1, 2, 5, 6, 3, 9}},
      {111, {1, 2, 5, 6, 3, 9, 35, 36}},
      {113, {1, 2, 3}},
      {114, {3, 1, 2}},
      {115, {1, 2, 3, 9}},
      {116, {3, 1, 2, 9}},
      {117, {1, 2, 3, 5, 6}},
      {118, {1, 2, 5, 6, 3}},
      {119, {1, 3, 2, 5, 6}},
      {120, {3, 1, 2, 5, 6}},
      {121, {1, 2, 3, 4, 5, 6}},
      {122, {1, 2, 5, 6, 3, 4}},
      {123, {1, 3, 2, 5, 6, 4}},
      {124, {3, 1, 2, 5, 6, 4}},
      {125, {1, 2, 3, 4, 5, 6, 9}},
      {126, {1, 2, 3, 4, 5, 6, 7, 8}},
      {127, {3, 7, 8, 1, 2, 5, 6, 4}},
      {128, {1, 2, 3, 4, 5, 6, 33, 34}},
      {130, {1, 2, 3, 4, 5, 6, 38, 39}},
      {131, {1, 2, 9}},
      {132, {1, 2, 5, 6}},
      {133, {1, 2, 4}},
      {134, {1, 2, 4, 9}},
      {135, {1, 2, 4, 5, 6}},
      {136, {1, 2, 3, 4}},
      {137, {1, 2, 3, 4, 9}},
      {138, {1, 2, 5, 6, 4}},
      {139, {1, 2, 5, 6, 3, 9}},
      {140, {1, 2, 5, 6, 3, 33, 34}},
      {141, {3, 1, 2, 5, 6, 9}},
      {142, {3, 1, 2, 5, 6, 9, 4}},
      {143, {3, 1, 2, 5, 6, 33, 34}},
      {144, {3, 1, 2, 5, 6, 33, 34, 9}},
      {148, {1, 2, 5, 6, 3, 7, 8}},
      {183, {3, 1, 2, 5, 6, 33, 34, 4}},
      {185, {1, 2, 33, 34}},
      {186, {1, 2, 3, 33, 34}},
      {187, {1, 2, 3, 4, 33, 34}},
      {188, {1, 2, 3, 4, 9, 5, 6}},
      {189, {1, 2, 3, 4, 33, 34, 5, 6}},
  };
  return table;
}

std::optional<Labels> labelsOf(const std::optional<AudioChannelLayout>& layout) {
  if (!layout) return {};
  EXPECT_EQ(layout->tag, AudioChannelLayout::useChannelDescriptions);
  return layout->labels;
}

TEST(AudioChannelLayout, TagsAreANumberAndAChannelCount) {
  EXPECT_EQ(audioChannelLayoutTag(113, 3), 7405571u);
  EXPECT_EQ(AudioChannelLayout::useChannelDescriptions, 0u);
  EXPECT_EQ(AudioChannelLayout::useChannelBitmap, 0x10000u);
  EXPECT_EQ(AudioChannelLayout::mono, 100u << 16 | 1);
  EXPECT_EQ(AudioChannelLayout::stereo, 101u << 16 | 2);
  EXPECT_EQ(AudioChannelLayout::quadraphonic, 108u << 16 | 4);
  EXPECT_EQ(AudioChannelLayout::mpeg30A, 113u << 16 | 3);
  EXPECT_EQ(AudioChannelLayout::mpeg50A, 117u << 16 | 5);
  EXPECT_EQ(AudioChannelLayout::mpeg51A, 121u << 16 | 6);
  EXPECT_EQ(AudioChannelLayout::mpeg71C, 128u << 16 | 8);
}

TEST(AudioChannelLayout, EveryKnownTagStandsForItsOrder) {
  EXPECT_EQ(orders().size(), 47u);
  for (const auto& [number, labels] : orders())
    EXPECT_EQ(labelsOf(layoutForTag(number << 16 | static_cast<std::uint32_t>(labels.size()))), labels)
        << number;
}

TEST(AudioChannelLayout, EveryOtherTagStandsForNone) {
  for (std::uint32_t number = 0; number < 400; ++number)
    for (std::uint32_t count = 0; count < 20; ++count) {
      const auto known = orders().find(number);
      if (known != orders().end() && known->second.size() == count) continue;
      EXPECT_EQ(layoutForTag(number << 16 | count), std::nullopt) << number << " " << count;
    }
  for (const AudioChannelLayoutTag tag : {0xFFFF0000u, 0xFFFFFFFFu, 6u})
    EXPECT_EQ(layoutForTag(tag), std::nullopt) << tag;
}

TEST(AudioChannelLayout, EachOfTheFirst18BitsIsTheLabelOneHigher) {
  for (std::uint32_t bit = 0; bit < 18; ++bit)
    EXPECT_EQ(labelsOf(layoutForBitmap(1u << bit)), Labels{bit + 1}) << bit;
}

TEST(AudioChannelLayout, BitsRiseToLabels) {
  EXPECT_EQ(labelsOf(layoutForBitmap(0x3F)), (Labels{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(labelsOf(layoutForBitmap(0x60F)), (Labels{1, 2, 3, 4, 10, 11}));
  Labels all;
  for (AudioChannelLabel label = 1; label <= 18; ++label) all.push_back(label);
  EXPECT_EQ(labelsOf(layoutForBitmap(0x3FFFF)), all);
}

TEST(AudioChannelLayout, AnyOtherBitOrNoneIsNoLayout) {
  EXPECT_EQ(layoutForBitmap(0), std::nullopt);
  for (std::uint32_t bit = 18; bit < 32; ++bit) {
    EXPECT_EQ(layoutForBitmap(1u << bit), std::nullopt) << bit;
    EXPECT_EQ(layoutForBitmap(1u << bit | 0x3), std::nullopt) << bit;
  }
}

TEST(AudioChannelLayout, AreMadeOfOneDescription) {
  EXPECT_EQ(AudioChannelLayout::ofTag(7), (AudioChannelLayout{7, 0, {}}));
  EXPECT_EQ(AudioChannelLayout::ofBitmap(7), (AudioChannelLayout{0x10000, 7, {}}));
  EXPECT_EQ(AudioChannelLayout::ofLabels({7}), (AudioChannelLayout{0, 0, {7}}));
  EXPECT_EQ(AudioChannelLayout{}, (AudioChannelLayout{0, 0, {}}));
}

}  // namespace
}  // namespace vellum
