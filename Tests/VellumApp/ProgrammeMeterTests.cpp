#include "VellumApp/ProgrammeMeter.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <optional>
#include <random>
#include <utility>

#include "Support/ConformanceSignals.hpp"
#include "VellumCore/DRProcessor.hpp"
#include "VellumCore/LoudnessProcessor.hpp"

namespace vellum::test {
namespace {

constexpr double unmeasured = -std::numeric_limits<double>::infinity();
constexpr float infinite = std::numeric_limits<float>::infinity();
constexpr float notANumber = std::numeric_limits<float>::quiet_NaN();

// LU between two ways to the same loudness: the meter keeps each piece's mean square, and momentary and
// short-term loudness, in 32 bit.
constexpr double rounding = 2e-5;

// EXPECT_NEAR for levels, which may both be -infinity.
testing::AssertionResult sameLevel(double a, double b, double tolerance = rounding) {
  if (a == b || std::abs(a - b) <= tolerance) return testing::AssertionSuccess();
  return testing::AssertionFailure() << a << " against " << b;
}

ProgrammeMeter makeMeter(double sampleRate, std::size_t channelCount,
                         std::optional<std::vector<float>> weights = std::nullopt) {
  return ProgrammeMeter({.sampleRate = sampleRate,
                         .channelCount = static_cast<std::int64_t>(channelCount),
                         .channelWeights = std::move(weights)});
}

void feedSplits(ProgrammeMeter& meter, const Audio& audio, std::span<const std::int64_t> splits) {
  std::int64_t offset = 0;
  for (const std::int64_t n : splits) {
    meter.feed(audio.pointers(offset), n);
    offset += n;
  }
}

ProgrammeFigures figuresOf(const Audio& audio, double sampleRate,
                           std::optional<std::vector<float>> weights = std::nullopt) {
  ProgrammeMeter meter = makeMeter(sampleRate, audio.channels.size(), std::move(weights));
  meter.feed(audio.pointers(), audio.frameCount());
  return meter.finish();
}

// White noise in parts of random length whose level jumps over 50 dB, some of them silent.
Audio unevenProgramme(std::mt19937& rng, std::size_t channelCount, std::int64_t frameCount) {
  Audio audio;
  while (audio.frameCount() < frameCount) {
    const std::int64_t n =
        std::min<std::int64_t>(1 + static_cast<std::int64_t>(rng()) % 30000, frameCount - audio.frameCount());
    const double level = rng() % 8 == 0 ? silent : -static_cast<double>(rng() % 50);
    audio.append(noiseAudio(rng, channelCount, n, amplitudeOf(level)));
  }
  return audio;
}

// A voice for the speech detector: ten equal harmonics of 150 Hz and a breath of noise, in syllables of 0.3 s
// and pauses of 0.2 s.
Audio voice(std::mt19937& rng, double sampleRate, double seconds) {
  const auto frames = static_cast<std::int64_t>(seconds * sampleRate);
  Audio audio;
  audio.channels.push_back(noise(rng, frames, 0.001));
  for (int harmonic = 1; harmonic <= 10; ++harmonic) {
    const std::vector<float> tone = sine(sampleRate, frames, 150.0 * harmonic, 0.05);
    for (std::size_t n = 0; n < tone.size(); ++n)
      if (std::fmod(static_cast<double>(n) / sampleRate, 0.5) < 0.3) audio.channels[0][n] += tone[n];
  }
  return audio;
}

// --- Twins -----------------------------------------------------------------------------------------------

// Weighted power of each 100 ms block, the partial one at the end included, in long double. A NaN stands for
// an absent sample, on which a filter stands still.
std::vector<long double> referencePowers(const Audio& audio, double sampleRate,
                                         std::span<const float> weights) {
  const auto blockFrames = static_cast<std::size_t>(std::llround(sampleRate * 0.1));
  const auto frames = static_cast<std::size_t>(audio.frameCount());
  std::vector<long double> powers((frames + blockFrames - 1) / blockFrames);
  for (std::size_t c = 0; c < audio.channels.size(); ++c) {
    ReferenceKWeighting filter(sampleRate);
    for (std::size_t n = 0; n < frames; ++n) {
      if (std::isnan(audio.channels[c][n])) continue;
      const long double y = filter.next(static_cast<long double>(audio.channels[c][n]));
      const std::size_t block = n / blockFrames;
      const std::size_t length = std::min(blockFrames, frames - block * blockFrames);
      powers[block] += static_cast<long double>(weights[c]) * y * y / static_cast<long double>(length);
    }
  }
  return powers;
}

double lufs(long double power) {
  return power > 0 ? static_cast<double>(10 * std::log10(power) - 0.691L) : unmeasured;
}

// Mean power of each `length` consecutive blocks.
std::vector<long double> windowPowers(std::span<const long double> blocks, std::size_t length) {
  std::vector<long double> windows;
  for (std::size_t k = 0; k + length <= blocks.size(); ++k)
    windows.push_back(std::accumulate(blocks.begin() + static_cast<std::ptrdiff_t>(k),
                                      blocks.begin() + static_cast<std::ptrdiff_t>(k + length), 0.0L) /
                      static_cast<long double>(length));
  return windows;
}

// The two-stage gate of ITU-R BS.1770-5 by two passes over every gating block.
double gatedLUFS(std::span<const long double> gatingBlocks) {
  const auto meanAbove = [&](double gateLUFS) {
    long double sum = 0, count = 0;
    for (const long double power : gatingBlocks)
      if (lufs(power) > gateLUFS) sum += power, ++count;
    return count > 0 ? sum / count : 0.0L;
  };
  const double ungated = lufs(meanAbove(-70));
  return ungated > unmeasured ? lufs(meanAbove(std::max(ungated - 10, -70.0))) : unmeasured;
}

std::vector<long double> wholeBlocks(std::vector<long double> powers, const Audio& audio, double sampleRate) {
  powers.resize(static_cast<std::size_t>(audio.frameCount() / std::llround(sampleRate * 0.1)));
  return powers;
}

// --- True peak -------------------------------------------------------------------------------------------

TEST(ProgrammeMeter, ClickOnTheVeryLastSampleReadsFullScale) {
  for (const std::int64_t length :
       {1, 2, 6, 7, 12, 13, 14, 4793, 4799, 4800, 4801, 4806, 4807, 4813, 9599, 9600, 9601, 9607}) {
    SCOPED_TRACE(length);
    Audio audio(2, length);
    audio.channels[1].back() = 1.0f;
    const ProgrammeFigures figures = figuresOf(audio, 48000);
    EXPECT_EQ(figures.truePeakDBTP, 0.0f);
    EXPECT_EQ(figures.channelTruePeakDBTP, (std::vector<float>{-160.0f, 0.0f}));
    EXPECT_EQ(figures.samplePeakDBFS, 0.0f);
    ASSERT_TRUE(figures.truePeakAtSec);
    EXPECT_DOUBLE_EQ(*figures.truePeakAtSec, static_cast<double>((length - 1) / 4800) * 0.1);
    EXPECT_EQ(figures.frameCount, length);  // the silence that shows the click is no part of the programme
    EXPECT_DOUBLE_EQ(figures.durationSec, static_cast<double>(length) / 48000);
  }
}

// A channel that is absent at the end still owes the detector its last samples.
TEST(ProgrammeMeter, ClickBeforeAChannelGoesAbsentIsSeen) {
  Audio audio(2, 4800);
  audio.channels[1].back() = 1.0f;
  ProgrammeMeter meter = makeMeter(48000, 2);
  meter.feed(audio.pointers(), 4800);
  const float* const firstOnly[] = {audio.channels[0].data(), nullptr};
  meter.feed(firstOnly, 4000);
  EXPECT_EQ(meter.finish().channelTruePeakDBTP, (std::vector<float>{-160.0f, 0.0f}));
}

TEST(ProgrammeMeter, TruePeakIsFoundTo100Milliseconds) {
  std::mt19937 rng(11);
  constexpr std::int64_t blockFrames = 4410;
  for (int trial = 0; trial < 50; ++trial) {
    Audio audio = noiseAudio(rng, 2, 20000 + static_cast<std::int64_t>(rng() % 30000), 0.1);
    const auto place = static_cast<std::int64_t>(rng()) % audio.frameCount();
    audio.channels[trial % 2][static_cast<std::size_t>(place)] = -0.9f;
    const std::optional<double> at = figuresOf(audio, 44100).truePeakAtSec;
    ASSERT_TRUE(at);
    EXPECT_NEAR(*at, static_cast<double>(place) / 44100, 0.1);
    // Seven frames late at most: the block that holds it, unless it stands at that block's very end.
    const std::int64_t first = place / blockFrames, last = (place + 7) / blockFrames;
    EXPECT_GE(*at, static_cast<double>(first) * 0.1 - 1e-9) << "at frame " << place;
    EXPECT_LE(*at, static_cast<double>(last) * 0.1 + 1e-9) << "at frame " << place;
  }
}

TEST(ProgrammeMeter, FirstOfEqualTruePeaksGivesTheTime) {
  Audio audio(1, 48000);
  audio.channels[0][12000] = audio.channels[0][30000] = 0.5f;
  EXPECT_DOUBLE_EQ(figuresOf(audio, 48000).truePeakAtSec.value(), 0.2);
}

TEST(ProgrammeMeter, SilenceHasATruePeakOf160BelowAndNoTimeForIt) {
  const ProgrammeFigures figures = figuresOf(Audio(2, 10000), 48000);
  EXPECT_EQ(figures.truePeakDBTP, -160.0f);
  EXPECT_EQ(figures.channelTruePeakDBTP, (std::vector<float>{-160.0f, -160.0f}));
  EXPECT_FALSE(figures.truePeakAtSec);
}

// --- Maxima of the windows -------------------------------------------------------------------------------

// The loudest thing stands in the first block, where only a window that is not yet full would show it alone,
// and in the partial block at the end.
TEST(ProgrammeMeter, MaximaAreTakenOverFullWindowsOfWholeBlocksOnly) {
  std::mt19937 rng(12);
  for (const double rate : {48000.0, 44100.0, 11025.0}) {
    const std::int64_t blockFrames = std::llround(rate * 0.1);
    for (int trial = 0; trial < 5; ++trial) {
      SCOPED_TRACE(testing::Message() << rate << " Hz, trial " << trial);
      const auto blockCount = static_cast<std::int64_t>(45 + rng() % 40);
      Audio audio = noiseAudio(rng, 2, blockFrames, 1.0);
      for (std::int64_t b = 1; b < blockCount; ++b)
        audio.append(noiseAudio(rng, 2, blockFrames, amplitudeOf(-20.0 - static_cast<double>(rng() % 20))));
      audio.append(noiseAudio(rng, 2, blockFrames / 3, 1.0));
      const ProgrammeFigures figures = figuresOf(audio, rate);

      const std::array<float, 2> weights = {1, 1};
      const auto powers = wholeBlocks(referencePowers(audio, rate, weights), audio, rate);
      const auto expectMaximum = [&](std::size_t length, float reading, std::optional<double> atSec) {
        const auto windows = windowPowers(powers, length);
        const auto greatest = std::max_element(windows.begin(), windows.end());
        EXPECT_NEAR(reading, lufs(*greatest), rounding);
        const auto endBlock =
            static_cast<std::int64_t>(greatest - windows.begin()) + static_cast<std::int64_t>(length);
        EXPECT_NEAR(atSec.value(), static_cast<double>(endBlock * blockFrames) / rate, 1e-9);
      };
      expectMaximum(4, figures.maxMomentaryLUFS, figures.maxMomentaryAtSec);
      expectMaximum(30, figures.maxShortTermLUFS, figures.maxShortTermAtSec);
    }
  }
}

TEST(ProgrammeMeter, ProgrammeShorterThanAWindowUsesItsLastValue) {
  std::mt19937 rng(13);
  const std::array<float, 1> weights = {1};
  for (const std::int64_t length :
       {100, 4800, 5000, 3 * 4800, 4 * 4800 - 1, 12 * 4800, 29 * 4800, 30 * 4800 - 1}) {
    SCOPED_TRACE(length);
    Audio audio = noiseAudio(rng, 1, length / 2, 1.0);
    audio.append(noiseAudio(rng, 1, length - length / 2, 0.1));
    const ProgrammeFigures figures = figuresOf(audio, 48000);
    const auto powers = referencePowers(audio, 48000, weights);
    const auto lastValue = [&](std::size_t window) {
      return lufs(windowPowers(powers, std::min(window, powers.size())).back());
    };
    EXPECT_NEAR(figures.maxShortTermLUFS, lastValue(30), rounding);
    EXPECT_DOUBLE_EQ(figures.maxShortTermAtSec.value(), figures.durationSec);
    if (length >= 4 * 4800) continue;
    EXPECT_NEAR(figures.maxMomentaryLUFS, lastValue(4), rounding);
    EXPECT_DOUBLE_EQ(figures.maxMomentaryAtSec.value(), figures.durationSec);
  }
}

TEST(ProgrammeMeter, ExactlyFullWindowGivesTheMaximumWithoutThePartialBlock) {
  std::mt19937 rng(14);
  Audio audio = noiseAudio(rng, 1, 30 * 4800, 0.1);
  const float maximum = figuresOf(audio, 48000).maxShortTermLUFS;
  audio.append(noiseAudio(rng, 1, 2400, 1.0));
  const ProgrammeFigures figures = figuresOf(audio, 48000);
  EXPECT_EQ(figures.maxShortTermLUFS, maximum);
  EXPECT_DOUBLE_EQ(figures.maxShortTermAtSec.value(), 3.0);
}

TEST(ProgrammeMeter, EarliestOfEqualMaximaGivesTheTime) {
  // Two bursts of the same samples, a second of silence between: both windows hold the same four powers.
  Audio burst = sineAudio(1, 48000, 0.4, 1000, -20), audio(1, 48000);
  audio.append(burst);
  audio.append(Audio(1, 10 * 48000));
  audio.append(burst);
  EXPECT_DOUBLE_EQ(figuresOf(audio, 48000).maxMomentaryAtSec.value(), 1.4);
}

// --- Loudness after ITU-R BS.1770-5 ----------------------------------------------------------------------

TEST(ProgrammeMeter, OverlappingGatingBlocksReadAsABruteForceTwin) {
  std::mt19937 rng(15);
  const struct {
    double rate;
    std::vector<float> weights;
  } setups[] = {{48000, {1, 1}}, {44100, {1}}, {11025, {1, 1, 1, 0, 1.41253f, 1.41253f}}, {96000, {0.5f, 2}}};
  int apart = 0;
  for (const auto& setup : setups) {
    for (int trial = 0; trial < 5; ++trial) {
      SCOPED_TRACE(testing::Message() << setup.rate << " Hz, trial " << trial);
      const std::int64_t blockFrames = std::llround(setup.rate * 0.1);
      Audio audio = unevenProgramme(rng, setup.weights.size(),
                                    static_cast<std::int64_t>(rng() % 40 + 10) * blockFrames);
      audio.append(noiseAudio(rng, setup.weights.size(), blockFrames / 2, 1.0));  // partial: must not count
      const ProgrammeFigures figures = figuresOf(audio, setup.rate, setup.weights);
      const auto powers = wholeBlocks(referencePowers(audio, setup.rate, setup.weights), audio, setup.rate);
      EXPECT_NEAR(figures.bs1770IntegratedLUFS, gatedLUFS(windowPowers(powers, 4)), rounding);
      EXPECT_NEAR(figures.integratedLUFS, gatedLUFS(powers), rounding);
      apart += std::abs(figures.bs1770IntegratedLUFS - figures.integratedLUFS) > 0.1;
    }
  }
  EXPECT_GT(apart, 10);  // the two are not the same figure
}

TEST(ProgrammeMeter, OverlappingGatingBlocksNeedFourWholeBlocks) {
  std::mt19937 rng(16);
  const Audio audio = noiseAudio(rng, 1, 4 * 4800, 0.1);
  Audio shorter = audio;
  shorter.channels[0].pop_back();
  EXPECT_EQ(figuresOf(shorter, 48000).bs1770IntegratedLUFS, unmeasured);
  const std::array<float, 1> weights = {1};
  EXPECT_NEAR(figuresOf(audio, 48000).bs1770IntegratedLUFS,
              lufs(windowPowers(referencePowers(audio, 48000, weights), 4)[0]), rounding);
}

// So long a floor at -75 LUFS that, without the absolute gate, the relative one would let it in.
TEST(ProgrammeMeter, BlocksBelowTheAbsoluteGateCountInNeitherLoudness) {
  Audio audio = sineAudio(2, 48000, 1, 1000, -60);
  audio.append(sineAudio(2, 48000, 20, 1000, -75));
  const std::array<float, 2> weights = {1, 1};
  const auto powers = referencePowers(audio, 48000, weights);
  const ProgrammeFigures figures = figuresOf(audio, 48000);
  EXPECT_NEAR(figures.integratedLUFS, gatedLUFS(powers), rounding);
  EXPECT_NEAR(figures.integratedLUFS, -60, 0.1);
  EXPECT_NEAR(figures.bs1770IntegratedLUFS, gatedLUFS(windowPowers(powers, 4)), rounding);
}

// Two conformance signals on which the two kinds of gating blocks differ.
TEST(ProgrammeMeter, OverlappingGatingBlocksReadTheConformanceSignals) {
  const auto read = [](double rate, const std::vector<TonePart>& parts) {
    ProgrammeMeter meter = makeMeter(rate, 2);
    playTone({.sampleRate = rate, .parts = parts},
             [&](auto channels, std::int64_t n) { meter.feed(channels, n); });
    return meter.finish().bs1770IntegratedLUFS;
  };
  for (const double rate : {44100.0, 48000.0, 96000.0}) {
    SCOPED_TRACE(rate);
    const double signal3 = read(rate, ebuSignal3());  // EBU Tech 3341
    EXPECT_NEAR(signal3, -23.0, 0.1);
    EXPECT_NEAR(signal3, -23.014 + shiftFrom48kHz(rate), 0.002);
    const double relativeGate = read(rate, relativeGateTest());  // ITU-R BS.2217
    EXPECT_NEAR(relativeGate, -10.0, 0.1);
    EXPECT_NEAR(relativeGate, -10.029 + shiftFrom48kHz(rate), 0.002);
  }
}

// --- Plain levels ----------------------------------------------------------------------------------------

TEST(ProgrammeMeter, RMSOfEachChannelAndOfThoseThatAreNotSilent) {
  std::mt19937 rng(17);
  Audio audio(4, 30011);
  audio.channels[0] = noise(rng, 30011, 0.9);
  audio.channels[2] = noise(rng, 30011, 0.003);
  const ProgrammeFigures figures = figuresOf(audio, 48000);

  long double powers[4] = {};
  double peak = 0;
  for (std::size_t c = 0; c < 4; ++c)
    for (const float x : audio.channels[c]) {
      powers[c] += static_cast<long double>(x) * static_cast<long double>(x) / 30011;
      peak = std::max(peak, static_cast<double>(std::abs(x)));
    }
  const auto dB = [](long double power) { return static_cast<double>(10 * std::log10(power)); };
  ASSERT_EQ(figures.channelRMSDBFS.size(), 4u);
  EXPECT_NEAR(figures.channelRMSDBFS[0], dB(powers[0]), 1e-5);
  EXPECT_EQ(figures.channelRMSDBFS[1], -infinite);
  EXPECT_NEAR(figures.channelRMSDBFS[2], dB(powers[2]), 1e-5);
  EXPECT_EQ(figures.channelRMSDBFS[3], -infinite);
  EXPECT_NEAR(figures.rmsDBFS, dB((powers[0] + powers[2]) / 2), 1e-5);
  EXPECT_NEAR(figures.samplePeakDBFS, 20 * std::log10(peak), 1e-5);
}

TEST(ProgrammeMeter, DynamicRangeIsThatOfTheWholeSelection) {
  std::mt19937 rng(18);
  for (const double seconds : {0.01, 1.0, 2.999, 3.0, 7.5, 31.0}) {
    SCOPED_TRACE(seconds);
    const double rate = 8000;
    const auto frames = static_cast<std::int64_t>(seconds * rate);
    Audio audio = unevenProgramme(rng, 2, frames);
    for (float& x : audio.channels[1]) x = x * x * x;  // peakier than the first channel
    ProgrammeMeter meter = makeMeter(rate, 2);
    feedSplits(meter, audio, randomSplits(rng, frames));
    const ProgrammeFigures figures = meter.finish();
    EXPECT_EQ(figures.dynamicRange, DRProcessor::computeDR(audio.channels, rate));
    EXPECT_EQ(figures.channelDynamicRange, DRProcessor::computeDRPerChannel(audio.channels, rate));
  }
}

// --- Samples that are not finite -------------------------------------------------------------------------

// Every level, time and percentage of a programme.
std::vector<double> numbersOf(const ProgrammeFigures& f) {
  std::vector<double> all = {f.durationSec,
                             f.integratedLUFS,
                             f.bs1770IntegratedLUFS,
                             f.maxMomentaryLUFS,
                             f.maxMomentaryAtSec.value_or(0),
                             f.maxShortTermLUFS,
                             f.maxShortTermAtSec.value_or(0),
                             f.loudnessRange,
                             f.truePeakDBTP,
                             f.truePeakAtSec.value_or(0),
                             f.samplePeakDBFS,
                             f.rmsDBFS,
                             f.speechGatedLUFS,
                             f.speechPercentage,
                             f.noiseFloorDBRMS};
  all.insert(all.end(), f.channelTruePeakDBTP.begin(), f.channelTruePeakDBTP.end());
  all.insert(all.end(), f.channelRMSDBFS.begin(), f.channelRMSDBFS.end());
  return all;
}

TEST(ProgrammeMeter, SamplesThatAreNotFiniteAreCountedAndNeverBecomeAFigure) {
  std::mt19937 rng(19);
  for (int trial = 0; trial < 30; ++trial) {
    SCOPED_TRACE(trial);
    Audio audio = noiseAudio(rng, 2, 4 * 48000, 0.1);
    const auto count = static_cast<std::size_t>(1 + rng() % 5);
    for (std::size_t k = 0; k < count; ++k) {
      const float kinds[] = {notANumber, infinite, -infinite};
      const std::size_t channel = rng() % 2, frame = k * 28800 + rng() % 28800;  // in the first 3 s
      audio.channels[channel][frame] = kinds[rng() % 3];
    }
    ProgrammeMeter meter = makeMeter(48000, 2);
    feedSplits(meter, audio, randomSplits(rng, audio.frameCount()));
    const ProgrammeFigures figures = meter.finish();
    EXPECT_EQ(figures.nonFiniteSamples, static_cast<std::int64_t>(count));
    EXPECT_FALSE(figures.dynamicRange);
    EXPECT_TRUE(figures.channelDynamicRange.empty());
    for (const double number : numbersOf(figures)) EXPECT_FALSE(std::isnan(number));
  }
}

TEST(ProgrammeMeter, NaNLeavesOtherChannelsAndEarlierLoudnessAsTheyWere) {
  std::mt19937 rng(20);
  Audio audio = noiseAudio(rng, 2, 5 * 48000, 0.1);
  Audio left;
  left.channels = {audio.channels[0]};
  audio.channels[1][100000] = notANumber;
  const ProgrammeFigures figures = figuresOf(audio, 48000), alone = figuresOf(left, 48000);
  EXPECT_EQ(figures.nonFiniteSamples, 1);
  EXPECT_EQ(figures.channelRMSDBFS[0], alone.channelRMSDBFS[0]);
  EXPECT_EQ(figures.channelRMSDBFS[1], -infinite);
  EXPECT_EQ(figures.rmsDBFS, figures.channelRMSDBFS[0]);
  EXPECT_EQ(figures.channelTruePeakDBTP[0], alone.channelTruePeakDBTP[0]);
  EXPECT_TRUE(std::isfinite(figures.channelTruePeakDBTP[1]));
  EXPECT_FALSE(figures.dynamicRange);

  // Loudness keeps what stood before it: 20 whole blocks, here to the last bit.
  Audio before = audio;
  for (auto& channel : before.channels) channel.resize(20 * 4800);
  const ProgrammeFigures cut = figuresOf(before, 48000);
  EXPECT_EQ(figures.integratedLUFS, cut.integratedLUFS);
  EXPECT_EQ(figures.bs1770IntegratedLUFS, cut.bs1770IntegratedLUFS);
  EXPECT_EQ(figures.maxMomentaryLUFS, cut.maxMomentaryLUFS);
  EXPECT_EQ(figures.maxShortTermLUFS, -infinite);  // no full window without it
  EXPECT_FALSE(figures.maxShortTermAtSec);
}

// The dynamic range leaves out what follows its last whole block of 3 s.
TEST(ProgrammeMeter, NaNBehindTheLastBlockOf3SecondsLeavesTheDynamicRange) {
  std::mt19937 rng(29);
  Audio audio = noiseAudio(rng, 1, 4 * 48000, 0.1);
  audio.channels[0][3 * 48000] = notANumber;
  const ProgrammeFigures figures = figuresOf(audio, 48000);
  EXPECT_EQ(figures.nonFiniteSamples, 1);
  EXPECT_EQ(figures.dynamicRange, DRProcessor::computeDR(audio.channels, 48000));
}

TEST(ProgrammeMeter, InfiniteSampleReadsAsAnInfinitePeakWithItsTime) {
  std::mt19937 rng(21);
  Audio audio = noiseAudio(rng, 1, 48000, 0.1);
  audio.channels[0][24100] = -infinite;
  const ProgrammeFigures figures = figuresOf(audio, 48000);
  EXPECT_EQ(figures.truePeakDBTP, infinite);
  EXPECT_EQ(figures.samplePeakDBFS, infinite);
  EXPECT_DOUBLE_EQ(figures.truePeakAtSec.value(), 0.5);
}

// --- Beside the meter ------------------------------------------------------------------------------------

TEST(ProgrammeMeter, ReadsWhatTheLoudnessMeterReads) {
  std::mt19937 rng(22);
  const Audio audio = voice(rng, 48000, 6.03);
  const ProgrammeFigures figures = figuresOf(audio, 48000);
  LoudnessProcessor meter({.sampleRate = 48000,
                           .channelCount = 1,
                           .precomputedSpeechHistory = std::nullopt,
                           .channelWeights = std::nullopt});
  feed(meter, audio);
  meter.flushPartialBlock();
  EXPECT_GT(meter.speechPercentage(), 20.0f);  // there is something to compare
  EXPECT_NEAR(figures.integratedLUFS, meter.integratedLUFS(), rounding);
  EXPECT_NEAR(figures.loudnessRange, meter.loudnessRange(), rounding);
  EXPECT_NEAR(figures.speechGatedLUFS, meter.speechGatedLUFS(), rounding);
  EXPECT_EQ(figures.speechPercentage, meter.speechPercentage());
  EXPECT_EQ(figures.noiseFloorDBRMS, meter.speechGatedNoiseFloorDBRMS());
  EXPECT_EQ(figures.truePeakDBTP, meter.truePeakDB());
}

TEST(ProgrammeMeter, HistoriesHoldEveryBlockAndThePartialOne) {
  std::mt19937 rng(23);
  const Audio audio = unevenProgramme(rng, 2, 40 * 4800 + 1234);
  ProgrammeMeter meter = makeMeter(48000, 2);
  feedSplits(meter, audio, randomSplits(rng, audio.frameCount()));
  const ProgrammeFigures figures = meter.finish();
  const ProgrammeHistory history = meter.history();
  ASSERT_EQ(history.loudness.size(), 41u);
  ASSERT_EQ(history.truePeakDBTP.size(), 41u);
  ASSERT_EQ(history.blockPower.size(), 41u);
  ASSERT_EQ(history.speech.size(), 41u);

  const std::array<float, 2> weights = {1, 1};
  const auto powers = referencePowers(audio, 48000, weights);
  for (std::size_t k = 0; k < 41; ++k) {
    SCOPED_TRACE(k);
    const std::span<const long double> soFar(powers.data(), k + 1);
    const auto window = [&](std::size_t length) {
      return lufs(windowPowers(soFar, std::min(length, k + 1)).back());
    };
    if (k < 40) {
      EXPECT_NEAR(history.blockPower[k], static_cast<double>(powers[k]),
                  static_cast<double>(powers[k]) * 1e-6);
    }
    if (const double momentary = window(4); momentary > -90) {
      EXPECT_NEAR(history.loudness[k].momentary, momentary, rounding);
    }
    EXPECT_NEAR(history.loudness[k].shortTerm, window(30), rounding);
    EXPECT_NEAR(history.loudness[k].integrated, gatedLUFS(soFar.first(std::min<std::size_t>(k + 1, 40))),
                rounding);
  }
  EXPECT_EQ(history.blockPower[40], 0.0);
  EXPECT_EQ(static_cast<float>(figures.integratedLUFS), history.loudness[40].integrated);
}

TEST(ProgrammeMeter, EveryBlockGetsItsOwnTruePeakWhateverTheChunks) {
  std::mt19937 rng(24);
  Audio audio(1, 20 * 4800 + 100);
  for (std::size_t b : {0u, 3u, 4u, 11u, 19u, 20u})
    audio.channels[0][b * 4800 + 50] = 1.0f / static_cast<float>(b + 1);
  for (const auto& splits : {equalSplits(audio.frameCount(), audio.frameCount()),
                             equalSplits(audio.frameCount(), 7001), randomSplits(rng, audio.frameCount())}) {
    ProgrammeMeter meter = makeMeter(48000, 1);
    feedSplits(meter, audio, splits);
    meter.finish();
    for (std::size_t b = 0; b <= 20; ++b) {
      const float peak = audio.channels[0][b * 4800 + 50];
      EXPECT_NEAR(meter.history().truePeakDBTP[b], peak > 0 ? 20 * std::log10(peak) : -160.0f, 1e-5) << b;
    }
  }
}

TEST(ProgrammeMeter, WeightsAreTheGivenOnesOrThoseOfTheChannelCount) {
  const auto weightsOf = [](std::size_t channelCount, std::optional<std::vector<float>> weights) {
    const ProgrammeMeter meter = makeMeter(48000, channelCount, std::move(weights));
    return std::vector<float>(meter.channelWeights().begin(), meter.channelWeights().end());
  };
  EXPECT_EQ(weightsOf(6, std::nullopt), LoudnessProcessor::staticChannelWeights(6));
  EXPECT_EQ(weightsOf(1, std::vector<float>{2}), (std::vector<float>{2}));
  EXPECT_EQ(weightsOf(2, std::vector<float>{2}), (std::vector<float>{1, 1}));

  const Audio tone = sineAudio(1, 48000, 1, 1000, -20);  // dual mono: twice the power
  EXPECT_NEAR(figuresOf(tone, 48000, std::vector<float>{2}).integratedLUFS,
              figuresOf(tone, 48000).integratedLUFS + 10 * std::log10(2.0), 1e-9);
}

// --- Any chunking ----------------------------------------------------------------------------------------

void expectSame(const ProgrammeFigures& a, const ProgrammeFigures& b) {
  EXPECT_EQ(a.frameCount, b.frameCount);
  EXPECT_EQ(a.durationSec, b.durationSec);
  EXPECT_TRUE(sameLevel(a.integratedLUFS, b.integratedLUFS));
  EXPECT_TRUE(sameLevel(a.bs1770IntegratedLUFS, b.bs1770IntegratedLUFS));
  EXPECT_TRUE(sameLevel(a.maxMomentaryLUFS, b.maxMomentaryLUFS));
  EXPECT_EQ(a.maxMomentaryAtSec, b.maxMomentaryAtSec);
  EXPECT_TRUE(sameLevel(a.maxShortTermLUFS, b.maxShortTermLUFS));
  EXPECT_EQ(a.maxShortTermAtSec, b.maxShortTermAtSec);
  EXPECT_TRUE(sameLevel(a.loudnessRange, b.loudnessRange));
  EXPECT_EQ(a.truePeakDBTP, b.truePeakDBTP);
  EXPECT_EQ(a.truePeakAtSec, b.truePeakAtSec);
  EXPECT_EQ(a.channelTruePeakDBTP, b.channelTruePeakDBTP);
  EXPECT_EQ(a.samplePeakDBFS, b.samplePeakDBFS);
  EXPECT_TRUE(sameLevel(a.rmsDBFS, b.rmsDBFS));
  for (std::size_t c = 0; c < a.channelRMSDBFS.size(); ++c)
    EXPECT_TRUE(sameLevel(a.channelRMSDBFS[c], b.channelRMSDBFS.at(c)));
  EXPECT_TRUE(sameLevel(a.speechGatedLUFS, b.speechGatedLUFS));
  EXPECT_EQ(a.speechPercentage, b.speechPercentage);
  EXPECT_EQ(a.noiseFloorDBRMS, b.noiseFloorDBRMS);
  EXPECT_EQ(a.dynamicRange, b.dynamicRange);
  EXPECT_EQ(a.channelDynamicRange, b.channelDynamicRange);
  EXPECT_EQ(a.nonFiniteSamples, b.nonFiniteSamples);
}

TEST(ProgrammeMeter, AnyChunkingGivesTheSameFigures) {
  std::mt19937 rng(25);
  Audio audio = voice(rng, 48000, 5.21);
  audio.channels.push_back(unevenProgramme(rng, 1, audio.frameCount()).channels[0]);
  ProgrammeMeter whole = makeMeter(48000, 2);
  whole.feed(audio.pointers(), audio.frameCount());
  const ProgrammeFigures expected = whole.finish();
  ASSERT_TRUE(std::isfinite(expected.speechGatedLUFS) && std::isfinite(expected.loudnessRange));

  std::vector<std::vector<std::int64_t>> chunkings;
  for (const std::int64_t chunk : {1, 7, 997, 4799, 4800, 4801, 100000})
    chunkings.push_back(equalSplits(audio.frameCount(), chunk));
  for (int trial = 0; trial < 10; ++trial) chunkings.push_back(randomSplits(rng, audio.frameCount()));
  for (const auto& splits : chunkings) {
    SCOPED_TRACE(testing::Message() << splits.size() << " chunks, the first of " << splits[0]);
    ProgrammeMeter meter = makeMeter(48000, 2);
    feedSplits(meter, audio, splits);
    EXPECT_EQ(meter.frameCount(), audio.frameCount());
    expectSame(meter.finish(), expected);
    const ProgrammeHistory history = meter.history(), wholeHistory = whole.history();
    EXPECT_EQ(history.speech, wholeHistory.speech);
    EXPECT_TRUE(std::equal(history.truePeakDBTP.begin(), history.truePeakDBTP.end(),
                           wholeHistory.truePeakDBTP.begin(), wholeHistory.truePeakDBTP.end()));
    ASSERT_EQ(history.loudness.size(), wholeHistory.loudness.size());
    for (std::size_t k = 0; k < history.loudness.size(); ++k)
      EXPECT_NEAR(history.loudness[k].shortTerm, wholeHistory.loudness[k].shortTerm, rounding);
  }
}

TEST(ProgrammeMeter, MayBeMovedInTheMiddleOfAProgramme) {
  std::mt19937 rng(30);
  const Audio audio = unevenProgramme(rng, 2, 4 * 48000);
  ProgrammeMeter first = makeMeter(48000, 2);
  first.feed(audio.pointers(), 54321);
  ProgrammeMeter second = std::move(first);
  second.feed(audio.pointers(54321), audio.frameCount() - 54321);
  expectSame(second.finish(), figuresOf(audio, 48000));
}

TEST(ProgrammeMeter, AbsentChannelCountsAsSilence) {
  std::mt19937 rng(26);
  const Audio audio = noiseAudio(rng, 2, 4 * 48000 + 99, 0.3);
  ProgrammeMeter meter = makeMeter(48000, 2);
  const float* const firstOnly[] = {audio.channels[0].data(), nullptr};
  meter.feed(firstOnly, audio.frameCount());
  const ProgrammeFigures figures = meter.finish();
  Audio withSilence = audio;
  std::fill(withSilence.channels[1].begin(), withSilence.channels[1].end(), 0.0f);
  expectSame(figures, figuresOf(withSilence, 48000));
}

TEST(ProgrammeMeter, ChannelsMayComeAndGo) {
  std::mt19937 rng(27);
  Audio audio = noiseAudio(rng, 3, 7 * 48000 + 1, 0.3), silenced = audio, absent = audio;
  ProgrammeMeter meter = makeMeter(48000, 3);
  std::int64_t offset = 0;
  for (const std::int64_t n : randomSplits(rng, audio.frameCount())) {
    auto pointers = audio.pointers(offset);
    for (std::size_t c = 0; c < 3; ++c) {
      if (rng() % 3 != 0) continue;
      pointers[c] = nullptr;
      std::fill_n(silenced.channels[c].begin() + offset, n, 0.0f);
      std::fill_n(absent.channels[c].begin() + offset, n, notANumber);
    }
    meter.feed(pointers, n);
    offset += n;
  }
  const ProgrammeFigures figures = meter.finish(), ofSilence = figuresOf(silenced, 48000);
  const std::array<float, 3> weights = {1, 1, 1};
  const auto powers = wholeBlocks(referencePowers(absent, 48000, weights), audio, 48000);
  EXPECT_NEAR(figures.integratedLUFS, gatedLUFS(powers), rounding);
  EXPECT_NEAR(figures.bs1770IntegratedLUFS, gatedLUFS(windowPowers(powers, 4)), rounding);
  EXPECT_EQ(meter.history().loudness.size(), 71u);

  // What no filter stands before is that of silence.
  EXPECT_EQ(figures.frameCount, ofSilence.frameCount);
  EXPECT_EQ(figures.samplePeakDBFS, ofSilence.samplePeakDBFS);
  EXPECT_EQ(figures.dynamicRange, ofSilence.dynamicRange);
  EXPECT_EQ(figures.channelDynamicRange, ofSilence.channelDynamicRange);
  EXPECT_EQ(figures.noiseFloorDBRMS, ofSilence.noiseFloorDBRMS);
  for (std::size_t c = 0; c < 3; ++c)
    EXPECT_NEAR(figures.channelRMSDBFS[c], ofSilence.channelRMSDBFS[c], rounding);
}

// --- Short programmes, odd rates, misuse -----------------------------------------------------------------

TEST(ProgrammeMeter, NoFramesLeaveEveryFigureUnmeasured) {
  ProgrammeMeter meter = makeMeter(48000, 2);
  const float* const absent[] = {nullptr, nullptr};
  meter.feed(absent, 0);
  const ProgrammeFigures figures = meter.finish();
  EXPECT_EQ(figures.frameCount, 0);
  EXPECT_EQ(figures.durationSec, 0.0);
  for (const double level :
       {figures.integratedLUFS, figures.bs1770IntegratedLUFS, static_cast<double>(figures.maxMomentaryLUFS),
        static_cast<double>(figures.maxShortTermLUFS), static_cast<double>(figures.loudnessRange),
        static_cast<double>(figures.truePeakDBTP), static_cast<double>(figures.samplePeakDBFS),
        static_cast<double>(figures.rmsDBFS), figures.speechGatedLUFS,
        static_cast<double>(figures.noiseFloorDBRMS)})
    EXPECT_EQ(level, unmeasured);
  EXPECT_FALSE(figures.maxMomentaryAtSec || figures.maxShortTermAtSec || figures.truePeakAtSec);
  EXPECT_FALSE(figures.dynamicRange);
  EXPECT_TRUE(figures.channelDynamicRange.empty());
  EXPECT_EQ(figures.channelTruePeakDBTP, (std::vector<float>{-infinite, -infinite}));
  EXPECT_EQ(figures.channelRMSDBFS, (std::vector<float>{-infinite, -infinite}));
  EXPECT_EQ(figures.speechPercentage, 0.0f);
  EXPECT_EQ(figures.nonFiniteSamples, 0);
  EXPECT_TRUE(meter.history().loudness.empty() && meter.history().speech.empty());
}

TEST(ProgrammeMeter, SilenceHasNoLoudnessAndNoTimes) {
  const ProgrammeFigures figures = figuresOf(Audio(2, 5 * 48000), 48000);
  EXPECT_EQ(figures.integratedLUFS, unmeasured);
  EXPECT_EQ(figures.bs1770IntegratedLUFS, unmeasured);
  EXPECT_EQ(figures.maxMomentaryLUFS, -infinite);
  EXPECT_EQ(figures.maxShortTermLUFS, -infinite);
  EXPECT_FALSE(figures.maxMomentaryAtSec || figures.maxShortTermAtSec);
  EXPECT_EQ(figures.samplePeakDBFS, -infinite);
  EXPECT_EQ(figures.rmsDBFS, -infinite);
}

TEST(ProgrammeMeter, OneFrameIsAProgramme) {
  Audio audio(1, 1);
  audio.channels[0][0] = 0.5f;
  const ProgrammeFigures figures = figuresOf(audio, 48000);
  const std::array<float, 1> weights = {1};
  const double loudness = lufs(referencePowers(audio, 48000, weights)[0]);
  EXPECT_EQ(figures.frameCount, 1);
  EXPECT_EQ(figures.integratedLUFS, unmeasured);
  EXPECT_EQ(figures.bs1770IntegratedLUFS, unmeasured);
  EXPECT_NEAR(figures.maxMomentaryLUFS, loudness, rounding);
  EXPECT_NEAR(figures.maxShortTermLUFS, loudness, rounding);
  EXPECT_NEAR(figures.truePeakDBTP, 20 * std::log10(0.5), 1e-5);
  EXPECT_NEAR(figures.samplePeakDBFS, 20 * std::log10(0.5), 1e-5);
  EXPECT_NEAR(figures.rmsDBFS, 20 * std::log10(0.5), 1e-5);
  EXPECT_EQ(figures.dynamicRange, 1);
}

TEST(ProgrammeMeter, BlocksOfAHundredMillisecondsAtEveryRate) {
  const struct {
    double rate;
    std::int64_t blockFrames;
  } rates[] = {{5, 1}, {8000, 800}, {11025, 1103}, {1e6, 100000}};
  std::mt19937 rng(28);
  for (const auto& [rate, blockFrames] : rates) {
    SCOPED_TRACE(rate);
    for (const std::int64_t more : {0, 1}) {
      const std::int64_t frames = 12 * blockFrames + more;
      const Audio audio = noiseAudio(rng, 2, frames, 0.5);
      ProgrammeMeter meter = makeMeter(rate, 2);
      feedSplits(meter, audio, randomSplits(rng, frames));
      const ProgrammeFigures figures = meter.finish();
      EXPECT_EQ(meter.history().loudness.size(),
                static_cast<std::size_t>((frames + blockFrames - 1) / blockFrames));
      EXPECT_DOUBLE_EQ(figures.durationSec, static_cast<double>(frames) / rate);
      for (const double number : numbersOf(figures)) EXPECT_FALSE(std::isnan(number));
      EXPECT_TRUE(std::isfinite(figures.integratedLUFS));
      EXPECT_TRUE(figures.dynamicRange);
    }
  }
}

TEST(ProgrammeMeterDeathTest, NothingIsFedAfterFinish) {
  const Audio audio(1, 100);
  ProgrammeMeter meter = makeMeter(48000, 1);
  meter.feed(audio.pointers(), 100);
  meter.finish();
  EXPECT_DEATH(meter.feed(audio.pointers(), 100), "fed after finish");
}

TEST(ProgrammeMeterDeathTest, FinishIsCalledOnce) {
  ProgrammeMeter meter = makeMeter(48000, 1);
  meter.finish();
  EXPECT_DEATH(meter.finish(), "finish is called once");
}

TEST(ProgrammeMeterDeathTest, OnePointerPerChannel) {
  const Audio audio(3, 100);
  ProgrammeMeter meter = makeMeter(48000, 2);
  EXPECT_DEATH(meter.feed(audio.pointers(), 100), "ProgrammeMeter: feed takes one pointer per channel");
}

TEST(ProgrammeMeterDeathTest, ChannelsAndSampleRateWithinTheirRange) {
  EXPECT_DEATH(makeMeter(48000, 0), "channelCount");
  EXPECT_DEATH(makeMeter(4.9, 1), "sampleRate");
  EXPECT_DEATH(makeMeter(1000001, 1), "sampleRate");
  EXPECT_DEATH(makeMeter(std::numeric_limits<double>::quiet_NaN(), 1), "sampleRate");
}

}  // namespace
}  // namespace vellum::test
