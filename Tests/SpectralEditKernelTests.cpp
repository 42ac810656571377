// The spectral edit kernel beside a twin in long double: direct DFTs of the whole signal, every cell of it.

#include "VellumCore/SpectralEditKernel.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <functional>
#include <limits>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Signals.hpp"

namespace vellum {
namespace {

using namespace test;
using namespace SpectralEditKernel;

using Real = long double;
using Rows = std::vector<std::vector<Real>>;  // [column][bin]

constexpr Real pi = std::numbers::pi_v<Real>;

std::size_t at(std::int64_t index) {
  return static_cast<std::size_t>(index);
}

// --- The twin --------------------------------------------------------------------------------------------

class Twin {
 public:
  Twin(const std::vector<float>& samples, const SpectralGridConfig& config)
      : samples_(samples), config_(config), N_(config.fftSize), hop_(config.fftSize / 4), bins_(N_ / 2 + 1) {
    const auto length = static_cast<std::int64_t>(samples.size());
    columns_ = length >= N_ ? (length - N_) / hop_ + 1 : 0;
    for (std::int64_t n = 0; n < N_; ++n) {
      turn_.push_back(std::polar<Real>(1, 2 * pi * static_cast<Real>(n) / static_cast<Real>(N_)));
      window_.push_back((1 - turn_.back().real()) / 2);
    }
    for (std::int64_t c = 0; c < columns_; ++c) {
      std::vector<std::complex<Real>> column(at(bins_));
      for (std::int64_t b = 0; b < bins_; ++b)
        for (std::int64_t n = 0; n < N_; ++n)
          column[at(b)] += static_cast<Real>(samples[at(c * hop_ + n)]) * window_[at(n)] *
                           std::conj(turn_[at(b * n % N_)]);
      cells_.push_back(std::move(column));
    }
  }

  std::int64_t columns() const { return columns_; }
  std::int64_t bins() const { return bins_; }
  Rows rows(Real value) const { return Rows(at(columns_), std::vector<Real>(at(bins_), value)); }

  // dB, 0 for a full-scale sine.
  Real magnitude(std::int64_t c, std::int64_t b) const {
    const Real amplitude = std::abs(cells_[at(c)][at(b)]) * 4 / static_cast<Real>(N_);
    return 20 * std::log10(std::max(amplitude, Real{1e-10L}));
  }

  std::vector<Real> windowPower() const {
    std::vector<Real> power(samples_.size());
    for (std::int64_t c = 0; c < columns_; ++c)
      for (std::int64_t n = 0; n < N_; ++n) power[at(c * hop_ + n)] += window_[at(n)] * window_[at(n)];
    return power;
  }

  // The signal with these gains, in dB.
  std::vector<Real> resynthesised(const Rows& gains) const {
    std::vector<Real> sum(samples_.size());
    for (std::int64_t c = 0; c < columns_; ++c)
      for (std::int64_t n = 0; n < N_; ++n) {
        Real sample = 0;
        for (std::int64_t b = 0; b < bins_; ++b) {
          const Real part = (cells_[at(c)][at(b)] * turn_[at(b * n % N_)]).real() *
                            std::pow(Real{10}, gains[at(c)][at(b)] / 20) / static_cast<Real>(N_);
          sample += b == 0 || b == N_ / 2 ? part : 2 * part;
        }
        sum[at(c * hop_ + n)] += sample * window_[at(n)];
      }
    const std::vector<Real> power = windowPower();
    for (std::size_t n = 0; n < sum.size(); ++n)
      sum[n] = power[n] > 0.001L ? sum[n] / power[n] : static_cast<Real>(samples_[n]);
    return sum;
  }

  // --- What process() is to do.

  struct Geometry {
    std::int64_t rc, rb, lo, hi;          // radii, and the mask's columns
    std::int64_t editLo, editHi;          // within the grid
    std::int64_t weightedLo, weightedHi;  // columns
    std::int64_t contextLo, contextHi;
  };
  Geometry geometry(const SpectralMask& mask, const Feather& feather) const {
    Geometry g{};
    g.rc = std::max<std::int64_t>(
        std::llround(config_.sampleRate * (feather.timeMs / 1000) / static_cast<double>(hop_)), 1);
    const Real bin = std::round(static_cast<Real>(feather.freqHz) * N_ / config_.sampleRate);
    g.rb = std::max<std::int64_t>(static_cast<std::int64_t>(std::clamp<Real>(bin, 0, N_ / 2)), 2);
    const auto stored = mask.storedColumns();
    g.lo = *std::min_element(stored.begin(), stored.end());
    g.hi = *std::max_element(stored.begin(), stored.end());
    g.editLo = std::max<std::int64_t>(g.lo, 0);
    g.editHi = std::min(g.hi, columns_ - 1);
    g.weightedLo = std::max<std::int64_t>(g.lo - g.rc, 0);
    g.weightedHi = std::min(g.hi + g.rc, columns_ - 1);
    const std::int64_t around = std::max<std::int64_t>(g.rc, 100);
    g.contextLo = std::max<std::int64_t>(g.editLo - around, 0);
    g.contextHi = std::min(g.editHi + around, columns_ - 1);
    return g;
  }

  Rows weights(const SpectralMask& mask, const Geometry& g) const {
    Rows weights = rows(0), blurred = rows(0);
    for (std::int64_t c = g.weightedLo; c <= g.weightedHi; ++c)
      for (std::int64_t b = 0; b < bins_; ++b) weights[at(c)][at(b)] = mask.contains(c, b) ? 1 : 0;
    const auto blur = [&](bool alongColumns, std::int64_t r) {
      const std::int64_t axis = alongColumns ? g.weightedHi - g.weightedLo + 1 : bins_;
      if (r < 1 || axis < 2) return;
      for (std::int64_t c = g.weightedLo; c <= g.weightedHi; ++c)
        for (std::int64_t b = 0; b < bins_; ++b) {
          Real sum = 0;
          for (std::int64_t k = -r; k <= r; ++k) {
            const std::int64_t cc = alongColumns ? c + k : c, bb = alongColumns ? b : b + k;
            if (cc >= g.weightedLo && cc <= g.weightedHi && bb >= 0 && bb < bins_)
              sum += weights[at(cc)][at(bb)];
          }
          blurred[at(c)][at(b)] = sum / static_cast<Real>(2 * r + 1);
        }
      weights = blurred;
    };
    blur(true, g.rc);
    blur(false, g.rb);
    return weights;
  }

