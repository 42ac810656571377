#include "VellumApp/ChapterLeveling.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/Audiobook.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using ChapterAnalyser::LevelingGain;
using ChapterAnalyser::LevelTarget;
using test::Audio;
using test::contains;
using test::TemporaryFolder;

const auto goOn = [](const MeasureProgress&) { return true; };
const auto goOnLeveling = [](int, const MeasureProgress&) { return true; };
const test::FileKind pcm16{"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16};

// --- The curve -------------------------------------------------------------------------------------------

constexpr double rate = 8000;
constexpr std::int64_t rampFrames = 400;  // 50 ms

struct Curve {
  std::vector<float> gain, limiting;
};

Curve curveOf(const std::vector<LevelingGain>& gains, std::int64_t frameCount, std::int64_t chunk) {
  const GainRamps ramps(gains, rate);
  const auto size = static_cast<std::size_t>(frameCount);
  Curve curve{std::vector<float>(size, -7.0f), std::vector<float>(size, -7.0f)};
  for (std::int64_t from = 0; from < frameCount; from += chunk) {
    const auto n = static_cast<std::size_t>(std::min(chunk, frameCount - from));
    ramps.fill(from, {curve.gain.data() + from, n}, {curve.limiting.data() + from, n});
  }
  return curve;
}

double decibels(float gain) {
  return 20 * std::log10(static_cast<double>(gain));
}

TEST(GainRamps, FramesOutsideOfChaptersWithAGainAreLeftAlone) {
  const Curve curve = curveOf({{1000, 3000, 6}, {5000, 9000, -4}}, 12'000, 12'000);
  for (std::int64_t n = 0; n < 12'000; ++n) {
    const bool isInside = (n >= 1000 && n < 3000) || (n >= 5000 && n < 9000);
    if (isInside) continue;
    EXPECT_EQ(curve.gain[static_cast<std::size_t>(n)], 1.0f) << n;
    EXPECT_EQ(curve.limiting[static_cast<std::size_t>(n)], 0.0f) << n;
  }
}

TEST(GainRamps, TheGainIsThereAfter50msAndUntil50msBeforeTheEnd) {
  const Curve curve = curveOf({{1000, 3000, 6}}, 4000, 4000);
  for (std::int64_t n = 1000 + rampFrames; n < 3000 - rampFrames; ++n) {
    EXPECT_NEAR(decibels(curve.gain[static_cast<std::size_t>(n)]), 6, 1e-6);
    EXPECT_EQ(curve.limiting[static_cast<std::size_t>(n)], 1.0f);
  }
  EXPECT_LT(decibels(curve.gain[1000 + rampFrames / 2]), 3.1);  // half way up
  EXPECT_GT(decibels(curve.gain[1000 + rampFrames / 2]), 2.9);
}

// Half a cosine of g dB over R frames is nowhere steeper than g pi / (2 R) per frame.
TEST(GainRamps, NoStepIsLargerThanThatOfHalfACosine) {
  for (const float gainDB : {8.0f, -8.0f, 60.0f}) {
    const Curve curve =
        curveOf({{1000, 3000, gainDB}, {3000, 6000, -gainDB / 2}, {7000, 7200, gainDB}}, 8000, 8000);
    for (std::size_t n = 1; n < 8000; ++n) {
      const bool isShortChapter = n >= 6999;  // its ramps are a quarter as long
      const double steepest = std::fabs(static_cast<double>(gainDB)) * std::numbers::pi /
                              (2.0 * (isShortChapter ? 100 : rampFrames));
      EXPECT_LE(std::fabs(decibels(curve.gain[n]) - decibels(curve.gain[n - 1])), steepest * 1.001) << n;
    }
  }
}

TEST(GainRamps, TwoChaptersThatTouchMeetAtTheMeanOfTheirGains) {
  const Curve curve = curveOf({{0, 4000, 8}, {4000, 8000, 2}}, 8000, 8000);
  EXPECT_NEAR(decibels(curve.gain[3999]), 5, 0.01);
  EXPECT_NEAR(decibels(curve.gain[4000]), 5, 0.01);
  EXPECT_EQ(curve.limiting[3999], 1.0f);  // both are limited: so is what is between
  EXPECT_EQ(curve.limiting[4000], 1.0f);
  for (std::size_t n = 4000 - rampFrames; n < 4000 + rampFrames - 1; ++n)
    EXPECT_LE(curve.gain[n + 1], curve.gain[n]) << n;
}

TEST(GainRamps, OnlyRaisedChaptersAreLimited) {
  const Curve curve = curveOf({{0, 4000, 3}, {4000, 8000, -3}}, 8000, 8000);
  EXPECT_EQ(curve.limiting[2000], 1.0f);
  EXPECT_NEAR(static_cast<double>(curve.limiting[3999]), 0, 0.001);
  for (std::size_t n = 4000; n < 8000; ++n) EXPECT_EQ(curve.limiting[n], 0.0f);
}

TEST(GainRamps, RampsOfAShortChapterTakeHalfOfItEach) {
  const Curve curve = curveOf({{100, 300, 6}}, 400, 400);
  EXPECT_NEAR(decibels(curve.gain[199]), 6, 0.01);
  EXPECT_NEAR(decibels(curve.gain[200]), 6, 0.01);
  EXPECT_NEAR(decibels(curve.gain[149]), 3, 0.1);
  EXPECT_EQ(curveOf({{100, 101, 6}}, 200, 200).gain[99], 1.0f);  // no room for ramps
  EXPECT_NEAR(decibels(curveOf({{100, 101, 6}}, 200, 200).gain[100]), 6, 1e-5);
}

TEST(GainRamps, AnyChunkingGivesTheSameCurve) {
  const std::vector<LevelingGain> gains = {{10, 1000, 5}, {1000, 1001, -3}, {1500, 3990, 2}};
  const Curve whole = curveOf(gains, 4000, 4000);
  for (const std::int64_t chunk : {1, 7, 400, 1001}) {
    EXPECT_EQ(curveOf(gains, 4000, chunk).gain, whole.gain) << chunk;
    EXPECT_EQ(curveOf(gains, 4000, chunk).limiting, whole.limiting) << chunk;
  }
}

// --- Programmes ------------------------------------------------------------------------------------------

// A programme with its chapters measured.
struct Talk {
  ChapterProgramme programme;
  MeasuredChapters before;
};

Chapter chapterAt(std::int64_t index, double startSec, double endSec) {
  return {.id = UUID::random(), .index = index, .name = "x", .startSec = startSec, .endSec = endSec};
}

Talk talkOf(const std::filesystem::path& path, const Audio& audio, const std::vector<Chapter>& chapters,
            const test::FileKind& kind = pcm16) {
  test::writeAudio(path, audio, static_cast<int>(rate), kind);
  Talk talk;
  talk.programme =
      scanProgramme(path, {.detection = ChapterDetectionSettings::defaultValue(), .channelLabels = {}}, goOn)
          .value();
  talk.before =
      measureChapters(path, talk.programme, chapters.empty() ? talk.programme.detected : chapters, goOn)
          .value();
  return talk;
}

LevelingSettings settingsFor(LevelTarget target,
                             ChapterConsistencyMetric metric = ChapterConsistencyMetric::rms) {
  return {.metric = metric,
          .target = target,
          .ceilingDBTP = -1,
          .coding = SampleCoding::pcm16,
          .dither = Dither::tpdf};
}

LevelTarget fixed(float level) {
  return {LevelTarget::Fixed{level}};
}

Audio rendered(const Talk& talk, const Leveling& leveling, const LevelingSettings& settings) {
  Audio audio(static_cast<std::size_t>(talk.programme.channelCount), 0);
  render(
      talk.programme.path, renderingOf(leveling, settings, talk.programme.sampleRate),
      [&](std::span<const float* const> channelData, std::int64_t frameCount) {
        for (std::size_t c = 0; c < channelData.size(); ++c)
          audio.channels[c].insert(audio.channels[c].end(), channelData[c], channelData[c] + frameCount);
      },
      [](std::int64_t) { return true; });
  return audio;
}

// RMS of a stretch, with nothing of ours.
double rmsOf(const Audio& audio, double startSec, double endSec) {
  const auto& samples = audio.channels.at(0);
  return test::rmsDB(
      {samples.begin() + std::llround(startSec * rate), samples.begin() + std::llround(endSec * rate)});
}

TEST(ChapterLeveling, ChaptersOfAnHour3To8DBApartEndWithinATenthOfADecibel) {
  const TemporaryFolder folder;
  const test::Audiobook book = test::audiobook(3600, {-9, -4, -12, -6, -1, -8});
  const Talk talk = talkOf(folder / "book.wav", book.audio, {});
  ASSERT_EQ(talk.before.chapters.size(), book.chapterCount());
  const LevelingSettings settings = settingsFor({LevelTarget::Median{}});
  const auto leveling = level(talk.programme, talk.before, settings, goOnLeveling);
  ASSERT_TRUE(leveling);
  EXPECT_TRUE(missesOf(*leveling, settings, leveling->after).empty());
  float farthest = 0;
  for (const auto& needed : leveling->neededDB) farthest = std::max(farthest, std::fabs(needed.value_or(0)));
  EXPECT_GT(farthest, 4);  // there was something to do

  const Audio audio = rendered(talk, *leveling, settings);
  for (const Chapter& chapter : talk.before.chapters)
    EXPECT_NEAR(rmsOf(audio, chapter.startSec, chapter.endSec), *leveling->target, 0.1) << chapter.index;
}

// 12 s of noise each, one after the other, at these RMS levels.
Audio noiseAt(const std::vector<double>& levelsDB, std::mt19937& rng) {
  Audio audio(1, 0);
  for (const double dB : levelsDB) {
    const auto samples =
        test::noise(rng, 12 * static_cast<std::int64_t>(rate), test::amplitudeOf(dB) * std::sqrt(3.0));
    audio.channels[0].insert(audio.channels[0].end(), samples.begin(), samples.end());
  }
  return audio;
}

std::vector<Chapter> chaptersOf12s(int count) {
  std::vector<Chapter> chapters;
  for (int k = 0; k < count; ++k) chapters.push_back(chapterAt(k + 1, 12 * k, 12 * (k + 1)));
  return chapters;
}

TEST(ChapterLeveling, LoudnessIsLeveledAsRMSIs) {
  const TemporaryFolder folder;
  std::mt19937 rng(1);
  const Talk talk = talkOf(folder / "x.wav", noiseAt({-30, -24, -27, -35}, rng), chaptersOf12s(4));
  const LevelingSettings settings =
      settingsFor({LevelTarget::Median{}}, ChapterConsistencyMetric::integratedLUFS);
  const auto leveling = level(talk.programme, talk.before, settings, goOnLeveling);
  EXPECT_TRUE(missesOf(*leveling, settings, leveling->after).empty());
  for (const Chapter& chapter : leveling->after.chapters)
    EXPECT_NEAR(*chapter.integratedLUFS, *leveling->target, 0.1);
  // The median of four: the mean of the two in the middle.
  EXPECT_FLOAT_EQ(*leveling->target,
                  (*talk.before.chapters[0].integratedLUFS + *talk.before.chapters[2].integratedLUFS) / 2);
}

TEST(ChapterLeveling, ChaptersWithoutAGainAndGapsStayTheSameToTheBit) {
  const TemporaryFolder folder;
  std::mt19937 rng(2);
  // The second one is at the target and has peaks above the ceiling; the gap is as loud.
  Audio audio = noiseAt({-18, -6, -20, -6}, rng);
  const std::vector<Chapter> chapters = {chapterAt(1, 0, 12), chapterAt(2, 12, 24), chapterAt(3, 26, 36),
                                         chapterAt(4, 37, 48)};
  audio.channels[0][15 * 8000] = 0.999f;
  const Talk talk = talkOf(folder / "x.wav", audio, chapters, test::floatWAV);
  LevelingSettings settings = settingsFor(fixed(*talk.before.chapters[1].rmsDBFS));
  settings.ceilingDBTP = -4;
  const auto leveling = level(talk.programme, talk.before, settings, goOnLeveling);
  ASSERT_TRUE(leveling->limiter);
  EXPECT_GT(leveling->largestReductionDB, 0.5);
  const Audio result = rendered(talk, *leveling, settings);

  // Written as 16 bit without any operation.
  const LevelingSettings plain = settingsFor(fixed(0));
  const Audio untouched = rendered(talk, {}, plain);
  ASSERT_EQ(result.frameCount(), untouched.frameCount());
  std::int64_t changed = 0;
  for (std::size_t n = 0; n < result.channels[0].size(); ++n) {
    const double second = static_cast<double>(n) / rate;
    const bool isLeveled = second < 12 || (second >= 26 && second < 36) || second >= 37;
    if (isLeveled)
      changed += result.channels[0][n] != untouched.channels[0][n];
    else
      ASSERT_EQ(result.channels[0][n], untouched.channels[0][n]) << second;
  }
  EXPECT_GT(changed, 20 * 8000);
}

TEST(ChapterLeveling, PeaksThatAGainWouldPushOverTheCeilingAreLimited) {
  const TemporaryFolder folder;
  std::mt19937 rng(3);
  Audio audio = noiseAt({-20, -32}, rng);
  for (int k = 0; k < 20; ++k) audio.channels[0][static_cast<std::size_t>(100'000 + 4000 * k)] = 0.5f;
  const Talk talk = talkOf(folder / "x.wav", audio, chaptersOf12s(2));
  for (const double ceiling : {-1.0, -3.0}) {
    LevelingSettings settings = settingsFor(fixed(-20));
    settings.ceilingDBTP = ceiling;
    const auto leveling = level(talk.programme, talk.before, settings, goOnLeveling);
    EXPECT_TRUE(missesOf(*leveling, settings, leveling->after).empty());
    EXPECT_LE(*leveling->after.truePeakDBTP[1], ceiling);
    EXPECT_GT(*leveling->after.truePeakDBTP[1], ceiling - 1);
    EXPECT_NEAR(*leveling->after.chapters[1].rmsDBFS, -20, 0.1);
  }
}

// Limiting takes level away, and another round gives it back.
TEST(ChapterLeveling, WhatTheLimiterTakesIsMadeUpFor) {
  const TemporaryFolder folder;
  std::mt19937 rng(9);
  const Talk talk = talkOf(folder / "x.wav", noiseAt({-32}, rng), chaptersOf12s(1));
  LevelingSettings settings = settingsFor(fixed(-20));
  settings.ceilingDBTP = -12.5;
  Leveling withoutCorrection;
  withoutCorrection.gains = {{0, 12 * 8000, 12.0f}};
  withoutCorrection.limiter = LimiterSettings{.ceilingDBTP = -12.5};
  EXPECT_LT(rmsOf(rendered(talk, withoutCorrection, settings), 0, 12), -20.2);
  const auto leveling = level(talk.programme, talk.before, settings, goOnLeveling);
  EXPECT_TRUE(missesOf(*leveling, settings, leveling->after).empty());
  EXPECT_NEAR(rmsOf(rendered(talk, *leveling, settings), 0, 12), -20, 0.1);
}

// What is loud beside a raised chapter changes nothing in it.
TEST(ChapterLeveling, TheLimiterSeesNothingOutsideOfRaisedChapters) {
  const TemporaryFolder folder;
  std::mt19937 rng(10);
  const Audio loudBeside = noiseAt({-1, -20, -1}, rng);
  Audio silentBeside = loudBeside;
  std::vector<float>& samples = silentBeside.channels[0];
  std::fill(samples.begin(), samples.begin() + 12 * 8000, 0.0f);
  std::fill(samples.begin() + 24 * 8000, samples.end(), 0.0f);
  const LevelingSettings settings = settingsFor(fixed(-17));
  Leveling leveling;
  leveling.gains = {{12 * 8000, 24 * 8000, 3.0f}};
  leveling.limiter = LimiterSettings{.ceilingDBTP = -9};
  const Audio one = rendered(talkOf(folder / "a.wav", loudBeside, {}), leveling, settings);
  const Audio other = rendered(talkOf(folder / "b.wav", silentBeside, {}), leveling, settings);
  EXPECT_TRUE(std::equal(one.channels[0].begin() + 12 * 8000, one.channels[0].begin() + 24 * 8000,
                         other.channels[0].begin() + 12 * 8000));
}

// Dither that came and went with the zeros of the programme would be heard with it.
TEST(ChapterLeveling, ZerosAreDitheredInChaptersWithAGainAndNowhereElse) {
  const TemporaryFolder folder;
  Leveling leveling;
  leveling.gains = {{4000, 8000, 3.0f}};
  const Talk talk = talkOf(folder / "x.wav", Audio(1, 12'000), {});
  const Audio audio = rendered(talk, leveling, settingsFor(fixed(-17)));
  const auto zeros = [&](std::int64_t from, std::int64_t to) {
    return std::count(audio.channels[0].begin() + from, audio.channels[0].begin() + to, 0.0f);
  };
  EXPECT_EQ(zeros(0, 4000), 4000);
  EXPECT_EQ(zeros(8000, 12'000), 4000);
  EXPECT_NEAR(static_cast<double>(zeros(4000, 8000)), 3000,
              200);  // triangular: 3 of 4 stay below half a step
}

TEST(ChapterLeveling, AChapterThatTheLimiterHoldsBackIsNamed) {
  const TemporaryFolder folder;
  const Talk talk = talkOf(folder / "x.wav", test::sineAudio(1, rate, 12, 440, -20), chaptersOf12s(1));
  LevelingSettings settings = settingsFor(fixed(-5));  // of a sine under -6 dB no RMS is above -9
  settings.ceilingDBTP = -6;
  const auto leveling = level(talk.programme, talk.before, settings, goOnLeveling);
  const auto misses = missesOf(*leveling, settings, leveling->after);
  ASSERT_EQ(misses.size(), 1u);
  EXPECT_EQ(misses[0].chapter, 0u);
  EXPECT_TRUE(contains(misses[0].reason, "dB from the target, held back by the limiter")) << misses[0].reason;
}

TEST(ChapterLeveling, AChapterThatNeedsMoreThan60DBIsLeftAloneAndNamed) {
  const TemporaryFolder folder;
  std::mt19937 rng(4);
  const Talk talk = talkOf(folder / "x.wav", noiseAt({-20, -85}, rng), chaptersOf12s(2), test::floatWAV);
  const LevelingSettings settings = settingsFor(fixed(-20.5f));
  const auto leveling = level(talk.programme, talk.before, settings, goOnLeveling);
  EXPECT_FALSE(leveling->gainDB[1]);
  ASSERT_EQ(leveling->gains.size(), 1u);
  const auto misses = missesOf(*leveling, settings, leveling->after);
  ASSERT_EQ(misses.size(), 1u);
  EXPECT_EQ(misses[0].chapter, 1u);
  EXPECT_TRUE(contains(misses[0].reason, "it would need a gain of +64.")) << misses[0].reason;
  EXPECT_TRUE(contains(misses[0].reason, "at most 60 dB are applied"));
}

TEST(ChapterLeveling, ChaptersWithoutALevelGetNoGainAndAreNoMiss) {
  const TemporaryFolder folder;
  std::mt19937 rng(5);
  Audio audio = noiseAt({-20, -26, -26}, rng);
  std::fill(audio.channels[0].begin() + 24 * 8000, audio.channels[0].end(), 0.0f);
  std::vector<Chapter> chapters = chaptersOf12s(3);
  chapters.push_back(chapterAt(4, 36, 50));  // behind the end
  const Talk talk = talkOf(folder / "x.wav", audio, chapters);
  const LevelingSettings settings = settingsFor(fixed(-20));
  const auto leveling = level(talk.programme, talk.before, settings, goOnLeveling);
  EXPECT_TRUE(missesOf(*leveling, settings, leveling->after).empty());
  EXPECT_FALSE(leveling->neededDB[2]);
  EXPECT_FALSE(leveling->neededDB[3]);
}

TEST(ChapterLeveling, WithoutAnyLevelThereIsNoTarget) {
  const TemporaryFolder folder;
  const Talk talk = talkOf(folder / "x.wav", Audio(1, 12 * 8000), chaptersOf12s(1));
  const auto leveling =
      level(talk.programme, talk.before, settingsFor({LevelTarget::Median{}}), goOnLeveling);
  EXPECT_FALSE(leveling->target);
  EXPECT_EQ(leveling->rounds, 0);
}

TEST(ChapterLeveling, AGainForAChapterThatOverlapsAnotherIsRefused) {
  const TemporaryFolder folder;
  std::mt19937 rng(6);
  const Audio audio = noiseAt({-20, -26}, rng);
  const std::vector<Chapter> chapters = {chapterAt(1, 0, 12), chapterAt(2, 11, 24)};
  const Talk talk = talkOf(folder / "x.wav", audio, chapters);
  try {
    level(talk.programme, talk.before, settingsFor(fixed(-15)), goOnLeveling);
    FAIL() << "no error";
  } catch (const FileError& error) {
    EXPECT_STREQ(error.what(), "chapters 1 and 2 overlap: they cannot be leveled apart");
  }
  // Also where one of them is where it should be: it may not be touched.
  EXPECT_THROW(
      level(talk.programme, talk.before, settingsFor(fixed(*talk.before.chapters[0].rmsDBFS)), goOnLeveling),
      FileError);
}

TEST(ChapterLeveling, SamplesThatAreNotFiniteAreRefused) {
  const TemporaryFolder folder;
  std::mt19937 rng(7);
  Audio audio = noiseAt({-20}, rng);
  audio.channels[0][500] = std::nanf("");
  const Talk talk = talkOf(folder / "x.wav", audio, chaptersOf12s(1), test::floatWAV);
  EXPECT_THROW(level(talk.programme, talk.before, settingsFor(fixed(-15)), goOnLeveling), FileError);
}

TEST(ChapterLeveling, InterruptionLeavesNoResult) {
  const TemporaryFolder folder;
  std::mt19937 rng(8);
  const Talk talk = talkOf(folder / "x.wav", noiseAt({-20}, rng), chaptersOf12s(1));
  EXPECT_FALSE(level(talk.programme, talk.before, settingsFor(fixed(-15)),
                     [](int, const MeasureProgress&) { return false; }));
}

}  // namespace
}  // namespace vellum
