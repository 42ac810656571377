#include "VellumCore/PowerSpectrum.hpp"

#include <algorithm>
#include <cstddef>

#include "VellumCore/Fourier/RealFFT.hpp"
#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/Support/PowerOfTwo.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {

PowerSpectrum::PowerSpectrum(std::int64_t fftSize, FFTWindowType windowType) {
  VELLUM_REQUIRE(isPowerOfTwo(fftSize), "PowerSpectrum: fftSize must be a power of two");
  fft_ = std::make_unique<RealFFT>(fftSize);
  const auto size = static_cast<std::size_t>(fftSize);
  window_.resize(size);
  windowed_.resize(size);
  realPart_.resize(static_cast<std::size_t>(fft_->binCount()));
  imagPart_.resize(realPart_.size());
  power_.resize(size / 2 + 1);
  setWindowType(windowType);
}

PowerSpectrum::~PowerSpectrum() = default;
PowerSpectrum::PowerSpectrum(PowerSpectrum&&) noexcept = default;
PowerSpectrum& PowerSpectrum::operator=(PowerSpectrum&&) noexcept = default;

void PowerSpectrum::setWindowType(FFTWindowType windowType) {
  fillWindow(windowType, window_);
  double sum = 0, squares = 0;
  for (const float value : window_) {
    sum += static_cast<double>(value);
    squares += static_cast<double>(value) * static_cast<double>(value);
  }
  sum = std::max(sum, 1e-10);
  scale_ = 4 / (sum * sum);  // half a sine's amplitude stands at the bin, half at its mirror image
  noiseBandwidth_ = squares * static_cast<double>(window_.size()) / (sum * sum);
}

std::span<const double> PowerSpectrum::process(const float* samples, std::int64_t count) {
  const std::int64_t n = std::clamp<std::int64_t>(count, 0, fftSize());
  kernels().multiply(samples, window_.data(), windowed_.data(), n);
  std::fill(windowed_.begin() + n, windowed_.end(), 0.0f);
  fft_->forward(windowed_, realPart_, imagPart_);
  // In 64 bit, in which no square of a float is too large or too small.
  const std::size_t last = power_.size() - 1;
  for (std::size_t k = 1; k < last; ++k) {
    const auto re = static_cast<double>(realPart_[k]), im = static_cast<double>(imagPart_[k]);
    power_[k] = (re * re + im * im) * scale_;
  }
  const auto dc = static_cast<double>(realPart_[0]), nyquist = static_cast<double>(imagPart_[0]);
  power_[last] = nyquist * nyquist * (scale_ / 4);
  power_[0] = dc * dc * (scale_ / 4);  // last, because it is the only one where N is 1
  return power_;
}

}  // namespace vellum
