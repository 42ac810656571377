#include "VellumApp/TargetFigures.hpp"

#include <limits>
#include <optional>

namespace vellum {
namespace {

std::optional<float> measured(float level) {
  if (level == -std::numeric_limits<float>::infinity()) return {};
  return level;
}

}  // namespace

LoudnessMeasurement loudnessMeasurement(const ProgrammeFigures& figures) {
  return {.integratedLUFS = static_cast<float>(figures.integratedLUFS),
          .dialogGatedLUFS = static_cast<float>(figures.speechGatedLUFS),
          .truePeakDBTP = figures.truePeakDBTP,
          .noiseFloorDBRMS = measured(figures.noiseFloorDBRMS),
          .maxShortTermLUFS = measured(figures.maxShortTermLUFS),
          .rmsDBFS = measured(figures.rmsDBFS)};
}

}  // namespace vellum
