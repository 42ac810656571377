#include "VellumApp/ChapterLimits.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <queue>
#include <string_view>
#include <vector>

namespace vellum::ChapterLimits {
namespace {

// Numbers with their own width, so that -0.1f is not told as -0.10000000149.
template <typename Number>
std::optional<std::string> faultOf(std::string_view path, Number value, const Range& range) {
  if (range.holds(static_cast<double>(value))) return {};
  return fmt::format("{}: {} is not from {} to {}", path, value, range.least, range.most);
}

std::optional<std::string> faultOf(const Chapter& chapter, std::size_t k) {
  const std::string path = fmt::format("chapters[{}]", k);
  if (auto fault = faultOf(path + ".startSec", chapter.startSec, chapterSec)) return fault;
  if (auto fault = faultOf(path + ".endSec", chapter.endSec, chapterSec)) return fault;
  if (chapter.endSec > chapter.startSec) return {};
  return fmt::format("{}.endSec: {} is not after the start at {}", path, chapter.endSec, chapter.startSec);
}

// The chapter that makes too many at its start.
std::optional<std::size_t> tooManyAt(const std::vector<Chapter>& chapters) {
  std::vector<std::size_t> order(chapters.size());
  for (std::size_t k = 0; k < order.size(); ++k) order[k] = k;
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return chapters[a].startSec < chapters[b].startSec; });
  std::priority_queue<double, std::vector<double>, std::greater<>> ends;  // of those that are under way
  for (const std::size_t k : order) {
    while (!ends.empty() && ends.top() <= chapters[k].startSec) ends.pop();
    ends.push(chapters[k].endSec);
    if (ends.size() > mostOverlapping) return k;
  }
  return {};
}

}  // namespace

std::optional<std::string> faultOf(const ChapterDetectionSettings& settings) {
  if (auto fault = faultOf("silenceThresholdDB", settings.silenceThresholdDB, silenceThresholdDB))
    return fault;
  if (auto fault = faultOf("minSilenceDuration", settings.minSilenceDuration, minSilenceSec)) return fault;
  if (auto fault = faultOf("deviationThresholdLU", settings.deviationThresholdLU, deviationLU)) return fault;
  return faultOf("blockDuration", settings.blockDuration, blockSec);
}

std::optional<std::string> faultOf(const ChapterReport& report) {
  const std::vector<Chapter>& chapters = report.chapters;
  if (chapters.size() > mostChapters)
    return fmt::format("chapters: there are {}, and at most {} are measured", chapters.size(), mostChapters);
  for (std::size_t k = 0; k < chapters.size(); ++k)
    if (auto fault = faultOf(chapters[k], k)) return fault;
  if (const auto k = tooManyAt(chapters))
    return fmt::format("chapters[{}].startSec: more than {} chapters overlap here", *k, mostOverlapping);
  return {};
}

}  // namespace vellum::ChapterLimits
