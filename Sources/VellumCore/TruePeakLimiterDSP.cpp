#include "VellumCore/TruePeakLimiterDSP.hpp"

#include <algorithm>
#include <cmath>

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {

namespace {

using PolyphaseUpsampler4x::delayFrames;

// Without the products that are always 0: all but one of phase 0, which is the sample itself, and every
// phase's last. They would only turn an infinite sample into NaN.
const PolyphaseTaps& oversamplingTaps() {
  static const PolyphaseTaps built = [] {
    PolyphaseTaps taps{};
    for (std::size_t phase = 1; phase < 4; ++phase)
      std::copy_n(PolyphaseUpsampler4x::flatCoeffs()[phase].begin(), 12, taps.taps[phase - 1]);
    return taps;
  }();
  return built;
}

std::int64_t framesOf(const TruePeakLimiterDSP::Settings& settings) {
  VELLUM_REQUIRE(settings.sampleRate > 0, "TruePeakLimiterDSP: sampleRate must be above 0");
  VELLUM_REQUIRE(settings.channelCount >= 1, "TruePeakLimiterDSP: channelCount must be at least 1");
  const double exact = settings.sampleRate * static_cast<double>(settings.lookaheadMs) * 0.001;
  VELLUM_REQUIRE(std::isfinite(exact), "TruePeakLimiterDSP: sampleRate x lookaheadMs must be finite");
  const double frames = std::max(1.0, exact);
  VELLUM_REQUIRE(frames * static_cast<double>(settings.channelCount) <=
                     static_cast<double>(TruePeakLimiterDSP::largestBufferFrames),
                 "TruePeakLimiterDSP: the look-ahead is too long to be held");
  return static_cast<std::int64_t>(frames);
}

}  // namespace

TruePeakLimiterDSP::TruePeakLimiterDSP(const Settings& settings)
    : sampleRate_(settings.sampleRate),
      channelCount_(settings.channelCount),
      lookaheadFrames_(framesOf(settings)),
      releaseCoeff_(std::exp(-1.0f / (settings.releaseMs * 0.001f * static_cast<float>(sampleRate_)))),
      channels_(static_cast<std::size_t>(channelCount_)) {
  for (Channel& channel : channels_) channel.delayBuf.resize(static_cast<std::size_t>(lookaheadFrames_));
  setCeilingDB(settings.ceilingDB);
  prepareForFrameCount(settings.maxFrameCount);
}

void TruePeakLimiterDSP::prepareForFrameCount(std::int64_t frameCount) {
  if (frameCount <= preparedFrameCount_) return;
  VELLUM_REQUIRE(frameCount <= largestBufferFrames, "TruePeakLimiterDSP: the block is too long to be held");
  workBuf_.resize(static_cast<std::size_t>(frameCount + delayFrames));
  linkedPeak_.resize(static_cast<std::size_t>(frameCount));
  preparedFrameCount_ = frameCount;
}

void TruePeakLimiterDSP::setCeilingDB(float dB) {
  ceilingLinear_ = std::pow(10.0f, dB / 20.0f);
}

void TruePeakLimiterDSP::reset() {
  for (Channel& channel : channels_) {
    std::fill(channel.delayBuf.begin(), channel.delayBuf.end(), 0.0f);
    channel.upsampleHistory.fill(0.0f);
  }
  stream_ = {};
}

// The gain of a frame does not depend on what leaves the delay lines: all peaks first, then all gains, then
// each channel by itself.
void TruePeakLimiterDSP::process(std::span<float* const> channels, std::int64_t frameCount) {
  if (frameCount < 1 || frameCount > preparedFrameCount_) return;
  VELLUM_REQUIRE(static_cast<std::int64_t>(channels.size()) == channelCount_,
                 "TruePeakLimiterDSP: process takes one pointer per channel");
  std::fill_n(linkedPeak_.begin(), frameCount, 0.0f);
  for (std::size_t c = 0; c < channels.size(); ++c)
    if (channels[c]) raiseLinkedPeaks(channels_[c], channels[c], frameCount);
  turnPeaksIntoGains(frameCount);
  for (std::size_t c = 0; c < channels.size(); ++c)
    if (channels[c]) delayWithGain(channels_[c], channels[c], frameCount);
  stream_.writePos = (stream_.writePos + frameCount) % lookaheadFrames_;
  stream_.filled = std::min(stream_.filled + frameCount, lookaheadFrames_);
}

void TruePeakLimiterDSP::raiseLinkedPeaks(Channel& channel, const float* x, std::int64_t n) {
  std::copy(channel.upsampleHistory.begin(), channel.upsampleHistory.end(), workBuf_.begin());
  std::copy_n(x, n, workBuf_.begin() + delayFrames);
  // Tap by tap: a third of a nanosecond dearer than the meter's folded filter, which rounds otherwise.
  kernels().raiseToTapPeaks(oversamplingTaps(), workBuf_.data(), linkedPeak_.data(), n);
  std::copy_n(workBuf_.begin() + n, delayFrames, channel.upsampleHistory.begin());
}

void TruePeakLimiterDSP::turnPeaksIntoGains(std::int64_t n) {
  float* const gains = linkedPeak_.data();
  kernels().ceilingGains(ceilingLinear_, gains, n);  // the gains aimed at; the loop replaces them one by one
  const float kept = releaseCoeff_, taken = 1 - releaseCoeff_;
  float gain = stream_.currentGain, smallest = stream_.smallestGain;
  for (std::int64_t i = 0; i < n;) {
    const float target = gains[i], before = gain;
    gain = target < gain ? target : kept * gain + taken * target;
    smallest = std::min(smallest, gain);
    gains[i++] = gain;
    // A step that left the gain where it was: so will every further one to the same target. In 32 bit the
    // gain comes to rest a little below its target.
    if (gain == before)
      for (; i < n && gains[i] == target; ++i) gains[i] = gain;
  }
  stream_.currentGain = gain;
  stream_.smallestGain = smallest;
}

// A delay line is passed in straight runs: from writePos to its end, then from its start.
void TruePeakLimiterDSP::delayWithGain(Channel& channel, float* x, std::int64_t n) const {
  std::int64_t position = stream_.writePos;
  for (std::int64_t i = 0; i < n; position = 0) {
    const std::int64_t run = std::min(n - i, lookaheadFrames_ - position);
    kernels().exchangeWithGain(x + i, channel.delayBuf.data() + position, linkedPeak_.data() + i, run);
    i += run;
  }
  std::fill_n(x, std::min(n, lookaheadFrames_ - stream_.filled), 0.0f);
}

}  // namespace vellum