  std::vector<Real> floor(const SpectralMask& mask, const Geometry& g) const {
    std::vector<Real> floor(at(bins_));
    std::vector<std::int64_t> known;
    const auto level = [&](std::int64_t b, bool everyCell) {
      std::vector<Real> powers;
      for (std::int64_t c = g.contextLo; c <= g.contextHi; ++c)
        if (everyCell || !mask.contains(c, b)) powers.push_back(std::pow(Real{10}, magnitude(c, b) / 10));
      if (powers.empty()) return false;
      std::sort(powers.begin(), powers.end());
      const Real most = powers[powers.size() / 2] * std::pow(Real{10}, 0.7L);
      Real sum = 0, count = 0;
      for (const Real power : powers)
        if (power <= most) sum += power, count += 1;
      floor[at(b)] = 10 * std::log10(sum / count);
      return true;
    };
    for (std::int64_t b = 0; b < bins_; ++b)
      if (level(b, false)) known.push_back(b);
    if (known.empty())
      for (std::int64_t b = 0; b < bins_; ++b) level(b, true);
    else
      for (std::int64_t b = 0; b < bins_; ++b) {
        const auto above = std::lower_bound(known.begin(), known.end(), b);
        const std::int64_t to = above == known.end() ? known.back() : *above;
        const std::int64_t from = above == known.begin() ? known.front() : *(above - (to == b ? 0 : 1));
        if (from == to || to <= b || from >= b) {
          floor[at(b)] = floor[at(to <= b ? to : from >= b ? from : to)];
          continue;
        }
        const Real t = static_cast<Real>(b - from) / static_cast<Real>(to - from);
        floor[at(b)] = (1 - t) * floor[at(from)] + t * floor[at(to)];
      }
    return floor;
  }

  // dB per cell; empty where the input is to come back.
  Rows gains(const SpectralMask& mask, const Operation& operation, const Feather& feather) const {
    if (mask.isEmpty() || columns_ == 0) return {};
    const Geometry g = geometry(mask, feather);
    if (g.editHi < g.editLo) return {};
    const Rows w = weights(mask, g);
    const std::vector<Real> floorDB = floor(mask, g);
    Rows gains = rows(0), target = rows(-10000);
    if (std::holds_alternative<Operation::Repair>(operation.value))
      for (std::int64_t b = 0; b < bins_; ++b)
        for (std::int64_t first = g.editLo; first <= g.editHi; ++first) {
          if (!mask.contains(first, b)) continue;
          std::int64_t last = first;
          while (last < g.editHi && mask.contains(last + 1, b)) ++last;
          const bool hasLeft = first > 0, hasRight = last + 1 <= std::min(last + 100, columns_ - 1);
          for (std::int64_t c = first; c <= last; ++c) {
            Real level = floorDB[at(b)];
            if (hasLeft && hasRight) {
              const Real t = static_cast<Real>(c - (first - 1)) / static_cast<Real>((last + 1) - (first - 1));
              level = (1 - t) * magnitude(first - 1, b) + t * magnitude(last + 1, b);
            } else if (hasLeft) {
              level = magnitude(first - 1, b);
            } else if (hasRight) {
              level = magnitude(last + 1, b);
            }
            target[at(c)][at(b)] = level + 3.1L;
          }
          first = last;
        }
    for (std::int64_t c = g.weightedLo; c <= g.weightedHi; ++c)
      for (std::int64_t b = 0; b < bins_; ++b) {
        const Real weight = w[at(c)][at(b)];
        if (weight <= 0) continue;
        if (const auto* attenuate = std::get_if<Operation::Attenuate>(&operation.value))
          gains[at(c)][at(b)] = weight * std::clamp<Real>(attenuate->dB, -96, 24);
        else if (const auto* erase = std::get_if<Operation::EraseToFloor>(&operation.value))
          gains[at(c)][at(b)] = weight * ((floorDB[at(b)] - std::max<Real>(erase->dB, 0)) - magnitude(c, b));
        else if (target[at(c)][at(b)] > -1000)
          gains[at(c)][at(b)] = weight * (target[at(c)][at(b)] - magnitude(c, b));
      }
    return gains;
  }

