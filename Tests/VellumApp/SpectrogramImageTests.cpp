#include "VellumApp/SpectrogramImage.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Support/AudioFiles.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "VellumCore/PowerSpectrum.hpp"

namespace vellum {
namespace {

using test::Audio;
using test::TemporaryFolder;

bool always(const MeasureProgress&) {
  return true;
}

SpectrogramSettings settingsOf(std::int64_t width, std::int64_t height, FrequencyScale scale,
                               std::int64_t fftSize) {
  return {.fromSec = {},
          .toSec = {},
          .scale = scale,
          .fftSize = fftSize,
          .channels = {},
          .width = width,
          .height = height};
}

SpectrogramImage rendered(const Audio& audio, int sampleRate, const SpectrogramSettings& settings) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "audio.wav", audio, sampleRate, test::floatWAV);
  return renderSpectrogram(folder / "audio.wav", settings, always).value();
}

Audio mono(std::vector<float> samples) {
  Audio audio;
  audio.channels.push_back(std::move(samples));
  return audio;
}

// The levels of the frame around a sample, from the whole file in memory.
std::vector<double> frameLevels(const Audio& audio, std::int64_t middle, std::int64_t fftSize) {
  PowerSpectrum spectrum(fftSize, FFTWindowType::hann);
  std::vector<double> power(static_cast<std::size_t>(fftSize / 2 + 1));
  for (const auto& channel : audio.channels) {
    std::vector<float> frame(static_cast<std::size_t>(fftSize));
    for (std::int64_t n = 0; n < fftSize; ++n) {
      const std::int64_t at = middle - fftSize / 2 + n;
      if (at >= 0 && at < audio.frameCount())
        frame[static_cast<std::size_t>(n)] = channel[static_cast<std::size_t>(at)];
    }
    const auto own = spectrum.process(frame.data(), fftSize);
    for (std::size_t k = 0; k < power.size(); ++k)
      power[k] += own[k] / static_cast<double>(audio.channels.size());
  }
  for (double& value : power) value = 10 * std::log10(std::max(value, 1e-20));
  return power;
}

// Every point once more, each from frames and bins of its own.
void expectPlainPicture(const Audio& audio, double sampleRate, const SpectrogramSettings& settings,
                        const SpectrogramImage& image) {
  const auto from = static_cast<std::int64_t>(std::llround(settings.fromSec.value_or(0) * sampleRate));
  const std::int64_t to = settings.toSec
                              ? static_cast<std::int64_t>(std::llround(*settings.toSec * sampleRate))
                              : audio.frameCount();
  const std::int64_t fftSize = *settings.fftSize, length = to - from;
  const std::int64_t hop = std::clamp<std::int64_t>(length / settings.width, 1, fftSize / 4);
  const std::int64_t frames = (length + hop - 1) / hop;
  const double lowHz = settings.scale == FrequencyScale::log ? 20 : 0, highHz = sampleRate / 2;
  const auto frequencyAt = [&](double row) {
    const double share = 1 - row / static_cast<double>(settings.height);
    return settings.scale == FrequencyScale::log ? lowHz * std::pow(highHz / lowHz, share) : share * highHz;
  };
  const double binHz = sampleRate / static_cast<double>(fftSize);

  for (std::int64_t x = 0; x < settings.width; ++x) {
    std::vector<double> highest(static_cast<std::size_t>(fftSize / 2 + 1), -1e9);
    const std::int64_t first = x * frames / settings.width;
    const std::int64_t end = std::max(first + 1, (x + 1) * frames / settings.width);
    for (std::int64_t k = first; k < end; ++k) {
      const auto levels = frameLevels(audio, from + k * hop + hop / 2, fftSize);
      for (std::size_t b = 0; b < levels.size(); ++b) highest[b] = std::max(highest[b], levels[b]);
    }
    for (std::int64_t y = 0; y < settings.height; ++y) {
      const double top = frequencyAt(static_cast<double>(y)),
                   bottom = frequencyAt(static_cast<double>(y + 1));
      double expected = -1e9;
      for (std::size_t b = 0; b < highest.size(); ++b) {
        const double hz = static_cast<double>(b) * binHz;
        if (hz >= bottom && (hz < top || y == 0)) expected = std::max(expected, highest[b]);
      }
      if (expected == -1e9) {
        const double bin = frequencyAt(static_cast<double>(y) + 0.5) / binHz;
        const auto below = static_cast<std::size_t>(bin);
        expected = std::lerp(highest[below], highest[below + 1], bin - std::floor(bin));
      }
      ASSERT_NEAR(image.level(x, y), expected, 1e-3) << x << ", " << y;
    }
  }
}

