#include "VellumCore/ChannelOrder.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <rapidcheck/gtest.h>

namespace vellum {
namespace {

using ChannelOrder::Role;
using Labels = std::vector<AudioChannelLabel>;
using Names = std::vector<std::string>;
using Permutation = std::vector<std::int64_t>;

AudioFormat planarOf(const Labels& labels) {
  return AudioFormat::planarFloat(48000, static_cast<std::uint32_t>(labels.size()),
                                  AudioChannelLayout::ofLabels(labels));
}

AudioFormat interleavedOf(const Labels& labels) {
  AudioFormat format = planarOf(labels);
  format.isInterleaved = true;
  format.bytesPerFrame = 4 * format.channelCount;
  return format;
}

// A sample that tells its channel and frame.
float sampleOf(std::size_t channel, std::int64_t frame) {
  return static_cast<float>(1000 * channel) + static_cast<float>(frame);
}

// A buffer whose samples tell where they are: `frames` of them, in room for some more.
PCMBuffer bufferOf(const AudioFormat& format, std::int64_t frames) {
  std::optional<PCMBuffer> buffer = PCMBufferAllocation::make(format, static_cast<std::uint32_t>(frames + 3));
  if (!buffer) throw std::runtime_error("no buffer");
  buffer->setFrameLength(frames);
  const auto channels = buffer->floatChannelData();
  if (!channels) return *std::move(buffer);
  for (std::size_t c = 0; c < channels->size(); ++c)
    for (std::int64_t n = 0; n < frames; ++n) (*channels)[c][n * buffer->stride()] = sampleOf(c, n);
  return *std::move(buffer);
}

// What canonicalize answers, and what it writes to standard error meanwhile.
struct Canonicalized {
  std::optional<PCMBuffer> buffer;
  std::string log;
};

Canonicalized canonicalizeWithLog(const PCMBuffer& buffer) {
  testing::internal::CaptureStderr();
  std::optional<PCMBuffer> reordered = ChannelOrder::canonicalize(buffer);
  return {std::move(reordered), testing::internal::GetCapturedStderr()};
}

void expectUnchanged(const PCMBuffer& buffer, const std::string& why) {
  const Canonicalized result = canonicalizeWithLog(buffer);
  EXPECT_FALSE(result.buffer) << why;
  EXPECT_EQ(result.log, "") << why;
}

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

// What counts fully for want of a weight is exactly what has none of its own; asking is silent.
TEST(ChannelOrder, OwnWeightsAreThoseThatAreNotLogged) {
  for (AudioChannelLabel label = 0; label < 400; ++label) {
    const Weighed result = weigh(label);
    testing::internal::CaptureStderr();
    const std::optional<float> own = ChannelOrder::ownWeight(label);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << label;
    EXPECT_EQ(own.has_value(), result.log.empty()) << label;
    EXPECT_EQ(own.value_or(1.0f), result.weight) << label;
  }
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

TEST(ChannelOrder, EveryShortNameLeadsBackToItsLabel) {
  const Labels labels = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 33, 34, 37, 42};
  EXPECT_EQ(ChannelOrder::namedLabels(), labels);
  for (const AudioChannelLabel label : labels)
    EXPECT_EQ(ChannelOrder::labelOfShortName(ChannelOrder::displayShortName(label, 1)), label);
  for (const char* name : {"", "l", "LS", "Ch1", "X", "L ", " L", "Left"})
    EXPECT_EQ(ChannelOrder::labelOfShortName(name), std::nullopt) << name;
}

// --- Labels of layouts -----------------------------------------------------------------------------------

TEST(ChannelOrder, DescriptionsAreReadAsTheyStand) {
  EXPECT_EQ(ChannelOrder::channelLabels(AudioChannelLayout::ofLabels({6, 9, 400, 6})),
            (Labels{6, 9, 400, 6}));
}

TEST(ChannelOrder, ALayoutWithoutDescriptionsHasNoLabels) {
  EXPECT_EQ(ChannelOrder::channelLabels({}), std::nullopt);
  EXPECT_EQ(ChannelOrder::displayShortNames(AudioChannelLayout{}), std::nullopt);
}

TEST(ChannelOrder, ATagOrABitmapStandsBeforeDescriptions) {
  EXPECT_EQ(ChannelOrder::channelLabels({AudioChannelLayout::mpeg30A, 0x3, {7}}), (Labels{1, 2, 3}));
  EXPECT_EQ(ChannelOrder::channelLabels({AudioChannelLayout::useChannelBitmap, 0x30, {7}}), (Labels{5, 6}));
  EXPECT_EQ(ChannelOrder::channelLabels({AudioChannelLayout::useChannelDescriptions, 0x3, {7}}), Labels{7});
}

TEST(ChannelOrder, ShortNamesOfALayout) {
  EXPECT_EQ(ChannelOrder::displayShortNames(AudioChannelLayout::ofTag(AudioChannelLayout::mpeg51A)),
            (Names{"L", "R", "C", "LFE", "Ls", "Rs"}));
  EXPECT_EQ(ChannelOrder::displayShortNames(AudioChannelLayout::ofLabels({1, 2, 3, 4, 5, 6, 12})),
            (Names{"L", "R", "C", "LFE", "Ls", "Rs", "Ch7"}));
  EXPECT_EQ(ChannelOrder::displayShortNames(AudioChannelLayout::ofTag(0x640000)), std::nullopt);
}

// --- Weights of buffers ----------------------------------------------------------------------------------

TEST(ChannelOrder, ABuffersWeightsAreThoseOfItsLayout) {
  EXPECT_EQ(ChannelOrder::bs1770Weights(bufferOf(planarOf({1, 2, 5, 6, 3, 4}), 1)),
            (std::vector<float>{1, 1, 1.41253f, 1.41253f, 1, 0}));
  EXPECT_EQ(ChannelOrder::bs1770Weights(bufferOf(interleavedOf({4, 33}), 1)),
            (std::vector<float>{0, 1.41253f}));
  AudioFormat byTag =
      AudioFormat::planarFloat(48000, 3, AudioChannelLayout::ofTag(AudioChannelLayout::mpeg30A));
  EXPECT_EQ(ChannelOrder::bs1770Weights(bufferOf(byTag, 1)), (std::vector<float>{1, 1, 1}));
}

TEST(ChannelOrder, ABufferWithoutAFittingLayoutHasNoWeights) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(ChannelOrder::bs1770Weights(bufferOf(AudioFormat::planarFloat(48000, 2), 1)), std::nullopt);
  AudioFormat format = planarOf({9, 9, 9});
  format.channelCount = 2;
  EXPECT_EQ(ChannelOrder::bs1770Weights(bufferOf(format, 1)), std::nullopt);
  format.channelLayout = AudioChannelLayout{};
  EXPECT_EQ(ChannelOrder::bs1770Weights(bufferOf(format, 1)), std::nullopt);
  format.channelLayout = AudioChannelLayout::ofTag(0xFFFF0002);
  EXPECT_EQ(ChannelOrder::bs1770Weights(bufferOf(format, 1)), std::nullopt);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// --- Roles -----------------------------------------------------------------------------------------------

TEST(ChannelOrder, RolesListTheirCasesAndCarryTheirNames) {
  const auto cases = allCases<Role>();
  EXPECT_EQ(std::vector<Role>(cases.begin(), cases.end()),
            (std::vector<Role>{Role::frontLeft, Role::frontRight, Role::center, Role::lfe, Role::surroundLeft,
                               Role::surroundRight}));
  const Names names = {"frontLeft", "frontRight", "center", "lfe", "surroundLeft", "surroundRight"};
  for (std::size_t k = 0; k < cases.size(); ++k) {
    EXPECT_EQ(rawValue(cases[k]), names[k]);
    EXPECT_EQ(fromRawValue<Role>(names[k]), cases[k]);
  }
  EXPECT_EQ(fromRawValue<Role>("FrontLeft"), std::nullopt);
}

TEST(ChannelOrder, ThreeToSixChannelsHaveCanonicalRoles) {
  using R = Role;
  const std::map<std::int64_t, std::vector<Role>> table = {
      {3, {R::frontLeft, R::frontRight, R::center}},
      {4, {R::frontLeft, R::frontRight, R::surroundLeft, R::surroundRight}},
      {5, {R::frontLeft, R::frontRight, R::center, R::surroundLeft, R::surroundRight}},
      {6, {R::frontLeft, R::frontRight, R::center, R::lfe, R::surroundLeft, R::surroundRight}}};
  for (const auto& [count, roles] : table) EXPECT_EQ(ChannelOrder::canonicalRoles(count), roles) << count;
  for (const std::int64_t count :
       {std::int64_t{-1}, std::int64_t{0}, std::int64_t{1}, std::int64_t{2}, std::int64_t{7}, std::int64_t{8},
        std::numeric_limits<std::int64_t>::max()})
    EXPECT_EQ(ChannelOrder::canonicalRoles(count), std::nullopt) << count;
}

TEST(ChannelOrder, TheCanonicalFormatIsStandardAndLabelledOneToSix) {
  const std::map<std::int64_t, Labels> table = {
      {3, {1, 2, 3}}, {4, {1, 2, 5, 6}}, {5, {1, 2, 3, 5, 6}}, {6, {1, 2, 3, 4, 5, 6}}};
  const std::map<std::int64_t, std::uint32_t> tags = {
      {3, 113 << 16 | 3}, {4, 108 << 16 | 4}, {5, 117 << 16 | 5}, {6, 121 << 16 | 6}};
  for (const auto& [count, labels] : table) {
    const auto format = ChannelOrder::canonicalFormat(44100, count);
    ASSERT_TRUE(format) << count;
    EXPECT_EQ(format->sampleRate, 44100);
    EXPECT_EQ(format->channelCount, count);
    EXPECT_FALSE(format->isInterleaved);
    EXPECT_EQ(format->bytesPerFrame, 4u);
    ASSERT_TRUE(format->channelLayout);
    EXPECT_EQ(format->channelLayout->tag, tags.at(count));
    EXPECT_EQ(ChannelOrder::channelLabels(*format->channelLayout), labels);
  }
  for (const std::int64_t count : {-3, 0, 1, 2, 7, 8})
    EXPECT_EQ(ChannelOrder::canonicalFormat(44100, count), std::nullopt) << count;
}

// --- Permutation -----------------------------------------------------------------------------------------

TEST(ChannelOrder, PermutationsOfCommonOrders) {
  const auto permutation = [](const Labels& labels) {
    return ChannelOrder::permutationToCanonical(labels, static_cast<std::int64_t>(labels.size()));
  };
  EXPECT_EQ(permutation({1, 2, 3, 4, 5, 6}), (Permutation{0, 1, 2, 3, 4, 5}));
  EXPECT_EQ(permutation({1, 2, 5, 6, 3, 4}), (Permutation{0, 1, 4, 5, 2, 3}));
  EXPECT_EQ(permutation({3, 1, 2, 5, 6, 4}), (Permutation{1, 2, 0, 5, 3, 4}));
  EXPECT_EQ(permutation({1, 3, 2, 33, 34, 37}), (Permutation{0, 2, 1, 5, 3, 4}));
  EXPECT_EQ(permutation({1, 2, 11, 10}), (Permutation{0, 1, 3, 2}));
  EXPECT_EQ(permutation({3, 1, 2}), (Permutation{1, 2, 0}));
}

TEST(ChannelOrder, AChannelWithoutARoleLeavesAnotherRoleEmpty) {
  EXPECT_EQ(ChannelOrder::permutationToCanonical(Labels{1, 2, 3, 9}, 4), std::nullopt);
  EXPECT_EQ(ChannelOrder::permutationToCanonical(Labels{1, 2, 3, 4}, 4), std::nullopt);
  EXPECT_EQ(ChannelOrder::permutationToCanonical(Labels{1, 2, 4}, 3), std::nullopt);
}

TEST(ChannelOrder, LabelsThatAreNotThreeToSixOrNotOnePerChannelHaveNoPermutation) {
  EXPECT_EQ(ChannelOrder::permutationToCanonical(Labels{1, 2, 3}, 4), std::nullopt);
  EXPECT_EQ(ChannelOrder::permutationToCanonical(Labels{1, 2, 3, 4}, 3), std::nullopt);
  EXPECT_EQ(ChannelOrder::permutationToCanonical(Labels{1, 2}, 2), std::nullopt);
  EXPECT_EQ(ChannelOrder::permutationToCanonical(Labels{}, 0), std::nullopt);
  EXPECT_EQ(ChannelOrder::permutationToCanonical(Labels{}, -1), std::nullopt);
  EXPECT_EQ(ChannelOrder::permutationToCanonical(Labels{1, 2, 3, 4, 5, 6, 33}, 7), std::nullopt);
}

// The first of the two is taken, and then there are fewer channels left than roles.
TEST(ChannelOrder, TwoChannelsForOneRoleLeaveAnotherRoleEmpty) {
  EXPECT_EQ(ChannelOrder::permutationToCanonical(Labels{1, 2, 5, 10}, 4), std::nullopt);
  EXPECT_EQ(ChannelOrder::permutationToCanonical(Labels{10, 5, 1, 2, 6}, 5), std::nullopt);
  EXPECT_EQ(ChannelOrder::permutationToCanonical(Labels{1, 2, 3, 4, 5, 10}, 6), std::nullopt);
}

std::optional<Role> roleByHand(AudioChannelLabel label) {
  static const std::map<AudioChannelLabel, Role> table = {
      {1, Role::frontLeft},      {2, Role::frontRight},
      {3, Role::center},         {4, Role::lfe},
      {37, Role::lfe},           {5, Role::surroundLeft},
      {10, Role::surroundLeft},  {33, Role::surroundLeft},
      {6, Role::surroundRight},  {11, Role::surroundRight},
      {34, Role::surroundRight},
  };
  const auto found = table.find(label);
  return found == table.end() ? std::nullopt : std::optional(found->second);
}

// The lexicographically first choice of different sources, one for each role: tried one after the other.
std::optional<Permutation> permutationByTrying(const Labels& labels, const std::vector<Role>& roles) {
  Permutation choice(roles.size());
  const auto sources = static_cast<std::int64_t>(labels.size());
  for (;;) {
    bool fits = std::set<std::int64_t>(choice.begin(), choice.end()).size() == roles.size();
    for (std::size_t k = 0; k < roles.size(); ++k)
      fits = fits && roleByHand(labels[static_cast<std::size_t>(choice[k])]) == roles[k];
    if (fits) return choice;
    std::size_t k = roles.size();
    while (k > 0 && choice[k - 1] + 1 == sources) choice[--k] = 0;
    if (k == 0) return {};
    ++choice[k - 1];
  }
}

// Lists that often have a permutation: one label for most roles of the count, in any order.
Labels randomLabels(std::mt19937& rng) {
  const std::vector<Labels> spellings = {{1}, {2}, {3}, {4, 37}, {5, 10, 33}, {6, 11, 34}};
  const std::size_t count = 3 + rng() % 4;
  const auto roles = ChannelOrder::canonicalRoles(static_cast<std::int64_t>(count));
  Labels labels;
  for (const Role role : *roles) {
    const Labels& spelling = spellings[static_cast<std::size_t>(role)];
    const auto other = static_cast<AudioChannelLabel>(rng() % 45);
    labels.push_back(rng() % 25 == 0 ? other : spelling[rng() % spelling.size()]);
  }
  std::shuffle(labels.begin(), labels.end(), rng);
  return labels;
}

TEST(ChannelOrder, ThePermutationIsTheOneFoundByTrying) {
  std::mt19937 rng(3);
  int found = 0, absent = 0;
  for (int trial = 0; trial < 400; ++trial) {
    const Labels labels = randomLabels(rng);
    const auto count = static_cast<std::int64_t>(labels.size());
    const auto expected = permutationByTrying(labels, *ChannelOrder::canonicalRoles(count));
    ASSERT_EQ(ChannelOrder::permutationToCanonical(labels, count), expected)
        << testing::PrintToString(labels);
    ++(expected ? found : absent);
  }
  EXPECT_GT(found, 200);
  EXPECT_GT(absent, 20);
}

RC_GTEST_PROP(ChannelOrder, AnyLabelsGiveAPermutationOfAllChannelsOrNone, ()) {
  const auto labels = *rc::gen::container<Labels>(rc::gen::inRange<AudioChannelLabel>(0, 45));
  const auto count = static_cast<std::int64_t>(labels.size());
  auto permutation = ChannelOrder::permutationToCanonical(labels, count);
  if (!permutation) return;
  RC_ASSERT(count >= 3 && count <= 6);
  std::sort(permutation->begin(), permutation->end());
  for (std::int64_t k = 0; k < count; ++k) RC_ASSERT((*permutation)[static_cast<std::size_t>(k)] == k);
}

// --- Canonical copies ------------------------------------------------------------------------------------

TEST(ChannelOrder, ABufferInCanonicalOrderIsLeftAloneWithoutAWord) {
  expectUnchanged(bufferOf(planarOf({1, 2, 3, 4, 5, 6}), 10), "surrounds");
  expectUnchanged(bufferOf(planarOf({1, 2, 3, 37, 33, 34}), 10), "rear surrounds and the second LFE");
  expectUnchanged(bufferOf(*ChannelOrder::canonicalFormat(48000, 5), 10), "canonical format");
}

TEST(ChannelOrder, SurroundsBeforeCentreAndLFEAreCopiedIntoCanonicalOrder) {
  const Labels labels = {1, 2, 5, 6, 3, 4};
  for (const AudioFormat& format : {planarOf(labels), interleavedOf(labels)}) {
    const PCMBuffer buffer = bufferOf(format, 100);
    const Canonicalized result = canonicalizeWithLog(buffer);
    EXPECT_EQ(result.log, "🔀 Channel reorder (6ch): L R Ls Rs C LFE -> L R C LFE Ls Rs\n");
    ASSERT_TRUE(result.buffer);
    EXPECT_EQ(result.buffer->format(), ChannelOrder::canonicalFormat(48000, 6));
    EXPECT_EQ(result.buffer->frameLength(), 100);
    const std::size_t sources[] = {0, 1, 4, 5, 2, 3};
    for (std::size_t c = 0; c < 6; ++c)
      for (std::int64_t n = 0; n < 100; ++n)
        ASSERT_EQ(result.buffer->floats(c)[static_cast<std::size_t>(n)], sampleOf(sources[c], n))
            << c << " " << n;
  }
}

TEST(ChannelOrder, TheLineNamesSourcesByTheirRole) {
  EXPECT_EQ(canonicalizeWithLog(bufferOf(planarOf({37, 34, 10, 3, 2, 1}), 1)).log,
            "🔀 Channel reorder (6ch): LFE Rs Ls C R L -> L R C LFE Ls Rs\n");
  EXPECT_EQ(canonicalizeWithLog(bufferOf(planarOf({11, 33, 2, 1}), 1)).log,
            "🔀 Channel reorder (4ch): Rs Ls R L -> L R Ls Rs\n");
}

// So that the lines of several threads stay whole. A datagram is what one write sent.
TEST(ChannelOrder, EveryLineIsOneWrite) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
  const PCMBuffer buffer = bufferOf(planarOf({3, 2, 1}), 1);
  const int before = dup(STDERR_FILENO);
  dup2(ends[0], STDERR_FILENO);
  ChannelOrder::bs1770Weight(9);
  ChannelOrder::canonicalize(buffer);
  dup2(before, STDERR_FILENO);
  for (const std::string& line :
       {unmappedLine(9), std::string("🔀 Channel reorder (3ch): C R L -> L R C\n")}) {
    char text[200];
    const ssize_t length = recv(ends[1], text, sizeof text, MSG_DONTWAIT);
    EXPECT_EQ(std::string(text, static_cast<std::size_t>(std::max<ssize_t>(length, 0))), line);
  }
  for (const int descriptor : {before, ends[0], ends[1]}) close(descriptor);
}

TEST(ChannelOrder, ABufferThatCannotBeReorderedIsLeftAlone) {
  expectUnchanged(bufferOf(planarOf({1, 2, 3, 9}), 10), "no surrounds");
  expectUnchanged(bufferOf(planarOf({2, 1}), 10), "two channels");
  expectUnchanged(bufferOf(planarOf({2, 1, 3, 4, 5, 6, 33, 34}), 10), "eight channels");
  expectUnchanged(bufferOf(AudioFormat::planarFloat(48000, 6), 10), "no layout");
  expectUnchanged(bufferOf(planarOf({2, 1, 3}), 0), "no frames");

  AudioFormat format = planarOf({2, 1, 3});
  format.channelCount = 4;
  expectUnchanged(bufferOf(format, 10), "fewer labels than channels");
  format.channelLayout = AudioChannelLayout::ofTag(audioChannelLayoutTag(999, 4));
  expectUnchanged(bufferOf(format, 10), "unknown tag");

  format = planarOf({2, 1, 3});
  format.bytesPerFrame = 2;
  expectUnchanged(bufferOf(format, 10), "no 32-bit floats");
}

TEST(ChannelOrder, CanonicalizedBuffersHaveCanonicalLabelsAndTheSameSamples) {
  std::mt19937 rng(8);
  int copies = 0;
  for (int trial = 0; trial < 300; ++trial) {
    const Labels labels = randomLabels(rng);
    const auto count = static_cast<std::int64_t>(labels.size());
    const PCMBuffer buffer = bufferOf(trial % 2 ? planarOf(labels) : interleavedOf(labels), 1 + trial % 7);
    const auto permutation = ChannelOrder::permutationToCanonical(labels, count);
    const bool isIdentity = permutation && std::is_sorted(permutation->begin(), permutation->end());
    const Canonicalized result = canonicalizeWithLog(buffer);
    ASSERT_EQ(result.buffer.has_value(), permutation && !isIdentity) << testing::PrintToString(labels);
    ASSERT_EQ(result.log.empty(), !result.buffer);
    if (!result.buffer) continue;
    ++copies;

    const Labels canonical = *ChannelOrder::channelLabels(*result.buffer->format().channelLayout);
    ASSERT_EQ(result.buffer->frameLength(), buffer.frameLength());
    for (std::size_t c = 0; c < canonical.size(); ++c) {
      const auto source = static_cast<std::size_t>((*permutation)[c]);
      ASSERT_EQ(roleByHand(canonical[c]), roleByHand(labels[source]));
      for (std::int64_t n = 0; n < buffer.frameLength(); ++n)
        ASSERT_EQ(result.buffer->floats(c)[static_cast<std::size_t>(n)], sampleOf(source, n));
    }
    expectUnchanged(*result.buffer, "canonical already");
    for (std::size_t c = 0; c < labels.size(); ++c)  // the source is as it was
      for (std::int64_t n = 0; n < buffer.frameLength(); ++n)
        ASSERT_EQ((*buffer.floatChannelData())[c][n * buffer.stride()], sampleOf(c, n));
  }
  EXPECT_GT(copies, 100);
}

// --- Order in files --------------------------------------------------------------------------------------

TEST(ChannelOrder, WAVKeepsTheOrderOfTheSpeakerMask) {
  for (const Labels& labels :
       {Labels{1, 2, 3, 4, 5, 6}, Labels{1, 2, 3, 4, 33, 34}, Labels{1, 2, 3, 4, 33, 34, 5, 6},
        Labels{1, 2, 3, 4, 33, 34, 7, 8, 9, 5, 6}, Labels{4, 9, 5}})
    EXPECT_TRUE(ChannelOrder::wavPreservesChannelOrder(planarOf(labels))) << testing::PrintToString(labels);
}

TEST(ChannelOrder, WAVDoesNotKeepAnotherOrderOrOtherSpeakers) {
  for (const Labels& labels :
       {Labels{1, 2, 5, 6, 3, 4}, Labels{1, 3, 2}, Labels{1, 2, 3, 4, 5, 6, 33, 34}, Labels{1, 1, 2},
        Labels{1, 2, 37}, Labels{1, 2, 10, 11}, Labels{12, 13, 14}, Labels{0, 1, 2}, Labels{1, 2, 5, 9}})
    EXPECT_FALSE(ChannelOrder::wavPreservesChannelOrder(planarOf(labels))) << testing::PrintToString(labels);
}

TEST(ChannelOrder, NothingKnownAgainstAnOrderLetsWAVKeepIt) {
  EXPECT_TRUE(ChannelOrder::wavPreservesChannelOrder(planarOf({2, 1})));
  EXPECT_TRUE(ChannelOrder::wavPreservesChannelOrder(planarOf({42})));
  EXPECT_TRUE(ChannelOrder::wavPreservesChannelOrder(AudioFormat::planarFloat(48000, 6)));
  AudioFormat format = planarOf({3, 2, 1});
  format.channelCount = 4;
  EXPECT_TRUE(ChannelOrder::wavPreservesChannelOrder(format));
  format.channelLayout = AudioChannelLayout{};
  EXPECT_TRUE(ChannelOrder::wavPreservesChannelOrder(format));
}

// Every list of 3 different labels against the positions in the mask.
TEST(ChannelOrder, WAVOrderIsRisingPositionsInTheMask) {
  const std::map<AudioChannelLabel, int> positions = {{1, 0}, {2, 1}, {3, 2}, {4, 3}, {33, 4}, {34, 5},
                                                      {7, 6}, {8, 7}, {9, 8}, {5, 9}, {6, 10}};
  for (AudioChannelLabel a = 0; a < 40; ++a)
    for (AudioChannelLabel b = 0; b < 40; ++b)
      for (AudioChannelLabel c = 0; c < 40; ++c) {
        const bool areKnown = positions.count(a) && positions.count(b) && positions.count(c);
        const bool rises = areKnown && positions.at(a) < positions.at(b) && positions.at(b) < positions.at(c);
        ASSERT_EQ(ChannelOrder::wavPreservesChannelOrder(planarOf({a, b, c})), rises)
            << a << " " << b << " " << c;
      }
}

TEST(ChannelOrder, EightNamesThatBeginWithTheFrontAndTheLFEAreSMPTEOrdered) {
  const Names smpte = {"L", "R", "C", "LFE", "Ls", "Rs", "Lb", "Rb"};
  EXPECT_TRUE(ChannelOrder::is71SMPTEOrdered(smpte));
  EXPECT_TRUE(ChannelOrder::is71SMPTEOrdered(Names{"L", "R", "C", "LFE", "a", "b", "c", "d"}));
  EXPECT_FALSE(ChannelOrder::is71SMPTEOrdered(Names(smpte.begin(), smpte.end() - 1)));
  Names nine = smpte;
  nine.push_back("M");
  EXPECT_FALSE(ChannelOrder::is71SMPTEOrdered(nine));
  EXPECT_FALSE(ChannelOrder::is71SMPTEOrdered(Names{}));
  for (std::size_t k = 0; k < 4; ++k) {
    Names other = smpte;
    other[k] = "Ls";
    EXPECT_FALSE(ChannelOrder::is71SMPTEOrdered(other)) << k;
  }
}

}  // namespace
}  // namespace vellum
