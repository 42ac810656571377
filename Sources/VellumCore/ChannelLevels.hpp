#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace vellum {

// Plain levels of each channel of a stream: sample peak, mean square, samples that are not finite.
// Life: construct, add*, read at any time. One thread at a time; add allocates nothing.
// Any chunking gives the same figures up to 64-bit rounding.
class ChannelLevels {
 public:
  explicit ChannelLevels(std::int64_t channelCount);

  // One pointer per channel; any chunk length, 0 included. A null channel counts as silence.
  void add(std::span<const float* const> channelData, std::int64_t frameCount);

  std::int64_t frameCount() const { return frameCount_; }
  std::int64_t nonFiniteSamples() const { return nonFiniteSamples_; }
  float samplePeakDBFS() const;              // over all channels; -infinity for silence
  float rmsDBFS(std::size_t channel) const;  // -infinity for silence and where a sample was not finite

 private:
  std::int64_t frameCount_ = 0, nonFiniteSamples_ = 0;
  float peak_ = 0;
  std::vector<double> squares_;
};

}  // namespace vellum