TEST(SpectrogramImage, EveryPointIsTheHighestLevelThatItStandsFor) {
  std::mt19937 rng(3);
  const Audio audio = test::noiseAudio(rng, 2, 20000, 0.5);
  for (const FrequencyScale scale : allCases<FrequencyScale>()) {
    // More frames than columns, as many, fewer; more rows than bins, and fewer.
    for (const auto& [width, height, fftSize] :
         {std::tuple{13, 40, 512}, {78, 300, 512}, {300, 17, 64}, {7, 500, 1024}}) {
      const auto settings = settingsOf(width, height, scale, fftSize);
      expectPlainPicture(audio, 44100, settings, rendered(audio, 44100, settings));
    }
    auto section = settingsOf(50, 30, scale, 1024);
    section.fromSec = 0.1;
    section.toSec = 0.2;
    expectPlainPicture(audio, 44100, section, rendered(audio, 44100, section));
    section.fromSec = 0.001;
    section.toSec = 0.0015;  // 22 samples for 50 columns
    expectPlainPicture(audio, 44100, section, rendered(audio, 44100, section));
  }
}

// 50 ms in a minute, drawn over 100 columns of 0.6 s each.
TEST(SpectrogramImage, ShortToneKeepsItsLevelInALongFile) {
  std::vector<float> samples(60 * 8000);
  const auto tone = test::sine(8000, 400, 1000, 0.5);
  std::copy(tone.begin(), tone.end(), samples.begin() + 30 * 8000 + 1000);
  const auto image = rendered(mono(samples), 8000, settingsOf(100, 80, FrequencyScale::linear, 256));
  // 80 rows of 50 Hz: 1,000 Hz lies at the lower edge of row 59.
  EXPECT_NEAR(image.level(50, 59), -6.02, 0.3);
  EXPECT_EQ(image.level(49, 59), -200);
  EXPECT_EQ(image.level(51, 59), -200);
}

TEST(SpectrogramImage, SizesFollowTheSampleRate) {
  EXPECT_EQ(spectrogramFFTSize(48000), 2048);
  EXPECT_EQ(spectrogramFFTSize(16000), 1024);
  EXPECT_EQ(spectrogramFFTSize(192000), 8192);
  auto settings = settingsOf(10, 10, FrequencyScale::log, 0);
  settings.fftSize = {};
  const auto image = rendered(Audio(1, 8000), 8000, settings);
  EXPECT_EQ(image.fftSize, 512);
  EXPECT_EQ(image.axis.lowHz, 20);
  EXPECT_EQ(image.axis.highHz, 4000);
}

TEST(SpectrogramImage, AxisGoesThereAndBack) {
  for (const FrequencyScale scale : allCases<FrequencyScale>()) {
    const FrequencyAxis axis = frequencyAxisOf(scale, 48000);
    EXPECT_NEAR(axis.positionOf(axis.lowHz), 0, 1e-12);
    EXPECT_NEAR(axis.positionOf(24000), 1, 1e-12);
    for (const double hz : {25.0, 440.0, 10000.0})
      EXPECT_NEAR(axis.frequencyAt(axis.positionOf(hz)), hz, 1e-9 * hz);
    EXPECT_TRUE(std::isfinite(axis.positionOf(0)));
  }
  EXPECT_LT(frequencyAxisOf(FrequencyScale::log, 5).lowHz, 2.5);
}

TEST(SpectrogramImage, BrokenSamplesSpoilTheirFramesOnly) {
  auto samples = test::sine(8000, 16000, 1000, 0.5);
  samples[8000] = std::numeric_limits<float>::infinity();
  const auto image = rendered(mono(samples), 8000, settingsOf(100, 80, FrequencyScale::linear, 256));
  EXPECT_EQ(image.level(50, 59), -200);
  EXPECT_NEAR(image.level(47, 59), -6.02, 0.3);
  EXPECT_NEAR(image.level(53, 59), -6.02, 0.3);
  ASSERT_EQ(image.warnings.size(), 1u);
}

}  // namespace
}  // namespace vellum
