#include "VellumCore/ChannelLevels.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/LevelConversions.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {

ChannelLevels::ChannelLevels(std::int64_t channelCount) {
  VELLUM_REQUIRE(channelCount >= 0, "ChannelLevels: channelCount must not be negative");
  squares_.resize(static_cast<std::size_t>(channelCount));
}

void ChannelLevels::add(std::span<const float* const> channelData, std::int64_t frameCount) {
  if (frameCount < 1) return;
  VELLUM_REQUIRE(channelData.size() == squares_.size(), "ChannelLevels: add takes one pointer per channel");
  frameCount_ += frameCount;
  for (std::size_t c = 0; c < channelData.size(); ++c) {
    if (!channelData[c]) continue;
    peak_ = std::max(peak_, kernels().peakMagnitude(channelData[c], frameCount));
    const double squares = kernels().sumOfSquares(channelData[c], frameCount);
    squares_[c] += squares;
    // The square of a finite 32-bit sample is finite in 64 bit, so the sum tells whether to look closer.
    if (!std::isfinite(squares)) nonFiniteSamples_ += kernels().nonFiniteCount(channelData[c], frameCount);
  }
}

float ChannelLevels::samplePeakDBFS() const {
  return linearToDB(peak_);
}

float ChannelLevels::rmsDBFS(std::size_t channel) const {
  VELLUM_REQUIRE(channel < squares_.size(), "ChannelLevels: no such channel");
  const double squares = squares_[channel];
  if (!(squares > 0) || !std::isfinite(squares)) return -std::numeric_limits<float>::infinity();
  return static_cast<float>(10.0 * std::log10(squares / static_cast<double>(frameCount_)));
}

}  // namespace vellum
