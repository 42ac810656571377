#include "VellumCore/TwoStageGate.hpp"

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace vellum {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

TEST(TwoStageGate, ConstantsFollowTheirFormulas) {
  EXPECT_DOUBLE_EQ(TwoStageGate::absoluteThreshold, std::pow(10.0, (-70.0 + 0.691) / 10.0));
  EXPECT_DOUBLE_EQ(TwoStageGate::relativeGateFactor, std::pow(10.0, -10.0 / 10.0));
}

TEST(TwoStageGate, LoudnessOfPowerHasAFloorAndTheOffset) {
  EXPECT_DOUBLE_EQ(loudnessOfPower(1.0), -0.691);
  EXPECT_DOUBLE_EQ(loudnessOfPower(100.0), 19.309);
  EXPECT_DOUBLE_EQ(loudnessOfPower(1e-10), -100.691);
  EXPECT_DOUBLE_EQ(loudnessOfPower(0.0), -100.691);
}

TEST(TwoStageGate, BlockEqualToAbsoluteThresholdDoesNotPass) {
  EXPECT_FALSE(TwoStageGate::passesAbsoluteGate(TwoStageGate::absoluteThreshold));
  EXPECT_TRUE(TwoStageGate::passesAbsoluteGate(std::nextafter(TwoStageGate::absoluteThreshold, 1.0)));
}

TEST(TwoStageGate, PowerThatIsNotFiniteDoesNotPass) {
  EXPECT_FALSE(TwoStageGate::passesAbsoluteGate(infinity));
  EXPECT_FALSE(TwoStageGate::passesAbsoluteGate(-infinity));
  EXPECT_FALSE(TwoStageGate::passesAbsoluteGate(std::numeric_limits<double>::quiet_NaN()));
  EXPECT_TRUE(TwoStageGate::passesAbsoluteGate(std::numeric_limits<double>::max()));
}

TEST(TwoStageGate, BlockEqualToRelativeThresholdStaysOut) {
  TwoStageGate gate;
  gate.admit(19.0);
  gate.admit(1.0);  // mean 10, threshold 10 x 0.1 = 1 exactly
  EXPECT_EQ(gate.relativePassCount(), 1);
  EXPECT_EQ(gate.relativePassSum(), 19.0);
  EXPECT_DOUBLE_EQ(gate.loudnessLUFS(), 10.0 * std::log10(19.0) - 0.691);
}

TEST(TwoStageGate, NothingAdmittedIsMinusInfinity) {
  TwoStageGate gate;
  EXPECT_EQ(gate.loudnessLUFS(), -infinity);
  gate.admit(0.5);
  gate.clear();
  EXPECT_EQ(gate.loudnessLUFS(), -infinity);
  EXPECT_EQ(gate.absolutePassCount(), 0);
  EXPECT_EQ(gate.absolutePassSum(), 0.0);
  EXPECT_EQ(gate.relativePassCount(), 0);
  EXPECT_EQ(gate.relativePassSum(), 0.0);
}

TEST(TwoStageGate, EqualsGatingAllBlocksAnewAfterEachBlock) {
  for (unsigned seed = 1; seed <= 5; ++seed) {
    std::mt19937 rng(seed);
    TwoStageGate gate;
    std::vector<double> admitted;
    for (int k = 0; k < 1500; ++k) {
      admitted.push_back(std::exp(std::uniform_real_distribution(-14.0, 0.0)(rng)));
      gate.admit(admitted.back());
      if (k % 37 != 0) continue;
      long double sum = 0, gatedSum = 0;
      std::int64_t gatedCount = 0;
      for (double power : admitted) sum += power;
      for (double power : admitted)
        if (static_cast<long double>(power) > sum / static_cast<long double>(admitted.size()) * 0.1L) {
          gatedSum += power;
          ++gatedCount;
        }
      ASSERT_EQ(gate.absolutePassCount(), k + 1);
      ASSERT_NEAR(gate.absolutePassSum(), static_cast<double>(sum), 1e-12 * static_cast<double>(sum));
      ASSERT_EQ(gate.relativePassCount(), gatedCount) << "seed " << seed;
      ASSERT_NEAR(gate.relativePassSum(), static_cast<double>(gatedSum),
                  1e-12 * static_cast<double>(gatedSum));
      ASSERT_NEAR(
          gate.loudnessLUFS(),
          static_cast<double>(10 * std::log10(gatedSum / static_cast<long double>(gatedCount)) - 0.691L),
          1e-10);
    }
  }
}

// The order in which blocks arrive does not matter: the gate is taken from all of them.
RC_GTEST_PROP(TwoStageGate, OrderOfBlocksDoesNotMatter, ()) {
  const auto powers = *rc::gen::nonEmpty(rc::gen::container<std::vector<int>>(rc::gen::inRange(1, 100000)));
  TwoStageGate forwards, backwards;
  for (auto power = powers.begin(); power != powers.end(); ++power) forwards.admit(*power);
  for (auto power = powers.rbegin(); power != powers.rend(); ++power) backwards.admit(*power);
  RC_ASSERT(forwards.relativePassCount() == backwards.relativePassCount());
  RC_ASSERT(forwards.relativePassSum() == backwards.relativePassSum());  // whole numbers: sums are exact
  RC_ASSERT(forwards.loudnessLUFS() == backwards.loudnessLUFS());
}

}  // namespace
}  // namespace vellum
