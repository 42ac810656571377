#include "VellumCore/ChapterReport.hpp"

#include <cmath>

#include "VellumCore/Support/Require.hpp"

namespace vellum {

namespace {

std::int64_t rounded(double value) {
  constexpr double beyond = 0x1p63;
  const double whole = std::round(value);
  VELLUM_REQUIRE(whole >= -beyond && whole < beyond,
                 "ChapterFileFingerprint: duration and sample rate must be finite and fit 64 bits");
  return static_cast<std::int64_t>(whole);
}

bool isFinite(const std::optional<float>& level) {
  return level && std::isfinite(*level);
}

}  // namespace

std::string_view label(ChapterConsistencyMetric metric) {
  return metric == ChapterConsistencyMetric::integratedLUFS ? "LUFS" : "RMS";
}

std::string_view unit(ChapterConsistencyMetric metric) {
  return metric == ChapterConsistencyMetric::integratedLUFS ? "LUFS" : "dB RMS";
}

std::string_view shortUnit(ChapterConsistencyMetric metric) {
  return metric == ChapterConsistencyMetric::integratedLUFS ? "LU" : "dB";
}

ChapterDetectionSettings ChapterDetectionSettings::defaultValue() {
  return {.silenceThresholdDB = -55.0f,
          .minSilenceDuration = 2.0,
          .deviationThresholdLU = 2.0f,
          .blockDuration = 0.1,
          .consistencyMetric = ChapterConsistencyMetric::rms};
}

void Chapter::clearMeasurements() {
  for (const ChapterMeasurement& measurement : chapterMeasurements) (this->*measurement.value).reset();
}

ChapterFileFingerprint ChapterFileFingerprint::make(const Measured& measured) {
  return {.fileName = measured.fileName,
          .durationCS = rounded(measured.durationSec * 100),
          .sampleRate = rounded(measured.sampleRate),
          .channelCount = measured.channelCount};
}

std::string ChapterFileFingerprint::cacheKey() const {
  return fileName + "|" + std::to_string(durationCS) + "|" + std::to_string(sampleRate) + "|" +
         std::to_string(channelCount);
}

std::optional<float> ChapterReport::deviationLU(const Chapter& chapter) const {
  if (!isFinite(chapter.integratedLUFS) || !isFinite(medianLUFS)) return {};
  return *chapter.integratedLUFS - *medianLUFS;
}

bool ChapterReport::isFlagged(const Chapter& chapter, float threshold) const {
  const auto deviation = deviationLU(chapter);
  return deviation && threshold < std::fabs(*deviation);
}

}  // namespace vellum

std::size_t std::hash<vellum::ChapterFileFingerprint>::operator()(
    const vellum::ChapterFileFingerprint& fingerprint) const {
  return std::hash<std::string>()(fingerprint.cacheKey());  // differs where the fingerprints differ
}
