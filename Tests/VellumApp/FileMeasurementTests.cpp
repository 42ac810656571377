#include "VellumApp/FileMeasurement.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/ChannelMapFiles.hpp"
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

// --- Channels --------------------------------------------------------------------------------------------

using Labels = std::vector<AudioChannelLabel>;

std::optional<FileMeasurement> measureWhole(const std::filesystem::path& path,
                                            const MeasureSettings& settings = {}) {
  return measureFile(path, settings, [](const MeasureProgress&) { return true; });
}

MeasureSettings withLabels(const Labels& labels) {
  MeasureSettings settings;
  settings.channelLabels = labels;
  return settings;
}

// Channels of different levels, 10 dB apart, so that each is recognised by its RMS.
test::Audio stairs(std::size_t channelCount) {
  test::Audio audio(channelCount, 48'000);
  for (std::size_t c = 0; c < channelCount; ++c)
    audio.channels[c] = test::sine(48000, 48'000, 997, test::amplitudeOf(-10.0 * static_cast<double>(c)));
  return audio;
}

// In which order of the file's channels the figures stand.
std::vector<std::int64_t> orderByLevel(const FileMeasurement& measurement) {
  std::vector<std::int64_t> order;
  for (const float rms : measurement.figures.channelRMSDBFS)
    order.push_back(std::lround((rms + 3.01f) / -10));
  return order;
}

const Labels film = {1, 2, 5, 6, 3, 4};  // L R Ls Rs C LFE

TEST(FileMeasurement, EverythingPerChannelStandsInCanonicalOrder) {
  const TemporaryFolder folder;
  test::writeCAF(folder / "x.caf", stairs(6), test::channelChunk(0, 0, film));
  const auto result = measureWhole(folder / "x.caf");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->fileChannels, (std::vector<std::int64_t>{0, 1, 4, 5, 2, 3}));
  EXPECT_EQ(result->channelLabels, (Labels{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(result->channelNames, (std::vector<std::string>{"L", "R", "C", "LFE", "Ls", "Rs"}));
  const auto weights = result->meter.channelWeights();
  EXPECT_EQ(std::vector<float>(weights.begin(), weights.end()),
            (std::vector<float>{1, 1, 1, 0, 1.41253f, 1.41253f}));
  EXPECT_EQ(orderByLevel(*result), result->fileChannels);
  for (std::size_t c = 0; c < 6; ++c)
    EXPECT_NEAR(result->figures.channelTruePeakDBTP[c], -10.0 * static_cast<double>(result->fileChannels[c]),
                0.1);
}

// The same programme under every order of its channels.
TEST(FileMeasurement, TheOrderOfTheChannelsInTheFileChangesNoFigure) {
  const TemporaryFolder folder;
  std::mt19937 rng(9);
  const Labels canonical = {1, 2, 3, 4, 5, 6};
  test::Audio audio;
  for (const double amplitude : {0.1, 0.2, 0.15, 0.4, 0.25, 0.3})
    audio.channels.push_back(test::noise(rng, 96'000, amplitude));
  std::vector<std::size_t> order = {0, 1, 2, 3, 4, 5};
  std::optional<FileMeasurement> expected;
  for (int trial = 0; trial < 12; ++trial) {
    test::Audio shuffled;
    Labels labels;
    for (const std::size_t c : order) {
      shuffled.channels.push_back(audio.channels[c]);
      labels.push_back(canonical[c]);
    }
    test::writeCAF(folder / "x.caf", shuffled, test::channelChunk(0, 0, labels));
    auto result = measureWhole(folder / "x.caf");
    ASSERT_TRUE(result);
    if (!expected)
      expected = std::move(result);
    else {
      EXPECT_EQ(result->channelLabels, canonical);
      EXPECT_EQ(result->figures.integratedLUFS, expected->figures.integratedLUFS);
      EXPECT_EQ(result->figures.truePeakDBTP, expected->figures.truePeakDBTP);
      EXPECT_EQ(result->figures.channelRMSDBFS, expected->figures.channelRMSDBFS);
      EXPECT_EQ(result->figures.channelTruePeakDBTP, expected->figures.channelTruePeakDBTP);
      EXPECT_EQ(result->figures.noiseFloorDBRMS, expected->figures.noiseFloorDBRMS);
    }
    std::shuffle(order.begin(), order.end(), rng);
  }
}

TEST(FileMeasurement, FilesWithoutLabelsAndOtherCountsKeepTheirOrder) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "six.wav", stairs(6), 48000, test::floatWAV);
  const auto six = measureWhole(folder / "six.wav");
  ASSERT_TRUE(six);
  EXPECT_EQ(six->channelLabels, Labels{});
  EXPECT_EQ(orderByLevel(*six), (std::vector<std::int64_t>{0, 1, 2, 3, 4, 5}));

  test::writeCAF(folder / "eight.caf", stairs(8), test::channelChunk(127 << 16 | 8));
  const auto eight = measureWhole(folder / "eight.caf");
  ASSERT_TRUE(eight);
  EXPECT_EQ(eight->channelLabels, (Labels{3, 7, 8, 1, 2, 5, 6, 4}));
  EXPECT_EQ(eight->channelNames, (std::vector<std::string>{"C", "Lc", "Rc", "L", "R", "Ls", "Rs", "LFE"}));
  EXPECT_EQ(orderByLevel(*eight), (std::vector<std::int64_t>{0, 1, 2, 3, 4, 5, 6, 7}));
  EXPECT_EQ(eight->meter.channelWeights()[7], 0);
}

TEST(FileMeasurement, GivenLabelsStandInsteadOfTheFilesOwn) {
  const TemporaryFolder folder;
  test::writeCAF(folder / "x.caf", stairs(6), test::channelChunk(121 << 16 | 6));
  const auto result = measureWhole(folder / "x.caf", withLabels(film));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->channelLabels, (Labels{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(orderByLevel(*result), (std::vector<std::int64_t>{0, 1, 4, 5, 2, 3}));
}

// Weights belong to the channels of the file; they come along when these are reordered.
TEST(FileMeasurement, GivenWeightsAreInTheOrderOfTheFile) {
  const TemporaryFolder folder;
  test::writeCAF(folder / "x.caf", stairs(6), test::channelChunk(0, 0, film));
  MeasureSettings settings;
  settings.channelWeights = std::vector<float>{10, 11, 12, 13, 14, 15};
  const auto result = measureWhole(folder / "x.caf", settings);
  ASSERT_TRUE(result);
  const auto weights = result->meter.channelWeights();
  EXPECT_EQ(std::vector<float>(weights.begin(), weights.end()), (std::vector<float>{10, 11, 14, 15, 12, 13}));
}

TEST(FileMeasurement, DualMonoOutweighsTheLabelOfASingleChannel) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", stairs(1), 48000, test::floatWAV);
  MeasureSettings settings = withLabels({3});
  settings.dualMono = true;
  const auto result = measureWhole(folder / "x.wav", settings);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->channelNames, std::vector<std::string>{"C"});
  EXPECT_EQ(result->meter.channelWeights()[0], 2);
}

TEST(FileMeasurement, AnotherNumberOfLabelsOrWeightsThanOfChannelsIsAnError) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", stairs(2), 48000, test::floatWAV);
  test::writeAudio(folder / "mono.wav", stairs(1), 48000, test::floatWAV);
  const auto errorOf = [&](const char* name, const MeasureSettings& settings) -> std::string {
    try {
      measureWhole(folder / name, settings);
    } catch (const FileError& error) {
      return error.what();
    }
    return "none";
  };
  EXPECT_EQ(errorOf("x.wav", withLabels({1, 2, 3})), "it has 2 channels, but the layout is for 3");
  EXPECT_EQ(errorOf("mono.wav", withLabels({1, 2})), "it has 1 channel, but the layout is for 2");
  MeasureSettings settings;
  settings.channelWeights = std::vector<float>{1};
  EXPECT_EQ(errorOf("x.wav", settings), "it has 2 channels, but the weights are for 1");
}

TEST(FileMeasurement, ALabelWithoutAWeightIsToldOnceForAFile) {
  const TemporaryFolder folder;
  test::writeCAF(folder / "x.caf", stairs(4), test::channelChunk(115 << 16 | 4));  // L R C Cs
  testing::internal::CaptureStderr();
  ASSERT_TRUE(measureWhole(folder / "x.caf"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "🔉 BS.1770 weight: unmapped channel label 9 defaulted to 1.0 (full weight)\n");
}

TEST(FileMeasurement, MonoIsMeasuredWithoutAWord) {
  const TemporaryFolder folder;
  test::writeCAF(folder / "x.caf", stairs(1), test::channelChunk(100 << 16 | 1));
  testing::internal::CaptureStderr();
  ASSERT_TRUE(measureWhole(folder / "x.caf"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace vellum
