#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "VellumCore/PolyphaseUpsampler4x.hpp"

namespace vellum {

// Holds the 4x-oversampled peak of planar audio under a ceiling: one gain for all channels, which falls at
// once and recovers exponentially, applied to audio that a look-ahead delays.
//
// Life: construct, (prepareForFrameCount | setCeilingDB | process | reset)*. One thread at a time; separate
// limiters are independent. process() allocates nothing. Output lags input by lookaheadFrames() frames and
// starts with that much silence.
//
// The gain that a peak asks for is applied as soon as the peak is seen, to audio lookaheadFrames() older, and
// recovers while the peak is still on its way. So a peak can leave a little over the ceiling: the more, the
// longer the look-ahead is against the release. Measure what came out where the ceiling must hold.
// A peak is seen 7 frames after it came in: with a shorter look-ahead it has left by then.
//
// Peaks are plain 32-bit sums, tap after tap. Any split into blocks and any instruction set gives the same
// output to the bit.
//
// Samples that are not finite: while an infinite sample stands among the 12 that a peak is taken from, the
// gain is 0, unless another one makes the sums NaN; a NaN loses every comparison. So the gain never becomes
// NaN, and each such sample spoils its own place in the output alone. Samples above 1.7e38 may count as
// infinite.
class TruePeakLimiterDSP {
 public:
  // The product sampleRate x lookaheadMs must be finite, and the delay lines of all channels together may
  // hold at most largestBufferFrames samples (16 GiB).
  struct Settings {
    double sampleRate;           // Hz, above 0
    std::int64_t channelCount;   // at least 1
    float ceilingDB;             // dBTP
    float lookaheadMs;           // less than one frame, or below 0: one frame
    float releaseMs;             // time constant; 0: the gain recovers at once, infinity: never. Below 0, -0
                                 // and NaN have no meaning: it runs away from 1 or becomes NaN
    std::int64_t maxFrameCount;  // longest block to come, as prepareForFrameCount takes it
  };
  explicit TruePeakLimiterDSP(const Settings& settings);

  // Grows the scratch to blocks of frameCount frames, at most largestBufferFrames; never shrinks it. The
  // stream goes on as if nothing had happened. 0 or less prepares nothing.
  void prepareForFrameCount(std::int64_t frameCount);

  // Counts from the next frame on. ceilingLinear becomes 10^(dB / 20), without the cut-off of dbToLinear;
  // -infinity lets no peak pass, +infinity and NaN limit nothing.
  void setCeilingDB(float dB);

  // Limits one block in place.
  //   channels    one pointer per channel to frameCount samples, none of them shared; null for an absent
  //               channel, which has no part in the gain. Its delay line stands still meanwhile, and it plays
  //               what the line held when it comes back
  //   frameCount  1 to preparedFrameCount(). Any other block is left untouched, and the stream too
  void process(std::span<float* const> channels, std::int64_t frameCount);

  // Back to the stream's start; the ceiling and the scratch are kept.
  void reset();

  double sampleRate() const { return sampleRate_; }
  std::int64_t channelCount() const { return channelCount_; }
  std::int64_t lookaheadFrames() const { return lookaheadFrames_; }  // at least 1
  // Of the distance to the gain aimed at, the share that remains one frame later: e^(-1 / release in frames).
  float releaseCoeff() const { return releaseCoeff_; }
  float ceilingLinear() const { return ceilingLinear_; }
  // Linear gain of the last frame (1 before any), and the smallest since construction or reset.
  float currentGain() const { return stream_.currentGain; }
  float smallestGain() const { return stream_.smallestGain; }
  std::int64_t preparedFrameCount() const { return preparedFrameCount_; }

  static constexpr std::int64_t largestBufferFrames = std::int64_t{1} << 32;

 private:
  // One channel's memory. Position writePos of the delay line is the next to leave.
  struct Channel {
    std::vector<float> delayBuf;                                             // lookaheadFrames, circular
    std::array<float, PolyphaseUpsampler4x::delayFrames> upsampleHistory{};  // the last input samples
  };
  struct Stream {
    std::int64_t writePos = 0;
    std::int64_t filled = 0;  // frames since the start, up to lookaheadFrames
    float currentGain = 1, smallestGain = 1;
  };

  void raiseLinkedPeaks(Channel& channel, const float* x, std::int64_t n);
  void turnPeaksIntoGains(std::int64_t n);
  void delayWithGain(Channel& channel, float* x, std::int64_t n) const;

  double sampleRate_;
  std::int64_t channelCount_, lookaheadFrames_;
  float releaseCoeff_;
  float ceilingLinear_;
  std::vector<Channel> channels_;
  Stream stream_;

  std::int64_t preparedFrameCount_ = 0;
  std::vector<float> workBuf_;     // one channel's history, then its block
  std::vector<float> linkedPeak_;  // per frame: the channels' largest peak, then the gain
};

}  // namespace vellum
