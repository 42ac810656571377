#include "VellumCore/PowerSpectrum.hpp"

#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Support/AllocationCounter.hpp"
#include "Support/Signals.hpp"

namespace vellum {
namespace {

using namespace test;

TEST(PowerSpectrum, SineOffsetAndNyquistReadTheirAmplitudes) {
  for (const FFTWindowType type : allCases<FFTWindowType>()) {
    PowerSpectrum spectrum(64, type);
    ASSERT_EQ(spectrum.binCount(), 33);
    auto samples = sine(64, 64, 16, 0.5, 0.7);
    for (std::size_t i = 0; i < 64; ++i) samples[i] += 0.25f + (i % 2 ? -0.125f : 0.125f);
    const auto power = spectrum.process(samples.data(), 64);
    ASSERT_EQ(power.size(), 33u);
    EXPECT_NEAR(power[0], 0.0625, 1e-6) << rawValue(type);
    EXPECT_NEAR(power[16], 0.25, 1e-6) << rawValue(type);
    EXPECT_NEAR(power[32], 0.015625, 1e-6) << rawValue(type);
  }
}

// Known in closed form: sum of a_k^2 weighs the cosines of a window by half, a_0 by one.
TEST(PowerSpectrum, NoiseBandwidthIsThatOfTheWindow) {
  const double expected[] = {
      1.5, (0.54 * 0.54 + 0.46 * 0.46 / 2) / (0.54 * 0.54),
      (0.42 * 0.42 + (0.25 + 0.0064) / 2) / (0.42 * 0.42),
      (0.35875 * 0.35875 + (0.48829 * 0.48829 + 0.14128 * 0.14128 + 0.01168 * 0.01168) / 2) /
          (0.35875 * 0.35875),
      (0.21557894 * 0.21557894 + (0.41663158 * 0.41663158 + 0.27726316 * 0.27726316 +
                                  0.083578944 * 0.083578944 + 0.006947368 * 0.006947368) /
                                     2) /
          (0.21557894 * 0.21557894)};
  for (std::size_t t = 0; t < 5; ++t)
    EXPECT_NEAR(PowerSpectrum(1024, allCases<FFTWindowType>()[t]).noiseBandwidth(), expected[t], 1e-6);
}

// White noise of variance s^2 is a sine's power 2 s^2, whatever the window spreads.
TEST(PowerSpectrum, BandPowerOfNoiseIsItsVariance) {
  std::mt19937 rng(8);
  for (const FFTWindowType type : allCases<FFTWindowType>()) {
    PowerSpectrum spectrum(1024, type);
    double total = 0;
    constexpr int frames = 200;
    for (int frame = 0; frame < frames; ++frame) {
      const auto samples = noise(rng, 1024, 1);  // uniform: variance 1 / 3
      const auto power = spectrum.process(samples.data(), 1024);
      total += std::accumulate(power.begin() + 1, power.end() - 1, 0.0) / spectrum.noiseBandwidth();
    }
    EXPECT_NEAR(10 * std::log10(total / frames), 10 * std::log10(2.0 / 3), 0.1) << rawValue(type);
  }
}

TEST(PowerSpectrum, ProcessAllocatesNothing) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "not under a sanitizer";
  PowerSpectrum spectrum(1024, FFTWindowType::hann);
  const std::vector<float> samples(1024, 0.1f);
  const AllocationCounter counter;
  spectrum.process(samples.data(), 1024);
  spectrum.process(samples.data(), 5);
  EXPECT_EQ(counter.count(), 0);
}

TEST(PowerSpectrum, SizeIsAPowerOfTwo) {
  EXPECT_DEATH(PowerSpectrum(1000, FFTWindowType::hann), "PowerSpectrum: fftSize");
  EXPECT_DEATH(PowerSpectrum(0, FFTWindowType::hann), "PowerSpectrum: fftSize");
  PowerSpectrum one(1, FFTWindowType::hamming);
  const float sample = 0.5f;
  EXPECT_EQ(one.process(&sample, 1).size(), 1u);
  EXPECT_NEAR(one.process(&sample, 1)[0], 0.25, 1e-6);
}

}  // namespace
}  // namespace vellum
