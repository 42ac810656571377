#include "VellumCore/FFTProcessor.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/Support/PowerOfTwo.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {

namespace {

constexpr float startDB = -100.0f;
constexpr float magnitudeFloor = 1e-8f;  // -160 dB

std::int64_t checkedSize(std::int64_t fftSize) {
  VELLUM_REQUIRE(isPowerOfTwo(fftSize), "FFTProcessor: fftSize must be a power of two");
  return fftSize;
}

}  // namespace

FFTProcessor::FFTProcessor(std::int64_t fftSize, double sampleRate, FFTWindowType windowType)
    : fftSize_(checkedSize(fftSize)),
      sampleRate_(sampleRate),
      currentWindowType_(windowType),
      spectrum_(fftSize, windowType) {
  smoothedMagnitudes_.assign(static_cast<std::size_t>(binCount()), startDB);
  rawMagnitudes_ = smoothedMagnitudes_;
}

void FFTProcessor::setWindowType(FFTWindowType type) {
  if (type == currentWindowType_) return;
  currentWindowType_ = type;
  spectrum_.setWindowType(type);
  std::fill(smoothedMagnitudes_.begin(), smoothedMagnitudes_.end(), startDB);
}

std::span<const float> FFTProcessor::process(const float* samples, std::int64_t count) {
  const auto spectrum = spectrum_.process(samples, count);
  const std::size_t bins = rawMagnitudes_.size();
  float *raw = rawMagnitudes_.data(), *smoothed = smoothedMagnitudes_.data();
  for (std::size_t k = 0; k < bins; ++k) raw[k] = static_cast<float>(std::sqrt(spectrum[k]));
  if (bins > 0) raw[0] = static_cast<float>(2 * std::sqrt(spectrum.front() + spectrum.back()));
  kernels().powersToDecibels(1, magnitudeFloor, raw, binCount());
  for (std::size_t k = 0; k < bins; ++k) raw[k] *= 2;  // they are magnitudes
  const float previous = smoothingFactor, next = 1 - previous;
  for (std::size_t k = 0; k < bins; ++k) smoothed[k] = previous * smoothed[k] + next * raw[k];
  return smoothedMagnitudes_;
}

double FFTProcessor::frequency(std::int64_t forBin) const {
  return sampleRate_ * static_cast<double>(forBin) / static_cast<double>(fftSize_);
}

std::int64_t FFTProcessor::bin(double forFrequency) const {
  const double position = forFrequency * static_cast<double>(fftSize_) / sampleRate_;
  VELLUM_REQUIRE(position >= -0x1p63, "FFTProcessor: a frequency must be one whose bin fits 64 bits");
  return position < static_cast<double>(binCount())
             ? std::min(static_cast<std::int64_t>(position), binCount() - 1)
             : binCount() - 1;
}

}  // namespace vellum
