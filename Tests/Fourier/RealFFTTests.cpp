#include "VellumCore/Fourier/RealFFT.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/AllocationCounter.hpp"
#include "Support/Signals.hpp"

namespace vellum {
namespace {

using namespace test;

constexpr std::int64_t sizes[] = {1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 1024, 2048, 4096};

// A few 1e-7 of the largest value: what 32-bit floats leave of an exact transform.
constexpr double accuracy = 5e-7;

struct Spectrum {
  std::vector<float> re, im;

  explicit Spectrum(const RealFFT& fft)
      : re(static_cast<std::size_t>(fft.binCount()), -1.0f),
        im(static_cast<std::size_t>(fft.binCount()), -1.0f) {}
};

Spectrum forward(RealFFT& fft, const std::vector<float>& signal) {
  Spectrum spectrum(fft);
  fft.forward(signal, spectrum.re, spectrum.im);
  return spectrum;
}

std::vector<float> inverse(RealFFT& fft, const Spectrum& spectrum) {
  std::vector<float> signal(static_cast<std::size_t>(fft.size()), -1.0f);
  fft.inverse(spectrum.re, spectrum.im, signal);
  return signal;
}

// e^(-2 pi i m / N) for m = 0 ... N - 1.
std::vector<std::complex<long double>> circle(std::size_t N) {
  std::vector<std::complex<long double>> points(N);
  for (std::size_t m = 0; m < N; ++m)
    points[m] = std::polar(1.0L, -2.0L * std::numbers::pi_v<long double> * static_cast<long double>(m) /
                                     static_cast<long double>(N));
  return points;
}

// X[k] = sum x[n] e^(-2 pi i k n / N) for k = 0 ... N / 2, added up one by one.
std::vector<std::complex<long double>> plainTransform(const std::vector<float>& x) {
  const std::size_t N = x.size();
  const auto points = circle(N);
  std::vector<std::complex<long double>> bins(N / 2 + 1);
  for (std::size_t k = 0; k < bins.size(); ++k)
    for (std::size_t n = 0; n < N; ++n) bins[k] += static_cast<long double>(x[n]) * points[k * n % N];
  return bins;
}

void expectTransformOf(const std::vector<float>& signal, const Spectrum& spectrum) {
  const auto bins = plainTransform(signal);
  long double largest = 0;
  for (const auto& bin : bins) largest = std::max(largest, std::abs(bin));
  const auto tolerance = static_cast<double>(largest) * accuracy;
  const std::size_t N = signal.size();
  for (std::size_t k = 0; k < spectrum.re.size(); ++k) {
    const auto imaginary = k > 0 ? bins[k].imag() : N > 1 ? bins[N / 2].real() : 0.0L;
    ASSERT_NEAR(spectrum.re[k], static_cast<double>(bins[k].real()), tolerance) << "N " << N << " bin " << k;
    ASSERT_NEAR(spectrum.im[k], static_cast<double>(imaginary), tolerance) << "N " << N << " bin " << k;
  }
}

TEST(RealFFT, ForwardEqualsThePlainSumForNoise) {
  std::mt19937 rng(1);
  for (std::int64_t N : sizes) {
    RealFFT fft(N);
    const std::vector<float> signal = noise(rng, N, 1.0);
    expectTransformOf(signal, forward(fft, signal));
  }
}

// An impulse at n has every bin on the unit circle: each twiddle factor stands alone.
TEST(RealFFT, ForwardEqualsThePlainSumForImpulses) {
  for (std::int64_t N : sizes) {
    RealFFT fft(N);
    for (std::int64_t n = 0; n < N; n += std::max<std::int64_t>(1, N / 5)) {
      std::vector<float> signal(static_cast<std::size_t>(N));
      signal[static_cast<std::size_t>(n)] = 1.0f;
      expectTransformOf(signal, forward(fft, signal));
    }
  }
}

TEST(RealFFT, EntryZeroHoldsDCAndNyquist) {
  for (std::int64_t N : sizes) {
    if (N == 1) continue;
    RealFFT fft(N);
    std::vector<float> signal(static_cast<std::size_t>(N));
    for (std::size_t n = 0; n < signal.size(); ++n) signal[n] = 0.5f + (n % 2 == 0 ? 0.25f : -0.25f);
    const Spectrum spectrum = forward(fft, signal);
    const auto scale = static_cast<float>(N);
    EXPECT_EQ(spectrum.re[0], 0.5f * scale) << "N " << N;
    EXPECT_EQ(spectrum.im[0], 0.25f * scale) << "N " << N;
    for (std::size_t k = 1; k < spectrum.re.size(); ++k) {
      EXPECT_NEAR(spectrum.re[k], 0, scale * accuracy) << "N " << N << " bin " << k;
      EXPECT_NEAR(spectrum.im[k], 0, scale * accuracy) << "N " << N << " bin " << k;
    }
  }
}

TEST(RealFFT, CosineIsRealAndSineIsNegativeImaginary) {
  constexpr std::int64_t N = 64, bin = 5;
  RealFFT fft(N);
  const std::vector<float> s = sine(N, N, bin, 1.0), c = sine(N, N, bin, 1.0, std::numbers::pi / 2);
  EXPECT_NEAR(forward(fft, c).re[bin], 32, 32 * accuracy);
  EXPECT_NEAR(forward(fft, c).im[bin], 0, 32 * accuracy);
  EXPECT_NEAR(forward(fft, s).re[bin], 0, 32 * accuracy);
  EXPECT_NEAR(forward(fft, s).im[bin], -32, 32 * accuracy);
}

TEST(RealFFT, InverseOfForwardIsNTimesTheSignal) {
  std::mt19937 rng(2);
  for (std::int64_t N : sizes) {
    RealFFT fft(N);
    const std::vector<float> signal = noise(rng, N, 1.0);
    const std::vector<float> back = inverse(fft, forward(fft, signal));
    for (std::size_t n = 0; n < signal.size(); ++n)
      ASSERT_NEAR(back[n] / static_cast<float>(N), signal[n], 1e-6) << "N " << N << " sample " << n;
  }
}

// x[n] = DC + Nyquist (-1)^n + 2 sum over k of re cos(2 pi k n / N) - im sin(2 pi k n / N), added up plainly.
TEST(RealFFT, InverseEqualsThePlainSum) {
  std::mt19937 rng(3);
  for (std::int64_t size : sizes) {
    if (size > 1024) continue;
    RealFFT fft(size);
    const auto N = static_cast<std::size_t>(size);
    Spectrum spectrum(fft);
    spectrum.re = noise(rng, fft.binCount(), 1.0);
    spectrum.im = noise(rng, fft.binCount(), 1.0);
    const std::vector<float> signal = inverse(fft, spectrum);
    const auto points = circle(N);
    std::vector<long double> expected(N);
    long double largest = 0;
    for (std::size_t n = 0; n < N; ++n) {
      long double sum = spectrum.re[0];
      if (N > 1) sum += n % 2 == 0 ? spectrum.im[0] : -spectrum.im[0];
      for (std::size_t k = 1; k < spectrum.re.size(); ++k) {
        const auto& point = points[k * n % N];
        sum += 2 * (spectrum.re[k] * point.real() + spectrum.im[k] * point.imag());
      }
      expected[n] = sum;
      largest = std::max(largest, std::abs(sum));
    }
    for (std::size_t n = 0; n < N; ++n)
      ASSERT_NEAR(signal[n], static_cast<double>(expected[n]), static_cast<double>(largest) * accuracy)
          << "N " << N << " sample " << n;
  }
}

TEST(RealFFT, SizeOneIsTheSampleItself) {
  RealFFT fft(1);
  EXPECT_EQ(fft.size(), 1);
  EXPECT_EQ(fft.binCount(), 1);
  const Spectrum spectrum = forward(fft, {0.75f});
  EXPECT_EQ(spectrum.re[0], 0.75f);
  EXPECT_EQ(spectrum.im[0], 0.0f);
  EXPECT_EQ(inverse(fft, spectrum), std::vector<float>{0.75f});
}

TEST(RealFFT, SizeTwoIsSumAndDifference) {
  RealFFT fft(2);
  const Spectrum spectrum = forward(fft, {3.0f, 1.0f});
  EXPECT_EQ(spectrum.re, std::vector<float>{4.0f});
  EXPECT_EQ(spectrum.im, std::vector<float>{2.0f});
  EXPECT_EQ(inverse(fft, spectrum), (std::vector<float>{6.0f, 2.0f}));
}

TEST(RealFFT, BinCountIsHalfTheSize) {
  for (std::int64_t N : sizes) {
    RealFFT fft(N);
    EXPECT_EQ(fft.size(), N);
    EXPECT_EQ(fft.binCount(), N > 1 ? N / 2 : 1);
  }
}

TEST(RealFFT, TransformLeavesNothingBehindForTheNext) {
  std::mt19937 rng(4);
  RealFFT fft(256);
  const std::vector<float> first = noise(rng, 256, 1.0), second = noise(rng, 256, 1e6);
  const Spectrum before = forward(fft, first);
  inverse(fft, forward(fft, second));
  const Spectrum after = forward(fft, first);
  EXPECT_EQ(after.re, before.re);
  EXPECT_EQ(after.im, before.im);
}

TEST(RealFFT, MovedTransformWorksOn) {
  std::mt19937 rng(5);
  const std::vector<float> signal = noise(rng, 128, 1.0);
  RealFFT first(128);
  RealFFT second = std::move(first);
  expectTransformOf(signal, forward(second, signal));
  RealFFT third(1);
  third = std::move(second);
  EXPECT_EQ(third.size(), 128);
  expectTransformOf(signal, forward(third, signal));
}

TEST(RealFFT, TransformsAllocateNothing) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "allocations are not counted in this build";
  for (std::int64_t N : sizes) {
    RealFFT fft(N);
    std::vector<float> signal(static_cast<std::size_t>(N), 0.5f);
    Spectrum spectrum(fft);
    const AllocationCounter allocations;
    fft.forward(signal, spectrum.re, spectrum.im);
    fft.inverse(spectrum.re, spectrum.im, signal);
    EXPECT_EQ(allocations.count(), 0) << "N " << N;
  }
}

TEST(RealFFT, SizeMustBeAPowerOfTwoUpTo2ToThe30) {
  for (std::int64_t size :
       {std::int64_t{0}, std::int64_t{-4}, std::numeric_limits<std::int64_t>::min(), std::int64_t{3},
        std::int64_t{4095}, std::int64_t{1} << 31, std::int64_t{1} << 40})
    EXPECT_DEATH(RealFFT{size}, "RealFFT: size must be a power of two") << size;
}

TEST(RealFFT, SpansMustHoldExactlyOneTransform) {
  RealFFT fft(8);
  std::vector<float> three(3), four(4), five(5), seven(7), eight(8), nine(9);
  EXPECT_DEATH(fft.forward(seven, four, four), "RealFFT: forward takes");
  EXPECT_DEATH(fft.forward(nine, four, four), "RealFFT: forward takes");
  EXPECT_DEATH(fft.forward(eight, three, four), "RealFFT: forward takes");
  EXPECT_DEATH(fft.forward(eight, four, five), "RealFFT: forward takes");
  EXPECT_DEATH(fft.inverse(four, four, seven), "RealFFT: inverse takes");
  EXPECT_DEATH(fft.inverse(four, four, nine), "RealFFT: inverse takes");
  EXPECT_DEATH(fft.inverse(five, four, eight), "RealFFT: inverse takes");
  EXPECT_DEATH(fft.inverse(four, three, eight), "RealFFT: inverse takes");
}

}  // namespace
}  // namespace vellum
