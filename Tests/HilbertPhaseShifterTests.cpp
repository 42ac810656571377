#include "VellumCore/HilbertPhaseShifter.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>
#include <random>
#include <vector>

#include "Support/AllocationCounter.hpp"
#include "Support/Signals.hpp"

namespace vellum {
namespace {

using std::numbers::pi;

struct Shifted {
  std::vector<float> reference, quadrature;
};

// Every block in arrays of its own length, so that a sanitizer sees what is written behind them.
Shifted shift(HilbertPhaseShifter& shifter, const std::vector<float>& x,
              const std::vector<std::int64_t>& splits) {
  Shifted result;
  std::size_t offset = 0;
  for (const std::int64_t n : splits) {
    const auto size = static_cast<std::size_t>(n);
    const std::vector<float> block(x.begin() + static_cast<std::ptrdiff_t>(offset),
                                   x.begin() + static_cast<std::ptrdiff_t>(offset + size));
    Shifted out{std::vector<float>(size, 7.0f), std::vector<float>(size, 7.0f)};
    shifter.process(block.data(), n, out.reference.data(), out.quadrature.data());
    result.reference.insert(result.reference.end(), out.reference.begin(), out.reference.end());
    result.quadrature.insert(result.quadrature.end(), out.quadrature.begin(), out.quadrature.end());
    offset += size;
  }
  return result;
}

Shifted shift(HilbertPhaseShifter& shifter, const std::vector<float>& x) {
  return shift(shifter, x, {static_cast<std::int64_t>(x.size())});
}

// The definition, sample by sample: a correlation of all taps with the input and the silence before it.
std::vector<long double> plainQuadrature(std::span<const float> coef, const std::vector<float>& x) {
  std::vector<long double> quadrature;
  const auto taps = static_cast<std::int64_t>(coef.size());
  for (std::int64_t i = 0; i < static_cast<std::int64_t>(x.size()); ++i) {
    long double sum = 0;
    for (std::int64_t j = 0; j < taps; ++j)
      if (const std::int64_t at = i + j - (taps - 1); at >= 0)
        sum += static_cast<long double>(coef[static_cast<std::size_t>(j)]) *
               static_cast<long double>(x[static_cast<std::size_t>(at)]);
    quadrature.push_back(sum);
  }
  return quadrature;
}

std::vector<float> plainReference(std::int64_t delay, const std::vector<float>& x) {
  std::vector<float> delayed(static_cast<std::size_t>(delay));
  delayed.insert(delayed.end(), x.begin(), x.end());
  delayed.resize(x.size());
  return delayed;
}

TEST(HilbertPhaseShifter, TapsThatAreNotPositiveAndOddStopTheProgram) {
  for (const std::int64_t taps : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{-101}, std::int64_t{2},
                                  std::int64_t{100}, std::numeric_limits<std::int64_t>::min()})
    EXPECT_DEATH(HilbertPhaseShifter(taps, 64), "HilbertPhaseShifter: taps must be positive and odd") << taps;
}

TEST(HilbertPhaseShifter, SizesThatNoMemoryHoldsStopTheProgram) {
  constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();
  EXPECT_DEATH(HilbertPhaseShifter(101, largest), "too many to be held");
  EXPECT_DEATH(HilbertPhaseShifter(largest, 64), "too many to be held");
}

TEST(HilbertPhaseShifter, TellsItsSizes) {
  const HilbertPhaseShifter shifter(101, 8192);
  EXPECT_EQ(shifter.taps(), 101);
  EXPECT_EQ(shifter.groupDelay(), 50);
  EXPECT_EQ(shifter.maxFrames(), 8192);
  EXPECT_EQ(shifter.coef().size(), 101u);
  EXPECT_EQ(HilbertPhaseShifter(1, 1).groupDelay(), 0);
  EXPECT_EQ(HilbertPhaseShifter(103, 1).groupDelay(), 51);
}

// Centres at even and at odd places: in one of them the taps that are not 0 stand at even indices.
TEST(HilbertPhaseShifter, CoefficientsAreTheIdealTransformerUnderABlackmanWindow) {
  for (const std::int64_t taps : {3, 5, 7, 101, 103, 1001}) {
    const HilbertPhaseShifter shifter(taps, 1);
    for (std::int64_t n = 0; n < taps; ++n) {
      const std::int64_t k = n - (taps - 1) / 2;
      const double turn = 2 * pi * static_cast<double>(n) / static_cast<double>(taps - 1);
      const double window = 0.42 - 0.5 * std::cos(turn) + 0.08 * std::cos(2 * turn);
      const double expected = k % 2 == 0 ? 0.0 : 2 / (pi * static_cast<double>(k)) * window;
      const float actual = shifter.coef()[static_cast<std::size_t>(n)];
      if (k % 2 == 0) {
        EXPECT_EQ(actual, 0.0f) << taps << " " << n;
      } else {  // half a unit of 32 bit, and what 64 bit leaves where the window vanishes
        EXPECT_NEAR(actual, expected, std::abs(expected) * 0x1p-24 + 1e-15) << taps << " " << n;
      }
    }
  }
}

TEST(HilbertPhaseShifter, AnImpulseComesOutLateAndAsTheCoefficientsInCorrelationOrder) {
  HilbertPhaseShifter shifter(101, 256);
  std::vector<float> impulse(256);
  impulse[0] = 1;
  const Shifted out = shift(shifter, impulse);
  for (std::size_t i = 0; i < 256; ++i) {
    EXPECT_EQ(out.reference[i], i == 50 ? 1.0f : 0.0f) << i;
    // At i the impulse stands under the tap 100 - i.
    EXPECT_EQ(out.quadrature[i], i <= 100 ? shifter.coef()[100 - i] : 0.0f) << i;
  }
  EXPECT_LT(out.quadrature[51], 0.0f);  // behind the centre: the negated transform
}

// All lengths around the vectors of the loop, of filters with every remainder.
TEST(HilbertPhaseShifter, EqualsThePlainCorrelationAtEveryLength) {
  std::mt19937 rng(31);
  for (const std::int64_t taps : {1, 3, 5, 7, 9, 33, 101, 103})
    for (std::int64_t n = 1; n <= 140; ++n) {
      HilbertPhaseShifter shifter(taps, 140);
      const std::vector<float> before = test::noise(rng, 140, 1.0), x = test::noise(rng, n, 1.0);
      std::vector<float> all = before;
      all.insert(all.end(), x.begin(), x.end());
      shift(shifter, before);
      const Shifted out = shift(shifter, x);
      const auto expected = plainQuadrature(shifter.coef(), all);
      const auto delayed = plainReference(shifter.groupDelay(), all);
      for (std::size_t i = 0; i < x.size(); ++i) {
        ASSERT_NEAR(out.quadrature[i], static_cast<double>(expected[140 + i]), 1e-6) << taps << " " << n;
        ASSERT_EQ(out.reference[i], delayed[140 + i]) << taps << " " << n << " " << i;
      }
    }
}

TEST(HilbertPhaseShifter, ErrorIsRelativeToTheLargestSample) {
  std::mt19937 rng(32);
  for (const double amplitude : {1e-30, 1e-3, 1e6, 1e30}) {
    HilbertPhaseShifter shifter(101, 4096);
    const std::vector<float> x = test::noise(rng, 4096, amplitude);
    const Shifted out = shift(shifter, x);
    const auto expected = plainQuadrature(shifter.coef(), x);
    for (std::size_t i = 0; i < x.size(); ++i)
      ASSERT_NEAR(out.quadrature[i], static_cast<double>(expected[i]), 1e-6 * amplitude) << amplitude;
  }
}

TEST(HilbertPhaseShifter, AnySplitGivesTheSameSamples) {
  std::mt19937 rng(33);
  const std::vector<float> x = test::noise(rng, 20'000, 1.0);
  HilbertPhaseShifter whole(101, 20'000);
  const Shifted expected = shift(whole, x);
  for (int trial = 0; trial < 10; ++trial) {
    HilbertPhaseShifter shifter(101, 30'000);
    const Shifted out = shift(shifter, x, test::randomSplits(rng, 20'000));
    EXPECT_EQ(out.reference, expected.reference);
    EXPECT_EQ(out.quadrature, expected.quadrature);
  }
  HilbertPhaseShifter single(101, 1);
  const Shifted one = shift(single, x, test::equalSplits(20'000, 1));
  EXPECT_EQ(one.quadrature, expected.quadrature);
  EXPECT_EQ(one.reference, expected.reference);
}

TEST(HilbertPhaseShifter, ABlockOutOfRangeDoesNothing) {
  std::mt19937 rng(34);
  const std::vector<float> x = test::noise(rng, 300, 1.0);
  HilbertPhaseShifter shifter(101, 100), plain(101, 100);
  shift(shifter, {x.begin(), x.begin() + 100});
  shift(plain, {x.begin(), x.begin() + 100});
  std::vector<float> reference(101, 7.0f), quadrature(101, 7.0f);
  for (const std::int64_t count :
       {std::int64_t{101}, std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::max()})
    shifter.process(x.data() + 100, count, reference.data(), quadrature.data());
  EXPECT_EQ(reference, std::vector<float>(101, 7.0f));
  EXPECT_EQ(quadrature, std::vector<float>(101, 7.0f));
  const Shifted out = shift(shifter, {x.begin() + 100, x.begin() + 200});
  const Shifted expected = shift(plain, {x.begin() + 100, x.begin() + 200});
  EXPECT_EQ(out.reference, expected.reference);  // the history is what it was
  EXPECT_EQ(out.quadrature, expected.quadrature);

  HilbertPhaseShifter none(101, -5);
  EXPECT_EQ(none.maxFrames(), 0);
  none.process(x.data(), 1, reference.data(), quadrature.data());
  EXPECT_EQ(reference[0], 7.0f);
}

TEST(HilbertPhaseShifter, ResetMakesTheNextBlockFollowSilence) {
  std::mt19937 rng(35);
  const std::vector<float> before = test::noise(rng, 400, 1.0), x = test::noise(rng, 400, 1.0);
  HilbertPhaseShifter used(101, 400), fresh(101, 400);
  shift(used, before);
  used.reset();
  const Shifted out = shift(used, x), expected = shift(fresh, x);
  EXPECT_EQ(out.reference, expected.reference);
  EXPECT_EQ(out.quadrature, expected.quadrature);
}

TEST(HilbertPhaseShifter, QuadratureMayBeAbsentAndTheHistoryGoesOn) {
  std::mt19937 rng(36);
  const std::vector<float> x = test::noise(rng, 200, 1.0);
  HilbertPhaseShifter without(101, 100), with(101, 100);
  std::vector<float> reference(100);
  without.process(x.data(), 100, reference.data(), nullptr);
  EXPECT_EQ(reference, shift(with, {x.begin(), x.begin() + 100}).reference);
  const std::vector<float> rest(x.begin() + 100, x.end());
  EXPECT_EQ(shift(without, rest).quadrature, shift(with, rest).quadrature);
}

TEST(HilbertPhaseShifter, ReferenceMayBeWrittenOverTheInput) {
  std::mt19937 rng(37);
  std::vector<float> x = test::noise(rng, 500, 1.0), quadrature(500);
  HilbertPhaseShifter plain(101, 500), inPlace(101, 500);
  const Shifted expected = shift(plain, x);
  inPlace.process(x.data(), 500, x.data(), quadrature.data());
  EXPECT_EQ(x, expected.reference);
  EXPECT_EQ(quadrature, expected.quadrature);
}

// What the routing expects: 90 degrees ahead.
TEST(HilbertPhaseShifter, ASineBecomesACosineOfTheSameLevel) {
  for (const double frequency : {1000.0, 5000.0, 12'000.0, 20'000.0}) {
    HilbertPhaseShifter shifter(101, 4800);
    const Shifted out = shift(shifter, test::sine(48000, 4800, frequency, 0.5));
    const auto cosine = test::sine(48000, 4800, frequency, 0.5, pi / 2, -50);
    for (std::size_t i = 101; i < 4800; ++i)
      ASSERT_NEAR(out.quadrature[i], cosine[i], 0.5 * 0.016) << frequency << " at " << i;  // 0.14 dB
  }
}

TEST(HilbertPhaseShifter, LosesLevelAtLowFrequencies) {
  struct Case {
    double sampleRate, frequency, lossDB;
  };
  for (const auto& [sampleRate, frequency, lossDB] :
       {Case{48000, 500, 2.7}, Case{48000, 100, 15}, Case{44100, 500, 2.2}, Case{96000, 1000, 2.7}}) {
    HilbertPhaseShifter shifter(101, 96000);
    const Shifted out =
        shift(shifter, test::sine(sampleRate, static_cast<std::int64_t>(sampleRate), frequency, 1));
    double squares = 0;
    for (std::size_t i = out.quadrature.size() / 2; i < out.quadrature.size(); ++i)
      squares += static_cast<double>(out.quadrature[i]) * static_cast<double>(out.quadrature[i]);
    const double level = 10 * std::log10(4 * squares / sampleRate);
    EXPECT_NEAR(level, -lossDB, lossDB > 10 ? 0.5 : 0.05) << sampleRate << " " << frequency;
  }
}

TEST(HilbertPhaseShifter, ProcessAllocatesNothing) {
  if (!test::AllocationCounter::isAvailable) GTEST_SKIP() << "the sanitizer has an allocator of its own";
  std::mt19937 rng(38);
  const std::vector<float> x = test::noise(rng, 8192, 1.0);
  std::vector<float> reference(8192), quadrature(8192);
  HilbertPhaseShifter shifter(101, 8192);
  const test::AllocationCounter counter;
  for (const std::int64_t n : {8192, 1, 100, 4096})
    shifter.process(x.data(), n, reference.data(), quadrature.data());
  shifter.reset();
  EXPECT_EQ(counter.count(), 0);
}

}  // namespace
}  // namespace vellum
