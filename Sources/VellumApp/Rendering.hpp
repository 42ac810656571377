#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>

#include "VellumApp/AudioFileFormat.hpp"
#include "VellumApp/FileError.hpp"
#include "VellumApp/SampleQuantiser.hpp"

namespace vellum {

// What a true-peak limiter is told.
struct LimiterSettings {
  double ceilingDBTP;
  double lookaheadMs = 5;  // 0 to 10,000; less than a frame is one frame
  double releaseMs = 100;  // above 0
};

// Tells the frames from firstFrame on
//   gain      linear, finite; 1 leaves a frame as it is
//   limiting  how much of the limiter's work counts, 0 to 1; the limiter does not see a frame of 0
using GainCurve =
    std::function<void(std::int64_t firstFrame, std::span<float> gain, std::span<float> limiting)>;

// What is done to each sample of a file: gain, then limiting, then rounding to the coding.
struct RenderSettings {
  double gainDB;  // -200 to 200; 0 leaves every sample as it is
  std::optional<LimiterSettings> limiter;
  SampleCoding coding;
  Dither dither;
  GainCurve curve = {};  // on top of the gain
};

struct RenderResult {
  std::int64_t frameCount;      // equal to the input's
  double largestReductionDB;    // of the limiter, 0 or more
  std::int64_t clippedSamples;  // that rounding found outside of the range
};

// Takes the rendered audio in order: one pointer per channel of the file, in its order.
using RenderSink = std::function<void(std::span<const float* const> channelData, std::int64_t frameCount)>;

// Renders a whole file into `sink`. The output is aligned with the input and as long: the limiter's latency
// is taken out. Samples that neither gain nor limiter changed keep their integer value where the coding holds
// it. Memory does not depend on the length. `goOn` is told the frames rendered so far; once it answers false,
// there is no result. Throws FileError as AudioFile does.
std::optional<RenderResult> render(const std::filesystem::path& input, const RenderSettings& settings,
                                   const RenderSink& sink, const std::function<bool(std::int64_t)>& goOn);

}  // namespace vellum
