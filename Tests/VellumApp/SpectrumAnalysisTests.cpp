#include "VellumApp/SpectrumAnalysis.hpp"

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Support/AudioFiles.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using test::amplitudeOf;
using test::Audio;
using test::contains;
using test::TemporaryFolder;

const SpectrumSettings plain{
    .fromSec = {}, .toSec = {}, .window = FFTWindowType::hann, .fftSize = {}, .channels = {}};

bool always(const MeasureProgress&) {
  return true;
}

FileSpectrum analysed(const std::filesystem::path& path, const SpectrumSettings& settings = plain) {
  const auto spectrum = analyseSpectrum(path, settings, always);
  EXPECT_TRUE(spectrum);
  return spectrum.value();
}

FileSpectrum analysed(const Audio& audio, int sampleRate, const SpectrumSettings& settings = plain) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "audio.wav", audio, sampleRate, test::floatWAV);
  return analysed(folder / "audio.wav", settings);
}

std::string faultOf(const std::filesystem::path& path, const SpectrumSettings& settings) {
  try {
    analyseSpectrum(path, settings, always);
  } catch (const FileError& error) {
    return error.what();
  }
  return "none";
}

Audio mono(std::vector<float> samples) {
  Audio audio;
  audio.channels.push_back(std::move(samples));
  return audio;
}

TEST(SpectrumAnalysis, SineReadsItsLevelUnderEveryWindow) {
  for (const FFTWindowType window : allCases<FFTWindowType>()) {
    SpectrumSettings settings = plain;
    settings.window = window;
    settings.fftSize = 4096;
    // Bin 100 of 4,096 at 40,960 Hz.
    const auto spectrum = analysed(mono(test::sine(40960, 81920, 1000, amplitudeOf(-12))), 40960, settings);
    EXPECT_EQ(spectrum.frequency(100), 1000);
    EXPECT_NEAR(spectrum.averageDB[100], -12, 1e-3) << rawValue(window);
    EXPECT_NEAR(spectrum.peakDB[100], -12, 1e-3) << rawValue(window);
    for (const SpectrumBand& band : spectrum.bands) {
      if (band.nominalHz == 1000) {
        EXPECT_NEAR(band.averageDB, -12, 0.01) << rawValue(window);
      } else if (band.nominalHz < 700 || band.nominalHz > 1400) {
        EXPECT_LT(band.averageDB, -60) << rawValue(window);
      }
    }
  }
}

// White noise of variance s^2 has 2 s^2 of a full-scale sine's power, evenly over all frequencies.
TEST(SpectrumAnalysis, NoiseReadsItsPowerInEveryBandUnderEveryWindow) {
  std::mt19937 rng(4);
  const Audio audio = mono(test::noise(rng, 960000, 0.1));  // uniform: s^2 = 0.01 / 3
  for (const FFTWindowType window : allCases<FFTWindowType>()) {
    SpectrumSettings settings = plain;
    settings.window = window;
    for (const SpectrumBand& band : analysed(audio, 48000, settings).bands) {
      const double expected = 10 * std::log10(2 * 0.01 / 3 * (band.highHz - band.lowHz) / 24000);
      // Of n independent values the mean is off by some 4.3 / sqrt(n) dB.
      const double values = 2 * 20 * (band.highHz - band.lowHz);
      EXPECT_NEAR(band.averageDB, expected, 5 * 4.3 / std::sqrt(values))
          << rawValue(window) << ' ' << band.nominalHz;
      EXPECT_GE(band.peakDB, band.averageDB);
    }
  }
}

// An impulse in the middle of the only frame has the same power in every bin: bands differ by their widths
// alone, down to parts of a bin.
TEST(SpectrumAnalysis, BandsTakeTheirShareOfTheBinsAtTheirEdges) {
  Audio audio(1, 16384);
  audio.channels[0][8192] = 1;
  const auto spectrum = analysed(audio, 48000);
  ASSERT_EQ(spectrum.frameCount, 1);
  const double perBin = 20 * std::log10(2 / 8192.0);  // the window is 1 there, its sum 8,192
  for (const SpectrumBand& band : spectrum.bands) {
    const double expected = perBin + 10 * std::log10((band.highHz - band.lowHz) / (1.5 * 48000 / 16384));
    EXPECT_NEAR(band.averageDB, expected, 1e-3) << band.nominalHz;
  }
}