 private:
  const std::vector<float>& samples_;
  SpectralGridConfig config_;
  std::int64_t N_, hop_, bins_, columns_;
  std::vector<std::complex<Real>> turn_;
  std::vector<Real> window_;
  std::vector<std::vector<std::complex<Real>>> cells_;
};

// A cell is off by some 1e-7 of the frame's loudest, and a gain makes more of that.
void expectNear(const std::vector<float>& result, const std::vector<Real>& expected, const Rows& gains,
                const std::string& what) {
  Real largest = 0;
  for (const auto& column : gains)
    for (const Real gain : column) largest = std::max(largest, gain);
  const Real tolerance = 1e-6L * std::pow(Real{10}, largest / 20);
  ASSERT_EQ(result.size(), expected.size());
  for (std::size_t n = 0; n < result.size(); ++n)
    ASSERT_LE(std::abs(static_cast<Real>(result[n]) - expected[n]), tolerance) << what << ", sample " << n;
}

// --- Signals and selections ------------------------------------------------------------------------------

std::vector<float> noiseOf(unsigned seed, std::int64_t length, double amplitude = 0.5) {
  std::mt19937 rng(seed);
  return noise(rng, length, amplitude);
}

// Gaussian, as rooms and amplifiers make it.
std::vector<float> hiss(std::mt19937& rng, std::int64_t length, double rms) {
  std::vector<float> samples(at(length));
  for (float& sample : samples) {
    double sum = 0;
    for (int k = 0; k < 12; ++k) sum += uniform(rng, -0.5, 0.5);  // variance 1
    sample = static_cast<float>(rms * sum);
  }
  return samples;
}

SpectralMask rectangle(std::int64_t binCount, ClosedRange columns, ClosedRange bins) {
  SpectralMask mask(binCount);
  mask.rasterizeRect(columns, bins, CombineMode::replace);
  return mask;
}

SpectralMask everyBin(const SpectralGridConfig& config, ClosedRange columns) {
  return rectangle(config.binCount(), columns, {0, config.binCount() - 1});
}

constexpr Feather leastFeather = {0, 0};  // one column, two bins

const std::vector<Operation>& everyOperation() {
  static const std::vector<Operation> operations = {
      {Operation::Attenuate{-30}},   {Operation::Attenuate{12}},    {Operation::EraseToFloor{0}},
      {Operation::EraseToFloor{10}}, {Operation::EraseToFloor{-3}}, {Operation::Repair{}}};
  return operations;
}

// --- process ---------------------------------------------------------------------------------------------

TEST(SpectralEditKernel, EveryOperationIsTheTwinsOnRandomSelections) {
  std::mt19937 rng(1);
  for (int trial = 0; trial < 60; ++trial) {
    const std::int64_t N = std::int64_t{4} << (rng() % 4);  // 4 to 32
    const SpectralGridConfig config(N, 1000);
    const auto length = static_cast<std::int64_t>(rng() % 400);
    const std::vector<float> samples = noise(rng, length, 0.5);
    const Twin twin(samples, config);
    const std::int64_t maskBins = rng() % 4 == 0 ? config.binCount() + 7 : config.binCount();
    SpectralMask mask(maskBins);
    const auto column = [&] { return static_cast<std::int64_t>(rng() % at(twin.columns() + 9)) - 4; };
    for (auto shapes = rng() % 4; shapes > 0; --shapes) {
      const std::int64_t c = column(), b = static_cast<std::int64_t>(rng() % at(maskBins));
      const auto width = static_cast<std::int64_t>(rng() % 12), height = static_cast<std::int64_t>(rng() % 6);
      mask.rasterizeRect({c, c + width}, {b, b + height},
                         rng() % 4 == 0 ? CombineMode::subtract : CombineMode::add);
    }
    const Feather feather = {uniform(rng, -1, 40), uniform(rng, -10, 150)};
    for (const Operation& operation : everyOperation()) {
      const std::string what =
          "trial " + std::to_string(trial) + ", operation " + std::to_string(operation.value.index());
      const std::vector<float> result = process(samples, config, mask, operation, feather);
      const Rows gains = twin.gains(mask, operation, feather);
      if (gains.empty())
        ASSERT_EQ(result, samples) << what;
      else
        expectNear(result, twin.resynthesised(gains), gains, what);
    }
  }
}

TEST(SpectralEditKernel, ASmallSelectionInALongSignalIsAsTheWholeSignalsSpectrumGivesIt) {
  const SpectralGridConfig config(64, 48000);
  const std::vector<float> samples = noiseOf(3, 12'000);
  const Twin twin(samples, config);
  const SpectralMask mask = rectangle(config.binCount(), {300, 309}, {5, 11});
  for (const Operation& operation : everyOperation()) {
    const std::vector<float> result = process(samples, config, mask, operation, {1, 1000});
    const Rows gains = twin.gains(mask, operation, {1, 1000});
    expectNear(result, twin.resynthesised(gains), gains, "long");
  }
}

// The feather's radius where that is more than 100 columns: 130 here.
TEST(SpectralEditKernel, AWideFeatherWidensWhatTheFloorIsTakenFrom) {
  const SpectralGridConfig config(4, 1000);
  std::vector<float> samples = noiseOf(41, 700, 0.001);
  const std::vector<float> loud = noiseOf(42, 700);
  // The farther from the selection, the more of it is loud.
  for (std::int64_t n = 0; n < 700; ++n)
    if (std::abs(n - 350) > 110) samples[at(n)] = loud[at(n)];
  const Twin twin(samples, config);
  const SpectralMask mask = everyBin(config, {260, 440});
  const Feather feather = {130, 0};
  for (const Operation& operation : everyOperation()) {
    const Rows gains = twin.gains(mask, operation, feather);
    expectNear(process(samples, config, mask, operation, feather), twin.resynthesised(gains), gains,
               "operation " + std::to_string(operation.value.index()));
  }
}

// A gain of 0 dB, so that nothing but rounding is left.
TEST(SpectralEditKernel, ALargeFrameIsWithinAMillionthAndAtTheSignalsEndsWithinAHundredThousandth) {
  for (const std::int64_t N : {256, 2048, 16'384}) {
    const SpectralGridConfig config(N, 48000);
    const std::vector<float> samples = noiseOf(43, 6 * N + 11, 1);
    const std::vector<float> result =
        process(samples, config, everyBin(config, {0, 100}), {Operation::Attenuate{0}}, leastFeather);
    const auto length = static_cast<std::int64_t>(samples.size()), end = (length - N) / (N / 4) * (N / 4) + N;
    for (std::int64_t n = 0; n < length; ++n) {
      const bool isAtEnd = n < N / 4 || n >= end - N / 4;
      ASSERT_NEAR(result[at(n)], samples[at(n)], isAtEnd ? 1e-5 : 1e-6) << N << " " << n;
    }
  }
}

TEST(SpectralEditKernel, NothingChangesWhereNothingHasAWeight) {
  const SpectralGridConfig config(256, 48000);
  const std::vector<float> samples = noiseOf(4, 60'000);
  for (const ClosedRange columns : {ClosedRange{400, 420}, ClosedRange{-3, 2}, ClosedRange{925, 2000}}) {
    const SpectralMask mask = rectangle(config.binCount(), columns, {10, 20});
    const Feather feather = {4, 300};  // 3 columns
    const auto reached = reach(columns, config, feather, 60'000);
    ASSERT_TRUE(reached);
    const std::int64_t last = (60'000 - 256) / 64;
    EXPECT_EQ(reached->changed.lower, std::max<std::int64_t>(columns.lower - 3, 0) * 64);
    EXPECT_EQ(reached->changed.upper, std::min(columns.upper + 3, last) * 64 + 256);
    for (const Operation& operation : everyOperation()) {
      const std::vector<float> result = process(samples, config, mask, operation, feather);
      std::int64_t first = -1, end = -1;
      for (std::int64_t n = 0; n < 60'000; ++n)
        if (std::abs(result[at(n)] - samples[at(n)]) > 1e-6f) {
          if (first < 0) first = n;
          end = n + 1;
        } else if (n < reached->changed.lower || n >= reached->changed.upper) {
          ASSERT_EQ(result[at(n)], samples[at(n)]) << n;
        }
      EXPECT_GE(first, reached->changed.lower);
      EXPECT_LE(end, reached->changed.upper);
      EXPECT_GT(end, first);
    }
  }
}

// What an application that reads no more than it has to relies on.
TEST(SpectralEditKernel, ThePartThatIsReadGivesTheSameSamples) {
  const SpectralGridConfig config(128, 48000);
  const std::vector<float> samples = noiseOf(5, 40'000);
  for (const double timeMs : {0.0, 2.0, 90.0})  // up to 135 columns: more than the context of 100
    for (const ClosedRange columns : {ClosedRange{500, 530}, ClosedRange{20, 30}, ClosedRange{1190, 1246}}) {
      const Feather feather = {timeMs, 800};
      const SpectralMask mask = rectangle(config.binCount(), columns, {3, 40});
      const auto reached = reach(columns, config, feather, 40'000);
      ASSERT_TRUE(reached);
      const auto [from, to] = reached->read;
      ASSERT_EQ(from % config.hop(), 0);
      ASSERT_LE(from, reached->changed.lower);
      ASSERT_GE(to, reached->changed.upper);
      const std::vector<float> part(samples.begin() + from, samples.begin() + to);
      const std::int64_t firstColumn = from / config.hop();
      const SpectralMask rebased =
          mask.rebased({firstColumn, firstColumn + config.columnCount(to - from) - 1});
      for (const Operation& operation : everyOperation()) {
        const std::vector<float> whole = process(samples, config, mask, operation, feather);
        const std::vector<float> result = process(part, config, rebased, operation, feather);
        for (std::int64_t n = reached->changed.lower; n < reached->changed.upper; ++n)
          ASSERT_EQ(result[at(n - from)], whole[at(n)]) << n;
      }
    }
}

TEST(SpectralEditKernel, NothingReachesOutsideOfTheGrid) {
  const SpectralGridConfig config(64, 48000);
  EXPECT_FALSE(reach({0, 5}, config, leastFeather, 63));
  EXPECT_FALSE(reach({-9, -1}, config, leastFeather, 640));
  EXPECT_FALSE(reach({37, 90}, config, leastFeather, 640));
  EXPECT_TRUE(reach({36, 90}, config, leastFeather, 640));
}

// One cell: a block of 3 columns by 5 bins, a fifteenth of the gain each.
TEST(SpectralEditKernel, ASingleCellChangesItsSurroundings) {
  const SpectralGridConfig config(32, 1000);
  const std::vector<float> samples = noiseOf(6, 400);
  const Twin twin(samples, config);
  Rows gains = twin.rows(0);
  for (std::int64_t c = 19; c <= 21; ++c)
    for (std::int64_t b = 5; b <= 9; ++b) gains[at(c)][at(b)] = -30.0L / 15;
  const std::vector<float> result =
      process(samples, config, rectangle(17, {20, 20}, {7, 7}), {Operation::Attenuate{-30}}, leastFeather);
  expectNear(result, twin.resynthesised(gains), gains, "one cell");
}

// In the corner the same fifteenth each, of which fewer lie in the grid.
TEST(SpectralEditKernel, TheFeatherFadesTowardsTheGridsEdges) {
  const SpectralGridConfig config(32, 1000);
  const std::vector<float> samples = noiseOf(7, 400);
  const Twin twin(samples, config);
  Rows gains = twin.rows(0);
  // All bins of columns 0 to 5: column 0 lacks one of three neighbours, bin 0 two of five, bin 1 one.
  for (std::int64_t c = 0; c <= 6; ++c)
    for (std::int64_t b = 0; b < 17; ++b) {
      const Real columns = c == 0 || c == 5 ? 2 : c == 6 ? 1 : 3;
      const Real bins = b == 0 || b == 16 ? 3 : b == 1 || b == 15 ? 4 : 5;
      gains[at(c)][at(b)] = -30 * columns * bins / 15;
    }
  const std::vector<float> result =
      process(samples, config, everyBin(config, {0, 5}), {Operation::Attenuate{-30}}, leastFeather);
  expectNear(result, twin.resynthesised(gains), gains, "edges");
}

// A signal of one frame: there is nothing to blur along.
TEST(SpectralEditKernel, ASingleColumnIsFeatheredAlongBinsOnly) {
  const SpectralGridConfig config(32, 1000);
  const std::vector<float> samples = noiseOf(29, 35);
  const Twin twin(samples, config);
  ASSERT_EQ(twin.columns(), 1);
  Rows gains = twin.rows(0);
  for (std::int64_t b = 5; b <= 9; ++b) gains[0][at(b)] = -30.0L / 5;
  const std::vector<float> result =
      process(samples, config, rectangle(17, {0, 3}, {7, 7}), {Operation::Attenuate{-30}}, {50, 0});
  expectNear(result, twin.resynthesised(gains), gains, "one column");
}

TEST(SpectralEditKernel, GainsAndDepthsStayInTheirRange) {
  const SpectralGridConfig config(64, 48000);
  const std::vector<float> samples = noiseOf(8, 3000);
  const SpectralMask mask = rectangle(33, {20, 60}, {3, 20});
  const auto processed = [&](Operation operation) {
    return process(samples, config, mask, operation, {2, 2000});
  };
  EXPECT_EQ(processed({Operation::Attenuate{40}}), processed({Operation::Attenuate{24}}));
  EXPECT_EQ(processed({Operation::Attenuate{-200}}), processed({Operation::Attenuate{-96}}));
  EXPECT_NE(processed({Operation::Attenuate{23}}), processed({Operation::Attenuate{24}}));
  EXPECT_NE(processed({Operation::Attenuate{-20}}), processed({Operation::Attenuate{-96}}));
  EXPECT_EQ(processed({Operation::EraseToFloor{-6}}), processed({Operation::EraseToFloor{0}}));
  EXPECT_NE(processed({Operation::EraseToFloor{6}}), processed({Operation::EraseToFloor{0}}));
}

TEST(SpectralEditKernel, ARepairAtAnEndOfTheGridUsesTheAnchorThatThereIs) {
  const SpectralGridConfig config(32, 1000);
  const std::int64_t length = 32 + 8 * 40;
  const std::vector<float> samples = noiseOf(9, length);
  const Twin twin(samples, config);
  ASSERT_EQ(twin.columns(), 41);
  struct Case {
    ClosedRange run;
    std::int64_t anchor;
  };
  for (const auto& [run, anchor] :
       {Case{{0, 9}, 10}, Case{{-5, 9}, 10}, Case{{31, 40}, 30}, Case{{31, 77}, 30}}) {
    const SpectralMask mask = everyBin(config, run);
    const Rows weights = twin.weights(mask, twin.geometry(mask, leastFeather));
    Rows gains = twin.rows(0);
    for (std::int64_t c = std::max<std::int64_t>(run.lower, 0); c <= std::min<std::int64_t>(run.upper, 40);
         ++c)
      for (std::int64_t b = 0; b < 17; ++b)
        gains[at(c)][at(b)] =
            weights[at(c)][at(b)] * (twin.magnitude(anchor, b) + 3.1L - twin.magnitude(c, b));
    expectNear(process(samples, config, mask, {Operation::Repair{}}, leastFeather), twin.resynthesised(gains),
               gains, "anchor " + std::to_string(anchor));
  }
}

TEST(SpectralEditKernel, ARepairOfEverythingGoesToTheFloor) {
  const SpectralGridConfig config(32, 1000);
  const std::vector<float> samples = noiseOf(10, 32 + 8 * 20);
  const Twin twin(samples, config);
  const SpectralMask mask = rectangle(17, {0, 20}, {4, 9});
  const Rows weights = twin.weights(mask, twin.geometry(mask, leastFeather));
  const std::vector<float> floor = perBinFloor(samples, config, mask, {0, 20});
  Rows gains = twin.rows(0);
  for (std::int64_t c = 0; c <= 20; ++c)
    for (std::int64_t b = 4; b <= 9; ++b)
      gains[at(c)][at(b)] = weights[at(c)][at(b)] * (floor[at(b)] + 3.1L - twin.magnitude(c, b));
  expectNear(process(samples, config, mask, {Operation::Repair{}}, leastFeather), twin.resynthesised(gains),
             gains, "floor");
}

TEST(SpectralEditKernel, WhatCannotBeEditedComesBackAsItWas) {
  const SpectralGridConfig config(64, 48000);
  const std::vector<float> samples = noiseOf(11, 1000), brief = noiseOf(12, 63);
  for (const Operation& operation : everyOperation()) {
    EXPECT_EQ(process(samples, config, SpectralMask(33), operation, leastFeather), samples);
    EXPECT_EQ(process(brief, config, everyBin(config, {0, 3}), operation, leastFeather), brief);
    EXPECT_EQ(process({}, config, everyBin(config, {0, 3}), operation, leastFeather), std::vector<float>{});
    for (const ClosedRange columns : {ClosedRange{-20, -1}, ClosedRange{59, 80}})
      EXPECT_EQ(process(samples, config, everyBin(config, columns), operation, leastFeather), samples);
    // Bins above the grid's own.
    const std::vector<float> above =
        process(samples, config, rectangle(90, {3, 9}, {40, 80}), operation, leastFeather);
    for (std::size_t n = 0; n < samples.size(); ++n) ASSERT_NEAR(above[n], samples[n], 1e-6f) << n;
  }
}

TEST(SpectralEditKernel, ColumnsFarAwayAreOutside) {
  constexpr std::int64_t far = std::numeric_limits<std::int64_t>::max() - 1;
  const SpectralGridConfig config(64, 48000);
  const std::vector<float> samples = noiseOf(13, 1000);
  SpectralMask mask(33);
  mask.insert(far, {0, 3});
  mask.insert(-far, {0, 3});
  // Between them lies the grid, of which nothing is selected.
  const std::vector<float> between = process(samples, config, mask, {Operation::Attenuate{-3}}, leastFeather);
  for (std::size_t n = 0; n < samples.size(); ++n) ASSERT_NEAR(between[n], samples[n], 1e-5f) << n;
  mask.remove(far, {0, 3});
  EXPECT_EQ(process(samples, config, mask, {Operation::Attenuate{-3}}, {1e300, 0}), samples);
}

TEST(SpectralEditKernel, SilenceStaysSilent) {
  const SpectralGridConfig config(64, 48000);
  const std::vector<float> silence(4000);
  for (const Operation& operation : everyOperation())
    EXPECT_EQ(process(silence, config, everyBin(config, {20, 60}), operation, {2, 2000}), silence);
}

TEST(SpectralEditKernel, OperationsAreEqualWhenCaseAndPayloadAre) {
  EXPECT_EQ((Operation{Operation::Attenuate{-3}}), (Operation{Operation::Attenuate{-3}}));
  EXPECT_NE((Operation{Operation::Attenuate{-3}}), (Operation{Operation::Attenuate{-4}}));
  EXPECT_NE((Operation{Operation::Attenuate{3}}), (Operation{Operation::EraseToFloor{3}}));
  EXPECT_EQ((Operation{Operation::Repair{}}), (Operation{Operation::Repair{}}));
  // The order of the cases.
  EXPECT_EQ((Operation{Operation::Attenuate{0}}).value.index(), 0u);
  EXPECT_EQ((Operation{Operation::EraseToFloor{0}}).value.index(), 1u);
  EXPECT_EQ((Operation{Operation::Repair{}}).value.index(), 2u);
}

TEST(SpectralEditKernel, TheFeatherIsAtLeastOneColumnAndTwoBins) {
  const SpectralGridConfig config(2048, 48000);  // columns 10.67 ms apart, bins 23.4 Hz
  const auto isAt = [&](Feather feather, std::int64_t columns, std::int64_t bins) {
    const Radii r = radii(feather, config);
    EXPECT_EQ(r.columns, columns) << feather.timeMs;
    EXPECT_EQ(r.bins, bins) << feather.freqHz;
  };
  isAt({0, 0}, 1, 2);
  isAt({-50, -50}, 1, 2);
  isAt({15.9, 58.5}, 1, 2);
  isAt({16.1, 58.7}, 2, 3);
  isAt({100, 1e6}, 9, 1024);
}

TEST(SpectralEditKernel, TheAffectedSamplesAreThoseOfTheColumnsFrames) {
  const SpectralGridConfig config(2048, 48000);
  EXPECT_EQ(affectedSampleRange({3, 3}, config), (SampleRange{1536, 3584}));
  EXPECT_EQ(affectedSampleRange({-1, 4}, config), (SampleRange{-512, 4096}));
}

// --- roundTrip -------------------------------------------------------------------------------------------

TEST(SpectralEditKernel, WithoutAnEditTheSignalComesBack) {
  std::mt19937 rng(14);
  for (const std::int64_t N : {4, 8, 64, 256, 2048})
    for (int trial = 0; trial < 6; ++trial) {
      const std::int64_t length = N - 1 + static_cast<std::int64_t>(rng() % at(6 * N));
      const std::vector<float> samples = noise(rng, length, 1);
      const SpectralGridConfig config(N, 48000);
      const std::vector<float> result = roundTrip(samples, config);
      ASSERT_EQ(result.size(), samples.size());
      std::vector<Real> power(samples.size());
      const std::int64_t columns = length >= N ? (length - N) / (N / 4) + 1 : 0;
      for (std::int64_t c = 0; c < columns; ++c)
        for (std::int64_t n = 0; n < N; ++n)
          power[at(c * (N / 4) + n)] += std::pow((1 - std::cos(2 * pi * n / N)) / 2, Real{2});
      int kept = 0;
      for (std::size_t n = 0; n < samples.size(); ++n) {
        if (power[n] < 0.000999L) {
          ASSERT_EQ(result[n], samples[n]) << N << " " << n;
          ++kept;
        }
        ASSERT_NEAR(result[n], samples[n], 1e-6) << N << " " << n;
      }
      EXPECT_GT(kept, 0);  // the very first sample has no window
    }
}

TEST(SpectralEditKernel, ASignalShorterThanAFrameComesBackToTheBit) {
  const std::vector<float> samples = noiseOf(15, 63);
  EXPECT_EQ(roundTrip(samples, SpectralGridConfig(64, 48000)), samples);
  EXPECT_EQ(roundTrip({}, SpectralGridConfig(2, 48000)), std::vector<float>{});
}

// --- splicedAffectedSlice --------------------------------------------------------------------------------

TEST(SpectralEditKernel, ASliceFadesFromAndToTheOriginal) {
  const std::vector<float> processed(100, 3.0f), original(100, 1.0f);
  const std::vector<float> slice = splicedAffectedSlice(processed, original, {10, 60}, 4);
  ASSERT_EQ(slice.size(), 50u);
  for (std::size_t i = 0; i < 50; ++i) {
    const std::size_t k = std::min(i, 49 - i);  // from the nearer end
    const double w = k < 4 ? (1 - std::cos(static_cast<double>(k + 1) * std::numbers::pi / 5)) / 2 : 1;
    EXPECT_NEAR(slice[i], 1 + 2 * w, 1e-6) << i;
  }
}

TEST(SpectralEditKernel, ACrossfadeTakesAtMostHalfTheSlice) {
  const std::vector<float> processed = noiseOf(16, 100), original = noiseOf(17, 100);
  for (const std::int64_t length : {1, 2, 3, 10, 11}) {
    const SampleRange span = {20, 20 + length};
    EXPECT_EQ(splicedAffectedSlice(processed, original, span, 1'000'000),
              splicedAffectedSlice(processed, original, span, length / 2));
    EXPECT_EQ(splicedAffectedSlice(processed, original, span, 0),
              std::vector<float>(processed.begin() + 20, processed.begin() + 20 + length));
  }
}

TEST(SpectralEditKernel, ASliceIsCutToTheSignal) {
  const std::vector<float> processed = noiseOf(18, 100), original = noiseOf(19, 100);
  EXPECT_EQ(splicedAffectedSlice(processed, original, {-50, 30}, 0),
            std::vector<float>(processed.begin(), processed.begin() + 30));
  EXPECT_EQ(splicedAffectedSlice(processed, original, {90, 300}, 0),
            std::vector<float>(processed.begin() + 90, processed.end()));
  for (const SampleRange span :
       {SampleRange{100, 200}, SampleRange{-9, 0}, SampleRange{50, 50}, SampleRange{60, 40}})
    EXPECT_TRUE(splicedAffectedSlice(processed, original, span, 3).empty());
}

// --- Levels ----------------------------------------------------------------------------------------------

TEST(SpectralEditKernel, LevelsAreThoseOfADirectTransform) {
  for (const std::int64_t N : {4, 16, 64}) {
    const SpectralGridConfig config(N, 48000);
    const std::vector<float> samples = noiseOf(20, 5 * N + 3);
    const Twin twin(samples, config);
    const DisplayGrid grid = displayMagnitudesDb(samples, config);
    ASSERT_EQ(grid.columns, twin.columns());
    ASSERT_EQ(grid.values.size(), at(twin.columns() * twin.bins()));
    for (std::int64_t c = 0; c < grid.columns; ++c)
      for (std::int64_t b = 0; b < twin.bins(); ++b)
        ASSERT_NEAR(grid.values[at(c * twin.bins() + b)], static_cast<double>(twin.magnitude(c, b)), 1e-3)
            << N << " " << c << " " << b;
  }
}

TEST(SpectralEditKernel, AFullScaleSineReadsZeroAndSilenceIsAtTheBottom) {
  const SpectralGridConfig config(2048, 48000);
  const DisplayGrid tone = displayMagnitudesDb(sine(48000, 4096, 1500, 1), config);
  ASSERT_EQ(tone.columns, 5);
  for (std::size_t c = 0; c < 5; ++c) EXPECT_NEAR(tone.values[c * 1025 + 64], 0, 1e-3);
  for (const float level : displayMagnitudesDb(std::vector<float>(4096), config).values)
    EXPECT_NEAR(level, -200, 1e-4);
}

TEST(SpectralEditKernel, ASignalShorterThanAFrameHasNoLevels) {
  const DisplayGrid grid = displayMagnitudesDb(noiseOf(21, 63), SpectralGridConfig(64, 48000));
  EXPECT_EQ(grid.columns, 0);
  EXPECT_TRUE(grid.values.empty());
}

TEST(SpectralEditKernel, PackedFramesReadAsTheColumnsThatTheyAre) {
  const SpectralGridConfig config(256, 48000);
  const std::vector<float> samples = noiseOf(22, 4000);
  const DisplayGrid grid = displayMagnitudesDb(samples, config);
  std::vector<float> windows, expected;
  for (const std::int64_t c : {7, 0, 31}) {
    windows.insert(windows.end(), samples.begin() + c * 64, samples.begin() + c * 64 + 256);
    expected.insert(expected.end(), grid.values.begin() + c * 129, grid.values.begin() + (c + 1) * 129);
  }
  EXPECT_EQ(displayMagnitudesDbPacked(windows, 3, config), expected);
  EXPECT_TRUE(displayMagnitudesDbPacked({}, 0, config).empty());
  // No hop is needed.
  EXPECT_EQ(displayMagnitudesDbPacked(std::vector<float>{0.5f, 0.5f}, 1, SpectralGridConfig(2, 1)).size(),
            2u);
}

// --- The floor -------------------------------------------------------------------------------------------

constexpr double rate = 48000;

// Levels of bands a third of an octave wide, from 200 Hz to 16 kHz, over frames of 4096 samples.
std::vector<double> thirdOctaves(const std::vector<float>& samples, std::int64_t from, std::int64_t to) {
  const SpectralGridConfig config(4096, rate);
  const DisplayGrid grid = displayMagnitudesDb(std::span(samples).subspan(at(from), at(to - from)), config);
  std::vector<double> bands;
  for (int band = 23; band <= 42; ++band) {
    double sum = 0, count = 0;
    for (std::int64_t b = 0; b < config.binCount(); ++b) {
      const double nearest = std::round(10 * std::log10(std::max(config.frequency(b), 1.0)));
      if (nearest != band) continue;
      for (std::int64_t c = 0; c < grid.columns; ++c) {
        sum += std::pow(10, grid.values[at(c * config.binCount() + b)] / 10);
        count += 1;
      }
    }
    bands.push_back(10 * std::log10(sum / count));
  }
  return bands;
}

// Frames at multiples of the hop are all equal.
TEST(SpectralEditKernel, TheFloorOfEqualCellsIsTheirLevel) {
  const SpectralGridConfig config(256, rate);
  const std::vector<float> period = noiseOf(23, 64);
  std::vector<float> samples;
  while (samples.size() < 12'000) samples.insert(samples.end(), period.begin(), period.end());
  const std::vector<float> levels = displayMagnitudesDb(std::span(samples).first(256), config).values;
  const std::vector<float> floor = perBinFloor(samples, config, SpectralMask(129), {0, 150});
  ASSERT_EQ(floor.size(), 129u);
  for (std::size_t b = 0; b < 129; b += 4) EXPECT_NEAR(floor[b], levels[b], 0.01) << b;
}

TEST(SpectralEditKernel, SelectedCellsDoNotCountForTheFloor) {
  const SpectralGridConfig config(64, rate);
  std::vector<float> samples = noiseOf(24, 16'000, 0.001);
  const std::vector<float> quiet = samples, loud = noiseOf(25, 16'000);
  for (std::int64_t n = 2000; n < 14'000; ++n) samples[at(n)] += loud[at(n)];  // three quarters
  const ClosedRange all = {0, 996};
  const SpectralMask mask = everyBin(config, {120, 880});
  const std::vector<float> floor = perBinFloor(samples, config, mask, all);
  const std::vector<float> expected = perBinFloor(quiet, config, mask, all);
  for (std::size_t b = 0; b < floor.size(); ++b) EXPECT_EQ(floor[b], expected[b]);
  EXPECT_GT(perBinFloor(samples, config, SpectralMask(33), all)[10], floor[10] + 40);
}

// 3,000 columns, of which the first are loud and the last are not: all parts of them count.
TEST(SpectralEditKernel, OfALongSelectionsSurroundingsTheFloorIsOfAllParts) {
  const SpectralGridConfig config(64, rate);
  const std::vector<float> loud = noiseOf(31, 16'000), quiet = noiseOf(32, 32'064, 0.001);
  std::vector<float> samples = loud;
  samples.insert(samples.end(), quiet.begin(), quiet.end());
  const std::vector<float> floor = perBinFloor(samples, config, SpectralMask(33), {0, 3000});
  const std::vector<float> expected = perBinFloor(quiet, config, SpectralMask(33), {0, 900});
  for (std::size_t b = 0; b < floor.size(); ++b) EXPECT_NEAR(floor[b], expected[b], 3) << b;
}

// One sample that is no number takes four columns out of the floor, and no more.
TEST(SpectralEditKernel, FramesThatAreNotFiniteDoNotCountForTheFloor) {
  const SpectralGridConfig config(64, rate);
  std::vector<float> samples = noiseOf(33, 16'000);
  const ClosedRange all = {0, 996};
  const SpectralMask without = everyBin(config, {497, 500});
  const std::vector<float> expected = perBinFloor(samples, config, without, all);
  samples[8000] = std::nanf("");
  EXPECT_EQ(perBinFloor(samples, config, SpectralMask(33), all), expected);
  const std::vector<float> nothing(1000, std::nanf(""));
  EXPECT_EQ(perBinFloor(nothing, config, SpectralMask(33), all), std::vector<float>(33, -200.0f));
}

// A bin that is selected all the time: a hum.
TEST(SpectralEditKernel, ABinThatIsSelectedThroughoutGetsItsNeighboursFloor) {
  const SpectralGridConfig config(64, rate);
  const std::vector<float> samples = noiseOf(26, 4000);
  const ClosedRange all = {0, 246};
  const std::vector<float> free = perBinFloor(samples, config, SpectralMask(33), all);
  const std::vector<float> within = perBinFloor(samples, config, rectangle(33, all, {10, 13}), all);
  for (std::int64_t b = 0; b < 33; ++b) {
    const double t = (static_cast<double>(b) - 9) / 5;
    const double expected = b < 10 || b > 13 ? free[at(b)] : (1 - t) * free[9] + t * free[14];
    EXPECT_NEAR(within[at(b)], expected, 1e-4) << b;
  }
  const std::vector<float> atEnds = perBinFloor(
      samples, config,
      [&] {
        SpectralMask mask = rectangle(33, all, {0, 3});
        mask.rasterizeRect(all, {30, 32}, CombineMode::add);
        return mask;
      }(),
      all);
  for (const std::size_t b : {0u, 1u, 3u}) EXPECT_EQ(atEnds[b], free[4]);
  for (const std::size_t b : {30u, 32u}) EXPECT_EQ(atEnds[b], free[29]);
  // Nothing is left to tell apart.
  EXPECT_EQ(perBinFloor(samples, config, everyBin(config, {-9, 900}), all), free);
}

TEST(SpectralEditKernel, TheFloorIsOfTheColumnsThatThereAre) {
  const SpectralGridConfig config(64, rate);
  const std::vector<float> samples = noiseOf(27, 4000);
  EXPECT_EQ(perBinFloor(samples, config, SpectralMask(33), {-50, 9999}),
            perBinFloor(samples, config, SpectralMask(33), {0, 246}));
  EXPECT_TRUE(perBinFloor(samples, config, SpectralMask(33), {247, 300}).empty());
  EXPECT_TRUE(perBinFloor(noiseOf(28, 60), config, SpectralMask(33), {0, 3}).empty());
}

double worstDeviation(const std::vector<float>& floor, double powerDB, int widthInBins) {
  double worst = 0;
  for (std::size_t from = 4; from + at(widthInBins) < floor.size() - 4; from += at(widthInBins)) {
    double sum = 0;
    for (std::size_t b = from; b < from + at(widthInBins); ++b) sum += floor[b];
    const double off = sum / widthInBins - powerDB;
    if (std::abs(off) > std::abs(worst)) worst = off;
  }
  return worst;
}

// 0.01 RMS under a Hann window: its power is spread over N / 2 bins, each of which holds 1.5 of them, and a
// sine reads 3 dB more than its power.
double binLevelOfHiss(double rms, std::int64_t N) {
  return 10 * std::log10(rms * rms * 2 / static_cast<double>(N) * 1.5 * 2);
}

TEST(SpectralEditKernel, TheFloorFindsSteadyNoise) {
  const SpectralGridConfig config(2048, rate);
  for (unsigned seed = 1; seed <= 5; ++seed) {
    std::mt19937 rng(seed);
    const std::vector<float> samples = hiss(rng, 220 * 512, 0.01);
    const std::vector<float> floor = perBinFloor(samples, config, SpectralMask(1025), {0, 216});
    EXPECT_LT(std::abs(worstDeviation(floor, binLevelOfHiss(0.01, 2048), 8)), 2) << seed;
    EXPECT_NEAR(worstDeviation(floor, binLevelOfHiss(0.01, 2048), 1008), -0.5, 0.1) << seed;
  }
}

TEST(SpectralEditKernel, TheFloorFindsSteadyNoiseBehindProgrammeInAThirdOfTheColumns) {
  const SpectralGridConfig config(2048, rate);
  for (const double louderDB : {0.0, 3.0, 6.0, 10.0, 15.0, 20.0, 40.0})
    for (unsigned seed = 1; seed <= 3; ++seed) {
      std::mt19937 rng(seed);
      std::vector<float> samples = hiss(rng, 220 * 512, 0.01);
      const std::vector<float> programme = hiss(rng, 220 * 512, 0.01 * amplitudeOf(louderDB));
      // Four times, so long that a third of the columns touch it: a frame is 2048 long.
      constexpr std::size_t period = 220 * 512 / 4, duration = period / 3 - 2048;
      for (std::size_t n = 0; n < samples.size(); ++n)
        if (n % period < duration) samples[n] += programme[n];
      const std::vector<float> floor = perBinFloor(samples, config, SpectralMask(1025), {0, 216});
      EXPECT_LT(std::abs(worstDeviation(floor, binLevelOfHiss(0.01, 2048), 8)), 2) << louderDB << " " << seed;
    }
}

// Neither a hole nor a residue: a second of a burst, 25 dB above the noise, and beside it programme.
TEST(SpectralEditKernel, ABurstErasedToTheFloorStandsLikeItsSurroundings) {
  const SpectralGridConfig config(2048, rate);
  for (const bool hasProgramme : {false, true})
    for (const double seconds : {0.2, 1.0})
      for (unsigned seed = 1; seed <= 3; ++seed) {
        std::mt19937 rng(seed);
        const std::int64_t length = 5 * 48'000;
        const std::vector<float> noiseAlone = hiss(rng, length, 0.01);
        const std::vector<float> burst = hiss(rng, length, 0.01 * amplitudeOf(25));
        const auto from = static_cast<std::int64_t>((2.5 - seconds / 2) * rate);
        const auto to = static_cast<std::int64_t>((2.5 + seconds / 2) * rate);
        std::vector<float> samples = noiseAlone;
        for (std::int64_t n = 0; n < length; ++n) {
          if (n >= from && n < to) samples[at(n)] += burst[at(n)];
          const std::int64_t distance = std::max(from - n, n - to);
          if (hasProgramme && distance > 8'000 && distance % 24'000 > 18'000) samples[at(n)] += burst[at(n)];
        }
        const Feather feather = {10, 50};
        const Radii r = radii(feather, config);
        const SpectralMask mask =
            everyBin(config, {(from - 2048) / 512 - r.columns, to / 512 + 1 + r.columns});
        const std::vector<float> erased =
            process(samples, config, mask, {Operation::EraseToFloor{0}}, feather);
        const std::vector<double> before = thirdOctaves(noiseAlone, 0, length);
        const std::vector<double> after = thirdOctaves(erased, from, to);
        for (std::size_t band = 0; band < before.size(); ++band)
          EXPECT_LT(std::abs(after[band] - before[band]), 3)
              << "band " << band << ", " << seconds << " s, seed " << seed << ", programme " << hasProgramme;
      }
}

// --- Preconditions ---------------------------------------------------------------------------------------

TEST(SpectralEditKernelDeathTest, WrongGeometryStopsWhereAHopIsNeeded) {
  const SpectralGridConfig config(2, 48000);
  const std::vector<float> samples(10);
  EXPECT_EQ(process(samples, config, SpectralMask(2), {Operation::Repair{}}, leastFeather), samples);
  EXPECT_EQ(process({}, config, everyBin(config, {0, 1}), {Operation::Repair{}}, leastFeather),
            std::vector<float>{});
  EXPECT_DEATH(process(samples, config, everyBin(config, {0, 1}), {Operation::Repair{}}, leastFeather),
               "an fftSize below 4 has no columns");
  EXPECT_DEATH(roundTrip(samples, config), "an fftSize below 4 has no columns");
  EXPECT_DEATH(displayMagnitudesDb(samples, config), "an fftSize below 4 has no columns");
}

TEST(SpectralEditKernelDeathTest, LengthsThatDifferStopTheProgram) {
  const std::vector<float> ten(10), nine(9);
  EXPECT_DEATH(splicedAffectedSlice(ten, nine, {0, 5}, 1), "takes signals of one length");
  std::vector<float> slice(10);
  EXPECT_DEATH(crossfadeEnds(slice, std::span(ten).first(6), std::span(ten).first(6)),
               "at most half the slice");
  EXPECT_DEATH(crossfadeEnds(slice, std::span(ten).first(3), std::span(ten).first(2)),
               "two ends of one length");
  EXPECT_DEATH(displayMagnitudesDbPacked(ten, 3, SpectralGridConfig(4, 1)), "takes fftSize samples for each");
}

TEST(SpectralEditKernelDeathTest, ALevelThatIsNoNumberStopsTheProgram) {
  const SpectralGridConfig config(64, 48000);
  const std::vector<float> samples(1000);
  for (const Operation& operation :
       {Operation{Operation::Attenuate{std::nanf("")}}, Operation{Operation::EraseToFloor{std::nanf("")}}})
    EXPECT_DEATH(process(samples, config, everyBin(config, {3, 4}), operation, leastFeather),
                 "an operation's level must be a number");
}

TEST(SpectralEditKernelDeathTest, AFeatherThatIsNotFiniteStopsTheProgram) {
  const SpectralGridConfig config(64, 48000);
  for (const double value : {std::nan(""), std::numeric_limits<double>::infinity()}) {
    EXPECT_DEATH(radii({value, 0}, config), "a feather must be finite");
    EXPECT_DEATH(radii({0, value}, config), "a frequency must be finite");
  }
}

}  // namespace
}  // namespace vellum
