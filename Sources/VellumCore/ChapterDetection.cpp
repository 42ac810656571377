#include "VellumCore/ChapterDetection.hpp"

#include <algorithm>
#include <cmath>

#include "VellumCore/Kernels/Kernels.hpp"

namespace vellum::ChapterDetector {

namespace {

constexpr double shortestSegmentSec = 0.001;
constexpr double leastSoundSec = 1.0;

struct Segment {
  double startSec, endSec;
};

// Not dbToLinear, for which -200 dB is silence.
float powerOf(float dB) {
  const float amplitude = std::pow(10.0f, dB / 20.0f);
  return amplitude * amplitude;
}

std::int64_t blockFramesOf(double sampleRate, double blockDuration) {
  constexpr double never = 0x1p62;  // frames: no programme completes such a block
  const double frames = std::round(sampleRate * blockDuration);
  if (!(sampleRate > 0) || !(blockDuration > 0) || !(frames < never)) return static_cast<std::int64_t>(never);
  return static_cast<std::int64_t>(std::max(frames, 1.0));
}

// Middles of the silences that are long enough, in seconds. One at the very start or end counts.
std::vector<double> boundariesOf(const std::vector<bool>& silentBlocks,
                                 const ChapterDetectionSettings& settings) {
  // Blocks. Below 1, any run is long enough; no run is as long as a NaN.
  const double minRun = std::round(settings.minSilenceDuration / settings.blockDuration);
  std::vector<double> boundaries;
  std::size_t run = 0;
  for (std::size_t k = 0; k <= silentBlocks.size(); ++k) {
    if (k < silentBlocks.size() && silentBlocks[k]) {
      ++run;
      continue;
    }
    const auto length = static_cast<double>(run);
    if (run > 0 && length >= minRun)
      boundaries.push_back(settings.blockDuration * (static_cast<double>(k - run) + length * 0.5));
    run = 0;
  }
  return boundaries;
}

std::vector<Segment> segmentsBetween(const std::vector<double>& boundaries, double durationSec) {
  std::vector<Segment> segments;
  double start = 0;
  for (const double boundary : boundaries) {
    if (start + shortestSegmentSec < boundary) segments.push_back({start, boundary});
    start = boundary;
  }
  if (start < durationSec - shortestSegmentSec) segments.push_back({start, durationSec});
  return segments;
}

// Every block that the segment touches counts whole.
bool holdsEnoughSound(const Segment& segment, const std::vector<bool>& silentBlocks, double blockDuration) {
  const auto blockAt = [&](double block) {
    return silentBlocks.begin() +
           static_cast<std::int64_t>(std::clamp(block, 0.0, static_cast<double>(silentBlocks.size())));
  };
  const auto first = blockAt(std::floor(segment.startSec / blockDuration));
  const auto last = blockAt(std::ceil(segment.endSec / blockDuration));
  return first < last && blockDuration * static_cast<double>(std::count(first, last, false)) >= leastSoundSec;
}

}  // namespace

SilenceScanner::SilenceScanner(double sampleRate, const ChapterDetectionSettings& settings)
    : sampleRate_(sampleRate),
      settings_(settings),
      thresholdPower_(powerOf(settings.silenceThresholdDB)),
      blockFrames_(blockFramesOf(sampleRate, settings.blockDuration)) {}

void SilenceScanner::add(std::span<const float> mono) {
  const float* x = mono.data();
  auto left = static_cast<std::int64_t>(mono.size());
  frameCount_ += left;
  while (left > 0) {
    const std::int64_t n = std::min(blockFrames_ - openFrames_, left);
    if (n == blockFrames_) {
      closeBlock(kernels().sumOfSquares(x, n));  // a block in one piece: the same sum, faster
    } else {
      openBlock_.add(x, n);
      openFrames_ += n;
      if (openFrames_ == blockFrames_) closeBlock(openBlock_.value());
    }
    x += n;
    left -= n;
  }
}

void SilenceScanner::closeBlock(double squares) {
  const auto meanSquare = static_cast<float>(squares / static_cast<double>(blockFrames_));
  silentBlocks_.push_back(meanSquare < thresholdPower_);
  openBlock_ = {};
  openFrames_ = 0;
}

std::vector<Chapter> SilenceScanner::chapters() const {
  if (silentBlocks_.empty()) return {};
  const double durationSec = static_cast<double>(frameCount_) / sampleRate_;
  std::vector<Segment> segments = segmentsBetween(boundariesOf(silentBlocks_, settings_), durationSec);
  std::erase_if(segments, [&](const Segment& segment) {
    return !holdsEnoughSound(segment, silentBlocks_, settings_.blockDuration);
  });
  if (segments.empty()) return {};
  segments.front().startSec = 0;
  segments.back().endSec = std::max(segments.back().endSec, durationSec);  // nominal blocks may run ahead

  std::vector<Chapter> chapters;
  for (const Segment& segment : segments) {
    const auto index = static_cast<std::int64_t>(chapters.size()) + 1;
    chapters.push_back({.id = UUID::random(),
                        .index = index,
                        .name = defaultChapterName(index),
                        .startSec = segment.startSec,
                        .endSec = segment.endSec});
  }
  return chapters;
}

std::vector<Chapter> detectChapters(std::span<const float> mono, double sampleRate,
                                    const ChapterDetectionSettings& settings) {
  SilenceScanner scanner(sampleRate, settings);
  scanner.add(mono);
  return scanner.chapters();
}

std::string defaultChapterName(std::int64_t index) {
  return (index >= 0 && index < 10 ? "Chapter 0" : "Chapter ") + std::to_string(index);
}

}  // namespace vellum::ChapterDetector
