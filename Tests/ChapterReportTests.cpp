#include "VellumCore/ChapterReport.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>
#include <unordered_set>

namespace vellum {
namespace {

using Metric = ChapterConsistencyMetric;
using Origin = ChapterReport::Origin;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

const UUID someID = *UUID::parse("01234567-89AB-4DEF-BEDC-BA9876543210");

Chapter bareChapter() {
  return {.id = someID, .index = 3, .name = "Three", .startSec = 10.5, .endSec = 70.25};
}

// Every measurement differs: the k-th is -k - 1.
Chapter measuredChapter() {
  Chapter chapter = bareChapter();
  float level = 0;
  for (const ChapterMeasurement& measurement : chapterMeasurements) chapter.*measurement.value = --level;
  return chapter;
}

Chapter chapterAt(std::optional<float> integratedLUFS) {
  Chapter chapter = bareChapter();
  chapter.integratedLUFS = integratedLUFS;
  return chapter;
}

ChapterReport reportWithMedian(std::optional<float> medianLUFS) {
  return {.chapters = {bareChapter()},
          .medianLUFS = medianLUFS,
          .fileFingerprint = {.fileName = "talk.wav",
                              .durationCS = 360000,
                              .sampleRate = 48000,
                              .channelCount = 2},
          .origin = Origin::detected};
}

// --- Metric and settings ---------------------------------------------------------------------------------

TEST(ChapterConsistencyMetric, HasItsTextsInOrder) {
  ASSERT_EQ(allCases<Metric>(), (std::array{Metric::integratedLUFS, Metric::rms}));
  EXPECT_EQ(rawValue(Metric::integratedLUFS), "integratedLUFS");
  EXPECT_EQ(label(Metric::integratedLUFS), "LUFS");
  EXPECT_EQ(unit(Metric::integratedLUFS), "LUFS");
  EXPECT_EQ(shortUnit(Metric::integratedLUFS), "LU");
  EXPECT_EQ(rawValue(Metric::rms), "rms");
  EXPECT_EQ(label(Metric::rms), "RMS");
  EXPECT_EQ(unit(Metric::rms), "dB RMS");
  EXPECT_EQ(shortUnit(Metric::rms), "dB");
}

TEST(ChapterConsistencyMetric, OnlyItsOwnRawValuesMakeOne) {
  EXPECT_EQ(fromRawValue<Metric>("integratedLUFS"), Metric::integratedLUFS);
  EXPECT_EQ(fromRawValue<Metric>("rms"), Metric::rms);
  for (const char* text : {"", "RMS", "integrated", "integratedLUFS ", "LUFS"})
    EXPECT_FALSE(fromRawValue<Metric>(text)) << text;
}

TEST(ChapterConsistencyMetric, IsHashable) {
  EXPECT_EQ((std::unordered_set{Metric::rms, Metric::integratedLUFS, Metric::rms}.size()), 2u);
}

TEST(ChapterDetectionSettings, DefaultsAreForSpeechAndCompareRMS) {
  const auto settings = ChapterDetectionSettings::defaultValue();
  EXPECT_EQ(settings.silenceThresholdDB, -55.0f);
  EXPECT_EQ(settings.minSilenceDuration, 2.0);
  EXPECT_EQ(settings.deviationThresholdLU, 2.0f);
  EXPECT_EQ(settings.blockDuration, 0.1);
  EXPECT_EQ(settings.consistencyMetric, Metric::rms);
}

TEST(ChapterDetectionSettings, EveryFieldCountsForEquality) {
  const auto settings = ChapterDetectionSettings::defaultValue();
  EXPECT_EQ(settings, (ChapterDetectionSettings{-55, 2, 2, 0.1, Metric::rms}));
  EXPECT_NE(settings, (ChapterDetectionSettings{-54, 2, 2, 0.1, Metric::rms}));
  EXPECT_NE(settings, (ChapterDetectionSettings{-55, 3, 2, 0.1, Metric::rms}));
  EXPECT_NE(settings, (ChapterDetectionSettings{-55, 2, 3, 0.1, Metric::rms}));
  EXPECT_NE(settings, (ChapterDetectionSettings{-55, 2, 2, 0.2, Metric::rms}));
  EXPECT_NE(settings, (ChapterDetectionSettings{-55, 2, 2, 0.1, Metric::integratedLUFS}));
}

// --- Chapter ---------------------------------------------------------------------------------------------

TEST(Chapter, DurationIsNotClamped) {
  EXPECT_EQ(bareChapter().durationSec(), 59.75);
  Chapter reversed = bareChapter();
  reversed.endSec = 8;
  EXPECT_EQ(reversed.durationSec(), -2.5);
}

TEST(Chapter, IsNotMeasuredUnlessSet) {
  for (const ChapterMeasurement& measurement : chapterMeasurements)
    EXPECT_FALSE((bareChapter().*measurement.value).has_value()) << measurement.name;
}

TEST(Chapter, MeasurementsAreTenInTheOrderOfTheFields) {
  const Chapter chapter = measuredChapter();
  EXPECT_EQ(chapter.integratedLUFS, -1.0f);
  EXPECT_EQ(chapter.rmsDBFS, -2.0f);
  EXPECT_EQ(chapter.truePeakDBTP, -3.0f);
  EXPECT_EQ(chapter.samplePeakDBFS, -4.0f);
  EXPECT_EQ(chapter.loudnessRange, -5.0f);
  EXPECT_EQ(chapter.maxMomentaryLUFS, -6.0f);
  EXPECT_EQ(chapter.maxShortTermLUFS, -7.0f);
  EXPECT_EQ(chapter.speechGatedLUFS, -8.0f);
  EXPECT_EQ(chapter.noiseFloorDBRMS, -9.0f);
  EXPECT_EQ(chapter.speechPercentage, -10.0f);
  EXPECT_EQ(chapterMeasurements.size(), 10u);
}

TEST(Chapter, ClearingLeavesIdentityNameAndTimes) {
  Chapter chapter = measuredChapter();
  chapter.clearMeasurements();
  EXPECT_EQ(chapter, bareChapter());
}

TEST(Chapter, EveryFieldCountsForEquality) {
  const Chapter chapter = measuredChapter();
  Chapter other = chapter;
  EXPECT_EQ(other, chapter);
  other.id = UUID{};
  EXPECT_NE(other, chapter);
  other = chapter, ++other.index;
  EXPECT_NE(other, chapter);
  other = chapter, other.name = "three";
  EXPECT_NE(other, chapter);
  other = chapter, other.startSec = 10;
  EXPECT_NE(other, chapter);
  other = chapter, other.endSec = 70;
  EXPECT_NE(other, chapter);
  for (const ChapterMeasurement& measurement : chapterMeasurements) {
    other = chapter;
    (other.*measurement.value).reset();
    EXPECT_NE(other, chapter) << measurement.name;
  }
}

// --- Fingerprint -----------------------------------------------------------------------------------------

ChapterFileFingerprint fingerprintOf(double durationSec, double sampleRate) {
  return ChapterFileFingerprint::make(
      {.fileName = "talk.wav", .durationSec = durationSec, .sampleRate = sampleRate, .channelCount = 2});
}

TEST(ChapterFileFingerprint, RoundsHalvesAwayFromZero) {
  EXPECT_EQ(fingerprintOf(0.004, 48000).durationCS, 0);
  EXPECT_EQ(fingerprintOf(0.005, 48000).durationCS, 1);
  EXPECT_EQ(fingerprintOf(0.025, 48000).durationCS, 3);  // 2.5: not to even
  EXPECT_EQ(fingerprintOf(-0.005, 48000).durationCS, -1);
  EXPECT_EQ(fingerprintOf(1, 44099.5).sampleRate, 44100);
  EXPECT_EQ(fingerprintOf(1, 44100.5).sampleRate, 44101);
  EXPECT_EQ(fingerprintOf(1, 44100.49).sampleRate, 44100);
}

TEST(ChapterFileFingerprint, KeyJoinsTheFieldsInPlainDecimal) {
  EXPECT_EQ(fingerprintOf(3600.004, 48000).cacheKey(), "talk.wav|360000|48000|2");
  EXPECT_EQ((ChapterFileFingerprint{"a|b c.wav", -7, 0, 1234567890123}).cacheKey(),
            "a|b c.wav|-7|0|1234567890123");
}

TEST(ChapterFileFingerprint, MatchesWhereAllFourFieldsAreEqual) {
  const ChapterFileFingerprint one{"talk.wav", 360000, 48000, 2};
  const std::hash<ChapterFileFingerprint> hash;
  EXPECT_EQ(fingerprintOf(3600.0049, 48000.4), one);  // within the same centisecond and Hz
  EXPECT_EQ(hash(fingerprintOf(3600.0049, 48000.4)), hash(one));
  for (const ChapterFileFingerprint& other : {ChapterFileFingerprint{"Talk.wav", 360000, 48000, 2},
                                              ChapterFileFingerprint{"talk.wav", 360001, 48000, 2},
                                              ChapterFileFingerprint{"talk.wav", 360000, 44100, 2},
                                              ChapterFileFingerprint{"talk.wav", 360000, 48000, 1},
                                              ChapterFileFingerprint{"talk.wav|360000", 48000, 2, 0}}) {
    EXPECT_NE(other, one) << other.cacheKey();
    EXPECT_NE(hash(other), hash(one)) << other.cacheKey();
  }
}

TEST(ChapterFileFingerprint, TakesWhateverFits64Bits) {
  EXPECT_EQ(fingerprintOf(9.2e16, 1).durationCS, 9'200'000'000'000'000'000);
  EXPECT_EQ(fingerprintOf(1, -0x1p63).sampleRate, std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(fingerprintOf(1, 0x1.fffffffffffffp62).sampleRate, 0x7FFF'FFFF'FFFF'FC00);
}

TEST(ChapterFileFingerprintDeathTest, WhatIsNotFiniteOrTooLargeStopsTheProgram) {
  const double infinite = std::numeric_limits<double>::infinity();
  for (const double value : {infinite, -infinite, std::nan(""), 0x1p63, -0x1.0000000000001p63}) {
    EXPECT_DEATH(fingerprintOf(value, 48000), "must be finite and fit 64 bits") << value;
    EXPECT_DEATH(fingerprintOf(1, value), "must be finite and fit 64 bits") << value;
  }
  EXPECT_DEATH(fingerprintOf(0x1p62, 48000), "must be finite and fit 64 bits");  // fits only in seconds
}

// --- Report ----------------------------------------------------------------------------------------------

TEST(ChapterReport, OriginsHaveTheirTextsInOrder) {
  EXPECT_EQ(allCases<Origin>(), (std::array{Origin::detected, Origin::manual, Origin::imported,
                                            Origin::recalled, Origin::music}));
  EXPECT_EQ(rawValue(Origin::detected), "detected");
  EXPECT_EQ(rawValue(Origin::manual), "manual");
  EXPECT_EQ(rawValue(Origin::imported), "imported");
  EXPECT_EQ(rawValue(Origin::recalled), "recalled");
  EXPECT_EQ(rawValue(Origin::music), "music");
  EXPECT_EQ(fromRawValue<Origin>("music"), Origin::music);
  EXPECT_FALSE(fromRawValue<Origin>("Music"));
  EXPECT_FALSE(fromRawValue<Origin>("automatic"));
}

TEST(ChapterReport, DeviationIsPositiveAboveTheMedian) {
  const auto report = reportWithMedian(-18.5f);
  EXPECT_EQ(report.deviationLU(chapterAt(-16.25f)), 2.25f);
  EXPECT_EQ(report.deviationLU(chapterAt(-20.0f)), -1.5f);
}

// Whatever the median is of: the report does not know.
TEST(ChapterReport, DeviationIsOfTheIntegratedLoudness) {
  Chapter chapter = chapterAt(-16.0f);
  chapter.rmsDBFS = -20.0f;
  EXPECT_EQ(reportWithMedian(-20.0f).deviationLU(chapter), 4.0f);
}

TEST(ChapterReport, DeviationIsAbsentAndUnflaggedWithoutTwoFiniteLevels) {
  for (const std::optional<float> level :
       {std::optional<float>(), std::optional(infinity), std::optional(-infinity), std::optional(nan)}) {
    EXPECT_FALSE(reportWithMedian(level).deviationLU(chapterAt(-20.0f)));
    EXPECT_FALSE(reportWithMedian(level).isFlagged(chapterAt(-20.0f), 0.0f));
    EXPECT_FALSE(reportWithMedian(-18.0f).deviationLU(chapterAt(level)));
    EXPECT_FALSE(reportWithMedian(-18.0f).isFlagged(chapterAt(level), -1.0f));
  }
}

TEST(ChapterReport, FlagsADeviationLargerThanTheThresholdEitherWay) {
  const auto report = reportWithMedian(-18.0f);
  EXPECT_FALSE(report.isFlagged(chapterAt(-20.0f), 2.0f));
  EXPECT_TRUE(report.isFlagged(chapterAt(-20.01f), 2.0f));
  EXPECT_FALSE(report.isFlagged(chapterAt(-16.0f), 2.0f));
  EXPECT_TRUE(report.isFlagged(chapterAt(-15.99f), 2.0f));
  EXPECT_FALSE(report.isFlagged(chapterAt(-18.0f), 0.0f));
  EXPECT_TRUE(report.isFlagged(chapterAt(-18.0f), -0.5f));
  EXPECT_FALSE(report.isFlagged(chapterAt(-30.0f), nan));
}

TEST(ChapterReport, EveryFieldCountsForEquality) {
  const auto report = reportWithMedian(-18.0f);
  EXPECT_EQ(report, reportWithMedian(-18.0f));
  EXPECT_NE(report, reportWithMedian(-18.5f));
  EXPECT_NE(report, reportWithMedian(std::nullopt));
  auto other = report;
  other.origin = Origin::manual;
  EXPECT_NE(other, report);
  other = report;
  other.fileFingerprint.channelCount = 1;
  EXPECT_NE(other, report);
  other = report;
  other.chapters.clear();
  EXPECT_NE(other, report);
}

TEST(ChapterReport, DiffersFromOneWithAnotherIDInAChapter) {
  const auto report = reportWithMedian(-18.0f);
  auto other = report;
  other.chapters[0].id = UUID::random();
  EXPECT_NE(other, report);
}

}  // namespace
}  // namespace vellum
