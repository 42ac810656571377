#include "VellumApp/ColourMap.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>

namespace vellum {
namespace {

// CIELAB (D65) to linear sRGB, by the definitions of both (CIE 15, IEC 61966-2-1).
std::array<double, 3> linearRGB(double lightness, double a, double b) {
  const auto cubed = [](double f) {
    constexpr double delta = 6.0 / 29;
    return f > delta ? f * f * f : 3 * delta * delta * (f - 4.0 / 29);
  };
  const double fy = (lightness + 16) / 116;
  const double x = 0.95047 * cubed(fy + a / 500), y = cubed(fy), z = 1.08883 * cubed(fy - b / 200);
  return {3.2404542 * x - 1.5371385 * y - 0.4985314 * z, -0.9692660 * x + 1.8760108 * y + 0.0415560 * z,
          0.0556434 * x - 0.2040259 * y + 1.0572252 * z};
}

bool isInGamut(const std::array<double, 3>& rgb) {
  return std::all_of(rgb.begin(), rgb.end(), [](double value) { return value > -1e-6 && value < 1 + 1e-6; });
}

std::uint8_t encoded(double linear) {
  const double value = std::clamp(linear, 0.0, 1.0);
  const double gamma = value <= 0.0031308 ? 12.92 * value : 1.055 * std::pow(value, 1 / 2.4) - 0.055;
  return static_cast<std::uint8_t>(std::lround(255 * gamma));
}

Colour colourAt(double t) {
  const double lightness = 1 + 97 * t, hue = (285 + 165 * t) * std::numbers::pi / 180;
  const auto withChroma = [&](double chroma) {
    return linearRGB(lightness, chroma * std::cos(hue), chroma * std::sin(hue));
  };
  double chroma = 65 * std::sin(std::numbers::pi * t);
  if (!isInGamut(withChroma(chroma))) {
    double possible = 0;
    for (double step = chroma / 2; step > 1e-6; step /= 2)
      if (isInGamut(withChroma(possible + step))) possible += step;
    chroma = possible;
  }
  const auto rgb = withChroma(chroma);
  return {encoded(rgb[0]), encoded(rgb[1]), encoded(rgb[2])};
}

}  // namespace

const std::array<Colour, 256>& levelColours() {
  static const auto colours = [] {
    std::array<Colour, 256> made;
    for (std::size_t k = 0; k < made.size(); ++k) made[k] = colourAt(static_cast<double>(k) / 255);
    return made;
  }();
  return colours;
}

}  // namespace vellum
