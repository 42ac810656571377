#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <variant>
#include <vector>

#include "VellumCore/ChapterMeter.hpp"
#include "VellumCore/ChapterReport.hpp"

// Measures the chapters of a programme, finds their median and proposes the gains that would level them.
// Nothing is kept between calls: calls for different chapters may run in parallel.
//
// A speech history is one flag per 100 ms block of the whole file, whatever the detection's block duration: a
// LoudnessProcessor's speechHistory().
namespace vellum::ChapterAnalyser {

// Seconds. A shorter chapter has sample peak and RMS, but no other measurement.
inline constexpr double minDurationForLUFS = 10.0;

using Metrics = ChapterMeter::Metrics;

// Channels of any lengths; what lies beyond a channel's end is silent.
using Channels = std::span<const std::vector<float>>;

// --- A programme in memory -------------------------------------------------------------------------------

struct Programme {
  Channels channels;
  double sampleRate;                                 // Hz, 5 to 1,000,000
  std::optional<std::vector<bool>> speechHistory;    // of the whole file
  std::optional<std::vector<float>> channelWeights;  // another count than channels: by channel count
};

// The chapters with their ten measurements replaced; the first channel's end is the programme's. Samples are
// measured where they are: only a 100 ms block that the end of a chapter or of a channel cuts is copied.
// A chapter's time that is NaN stops the program.
std::vector<Chapter> analyse(std::span<const Chapter> chapters, const Programme& programme);

// Frames start to end - 1 of all channels. A start below 0 stops the program.
struct Range {
  Channels channels;
  std::int64_t start, end;
  double sampleRate;                                 // Hz, 5 to 1,000,000
  std::optional<std::vector<bool>> speechHistory;    // of the range: the first flag is of its first 100 ms
  std::optional<std::vector<float>> channelWeights;  // another count than channels: by channel count
};

// Whatever the range's length. All absent without frames or channels.
Metrics fullAnalysis(const Range& range);

// Its integrated loudness, for which the speech history does not matter.
std::optional<float> integratedLUFS(const Range& range);

// dBFS over all channels, RMS unweighted; -infinity for silence, absent without frames or channels. A start
// below 0 stops the program.
std::optional<float> samplePeakDBFS(Channels channels, std::int64_t start, std::int64_t end);
std::optional<float> rmsDBFS(Channels channels, std::int64_t start, std::int64_t end);

// --- A programme that streams by -------------------------------------------------------------------------
// analyse() in steps: feed meterFor(...) the frames of framesOf(...), finish it and read measured(...). To
// the last bit the same figures.

struct FrameRange {
  std::int64_t start, end;  // exclusive; the range is empty where end <= start
  friend bool operator==(const FrameRange&, const FrameRange&) = default;
};

// The chapter's frames among the first frameCount ones of the file. NaN stops the program; otherwise no time
// is too large.
FrameRange framesOf(const Chapter& chapter, double sampleRate, std::int64_t frameCount);

struct MeterSettings {
  double sampleRate;                                 // Hz, 5 to 1,000,000
  std::int64_t channelCount;                         // at least 1
  std::optional<std::vector<bool>> speechHistory;    // of the whole file
  std::optional<std::vector<float>> channelWeights;  // another count than channelCount: by channel count
};
ChapterMeter meterFor(const Chapter& chapter, const MeterSettings& settings);

// The chapter with the figures of a finished meter in place of its measurements.
Chapter measured(Chapter chapter, const ChapterMeter& meter);

// --- Levels against each other ---------------------------------------------------------------------------

// The chapter's figure for a metric.
std::optional<float> value(const Chapter& chapter, ChapterConsistencyMetric metric);

// Of the chapters whose figure is finite: the middle one, or the mean of the two middle ones.
std::optional<float> median(std::span<const Chapter> chapters,
                            ChapterConsistencyMetric metric = ChapterConsistencyMetric::integratedLUFS);

// What the chapters are to be leveled to.
struct LevelTarget {
  struct Fixed {
    float value;  // in the metric's unit
    friend bool operator==(const Fixed&, const Fixed&) = default;
  };
  struct Median {
    friend bool operator==(const Median&, const Median&) = default;
  };

  std::variant<Fixed, Median> value;

  friend bool operator==(const LevelTarget&, const LevelTarget&) = default;
};

struct LevelingGain {
  std::int64_t start, end;  // frames, end exclusive
  float gainDB;             // positive where the chapter is too quiet
  friend bool operator==(const LevelingGain&, const LevelingGain&) = default;
};

struct Leveling {
  std::span<const Chapter> chapters;
  ChapterConsistencyMetric metric;
  LevelTarget target;
  double sampleRate;  // Hz
  std::int64_t totalFrames;
};

// In the order of the chapters. None for a chapter without a finite figure, within 0.01 dB of the target, or
// without frames; none at all where the target is not finite. A chapter's time that is NaN stops the program.
std::vector<LevelingGain> levelingGains(const Leveling& leveling);

}  // namespace vellum::ChapterAnalyser
