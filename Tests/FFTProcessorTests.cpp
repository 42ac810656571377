#include "VellumCore/FFTProcessor.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <numbers>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Support/AllocationCounter.hpp"
#include "Support/Signals.hpp"
#include "VellumCore/Support/PowerOfTwo.hpp"

namespace vellum {
namespace {

using namespace test;
using Int64 = std::numeric_limits<std::int64_t>;

std::vector<float> processed(FFTProcessor& processor, const std::vector<float>& samples) {
  const auto view = processor.process(samples.data(), static_cast<std::int64_t>(samples.size()));
  return {view.begin(), view.end()};
}

std::vector<float> rawOf(FFTProcessor& processor, const std::vector<float>& samples) {
  processed(processor, samples);
  return {processor.rawMagnitudes().begin(), processor.rawMagnitudes().end()};
}

// The levels of a frame from the defining sums in long double, bin 0 with the Nyquist bin in it.
std::vector<double> plainLevels(const std::vector<float>& samples, std::size_t N, FFTWindowType type) {
  const long double coefficients[5][5] = {
      {0.5L, -0.5L, 0, 0, 0},
      {0.54L, -0.46L, 0, 0, 0},
      {0.42L, -0.5L, 0.08L, 0, 0},
      {0.35875L, -0.48829L, 0.14128L, -0.01168L, 0},
      {0.21557894L, -0.41663158L, 0.27726316L, -0.083578944L, 0.006947368L},
  };
  std::vector<std::complex<long double>> turns(N);
  for (std::size_t i = 0; i < N; ++i)
    turns[i] = std::polar(1.0L, -2 * std::numbers::pi_v<long double> * static_cast<long double>(i) /
                                    static_cast<long double>(N));
  std::vector<long double> windowed(N);
  long double sum = 0;
  for (std::size_t i = 0; i < N; ++i) {
    long double w = 0;
    for (std::size_t k = 0; k < 5; ++k)
      w += coefficients[static_cast<std::size_t>(type)][k] * turns[k * i % N].real();
    sum += w;
    windowed[i] = i < samples.size() ? w * samples[i] : 0;
  }
  const auto magnitude = [&](std::size_t k) {
    std::complex<long double> X = 0;
    for (std::size_t i = 0; i < N; ++i) X += windowed[i] * turns[k * i % N];
    return 2 * std::abs(X) / sum;
  };
  std::vector<double> levels;
  for (std::size_t k = 0; k < N / 2; ++k) {
    const long double m = k == 0 ? std::hypot(magnitude(0), magnitude(N / 2)) : magnitude(k);
    levels.push_back(static_cast<double>(20 * std::log10(std::max(m, 1e-8L))));
  }
  return levels;
}

TEST(FFTProcessor, AgreesWithADirectTransform) {
  std::mt19937 rng(1);
  for (const FFTWindowType type : allCases<FFTWindowType>())
    for (const std::int64_t size : {2, 4, 64, 1024}) {
      FFTProcessor processor(size, 48000, type);
      ASSERT_EQ(processor.binCount(), size / 2);
      for (const double amplitude : {1.0, 1e-4, 1e6}) {
        // Noise around a sine; the shortest sizes have a bin or two.
        auto samples = noise(rng, size, amplitude);
        const auto tone = sine(48000, size, 5000, amplitude);
        for (std::size_t i = 0; i < tone.size(); ++i) samples[i] += tone[i];
        const auto expected = plainLevels(samples, static_cast<std::size_t>(size), type);
        const auto raw = rawOf(processor, samples);
        const double peak = *std::max_element(expected.begin(), expected.end());
        for (std::size_t k = 0; k < raw.size(); ++k) {
          // An error of 32-bit transforms is a share of the largest bin.
          const double error = 20 * std::log10(1 + 1e-6 * std::pow(10, (peak - expected[k]) / 20)) + 2e-5;
          ASSERT_NEAR(raw[k], expected[k], error) << rawValue(type) << ' ' << size << ", bin " << k;
        }
      }
    }
}

TEST(FFTProcessor, FullScaleSineOnABinReadsZero) {
  for (const FFTWindowType type : allCases<FFTWindowType>())
    for (std::int64_t size = 64; size <= 65536; size *= 2) {
      FFTProcessor processor(size, static_cast<double>(size), type);
      for (const std::int64_t bin : {size / 4 - 3, size / 8 + 1}) {
        const auto raw =
            rawOf(processor, sine(static_cast<double>(size), size, static_cast<double>(bin), 1, 0.3));
        EXPECT_NEAR(raw[static_cast<std::size_t>(bin)], 0, 1e-4) << rawValue(type) << ' ' << size;
      }
    }
}

TEST(FFTProcessor, SilenceMovesTheSmoothedSpectrumTowardsTheFloor) {
  FFTProcessor processor(1024, 48000, FFTWindowType::hann);
  for (const float level : processor.smoothedMagnitudes()) ASSERT_EQ(level, -100.0f);
  for (const float level : processor.rawMagnitudes()) ASSERT_EQ(level, -100.0f);
  const std::vector<float> silence(1024);
  double expected = -100;
  for (int call = 0; call < 5; ++call) {
    expected += 0.4 * (-160 - expected);
    const auto smoothed = processed(processor, silence);
    for (const float level : processor.rawMagnitudes()) ASSERT_NEAR(level, -160, 2e-5);
    for (const float level : smoothed) ASSERT_NEAR(level, expected, 1e-4);
  }
}

TEST(FFTProcessor, SmoothingIsOfDecibels) {
  FFTProcessor processor(64, 48000, FFTWindowType::hann);
  processor.smoothingFactor = 0.25f;
  std::mt19937 rng(2);
  std::vector<double> expected(32, -100);
  for (int call = 0; call < 4; ++call) {
    const auto smoothed = processed(processor, noise(rng, 64, call % 2 ? 1e-3 : 1));
    for (std::size_t k = 0; k < 32; ++k) {
      expected[k] = 0.25 * expected[k] + 0.75 * processor.rawMagnitudes()[k];
      ASSERT_NEAR(smoothed[k], expected[k], 1e-4);
    }
  }
  processor.smoothingFactor = 0;
  const auto unsmoothed = processed(processor, noise(rng, 64, 1));
  EXPECT_TRUE(std::equal(unsmoothed.begin(), unsmoothed.end(), processor.rawMagnitudes().begin()));
}

TEST(FFTProcessor, ReturnsAViewOfItsOwnMemory) {
  FFTProcessor processor(64, 48000, FFTWindowType::hann);
  const std::vector<float> samples(64, 0.5f);
  const auto view = processor.process(samples.data(), 64);
  EXPECT_EQ(view.data(), processor.smoothedMagnitudes().data());
  EXPECT_EQ(view.size(), 32u);
}

TEST(FFTProcessor, ShortFrameIsPaddedAndALongOneCut) {
  std::mt19937 rng(3);
  const auto samples = noise(rng, 2000, 1);
  std::vector<float> padded(samples.begin(), samples.begin() + 100);
  padded.resize(1024);
  FFTProcessor processor(1024, 48000, FFTWindowType::blackman);
  processor.process(samples.data(), 2000);  // leaves nothing behind that the short frame would show
  const auto whole = std::vector<float>(processor.rawMagnitudes().begin(), processor.rawMagnitudes().end());
  processor.process(samples.data(), 100);
  const std::vector<float> shortFrame(processor.rawMagnitudes().begin(), processor.rawMagnitudes().end());
  EXPECT_EQ(shortFrame, rawOf(processor, padded));
  EXPECT_EQ(whole, rawOf(processor, std::vector<float>(samples.begin(), samples.begin() + 1024)));
  processor.process(nullptr, 0);
  for (const float level : processor.rawMagnitudes()) ASSERT_NEAR(level, -160, 2e-5);
}

TEST(FFTProcessor, OnlyAnotherWindowTypeRestarts) {
  std::mt19937 rng(4);
  const auto samples = noise(rng, 256, 1);
  FFTProcessor processor(256, 48000, FFTWindowType::hann);
  const auto smoothed = processed(processor, samples);
  const auto raw = rawOf(processor, samples);
  const std::vector<float> before(processor.smoothedMagnitudes().begin(),
                                  processor.smoothedMagnitudes().end());
  EXPECT_NE(before, smoothed);

  processor.setWindowType(FFTWindowType::hann);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), processor.smoothedMagnitudes().begin()));

  processor.setWindowType(FFTWindowType::flatTop);
  EXPECT_EQ(processor.currentWindowType(), FFTWindowType::flatTop);
  for (const float level : processor.smoothedMagnitudes()) ASSERT_EQ(level, -100.0f);
  EXPECT_TRUE(std::equal(raw.begin(), raw.end(), processor.rawMagnitudes().begin()));

  FFTProcessor fresh(256, 48000, FFTWindowType::flatTop);
  EXPECT_EQ(processed(processor, samples), processed(fresh, samples));
}

