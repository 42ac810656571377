#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vellum {

// Planar 32-bit float samples, one buffer per channel in one piece of memory; zeroed.
class PlanarBuffer {
 public:
  PlanarBuffer(std::int64_t channelCount, std::int64_t frameCount)
      : samples_(static_cast<std::size_t>(channelCount * frameCount)) {
    for (std::int64_t c = 0; c < channelCount; ++c) channels_.push_back(samples_.data() + c * frameCount);
  }
  std::span<float* const> channels() const { return channels_; }
  std::vector<const float*> constChannels() const { return {channels_.begin(), channels_.end()}; }

 private:
  std::vector<float> samples_;
  std::vector<float*> channels_;
};

// How many frames to work on at a time, so that a chunk stays small whatever the channel count.
inline std::int64_t framesPerChunk(std::int64_t channelCount) {
  constexpr std::int64_t mostFrames = 16'384, mostSamples = 262'144;
  return std::clamp<std::int64_t>(mostSamples / channelCount, 1, mostFrames);
}

}  // namespace vellum
