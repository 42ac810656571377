#include "VellumCore/FFTWindowType.hpp"

#include <array>
#include <cmath>
#include <cstddef>
#include <numbers>

namespace vellum {

namespace {

struct Shape {
  std::string_view displayName;
  std::array<double, 5> cosines;  // w = sum over k of cosines[k] cos(k x)
};

const Shape& shapeOf(FFTWindowType type) {
  static constexpr std::array<Shape, 5> shapes = {
      {{"Hann", {0.5, -0.5}},
       {"Hamming", {0.54, -0.46}},
       {"Blackman", {0.42, -0.5, 0.08}},
       {"Blackman-Harris", {0.35875, -0.48829, 0.14128, -0.01168}},
       {"Flat Top", {0.21557894, -0.41663158, 0.27726316, -0.083578944, 0.006947368}}}};
  return shapes[static_cast<std::size_t>(type)];
}

}  // namespace

std::string_view displayName(FFTWindowType type) {
  return shapeOf(type).displayName;
}

void fillWindow(FFTWindowType type, std::span<float> window) {
  const auto& cosines = shapeOf(type).cosines;
  for (std::size_t i = 0; i < window.size(); ++i) {
    const double c =
        std::cos(2 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(window.size()));
    // Clenshaw: one cosine serves all of its multiples.
    double newest = 0, before = 0;
    for (std::size_t k = cosines.size() - 1; k > 0; --k) {
      const double next = cosines[k] + (2 * c * newest - before);
      before = newest;
      newest = next;
    }
    window[i] = static_cast<float>(cosines[0] + (c * newest - before));
  }
}

}  // namespace vellum
