#include "VellumCore/SignalArithmetic.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "VellumCore/Kernels/Elementary.hpp"
#include "VellumCore/Kernels/Kernels.hpp"

namespace vellum {

namespace {

constexpr float largest = std::numeric_limits<float>::max();

}  // namespace

std::int64_t framesOfSeconds(double seconds, double sampleRate) {
  const double frames = std::round(seconds * sampleRate);
  if (!std::isfinite(frames) || frames < 0) return 0;
  return static_cast<std::int64_t>(std::min(frames, 9e15));
}

float flooredAmplitude(float dB) {
  constexpr double ln10 = 2.302585092994046;
  if (dB <= -200.0f) return 0;
  // A float ends far below e^700.
  const double amplitude = exponential(std::min(static_cast<double>(dB / 20.0f) * ln10, 700.0));
  return static_cast<float>(std::min(amplitude, static_cast<double>(largest)));
}

void saturate(float* x, std::int64_t n) {
  for (std::int64_t i = 0; i < n; ++i) x[i] = std::clamp(x[i], -largest, largest);
}

std::uint64_t moduleSeed(std::uint64_t channel, std::uint64_t module) {
  return ((module + 1) * 0xD1B54A32D192ED03u) ^ ((channel + 1) * 0x9E3779B97F4A7C15u);
}

void scaleToLevel(float* x, std::int64_t n, float measured, float target) {
  if (!(measured > 0)) return;
  const float factor = target / measured;
  if (std::isfinite(factor)) return kernels().scale(x, factor, n);
  // The level of a tone that has hardly left 0 when it ends: the factor has no place in 32 bit, its products
  // do.
  for (std::int64_t i = 0; i < n; ++i) x[i] = x[i] / measured * target;
}

float ceilingGain(float peak, float ceilingDB) {
  const float ceiling = flooredAmplitude(ceilingDB);
  return ceiling > 0 && peak > ceiling ? ceiling / peak : 1.0f;
}

}  // namespace vellum
