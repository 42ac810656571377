#include "VellumCore/Kernels/Kernels.hpp"

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Signals.hpp"
#include "VellumCore/LoudnessProcessor.hpp"

namespace vellum {
namespace {

using namespace test;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

// --- The plain twins: one value at a time, in the order that the contract states ---------------------------

template <typename Value, typename Term>
Value plainLaneSum(std::int64_t n, Term term) {
  Value lanes[laneCount] = {};
  for (std::int64_t i = 0; i < n; ++i) lanes[i % laneCount] += term(i);
  for (std::int64_t half = laneCount / 2; half > 0; half /= 2)
    for (std::int64_t k = 0; k < half; ++k) lanes[k] += lanes[k + half];
  return lanes[0];
}

float plainPeak(const float* x, std::int64_t n) {
  float peak = 0;
  for (std::int64_t i = 0; i < n; ++i)
    if (std::fabs(x[i]) > peak) peak = std::fabs(x[i]);
  return peak;
}

double plainKWeightedEnergy(const KWeightingCoefficients& c, KWeightingState& s, const float* input,
                            std::int64_t n) {
  double energy = 0;
  for (std::int64_t i = 0; i < n; ++i) {
    const double x = static_cast<double>(input[i]);
    const double v = ((c.b0 * x + c.b1 * s.x1) + (c.b2 * s.x2 - c.a2 * s.v2)) - c.a1 * s.v1;
    const double y = (((v - s.v1) - (s.v1 - s.v2)) - c.c2 * s.y2) - c.c1 * s.y1;
    s = {x, s.x1, v, s.v1, y, s.y1};
    energy += y * y;
  }
  for (double* value : {&s.x1, &s.x2, &s.v1, &s.v2, &s.y1, &s.y2})
    if (std::fabs(*value) < 1e-100) *value = 0;
  return energy;
}

float plainOversampledPeak(const PolyphaseFolds& f, const float* w) {
  float even = 0, odd = 0, middle = 0;
  for (int j = 0; j < 6; ++j) {
    even += f.even[j] * (w[j] + w[11 - j]);
    odd += f.odd[j] * (w[j] - w[11 - j]);
    middle += f.middle[j] * (w[j] + w[11 - j]);
  }
  float peak = 0;
  for (const float candidate : {std::fabs(w[6]), std::fabs(even) + std::fabs(odd), std::fabs(middle)})
    if (candidate > peak) peak = candidate;
  return peak;
}

float plainTapPeak(const PolyphaseTaps& t, const float* w, float peak) {
  if (std::fabs(w[6]) > peak) peak = std::fabs(w[6]);
  for (const auto& taps : t.taps) {
    float sum = 0;
    for (int k = 0; k < 12; ++k) sum += taps[k] * w[k];
    if (std::fabs(sum) > peak) peak = std::fabs(sum);
  }
  return peak;
}

// --- What they are compared on ---------------------------------------------------------------------------

constexpr std::int64_t longest = 3 * laneCount + 5, offsets = 4, slack = 16;

// Values of every kind that arithmetic treats apart, without NaN where the caller wants to compare with ==.
std::vector<float> awkwardValues(std::mt19937& rng, std::size_t count) {
  using limits = std::numeric_limits<float>;
  constexpr float special[] = {
      0.0f, -0.0f, limits::max(), -limits::max(), limits::min(), limits::denorm_min(), 1.0f, -1.0f};
  std::vector<float> values = noise(rng, static_cast<std::int64_t>(count), 1.0);
  for (float& value : values)
    if (rng() % 7 == 0) value = special[rng() % std::size(special)];
  return values;
}

template <typename Value>
bool sameBits(Value a, Value b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

class EveryKernelTable : public testing::TestWithParam<int> {
 protected:
  const KernelTable& table() const { return *runnableKernels().tables[GetParam()]; }

  // Runs `body(x, n, where)` at every size around the lane count and every alignment.
  template <typename Body>
  void atEverySizeAndAlignment(Body body) {
    std::mt19937 rng(17);
    const std::vector<float> loud = awkwardValues(rng, static_cast<std::size_t>(longest + offsets + slack));
    const std::vector<float> plain = noise(rng, longest + offsets + slack, 1.0);
    for (const auto* values : {&loud, &plain})
      for (std::int64_t n = 0; n <= longest; ++n)
        for (std::int64_t offset = 0; offset < offsets; ++offset)
          body(values->data() + offset, n, "n = " + std::to_string(n) + ", offset " + std::to_string(offset));
  }
};

INSTANTIATE_TEST_SUITE_P(Kernels, EveryKernelTable, testing::Range(0, runnableKernels().count),
                         [](const auto& each) {
                           return std::string(runnableKernels().tables[each.param]->name);
                         });

TEST_P(EveryKernelTable, SumEqualsItsPlainTwinToTheBit) {
  atEverySizeAndAlignment([&](const float* x, std::int64_t n, const std::string& where) {
    const float expected = plainLaneSum<float>(n, [&](std::int64_t i) { return x[i]; });
    const float actual = table().sum(x, n);
    ASSERT_TRUE(sameBits(actual, expected) || (std::isnan(actual) && std::isnan(expected))) << where;
  });
}

TEST_P(EveryKernelTable, SumOfSquaresEqualsItsPlainTwinToTheBit) {
  atEverySizeAndAlignment([&](const float* x, std::int64_t n, const std::string& where) {
    const auto square = [&](std::int64_t i) { return static_cast<double>(x[i]) * static_cast<double>(x[i]); };
    ASSERT_TRUE(sameBits(table().sumOfSquares(x, n), plainLaneSum<double>(n, square))) << where;
  });
}

TEST_P(EveryKernelTable, SumsStayWithinRoundingOfTheExactSum) {
  std::mt19937 rng(23);
  for (const std::int64_t n : {1, 15, 16, 17, 1000, 4800, 100000}) {
    const std::vector<float> x = noise(rng, n, 1.0);
    long double sum = 0, magnitudes = 0, squares = 0;
    for (float value : x) {
      sum += value;
      magnitudes += std::fabs(value);
      squares += static_cast<long double>(value) * value;
    }
    // Each lane adds up n / 16 terms, each step off by at most half an ulp of the partial sum.
    const double steps = static_cast<double>(n) / laneCount + 5;
    EXPECT_NEAR(table().sum(x.data(), n), static_cast<double>(sum),
                steps * 6e-8 * static_cast<double>(magnitudes));
    EXPECT_NEAR(table().sumOfSquares(x.data(), n), static_cast<double>(squares),
                steps * 1.2e-16 * static_cast<double>(squares));
  }
}

TEST_P(EveryKernelTable, PeakMagnitudeEqualsItsPlainTwin) {
  atEverySizeAndAlignment([&](const float* x, std::int64_t n, const std::string& where) {
    ASSERT_EQ(table().peakMagnitude(x, n), plainPeak(x, n)) << where;
  });
}

TEST_P(EveryKernelTable, NaNLosesEveryPeakComparisonWhereverItStands) {
  for (std::int64_t n = 1; n <= longest; ++n)
    for (std::int64_t place = 0; place < n; ++place) {
      std::vector<float> x(static_cast<std::size_t>(n), 0.25f);
      x[static_cast<std::size_t>(place)] = nan;
      ASSERT_EQ(table().peakMagnitude(x.data(), n), n > 1 ? 0.25f : 0.0f) << n << ", " << place;
      x[static_cast<std::size_t>(place)] = -infinity;
      ASSERT_EQ(table().peakMagnitude(x.data(), n), infinity) << n << ", " << place;
    }
}

TEST_P(EveryKernelTable, NonFiniteSamplesAreCountedAndLargeOnesAreNot) {
  for (std::int64_t n = 1; n <= longest; ++n) {
    std::vector<float> x(static_cast<std::size_t>(n), std::numeric_limits<float>::max());
    EXPECT_EQ(table().nonFiniteCount(x.data(), n), 0);
    x.front() = nan;
    EXPECT_EQ(table().nonFiniteCount(x.data(), n), 1);
    x.back() = -infinity;
    EXPECT_EQ(table().nonFiniteCount(x.data(), n), n > 1 ? 2 : 1);
  }
}

TEST_P(EveryKernelTable, ElementwiseLoopsEqualOneOperationPerElement) {
  atEverySizeAndAlignment([&](const float* x, std::int64_t n, const std::string& where) {
    const auto count = static_cast<std::size_t>(n);
    const float* y = x + 3;
    std::vector<float> added(y, y + n), scaled(x, x + n), product(count + 1, 9), powers(count + 1, 9);
    table().add(added.data(), x, n);
    table().scale(scaled.data(), 0.3f, n);
    table().multiply(x, y, product.data(), n);
    table().power(x, y, powers.data(), n);
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_TRUE(sameBits(added[i], y[i] + x[i])) << where;
      ASSERT_TRUE(sameBits(scaled[i], x[i] * 0.3f)) << where;
      ASSERT_TRUE(sameBits(product[i], x[i] * y[i])) << where;
      ASSERT_TRUE(sameBits(powers[i], x[i] * x[i] + y[i] * y[i])) << where;
    }
    ASSERT_EQ(product[count], 9) << where;
    ASSERT_EQ(powers[count], 9) << where;
  });
}

// --- K-weighting -----------------------------------------------------------------------------------------

KWeightingCoefficients weightingAt(double sampleRate) {
  const auto k = LoudnessProcessor::computeKWeightingCoefficients(sampleRate);
  return {k.stage1[0], k.stage1[1], k.stage1[2], k.stage1[3], k.stage1[4], k.stage2[3], k.stage2[4]};
}

TEST_P(EveryKernelTable, KWeightedEnergyEqualsItsPlainTwinToTheBitForAnyNumberOfChannels) {
  std::mt19937 rng(29);
  const KWeightingCoefficients weighting = weightingAt(48000);
  for (std::size_t channels = 0; channels <= 7; ++channels) {
    const Audio audio = noiseAudio(rng, channels, 3000, 1.0);
    std::vector<KWeightingState> states(channels), plainStates(channels);
    std::vector<KWeightingState*> statePointers;
    for (KWeightingState& state : states) statePointers.push_back(&state);
    std::int64_t offset = 0;
    for (const std::int64_t n : {1, 2, 0, 17, 480, 1000}) {
      std::vector<double> energies(channels, -1);
      table().kWeightedEnergy(weighting, statePointers.data(), audio.pointers(offset).data(), energies.data(),
                              static_cast<std::int64_t>(channels), n);
      for (std::size_t c = 0; c < channels; ++c) {
        ASSERT_TRUE(sameBits(energies[c], plainKWeightedEnergy(weighting, plainStates[c],
                                                               audio.channels[c].data() + offset, n)))
            << "channel " << c << " of " << channels << ", n = " << n;
        ASSERT_TRUE(sameBits(states[c], plainStates[c]))
            << "channel " << c << " of " << channels << ", n = " << n;
      }
      offset += n;
    }
  }
}

// Ringing out into silence must reach exactly zero, never the denormal numbers.
TEST_P(EveryKernelTable, KWeightingRingsOutToZeroBeforeNumbersBecomeDenormal) {
  const KWeightingCoefficients weighting = weightingAt(48000);
  std::vector<float> impulse(4800), silence(4800);
  impulse[0] = 1;
  KWeightingState left, right;
  KWeightingState* const states[] = {&left, &right};
  const auto feedBlock = [&](const std::vector<float>& block) {
    const float* const inputs[] = {block.data(), block.data()};
    double energies[2];
    table().kWeightedEnergy(weighting, states, inputs, energies, 2, 4800);
    return energies[0];
  };
  ASSERT_GT(feedBlock(impulse), 0);
  for (int block = 0; block < 100; ++block) {
    const double energy = feedBlock(silence);
    ASSERT_TRUE(energy == 0 || std::isnormal(energy)) << "block " << block;
    for (const double value : {left.v1, left.v2, left.y1, left.y2, right.y1, right.y2})
      ASSERT_TRUE(value == 0 || std::isnormal(value)) << "block " << block;
  }
  EXPECT_EQ(left.y1, 0);
  EXPECT_EQ(feedBlock(silence), 0);
}

// --- True peak -------------------------------------------------------------------------------------------

TEST_P(EveryKernelTable, OversampledPeaksEqualTheirPlainTwinToTheBit) {
  const PolyphaseFolds folds = {{-0.0009f, 0.0076f, -0.0243f, 0.0577f, -0.132f, 0.5926f},
                                {0.0007f, -0.0027f, 0.0058f, -0.0114f, 0.029f, -0.304f},
                                {-0.001f, 0.0104f, -0.0337f, 0.0801f, -0.1811f, 0.6258f}};
  atEverySizeAndAlignment([&](const float* x, std::int64_t size, const std::string& where) {
    const std::int64_t n = size;  // the values hold 16 more than the longest size
    std::vector<float> peaks(static_cast<std::size_t>(n) + 1, -1);
    const float largest = table().oversampledPeaks(folds, x, peaks.data(), n);
    float plainLargest = 0;
    for (std::int64_t i = 0; i < n; ++i) {
      const float expected = plainOversampledPeak(folds, x + i);
      ASSERT_EQ(peaks[static_cast<std::size_t>(i)], expected) << where << ", output " << i;
      if (expected > plainLargest) plainLargest = expected;
    }
    ASSERT_EQ(largest, plainLargest) << where;
    ASSERT_EQ(table().oversampledPeaks(folds, x, nullptr, n), plainLargest) << where;
    ASSERT_EQ(peaks[static_cast<std::size_t>(n)], -1) << where;
  });
}

TEST_P(EveryKernelTable, OversampledPeaksNeverBecomeNaN) {
  const PolyphaseFolds folds = {{1, 1, 1, 1, 1, 1}, {1, 1, 1, 1, 1, 1}, {1, 1, 1, 1, 1, 1}};
  std::vector<float> x(200, 0.125f);
  x[40] = nan;
  x[90] = infinity;
  x[95] = -infinity;
  std::vector<float> peaks(180);
  EXPECT_EQ(table().oversampledPeaks(folds, x.data(), peaks.data(), 180), infinity);
  for (float peak : peaks) EXPECT_FALSE(std::isnan(peak));
  EXPECT_EQ(peaks[34], 0.0f);  // the NaN itself in the middle: nothing left to compare
  EXPECT_EQ(peaks[84], infinity);
}

constexpr PolyphaseTaps someTaps = {{{-0.0002f, 0.0049f, -0.0185f, 0.0463f, -0.1035f, 0.2887f, 0.8965f,
                                      -0.1615f, 0.0692f, -0.0301f, 0.0104f, -0.0016f},
                                     {-0.001f, 0.0104f, -0.0337f, 0.0801f, -0.1811f, 0.6258f, 0.6257f,
                                      -0.1812f, 0.0802f, -0.0338f, 0.0103f, -0.0011f},
                                     {-0.0017f, 0.0103f, -0.0302f, 0.0693f, -0.1614f, 0.8964f, 0.2888f,
                                      -0.1034f, 0.0462f, -0.0186f, 0.0048f, -0.0003f}}};

TEST_P(EveryKernelTable, TapPeaksEqualThePlainSumsToTheBitAndOnlyRaise) {
  std::mt19937 rng(31);
  atEverySizeAndAlignment([&](const float* x, std::int64_t n, const std::string& where) {
    std::vector<float> before = noise(rng, n + 1, 1.0);
    for (float& peak : before) peak = std::fabs(peak);
    std::vector<float> peaks = before;
    table().raiseToTapPeaks(someTaps, x, peaks.data(), n);
    for (std::int64_t i = 0; i < n; ++i) {
      const auto at = static_cast<std::size_t>(i);
      ASSERT_TRUE(sameBits(peaks[at], plainTapPeak(someTaps, x + i, before[at])))
          << where << ", output " << i;
    }
    ASSERT_EQ(peaks.back(), before.back()) << where;
  });
}

TEST_P(EveryKernelTable, TapPeaksNeverBecomeNaN) {
  std::vector<float> x(200, 0.125f);
  x[40] = nan;
  x[90] = infinity;
  x[95] = -infinity;
  std::vector<float> peaks(180);
  table().raiseToTapPeaks(someTaps, x.data(), peaks.data(), 180);
  for (std::int64_t i = 0; i < 180; ++i)
    ASSERT_EQ(peaks[static_cast<std::size_t>(i)], plainTapPeak(someTaps, x.data() + i, 0)) << i;
  EXPECT_EQ(peaks[33], 0.125f);  // a NaN among the taps: the sample in the middle is left
  EXPECT_EQ(peaks[34], 0.0f);    // the NaN itself in the middle: nothing left to compare
  EXPECT_EQ(peaks[84], infinity);
}

// --- Limiter ---------------------------------------------------------------------------------------------

TEST_P(EveryKernelTable, CeilingGainsBringPeaksAboveTheCeilingDownAndLeaveTheRestAtOne) {
  atEverySizeAndAlignment([&](const float* x, std::int64_t n, const std::string& where) {
    const auto count = static_cast<std::size_t>(n);
    for (const float ceiling : {0.25f, 0.0f, x[1], infinity, nan}) {
      std::vector<float> gains(x, x + n + 1);
      table().ceilingGains(ceiling, gains.data(), n);
      for (std::size_t i = 0; i < count; ++i)
        ASSERT_TRUE(sameBits(gains[i], ceiling < x[i] ? ceiling / x[i] : 1.0f))
            << where << ", ceiling " << ceiling;
      ASSERT_TRUE(sameBits(gains[count], x[n])) << where;
    }
  });
}

TEST_P(EveryKernelTable, CeilingGainsAreOneForNaNAndZeroForInfinity) {
  for (std::size_t n = 1; n <= static_cast<std::size_t>(longest); ++n) {
    std::vector<float> x(n, infinity);
    x[n - 1] = nan;
    table().ceilingGains(0.5f, x.data(), static_cast<std::int64_t>(n));
    EXPECT_EQ(x[n - 1], 1.0f);
    if (n > 1) {
      EXPECT_EQ(x[0], 0.0f);
    }
  }
}

TEST_P(EveryKernelTable, ExchangeGivesTheLineTimesTheGainsAndKeepsTheSamples) {
  atEverySizeAndAlignment([&](const float* given, std::int64_t n, const std::string& where) {
    const auto count = static_cast<std::size_t>(n);
    const float *held = given + 5, *gains = given + 2;
    std::vector<float> x(given, given + n + 1), line(held, held + n + 1);
    table().exchangeWithGain(x.data(), line.data(), gains, n);
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_TRUE(sameBits(x[i], gains[i] * held[i])) << where;
      ASSERT_TRUE(sameBits(line[i], given[i])) << where;
    }
    ASSERT_TRUE(sameBits(x[count], given[n])) << where;
    ASSERT_TRUE(sameBits(line[count], held[n])) << where;
  });
}

TEST(Kernels, TheChosenTableIsTheLastRunnableOne) {
  const KernelTables runnable = runnableKernels();
  ASSERT_GE(runnable.count, 1);
  EXPECT_STREQ(runnable.tables[0]->name, "baseline");
  EXPECT_EQ(&kernels(), runnable.tables[runnable.count - 1]);
}

// --- Surround --------------------------------------------------------------------------------------------

TEST_P(EveryKernelTable, MultiplyAddAddsEveryProductRounded) {
  atEverySizeAndAlignment([&](const float* x, std::int64_t n, const std::string& where) {
    const auto count = static_cast<std::size_t>(n);
    for (const float factor : {1.0f, -0.70710678f, 0.0f, x[1]}) {
      std::vector<float> sums(x + 3, x + 3 + n + 1);
      table().multiplyAdd(sums.data(), factor, x, n);
      for (std::size_t i = 0; i < count; ++i) {
        const float product = factor * x[i], expected = x[3 + i] + product;
        ASSERT_TRUE(sameBits(sums[i], expected) || (std::isnan(sums[i]) && std::isnan(expected))) << where;
      }
      ASSERT_TRUE(sameBits(sums[count], x[3 + n])) << where;
    }
  });
}

// Filters of no tap, of one, and of more than a vector holds.
TEST_P(EveryKernelTable, OddTapsEqualTheirPlainTwinToTheBit) {
  std::mt19937 rng(29);
  for (const std::int64_t count : {0, 1, 2, 3, 25, 26}) {
    const std::vector<float> odd = noise(rng, count, 1.0);
    const std::int64_t margin = 2 * count, values = 2 * margin + longest + offsets;
    for (const std::vector<float>& x :
         {noise(rng, values, 1.0), awkwardValues(rng, static_cast<std::size_t>(values))})
      for (std::int64_t n = 0; n <= longest; ++n)
        for (std::int64_t offset = 0; offset < offsets; ++offset) {
          const float* const centre = x.data() + margin + offset;
          std::vector<float> out(static_cast<std::size_t>(n) + 1, 7.0f);
          table().correlateOddTaps({odd.data(), count}, centre, out.data(), n);
          for (std::int64_t i = 0; i < n; ++i) {
            float sum = 0;
            for (std::int64_t j = 0; j < count; ++j) {
              const std::int64_t distance = 2 * (count - j) - 1;
              sum += odd[static_cast<std::size_t>(j)] * (centre[i + distance] - centre[i - distance]);
            }
            const float actual = out[static_cast<std::size_t>(i)];
            ASSERT_TRUE(sameBits(actual, sum) || (std::isnan(actual) && std::isnan(sum)))
                << count << " taps, n = " << n << ", offset " << offset;
          }
          ASSERT_EQ(out.back(), 7.0f);
        }
  }
}

}  // namespace
}  // namespace vellum
