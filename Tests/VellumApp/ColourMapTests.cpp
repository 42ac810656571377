#include "VellumApp/ColourMap.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace vellum {
namespace {

struct Lab {
  double lightness, a, b;
};

// sRGB to CIELAB, D65.
Lab labOf(const Colour& colour) {
  const auto linear = [](std::uint8_t byte) {
    const double value = byte / 255.0;
    return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
  };
  const double r = linear(colour.red), g = linear(colour.green), b = linear(colour.blue);
  const auto f = [](double t) { return t > 216.0 / 24389 ? std::cbrt(t) : (24389.0 / 27 * t + 16) / 116; };
  const double x = f((0.4124564 * r + 0.3575761 * g + 0.1804375 * b) / 0.95047);
  const double y = f(0.2126729 * r + 0.7151522 * g + 0.0721750 * b);
  const double z = f((0.0193339 * r + 0.1191920 * g + 0.9503041 * b) / 1.08883);
  return {116 * y - 16, 500 * (x - y), 200 * (y - z)};
}

// Eight bits per channel move a lightness by up to half a unit, next to black most of all.
TEST(ColourMap, LightnessRisesInEqualSteps) {
  const auto& colours = levelColours();
  double previous = -1;
  for (std::size_t k = 0; k < colours.size(); ++k) {
    const double lightness = labOf(colours[k]).lightness;
    EXPECT_NEAR(lightness, 1 + 97 * static_cast<double>(k) / 255, 0.6) << k;
    EXPECT_GE(lightness, previous - 0.02) << k;
    previous = lightness;
  }
  EXPECT_LT(labOf(colours.front()).lightness, 2);
  EXPECT_GT(labOf(colours.back()).lightness, 97);
}

// Over every sixteenth of the range the colours move equally far, hue and chroma included.
TEST(ColourMap, DifferencesAreEven) {
  std::vector<double> differences;
  for (std::size_t k = 0; k + 17 <= levelColours().size(); k += 17) {
    const Lab from = labOf(levelColours()[k]), to = labOf(levelColours()[std::min<std::size_t>(k + 17, 255)]);
    differences.push_back(std::hypot(to.lightness - from.lightness, to.a - from.a, to.b - from.b));
  }
  const auto [least, most] = std::minmax_element(differences.begin(), differences.end());
  EXPECT_GT(*least, 0.8 * *most);
}

TEST(ColourMap, EveryLevelHasAColourOfItsOwn) {
  for (std::size_t k = 1; k < levelColours().size(); ++k)
    EXPECT_NE(levelColours()[k], levelColours()[k - 1]) << k;
}

}  // namespace
}  // namespace vellum
