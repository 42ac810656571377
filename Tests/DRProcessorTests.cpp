#include "VellumCore/DRProcessor.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Support/AllocationCounter.hpp"
#include "Support/Signals.hpp"

namespace vellum {
namespace {

using namespace test;
using namespace DRProcessor;

using Figures = std::vector<std::int64_t>;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

// A rate of 1 Hz has blocks of 3 frames: a programme of many blocks stays readable.
constexpr double threeFrameBlocks = 1.0;

std::vector<float> rawOf(const Audio& audio, double sampleRate) {
  BlockMeter meter(sampleRate, static_cast<std::int64_t>(audio.channels.size()));
  meter.add(audio.pointers(), audio.frameCount());
  return meter.channelDRsRaw();
}

// One channel of constant blocks: block b holds 3 samples of magnitudes[b].
Audio constantBlocks(const std::vector<float>& magnitudes) {
  Audio audio(1, 0);
  for (float magnitude : magnitudes) audio.channels[0].insert(audio.channels[0].end(), 3, magnitude);
  return audio;
}

// The figure of one channel from its samples, step by step in wide numbers.
double plainDR(const std::vector<float>& samples, double sampleRate) {
  const auto blockSize = std::max<std::size_t>(1, static_cast<std::size_t>(sampleRate * 3.0));
  const std::size_t nBlocks = std::max<std::size_t>(1, samples.size() / blockSize);
  std::vector<long double> peaks, squares;  // squares: of the block's RMS
  for (std::size_t b = 0; b < nBlocks; ++b) {
    const std::size_t end = std::min((b + 1) * blockSize, samples.size());
    long double peak = 0, sum = 0;
    for (std::size_t i = b * blockSize; i < end; ++i) {
      const long double x = samples[i];
      peak = std::max(peak, std::abs(x));
      sum += x * x;
    }
    peaks.push_back(peak);
    squares.push_back(std::max(2 * sum / static_cast<long double>(end - b * blockSize), 1e-12L));
  }
  std::sort(peaks.begin(), peaks.end(), std::greater<>());
  std::sort(squares.begin(), squares.end(), std::greater<>());
  const std::size_t n = std::max<std::size_t>(1, (2 * nBlocks + 5) / 10);  // a fifth, rounded
  long double top = 0;
  for (std::size_t b = 0; b < n; ++b) top += squares[b];
  const long double rmsTop = std::sqrt(top / static_cast<long double>(n));
  const long double peak2 = std::max(peaks[nBlocks >= 2 ? 1 : 0], 1e-12L);
  return static_cast<double>(20 * std::log10(peak2) - 20 * std::log10(rmsTop));
}

// Noise whose level moves over 40 dB from one short stretch to the next.
Audio movingNoise(std::mt19937& rng, std::size_t channelCount, std::int64_t frameCount) {
  Audio audio = noiseAudio(rng, channelCount, frameCount, 1.0);
  for (auto& channel : audio.channels)
    for (std::size_t start = 0; start < channel.size();) {
      const std::size_t end = std::min(start + 1 + rng() % 200, channel.size());
      const auto gain = static_cast<float>(amplitudeOf(uniform(rng, -40, 0)));
      for (; start < end; ++start) channel[start] *= gain;
    }
  return audio;
}

// --- One channel -----------------------------------------------------------------------------------------

TEST(DRProcessor, EqualsThePlainFigureOnRandomAudio) {
  std::mt19937 rng(1);
  for (double sampleRate : {0.1, 0.5, 1.0, 7.0, 100.0, 8000.0})
    for (int trial = 0; trial < 20; ++trial) {
      const Audio audio = movingNoise(rng, 2, 1 + static_cast<std::int64_t>(rng() % 60000));
      const std::vector<float> raw = rawOf(audio, sampleRate);
      ASSERT_EQ(raw.size(), 2u);
      for (std::size_t c = 0; c < 2; ++c)
        ASSERT_NEAR(raw[c], plainDR(audio.channels[c], sampleRate), 1e-3)
            << sampleRate << " Hz, " << audio.frameCount() << " frames";
    }
}

TEST(DRProcessor, SelectionShorterThanABlockIsOneBlock) {
  const Audio audio = sineAudio(1, 48000, 1.0, 1000, -6);
  Audio withClick = audio;
  withClick.channels[0][100] = 1.0f;
  // Its own peak counts, as there is no second one: 0 dBFS over a sine's RMS that reads -6 dB.
  EXPECT_NEAR(rawOf(withClick, 48000)[0], 6.0, 1e-2);
  EXPECT_NEAR(rawOf(audio, 48000)[0], 0.0, 1e-3);
}

TEST(DRProcessor, SteadyFullScaleSineReadsZeroAndIsReportedAsOne) {
  const Audio audio = sineAudio(2, 48000, 12.0, 1000, 0);
  for (float raw : rawOf(audio, 48000)) EXPECT_NEAR(raw, 0.0, 1e-4);
  EXPECT_EQ(computeDR(audio.channels, 48000), 1);
  EXPECT_EQ(computeDRPerChannel(audio.channels, 48000), (Figures{1, 1}));
}

TEST(DRProcessor, LevelDoesNotMatter) {
  std::mt19937 rng(2);
  const Audio loud = movingNoise(rng, 1, 50000);
  Audio quiet = loud;
  for (float& sample : quiet.channels[0]) sample *= 0.0625f;
  EXPECT_NEAR(rawOf(quiet, 1000)[0], rawOf(loud, 1000)[0], 1e-4);
}

TEST(DRProcessor, SecondHighestBlockPeakCounts) {
  Audio audio = constantBlocks(std::vector<float>(10, 0.1f));
  const auto clickedBlock = [](double peak) { return 2 * (peak * peak + 0.01 + 0.01) / 3; };
  audio.channels[0][4] = 0.5f;  // one click: its block's peak is passed over, its RMS is not
  double top = (clickedBlock(0.5) + 0.02) / 2;
  EXPECT_NEAR(rawOf(audio, threeFrameBlocks)[0], 20 * std::log10(0.1) - 10 * std::log10(top), 1e-4);
  audio.channels[0][20] = -0.4f;  // a second one, in another block: now it counts
  top = (clickedBlock(0.5) + clickedBlock(0.4)) / 2;
  EXPECT_NEAR(rawOf(audio, threeFrameBlocks)[0], 20 * std::log10(0.4) - 10 * std::log10(top), 1e-4);
}

TEST(DRProcessor, TwoClicksInOneBlockAreOnePeak) {
  Audio audio = constantBlocks(std::vector<float>(5, 0.1f));
  audio.channels[0][6] = 0.5f;
  audio.channels[0][7] = 0.5f;
  const double top = 2 * (0.25 + 0.25 + 0.01) / 3;
  EXPECT_NEAR(rawOf(audio, threeFrameBlocks)[0], 20 * std::log10(0.1) - 10 * std::log10(top), 1e-4);
}

TEST(DRProcessor, LoudestFifthIsRounded) {
  struct Case {
    std::size_t blocks, loudest;
  };
  for (const Case& c : {Case{1, 1}, {2, 1}, {7, 1}, {8, 2}, {10, 2}, {12, 2}, {13, 3}, {17, 3}, {18, 4}}) {
    std::vector<float> magnitudes;
    double top = 0;
    for (std::size_t b = 0; b < c.blocks; ++b) {
      magnitudes.push_back(1.0f / static_cast<float>(b + 1));
      if (b < c.loudest) top += 2.0 / static_cast<double>((b + 1) * (b + 1));
    }
    const double peak2 = c.blocks >= 2 ? 0.5 : 1.0;
    const double expected = 20 * std::log10(peak2) - 10 * std::log10(top / static_cast<double>(c.loudest));
    EXPECT_NEAR(rawOf(constantBlocks(magnitudes), threeFrameBlocks)[0], expected, 1e-4)
        << c.blocks << " blocks";
    std::reverse(magnitudes.begin(), magnitudes.end());
    EXPECT_NEAR(rawOf(constantBlocks(magnitudes), threeFrameBlocks)[0], expected, 1e-4)
        << c.blocks << " blocks, rising";
  }
}

TEST(DRProcessor, SamplesAfterTheLastWholeBlockAreIgnored) {
  Audio audio = constantBlocks({0.1f, 0.2f, 0.3f});
  const float raw = rawOf(audio, threeFrameBlocks)[0];
  audio.channels[0].insert(audio.channels[0].end(), 2, 1.0f);
  EXPECT_EQ(rawOf(audio, threeFrameBlocks)[0], raw);
  audio.channels[0].push_back(1.0f);  // the block is whole now
  EXPECT_NE(rawOf(audio, threeFrameBlocks)[0], raw);
}

// sampleRate x 3, the rest cut off, at least one frame.
TEST(DRProcessor, BlockIsThreeSecondsOfWholeFrames) {
  struct Case {
    double sampleRate;
    std::int64_t frames;
  };
  for (const Case& c : {Case{0.1, 1}, {0.5, 1}, {0.9, 2}, {1.0, 3}, {44100.0, 132300}, {11025.6, 33076}}) {
    Audio audio(1, c.frames * 2);
    auto& samples = audio.channels[0];
    samples.assign(samples.size(), 0.25f);
    samples[static_cast<std::size_t>(c.frames - 1)] = 1.0f;  // last of the first block: passed over
    EXPECT_LT(rawOf(audio, c.sampleRate)[0], 0.0f) << c.sampleRate << " Hz";
    samples[static_cast<std::size_t>(c.frames)] = 1.0f;  // first of the second: no longer alone
    EXPECT_NEAR(rawOf(audio, c.sampleRate)[0], plainDR(samples, c.sampleRate), 1e-3) << c.sampleRate;
    EXPECT_GT(rawOf(audio, c.sampleRate)[0], -3.1f) << c.sampleRate << " Hz";
  }
}

// Peak -240 dB, RMS -120 dB: each level stands on its own floor.
TEST(DRProcessor, SilenceReadsTheDifferenceOfTheFloors) {
  EXPECT_NEAR(rawOf(Audio(1, 100), threeFrameBlocks)[0], -120.0, 1e-3);
  for (float nearlySilent : {8e-7f, 6e-7f, 1e-9f, 2e-12f, 1e-13f}) {
    const Audio audio = constantBlocks(std::vector<float>(4, nearlySilent));
    EXPECT_NEAR(rawOf(audio, threeFrameBlocks)[0], plainDR(audio.channels[0], threeFrameBlocks), 1e-3)
        << nearlySilent;
  }
  EXPECT_EQ(computeDR(Audio(2, 100).channels, threeFrameBlocks), 1);
}

// --- Whole figures ---------------------------------------------------------------------------------------

TEST(DRProcessor, FiguresAreRoundedDownAndAtLeastOne) {
  EXPECT_EQ(perChannelDR(std::vector{7.999f, 8.0f, 1.5f, 0.99f, 0.0f, -120.0f}), (Figures{7, 8, 1, 1, 1, 1}));
  EXPECT_TRUE(perChannelDR({}).empty());
}

TEST(DRProcessor, OverallIsTheMeanOfUnroundedFiguresRoundedDown) {
  EXPECT_EQ(overallDR(std::vector{7.6f, 8.6f}), 8);  // 7.5 of the rounded ones would be 7
  EXPECT_EQ(overallDR(std::vector{7.4f, 8.4f}), 7);
  EXPECT_EQ(overallDR(std::vector{-120.0f, 20.0f}), 1);
  EXPECT_EQ(overallDR({}), 0);
}

TEST(DRProcessor, ChannelsAreMeasuredOneByOneInOrder) {
  std::mt19937 rng(3);
  const Audio audio = movingNoise(rng, 5, 40000);
  const Figures figures = computeDRPerChannel(audio.channels, 400);
  ASSERT_EQ(figures.size(), 5u);
  double sum = 0;
  for (std::size_t c = 0; c < 5; ++c) {
    const double plain = plainDR(audio.channels[c], 400);
    EXPECT_EQ(figures[c], std::max(1.0, std::floor(plain)));
    sum += plain;
  }
  EXPECT_EQ(computeDR(audio.channels, 400), std::max(1.0, std::floor(sum / 5)));
}

// --- Selections ------------------------------------------------------------------------------------------

TEST(DRProcessor, BothFormsOfASelectionReadTheSame) {
  std::mt19937 rng(4);
  const Audio audio = movingNoise(rng, 3, 40000);
  const auto pointers = audio.pointers();
  EXPECT_EQ(computeDR(pointers, 3, 40000, 400), computeDR(audio.channels, 400));
  EXPECT_EQ(computeDRPerChannel(pointers, 3, 40000, 400), computeDRPerChannel(audio.channels, 400));
}

TEST(DRProcessor, PointerFormTakesTheFirstChannels) {
  Audio audio = sineAudio(1, 48000, 6, 1000, 0);
  audio.append(Audio(1, 48000 * 6));
  const float* channels[] = {audio.channels[0].data(), nullptr};
  EXPECT_EQ(computeDRPerChannel(channels, 1, 48000, 48000).size(), 1u);
  EXPECT_EQ(computeDRPerChannel(channels, 2, 48000, 48000).size(), 2u);
  EXPECT_DEATH(computeDRPerChannel(channels, 3, 48000, 48000), "one pointer per channel");
  EXPECT_DEATH(computeDR(channels, 3, 48000, 48000), "one pointer per channel");
}

TEST(DRProcessor, NothingToMeasureIsZeroAndNoFigures) {
  const std::vector<std::vector<float>> noChannels, noFrames(2), oneFrame(2, {0.5f});
  EXPECT_EQ(computeDR(noChannels, 48000), 0);
  EXPECT_EQ(computeDR(noFrames, 48000), 0);
  EXPECT_TRUE(computeDRPerChannel(noChannels, 48000).empty());
  EXPECT_TRUE(computeDRPerChannel(noFrames, 48000).empty());
  for (double sampleRate : {0.0, -48000.0, static_cast<double>(nan)}) {
    EXPECT_EQ(computeDR(oneFrame, sampleRate), 0) << sampleRate;
    EXPECT_TRUE(computeDRPerChannel(oneFrame, sampleRate).empty()) << sampleRate;
  }
  EXPECT_EQ(computeDRPerChannel(oneFrame, 48000).size(), 2u);

  const float sample = 0.5f;
  const float* channels[] = {&sample};
  EXPECT_EQ(computeDR(channels, 1, 0, 48000), 0);
  EXPECT_EQ(computeDR(channels, 1, -1, 48000), 0);
  EXPECT_EQ(computeDR(channels, 0, 1, 48000), 0);
  EXPECT_EQ(computeDR(channels, -1, 1, 48000), 0);
  EXPECT_EQ(computeDR(channels, 1, 1, 0), 0);
  EXPECT_TRUE(computeDRPerChannel(channels, 1, 0, 48000).empty());
  EXPECT_EQ(computeDRPerChannel(channels, 1, 1, 48000).size(), 1u);
}

// The first channel says how long a selection is; longer ones are read that far.
TEST(DRProcessor, ArrayFormTakesTheFirstChannelsLength) {
  const std::vector<float> three(9, 0.1f);
  std::vector<float> longer = three;
  longer.insert(longer.end(), 9, 1.0f);
  EXPECT_EQ(computeDRPerChannel(std::vector{three, longer}, threeFrameBlocks),
            computeDRPerChannel(std::vector{three, three}, threeFrameBlocks));
  EXPECT_DEATH(computeDR(std::vector{longer, three}, threeFrameBlocks), "as long as the first");
}

// --- Streaming -------------------------------------------------------------------------------------------

TEST(DRProcessor, AnySplitReadsAsTheWhole) {
  std::mt19937 rng(5);
  const Audio audio = movingNoise(rng, 2, 60000);
  const std::vector<float> whole = rawOf(audio, 400);
  std::vector<std::vector<std::int64_t>> splittings = {equalSplits(60000, 1), equalSplits(60000, 1199),
                                                       equalSplits(60000, 1200), equalSplits(60000, 1201)};
  for (int trial = 0; trial < 20; ++trial) splittings.push_back(randomSplits(rng, 60000));
  for (const auto& splits : splittings) {
    BlockMeter meter(400, 2);
    std::int64_t offset = 0;
    for (std::int64_t n : splits) {
      meter.add(audio.pointers(offset), n);
      offset += n;
    }
    const std::vector<float> raw = meter.channelDRsRaw();
    ASSERT_EQ(raw.size(), 2u);
    for (std::size_t c = 0; c < 2; ++c) EXPECT_NEAR(raw[c], whole[c], 1e-5);
  }
}

TEST(DRProcessor, ReadingDoesNotDisturbTheStream) {
  std::mt19937 rng(6);
  const Audio audio = movingNoise(rng, 1, 5000);
  BlockMeter meter(400, 1);
  EXPECT_TRUE(meter.channelDRsRaw().empty());
  meter.add(audio.pointers(), 0);
  EXPECT_TRUE(meter.channelDRsRaw().empty());
  for (std::int64_t offset = 0; offset < 5000; offset += 500) {
    meter.add(audio.pointers(offset), 500);
    const std::vector<float> soFar(audio.channels[0].begin(), audio.channels[0].begin() + offset + 500);
    ASSERT_EQ(meter.channelDRsRaw().size(), 1u);
    EXPECT_NEAR(meter.channelDRsRaw()[0], plainDR(soFar, 400), 1e-3) << offset + 500 << " frames";
  }
}

TEST(DRProcessor, AbsentChannelCountsAsSilence) {
  std::mt19937 rng(7);
  const Audio audio = movingNoise(rng, 1, 6000);
  BlockMeter meter(400, 2);
  const float* first[] = {audio.channels[0].data(), nullptr};
  const float* second[] = {nullptr, audio.channels[0].data() + 3000};
  meter.add(first, 3000);
  meter.add(second, 3000);
  Audio silenced(2, 6000);
  std::copy_n(audio.channels[0].begin(), 3000, silenced.channels[0].begin());
  std::copy_n(audio.channels[0].begin() + 3000, 3000, silenced.channels[1].begin() + 3000);
  EXPECT_EQ(meter.channelDRsRaw(), rawOf(silenced, 400));
}

TEST(DRProcessor, MeterWithoutChannelsHasNoFigures) {
  BlockMeter meter(48000, 0);
  meter.add({}, 200000);
  EXPECT_TRUE(meter.channelDRsRaw().empty());
}

TEST(DRProcessor, MeterOfBadSettingsStopsTheProgram) {
  EXPECT_DEATH(BlockMeter(0, 2), "BlockMeter takes");
  EXPECT_DEATH(BlockMeter(-1, 2), "BlockMeter takes");
  EXPECT_DEATH(BlockMeter(static_cast<double>(nan), 2), "BlockMeter takes");
  EXPECT_DEATH(BlockMeter(static_cast<double>(infinity), 2), "BlockMeter takes");
  EXPECT_DEATH(BlockMeter(48000, -1), "BlockMeter takes");
  BlockMeter meter(48000, 2);
  const float* one[] = {nullptr};
  EXPECT_DEATH(meter.add(one, 1), "one pointer per channel");
}

// --- Samples that are not finite -------------------------------------------------------------------------

TEST(DRProcessor, FigureOfAChannelThatIsNotFiniteIsNotFiniteEither) {
  for (float bad : {nan, infinity, -infinity, 3e38f}) {  // the square of the last is beyond 32 bits
    Audio audio;
    audio.channels.assign(2, constantBlocks({0.1f, 0.2f, 0.3f}).channels[0]);
    audio.channels[1][4] = bad;
    const std::vector<float> raw = rawOf(audio, threeFrameBlocks);
    EXPECT_TRUE(std::isfinite(raw[0])) << bad;
    EXPECT_FALSE(std::isfinite(raw[1])) << bad;
  }
}

TEST(DRProcessor, WholeFigureThatIsNotFiniteStopsTheProgram) {
  for (float bad : {nan, infinity, -infinity}) {
    EXPECT_DEATH(perChannelDR(std::vector{5.0f, bad}), "not finite") << bad;
    EXPECT_DEATH(overallDR(std::vector{5.0f, bad}), "not finite") << bad;
    Audio audio = constantBlocks({0.1f, 0.2f, 0.3f});
    audio.channels[0][4] = bad;
    EXPECT_DEATH(computeDR(audio.channels, threeFrameBlocks), "not finite") << bad;
    EXPECT_DEATH(computeDRPerChannel(audio.channels, threeFrameBlocks), "not finite") << bad;
  }
}

TEST(DRProcessor, SamplesThatDoNotCountMayBeAnything) {
  Audio audio = constantBlocks({0.1f, 0.2f, 0.3f});
  const std::vector<float> raw = rawOf(audio, threeFrameBlocks);
  audio.channels[0].push_back(nan);
  EXPECT_EQ(rawOf(audio, threeFrameBlocks), raw);
}

TEST(DRProcessor, AddAllocatesOnlyTheGrowthOfItsBlockLists) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "a sanitizer owns the allocator";
  const Audio audio = sineAudio(2, 8000, 1, 1000, -20);
  const auto pointers = audio.pointers();
  BlockMeter meter(8000, 2);
  const AllocationCounter allocations;
  for (int second = 0; second < 3 * 1000; ++second) meter.add(pointers, 8000);
  EXPECT_EQ(meter.channelDRsRaw().size(), 2u);
  EXPECT_LT(allocations.count(), 100);  // 1,000 blocks: four lists that double, and the reading
}

}  // namespace
}  // namespace vellum
