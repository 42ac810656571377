#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellumCore/Support/RawValue.hpp"
#include "VellumCore/Support/UUID.hpp"

// Chapters of a long spoken-word programme: the records that detection makes, measurement fills in and
// documents keep.
namespace vellum {

// The figure by which chapters are compared and leveled.
enum class ChapterConsistencyMetric { integratedLUFS, rms };

template <>
inline constexpr auto rawValueTable<ChapterConsistencyMetric> = rawValues<ChapterConsistencyMetric>(
    {{ChapterConsistencyMetric::integratedLUFS, "integratedLUFS"}, {ChapterConsistencyMetric::rms, "rms"}});

std::string_view label(ChapterConsistencyMetric metric);      // "LUFS", "RMS"
std::string_view unit(ChapterConsistencyMetric metric);       // after a value: "LUFS", "dB RMS"
std::string_view shortUnit(ChapterConsistencyMetric metric);  // after a difference: "LU", "dB"

struct ChapterDetectionSettings {
  float silenceThresholdDB;    // dBFS: a block whose RMS is below is silent
  double minSilenceDuration;   // s: the shortest silence that separates two chapters
  float deviationThresholdLU;  // LU, dB for rms: a chapter further from the median is flagged
  double blockDuration;        // s
  ChapterConsistencyMetric consistencyMetric;

  // -55 dBFS, 2 s, 2 LU, 0.1 s, and rms: on purpose not integratedLUFS.
  static ChapterDetectionSettings defaultValue();

  friend bool operator==(const ChapterDetectionSettings&, const ChapterDetectionSettings&) = default;
};

// One chapter. What was not measured is absent; digital silence has a sample peak and an RMS of -infinity.
struct Chapter {
  UUID id;
  std::int64_t index;  // from 1
  std::string name;
  double startSec, endSec;  // from the beginning of the file
  std::optional<float> integratedLUFS = std::nullopt;
  std::optional<float> rmsDBFS = std::nullopt;  // over all channels
  std::optional<float> truePeakDBTP = std::nullopt;
  std::optional<float> samplePeakDBFS = std::nullopt;
  std::optional<float> loudnessRange = std::nullopt;  // LU
  std::optional<float> maxMomentaryLUFS = std::nullopt;
  std::optional<float> maxShortTermLUFS = std::nullopt;
  std::optional<float> speechGatedLUFS = std::nullopt;
  std::optional<float> noiseFloorDBRMS = std::nullopt;
  std::optional<float> speechPercentage = std::nullopt;  // a fraction, 0 to 1, for all its name

  double durationSec() const { return endSec - startSec; }  // negative where the end comes first
  void clearMeasurements();                                 // all ten become absent

  friend bool operator==(const Chapter&, const Chapter&) = default;
};

// A chapter's measurements by name, in the order of the fields.
struct ChapterMeasurement {
  std::string_view name;
  std::optional<float> Chapter::*value;
};
inline constexpr std::array chapterMeasurements = std::to_array<ChapterMeasurement>({
    {"integratedLUFS", &Chapter::integratedLUFS},
    {"rmsDBFS", &Chapter::rmsDBFS},
    {"truePeakDBTP", &Chapter::truePeakDBTP},
    {"samplePeakDBFS", &Chapter::samplePeakDBFS},
    {"loudnessRange", &Chapter::loudnessRange},
    {"maxMomentaryLUFS", &Chapter::maxMomentaryLUFS},
    {"maxShortTermLUFS", &Chapter::maxShortTermLUFS},
    {"speechGatedLUFS", &Chapter::speechGatedLUFS},
    {"noiseFloorDBRMS", &Chapter::noiseFloorDBRMS},
    {"speechPercentage", &Chapter::speechPercentage},
});

// Tells whether a report belongs to a file: it does where all four fields are equal.
struct ChapterFileFingerprint {
  std::string fileName;
  std::int64_t durationCS;  // hundredths of a second
  std::int64_t sampleRate;  // Hz
  std::int64_t channelCount;

  struct Measured {
    std::string fileName;
    double durationSec, sampleRate;
    std::int64_t channelCount;
  };
  // Duration and rate rounded, halves away from zero. One that is not finite, or whose rounded value does not
  // fit 64 bits, stops the program.
  static ChapterFileFingerprint make(const Measured& measured);

  // "talk.wav|360000|48000|2": what a report is stored under.
  std::string cacheKey() const;

  friend bool operator==(const ChapterFileFingerprint&, const ChapterFileFingerprint&) = default;
};

// The chapters of one file.
struct ChapterReport {
  // How the list of chapters came about.
  enum class Origin { detected, manual, imported, recalled, music };

  std::vector<Chapter> chapters;    // in time order
  std::optional<float> medianLUFS;  // of the chapters' consistency metric, whatever the name says
  ChapterFileFingerprint fileFingerprint;
  Origin origin;

  // The chapter's integrated loudness above the median, in LU. Integrated loudness whatever metric the median
  // is of, on purpose. Absent where either is absent or not finite.
  std::optional<float> deviationLU(const Chapter& chapter) const;
  // Whether the deviation is larger than the threshold, either way. Equal to it is not.
  bool isFlagged(const Chapter& chapter, float threshold) const;

  friend bool operator==(const ChapterReport&, const ChapterReport&) = default;
};

template <>
inline constexpr auto rawValueTable<ChapterReport::Origin> =
    rawValues<ChapterReport::Origin>({{ChapterReport::Origin::detected, "detected"},
                                      {ChapterReport::Origin::manual, "manual"},
                                      {ChapterReport::Origin::imported, "imported"},
                                      {ChapterReport::Origin::recalled, "recalled"},
                                      {ChapterReport::Origin::music, "music"}});

}  // namespace vellum

template <>
struct std::hash<vellum::ChapterFileFingerprint> {
  std::size_t operator()(const vellum::ChapterFileFingerprint& fingerprint) const;
};
