#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

// Dynamic-range meter: per channel, the second-highest peak of the 3-second blocks against the RMS of their
// loudest fifth, in whole dB, at least 1. RMS is taken 3 dB high, so that a full-scale sine reads 0 dB.
namespace vellum::DRProcessor {

// Peaks and RMS of 3-second blocks, gathered while audio streams by.
// Life: construct, add*, then read (again and again). One thread at a time. Memory: 8 bytes for each channel
// and 3 seconds; add() allocates nothing else.
class BlockMeter {
 public:
  // sampleRate above 0 and at most 1e15, channelCount >= 0.
  BlockMeter(double sampleRate, std::int64_t channelCount);

  // One pointer per channel; any chunk length, 0 included. A null channel counts as silence.
  void add(std::span<const float* const> channelData, std::int64_t frameCount);

  // Unrounded dB per channel. Samples after the last whole block are left out, unless there is no whole
  // block: then they form the only one. Empty without channels or frames. A value is not finite where a
  // block's peak or RMS is not.
  std::vector<float> channelDRsRaw() const;

 private:
  struct Channel {
    double squares = 0;  // of the block being filled
    float peak = 0;
    std::vector<float> blockPeaks, blockRMS;
  };
  std::int64_t blockSize_;
  std::int64_t pendingFrames_ = 0;
  std::vector<Channel> channels_;
};

// Whole figures from unrounded ones: floor, at least 1; overall the floor of their mean, 0 without channels.
// All values must be finite.
std::int64_t overallDR(std::span<const float> channelDRsRaw);
std::vector<std::int64_t> perChannelDR(std::span<const float> channelDRsRaw);

// Overall figure of a selection; 0 when there is nothing to measure (no channels, no frames, sampleRate not
// above 0). The array form takes the first channel's frame count for every channel, and every channel must
// hold that many. A figure that is not finite stops the program.
std::int64_t computeDR(std::span<const std::vector<float>> selectionData, double sampleRate);
std::int64_t computeDR(std::span<const float* const> channelData, std::int64_t channelCount,
                       std::int64_t frameCount, double sampleRate);

// One figure per channel, in channel order; empty when there is nothing to measure.
std::vector<std::int64_t> computeDRPerChannel(std::span<const std::vector<float>> selectionData,
                                              double sampleRate);
std::vector<std::int64_t> computeDRPerChannel(std::span<const float* const> channelData,
                                              std::int64_t channelCount, std::int64_t frameCount,
                                              double sampleRate);

}  // namespace vellum::DRProcessor