TEST(SpectrumAnalysis, BandsHaveTheirNominalNames) {
  const auto spectrum = analysed(Audio(1, 48000), 48000);
  std::vector<double> names;
  for (const SpectrumBand& band : spectrum.bands) names.push_back(band.nominalHz);
  EXPECT_EQ(names, (std::vector<double>{20,   25,   31.5, 40,   50,   63,    80,    100,   125,  160,  200,
                                        250,  315,  400,  500,  630,  800,   1000,  1250,  1600, 2000, 2500,
                                        3150, 4000, 5000, 6300, 8000, 10000, 12500, 16000, 20000}));
  for (const SpectrumBand& band : spectrum.bands)
    EXPECT_NEAR(band.centreHz, band.nominalHz, 0.02 * band.nominalHz);
  for (std::size_t k = 1; k < spectrum.bands.size(); ++k)
    EXPECT_NEAR(spectrum.bands[k].lowHz, spectrum.bands[k - 1].highHz, 1e-9 * spectrum.bands[k].lowHz);
}

TEST(SpectrumAnalysis, BandsNarrowerThanABinAreLeftOut) {
  SpectrumSettings settings = plain;
  settings.fftSize = 1024;
  const auto spectrum = analysed(Audio(1, 48000), 48000, settings);
  EXPECT_NEAR(spectrum.noiseBandwidthHz, 1.5 * 48000 / 1024, 1e-3);
  for (const SpectrumBand& band : spectrum.bands)
    EXPECT_GE(band.highHz - band.lowHz, spectrum.noiseBandwidthHz);
  EXPECT_EQ(spectrum.bands.front().nominalHz, 315);
  settings.fftSize = 16;
  EXPECT_EQ(analysed(Audio(1, 48000), 48000, settings).bands.front().nominalHz, 20000);
}

TEST(SpectrumAnalysis, PeakIsTheHighestFrameAndAverageThePower) {
  // A tenth of 20 seconds with a tone: the average is 10 dB below.
  auto samples = test::sine(48000, 960000, 3000, 0.5);
  std::fill(samples.begin(), samples.begin() + 432000, 0.0f);
  std::fill(samples.begin() + 528000, samples.end(), 0.0f);
  SpectrumSettings settings = plain;
  settings.fftSize = 4096;
  const auto spectrum = analysed(mono(samples), 48000, settings);
  EXPECT_NEAR(spectrum.peakDB[256], -6.02, 0.01);
  EXPECT_NEAR(spectrum.averageDB[256], -16.02, 0.1);
}

TEST(SpectrumAnalysis, LooksAtItsSectionOnly) {
  auto samples = test::sine(48000, 144000, 3000, 0.5);
  std::fill(samples.begin(), samples.begin() + 48000, 0.0f);
  std::fill(samples.begin() + 96000, samples.end(), 0.0f);
  SpectrumSettings settings = plain;
  settings.fftSize = 4096;
  settings.fromSec = 1;
  settings.toSec = 2;
  const auto tone = analysed(mono(samples), 48000, settings);
  EXPECT_NEAR(tone.averageDB[256], -6.02, 0.01);
  EXPECT_EQ(tone.frameCount, (48000 - 4096) / 1024 + 1);
  EXPECT_TRUE(tone.warnings.empty());
  settings.fromSec = {};
  settings.toSec = 1;
  const auto silence = analysed(mono(samples), 48000, settings);
  for (const float level : silence.peakDB) EXPECT_EQ(level, -std::numeric_limits<float>::infinity());
  for (const SpectrumBand& band : silence.bands) EXPECT_FALSE(std::isfinite(band.averageDB));
}

TEST(SpectrumAnalysis, ChannelsAreAveragedByPower) {
  Audio audio = test::sineAudio(1, 48000, 1, 3000, -6);
  audio.channels.emplace_back(48000);
  SpectrumSettings settings = plain;
  settings.fftSize = 4096;
  EXPECT_NEAR(analysed(audio, 48000, settings).averageDB[256], -9.01, 0.01);
  settings.channels = {0};
  EXPECT_NEAR(analysed(audio, 48000, settings).averageDB[256], -6, 0.01);
  settings.channels = {1};
  EXPECT_FALSE(std::isfinite(analysed(audio, 48000, settings).averageDB[256]));
  // Out of phase, which a mono mix would lose.
  audio.channels[1] = audio.channels[0];
  for (float& sample : audio.channels[1]) sample = -sample;
  settings.channels = {};
  EXPECT_NEAR(analysed(audio, 48000, settings).averageDB[256], -6, 0.01);
}

TEST(SpectrumAnalysis, SizeFollowsTheSampleRate) {
  EXPECT_EQ(spectrumFFTSize(48000), 16384);
  EXPECT_EQ(spectrumFFTSize(44100), 16384);
  EXPECT_EQ(spectrumFFTSize(16000), 8192);
  EXPECT_EQ(spectrumFFTSize(5), leastFFTSize);
  EXPECT_EQ(spectrumFFTSize(1e6), 524288);
}

