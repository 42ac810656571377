#include "VellumCore/ChannelLevels.hpp"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "Support/AllocationCounter.hpp"
#include "Support/Signals.hpp"

namespace vellum {
namespace {

using namespace test;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

TEST(ChannelLevels, SineStandsThreeDecibelsUnderItsPeak) {
  const Audio audio = sineAudio(2, 48000, 1, 1000, -20);
  ChannelLevels levels(2);
  levels.add(audio.pointers(), audio.frameCount());
  EXPECT_NEAR(levels.samplePeakDBFS(), -20, 1e-4);
  EXPECT_NEAR(levels.rmsDBFS(0), -20 + 20 * std::log10(std::sqrt(0.5)), 1e-4);
  EXPECT_EQ(levels.nonFiniteSamples(), 0);
}

TEST(ChannelLevels, AnySplitReadsAsTheWhole) {
  std::mt19937 rng(5);
  const Audio audio = noiseAudio(rng, 3, 100000, 0.5);
  ChannelLevels whole(3);
  whole.add(audio.pointers(), audio.frameCount());
  for (int trial = 0; trial < 10; ++trial) {
    ChannelLevels pieces(3);
    std::int64_t offset = 0;
    for (std::int64_t n : randomSplits(rng, audio.frameCount())) {
      pieces.add(audio.pointers(offset), n);
      offset += n;
    }
    EXPECT_EQ(pieces.frameCount(), 100000);
    EXPECT_EQ(pieces.samplePeakDBFS(), whole.samplePeakDBFS());
    for (std::size_t c = 0; c < 3; ++c) EXPECT_NEAR(pieces.rmsDBFS(c), whole.rmsDBFS(c), 1e-6);
  }
}

TEST(ChannelLevels, SilenceAndNothingAreMinusInfinity) {
  ChannelLevels levels(1);
  EXPECT_EQ(levels.samplePeakDBFS(), -infinity);
  EXPECT_EQ(levels.rmsDBFS(0), -infinity);
  const Audio silence(1, 100);
  levels.add(silence.pointers(), 100);
  EXPECT_EQ(levels.samplePeakDBFS(), -infinity);
  EXPECT_EQ(levels.rmsDBFS(0), -infinity);
}

TEST(ChannelLevels, AbsentChannelCountsAsSilence) {
  const Audio audio = sineAudio(1, 48000, 1, 1000, 0);
  ChannelLevels levels(1);
  levels.add(audio.pointers(), 48000);
  const float* absent = nullptr;
  levels.add(std::span(&absent, 1), 48000);
  EXPECT_NEAR(levels.rmsDBFS(0), 20 * std::log10(0.5), 1e-4);
}

TEST(ChannelLevels, SamplesThatAreNotFiniteAreCountedAndLeaveNoRMS) {
  Audio audio = sineAudio(2, 48000, 0.1, 1000, -6);
  audio.channels[0][7] = nan;
  audio.channels[0][8] = infinity;
  audio.channels[0][4000] = -infinity;
  ChannelLevels levels(2);
  levels.add(audio.pointers(), audio.frameCount());
  EXPECT_EQ(levels.nonFiniteSamples(), 3);
  EXPECT_EQ(levels.samplePeakDBFS(), infinity);
  EXPECT_EQ(levels.rmsDBFS(0), -infinity);
  EXPECT_NEAR(levels.rmsDBFS(1), -9.01, 0.01);
  levels.add(audio.pointers(), audio.frameCount());
  EXPECT_EQ(levels.nonFiniteSamples(), 6);
}

TEST(ChannelLevels, LargestSamplesAreFinite) {
  Audio audio(1, 100);
  audio.channels[0].assign(100, std::numeric_limits<float>::max());
  ChannelLevels levels(1);
  levels.add(audio.pointers(), 100);
  EXPECT_EQ(levels.nonFiniteSamples(), 0);
  EXPECT_NEAR(levels.rmsDBFS(0), 20 * std::log10(std::numeric_limits<float>::max()), 1e-3);
}

TEST(ChannelLevels, WrongNumberOfPointersStopsTheProgram) {
  const Audio audio(1, 10);
  ChannelLevels levels(2);
  EXPECT_DEATH(levels.add(audio.pointers(), 10), "one pointer per channel");
  EXPECT_DEATH(ChannelLevels(-1), "must not be negative");
}

TEST(ChannelLevels, AddAllocatesNothing) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "a sanitizer owns the allocator";
  const Audio audio = sineAudio(2, 48000, 0.1, 1000, -20);
  const auto pointers = audio.pointers();
  ChannelLevels levels(2);
  const AllocationCounter allocations;
  levels.add(pointers, 4800);
  EXPECT_EQ(allocations.count(), 0);
}

}  // namespace
}  // namespace vellum
