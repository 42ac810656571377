#include "VellumCore/GatedLoudness.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Signals.hpp"
#include "VellumCore/LoudnessProcessor.hpp"

namespace vellum {
namespace {

using namespace test;
using namespace GatedLoudness;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

bool everyBlock(std::int64_t) {
  return true;
}

double loudnessOf(const std::vector<double>& blockPowers) {
  return GatedLoudness::integratedLUFS(blockPowers, everyBlock);
}

// Powers from -90 to 0 LUFS or so, a few of them zero.
std::vector<double> randomPowers(std::mt19937& rng, std::size_t count) {
  std::vector<double> powers(count);
  for (double& power : powers) power = rng() % 16 == 0 ? 0.0 : std::pow(10.0, uniform(rng, -9, 0));
  return powers;
}

// Both gates one after the other over the blocks as they come, in wide numbers.
double plainLoudness(const std::vector<double>& powers, const BlockPredicate& include,
                     const GatedLoudness::Settings& settings) {
  std::vector<long double> kept;
  for (std::size_t k = 0; k < powers.size(); ++k)
    if (powers[k] > settings.absoluteGatePower && include(static_cast<std::int64_t>(k)))
      kept.push_back(powers[k]);
  long double sum = 0;
  for (long double power : kept) sum += power;
  const long double threshold =
      sum / static_cast<long double>(kept.size()) * static_cast<long double>(settings.relativeGateFactor);
  long double gatedSum = 0;
  int gatedCount = 0;
  for (long double power : kept)
    if (power > threshold) gatedSum += power, ++gatedCount;
  if (gatedCount == 0) return -infinity;
  return static_cast<double>(10 * std::log10(gatedSum / gatedCount) - 0.691L);
}

TEST(GatedLoudness, GatesStandAtMinus70LUFSAndMinus10LU) {
  const GatedLoudness::Settings settings;
  EXPECT_EQ(settings.absoluteGatePower, 1.1724653045822981e-07);
  EXPECT_NEAR(settings.absoluteGatePower, std::pow(10.0, (-70 + 0.691) / 10), 1e-22);
  EXPECT_EQ(settings.relativeGateFactor, 0.1);
}

TEST(GatedLoudness, NothingAboveTheAbsoluteGateIsMinusInfinity) {
  EXPECT_EQ(loudnessOf({}), -infinity);
  EXPECT_EQ(gatedBlockCount({}, everyBlock), 0);
  const std::vector<double> quiet = {0.0, 1e-9, TwoStageGate::absoluteThreshold, 1e-7, -1.0};
  EXPECT_EQ(loudnessOf(quiet), -infinity);
  EXPECT_EQ(gatedBlockCount(quiet, everyBlock), 0);
}

TEST(GatedLoudness, BlockExactlyAtTheAbsoluteGateIsNotCounted) {
  const double justAbove = std::nextafter(TwoStageGate::absoluteThreshold, 1.0);
  const std::vector<double> powers = {TwoStageGate::absoluteThreshold, justAbove,
                                      TwoStageGate::absoluteThreshold};
  EXPECT_EQ(gatedBlockCount(powers, everyBlock), 1);
  EXPECT_NEAR(loudnessOf(powers), -70.0, 1e-9);
}

TEST(GatedLoudness, BlockExactlyAtTheRelativeGateStaysOut) {
  // Mean 10, threshold 10 x 0.1 = 1 exactly.
  EXPECT_DOUBLE_EQ(loudnessOf({19.0, 1.0}), 10 * std::log10(19.0) - 0.691);
  EXPECT_DOUBLE_EQ(loudnessOf({1.0, 19.0}), 10 * std::log10(19.0) - 0.691);
}

TEST(GatedLoudness, CountKnowsNoRelativeGate) {
  const std::vector<double> powers = {19.0, 1.0, 0.001, 0.0};
  EXPECT_EQ(gatedBlockCount(powers, everyBlock), 3);
  EXPECT_DOUBLE_EQ(loudnessOf(powers), 10 * std::log10((19.0 + 1.0) / 2) - 0.691);
}

TEST(GatedLoudness, PredicateIsAskedOnceInOrderAboutBlocksAboveTheGateOnly) {
  const std::vector<double> powers = {0.5, 0.0, TwoStageGate::absoluteThreshold, 0.25, infinity, nan, 1e-3};
  std::vector<std::int64_t> asked;
  const auto note = [&](std::int64_t index) {
    asked.push_back(index);
    return true;
  };
  GatedLoudness::integratedLUFS(powers, note);
  EXPECT_EQ(asked, (std::vector<std::int64_t>{0, 3, 6}));
  asked.clear();
  EXPECT_EQ(gatedBlockCount(powers, note), 3);
  EXPECT_EQ(asked, (std::vector<std::int64_t>{0, 3, 6}));
}

// Selected blocks read as if the others had never been: the relative gate is their own.
TEST(GatedLoudness, SelectionReadsAsAProgrammeOfItsOwn) {
  std::mt19937 rng(1);
  const std::vector<double> powers = randomPowers(rng, 500);
  const auto inChapter = [](std::int64_t index) { return index >= 120 && index < 310; };
  const std::vector<double> chapter(powers.begin() + 120, powers.begin() + 310);
  EXPECT_EQ(GatedLoudness::integratedLUFS(powers, inChapter), loudnessOf(chapter));
  EXPECT_EQ(gatedBlockCount(powers, inChapter), gatedBlockCount(chapter, everyBlock));
  EXPECT_NE(loudnessOf(powers), loudnessOf(chapter));
}

TEST(GatedLoudness, NothingIncludedIsMinusInfinity) {
  const auto nothing = [](std::int64_t) { return false; };
  const std::vector<double> powers(10, 0.5);
  EXPECT_EQ(GatedLoudness::integratedLUFS(powers, nothing), -infinity);
  EXPECT_EQ(gatedBlockCount(powers, nothing), 0);
}

TEST(GatedLoudness, EqualsPlainGatingOfRandomBlocks) {
  std::mt19937 rng(2);
  for (int trial = 0; trial < 300; ++trial) {
    const std::vector<double> powers = randomPowers(rng, 1 + rng() % 400);
    const std::int64_t step = 1 + static_cast<std::int64_t>(rng() % 5);
    const auto include = [step](std::int64_t index) { return index % step == 0; };
    const GatedLoudness::Settings settings{.absoluteGatePower = std::pow(10.0, uniform(rng, -8, -1)),
                                           .relativeGateFactor = uniform(rng, 0, 1.25)};
    const double expected = plainLoudness(powers, include, settings);
    const double measured = GatedLoudness::integratedLUFS(powers, include, settings);
    if (expected == -infinity)
      EXPECT_EQ(measured, -infinity) << "trial " << trial;
    else
      EXPECT_NEAR(measured, expected, 1e-10) << "trial " << trial;
  }
}

TEST(GatedLoudness, OrderOfTheBlocksDoesNotMatter) {
  std::mt19937 rng(3);
  std::vector<double> powers = randomPowers(rng, 1000);
  const double inOrder = loudnessOf(powers);
  for (int trial = 0; trial < 5; ++trial) {
    std::shuffle(powers.begin(), powers.end(), rng);
    EXPECT_EQ(loudnessOf(powers), inOrder);  // sorted before they are added up
  }
}

TEST(GatedLoudness, OtherGatesAreTaken) {
  const std::vector<double> powers = {1.0, 0.5, 0.01, 1e-9};
  EXPECT_DOUBLE_EQ(GatedLoudness::integratedLUFS(powers, everyBlock,
                                                 {.absoluteGatePower = 1e-10, .relativeGateFactor = 0.0}),
                   10 * std::log10((1.0 + 0.5 + 0.01 + 1e-9) / 4) - 0.691);
  EXPECT_EQ(gatedBlockCount(powers, everyBlock, {.absoluteGatePower = 0.01, .relativeGateFactor = 0.1}), 2);
  EXPECT_DOUBLE_EQ(GatedLoudness::integratedLUFS(powers, everyBlock,
                                                 {.absoluteGatePower = 0.1, .relativeGateFactor = 0.7}),
                   10 * std::log10(1.0) - 0.691);
}

// A factor of 1 puts the gate onto the mean itself, which equal blocks do not exceed.
TEST(GatedLoudness, NothingAboveTheRelativeGateIsMinusInfinity) {
  const std::vector<double> equal(8, 0.25);
  const GatedLoudness::Settings settings{.absoluteGatePower = TwoStageGate::absoluteThreshold,
                                         .relativeGateFactor = 1.0};
  EXPECT_EQ(GatedLoudness::integratedLUFS(equal, everyBlock, settings), -infinity);
  EXPECT_EQ(gatedBlockCount(equal, everyBlock, settings), 8);
}

TEST(GatedLoudness, LoudnessNeverFallsBelowItsFloor) {
  const GatedLoudness::Settings settings{.absoluteGatePower = 0, .relativeGateFactor = 0.1};
  EXPECT_DOUBLE_EQ(GatedLoudness::integratedLUFS(std::vector<double>(5, 1e-14), everyBlock, settings),
                   -100.691);
}

TEST(GatedLoudness, PowersThatAreNotFiniteNeverCount) {
  const std::vector<double> powers = {nan, 0.5, infinity, 0.25, -infinity, nan};
  EXPECT_EQ(gatedBlockCount(powers, everyBlock), 2);
  EXPECT_DOUBLE_EQ(loudnessOf(powers), 10 * std::log10(0.375) - 0.691);
  EXPECT_EQ(loudnessOf({nan, infinity}), -infinity);
}

// --- Against the meter -----------------------------------------------------------------------------------

// Ten seconds whose level moves over 80 dB from one tenth of a second to the next, and a part of a block.
Audio movingProgramme(std::mt19937& rng, std::size_t channelCount) {
  Audio audio;
  for (int block = 0; block < 100; ++block)
    audio.append(noiseAudio(rng, channelCount, 4800, amplitudeOf(uniform(rng, -80, 0))));
  audio.append(noiseAudio(rng, channelCount, 1234, 1.0));
  return audio;
}

TEST(GatedLoudness, MetersOwnHistoryReadsAsTheMeter) {
  for (unsigned seed = 1; seed <= 4; ++seed) {
    std::mt19937 rng(seed);
    const Audio audio = movingProgramme(rng, 2);
    LoudnessProcessor meter({.sampleRate = 48000,
                             .channelCount = 2,
                             .precomputedSpeechHistory = std::nullopt,
                             .channelWeights = std::nullopt});
    meter.setCollectHistory(true);
    feed(meter, audio);
    meter.flushPartialBlock();
    ASSERT_EQ(meter.blockPowerHistory().size(), 101u);
    ASSERT_TRUE(std::isfinite(meter.integratedLUFS()));
    EXPECT_NEAR(GatedLoudness::integratedLUFS(meter.blockPowerHistory(), everyBlock), meter.integratedLUFS(),
                1e-9)
        << "seed " << seed;
  }
}

// The meter's speech-gated loudness is the same gating of the blocks that it took for speech.
TEST(GatedLoudness, SpeechBlocksOfAMeterReadAsItsSpeechGatedLoudness) {
  std::mt19937 rng(5);
  const Audio audio = movingProgramme(rng, 1);
  std::vector<bool> speech;
  for (int block = 0; block < 101; ++block) speech.push_back(rng() % 3 == 0);
  LoudnessProcessor meter({.sampleRate = 48000,
                           .channelCount = 1,
                           .precomputedSpeechHistory = speech,
                           .channelWeights = std::nullopt});
  meter.setCollectHistory(true);
  feed(meter, audio);
  meter.flushPartialBlock();
  const auto isSpeech = [&](std::int64_t index) { return speech[static_cast<std::size_t>(index)]; };
  ASSERT_TRUE(std::isfinite(meter.speechGatedLUFS()));
  EXPECT_NEAR(GatedLoudness::integratedLUFS(meter.blockPowerHistory(), isSpeech), meter.speechGatedLUFS(),
              1e-9);
}

}  // namespace
}  // namespace vellum
