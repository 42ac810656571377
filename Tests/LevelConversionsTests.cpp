#include "VellumCore/LevelConversions.hpp"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace vellum {
namespace {

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr double roundingUnit = 0x1p-24;  // of a 32-bit float: half the distance from 1 to the next one

TEST(LevelConversions, DecibelsFromMinus200DownAreExactlyZero) {
  EXPECT_EQ(dbToLinear(-200.0f), 0.0f);
  EXPECT_EQ(dbToLinear(-200.1f), 0.0f);
  EXPECT_EQ(dbToLinear(-infinity), 0.0f);
}

TEST(LevelConversions, DecibelsJustAboveMinus200AreNotZero) {
  EXPECT_NEAR(dbToLinear(-199.9f), 1.0116e-10, 1e-14);
  EXPECT_GT(dbToLinear(std::nextafter(-200.0f, 0.0f)), 0.0f);
}

TEST(LevelConversions, ZeroDecibelsIsOne) {
  EXPECT_EQ(dbToLinear(0.0f), 1.0f);
  EXPECT_EQ(linearToDB(1.0f), 0.0f);
}

TEST(LevelConversions, LinearZeroAndBelowIsMinusInfinity) {
  EXPECT_EQ(linearToDB(0.0f), -infinity);
  EXPECT_EQ(linearToDB(-0.0f), -infinity);
  EXPECT_EQ(linearToDB(-1.0f), -infinity);
  EXPECT_EQ(linearToDB(-infinity), -infinity);
}

// Every value above 0 has a level, down to the smallest one there is.
TEST(LevelConversions, SmallestLinearValuesHaveALevel) {
  EXPECT_NEAR(linearToDB(std::numeric_limits<float>::min()), 20 * std::log10(0x1p-126), 1e-3);
  EXPECT_NEAR(linearToDB(std::numeric_limits<float>::denorm_min()), 20 * std::log10(0x1p-149), 1e-3);
}

TEST(LevelConversions, TheTwoAreNotMirrorImagesAtTheBottom) {
  EXPECT_EQ(linearToDB(dbToLinear(-200.0f)), -infinity);
  EXPECT_EQ(dbToLinear(linearToDB(0.0f)), 0.0f);
  EXPECT_NEAR(linearToDB(1e-11f), -220.0f, 1e-4);  // stands below what dbToLinear can give
}

// dB / 20 is rounded once, which the exponential enlarges by ln 10 times its own size; the result is rounded
// once more, and the power itself is good to a unit.
TEST(LevelConversions, DbToLinearFollowsItsFormulaToRounding) {
  for (float dB = -199.75f; dB <= 200.0f; dB += 0.37f) {
    const double exact = std::pow(10.0, static_cast<double>(dB) / 20.0);
    const double exponent = std::abs(static_cast<double>(dB) / 20.0) * std::log(10.0);
    EXPECT_NEAR(dbToLinear(dB), exact, exact * roundingUnit * (exponent + 3)) << dB << " dB";
  }
}

TEST(LevelConversions, LinearToDBFollowsItsFormulaToRounding) {
  for (float value = 1e-38f; value < 1e38f; value *= 1.7f) {
    const double exact = 20.0 * std::log10(static_cast<double>(value));
    EXPECT_NEAR(linearToDB(value), exact, std::abs(exact) * roundingUnit * 4) << value;
  }
}

TEST(LevelConversions, InfiniteAndNaNPassThrough) {
  EXPECT_EQ(dbToLinear(infinity), infinity);
  EXPECT_EQ(linearToDB(infinity), infinity);
  EXPECT_TRUE(std::isnan(dbToLinear(nan)));
  EXPECT_TRUE(std::isnan(linearToDB(nan)));
}

}  // namespace
}  // namespace vellum
