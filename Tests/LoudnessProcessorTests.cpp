#include "VellumCore/LoudnessProcessor.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "Support/AllocationCounter.hpp"
#include "Support/PlainMeter.hpp"
#include "Support/Signals.hpp"

namespace vellum {
namespace {

using namespace test;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

LoudnessProcessor meterFor(std::int64_t channelCount, double sampleRate = 48000,
                           std::optional<std::vector<float>> weights = std::nullopt,
                           std::optional<std::vector<bool>> speech = std::nullopt) {
  return LoudnessProcessor({.sampleRate = sampleRate,
                            .channelCount = channelCount,
                            .precomputedSpeechHistory = std::move(speech),
                            .channelWeights = std::move(weights)});
}

// Stereo tone or silence in whole 100 ms blocks at 48 kHz.
Audio tone(double peakDBFS, int blocks) {
  return sineAudio(2, 48000, 0.1 * blocks, 1000, peakDBFS);
}
Audio silence(int blocks, std::size_t channels = 2) {
  return Audio(channels, 4800 * blocks);
}

// --- Construction and tables -----------------------------------------------------------------------------

TEST(LoudnessProcessor, CoefficientsAt48kHzAreThoseOfBS1770) {
  const auto [stage1, stage2] = LoudnessProcessor::computeKWeightingCoefficients(48000);
  const double published1[] = {1.53512485958697, -2.69169618940638, 1.19839281085285, -1.69065929318241,
                               0.73248077421585};
  const double published2[] = {1.0, -2.0, 1.0, -1.99004745483398, 0.99007225036621};
  const double exact1[] = {1.5351248595869702, -2.6916961894063807, 1.19839281085285, -1.6906592931824103,
                           0.7324807742158501};
  const double exact2[] = {1.0, -2.0, 1.0, -1.9900474548340101, 0.99007225036624};
  for (std::size_t k = 0; k < 5; ++k) {
    EXPECT_NEAR(stage1[k], published1[k], 2e-14) << k;
    EXPECT_NEAR(stage2[k], published2[k], 5e-14) << k;
    EXPECT_NEAR(stage1[k], exact1[k], 1e-14) << k;
    EXPECT_NEAR(stage2[k], exact2[k], 1e-14) << k;
  }
}

// The poles of a section lie inside the unit circle where |a2| < 1 and |a1| < 1 + a2.
TEST(LoudnessProcessor, KWeightingIsStableFromItsLowestRateOn) {
  const auto isStable = [](double rate) {
    const auto k = LoudnessProcessor::computeKWeightingCoefficients(rate);
    const auto holds = [](const LoudnessProcessor::SectionCoefficients& s) {
      return std::fabs(s[4]) < 1 && std::fabs(s[3]) < 1 + s[4];
    };
    return holds(k.stage1) && holds(k.stage2);
  };
  EXPECT_DOUBLE_EQ(LoudnessProcessor::lowestKWeightedRate, 2 * 1681.974450955533);
  for (double rate = LoudnessProcessor::lowestKWeightedRate + 0.01; rate <= 1e6; rate *= 1.01)
    ASSERT_TRUE(isStable(rate)) << rate;
  EXPECT_FALSE(isStable(LoudnessProcessor::lowestKWeightedRate - 0.01));
}

TEST(LoudnessProcessor, DefaultWeightsFollowTheChannelCount) {
  const float s = 1.41253f;
  const std::vector<std::vector<float>> table = {{},
                                                 {1},
                                                 {1, 1},
                                                 {1, 1, 1},
                                                 {1, 1, s, s},
                                                 {1, 1, 1, s, s},
                                                 {1, 1, 1, 0, s, s},
                                                 {1, 1, 1, 1, 1, 1, 1},
                                                 {1, 1, 1, 0, s, s, s, s},
                                                 {1, 1, 1, 1, 1, 1, 1, 1, 1}};
  for (std::size_t channels = 0; channels < table.size(); ++channels)
    EXPECT_EQ(LoudnessProcessor::staticChannelWeights(static_cast<std::int64_t>(channels)), table[channels])
        << channels;
}

TEST(LoudnessProcessor, WeightsOfAnotherCountAreReplacedByTheDefaults) {
  const auto weightsOf = [](std::int64_t channels, std::vector<float> given) {
    const LoudnessProcessor meter = meterFor(channels, 48000, std::move(given));
    return std::vector<float>(meter.resolvedWeights().begin(), meter.resolvedWeights().end());
  };
  EXPECT_EQ(weightsOf(2, {0.5f, 0.25f}), (std::vector<float>{0.5f, 0.25f}));
  EXPECT_EQ(weightsOf(2, {0.5f, 0.25f, 1}), (std::vector<float>{1, 1}));
  EXPECT_EQ(weightsOf(2, {}), (std::vector<float>{1, 1}));
  EXPECT_EQ(weightsOf(7, {1, 2}), std::vector<float>(7, 1.0f));
}

TEST(LoudnessProcessor, NewMeterHasNothingMeasured) {
  const LoudnessProcessor meter = meterFor(3);
  EXPECT_EQ(meter.momentaryLUFS(), -infinity);
  EXPECT_EQ(meter.shortTermLUFS(), -infinity);
  EXPECT_EQ(meter.integratedLUFS(), -infinity);
  EXPECT_EQ(meter.loudnessRange(), -infinity);
  EXPECT_EQ(meter.truePeakDB(), -infinity);
  EXPECT_EQ(meter.lastBlockTruePeakDB(), -infinity);
  EXPECT_EQ(meter.speechGatedLUFS(), -infinity);
  EXPECT_EQ(meter.speechGatedNoiseFloorDBRMS(), -infinity);
  EXPECT_EQ(meter.speechPercentage(), 0);
  EXPECT_FALSE(meter.collectHistory());
  ASSERT_EQ(meter.channelTruePeakDB().size(), 3u);
  ASSERT_EQ(meter.channelRMS().size(), 3u);
  for (std::size_t c = 0; c < 3; ++c) {
    EXPECT_EQ(meter.channelTruePeakDB()[c], -infinity);
    EXPECT_EQ(meter.channelRMS()[c], 0);
  }
  EXPECT_EQ(meter.sampleRate(), 48000);
  EXPECT_EQ(meter.channelCount(), 3);
  EXPECT_EQ(LoudnessProcessor::gateBlockDuration, 0.1);
}

TEST(LoudnessProcessor, SampleRatesBelow5HzOrAbove1MHzStopTheProgram) {
  EXPECT_DEATH(meterFor(1, 4.99), "sampleRate must be 5 to 1,000,000 Hz");
  EXPECT_DEATH(meterFor(1, 1000001), "sampleRate must be");
  EXPECT_DEATH(meterFor(1, std::numeric_limits<double>::quiet_NaN()), "sampleRate must be");
}

TEST(LoudnessProcessor, SampleRatesFrom5HzTo1MHzWork) {
  for (const double rate : {5.0, 8.0, 100.0, 11025.0, 1e6}) {
    LoudnessProcessor meter = meterFor(1, rate);
    const auto frames = static_cast<std::int64_t>(rate) + 100;
    std::mt19937 rng(1);
    feed(meter, noiseAudio(rng, 1, frames, 0.5), frames / 3 + 1);
    meter.flushPartialBlock();
    EXPECT_GT(meter.truePeakDB(), -10) << rate;
    EXPECT_FALSE(std::isnan(meter.integratedLUFS())) << rate;
  }
}

TEST(LoudnessProcessor, BlockLengthRoundsHalvesUp) {
  EXPECT_EQ(meterFor(1, 11025).gateBlockFrames(), 1103);
  EXPECT_EQ(meterFor(1, 44100).gateBlockFrames(), 4410);
  EXPECT_EQ(meterFor(1, 48000).gateBlockFrames(), 4800);
  EXPECT_EQ(meterFor(1, 5).gateBlockFrames(), 1);
  // And blocks complete at that length.
  LoudnessProcessor meter = meterFor(1, 11025);
  feed(meter, sineAudio(1, 11025, 1102.0 / 11025, 1000, -20));
  EXPECT_EQ(meter.momentaryLUFS(), -infinity);
  feed(meter, sineAudio(1, 11025, 1.0 / 11025, 1000, -20));
  EXPECT_EQ(meter.lastBlockTruePeakDB(), meter.truePeakDB());
}

TEST(LoudnessProcessor, NegativeChannelCountStopsTheProgramAndNoChannelsStopItAtTheFirstBlock) {
  EXPECT_DEATH(meterFor(-1), "channelCount must not be negative");
  LoudnessProcessor meter = meterFor(0);
  meter.process({}, 4799);
  EXPECT_DEATH(meter.process({}, 1), "at least one channel");
}

TEST(LoudnessProcessor, WrongNumberOfPointersStopsTheProgram) {
  LoudnessProcessor meter = meterFor(2);
  const Audio mono(1, 10);
  EXPECT_DEATH(meter.process(mono.pointers(), 10), "process takes one pointer per channel");
  EXPECT_DEATH(meter.updateTruePeak(mono.pointers(), 10), "updateTruePeak takes one pointer per channel");
}

// --- Loudness --------------------------------------------------------------------------------------------

TEST(LoudnessProcessor, StereoSineOfMinus23PeakReadsMinus23LUFS) {
  LoudnessProcessor meter = meterFor(2);
  feed(meter, tone(-23, 50));
  EXPECT_NEAR(meter.integratedLUFS(), -23.0, 0.1);
  EXPECT_NEAR(meter.momentaryLUFS(), -23.0, 0.1);
  EXPECT_NEAR(meter.shortTermLUFS(), -23.0, 0.1);
}

TEST(LoudnessProcessor, FirstBlockGivesMomentaryAndShortTermAlike) {
  LoudnessProcessor meter = meterFor(2);
  Audio audio = tone(-20, 1);
  for (auto& channel : audio.channels) channel.pop_back();
  feed(meter, audio);
  EXPECT_EQ(meter.momentaryLUFS(), -infinity);
  feed(meter, Audio(2, 1));
  EXPECT_TRUE(std::isfinite(meter.momentaryLUFS()));
  EXPECT_EQ(meter.momentaryLUFS(), meter.shortTermLUFS());
}

TEST(LoudnessProcessor, ShortTermValuesEnterTheRangeFromThe30thBlockOn) {
  LoudnessProcessor meter = meterFor(2);
  feed(meter, tone(-20, 29));
  EXPECT_EQ(meter.shortTermLUFSHistory().count(), 0);
  feed(meter, tone(-20, 1));
  ASSERT_EQ(meter.shortTermLUFSHistory().count(), 1);
  EXPECT_EQ(meter.shortTermLUFSHistory().valueAt(0), meter.shortTermLUFS());
}

TEST(LoudnessProcessor, WindowsForgetBlocksOlderThanTheirLength) {
  LoudnessProcessor meter = meterFor(2);
  feed(meter, tone(-10, 30));
  feed(meter, silence(1));  // the filter rings on for a moment
  EXPECT_NEAR(meter.momentaryLUFS(), -10 + 10 * std::log10(3.0 / 4.0), 0.05);
  feed(meter, silence(4));
  EXPECT_LT(meter.momentaryLUFS(), -60);
  EXPECT_NEAR(meter.shortTermLUFS(), -10 + 10 * std::log10(25.0 / 30.0), 0.05);
  feed(meter, silence(26));
  EXPECT_LT(meter.shortTermLUFS(), -60);
}

TEST(LoudnessProcessor, DigitalSilenceReadsMinusInfinityAndMinus160TruePeak) {
  LoudnessProcessor meter = meterFor(2);
  feed(meter, silence(40));
  EXPECT_EQ(meter.momentaryLUFS(), -infinity);
  EXPECT_EQ(meter.shortTermLUFS(), -infinity);
  EXPECT_EQ(meter.integratedLUFS(), -infinity);
  EXPECT_EQ(meter.lastBlockTruePeakDB(), -160);
  EXPECT_EQ(meter.truePeakDB(), -160);
  EXPECT_EQ(meter.channelTruePeakDB()[0], -160);
  EXPECT_EQ(meter.channelTruePeakDB()[1], -160);
}

TEST(LoudnessProcessor, FlushWithNothingPendingChangesNothing) {
  LoudnessProcessor meter = meterFor(2);
  meter.setCollectHistory(true);
  feed(meter, tone(-20, 35));
  const float momentary = meter.momentaryLUFS(), blockPeak = meter.lastBlockTruePeakDB();
  meter.flushPartialBlock();
  EXPECT_EQ(meter.blockPowerHistory().size(), 35u);
  EXPECT_EQ(meter.momentaryLUFS(), momentary);
  EXPECT_EQ(meter.lastBlockTruePeakDB(), blockPeak);
  EXPECT_EQ(meter.precomputedBlockIndex(), 35);
}

TEST(LoudnessProcessor, PartialBlockCountsInTheWindowsButNotForIntegratedLoudness) {
  LoudnessProcessor meter = meterFor(2);
  meter.setCollectHistory(true);
  feed(meter, tone(-30, 30));
  const double integrated = meter.integratedLUFS();
  feed(meter, sineAudio(2, 48000, 0.05, 1000, -10));
  meter.flushPartialBlock();
  EXPECT_EQ(meter.integratedLUFS(), integrated);
  // At full weight: one of four blocks is 20 dB louder, whatever its length.
  EXPECT_NEAR(meter.momentaryLUFS(), -30 + 10 * std::log10((3 + 100) / 4.0), 0.2);
  ASSERT_EQ(meter.blockPowerHistory().size(), 31u);
  EXPECT_EQ(meter.blockPowerHistory().back(), 0.0);
  EXPECT_GT(meter.blockPowerHistory()[29], 0.0);
  EXPECT_EQ(meter.loudnessHistory().size(), 31u);
  EXPECT_EQ(meter.speechHistory().size(), 31u);
  EXPECT_EQ(meter.truePeakHistory().size(), 31u);
  EXPECT_NEAR(meter.truePeakHistory().back(), -10, 0.1);
  EXPECT_EQ(meter.shortTermLUFSHistory().count(), 2);
}

TEST(LoudnessProcessor, FrameCountBelowOneDoesNothing) {
  LoudnessProcessor meter = meterFor(2);
  const Audio audio = tone(0, 1);
  meter.process(audio.pointers(), 0);
  meter.process(audio.pointers(), -5);
  meter.updateTruePeak(audio.pointers(), 0);
  meter.updateTruePeak(audio.pointers(), -5);
  meter.flushPartialBlock();
  EXPECT_EQ(meter.truePeakDB(), -infinity);
  EXPECT_EQ(meter.lastBlockTruePeakDB(), -infinity);
  EXPECT_EQ(meter.channelRMS()[0], 0);
}

// --- Against the definition ------------------------------------------------------------------------------

// A programme that walks through loud, soft and silent stretches.
Audio randomProgramme(std::mt19937& rng, std::size_t channels, double sampleRate, double seconds) {
  Audio audio;
  const auto frames = static_cast<std::int64_t>(sampleRate * seconds);
  while (audio.frameCount() < frames) {
    const auto stretch =
        static_cast<std::int64_t>(sampleRate * (0.05 + 0.001 * static_cast<double>(rng() % 1500)));
    const double level = rng() % 6 == 0 ? 0 : std::pow(10.0, -static_cast<double>(rng() % 70) / 20.0);
    Audio next = noiseAudio(rng, channels, stretch, level * 0.3);
    for (std::size_t c = 0; c < channels; ++c) {
      const auto sung = sine(sampleRate, stretch, 100 + static_cast<double>(rng() % 3000), level * 0.5);
      for (std::size_t n = 0; n < sung.size(); ++n) next.channels[c][n] += sung[n];
    }
    audio.append(next);
  }
  for (auto& channel : audio.channels) channel.resize(static_cast<std::size_t>(frames));
  return audio;
}

std::vector<bool> randomFlags(std::mt19937& rng, std::size_t count) {
  std::vector<bool> flags(count);
  for (std::size_t k = 0; k < count; ++k) flags[k] = rng() % 2 == 0;
  return flags;
}

TEST(LoudnessProcessor, EqualsThePlainDefinitionOnRandomProgrammes) {
  struct Case {
    std::size_t channels;
    double sampleRate;
    std::vector<float> weights;
  };
  const Case cases[] = {{1, 48000, {1}},
                        {2, 44100, {1, 1}},
                        {2, 8000, {1, 1}},
                        {6, 16000, {1, 1, 1, 0, 1.41253f, 1.41253f}},
                        {3, 11025, {1, 0.5f, 2}}};
  for (const Case& each : cases) {
    std::mt19937 rng(static_cast<unsigned>(each.sampleRate));
    const Audio audio = randomProgramme(rng, each.channels, each.sampleRate, 12.345);
    const std::vector<bool> speech = randomFlags(rng, 200);
    const auto expected = PlainMeter(each.sampleRate, each.weights).measure(audio, speech);

    LoudnessProcessor meter =
        meterFor(static_cast<std::int64_t>(each.channels), each.sampleRate, each.weights, speech);
    feed(meter, audio, randomSplits(rng, audio.frameCount()));
    meter.flushPartialBlock();

    const std::string where =
        std::to_string(each.channels) + " channels, " + std::to_string(each.sampleRate) + " Hz";
    const auto near = [&](double actual, PlainMeter::Real oracle, double tolerance) {
      ASSERT_TRUE(std::isfinite(oracle)) << where;
      EXPECT_NEAR(actual, static_cast<double>(oracle), tolerance) << where;
    };
    // 32-bit figures near -20 hold about 2e-6.
    near(meter.momentaryLUFS(), expected.momentary, 1e-5);
    near(meter.shortTermLUFS(), expected.shortTerm, 1e-5);
    near(meter.integratedLUFS(), expected.integrated, 1e-6);
    near(meter.loudnessRange(), expected.range, 2e-5);
    near(meter.speechGatedLUFS(), expected.speechGated, 1e-6);
    near(meter.speechGatedNoiseFloorDBRMS(), expected.noiseFloor, 2e-5);
    near(meter.speechPercentage(), expected.speechPercentage, 1e-4);
  }
}

// Filter state, filtered values and sums are 64-bit: where 32-bit recursions are off by up to 1.7 dB, block
// powers stay within 1e-6 dB.
TEST(LoudnessProcessor, BlockPowerStaysWithinAMillionthOfADecibelAtEveryRate) {
  const auto add = [](std::vector<float>& to, const std::vector<float>& from) {
    for (std::size_t n = 0; n < to.size(); ++n) to[n] += from[n];
  };
  for (const double rate : {44100.0, 48000.0, 96000.0, 192000.0}) {
    const auto frames = static_cast<std::int64_t>(rate);
    std::mt19937 rng(9);
    std::vector<std::pair<std::string, std::vector<float>>> signals = {
        {"tone at -20 dBFS", sine(rate, frames, 997, 0.1)},
        {"-60 dBFS tone on a DC offset of 0.9", std::vector<float>(static_cast<std::size_t>(frames), 0.9f)},
        {"10 Hz at 0 dBFS under 997 Hz at -80 dBFS", sine(rate, frames, 10, 1.0)},
        {"noise", noise(rng, frames, 0.3)}};
    add(signals[1].second, sine(rate, frames, 997, 1e-3));
    add(signals[2].second, sine(rate, frames, 997, 1e-4));
    for (const auto& [name, samples] : signals) {
      Audio audio;
      audio.channels = {samples};
      const std::vector<PlainMeter::Real> exact = PlainMeter(rate, {1}).blockPowers(audio);
      for (const std::int64_t chunk : {std::int64_t{1}, std::int64_t{997}, std::int64_t{4800}, frames}) {
        LoudnessProcessor meter = meterFor(1, rate);
        meter.setCollectHistory(true);
        feed(meter, audio, chunk);
        ASSERT_EQ(meter.blockPowerHistory().size(), exact.size());
        for (std::size_t b = 0; b < exact.size(); ++b) {
          const auto deviation =
              10 * std::log10(static_cast<long double>(meter.blockPowerHistory()[b]) / exact[b]);
          EXPECT_NEAR(static_cast<double>(deviation), 0, 1e-6)
              << name << " at " << rate << " Hz, block " << b << ", chunks of " << chunk;
        }
      }
    }
  }
}

TEST(LoudnessProcessor, AnyChunkingGivesTheSameFigures) {
  std::mt19937 rng(77);
  const Audio audio = randomProgramme(rng, 2, 48000, 8.03);
  LoudnessProcessor whole = meterFor(2);
  feed(whole, audio, audio.frameCount());
  whole.flushPartialBlock();
  ASSERT_TRUE(std::isfinite(whole.integratedLUFS()));

  std::vector<std::vector<std::int64_t>> splits;
  for (const std::int64_t chunk : {1, 7, 997, 4800, 100000})
    splits.push_back(equalSplits(audio.frameCount(), chunk));
  for (int trial = 0; trial < 6; ++trial) splits.push_back(randomSplits(rng, audio.frameCount()));
  for (std::size_t s = 0; s < splits.size(); ++s) {
    LoudnessProcessor meter = meterFor(2);
    feed(meter, audio, splits[s]);
    meter.flushPartialBlock();
    // A segment's mean square is rounded to 32 bits: with segments of one frame that leaves some 1e-7.
    EXPECT_NEAR(meter.momentaryLUFS(), whole.momentaryLUFS(), 1e-5) << "split " << s;
    EXPECT_NEAR(meter.shortTermLUFS(), whole.shortTermLUFS(), 1e-5) << "split " << s;
    EXPECT_NEAR(meter.integratedLUFS(), whole.integratedLUFS(), 1e-6) << "split " << s;
    EXPECT_NEAR(meter.loudnessRange(), whole.loudnessRange(), 2e-5) << "split " << s;
    EXPECT_NEAR(meter.speechGatedLUFS(), whole.speechGatedLUFS(), 1e-6) << "split " << s;
    EXPECT_EQ(meter.speechPercentage(), whole.speechPercentage()) << "split " << s;
    EXPECT_EQ(meter.speechGatedNoiseFloorDBRMS(), whole.speechGatedNoiseFloorDBRMS()) << "split " << s;
    EXPECT_EQ(meter.truePeakDB(), whole.truePeakDB()) << "split " << s;
    EXPECT_EQ(meter.channelTruePeakDB()[1], whole.channelTruePeakDB()[1]) << "split " << s;
  }
}

TEST(LoudnessProcessor, AbsentChannelStandsStillAndComesBack) {
  // Where the right channel is absent its filter does not move: it measures as if the gap were cut out.
  std::mt19937 rng(4);
  const Audio before = noiseAudio(rng, 2, 4800, 0.5), during = noiseAudio(rng, 2, 4800, 0.5),
              after = noiseAudio(rng, 2, 4800, 0.5);
  LoudnessProcessor meter = meterFor(2);
  meter.setCollectHistory(true);
  feed(meter, before);
  const float* leftOnly[] = {during.channels[0].data(), nullptr};
  meter.updateTruePeak(leftOnly, 4800);
  meter.process(leftOnly, 4800);
  const float rmsWhileAbsent = meter.channelRMS()[1];
  feed(meter, after);

  Audio left, right;
  left.channels = {before.channels[0]};
  right.channels = {before.channels[1]};
  Audio middle, end;
  middle.channels = {during.channels[0]};
  left.append(middle);
  end.channels = {after.channels[0]};
  left.append(end);
  end.channels = {after.channels[1]};
  right.append(end);
  const auto leftPowers = PlainMeter(48000, {1}).blockPowers(left);
  const auto rightPowers = PlainMeter(48000, {1}).blockPowers(right);
  ASSERT_EQ(meter.blockPowerHistory().size(), 3u);
  const long double expected[] = {leftPowers[0] + rightPowers[0], leftPowers[1],
                                  leftPowers[2] + rightPowers[1]};
  for (std::size_t b = 0; b < 3; ++b)
    EXPECT_NEAR(meter.blockPowerHistory()[b], static_cast<double>(expected[b]),
                3e-7 * static_cast<double>(expected[b]));
  EXPECT_GT(rmsWhileAbsent, 0);
  EXPECT_EQ(meter.speechHistory().size(), 3u);
}

// --- Loudness range, noise floor, channel RMS ------------------------------------------------------------

TEST(LoudnessProcessor, RangeOfASteadyToneAppearsWithThe39thBlockAndIsZero) {
  LoudnessProcessor meter = meterFor(2);
  feed(meter, tone(-20, 38));
  EXPECT_EQ(meter.loudnessRange(), -infinity);
  feed(meter, tone(-20, 1));
  // Every short-term value is the same but for the first block's onset: the percentiles are.
  EXPECT_NEAR(meter.loudnessRange(), 0, 0.01);
  EXPECT_GE(meter.loudnessRange(), 0);
  feed(meter, tone(-20, 100));
  EXPECT_GE(meter.loudnessRange(), 0);
  EXPECT_LT(meter.loudnessRange(), 1e-3);
}

TEST(LoudnessProcessor, ProgrammeBelowMinus70LUFSNeverGetsARange) {
  LoudnessProcessor meter = meterFor(2);
  feed(meter, tone(-71, 100));
  EXPECT_LT(meter.shortTermLUFS(), -70);
  EXPECT_TRUE(std::isfinite(meter.shortTermLUFS()));
  EXPECT_EQ(meter.shortTermLUFSHistory().count(), 0);
  EXPECT_EQ(meter.loudnessRange(), -infinity);
}

TEST(LoudnessProcessor, ShortTermValuesJustAboveMinus70LUFSEnterTheRange) {
  LoudnessProcessor above = meterFor(2), below = meterFor(2);
  feed(above, tone(-69.97, 60));
  feed(below, tone(-70.03, 60));
  ASSERT_NEAR(above.shortTermLUFS(), -69.96, 0.02);
  EXPECT_GT(above.shortTermLUFSHistory().count(), 0);
  ASSERT_NEAR(below.shortTermLUFS(), -70.02, 0.02);
  EXPECT_EQ(below.shortTermLUFSHistory().count(), 0);
}

TEST(LoudnessProcessor, RangeNeedsExactlyTenValuesAboveTheRelativeGate) {
  LoudnessProcessor meter = meterFor(2);
  feed(meter, tone(-62, 45));
  feed(meter, tone(0, 9));
  EXPECT_EQ(meter.loudnessRange(), -infinity);
  feed(meter, tone(0, 1));
  EXPECT_TRUE(std::isfinite(meter.loudnessRange()));
}

TEST(LoudnessProcessor, RangeIsUnmeasuredAgainWhenFewerThanTenValuesPassTheRelativeGate) {
  LoudnessProcessor meter = meterFor(2);
  feed(meter, tone(-62, 45));  // 16 values near -62 LUFS
  ASSERT_TRUE(std::isfinite(meter.loudnessRange()));
  feed(meter, tone(0, 1));  // one at -15 lifts the gate to about -47
  EXPECT_EQ(meter.loudnessRange(), -infinity);
  feed(meter, tone(0, 9));
  EXPECT_TRUE(std::isfinite(meter.loudnessRange()));
}

TEST(LoudnessProcessor, NoiseFloorPercentileIsTheRankOfNineTenths) {
  OrderedStatistics<float> values;
  EXPECT_EQ(LoudnessProcessor::noiseFloorPercentileDB(values), -infinity);
  values.insert(0.5f);
  EXPECT_FLOAT_EQ(LoudnessProcessor::noiseFloorPercentileDB(values), 20 * std::log10(0.5f));
  values.clear();
  for (const float v : {0.3f, 0.1f, 0.9f, 0.2f, 0.8f, 0.4f, 1.0f, 0.6f, 0.5f, 0.7f}) values.insert(v);
  EXPECT_FLOAT_EQ(LoudnessProcessor::noiseFloorPercentileDB(values),
                  20 * std::log10(0.9f));  // the ninth smallest
  values.insert(1.1f);                     // of eleven the tenth
  EXPECT_FLOAT_EQ(LoudnessProcessor::noiseFloorPercentileDB(values), 0.0f);
  values.clear();
  values.insert(0.0f);
  EXPECT_EQ(LoudnessProcessor::noiseFloorPercentileDB(values), -200);
}

TEST(LoudnessProcessor, NoiseFloorNeverReadsBelowMinus200) {
  LoudnessProcessor meter = meterFor(1);
  feed(meter, silence(3, 1));
  EXPECT_EQ(meter.speechGatedNoiseFloorDBRMS(), -200);
}

TEST(LoudnessProcessor, ChannelRMSOfASquareWaveIs015ThenAlmost028) {
  LoudnessProcessor meter = meterFor(1);
  Audio square(1, 1000);
  for (std::size_t n = 0; n < 1000; ++n) square.channels[0][n] = n % 100 < 50 ? 1.0f : -1.0f;
  meter.process(square.pointers(), 1000);
  EXPECT_FLOAT_EQ(meter.channelRMS()[0], 0.15f);
  meter.process(square.pointers(), 1000);
  EXPECT_FLOAT_EQ(meter.channelRMS()[0], 0.2775f);
}

// --- Speech ----------------------------------------------------------------------------------------------

TEST(LoudnessProcessor, ProgrammeWithoutSpeechHasOnlyANoiseFloor) {
  LoudnessProcessor meter = meterFor(2, 48000, std::nullopt, std::vector<bool>(100, false));
  std::mt19937 rng(2);
  feed(meter, noiseAudio(rng, 2, 48000, 0.1));
  EXPECT_EQ(meter.speechGatedLUFS(), -infinity);
  EXPECT_EQ(meter.speechPercentage(), 0);
  // Mean of two independent uniform noises of +-0.1: RMS 0.1 / sqrt(3) / sqrt(2).
  EXPECT_NEAR(meter.speechGatedNoiseFloorDBRMS(), 20 * std::log10(0.1 / std::sqrt(6.0)), 0.2);
}

TEST(LoudnessProcessor, PureSpeechIs100PercentAndReadsLikeIntegratedLoudness) {
  std::mt19937 rng(3);
  const Audio audio = noiseAudio(rng, 2, 96000, 0.1);
  LoudnessProcessor meter = meterFor(2, 48000, std::nullopt, std::vector<bool>(100, true));
  feed(meter, audio);
  EXPECT_EQ(meter.speechPercentage(), 100);
  EXPECT_EQ(meter.speechGatedLUFS(), meter.integratedLUFS());
  EXPECT_EQ(meter.speechGatedNoiseFloorDBRMS(), -infinity);
}

TEST(LoudnessProcessor, FlagsShorterThanTheProgrammeLeaveTheRestToTheDetector) {
  LoudnessProcessor meter = meterFor(2, 48000, std::nullopt, std::vector<bool>{true, false, true});
  meter.setCollectHistory(true);
  std::mt19937 rng(5);
  feed(meter, noiseAudio(rng, 2, 4800 * 6, 0.3));  // white noise: never speech to the detector
  EXPECT_EQ(meter.speechHistory(), (std::vector<bool>{true, false, true, false, false, false}));
  EXPECT_EQ(meter.precomputedBlockIndex(), 6);
}

// A steady tone in the voice's band without harmonics is decided by its change from the previous block: it
// is speech once, then no more.
TEST(LoudnessProcessor, DetectorKeepsItsMemoryWhileGivenFlagsDecide) {
  const auto steady = [](int blocks) { return sineAudio(1, 48000, 0.1 * blocks, 350, -20); };
  LoudnessProcessor meter = meterFor(1);
  meter.setCollectHistory(true);
  feed(meter, steady(2));
  ASSERT_EQ(meter.speechHistory(), (std::vector<bool>{true, false}));
  meter.setPrecomputedSpeechHistory(std::vector<bool>{true, true, true, true});
  feed(meter, silence(2, 1));  // would clear the detector's memory if it were asked
  feed(meter, steady(1));
  EXPECT_EQ(meter.speechHistory(), (std::vector<bool>{true, false, true, true, false}));
}

TEST(LoudnessProcessor, DetectorWorksAtTheMetersOwnRate) {
  for (const double rate : {8000.0, 16000.0, 44100.0}) {
    std::mt19937 rng(21);
    const Audio audio = randomProgramme(rng, 1, rate, 10);
    LoudnessProcessor meter = meterFor(1, rate);
    meter.setCollectHistory(true);
    feed(meter, audio);
    SpeechVAD detector(rate);
    const std::int64_t n = meter.gateBlockFrames();
    std::vector<bool> expected;
    for (std::int64_t first = 0; first + n <= audio.frameCount(); first += n)
      expected.push_back(
          detector.isSpeech(std::span<const float>(audio.channels[0])
                                .subspan(static_cast<std::size_t>(first), static_cast<std::size_t>(n))));
    EXPECT_EQ(meter.speechHistory(), expected) << rate;
    EXPECT_NE(std::count(expected.begin(), expected.end(), true), 0) << rate;
    EXPECT_NE(std::count(expected.begin(), expected.end(), false), 0) << rate;
  }
}

TEST(LoudnessProcessor, SilentBlockLeavesTheSpeechShareAlone) {
  LoudnessProcessor meter =
      meterFor(2, 48000, std::nullopt, std::vector<bool>{true, true, false, true, false, true});
  feed(meter, tone(-20, 2));
  EXPECT_EQ(meter.speechPercentage(), 100);
  feed(meter, silence(1));  // the filter rings on for a moment: not silent
  EXPECT_NEAR(meter.speechPercentage(), 100.0 * 2 / 3, 1e-4);
  feed(meter, silence(20));
  EXPECT_NEAR(meter.speechPercentage(), 100.0 * 2 / 3, 1e-4);

  LoudnessProcessor untouched = meterFor(2, 48000, std::nullopt, std::vector<bool>{false, false, true});
  feed(untouched, silence(2));
  EXPECT_EQ(untouched.speechPercentage(), 0);
  feed(untouched, tone(-20, 1));  // the first that counts
  EXPECT_EQ(untouched.speechPercentage(), 100);
}

TEST(LoudnessProcessor, PartialBlockCountsForTheShareAndTheNoiseFloorButNotForSpeechGatedLoudness) {
  LoudnessProcessor meter = meterFor(2, 48000, std::nullopt, std::vector<bool>{true, false});
  feed(meter, tone(-20, 1));
  const double speechGated = meter.speechGatedLUFS();
  feed(meter, sineAudio(2, 48000, 0.03, 1000, -10));
  meter.flushPartialBlock();
  EXPECT_EQ(meter.speechPercentage(), 50);
  EXPECT_EQ(meter.speechGatedLUFS(), speechGated);
  EXPECT_NEAR(meter.speechGatedNoiseFloorDBRMS(), -13.01, 0.01);
}

TEST(LoudnessProcessor, BlockIndexRepositionsTheFlagsAndNegativeIsZero) {
  LoudnessProcessor meter = meterFor(2, 48000, std::nullopt, std::vector<bool>{true, false, true, false});
  meter.setCollectHistory(true);
  meter.setBlockIndex(2);
  feed(meter, tone(-20, 2));
  EXPECT_EQ(meter.speechHistory(), (std::vector<bool>{true, false}));
  meter.setBlockIndex(-5);
  EXPECT_EQ(meter.precomputedBlockIndex(), 0);
  meter.setBlockIndex(std::numeric_limits<std::int64_t>::max());
  feed(meter, tone(-20, 1));  // past every flag: the detector decides
  EXPECT_EQ(meter.precomputedBlockIndex(), std::numeric_limits<std::int64_t>::max());
}

// --- True peak -------------------------------------------------------------------------------------------

TEST(LoudnessProcessor, SineAtAQuarterOfTheRateReadsItsPeakBetweenTheSamples) {
  LoudnessProcessor meter = meterFor(1);
  Audio audio;
  audio.channels = {sine(48000, 48000, 12000, 1.0, std::numbers::pi / 4)};  // samples at +-0.7071
  feed(meter, audio);
  EXPECT_GT(meter.truePeakDB(), -0.4);
  EXPECT_LT(meter.truePeakDB(), 0.7);  // the hard onset rings a little
}

TEST(LoudnessProcessor, SingleFullScaleSampleReadsZero) {
  LoudnessProcessor meter = meterFor(1);
  Audio audio(1, 4800);
  audio.channels[0][100] = 1.0f;
  feed(meter, audio);
  EXPECT_EQ(meter.truePeakDB(), 0.0f);
  EXPECT_EQ(meter.lastBlockTruePeakDB(), 0.0f);
}

TEST(LoudnessProcessor, ChunksOf1And10000FramesGiveTheSameTruePeak) {
  std::mt19937 rng(8);
  const Audio audio = noiseAudio(rng, 2, 30000, 0.7);
  LoudnessProcessor small = meterFor(2), large = meterFor(2);
  feed(small, audio, 1);
  feed(large, audio, 10000);
  EXPECT_EQ(small.truePeakDB(), large.truePeakDB());
  for (std::size_t c = 0; c < 2; ++c) EXPECT_EQ(small.channelTruePeakDB()[c], large.channelTruePeakDB()[c]);
}

TEST(LoudnessProcessor, PeakOfAChunkThatSpansBlocksBelongsToTheFirstItCompletes) {
  LoudnessProcessor meter = meterFor(1);
  meter.setCollectHistory(true);
  Audio audio(1, 4800 * 3);
  audio.channels[0][4800 * 2 + 100] = 0.5f;
  feed(meter, audio, audio.frameCount());
  ASSERT_EQ(meter.truePeakHistory().size(), 3u);
  EXPECT_NEAR(meter.truePeakHistory()[0], 20 * std::log10(0.5), 1e-5);
  EXPECT_EQ(meter.truePeakHistory()[1], -160);
  EXPECT_EQ(meter.truePeakHistory()[2], -160);
}

TEST(LoudnessProcessor, TruePeakOnlyRises) {
  LoudnessProcessor meter = meterFor(2);
  feed(meter, tone(-6, 2));
  const float loud = meter.truePeakDB();
  feed(meter, tone(-40, 2));
  EXPECT_EQ(meter.truePeakDB(), loud);
  EXPECT_LT(meter.lastBlockTruePeakDB(), -39);
}

// --- Resets ----------------------------------------------------------------------------------------------

// Everything that can be read, for comparing one run with another.
struct Reading {
  std::vector<double> figures;
  std::vector<LoudnessProcessor::HistoryEntry> loudness;
  std::vector<double> powers;
  std::vector<float> truePeaks;
  std::vector<bool> speech;
  friend bool operator==(const Reading&, const Reading&) = default;
};

Reading reading(const LoudnessProcessor& meter) {
  Reading r;
  r.figures = {meter.momentaryLUFS(),
               meter.shortTermLUFS(),
               meter.integratedLUFS(),
               meter.loudnessRange(),
               meter.truePeakDB(),
               meter.lastBlockTruePeakDB(),
               meter.speechGatedLUFS(),
               meter.speechPercentage(),
               meter.speechGatedNoiseFloorDBRMS(),
               static_cast<double>(meter.precomputedBlockIndex()),
               static_cast<double>(meter.shortTermLUFSHistory().count())};
  for (float rms : meter.channelRMS()) r.figures.push_back(rms);
  for (float peak : meter.channelTruePeakDB()) r.figures.push_back(peak);
  r.loudness.assign(meter.loudnessHistory().begin(), meter.loudnessHistory().end());
  r.powers.assign(meter.blockPowerHistory().begin(), meter.blockPowerHistory().end());
  r.truePeaks.assign(meter.truePeakHistory().begin(), meter.truePeakHistory().end());
  r.speech = meter.speechHistory();
  return r;
}

TEST(LoudnessProcessor, SecondRunAfterEitherResetEqualsTheFirst) {
  std::mt19937 rng(31);
  const Audio audio = randomProgramme(rng, 2, 48000, 6.01), other = randomProgramme(rng, 2, 48000, 5.55);
  const std::vector<bool> flags = randomFlags(rng, 100);  // the detector's own memory outlives a reset
  for (const bool inPlace : {false, true}) {
    LoudnessProcessor meter = meterFor(2, 48000, std::nullopt, flags);
    meter.setCollectHistory(true);
    feed(meter, audio, 1000);
    const Reading first = reading(meter);
    feed(meter, other);  // ends within a block
    if (inPlace) meter.resetState();
    meter.reset();  // after resetState for channelTruePeakDB, which that keeps
    feed(meter, audio, 1000);
    Reading second = reading(meter);
    if (!inPlace) second.powers.erase(second.powers.begin(), second.powers.end() - 60);  // reset keeps them
    EXPECT_EQ(second, first) << (inPlace ? "resetState" : "reset");
  }
}

TEST(LoudnessProcessor, ResetStateAloneLeavesNoTraceInTheNextRunButTheChannelTruePeaks) {
  std::mt19937 rng(32);
  const Audio audio = randomProgramme(rng, 2, 48000, 4.01);
  LoudnessProcessor fresh = meterFor(2, 48000, std::nullopt, std::vector<bool>(100, true));
  LoudnessProcessor used = meterFor(2, 48000, std::nullopt, std::vector<bool>(100, true));
  fresh.setCollectHistory(true);
  used.setCollectHistory(true);
  feed(used, sineAudio(2, 48000, 0.333, 1000, -50), 777);  // ends within a block
  used.resetState();
  feed(fresh, audio);
  feed(used, audio);
  EXPECT_EQ(reading(used), reading(fresh));  // the louder programme overtakes the channels' peaks
}

TEST(LoudnessProcessor, ResetWithinABlockForgetsWhatItHeld) {
  for (const bool inPlace : {false, true}) {
    LoudnessProcessor meter = meterFor(2, 48000, std::nullopt, std::vector<bool>(10, false));
    meter.setCollectHistory(true);
    feed(meter, sineAudio(2, 48000, 0.05, 1000, 0));
    if (inPlace)
      meter.resetState();
    else
      meter.reset();
    feed(meter, silence(1));
    EXPECT_EQ(meter.blockPowerHistory().size(), 1u);
    EXPECT_EQ(meter.blockPowerHistory()[0], 0);
    EXPECT_EQ(meter.momentaryLUFS(), -infinity);
    EXPECT_EQ(meter.speechGatedNoiseFloorDBRMS(), -200);
  }
}

TEST(LoudnessProcessor, ResetKeepsBlockPowersAndResetStateKeepsChannelTruePeaks) {
  const auto used = [] {
    LoudnessProcessor meter = meterFor(2);
    meter.setCollectHistory(true);
    feed(meter, tone(-20, 40));
    return meter;
  };
  LoudnessProcessor meter = used();
  const float channelPeak = meter.channelTruePeakDB()[0];
  meter.reset();
  EXPECT_EQ(meter.blockPowerHistory().size(), 40u);
  EXPECT_EQ(meter.channelTruePeakDB()[0], -infinity);
  meter = used();
  meter.resetState();
  EXPECT_TRUE(meter.blockPowerHistory().empty());
  EXPECT_EQ(meter.channelTruePeakDB()[0], channelPeak);
  for (const bool inPlace : {false, true}) {
    meter = used();
    meter.setPrecomputedSpeechHistory(std::vector<bool>{true});
    if (inPlace)
      meter.resetState();
    else
      meter.reset();
    const Reading empty = reading(meter);
    const Reading fresh = reading(meterFor(2));
    for (std::size_t k = 0; k < 11 + 2; ++k) EXPECT_EQ(empty.figures[k], fresh.figures[k]) << k;
    EXPECT_TRUE(empty.loudness.empty());
    EXPECT_TRUE(empty.truePeaks.empty());
    EXPECT_TRUE(empty.speech.empty());
    EXPECT_TRUE(meter.collectHistory());
    EXPECT_TRUE(meter.precomputedSpeechHistory().has_value());
  }
}

TEST(LoudnessProcessor, ResetForgetsTheTruePeakHistorySamples) {
  for (const bool inPlace : {false, true}) {
    LoudnessProcessor meter = meterFor(1);
    Audio click(1, 100);
    click.channels[0].back() = 1.0f;  // still on its way through the detector
    feed(meter, click);
    if (inPlace)
      meter.resetState();
    else
      meter.reset();
    meter.updateTruePeak(silence(1, 1).pointers(), 4800);
    EXPECT_EQ(meter.truePeakDB(), -160);
  }
}

// --- Samples that are not finite, and other odd input ----------------------------------------------------

TEST(LoudnessProcessor, NaNPoisonsItsChannelUntilAResetAndKeepsTheIntegratedFigure) {
  LoudnessProcessor meter = meterFor(2);
  meter.setCollectHistory(true);
  feed(meter, tone(-20, 40));
  const double integrated = meter.integratedLUFS();
  const float range = meter.loudnessRange(), peak = meter.truePeakDB(),
              floor = meter.speechGatedNoiseFloorDBRMS(), share = meter.speechPercentage();
  Audio poisoned = tone(-20, 1);
  poisoned.channels[1][17] = nan;
  const float rms = meter.channelRMS()[1];
  feed(meter, poisoned);
  EXPECT_EQ(meter.channelRMS()[1], rms);
  poisoned.channels[1][17] = infinity;
  meter.process(poisoned.pointers(), 4800);
  EXPECT_EQ(meter.channelRMS()[1], rms);
  EXPECT_EQ(meter.speechGatedNoiseFloorDBRMS(), floor);
  feed(meter, tone(-20, 40));
  EXPECT_EQ(meter.momentaryLUFS(), -infinity);
  EXPECT_EQ(meter.shortTermLUFS(), -infinity);
  EXPECT_EQ(meter.integratedLUFS(), integrated);
  EXPECT_EQ(meter.loudnessRange(), range);
  EXPECT_EQ(meter.speechPercentage(), share);
  EXPECT_NEAR(meter.truePeakDB(), peak, 0.5);
  EXPECT_TRUE(std::isnan(meter.blockPowerHistory().back()));
  EXPECT_FALSE(std::isnan(meter.lastBlockTruePeakDB()));
  meter.resetState();
  feed(meter, tone(-20, 4));
  EXPECT_NEAR(meter.momentaryLUFS(), -20, 0.1);
}

TEST(LoudnessProcessor, NaNOnAChannelOfWeightZeroEmptiesTheWindowsToo) {
  LoudnessProcessor meter = meterFor(2, 48000, std::vector<float>{1, 0}, std::vector<bool>(4, false));
  Audio audio = tone(-20, 4);
  audio.channels[1][0] = nan;
  feed(meter, audio);
  EXPECT_EQ(meter.momentaryLUFS(), -infinity);
  // The detector and the noise floor do not hear that channel.
  EXPECT_TRUE(std::isfinite(meter.speechGatedNoiseFloorDBRMS()));
}

TEST(LoudnessProcessor, InfiniteBlockPowerEntersNoGateAndNoRange) {
  LoudnessProcessor meter = meterFor(2, 48000, std::nullopt, std::vector<bool>(40, true));
  meter.setCollectHistory(true);
  feed(meter, tone(-20, 40));
  const double integrated = meter.integratedLUFS();
  const std::int64_t rangeValues = meter.shortTermLUFSHistory().count();
  const float share = meter.speechPercentage();
  Audio huge(2, 4800);  // finite samples whose K-weighted mean square exceeds 32 bits
  for (auto& channel : huge.channels)
    for (std::size_t n = 0; n < 4800; ++n) channel[n] = n % 96 < 48 ? 1e30f : -1e30f;
  feed(meter, huge);
  EXPECT_EQ(meter.blockPowerHistory().back(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(meter.momentaryLUFS(), -infinity);
  EXPECT_EQ(meter.shortTermLUFS(), -infinity);
  EXPECT_EQ(meter.integratedLUFS(), integrated);
  EXPECT_EQ(meter.shortTermLUFSHistory().count(), rangeValues);
  EXPECT_EQ(meter.speechPercentage(), share);
  EXPECT_NEAR(meter.truePeakDB(), 600, 3);
}

TEST(LoudnessProcessor, InfiniteBlockPowerStaysOutOfTheNoiseFloorEvenWhereTheMonoMixIsFinite) {
  LoudnessProcessor meter = meterFor(2, 48000, std::nullopt, std::vector<bool>(10, false));
  feed(meter, tone(-40, 5));
  const float floor = meter.speechGatedNoiseFloorDBRMS();
  Audio audio = tone(-6, 1);  // of six blocks the floor would read the loudest
  for (std::size_t n = 0; n < 2400; ++n) {
    audio.channels[0][n] = n % 96 < 48 ? 1e30f : -1e30f;
    audio.channels[1][n] = -audio.channels[0][n];
  }
  feed(meter, audio);
  ASSERT_EQ(meter.momentaryLUFS(), -infinity);
  EXPECT_EQ(meter.speechGatedNoiseFloorDBRMS(), floor);
}

TEST(LoudnessProcessor, InfinitePeakReadsPlusInfinityAndLaterBlocksAreFinite) {
  LoudnessProcessor meter = meterFor(1);
  Audio audio(1, 4800);
  audio.channels[0][5] = -infinity;
  feed(meter, audio);
  EXPECT_EQ(meter.truePeakDB(), infinity);
  EXPECT_EQ(meter.channelTruePeakDB()[0], infinity);
  EXPECT_EQ(meter.lastBlockTruePeakDB(), infinity);
  feed(meter, sineAudio(1, 48000, 0.1, 1000, -20));
  EXPECT_NEAR(meter.lastBlockTruePeakDB(), -20, 0.2);
}

TEST(LoudnessProcessor, BlockWhoseMonoMixIsNotFiniteStaysOutOfTheNoiseFloor) {
  LoudnessProcessor meter = meterFor(1, 48000, std::nullopt, std::vector<bool>(10, false));
  Audio audio = sineAudio(1, 48000, 0.1, 1000, -20);
  feed(meter, audio);
  const float floor = meter.speechGatedNoiseFloorDBRMS();
  audio.channels[0][9] = nan;
  feed(meter, audio);
  EXPECT_EQ(meter.speechGatedNoiseFloorDBRMS(), floor);
}

// A constant offset has no K-weighted power once the filter has settled, but its mono RMS can be infinite.
TEST(LoudnessProcessor, BlockWhoseMonoRMSOverflowsStaysOutOfTheNoiseFloor) {
  LoudnessProcessor meter = meterFor(1, 48000, std::nullopt, std::vector<bool>(100, false));
  meter.setCollectHistory(true);
  Audio offset(1, 4800);
  offset.channels[0].assign(4800, 3e19f);  // squares of 9e38 exceed 32 bits
  for (int block = 0; block < 10; ++block) feed(meter, offset);
  ASSERT_TRUE(std::isfinite(meter.blockPowerHistory().back()));
  EXPECT_EQ(meter.speechGatedNoiseFloorDBRMS(), -infinity);
}

TEST(LoudnessProcessor, RandomNonFiniteSamplesNeverBecomeNaNFigures) {
  for (unsigned seed = 1; seed <= 8; ++seed) {
    std::mt19937 rng(seed);
    Audio audio = noiseAudio(rng, 3, 48000 * 5, 0.5);
    const float bad[] = {nan, infinity, -infinity, std::numeric_limits<float>::max()};
    for (int k = 0; k < 20; ++k) audio.channels[rng() % 3][rng() % 240000] = bad[rng() % 4];
    LoudnessProcessor meter = meterFor(3, 48000, std::vector<float>{1, 0, 1});
    feed(meter, audio, randomSplits(rng, audio.frameCount()));
    meter.flushPartialBlock();
    for (double figure : reading(meter).figures) EXPECT_FALSE(std::isnan(figure)) << "seed " << seed;
  }
}

TEST(LoudnessProcessor, NegativeWeightsAreTakenAsGivenAndLeaveTheMonoMix) {
  LoudnessProcessor meter = meterFor(2, 48000, std::vector<float>{1, -0.5f}, std::vector<bool>(10, false));
  Audio audio = tone(-20, 4);
  for (float& sample : audio.channels[1]) sample *= 0.5f;
  feed(meter, audio);
  EXPECT_NEAR(meter.momentaryLUFS(), -20 - 3.01 + 10 * std::log10(1 - 0.5 * 0.25), 0.05);
  EXPECT_NEAR(meter.speechGatedNoiseFloorDBRMS(), -23.01, 0.01);  // the left channel alone
}

// --- Allocation ------------------------------------------------------------------------------------------

TEST(LoudnessProcessor, NothingIsAllocatedAfterTheScratchHasGrown) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "a sanitizer owns the allocator";
  std::mt19937 rng(12);
  const Audio audio = randomProgramme(rng, 6, 48000, 10);
  std::vector<const float*> pointers(6);
  LoudnessProcessor meter = meterFor(6);
  const auto feedAll = [&] {
    for (std::int64_t offset = 0; offset + 1000 <= audio.frameCount(); offset += 1000) {
      for (std::size_t c = 0; c < 6; ++c) pointers[c] = audio.channels[c].data() + offset;
      meter.updateTruePeak(pointers, 1000);
      meter.process(pointers, 1000);
    }
  };
  feedAll();           // scratch and statistics grow
  meter.resetState();  // keeps their storage
  const AllocationCounter allocations;
  feedAll();
  EXPECT_EQ(allocations.count(), 0);
  EXPECT_TRUE(std::isfinite(meter.integratedLUFS()));
}

TEST(LoudnessProcessor, OnlyPerBlockStatisticsAllocateInALongProgramme) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "a sanitizer owns the allocator";
  // Flags for two hours: every second block is speech, so that all four lists grow.
  std::vector<bool> speech(72000);
  for (std::size_t b = 0; b < speech.size(); b += 2) speech[b] = true;
  LoudnessProcessor meter = meterFor(1, 4000, std::nullopt, speech);
  std::mt19937 rng(13);
  const std::vector<float> samples = noise(rng, 400000, 0.4);
  const auto feedHour = [&] {
    for (int k = 0; k < 36; ++k) {
      const float* pointer = samples.data();
      meter.updateTruePeak(std::span(&pointer, 1), 400000);
      meter.process(std::span(&pointer, 1), 400000);
    }
  };
  feedHour();
  const AllocationCounter allocations;
  feedHour();
  ASSERT_EQ(meter.shortTermLUFSHistory().count(), 72000 - 29);
  ASSERT_TRUE(std::isfinite(meter.speechGatedLUFS()));
  // 36,000 more blocks in each of at most four ordered lists of 128 to 256 values a leaf, and their branches.
  EXPECT_LT(allocations.count(), 4 * (36000 / 128 + 10));
}

}  // namespace
}  // namespace vellum