TEST(SpectrumAnalysis, ShortSectionIsPaddedAndSaysSo) {
  const auto spectrum = analysed(mono(test::sine(48000, 1000, 3000, 0.5)), 48000);
  EXPECT_EQ(spectrum.frameCount, 1);
  ASSERT_EQ(spectrum.warnings.size(), 1u);
  EXPECT_TRUE(contains(spectrum.warnings[0], "shorter than one transform of 16384 samples"));
  EXPECT_TRUE(analysed(Audio(1, 16384), 48000).warnings.empty());
}

TEST(SpectrumAnalysis, FramesWithBrokenSamplesAreLeftOut) {
  auto samples = test::sine(48000, 96000, 3000, 0.5);
  samples[50000] = std::numeric_limits<float>::quiet_NaN();
  SpectrumSettings settings = plain;
  settings.fftSize = 4096;
  const auto spectrum = analysed(mono(samples), 48000, settings);
  EXPECT_NEAR(spectrum.averageDB[256], -6.02, 0.01);
  EXPECT_EQ(spectrum.frameCount, (96000 - 4096) / 1024 + 1 - 4);
  ASSERT_EQ(spectrum.warnings.size(), 1u);
  EXPECT_TRUE(contains(spectrum.warnings[0], "4 of 90 frames"));
}

TEST(SpectrumAnalysis, FaultsAreTold) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "two.wav", Audio(2, 48000), 48000, test::floatWAV);
  test::writeAudio(folder / "empty.wav", Audio(1, 0), 48000, test::floatWAV);
  const auto with = [](const std::function<void(SpectrumSettings&)>& change) {
    SpectrumSettings settings = plain;
    change(settings);
    return settings;
  };
  EXPECT_EQ(faultOf(folder / "empty.wav", plain), "it holds no audio");
  EXPECT_EQ(faultOf(folder / "two.wav", with([](auto& s) { s.fromSec = 1; })),
            "the section starts after the end of the file at 1.000 s");
  EXPECT_EQ(faultOf(folder / "two.wav", with([](auto& s) { s.fromSec = 0.5, s.toSec = 0.500001; })),
            "the section holds no sample");
  EXPECT_EQ(faultOf(folder / "two.wav", with([](auto& s) { s.channels = {2}; })),
            "there is no channel 2: it has 2, counted from 0");
  EXPECT_EQ(faultOf(folder / "none.wav", plain), "there is no such file");
  Audio broken(1, 48000);
  for (float& sample : broken.channels[0]) sample = std::numeric_limits<float>::quiet_NaN();
  test::writeAudio(folder / "nan.wav", broken, 48000, test::floatWAV);
  EXPECT_TRUE(contains(faultOf(folder / "nan.wav", plain), "not finite"));
}

TEST(SpectrumAnalysis, EarlyEndIsTold) {
  SpectrumSettings settings = plain;
  settings.toSec = 3;
  const auto spectrum = analysed(Audio(1, 48000), 48000, settings);
  EXPECT_EQ(spectrum.toSec, 1);
  ASSERT_EQ(spectrum.warnings.size(), 1u);
  EXPECT_TRUE(contains(spectrum.warnings[0], "the file ends at 1.000 s"));
}

// A header that promises more than there is.
TEST(SpectrumAnalysis, CutFileEndsWhereItEnds) {
  const TemporaryFolder folder;
  for (const test::FileKind& kind : {test::floatWAV, test::mp3}) {
    const auto path = folder / ("cut." + kind.extension);
    test::writeAudio(path, test::sineAudio(1, 48000, 4, 3000, -6), 48000, kind);
    std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
    SpectrumSettings settings = plain;
    settings.fftSize = 4096;
    const auto spectrum = analysed(path, settings);
    EXPECT_NEAR(spectrum.toSec, 2, 0.1) << kind.extension;
    EXPECT_NEAR(spectrum.averageDB[256], -6, 0.2) << kind.extension;
    EXPECT_FALSE(spectrum.warnings.empty()) << kind.extension;
  }
}

// Of every kind of file, lossy ones and those without a true length among them.
TEST(SpectrumAnalysis, ReadsEveryKindOfFile) {
  const TemporaryFolder folder;
  const Audio audio = test::sineAudio(2, 48000, 2, 3000, -6);
  for (const test::FileKind& kind : test::allKinds()) {
    const auto path = folder / ("audio." + kind.extension);
    test::writeAudio(path, audio, 48000, kind);
    SpectrumSettings settings = plain;
    settings.fftSize = 4096;
    settings.fromSec = 0.5;
    EXPECT_NEAR(analysed(path, settings).peakDB[256], -6, kind.isLossy ? 0.5 : 0.01) << kind.extension;
  }
}

TEST(SpectrumAnalysis, StopsWhenAsked) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "audio.wav", Audio(1, 480000), 48000, test::floatWAV);
  int asked = 0;
  EXPECT_FALSE(
      analyseSpectrum(folder / "audio.wav", plain, [&](const MeasureProgress&) { return ++asked < 5; }));
}

}  // namespace
}  // namespace vellum
