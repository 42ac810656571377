#pragma once

#include <array>
#include <cstdint>
#include <span>

// 4x oversampling for true-peak metering (ITU-R BS.1770-5, Annex 2): a 49-tap windowed sinc in four phases.
// The filter is not normalised: the phases' sums are about 1.0005 and 1.0009, so that a full-scale signal may
// read that much over 0 dBTP. That is kept on purpose.
namespace vellum::PolyphaseUpsampler4x {

constexpr std::int64_t factor = 4;        // oversampling, number of phases
constexpr std::int64_t taps = 49;         // length of the prototype low-pass
constexpr std::int64_t delayFrames = 13;  // taps per phase, and input history kept per channel

// Phase p of the filter, built once on first use. Phase 0 passes the sample in position 6 unchanged.
const std::array<std::array<float, delayFrames>, factor>& flatCoeffs();

// Largest magnitude of the four oversampled values at each of frameCount positions: outPerSamplePeak[i] is
// taken from workBuf[i ... i + 12], so that with 13 samples of history in front new sample k is centred at
// output k + 7. Within 1.2e-6 of the exact sums, relative to
// the largest sample (32-bit arithmetic; samples above 1.7e38 may overflow). A NaN costs the
// oversampled values that it enters; the samples around it still count.
//   workBuf           13 history samples, then frameCount new ones (frameCount + 13 values)
//   phaseConvOut      scratch of frameCount values; what it holds afterwards is not defined
//   outPerSamplePeak  frameCount values
// Returns the largest of them, 0 where frameCount is below 1.
float detectPerSamplePeaks(std::span<const float> workBuf, std::int64_t frameCount,
                           std::span<float> phaseConvOut, std::span<float> outPerSamplePeak);

// The same operation under another name.
float batchPeak(std::span<const float> workBuf, std::int64_t frameCount, std::span<float> phaseConvOut,
                std::span<float> outPerSample);

// The largest of the peaks alone, of one channel of a stream.
//   history  the last 13 samples before x; moved on to the last 13 of x
//   x        frameCount new samples
float streamPeak(std::array<float, delayFrames>& history, const float* x, std::int64_t frameCount);

}  // namespace vellum::PolyphaseUpsampler4x
