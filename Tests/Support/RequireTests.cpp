#include "VellumCore/Support/Require.hpp"

#include <gtest/gtest.h>

namespace {

TEST(Require, FalseConditionPrintsOneLineAndStops) {
  EXPECT_DEATH(VELLUM_REQUIRE(1 + 1 == 3, "Arithmetic: sums must hold"),
               "^VellumCore stopped: Arithmetic: sums must hold\n$");
}

TEST(Require, TrueConditionIsEvaluatedOnceAndPasses) {
  int evaluations = 0;
  VELLUM_REQUIRE(++evaluations == 1, "Arithmetic: counted");
  EXPECT_EQ(evaluations, 1);
}

}  // namespace
