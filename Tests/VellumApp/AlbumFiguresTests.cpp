#include "VellumApp/AlbumFigures.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "Support/Signals.hpp"

namespace vellum {
namespace {

using test::Audio;

struct Programme {
  ProgrammeMeter meter;
  ProgrammeFigures figures;
};

Programme measured(const Audio& audio) {
  ProgrammeMeter meter({.sampleRate = 48000,
                        .channelCount = static_cast<std::int64_t>(audio.channels.size()),
                        .channelWeights = std::nullopt});
  meter.feed(audio.pointers(), audio.frameCount());
  const ProgrammeFigures figures = meter.finish();
  return {std::move(meter), figures};
}

LoudnessMeasurement albumOf(const std::vector<Programme>& programmes) {
  std::vector<AlbumPart> parts;
  for (const Programme& programme : programmes)
    parts.push_back({programme.figures, programme.meter.history()});
  return albumMeasurement(parts);
}

Audio tone(double seconds, double peakDBFS) {
  return test::sineAudio(2, 48000, seconds, 997, peakDBFS);
}

// Each of them starts with a filter at rest, which is all that differs.
TEST(AlbumFigures, ReadAsOneProgrammeThatPlaysTheFilesOneAfterTheOther) {
  std::mt19937 rng(3);
  const Audio parts[] = {tone(4, -20), test::noiseAudio(rng, 2, 5 * 48000, 0.3), tone(6, -29)};
  std::vector<Programme> programmes;
  Audio whole;
  for (const Audio& part : parts) {
    programmes.push_back(measured(part));
    whole.append(part);
  }
  const Programme expected = measured(whole);
  const LoudnessMeasurement album = albumOf(programmes);
  EXPECT_NEAR(album.integratedLUFS, expected.figures.integratedLUFS, 0.01);
  EXPECT_NEAR(album.truePeakDBTP, expected.figures.truePeakDBTP, 0.1);
  ASSERT_TRUE(album.rmsDBFS && album.maxShortTermLUFS);
  EXPECT_NEAR(*album.rmsDBFS, expected.figures.rmsDBFS, 0.001);
  EXPECT_NEAR(*album.maxShortTermLUFS, expected.figures.maxShortTermLUFS, 0.05);
}

TEST(AlbumFigures, OfOneProgrammeAreItsOwn) {
  std::vector<Programme> programmes;
  programmes.push_back(measured(tone(3, -18)));
  const LoudnessMeasurement album = albumOf(programmes);
  EXPECT_EQ(album.integratedLUFS, static_cast<float>(programmes[0].figures.integratedLUFS));
  EXPECT_EQ(album.truePeakDBTP, programmes[0].figures.truePeakDBTP);
  EXPECT_EQ(album.rmsDBFS, programmes[0].figures.rmsDBFS);
}

// -20 dBFS for one second and -26 for three: mean power by length, not by file.
TEST(AlbumFigures, RMSIsTheMeanPowerOverTheLength) {
  std::vector<Programme> programmes;
  programmes.push_back(measured(tone(1, -20)));
  programmes.push_back(measured(tone(3, -26)));
  const double sineOffset = 10 * std::log10(2.0);  // a sine's RMS is 3 dB below its peak
  const double power = (1 * std::pow(10, -2.0) + 3 * std::pow(10, -2.6)) / 4;
  ASSERT_TRUE(albumOf(programmes).rmsDBFS);
  EXPECT_NEAR(*albumOf(programmes).rmsDBFS, 10 * std::log10(power) - sineOffset, 0.01);
}

TEST(AlbumFigures, ASilentFileChangesNoFigure) {
  std::vector<Programme> programmes;
  programmes.push_back(measured(tone(3, -20)));
  const LoudnessMeasurement alone = albumOf(programmes);
  programmes.insert(programmes.begin(), measured(Audio(2, 48000)));
  const LoudnessMeasurement album = albumOf(programmes);
  EXPECT_NEAR(album.integratedLUFS, alone.integratedLUFS, 1e-5);
  EXPECT_EQ(album.truePeakDBTP, alone.truePeakDBTP);
  EXPECT_EQ(album.maxShortTermLUFS, alone.maxShortTermLUFS);
  ASSERT_TRUE(album.rmsDBFS && alone.rmsDBFS);
  EXPECT_NEAR(*album.rmsDBFS, *alone.rmsDBFS, 1e-5);
}

TEST(AlbumFigures, NothingButSilenceHasNoFigures) {
  std::vector<Programme> programmes;
  for (int k = 0; k < 2; ++k) programmes.push_back(measured(Audio(1, 48000)));
  const LoudnessMeasurement album = albumOf(programmes);
  EXPECT_EQ(album.integratedLUFS, -std::numeric_limits<float>::infinity());
  EXPECT_EQ(album.truePeakDBTP, programmes[0].figures.truePeakDBTP);
  EXPECT_FALSE(album.rmsDBFS);
}

TEST(AlbumFiguresDeathTest, TakesOneProgrammeAtLeast) {
  EXPECT_DEATH(albumMeasurement({}), "takes one programme at least");
}

// Gated over the speech blocks of all: what one file has little of counts little.
TEST(AlbumFigures, DialogueIsGatedOverTheSpeechOfAllFiles) {
  ProgrammeFigures figures = measured(tone(1, -20)).figures;
  const std::vector<double> loud(10, 0.01), quiet(30, 0.004);
  const std::vector<bool> speechA = {true,  true,  true,  true, true,
                                     false, false, false, false};  // 9 of 10 blocks
  const std::vector<bool> speechB(30, true);
  const AlbumPart parts[] = {{figures, {{}, {}, loud, speechA}}, {figures, {{}, {}, quiet, speechB}}};
  const double power = (5 * 0.01 + 30 * 0.004) / 35;  // all of it within 10 LU of the mean
  EXPECT_NEAR(albumMeasurement(parts).dialogGatedLUFS, 10 * std::log10(power) - 0.691, 1e-4);
}

}  // namespace
}  // namespace vellum
