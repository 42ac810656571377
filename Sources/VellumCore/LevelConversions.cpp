#include "VellumCore/LevelConversions.hpp"

#include <cmath>
#include <limits>

namespace vellum {

float dbToLinear(float dB) {
  return dB <= -200.0f ? 0.0f : std::pow(10.0f, dB / 20.0f);
}

float linearToDB(float value) {
  return value <= 0.0f ? -std::numeric_limits<float>::infinity() : 20.0f * std::log10(value);
}

}  // namespace vellum
