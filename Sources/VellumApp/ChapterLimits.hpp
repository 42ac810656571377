#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "VellumCore/ChapterReport.hpp"

// What an application takes from users: outside of these limits the library goes wrong, memory grows with the
// programme, or nothing is meant.
namespace vellum::ChapterLimits {

struct Range {
  double least, most;
  // A NaN is outside.
  bool holds(double value) const { return value >= least && value <= most; }
};

inline constexpr Range silenceThresholdDB = {-200, 0};
inline constexpr Range minSilenceSec = {0, 86'400};
inline constexpr Range deviationLU = {0, 200};
inline constexpr Range blockSec = {0.001, 60};  // each block is a bit of memory
inline constexpr Range chapterSec = {0, 1e9};   // 31 years

inline constexpr std::size_t mostChapters = 100'000;
inline constexpr std::size_t mostOverlapping = 16;  // chapters that hold one frame: each has a meter

// The first fault, as "chapters[3].endSec: what is wrong".
std::optional<std::string> faultOf(const ChapterDetectionSettings& settings);
std::optional<std::string> faultOf(const ChapterReport& report);

}  // namespace vellum::ChapterLimits
