// What stands in the spectrum of the band-limited shapes, at many rates and frequencies: the harmonics below
// half the sample rate, and nothing else.

#include <cmath>
#include <complex>
#include <cstdint>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Support/GeneratorModules.hpp"
#include "VellumCore/SignalGenerator.hpp"

namespace vellum {
namespace {

using namespace test;
using Source = GeneratorSource;
using Bins = std::vector<std::complex<double>>;

constexpr std::size_t frame =
    1 << 15;  // a power of two, and whole periods of every fundamental: no window needed
constexpr double rates[] = {8000, 44100, 48000, 88200, 96000, 192000};
constexpr double floorDB = -110;

// The transform of a power of two of values, halved until one is left.
Bins transformOf(const Bins& x) {
  const std::size_t n = x.size();
  if (n == 1) return x;
  Bins even, odd;
  for (std::size_t i = 0; i < n; i += 2) {
    even.push_back(x[i]);
    odd.push_back(x[i + 1]);
  }
  even = transformOf(even);
  odd = transformOf(odd);
  Bins result(n);
  for (std::size_t k = 0; k < n / 2; ++k) {
    const double angle = -2 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(n);
    const std::complex<double> turned = std::polar(1.0, angle) * odd[k];
    result[k] = even[k] + turned;
    result[k + n / 2] = even[k] - turned;
  }
  return result;
}

// Amplitudes of the sines of each bin.
std::vector<double> amplitudesOf(const std::vector<float>& x) {
  const Bins bins = transformOf(Bins(x.begin(), x.end()));
  const auto n = static_cast<double>(x.size());
  std::vector<double> amplitudes;
  for (std::size_t k = 0; k <= x.size() / 2; ++k)
    amplitudes.push_back(std::abs(bins[k]) * (k == 0 || k == x.size() / 2 ? 1 : 2) / n);
  return amplitudes;
}

double levelOf(double amplitude) {
  return 20 * std::log10(amplitude);
}

// The amplitude of a shape's h-th harmonic beside the first.
double partOf(Waveform waveform, std::size_t h) {
  const auto order = static_cast<double>(h);
  if (waveform == Waveform::sawtooth) return 1 / order;
  if (h % 2 == 0) return 0;
  return waveform == Waveform::square ? 1 / order : 1 / (order * order);
}

Source sourceOf(Waveform waveform, double frequency) {
  if (waveform == Waveform::sawtooth) return {Source::Sawtooth{frequency}};
  if (waveform == Waveform::square) return {Source::Square{frequency}};
  return {Source::Triangle{frequency}};
}

// The bin in which a frequency of so many bins, of any size, shows when it is sampled.
std::size_t aliasOf(std::size_t bins) {
  const std::size_t within = bins % frame;
  return within <= frame / 2 ? within : frame - within;
}

// A module at full scale with its fundamental in this bin holds harmonics up to the cap and nothing else.
void expectHarmonicsOnly(Waveform waveform, double sampleRate, std::size_t fundamental,
                         std::optional<std::int64_t> cap = {}) {
  const double frequency =
      static_cast<double>(fundamental) * sampleRate / static_cast<double>(frame);  // exact
  const auto module =
      moduleOf(sourceOf(waveform, frequency), static_cast<double>(frame) / sampleRate);  // 0 dBFS
  const auto x = SignalGenerator::renderModule(module, sampleRate, 1, cap);
  ASSERT_EQ(x.size(), frame);
  const auto amplitudes = amplitudesOf(x);
  for (std::size_t bin = 0; bin < amplitudes.size(); ++bin) {
    const std::size_t h = bin / fundamental;
    const bool isHarmonic = h >= 1 && bin % fundamental == 0 && bin < frame / 2 && partOf(waveform, h) > 0 &&
                            (!cap || h <= static_cast<std::size_t>(*cap));
    if (isHarmonic)
      ASSERT_NEAR(amplitudes[bin], amplitudes[fundamental] * partOf(waveform, h), 3e-7)
          << "harmonic " << h << " of bin " << fundamental << " at " << sampleRate << " Hz";
    else
      ASSERT_LT(levelOf(amplitudes[bin]), floorDB)
          << "bin " << bin << " beside those of bin " << fundamental << " at " << sampleRate << " Hz";
  }
}

// Fundamentals from 0.24 to 40960 bins per rate in 8000: primes, whose harmonics beyond half the rate fold to
// bins between the true ones, even ones, and those that have a harmonic exactly at half the rate.
constexpr std::size_t fundamentals[] = {1, 13, 64, 101, 300, 509, 1024, 2731, 4096, 5461, 8191, 8192, 16383};

TEST(SignalSpectrum, ASawtoothHoldsEveryHarmonicBelowHalfTheRateAndNothingElse) {
  for (const double sampleRate : rates)
    for (const std::size_t fundamental : fundamentals)
      expectHarmonicsOnly(Waveform::sawtooth, sampleRate, fundamental);
}

TEST(SignalSpectrum, ASquareHoldsTheOddHarmonicsBelowHalfTheRateAndNothingElse) {
  for (const double sampleRate : rates)
    for (const std::size_t fundamental : fundamentals)
      expectHarmonicsOnly(Waveform::square, sampleRate, fundamental);
}

TEST(SignalSpectrum, ATriangleHoldsTheOddHarmonicsBelowHalfTheRateAndNothingElse) {
  for (const double sampleRate : rates)
    for (const std::size_t fundamental : fundamentals)
      expectHarmonicsOnly(Waveform::triangle, sampleRate, fundamental);
}

TEST(SignalSpectrum, ACapLeavesOutTheHarmonicsAboveIt) {
  for (const Waveform waveform : {Waveform::sawtooth, Waveform::square, Waveform::triangle})
    for (const std::int64_t cap : {1, 2, 7, 40, 161}) expectHarmonicsOnly(waveform, 48000, 101, cap);
}

// The frequencies above are worth testing: where a shape is not band-limited, what folds back falls between
// its harmonics, and the transform shows it.
TEST(SignalSpectrum, HarmonicsThatWereNotLeftOutWouldShowBetweenTheOthers) {
  for (const std::size_t fundamental : {101u, 509u, 5461u, 8191u}) {
    std::vector<float> x(frame);  // two values, whatever their period
    for (std::size_t n = 0; n < frame; ++n) x[n] = n * fundamental % frame < frame / 2 ? 1.0f : -1.0f;
    const auto amplitudes = amplitudesOf(x);
    std::size_t beyond = 1;  // the first odd harmonic above half the rate
    while (beyond * fundamental < frame / 2) beyond += 2;
    const std::size_t alias = aliasOf(beyond * fundamental);
    EXPECT_NE(alias % fundamental, 0u);
    EXPECT_GT(levelOf(amplitudes[alias]), -60) << fundamental;
  }
}

TEST(SignalSpectrum, TheTransformSeesWhatStandsJustAboveTheFloor) {
  std::vector<float> x(frame);
  for (std::size_t n = 0; n < frame; ++n) {
    const double angle = 2 * std::numbers::pi * static_cast<double>(n) / static_cast<double>(frame);
    x[n] =
        static_cast<float>(0.9 * std::sin(1000 * angle) + std::pow(10, -109.0 / 20) * std::cos(1003 * angle));
  }
  const auto amplitudes = amplitudesOf(x);
  EXPECT_NEAR(levelOf(amplitudes[1003]), -109, 0.01);
  EXPECT_NEAR(amplitudes[1000], 0.9, 1e-8);
  EXPECT_LT(levelOf(amplitudes[1001]), -150);
}

}  // namespace
}  // namespace vellum