TEST(FFTProcessor, OffsetAndNyquistShareBinZero) {
  FFTProcessor processor(256, 48000, FFTWindowType::hann);
  std::vector<float> offset(256, 0.3f), alternating(256), both(256);
  for (std::size_t i = 0; i < 256; ++i) {
    alternating[i] = i % 2 ? -0.4f : 0.4f;
    both[i] = offset[i] + alternating[i];
  }
  // Twice the amplitude of each, and the root of the sum of squares of both: 2 x 0.5.
  EXPECT_NEAR(rawOf(processor, offset)[0], 20 * std::log10(0.6), 1e-4);
  EXPECT_NEAR(rawOf(processor, alternating)[0], 20 * std::log10(0.8), 1e-4);
  EXPECT_NEAR(rawOf(processor, both)[0], 0, 1e-4);
}

TEST(FFTProcessor, ConvertsBinsAndFrequencies) {
  const FFTProcessor processor(1024, 48000, FFTWindowType::hann);
  EXPECT_EQ(processor.sampleRate(), 48000);
  EXPECT_EQ(processor.frequency(0), 0);
  EXPECT_EQ(processor.frequency(3), 140.625);
  EXPECT_EQ(processor.frequency(-1), -46.875);
  EXPECT_EQ(processor.bin(0), 0);
  EXPECT_EQ(processor.bin(140.625), 3);
  EXPECT_EQ(processor.bin(187.4), 3);
  EXPECT_EQ(processor.bin(24000), 511);
  EXPECT_EQ(processor.bin(1e300), 511);
  EXPECT_EQ(processor.bin(-140.625), -3);
  EXPECT_EQ(processor.bin(-140), -2);  // towards zero
  EXPECT_DEATH(processor.bin(std::numeric_limits<double>::quiet_NaN()), "FFTProcessor: a frequency");
  EXPECT_DEATH(processor.bin(-1e300), "FFTProcessor: a frequency");
}

