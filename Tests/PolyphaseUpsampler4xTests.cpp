#include "VellumCore/PolyphaseUpsampler4x.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Signals.hpp"
#include "VellumCore/LoudnessProcessor.hpp"

namespace vellum {
namespace {

using namespace test;
using namespace PolyphaseUpsampler4x;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr std::size_t history = 13;

using History = std::array<float, delayFrames>;

// What one call gives: the peaks of all samples and the largest of them.
struct Peaks {
  std::vector<float> perSample;
  float largest;
};

Peaks detect(const std::vector<float>& work) {
  const std::size_t n = work.size() - history;
  Peaks peaks{std::vector<float>(n, -1.0f), 0};
  std::vector<float> scratch(n, -1.0f);
  peaks.largest = detectPerSamplePeaks(work, static_cast<std::int64_t>(n), scratch, peaks.perSample);
  return peaks;
}

// The largest of |sum over j of work[i + j] x phase[j]|, 13 taps and 4 phases one by one.
long double plainPeak(const float* window) {
  long double peak = 0;
  for (const auto& phase : flatCoeffs()) {
    long double sum = 0;
    for (std::size_t j = 0; j < phase.size(); ++j)
      sum += static_cast<long double>(window[j]) * static_cast<long double>(phase[j]);
    peak = std::max(peak, std::abs(sum));
  }
  return peak;
}

// How far 32-bit floats may stray from it: each product passes through at most 10 roundings on its way into
// the sum, and a sample may be weighed with its own tap and with the mirrored one.
double roundingOf(const float* window) {
  double weighed = 0;
  for (const auto& phase : flatCoeffs())
    for (std::size_t j = 0; j < phase.size(); ++j)
      weighed += std::abs(static_cast<double>(window[j])) * std::abs(static_cast<double>(phase[j]));
  return 10 * 0x1p-24 * weighed;
}

void expectPlainPeaks(const std::vector<float>& work, const Peaks& peaks) {
  for (std::size_t i = 0; i < peaks.perSample.size(); ++i)
    ASSERT_NEAR(peaks.perSample[i], static_cast<double>(plainPeak(work.data() + i)),
                roundingOf(work.data() + i))
        << "sample " << i << " of " << peaks.perSample.size();
  ASSERT_EQ(peaks.largest, *std::max_element(peaks.perSample.begin(), peaks.perSample.end()));
}

float streamPeakInChunks(const std::vector<float>& samples, const std::vector<std::int64_t>& splits,
                         History& state) {
  float peak = 0;
  const float* x = samples.data();
  for (std::int64_t n : splits) {
    peak = std::max(peak, streamPeak(state, x, n));
    x += n;
  }
  return peak;
}

// --- The filter ------------------------------------------------------------------------------------------

TEST(PolyphaseUpsampler4x, ConstantsAreThoseOfTheFilter) {
  EXPECT_EQ(factor, 4);
  EXPECT_EQ(taps, 49);
  EXPECT_EQ(delayFrames, 13);
  EXPECT_EQ(flatCoeffs().size(), 4u);
  for (const auto& phase : flatCoeffs()) EXPECT_EQ(phase.size(), 13u);
}

TEST(PolyphaseUpsampler4x, PhasesAreAHannWindowedSinc) {
  std::array<std::array<float, 13>, 4> expected{};
  for (int k = 0; k < 49; ++k) {
    const double x = (k - 24) * std::numbers::pi / 4;
    const double sinc = k == 24 ? 1.0 : std::sin(x) / x;
    const double h = (1 - std::cos(2 * std::numbers::pi * k / 48)) * 0.5 * sinc;
    if (std::abs(h) > 1e-9)
      expected[static_cast<std::size_t>(k % 4)][static_cast<std::size_t>(k / 4)] = static_cast<float>(h);
  }
  for (std::size_t p = 0; p < 4; ++p)
    for (std::size_t j = 0; j < 13; ++j)
      EXPECT_FLOAT_EQ(flatCoeffs()[p][j], expected[p][j]) << "phase " << p << " tap " << j;
}

TEST(PolyphaseUpsampler4x, PhasesHaveThePublishedValues) {
  constexpr double published[3][13] = {{-0.000167, 0.004896, -0.018526, 0.046265, -0.103457, 0.288683,
                                        0.896465, -0.161459, 0.069158, -0.030108, 0.01036, -0.001632, 0},
                                       {-0.000986, 0.010359, -0.033704, 0.080139, -0.18113, 0.625774,
                                        0.625774, -0.18113, 0.080139, -0.033704, 0.010359, -0.000986, 0},
                                       {-0.001632, 0.01036, -0.030108, 0.069158, -0.161459, 0.896465,
                                        0.288683, -0.103457, 0.046265, -0.018526, 0.004896, -0.000167, 0}};
  for (std::size_t p = 1; p < 4; ++p)
    for (std::size_t j = 0; j < 13; ++j)
      EXPECT_NEAR(flatCoeffs()[p][j], published[p - 1][j], 0.51e-6) << "phase " << p << " tap " << j;
}

TEST(PolyphaseUpsampler4x, PhaseZeroPassesTheSampleInPositionSix) {
  for (std::size_t j = 0; j < 13; ++j) EXPECT_EQ(flatCoeffs()[0][j], j == 6 ? 1.0f : 0.0f) << "tap " << j;
}

TEST(PolyphaseUpsampler4x, PhaseThreeIsPhaseOneReversedAndPhaseTwoItsOwnMirror) {
  for (std::size_t j = 0; j < 12; ++j) {
    EXPECT_EQ(flatCoeffs()[3][j], flatCoeffs()[1][11 - j]) << "tap " << j;
    EXPECT_EQ(flatCoeffs()[2][j], flatCoeffs()[2][11 - j]) << "tap " << j;
  }
  for (std::size_t p = 1; p < 4; ++p) EXPECT_EQ(flatCoeffs()[p][12], 0.0f) << "phase " << p;
}

TEST(PolyphaseUpsampler4x, PhasesAddUpToALittleMoreThanOne) {
  const auto sumOf = [](std::size_t p) {
    return std::accumulate(flatCoeffs()[p].begin(), flatCoeffs()[p].end(), 0.0);
  };
  EXPECT_NEAR(sumOf(1), 1.0005, 5e-5);
  EXPECT_NEAR(sumOf(2), 1.0009, 5e-5);
  EXPECT_NEAR(sumOf(3), 1.0005, 5e-5);
}

// --- The detector ----------------------------------------------------------------------------------------

TEST(PolyphaseUpsampler4x, EqualsThePlainCorrelationAtEverySize) {
  std::mt19937 rng(1);
  for (std::int64_t n = 1; n <= 70; ++n) {
    const std::vector<float> work = noise(rng, n + delayFrames, 1.0);
    expectPlainPeaks(work, detect(work));
  }
  for (std::int64_t n : {255, 256, 257, 4800, 10007}) {
    const std::vector<float> work = noise(rng, n + delayFrames, 1.0);
    expectPlainPeaks(work, detect(work));
  }
}

TEST(PolyphaseUpsampler4x, EqualsThePlainCorrelationAtEveryLevel) {
  std::mt19937 rng(2);
  for (double amplitude : {1e38, 1e20, 1e-3, 1e-20, 1e-30}) {
    const std::vector<float> work = noise(rng, 100 + delayFrames, amplitude);
    expectPlainPeaks(work, detect(work));
  }
}

TEST(PolyphaseUpsampler4x, EqualsThePlainCorrelationAtEveryAlignment) {
  std::mt19937 rng(3);
  const std::vector<float> samples = noise(rng, 200, 1.0);
  for (std::size_t offset = 0; offset < 17; ++offset) {
    const std::vector<float> work(samples.begin() + static_cast<std::ptrdiff_t>(offset), samples.end());
    const std::size_t n = work.size() - history;
    std::vector<float> scratch(n), peaks(n + offset);
    const std::span<float> shifted = std::span(peaks).subspan(offset);
    const float largest = detectPerSamplePeaks(std::span(samples).subspan(offset),
                                               static_cast<std::int64_t>(n), scratch, shifted);
    expectPlainPeaks(work, {std::vector<float>(shifted.begin(), shifted.end()), largest});
  }
}

TEST(PolyphaseUpsampler4x, BatchPeakIsTheSameOperation) {
  std::mt19937 rng(4);
  const std::vector<float> work = noise(rng, 333 + delayFrames, 1.0);
  std::vector<float> scratch(333), perSample(333);
  const Peaks peaks = detect(work);
  EXPECT_EQ(batchPeak(work, 333, scratch, perSample), peaks.largest);
  EXPECT_EQ(perSample, peaks.perSample);
}

TEST(PolyphaseUpsampler4x, NoFramesReadZeroAndTouchNothing) {
  std::vector<float> work(history, 1.0f), scratch(1), perSample = {0.25f};
  EXPECT_EQ(detectPerSamplePeaks(work, 0, scratch, perSample), 0.0f);
  EXPECT_EQ(detectPerSamplePeaks(work, -5, scratch, perSample), 0.0f);
  EXPECT_EQ(perSample[0], 0.25f);
  History state;
  state.fill(0.5f);
  const History before = state;
  EXPECT_EQ(streamPeak(state, nullptr, 0), 0.0f);
  EXPECT_EQ(streamPeak(state, nullptr, -1), 0.0f);
  EXPECT_EQ(state, before);
}

TEST(PolyphaseUpsampler4x, SpansThatAreTooShortStopTheProgram) {
  std::vector<float> work(112), scratch(100), peaks(100), short99(99);
  EXPECT_DEATH(detectPerSamplePeaks(work, 100, scratch, peaks), "PolyphaseUpsampler4x");
  work.push_back(0.0f);
  EXPECT_EQ(detectPerSamplePeaks(work, 100, scratch, peaks), 0.0f);
  EXPECT_DEATH(detectPerSamplePeaks(work, 100, scratch, short99), "PolyphaseUpsampler4x");
}

TEST(PolyphaseUpsampler4x, NewSampleIsCentredSevenOutputsLate) {
  for (std::size_t k = 0; k < 20; ++k) {
    std::vector<float> work(history + 40);
    work[history + k] = 1.0f;
    const Peaks peaks = detect(work);
    EXPECT_EQ(peaks.largest, 1.0f);
    for (std::size_t i = 0; i < 40; ++i)
      EXPECT_EQ(peaks.perSample[i] == 1.0f, i == k + 7) << "sample " << k << " output " << i;
  }
}

// Phase 0 passes the sample unchanged; the largest other tap is 0.896465.
TEST(PolyphaseUpsampler4x, SingleSampleReadsItsOwnValue) {
  std::vector<float> work(history + 30);
  for (float value : {1.0f, -1.0f, 0.3f}) {
    work[history] = value;
    EXPECT_EQ(detect(work).largest, std::abs(value));
  }
}

// A sine at a quarter of the rate that is sampled 45 degrees off its crests: samples at 0.7071, peak at 1.
TEST(PolyphaseUpsampler4x, PeakBetweenTheSamplesIsSeen) {
  const std::vector<float> samples = sine(48000, 4800, 12000, 1.0, std::numbers::pi / 4);
  const float samplePeak = std::abs(*std::max_element(samples.begin(), samples.end()));
  EXPECT_NEAR(samplePeak, std::numbers::sqrt2 / 2, 1e-6);
  const std::vector<float> settled(samples.begin() + 100, samples.end());
  const double truePeakDB = 20 * std::log10(detect(settled).largest);
  EXPECT_NEAR(truePeakDB, 0.0, 0.1);
}

// A full-scale square of low frequency is a run of ones: the filter is not normalised and reads its sum.
TEST(PolyphaseUpsampler4x, FullScaleDCReadsTheSumOfPhaseTwo) {
  const double sum = std::accumulate(flatCoeffs()[2].begin(), flatCoeffs()[2].end(), 0.0);
  EXPECT_NEAR(detect(std::vector<float>(100, 1.0f)).largest, sum, 1e-6);
  EXPECT_GT(sum, 1.0008);
}

// --- Streaming -------------------------------------------------------------------------------------------

TEST(PolyphaseUpsampler4x, StreamPeakEqualsTheDetectorAndKeepsTheLast13) {
  std::mt19937 rng(5);
  for (std::int64_t n = 1; n <= 70; ++n) {
    const std::vector<float> work = noise(rng, n + delayFrames, 1.0);
    History state;
    std::copy_n(work.begin(), history, state.begin());
    EXPECT_EQ(streamPeak(state, work.data() + history, n), detect(work).largest) << n << " frames";
    EXPECT_TRUE(std::equal(state.begin(), state.end(), work.end() - static_cast<std::ptrdiff_t>(history)))
        << n << " frames";
  }
}

TEST(PolyphaseUpsampler4x, AnySplitReadsAsTheWhole) {
  std::mt19937 rng(6);
  const std::vector<float> samples = noise(rng, 30000, 1.0);
  History wholeState{};
  const float whole = streamPeak(wholeState, samples.data(), 30000);
  EXPECT_GT(whole, *std::max_element(samples.begin(), samples.end()));
  std::vector<std::vector<std::int64_t>> splittings = {equalSplits(30000, 1),  equalSplits(30000, 2),
                                                       equalSplits(30000, 12), equalSplits(30000, 13),
                                                       equalSplits(30000, 14), equalSplits(30000, 10000)};
  for (int trial = 0; trial < 20; ++trial) splittings.push_back(randomSplits(rng, 30000));
  for (const auto& splits : splittings) {
    History state{};
    EXPECT_EQ(streamPeakInChunks(samples, splits, state), whole);
    EXPECT_EQ(state, wholeState);
  }
}

// A peak that stands across the border of two chunks, at every place around it.
TEST(PolyphaseUpsampler4x, PeakAcrossABorderOfChunksIsSeen) {
  for (std::int64_t start = 480; start < 500; ++start) {
    std::vector<float> samples(1000);
    samples[static_cast<std::size_t>(start)] = samples[static_cast<std::size_t>(start + 1)] = 0.9f;
    History wholeState{}, state{};
    const float whole = streamPeak(wholeState, samples.data(), 1000);
    EXPECT_NEAR(whole, 0.9 * 2 * 0.625774, 1e-5);  // half-way between the two
    EXPECT_EQ(streamPeakInChunks(samples, {490, 510}, state), whole) << "from " << start;
  }
}

// --- Samples that are not finite -------------------------------------------------------------------------

TEST(PolyphaseUpsampler4x, NaNLosesEveryComparison) {
  std::mt19937 rng(7);
  std::vector<float> work = noise(rng, 200 + delayFrames, 0.5);
  const Peaks clean = detect(work);
  work[100] = nan;
  const Peaks peaks = detect(work);
  for (std::size_t i = 0; i < 200; ++i) {
    EXPECT_TRUE(std::isfinite(peaks.perSample[i])) << i;
    EXPECT_LE(peaks.perSample[i], clean.perSample[i]) << i;
    if (i > 100 || i + 12 < 100) {
      EXPECT_EQ(peaks.perSample[i], clean.perSample[i]) << i;
    }
  }
  EXPECT_EQ(detect(std::vector<float>(50, nan)).largest, 0.0f);
}

TEST(PolyphaseUpsampler4x, InfiniteSampleReadsInfinity) {
  for (float value : {infinity, -infinity})
    for (std::size_t k = 0; k < 20; ++k) {
      std::vector<float> work(history + 60, 0.1f);
      work[history + k] = value;
      const Peaks peaks = detect(work);
      EXPECT_EQ(peaks.largest, infinity);
      EXPECT_EQ(peaks.perSample[k + 7], infinity);
      EXPECT_LT(peaks.perSample[k + 14], 0.2f);  // past it
    }
}

TEST(PolyphaseUpsampler4x, StreamGoesOnAfterSamplesThatAreNotFinite) {
  History state{};
  std::vector<float> samples(40, 0.25f);
  samples[20] = nan;
  EXPECT_LT(streamPeak(state, samples.data(), 40), 0.5f);
  const std::vector<float> later(100, 0.5f);
  EXPECT_NEAR(streamPeak(state, later.data(), 100), 0.5 * 1.0009, 0.1);
  EXPECT_NEAR(streamPeak(state, later.data(), 100), 0.5 * 1.0009, 1e-4);
}

// --- The meter's figures ---------------------------------------------------------------------------------

LoudnessProcessor stereoMeter() {
  return LoudnessProcessor({.sampleRate = 48000,
                            .channelCount = 2,
                            .precomputedSpeechHistory = std::nullopt,
                            .channelWeights = std::nullopt});
}

TEST(TruePeakFigures, SilenceReadsMinus160OnceAChunkIsIn) {
  LoudnessProcessor meter = stereoMeter();
  EXPECT_EQ(meter.truePeakDB(), -infinity);
  const Audio silence(2, 480);
  meter.updateTruePeak(silence.pointers(), 0);
  EXPECT_EQ(meter.truePeakDB(), -infinity);
  meter.updateTruePeak(silence.pointers(), 480);
  EXPECT_EQ(meter.truePeakDB(), -160.0f);
  EXPECT_EQ(meter.channelTruePeakDB()[0], -160.0f);
  EXPECT_EQ(meter.channelTruePeakDB()[1], -160.0f);
}

TEST(TruePeakFigures, SineBetweenTheSamplesReadsAboveItsSamplePeak) {
  LoudnessProcessor meter = stereoMeter();
  Audio audio;
  audio.channels.assign(2, sine(48000, 4800, 12000, 1.0, std::numbers::pi / 4));
  meter.updateTruePeak(audio.pointers(), 4800);
  EXPECT_GT(meter.truePeakDB(), -3.0103f + 2.9f);
}

TEST(TruePeakFigures, SingleFullScaleSampleReadsZero) {
  LoudnessProcessor meter = stereoMeter();
  Audio audio(2, 100);
  audio.channels[0][0] = 1.0f;
  meter.updateTruePeak(audio.pointers(), 100);
  EXPECT_EQ(meter.truePeakDB(), 0.0f);
  EXPECT_EQ(meter.channelTruePeakDB()[0], 0.0f);
  EXPECT_EQ(meter.channelTruePeakDB()[1], -160.0f);
}

TEST(TruePeakFigures, ChunksOf1And10000FramesReadTheSame) {
  std::mt19937 rng(8);
  const Audio audio = noiseAudio(rng, 2, 20000, 0.7);
  LoudnessProcessor large = stereoMeter(), small = stereoMeter();
  feed(large, audio, 10000);
  feed(small, audio, 1);
  EXPECT_EQ(small.truePeakDB(), large.truePeakDB());
  for (std::size_t c = 0; c < 2; ++c) EXPECT_EQ(small.channelTruePeakDB()[c], large.channelTruePeakDB()[c]);
}

}  // namespace
}  // namespace vellum
