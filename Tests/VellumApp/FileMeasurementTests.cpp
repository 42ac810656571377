#include "VellumApp/FileMeasurement.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"

namespace vellum {
namespace {

using test::TemporaryFolder;

void writeTone(const std::filesystem::path& path, const test::FileKind& kind, double seconds) {
  test::writeAudio(path, test::sineAudio(2, 48000, seconds, 997, -20), 48000, kind);
}

TEST(FileMeasurement, ReadsAsTheProgrammeMeterFedWithTheSamples) {
  const TemporaryFolder folder;
  writeTone(folder / "x.wav", test::floatWAV, 3.21);
  const auto result = measureFile(folder / "x.wav", {}, [](const MeasureProgress&) { return true; });
  ASSERT_TRUE(result);

  const test::Audio audio = test::readAudio(folder / "x.wav");
  ProgrammeMeter meter({.sampleRate = 48000, .channelCount = 2, .channelWeights = std::nullopt});
  meter.feed(audio.pointers(), audio.frameCount());
  const ProgrammeFigures expected = meter.finish();
  EXPECT_EQ(result->figures.frameCount, expected.frameCount);
  EXPECT_EQ(result->figures.durationSec, expected.durationSec);
  EXPECT_EQ(result->figures.truePeakDBTP, expected.truePeakDBTP);
  EXPECT_NEAR(result->figures.integratedLUFS, expected.integratedLUFS, 1e-6);  // another chunk length
  EXPECT_EQ(result->meter.history().loudness.size(), 33u);
  EXPECT_EQ(result->channelNames, (std::vector<std::string>{"L", "R"}));
  EXPECT_EQ(result->formatName, "WAV 32-bit float");
  EXPECT_TRUE(result->warnings.empty());
}

TEST(FileMeasurement, ProgressRunsFromNothingToTheWhole) {
  const TemporaryFolder folder;
  writeTone(folder / "x.wav", test::floatWAV, 10);
  std::vector<double> done;
  const auto note = [&](const MeasureProgress& progress) {
    EXPECT_EQ(progress.totalSec, 6.0);
    done.push_back(progress.doneSec);
    return true;
  };
  ASSERT_TRUE(measureFile(folder / "x.wav",
                          {.fromSec = 3, .toSec = 9, .channelWeights = {}, .dualMono = false}, note));
  ASSERT_GT(done.size(), 5u);
  EXPECT_EQ(done.front(), 0);
  EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
  EXPECT_GT(done.back(), 5);
}

// Also while a lossy file is decoded up to the section.
TEST(FileMeasurement, EndsWithoutAResultOnceToldTo) {
  const TemporaryFolder folder;
  writeTone(folder / "x.wav", test::floatWAV, 10);
  writeTone(folder / "x.ogg", test::vorbis, 10);
  for (const char* name : {"x.wav", "x.ogg"}) {
    int questions = 0;
    const auto stopAtThird = [&](const MeasureProgress& progress) {
      EXPECT_LT(progress.doneSec, 1);
      return ++questions < 3;
    };
    EXPECT_FALSE(measureFile(
        folder / name, {.fromSec = 8, .toSec = {}, .channelWeights = {}, .dualMono = false}, stopAtThird));
    EXPECT_EQ(questions, 3) << name;
  }
}

TEST(FileMeasurement, ARateTooLowForKWeightingIsAWarning) {
  const TemporaryFolder folder;
  const auto warningsAt = [&](int rate) {
    test::writeAudio(folder / "x.wav", test::sineAudio(1, rate, 1, 100, -20), rate, test::floatWAV);
    return measureFile(folder / "x.wav", {}, [](const MeasureProgress&) { return true; })->warnings;
  };
  ASSERT_EQ(warningsAt(3363).size(), 1u);
  EXPECT_NE(warningsAt(3363)[0].find("K-weighting"), std::string::npos);
  EXPECT_TRUE(warningsAt(3364).empty());
}

}  // namespace
}  // namespace vellum
