#include "VellumCore/SumOfSquares.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "Support/AllocationCounter.hpp"
#include "Support/Signals.hpp"
#include "VellumCore/Kernels/Kernels.hpp"

namespace vellum {
namespace {

using namespace test;

// Magnitudes over the whole range of 32 bits, so that every change of order shows in the last bits.
std::vector<float> wideSamples(std::mt19937& rng, std::int64_t n) {
  std::vector<float> samples(static_cast<std::size_t>(n));
  for (float& x : samples) {
    do x = std::bit_cast<float>(static_cast<std::uint32_t>(rng()));
    while (!std::isfinite(x));
    if (rng() % 2) x = static_cast<float>(uniform(rng, -1, 1));
  }
  return samples;
}

SumOfSquares sumInPieces(const std::vector<float>& samples, const std::vector<std::int64_t>& splits) {
  SumOfSquares sum;
  const float* x = samples.data();
  for (const std::int64_t n : splits) {
    sum.add(x, n);
    x += n;
  }
  return sum;
}

TEST(SumOfSquares, AnyLengthInOnePieceIsWhatTheKernelMakesOfIt) {
  std::mt19937 rng(1);
  for (std::int64_t n = 0; n <= 100; ++n) {
    const auto samples = wideSamples(rng, n);
    EXPECT_EQ(sumInPieces(samples, {n}).value(), kernels().sumOfSquares(samples.data(), n)) << n;
  }
}

TEST(SumOfSquares, AnySplitGivesTheBitsOfTheWhole) {
  std::mt19937 rng(2);
  for (int trial = 0; trial < 200; ++trial) {
    const auto samples = wideSamples(rng, 1 + static_cast<std::int64_t>(rng() % 5000));
    const auto n = static_cast<std::int64_t>(samples.size());
    EXPECT_EQ(sumInPieces(samples, randomSplits(rng, n)).value(), kernels().sumOfSquares(samples.data(), n));
  }
}

TEST(SumOfSquares, SilenceIsSamplesOfZero) {
  std::mt19937 rng(3);
  for (int trial = 0; trial < 100; ++trial) {
    const auto before = wideSamples(rng, static_cast<std::int64_t>(rng() % 40));
    const auto after = wideSamples(rng, static_cast<std::int64_t>(rng() % 40));
    const std::size_t silence = rng() % 40;
    SumOfSquares skipped;
    skipped.add(before.data(), static_cast<std::int64_t>(before.size()));
    skipped.addSilence(static_cast<std::int64_t>(silence));
    skipped.add(after.data(), static_cast<std::int64_t>(after.size()));
    auto all = before;
    all.insert(all.end(), silence, 0.0f);
    all.insert(all.end(), after.begin(), after.end());
    EXPECT_EQ(skipped.value(), kernels().sumOfSquares(all.data(), static_cast<std::int64_t>(all.size())));
  }
}

TEST(SumOfSquares, IsExactToSixtyFourBitRounding) {
  std::mt19937 rng(4);
  const auto samples = noise(rng, 100'000, 1.0);
  long double exact = 0;
  for (const float x : samples) exact += static_cast<long double>(x) * static_cast<long double>(x);
  const double sum = sumInPieces(samples, equalSplits(100'000, 777)).value();
  EXPECT_NEAR(sum / static_cast<double>(exact), 1.0, 1e-13);
}

TEST(SumOfSquares, LargestSamplesDoNotOverflowAndANaNStays) {
  constexpr float largest = std::numeric_limits<float>::max();
  const std::vector<float> loud(40, largest);
  EXPECT_EQ(sumInPieces(loud, {40}).value(), 40.0 * (double{largest} * double{largest}));
  std::vector<float> samples(40);
  samples[17] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_TRUE(std::isnan(sumInPieces(samples, {3, 20, 17}).value()));
}

TEST(SumOfSquares, AddingAllocatesNothing) {
  if (!AllocationCounter::isAvailable) GTEST_SKIP() << "a sanitizer owns the allocator";
  const std::vector<float> samples(1000, 0.5f);
  SumOfSquares sum;
  const AllocationCounter counter;
  for (int k = 0; k < 10; ++k) sum.add(samples.data(), 999);
  EXPECT_EQ(counter.count(), 0);
  EXPECT_EQ(sum.value(), 9990 * 0.25);
}

}  // namespace
}  // namespace vellum
