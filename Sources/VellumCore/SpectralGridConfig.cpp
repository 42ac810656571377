#include "VellumCore/SpectralGridConfig.hpp"

#include <algorithm>
#include <cmath>

#include "VellumCore/Support/PowerOfTwo.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {
namespace {

std::int64_t requiredHop(const SpectralGridConfig& config) {
  VELLUM_REQUIRE(config.hop() > 0, "SpectralGridConfig: an fftSize below 4 has no columns");
  return config.hop();
}

}  // namespace

SpectralGridConfig::SpectralGridConfig(std::int64_t size, double rate) : fftSize(size), sampleRate(rate) {
  VELLUM_REQUIRE(isPowerOfTwo(size), "SpectralGridConfig: fftSize must be a power of two");
  VELLUM_REQUIRE(rate > 0, "SpectralGridConfig: sampleRate must be above 0");
}

std::int64_t SpectralGridConfig::bin(double forFrequency) const {
  const double bin = std::round(forFrequency * static_cast<double>(fftSize) / sampleRate);
  VELLUM_REQUIRE(std::isfinite(bin), "SpectralGridConfig: a frequency must be finite");
  return static_cast<std::int64_t>(std::clamp(bin, 0.0, static_cast<double>(fftSize / 2)));
}

double SpectralGridConfig::frequency(std::int64_t forBin) const {
  return sampleRate * static_cast<double>(forBin) / static_cast<double>(fftSize);
}

std::int64_t SpectralGridConfig::column(std::int64_t forSample) const {
  return forSample / requiredHop(*this);
}

SampleRange SpectralGridConfig::sampleRange(std::int64_t forColumn) const {
  const std::int64_t most = (std::int64_t{1} << 62) / fftSize;
  VELLUM_REQUIRE(forColumn >= -most && forColumn <= most,
                 "SpectralGridConfig: a column's samples must fit 64 bits");
  return {forColumn * hop(), forColumn * hop() + fftSize};
}

std::int64_t SpectralGridConfig::columnCount(std::int64_t forSampleCount) const {
  return forSampleCount >= fftSize ? (forSampleCount - fftSize) / requiredHop(*this) + 1 : 0;
}

}  // namespace vellum
