#include "VellumCore/DRProcessor.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <numeric>

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum::DRProcessor {

namespace {

constexpr double blockSec = 3.0;
constexpr float silence = 1e-12f;  // floor of every level, linear, and of a mean square

// RMS 3 dB high: a full-scale sine reads 1.
float blockRMSOf(double squares, std::int64_t frames) {
  const float meanSquare = static_cast<float>(squares / static_cast<double>(frames));
  return std::sqrt(2.0f * meanSquare < silence ? silence : 2.0f * meanSquare);  // a NaN stays one
}

// The second-highest peak against the RMS of the loudest fifth.
float channelDR(std::vector<float> blockPeaks, std::vector<float> blockRMS) {
  const auto nBlocks = static_cast<std::int64_t>(blockRMS.size());
  const auto all = [](const std::vector<float>& values) {
    return std::all_of(values.begin(), values.end(), [](float v) { return std::isfinite(v); });
  };
  if (!all(blockPeaks) || !all(blockRMS)) return std::numeric_limits<float>::quiet_NaN();

  const auto n =
      std::max<std::int64_t>(static_cast<std::int64_t>(std::round(0.2 * static_cast<double>(nBlocks))), 1);
  std::sort(blockRMS.begin(), blockRMS.end(), std::greater<>());
  float sumSq = 0;
  for (std::int64_t b = 0; b < std::min(n, nBlocks); ++b)
    sumSq += blockRMS[static_cast<std::size_t>(b)] * blockRMS[static_cast<std::size_t>(b)];
  const float rmsTop = std::max(std::sqrt(sumSq / static_cast<float>(n)), silence);

  std::sort(blockPeaks.begin(), blockPeaks.end(), std::greater<>());
  const float peak2 = blockPeaks.empty() ? silence : blockPeaks[blockPeaks.size() >= 2 ? 1 : 0];
  return 20.0f * std::log10(std::max(peak2, silence)) - 20.0f * std::log10(rmsTop);
}

std::int64_t wholeDR(float value) {
  VELLUM_REQUIRE(std::isfinite(value), "DRProcessor: a dynamic range that is not finite has no whole figure");
  return std::max<std::int64_t>(static_cast<std::int64_t>(std::floor(value)), 1);
}

std::vector<float> channelDRsRaw(std::span<const float* const> channelData, std::int64_t frameCount,
                                 double sampleRate) {
  if (channelData.empty() || frameCount < 1 || !(sampleRate > 0)) return {};
  BlockMeter meter(sampleRate, static_cast<std::int64_t>(channelData.size()));
  meter.add(channelData, frameCount);
  return meter.channelDRsRaw();
}

std::vector<float> channelDRsRaw(std::span<const std::vector<float>> selectionData, double sampleRate) {
  if (selectionData.empty()) return {};
  std::vector<const float*> pointers;
  for (const std::vector<float>& channel : selectionData) {
    VELLUM_REQUIRE(channel.size() >= selectionData[0].size(),
                   "DRProcessor: every channel must be as long as the first");
    pointers.push_back(channel.data());
  }
  return channelDRsRaw(pointers, static_cast<std::int64_t>(selectionData[0].size()), sampleRate);
}

std::span<const float* const> firstChannels(std::span<const float* const> channelData,
                                            std::int64_t channelCount) {
  if (channelCount < 1) return {};
  VELLUM_REQUIRE(static_cast<std::int64_t>(channelData.size()) >= channelCount,
                 "DRProcessor: a selection takes one pointer per channel");
  return channelData.first(static_cast<std::size_t>(channelCount));
}

}  // namespace

BlockMeter::BlockMeter(double sampleRate, std::int64_t channelCount) {
  VELLUM_REQUIRE(sampleRate > 0 && sampleRate <= 1e15 && channelCount >= 0,
                 "DRProcessor: BlockMeter takes a sample rate above 0 and a channel count of 0 or more");
  blockSize_ = std::max<std::int64_t>(static_cast<std::int64_t>(sampleRate * blockSec), 1);
  channels_.resize(static_cast<std::size_t>(channelCount));
}

void BlockMeter::add(std::span<const float* const> channelData, std::int64_t frameCount) {
  VELLUM_REQUIRE(channelData.size() == channels_.size(), "DRProcessor: add takes one pointer per channel");
  for (std::int64_t offset = 0; offset < frameCount;) {
    const std::int64_t n = std::min(blockSize_ - pendingFrames_, frameCount - offset);
    pendingFrames_ += n;
    const bool completes = pendingFrames_ == blockSize_;
    for (std::size_t c = 0; c < channels_.size(); ++c) {
      Channel& channel = channels_[c];
      if (channelData[c]) {
        channel.squares += kernels().sumOfSquares(channelData[c] + offset, n);
        channel.peak = std::max(channel.peak, kernels().peakMagnitude(channelData[c] + offset, n));
      }
      if (!completes) continue;
      channel.blockPeaks.push_back(channel.peak);
      channel.blockRMS.push_back(blockRMSOf(channel.squares, blockSize_));
      channel.squares = 0;
      channel.peak = 0;
    }
    if (completes) pendingFrames_ = 0;
    offset += n;
  }
}

std::vector<float> BlockMeter::channelDRsRaw() const {
  std::vector<float> raw;
  for (const Channel& channel : channels_) {
    if (!channel.blockRMS.empty())
      raw.push_back(channelDR(channel.blockPeaks, channel.blockRMS));
    else if (pendingFrames_ > 0)
      raw.push_back(channelDR({channel.peak}, {blockRMSOf(channel.squares, pendingFrames_)}));
  }
  return raw;
}

std::int64_t overallDR(std::span<const float> channelDRsRaw) {
  if (channelDRsRaw.empty()) return 0;
  const float sum = std::accumulate(channelDRsRaw.begin(), channelDRsRaw.end(), 0.0f);
  return wholeDR(sum / static_cast<float>(channelDRsRaw.size()));
}

std::vector<std::int64_t> perChannelDR(std::span<const float> channelDRsRaw) {
  std::vector<std::int64_t> figures;
  for (float value : channelDRsRaw) figures.push_back(wholeDR(value));
  return figures;
}

std::int64_t computeDR(std::span<const std::vector<float>> selectionData, double sampleRate) {
  return overallDR(channelDRsRaw(selectionData, sampleRate));
}

std::int64_t computeDR(std::span<const float* const> channelData, std::int64_t channelCount,
                       std::int64_t frameCount, double sampleRate) {
  return overallDR(channelDRsRaw(firstChannels(channelData, channelCount), frameCount, sampleRate));
}

std::vector<std::int64_t> computeDRPerChannel(std::span<const std::vector<float>> selectionData,
                                              double sampleRate) {
  return perChannelDR(channelDRsRaw(selectionData, sampleRate));
}

std::vector<std::int64_t> computeDRPerChannel(std::span<const float* const> channelData,
                                              std::int64_t channelCount, std::int64_t frameCount,
                                              double sampleRate) {
  return perChannelDR(channelDRsRaw(firstChannels(channelData, channelCount), frameCount, sampleRate));
}

}  // namespace vellum::DRProcessor