TEST(FFTProcessor, SizeIsAPowerOfTwo) {
  for (const std::int64_t size : {std::int64_t{0}, std::int64_t{-1024}, std::int64_t{1000}, Int64::min()})
    EXPECT_DEATH(FFTProcessor(size, 48000, FFTWindowType::hann), "FFTProcessor: fftSize");
  EXPECT_DEATH(FFTProcessor(std::int64_t{1} << 40, 48000, FFTWindowType::hann), "VellumCore stopped");
  FFTProcessor smallest(1, 48000, FFTWindowType::hamming);
  EXPECT_TRUE(processed(smallest, {0.5f}).empty());
}

TEST(PowerOfTwo, IsPositive) {
  EXPECT_TRUE(isPowerOfTwo(1) && isPowerOfTwo(2) && isPowerOfTwo(4096) &&
              isPowerOfTwo(std::int64_t{1} << 62));
  EXPECT_FALSE(isPowerOfTwo(0) || isPowerOfTwo(-2) || isPowerOfTwo(3) || isPowerOfTwo(Int64::min()) ||
               isPowerOfTwo(Int64::max()));
}

TEST(FFTProcessor, BrokenSamplesLeaveTheDisplayAlive) {
  FFTProcessor processor(64, 48000, FFTWindowType::hann);
  std::vector<float> samples(64, 0.5f);
  samples[20] = std::numeric_limits<float>::quiet_NaN();
  for (const float level : rawOf(processor, samples)) ASSERT_NEAR(level, -160, 2e-5);
  for (const float level : processor.smoothedMagnitudes()) ASSERT_TRUE(std::isfinite(level));
}

TEST(FFTProcessor, HugeAndTinySamplesKeepTheirLevels) {
  for (const double amplitude : {1e30, 1e-7}) {
    FFTProcessor processor(64, 64, FFTWindowType::hann);
    const auto raw = rawOf(processor, sine(64, 64, 9, amplitude));
    EXPECT_NEAR(raw[9], 20 * std::log10(amplitude), 1e-3);
  }
}

TEST(FFTProcessor, ProcessAllocatesNothing) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "not under a sanitizer";
  FFTProcessor processor(4096, 48000, FFTWindowType::hann);
  const std::vector<float> samples(4096, 0.1f);
  const AllocationCounter counter;
  processor.process(samples.data(), 4096);
  processor.process(samples.data(), 17);
  processor.setWindowType(FFTWindowType::flatTop);
  processor.process(samples.data(), 4096);
  EXPECT_EQ(counter.count(), 0);
}

}  // namespace
}  // namespace vellum
