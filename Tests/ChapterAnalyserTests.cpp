#include "VellumCore/ChapterAnalysis.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <random>
#include <utility>
#include <vector>

#include "Support/AllocationCounter.hpp"
#include "Support/Signals.hpp"

namespace vellum {
namespace {

using namespace test;
using ChapterAnalyser::FrameRange;
using ChapterAnalyser::LevelingGain;
using ChapterAnalyser::LevelTarget;
using ChapterAnalyser::Metrics;
using Metric = ChapterConsistencyMetric;
using Channels = std::vector<std::vector<float>>;
using Flags = std::vector<bool>;

constexpr double rate = 8000;
constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

Chapter chapterOf(double startSec, double endSec) {
  return {.id = UUID::random(), .index = 1, .name = "One", .startSec = startSec, .endSec = endSec};
}

// A chapter of 1 s, a second after the last one, for what is done with levels alone.
std::vector<Chapter> chaptersWithRMS(const std::vector<std::optional<float>>& levels) {
  std::vector<Chapter> chapters;
  for (const auto& level : levels) {
    const auto start = static_cast<double>(chapters.size());
    chapters.push_back(chapterOf(start, start + 1));
    chapters.back().rmsDBFS = level;
  }
  return chapters;
}

Chapter analysed(const Chapter& chapter, const Channels& channels,
                 const std::optional<Flags>& speechHistory = std::nullopt,
                 const std::optional<std::vector<float>>& weights = std::nullopt, double sampleRate = rate) {
  return ChapterAnalyser::analyse(std::span(&chapter, 1), {.channels = channels,
                                                           .sampleRate = sampleRate,
                                                           .speechHistory = speechHistory,
                                                           .channelWeights = weights})[0];
}

std::vector<std::string_view> presentIn(const Chapter& chapter) {
  std::vector<std::string_view> names;
  for (const ChapterMeasurement& measurement : chapterMeasurements)
    if (chapter.*measurement.value) names.push_back(measurement.name);
  return names;
}

using Names = std::vector<std::string_view>;
const Names levelsOnly = {"rmsDBFS", "samplePeakDBFS"};
const Names withoutSpeech = {"integratedLUFS", "rmsDBFS",          "truePeakDBTP",    "samplePeakDBFS",
                             "loudnessRange",  "maxMomentaryLUFS", "maxShortTermLUFS"};

// Noise whose level jumps over 30 dB every half second or so, some of it silence: range, maxima and gates
// all have something to do.
std::vector<float> unevenNoise(std::mt19937& rng, std::int64_t frameCount) {
  std::vector<float> samples;
  while (static_cast<std::int64_t>(samples.size()) < frameCount) {
    const auto n =
        std::min<std::int64_t>(1 + rng() % 8000, frameCount - static_cast<std::int64_t>(samples.size()));
    const auto part = noise(rng, n, rng() % 6 ? amplitudeOf(uniform(rng, -40, -10)) : 0.0);
    samples.insert(samples.end(), part.begin(), part.end());
  }
  return samples;
}

Flags randomFlags(std::mt19937& rng, std::size_t count) {
  Flags flags(count);
  for (std::size_t k = 0; k < count; ++k) flags[k] = rng() % 3 != 0;
  return flags;
}

// --- Levels ----------------------------------------------------------------------------------------------

TEST(ChapterLevels, PeakIsTheLargestMagnitudeOfAnyChannel) {
  const Channels channels = {{0.1f, -0.2f, 0.3f}, {0.0f, -0.5f, 0.25f}};
  EXPECT_NEAR(*ChapterAnalyser::samplePeakDBFS(channels, 0, 3), -6.0206, 1e-4);
  EXPECT_NEAR(*ChapterAnalyser::samplePeakDBFS(channels, 2, 3), 20 * std::log10(0.3), 1e-4);
}

TEST(ChapterLevels, RMSIsOfTheMeanPowerOfAllChannels) {
  const Channels channels = {{1, -1, 1, -1}, {0, 0, 0, 0}};
  EXPECT_NEAR(*ChapterAnalyser::rmsDBFS(channels, 0, 4), -3.0103, 1e-4);
}

// Four frames of which the second channel has one.
TEST(ChapterLevels, FramesBeyondAChannelsEndAreSilent) {
  const Channels channels = {{0.5f, 0.5f, 0.5f, 0.5f}, {1.0f}};
  EXPECT_NEAR(*ChapterAnalyser::rmsDBFS(channels, 0, 4), 10 * std::log10((0.25 + 0.25) / 2), 1e-4);
  EXPECT_EQ(ChapterAnalyser::samplePeakDBFS(channels, 0, 4), 0.0f);
  EXPECT_NEAR(*ChapterAnalyser::samplePeakDBFS(channels, 1, 4), -6.0206, 1e-4);
  EXPECT_NEAR(*ChapterAnalyser::rmsDBFS(channels, 1, 4), 10 * std::log10(0.25 / 2), 1e-4);
  EXPECT_NEAR(*ChapterAnalyser::rmsDBFS(channels, 0, 8), 10 * std::log10((0.125 + 0.125) / 2), 1e-4);
}

TEST(ChapterLevels, SilenceIsMinusInfinityAndNothingIsAbsent) {
  const Channels silent(2, std::vector<float>(100));
  EXPECT_EQ(ChapterAnalyser::samplePeakDBFS(silent, 0, 100), -infinity);
  EXPECT_EQ(ChapterAnalyser::rmsDBFS(silent, 0, 100), -infinity);
  EXPECT_EQ(ChapterAnalyser::rmsDBFS(silent, 200, 300), -infinity);
  for (const auto& [start, end] : {std::pair{5, 5}, std::pair{5, 4}, std::pair{-3, -3}}) {
    EXPECT_FALSE(ChapterAnalyser::samplePeakDBFS(silent, start, end));
    EXPECT_FALSE(ChapterAnalyser::rmsDBFS(silent, start, end));
  }
  EXPECT_FALSE(ChapterAnalyser::samplePeakDBFS({}, 0, 100));
  EXPECT_FALSE(ChapterAnalyser::rmsDBFS({}, 0, 100));
}

TEST(ChapterLevels, ANaNLosesThePeakAndSilencesTheRMS) {
  const Channels channels = {{0.5f, nan, 0.25f}};
  EXPECT_NEAR(*ChapterAnalyser::samplePeakDBFS(channels, 0, 3), -6.0206, 1e-4);
  EXPECT_EQ(ChapterAnalyser::rmsDBFS(channels, 0, 3), -infinity);
}

TEST(ChapterLevels, AreWithin32BitRoundingOfExactArithmetic) {
  std::mt19937 rng(21);
  for (int trial = 0; trial < 50; ++trial) {
    Channels channels;
    for (auto c = 1 + rng() % 4; c > 0; --c) channels.push_back(unevenNoise(rng, 1 + rng() % 30'000));
    const auto start = static_cast<std::int64_t>(rng() % 20'000),
               end = start + 1 + static_cast<std::int64_t>(rng() % 20'000);
    long double power = 0, peak = 0;
    for (const auto& channel : channels)
      for (auto i = static_cast<std::size_t>(start);
           i < std::min(channel.size(), static_cast<std::size_t>(end)); ++i) {
        power += static_cast<long double>(channel[i]) * channel[i];
        peak = std::max(peak, std::abs(static_cast<long double>(channel[i])));
      }
    power /= static_cast<long double>(end - start) * static_cast<long double>(channels.size());
    const auto rms = *ChapterAnalyser::rmsDBFS(channels, start, end);
    const auto samplePeak = *ChapterAnalyser::samplePeakDBFS(channels, start, end);
    if (power == 0) {
      EXPECT_EQ(rms, -infinity);
      EXPECT_EQ(samplePeak, -infinity);
    } else {
      EXPECT_NEAR(rms, static_cast<double>(10 * std::log10(power)), 1e-5);
      EXPECT_NEAR(samplePeak, static_cast<double>(20 * std::log10(peak)), 1e-5);
    }
  }
}

TEST(ChapterLevelsDeathTest, AStartBelowZeroStopsTheProgram) {
  const Channels channels = {{1, 1}};
  EXPECT_DEATH(ChapterAnalyser::samplePeakDBFS(channels, -1, 2), "starts at frame 0 or later");
  EXPECT_DEATH(ChapterAnalyser::rmsDBFS(channels, -1, 2), "starts at frame 0 or later");
  EXPECT_DEATH(ChapterAnalyser::fullAnalysis({channels, -1, 2, rate, {}, {}}), "starts at frame 0 or later");
}

// --- Full analysis ---------------------------------------------------------------------------------------

std::optional<float> finite(double level) {
  const auto narrow = static_cast<float>(level);
  return std::isfinite(narrow) ? std::optional(narrow) : std::nullopt;
}

// The figures of a copy of the range, fed to a meter that keeps its histories.
Metrics plainMetrics(const ChapterAnalyser::Range& range) {
  const auto frames = static_cast<std::size_t>(range.end - range.start);
  Channels copy;
  for (const auto& channel : range.channels) {
    copy.emplace_back(frames);
    for (std::size_t i = 0; i < frames; ++i)
      if (static_cast<std::size_t>(range.start) + i < channel.size())
        copy.back()[i] = channel[static_cast<std::size_t>(range.start) + i];
  }
  LoudnessProcessor meter({.sampleRate = range.sampleRate,
                           .channelCount = static_cast<std::int64_t>(copy.size()),
                           .precomputedSpeechHistory = std::nullopt,
                           .channelWeights = range.channelWeights});
  meter.setCollectHistory(true);
  if (range.speechHistory) meter.setPrecomputedSpeechHistory(range.speechHistory);
  const auto chunk = static_cast<std::size_t>(std::max(1LL, std::llround(range.sampleRate * 0.1)));
  for (std::size_t offset = 0; offset < frames; offset += chunk) {
    std::vector<const float*> pointers;
    for (const auto& channel : copy) pointers.push_back(channel.data() + offset);
    const auto n = static_cast<std::int64_t>(std::min(chunk, frames - offset));
    meter.updateTruePeak(pointers, n);
    meter.process(pointers, n);
  }
  meter.flushPartialBlock();
  double momentary = -infinity, shortTerm = -infinity;
  for (const auto& entry : meter.loudnessHistory()) {
    if (std::isfinite(entry.momentary)) momentary = std::max<double>(momentary, entry.momentary);
    if (std::isfinite(entry.shortTerm)) shortTerm = std::max<double>(shortTerm, entry.shortTerm);
  }
  Metrics metrics{.integrated = finite(meter.integratedLUFS()),
                  .truePeakDBTP = finite(meter.truePeakDB()),
                  .loudnessRange = finite(meter.loudnessRange()),
                  .maxMomentary = finite(momentary),
                  .maxShortTerm = finite(shortTerm)};
  if (!range.speechHistory) return metrics;
  metrics.speechGated = finite(meter.speechGatedLUFS());
  metrics.noiseFloor = finite(meter.speechGatedNoiseFloorDBRMS());
  if (const Flags& flags = *range.speechHistory; !flags.empty())
    metrics.speechPercentage =
        static_cast<float>(std::count(flags.begin(), flags.end(), true)) / static_cast<float>(flags.size());
  return metrics;
}

// Channels of different lengths, and what a meter is told of them.
struct RandomProgramme {
  Channels channels;
  double sampleRate;
  std::optional<std::vector<float>> weights;

  explicit RandomProgramme(std::mt19937& rng) {
    constexpr double rates[] = {8000, 11025, 44100, 4004.5};
    sampleRate = rates[rng() % 4];
    const auto longest = static_cast<std::int64_t>(uniform(rng, 5, 14) * sampleRate);
    channels.push_back(unevenNoise(rng, longest));
    for (auto more = rng() % 3; more > 0; --more) {
      const std::int64_t shorter = longest - static_cast<std::int64_t>(rng() % 40'000);  // some have nothing
      channels.push_back(unevenNoise(rng, rng() % 2 ? longest : shorter));
    }
    if (rng() % 2) weights.emplace(channels.size(), 0.5f);
    if (rng() % 4 == 0) weights.emplace(7, 1.0f);  // of another count
  }
};

TEST(FullAnalysis, IsWhatAMeterSaysOfACopyOfTheRange) {
  std::mt19937 rng(22);
  for (int trial = 0; trial < 30; ++trial) {
    const RandomProgramme programme(rng);
    const auto frames = static_cast<std::int64_t>(programme.channels[0].size());
    const auto start = static_cast<std::int64_t>(rng()) % frames;
    ChapterAnalyser::Range range{.channels = programme.channels,
                                 .start = start,
                                 .end = start + 1 + static_cast<std::int64_t>(rng()) % frames,
                                 .sampleRate = programme.sampleRate,
                                 .speechHistory = std::nullopt,
                                 .channelWeights = programme.weights};
    if (rng() % 2) range.speechHistory = randomFlags(rng, rng() % 150);
    const Metrics plain = plainMetrics(range);
    EXPECT_EQ(ChapterAnalyser::fullAnalysis(range), plain) << trial;
    range.speechHistory.reset();
    EXPECT_EQ(ChapterAnalyser::integratedLUFS(range), plain.integrated) << trial;
  }
}

TEST(FullAnalysis, WithoutFramesOrChannelsEverythingIsAbsent) {
  const Channels channels = {std::vector<float>(1000, 0.5f)};
  const Flags flags(10, true);
  EXPECT_EQ(ChapterAnalyser::fullAnalysis({channels, 10, 10, rate, flags, {}}), Metrics{});
  EXPECT_EQ(ChapterAnalyser::fullAnalysis({channels, 10, 9, rate, flags, {}}), Metrics{});
  EXPECT_EQ(ChapterAnalyser::fullAnalysis({{}, 0, 10, rate, flags, {}}), Metrics{});
  EXPECT_FALSE(ChapterAnalyser::integratedLUFS({channels, 10, 10, rate, {}, {}}));
}

// 997 Hz at -20 dBFS in one channel of weight 1 reads -23 LUFS.
TEST(FullAnalysis, ReadsAToneAsItIs) {
  const Channels channels = sineAudio(1, 48000, 5, 997, -20).channels;
  const Metrics metrics = ChapterAnalyser::fullAnalysis({channels, 0, 240'000, 48000, {}, {}});
  EXPECT_NEAR(*metrics.integrated, -23.01, 0.05);
  EXPECT_NEAR(*metrics.maxMomentary, -23.01, 0.05);
  EXPECT_NEAR(*metrics.maxShortTerm, -23.01, 0.05);
  EXPECT_NEAR(*metrics.truePeakDBTP, -20, 0.05);
  EXPECT_NEAR(*metrics.loudnessRange, 0, 0.01);
}

// 0.25 s: the half block at the end counts for the maxima, not for integrated loudness.
TEST(FullAnalysis, APartialBlockCountsForAllButIntegratedLoudness) {
  Channels channels = {std::vector<float>(2000)};
  for (std::size_t i = 1600; i < 2000; ++i) channels[0][i] = i % 2 ? 0.5f : -0.5f;
  const Metrics metrics =
      ChapterAnalyser::fullAnalysis({channels, 0, 2000, rate, Flags{false, false, true}, {}});
  EXPECT_FALSE(metrics.integrated);
  EXPECT_FALSE(metrics.speechGated);
  EXPECT_TRUE(metrics.maxMomentary);
  EXPECT_TRUE(metrics.maxShortTerm);
  EXPECT_EQ(metrics.noiseFloor, -200.0f);
}

TEST(FullAnalysis, AnEmptySpeechHistoryHasNoShareButTheOtherFigures) {
  const Channels channels = {std::vector<float>(8000, 0.25f)};
  const Metrics metrics = ChapterAnalyser::fullAnalysis({channels, 0, 8000, rate, Flags{}, {}});
  EXPECT_FALSE(metrics.speechPercentage);
  EXPECT_TRUE(metrics.noiseFloor);  // constant samples are no speech
}

// --- Chapters of a programme -----------------------------------------------------------------------------

TEST(ChapterAnalyser, AShortChapterHasItsLevelsAndNoLoudness) {
  std::mt19937 rng(23);
  const Channels channels = {unevenNoise(rng, 100'000)};
  const Flags flags(200, true);
  EXPECT_EQ(presentIn(analysed(chapterOf(0, 9.9), channels, flags)), levelsOnly);
  EXPECT_EQ(presentIn(analysed(chapterOf(0, 10.0), channels)), withoutSpeech);
  EXPECT_EQ(ChapterAnalyser::minDurationForLUFS, 10.0);
}

// By its times as they are given, whatever there is of it.
TEST(ChapterAnalyser, AChaptersLengthIsTheDifferenceOfItsTimes) {
  std::mt19937 rng(24);
  const Channels channels = {unevenNoise(rng, 40'000)};
  EXPECT_EQ(presentIn(analysed(chapterOf(0, 12), channels)), withoutSpeech);
  EXPECT_EQ(presentIn(analysed(chapterOf(-5.2, 5), channels)), withoutSpeech);
}

TEST(ChapterAnalyser, AChapterPastTheEndHasNoMeasurement) {
  std::mt19937 rng(25);
  const Channels channels = {unevenNoise(rng, 40'000)};
  const Flags flags(400, true);
  for (const auto& [start, end] :
       {std::pair{5.0, 20.0}, std::pair{100.0, 200.0}, std::pair{3.0, 3.0}, std::pair{4.0, 2.0},
        std::pair{-20.0, -5.0}, std::pair{1e300, 2e300}, std::pair{-2e300, -1e300}})
    EXPECT_EQ(presentIn(analysed(chapterOf(start, end), channels, flags)), Names{}) << start;
}

TEST(ChapterAnalyser, TheFirstChannelTellsWhereTheProgrammeEnds) {
  std::mt19937 rng(26);
  const Channels channels = {unevenNoise(rng, 8'000), noise(rng, 80'000, 1.0)};
  const Chapter cut = analysed(chapterOf(0, 9), channels);
  EXPECT_EQ(cut.rmsDBFS, ChapterAnalyser::rmsDBFS(channels, 0, 8'000));
  EXPECT_EQ(presentIn(analysed(chapterOf(2, 9), channels)), Names{});
}

TEST(ChapterAnalyser, TimesBeyondAnyFrameAreTheProgrammesBorders) {
  std::mt19937 rng(27);
  const Channels channels = {unevenNoise(rng, 100'000)};
  const Chapter whole = analysed(chapterOf(-1e300, 1e300), channels, Flags(3, true));
  EXPECT_EQ(whole.rmsDBFS, ChapterAnalyser::rmsDBFS(channels, 0, 100'000));
  EXPECT_EQ(whole.speechPercentage, 1.0f);
}

TEST(ChapterAnalyser, ADigitallySilentChapterHasLevelsOfMinusInfinity) {
  const Channels channels(2, std::vector<float>(160'000));
  const Chapter chapter = analysed(chapterOf(0, 20), channels, Flags(200, false));
  EXPECT_EQ(presentIn(chapter),
            (Names{"rmsDBFS", "truePeakDBTP", "samplePeakDBFS", "noiseFloorDBRMS", "speechPercentage"}));
  EXPECT_EQ(chapter.samplePeakDBFS, -infinity);
  EXPECT_EQ(chapter.rmsDBFS, -infinity);
  EXPECT_EQ(chapter.truePeakDBTP, -160.0f);
  EXPECT_EQ(chapter.noiseFloorDBRMS, -200.0f);
  EXPECT_EQ(chapter.speechPercentage, 0.0f);
  EXPECT_FALSE(ChapterAnalyser::median(std::vector{chapter}, Metric::rms));
}

TEST(ChapterAnalyser, WithoutASpeechHistoryItsFiguresAreAbsent) {
  std::mt19937 rng(28);
  const Channels channels = {unevenNoise(rng, 160'000), unevenNoise(rng, 160'000)};
  EXPECT_EQ(presentIn(analysed(chapterOf(1, 19), channels)), withoutSpeech);
  EXPECT_EQ(presentIn(analysed(chapterOf(1, 19), channels, Flags(200, true))).size(),
            9u);  // no pause: no noise floor
  Flags flags(200, true);
  flags[50] = false;
  EXPECT_EQ(presentIn(analysed(chapterOf(1, 19), channels, flags)).size(), 10u);
}

TEST(ChapterAnalyser, TheSpeechShareIsAFractionOfTheExcerpt) {
  std::mt19937 rng(29);
  const Channels channels = {unevenNoise(rng, 200'000)};
  Flags flags(250, true);  // of the whole file; the chapter has blocks 50 to 169
  for (std::size_t k = 50; k < 170; ++k) flags[k] = k < 80;
  EXPECT_EQ(analysed(chapterOf(5, 17), channels, flags).speechPercentage, 0.25f);
}

// 0.3 / 0.1 is a little less than 3 in 64 bit, so the excerpt starts at flag 2; 0.3 x 10 would say 3.
TEST(ChapterAnalyser, TheExcerptIsFoundByTrueDivision) {
  std::mt19937 rng(30);
  const Channels channels = {unevenNoise(rng, 200'000)};
  Flags flags(250);
  flags[2] = true;
  EXPECT_EQ(analysed(chapterOf(0.3, 12.25), channels, flags).speechPercentage, 1.0f / 120.0f);
  flags.assign(250, false);
  flags[120] = true;  // the last one: 12.2 / 0.1 is a little less than 122
  EXPECT_EQ(analysed(chapterOf(1, 12.2), channels, flags).speechPercentage, 1.0f / 111.0f);
}

TEST(ChapterAnalyser, AHistoryThatEndsEarlyIsUsedAsFarAsItGoes) {
  std::mt19937 rng(31);
  const Channels channels = {unevenNoise(rng, 200'000)};
  Flags flags(60, false);
  flags[50] = true;
  EXPECT_EQ(analysed(chapterOf(5, 20), channels, flags).speechPercentage, 0.1f);
  EXPECT_EQ(presentIn(analysed(chapterOf(6, 20), channels, flags)), withoutSpeech);  // it ends at 6 s
  EXPECT_EQ(presentIn(analysed(chapterOf(6, 20), channels, Flags{})), withoutSpeech);
}

// There, but without a flag: the meter's own detector judges, and constant samples are no speech.
TEST(ChapterAnalyser, AnExcerptThatEndsBeforeTheFileStartsIsEmpty) {
  const Channels channels = {std::vector<float>(8000, 0.25f)};
  ChapterMeter meter = ChapterAnalyser::meterFor(chapterOf(-20, -5), {.sampleRate = rate,
                                                                      .channelCount = 1,
                                                                      .speechHistory = Flags(200, true),
                                                                      .channelWeights = std::nullopt});
  const float* const pointers[] = {channels[0].data()};
  meter.add(pointers, 8000);
  meter.finish();
  EXPECT_FALSE(meter.metrics().speechPercentage);
  EXPECT_TRUE(meter.metrics().noiseFloor);
}

TEST(ChapterAnalyser, TheExcerptGatesTheChaptersSpeech) {
  // 5 s at -40 dBFS, then 15 s with a loud middle; only the middle is speech.
  Channels channels = {sine(rate, 160'000, 997, amplitudeOf(-40))};
  const auto loud = sine(rate, 40'000, 997, amplitudeOf(-20), 0, 80'000);
  std::copy(loud.begin(), loud.end(), channels[0].begin() + 80'000);
  Flags flags(200);
  std::fill(flags.begin() + 102, flags.begin() + 148, true);
  const Chapter chapter = analysed(chapterOf(5, 20), channels, flags);
  const auto alone = ChapterAnalyser::integratedLUFS({channels, 84'000, 116'000, rate, {}, {}});
  EXPECT_NEAR(*chapter.speechGatedLUFS, *alone, 0.01);
  EXPECT_EQ(chapter.speechPercentage, 46.0f / 150.0f);
}

TEST(ChapterAnalyser, AllFieldsComeFromTheirFigures) {
  std::mt19937 rng(32);
  const Channels channels = {unevenNoise(rng, 200'000), unevenNoise(rng, 150'000)};
  const std::vector<float> weights = {1.0f, 0.25f};
  const Flags flags = randomFlags(rng, 250);
  const Chapter chapter = analysed(chapterOf(2, 22), channels, flags, weights);
  const Metrics metrics = ChapterAnalyser::fullAnalysis(
      {channels, 16'000, 176'000, rate, Flags(flags.begin() + 20, flags.begin() + 220), weights});
  EXPECT_EQ(chapter.integratedLUFS, metrics.integrated);
  EXPECT_EQ(chapter.truePeakDBTP, metrics.truePeakDBTP);
  EXPECT_EQ(chapter.loudnessRange, metrics.loudnessRange);
  EXPECT_EQ(chapter.maxMomentaryLUFS, metrics.maxMomentary);
  EXPECT_EQ(chapter.maxShortTermLUFS, metrics.maxShortTerm);
  EXPECT_EQ(chapter.speechGatedLUFS, metrics.speechGated);
  EXPECT_EQ(chapter.noiseFloorDBRMS, metrics.noiseFloor);
  EXPECT_EQ(chapter.speechPercentage, metrics.speechPercentage);
  EXPECT_EQ(chapter.samplePeakDBFS, ChapterAnalyser::samplePeakDBFS(channels, 16'000, 176'000));
  EXPECT_EQ(chapter.rmsDBFS, ChapterAnalyser::rmsDBFS(channels, 16'000, 176'000));
  EXPECT_EQ(presentIn(chapter).size(), 10u);
}

TEST(ChapterAnalyser, IdentityAndOrderStayAndOldMeasurementsGo) {
  std::mt19937 rng(33);
  const Channels channels = {unevenNoise(rng, 100'000)};
  std::vector<Chapter> chapters = {chapterOf(5, 6), chapterOf(0, 11), chapterOf(50, 60), chapterOf(3, 4)};
  for (Chapter& chapter : chapters)
    for (const ChapterMeasurement& measurement : chapterMeasurements) chapter.*measurement.value = 99.0f;
  for (const Channels& audio : {channels, Channels{}}) {
    auto result = ChapterAnalyser::analyse(
        chapters, {.channels = audio, .sampleRate = rate, .speechHistory = {}, .channelWeights = {}});
    ASSERT_EQ(result.size(), chapters.size());
    const std::size_t counts[] = {2, 7, 0, 2};
    for (std::size_t k = 0; k < chapters.size(); ++k) {
      EXPECT_EQ(presentIn(result[k]).size(), audio.empty() ? 0 : counts[k]);
      for (const ChapterMeasurement& measurement : chapterMeasurements)
        EXPECT_NE(result[k].*measurement.value, 99.0f);
      result[k].clearMeasurements();
      Chapter cleared = chapters[k];
      cleared.clearMeasurements();
      EXPECT_EQ(result[k], cleared);
    }
  }
}

TEST(ChapterAnalyser, WithoutLoudnessToMeasureNoRateIsTooLow) {
  const Channels channels = {std::vector<float>(8, 0.5f)};
  EXPECT_EQ(presentIn(analysed(chapterOf(100, 200), channels, std::nullopt, std::nullopt, 1.0)), Names{});
  EXPECT_EQ(presentIn(analysed(chapterOf(0, 8), channels, std::nullopt, std::nullopt, 1.0)), levelsOnly);
}

TEST(ChapterAnalyserDeathTest, WhatIsNoNumberOrNoRateStopsTheProgram) {
  const Channels channels = {std::vector<float>(100, 0.5f)};
  EXPECT_DEATH(analysed(chapterOf(std::nan(""), 1), channels), "must be numbers");
  EXPECT_DEATH(analysed(chapterOf(0, std::nan("")), channels), "must be numbers");
  EXPECT_DEATH(analysed(chapterOf(0, 1), channels, {}, {}, std::nan("")), "must be numbers");
  EXPECT_DEATH(analysed(chapterOf(0, 20), channels, {}, {}, 1.0), "sampleRate must be");
}

// --- Streaming -------------------------------------------------------------------------------------------

void feedSplits(ChapterMeter& meter, const Channels& channels, std::int64_t start,
                const std::vector<std::int64_t>& splits) {
  for (const std::int64_t n : splits) {
    std::vector<const float*> pointers;
    for (const auto& channel : channels) pointers.push_back(channel.data() + start);
    meter.add(pointers, n);
    start += n;
  }
}

TEST(ChapterMeter, AnySplitGivesTheFiguresOfTheWholeToTheBit) {
  std::mt19937 rng(34);
  for (int trial = 0; trial < 40; ++trial) {
    RandomProgramme programme(rng);
    const std::size_t frames = programme.channels[0].size();
    for (auto& channel : programme.channels) channel.resize(frames);
    const double duration = static_cast<double>(frames) / programme.sampleRate;
    const double start = uniform(rng, -1, 2);
    const Chapter chapter = chapterOf(start, trial % 4 ? start + 10.5 : uniform(rng, start, duration + 1));
    std::optional<Flags> flags;
    if (rng() % 3) flags = randomFlags(rng, rng() % 200);

    const auto [first, last] =
        ChapterAnalyser::framesOf(chapter, programme.sampleRate, static_cast<std::int64_t>(frames));
    ChapterMeter meter = ChapterAnalyser::meterFor(
        chapter, {.sampleRate = programme.sampleRate,
                  .channelCount = static_cast<std::int64_t>(programme.channels.size()),
                  .speechHistory = flags,
                  .channelWeights = programme.weights});
    feedSplits(meter, programme.channels, first, randomSplits(rng, last - first));
    meter.finish();
    EXPECT_EQ(ChapterAnalyser::measured(chapter, meter),
              analysed(chapter, programme.channels, flags, programme.weights, programme.sampleRate))
        << trial;
  }
}

ChapterMeter makeMeter(std::int64_t channelCount, bool measuresLoudness = true) {
  return ChapterMeter({.sampleRate = rate,
                       .channelCount = channelCount,
                       .speechHistory = Flags(5, true),
                       .channelWeights = std::nullopt,
                       .measuresLoudness = measuresLoudness});
}

TEST(ChapterMeter, ANullChannelIsSilent) {
  std::mt19937 rng(35);
  const Channels channels = {unevenNoise(rng, 20'000), unevenNoise(rng, 20'000)};
  Channels half = channels;
  std::fill(half[1].begin() + 7777, half[1].end(), 0.0f);
  ChapterMeter zeros = makeMeter(2), nulls = makeMeter(2);
  feedSplits(zeros, half, 0, {20'000});
  feedSplits(nulls, channels, 0, {7777});
  for (std::int64_t offset = 7777; offset < 20'000;) {
    const auto n = std::min<std::int64_t>(1 + rng() % 3000, 20'000 - offset);
    const float* const pointers[] = {channels[0].data() + offset, nullptr};
    nulls.add(pointers, n);
    offset += n;
  }
  zeros.finish();
  nulls.finish();
  EXPECT_EQ(nulls.metrics(), zeros.metrics());
  EXPECT_EQ(nulls.levels().rmsDBFS(), zeros.levels().rmsDBFS());
  EXPECT_EQ(nulls.levels().samplePeakDBFS(), zeros.levels().samplePeakDBFS());
}

// A slow rise and a sudden end: what the weighting's high pass makes of the end is the loudest block of all.
TEST(ChapterMeter, TheFilterOfAChannelThatTurnsNullRingsOut) {
  Channels channels = {std::vector<float>(8000)};
  for (std::size_t i = 0; i < 4000; ++i) channels[0][i] = static_cast<float>(i) / 4000;
  ChapterMeter zeros = makeMeter(1), nulls = makeMeter(1), risen = makeMeter(1);
  feedSplits(zeros, channels, 0, {8000});
  feedSplits(nulls, channels, 0, {4000});  // whole blocks
  feedSplits(risen, channels, 0, {4000});
  const float* const none[] = {nullptr};
  nulls.add(none, 4000);
  for (ChapterMeter* meter : {&zeros, &nulls, &risen}) meter->finish();
  EXPECT_EQ(nulls.metrics(), zeros.metrics());
  EXPECT_GT(*nulls.metrics().maxMomentary, *risen.metrics().maxMomentary + 10);
}

TEST(ChapterMeter, WithoutAFrameEverythingIsAbsent) {
  ChapterMeter meter = makeMeter(1);
  const float* const none[] = {nullptr};
  meter.add(none, 0);
  meter.finish();
  EXPECT_EQ(meter.metrics(), Metrics{});
  EXPECT_FALSE(meter.levels().rmsDBFS());
  EXPECT_FALSE(meter.levels().samplePeakDBFS());
}

TEST(ChapterMeter, MayMeasureLevelsAlone) {
  const Channels channels = {std::vector<float>(20'000, 0.5f)};
  ChapterMeter meter = makeMeter(1, false);
  feedSplits(meter, channels, 0, {20'000});
  meter.finish();
  EXPECT_EQ(meter.metrics(), Metrics{});
  EXPECT_NEAR(*meter.levels().rmsDBFS(), -6.0206, 1e-4);
}

TEST(ChapterMeter, AddingAllocatesNothingButStatistics) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "a sanitizer owns the allocator";
  const std::vector<float> chunk(2000, 0.25f);
  const float* const pointers[] = {chunk.data(), nullptr};
  ChapterMeter meter = makeMeter(2);
  meter.add(pointers, 777);  // from here on, every other block is put together from two chunks
  meter.add(pointers, 2000);
  const AllocationCounter counter;
  for (int k = 0; k < 1000; ++k) meter.add(pointers, 2000);
  EXPECT_LE(counter.count(), 100);  // 2,500 blocks
}

TEST(ChapterMeterDeathTest, WrongCountsStopTheProgram) {
  const Channels channels = {std::vector<float>(10)};
  ChapterMeter meter = makeMeter(2);
  EXPECT_DEATH(feedSplits(meter, channels, 0, {10}), "one pointer per channel");
  EXPECT_DEATH(makeMeter(0), "at least one channel");
  EXPECT_DEATH(makeMeter(-1), "must not be negative");
}

TEST(ChapterFrames, AreRoundedHalvesAwayFromZeroAndCutToTheFile) {
  const auto framesOf = ChapterAnalyser::framesOf;
  EXPECT_EQ(framesOf(chapterOf(0.25, 1.25), 10, 100), (FrameRange{3, 13}));  // 2.5 and 12.5
  EXPECT_EQ(framesOf(chapterOf(0.24, 1.24), 10, 100), (FrameRange{2, 12}));
  EXPECT_EQ(framesOf(chapterOf(-3, 30), 10, 100), (FrameRange{0, 100}));
  EXPECT_EQ(framesOf(chapterOf(1, 2), 10, -5), (FrameRange{0, 0}));
  constexpr auto most = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(framesOf(chapterOf(-1e300, 1e300), 48000, most), (FrameRange{0, most}));
  EXPECT_EQ(framesOf(chapterOf(0x1p62, 0x1p63), 1, most), (FrameRange{std::int64_t{1} << 62, most}));
}

// --- Median ----------------------------------------------------------------------------------------------

std::optional<float> medianOf(const std::vector<std::optional<float>>& levels) {
  return ChapterAnalyser::median(chaptersWithRMS(levels), Metric::rms);
}

TEST(ChapterMedian, IsTheMiddleOneOrTheMeanOfTheTwoMiddleOnes) {
  EXPECT_EQ(medianOf({-20, -18, -16, -14}), -17.0f);
  EXPECT_EQ(medianOf({-14, -20, -16, -18}), -17.0f);
  EXPECT_EQ(medianOf({-14, -20, -18}), -18.0f);
  EXPECT_EQ(medianOf({-14}), -14.0f);
}

TEST(ChapterMedian, OnlyFiniteLevelsCount) {
  EXPECT_EQ(medianOf({-infinity, -20, std::nullopt, nan, -10, infinity, -18}), -18.0f);
  EXPECT_FALSE(medianOf({-infinity, std::nullopt, nan}));
  EXPECT_FALSE(medianOf({}));
}

TEST(ChapterMedian, IsOfTheMetricAskedForAndOfLoudnessUnlessAsked) {
  Chapter chapter = chapterOf(0, 1);
  chapter.rmsDBFS = -20.0f;
  chapter.integratedLUFS = -17.0f;
  const std::vector<Chapter> chapters = {chapter};
  EXPECT_EQ(ChapterAnalyser::value(chapter, Metric::rms), -20.0f);
  EXPECT_EQ(ChapterAnalyser::value(chapter, Metric::integratedLUFS), -17.0f);
  EXPECT_FALSE(ChapterAnalyser::value(chapterOf(0, 1), Metric::rms));
  EXPECT_EQ(ChapterAnalyser::median(chapters, Metric::rms), -20.0f);
  EXPECT_EQ(ChapterAnalyser::median(chapters, Metric::integratedLUFS), -17.0f);
  EXPECT_EQ(ChapterAnalyser::median(chapters), -17.0f);
}

// --- Leveling --------------------------------------------------------------------------------------------

const LevelTarget toMedian{LevelTarget::Median{}};
LevelTarget toLevel(float level) {
  return {LevelTarget::Fixed{level}};
}

std::vector<LevelingGain> gainsOf(const std::vector<Chapter>& chapters, const LevelTarget& target,
                                  std::int64_t totalFrames = 1'000'000, Metric metric = Metric::rms) {
  return ChapterAnalyser::levelingGains({.chapters = chapters,
                                         .metric = metric,
                                         .target = target,
                                         .sampleRate = 100,
                                         .totalFrames = totalFrames});
}

using Gains = std::vector<LevelingGain>;

TEST(ChapterLeveling, QuietChaptersAreRaisedAndLoudOnesLowered) {
  EXPECT_EQ(gainsOf(chaptersWithRMS({-20, -16, -18}), toLevel(-18)),
            (Gains{{0, 100, 2.0f}, {100, 200, -2.0f}}));
  EXPECT_EQ(gainsOf(chaptersWithRMS({-20, -16, -18}), toMedian), (Gains{{0, 100, 2.0f}, {100, 200, -2.0f}}));
}

TEST(ChapterLeveling, TheMetricChoosesLevelsAndMedian) {
  auto chapters = chaptersWithRMS({-20, -30});
  chapters[0].integratedLUFS = -10.0f;
  chapters[1].integratedLUFS = -12.0f;
  EXPECT_EQ(gainsOf(chapters, toMedian, 1000, Metric::integratedLUFS),
            (Gains{{0, 100, -1.0f}, {100, 200, 1.0f}}));
  EXPECT_EQ(gainsOf(chapters, toMedian, 1000, Metric::rms), (Gains{{0, 100, -5.0f}, {100, 200, 5.0f}}));
}

TEST(ChapterLeveling, UnmeasuredChaptersGetNoGain) {
  EXPECT_TRUE(gainsOf(chaptersWithRMS({std::nullopt, std::nullopt}), toMedian).empty());
  EXPECT_TRUE(gainsOf(chaptersWithRMS({std::nullopt, -infinity, nan}), toLevel(-16)).empty());
  EXPECT_EQ(gainsOf(chaptersWithRMS({std::nullopt, -20}), toLevel(-16)), (Gains{{100, 200, 4.0f}}));
  EXPECT_TRUE(gainsOf({}, toLevel(-16)).empty());
}

TEST(ChapterLeveling, ATargetThatIsNotFiniteGivesNoGains) {
  for (const float level : {infinity, -infinity, nan})
    EXPECT_TRUE(gainsOf(chaptersWithRMS({-20}), toLevel(level)).empty());
}

TEST(ChapterLeveling, WithinAHundredthOfADecibelThereIsNoGain) {
  EXPECT_TRUE(gainsOf(chaptersWithRMS({-16.005f, -15.995f, -16}), toLevel(-16)).empty());
  EXPECT_EQ(gainsOf(chaptersWithRMS({-16.02f, -15.98f}), toLevel(-16)).size(), 2u);
}

// At 0 the difference is exactly the 32-bit limit; a bit more is over it.
TEST(ChapterLeveling, TheLimitItselfGetsNoGain) {
  EXPECT_TRUE(gainsOf(chaptersWithRMS({-0.01f, 0.01f}), toLevel(0)).empty());
  const float over = std::nextafter(0.01f, 1.0f);
  EXPECT_EQ(gainsOf(chaptersWithRMS({-over, over}), toLevel(0)), (Gains{{0, 100, over}, {100, 200, -over}}));
}

TEST(ChapterLeveling, ChaptersAreCutToTheFile) {
  const auto chapters = chaptersWithRMS({-20, -20, -20});
  EXPECT_EQ(gainsOf(chapters, toLevel(-16), 150), (Gains{{0, 100, 4.0f}, {100, 150, 4.0f}}));
  EXPECT_TRUE(gainsOf(chapters, toLevel(-16), 0).empty());
  EXPECT_TRUE(gainsOf(chapters, toLevel(-16), -1).empty());
}

TEST(ChapterLeveling, ChaptersWithoutFramesGetNoGain) {
  std::vector<Chapter> chapters = chaptersWithRMS({-20, -20, -20, -20});
  chapters[0].startSec = 5, chapters[0].endSec = 4;
  chapters[1].startSec = -5, chapters[1].endSec = -4;
  chapters[2].startSec = 1.001, chapters[2].endSec = 1.004;  // of frame 100
  chapters[3].startSec = -5, chapters[3].endSec = 1e300;
  EXPECT_EQ(gainsOf(chapters, toLevel(-16), 700), (Gains{{0, 700, 4.0f}}));
}

TEST(ChapterLevelingDeathTest, ATimeThatIsNoNumberStopsTheProgram) {
  auto chapters = chaptersWithRMS({-20});
  chapters[0].endSec = std::nan("");
  EXPECT_DEATH(gainsOf(chapters, toLevel(-16)), "must be numbers");
}

TEST(LevelTarget, IsEqualByCaseAndValue) {
  EXPECT_EQ(toMedian, LevelTarget{LevelTarget::Median{}});
  EXPECT_EQ(toLevel(-16), toLevel(-16));
  EXPECT_NE(toLevel(-16), toLevel(-17));
  EXPECT_NE(toLevel(-16), toMedian);
}

TEST(ChapterMetrics, AreEqualFieldByField) {
  EXPECT_EQ(Metrics{}, Metrics{});
  for (std::optional<float> Metrics::*const field :
       {&Metrics::integrated, &Metrics::truePeakDBTP, &Metrics::loudnessRange, &Metrics::maxMomentary,
        &Metrics::maxShortTerm, &Metrics::speechGated, &Metrics::noiseFloor, &Metrics::speechPercentage}) {
    Metrics metrics;
    metrics.*field = -16.0f;
    EXPECT_NE(metrics, Metrics{});
  }
}

}  // namespace
}  // namespace vellum
