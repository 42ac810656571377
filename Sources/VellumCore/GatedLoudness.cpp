#include "VellumCore/GatedLoudness.hpp"

#include <algorithm>
#include <limits>
#include <numeric>
#include <vector>

#include "VellumCore/Support/Require.hpp"

namespace vellum::GatedLoudness {

namespace {

std::vector<double> keptPowers(std::span<const double> blockPowers, const BlockPredicate& include,
                               const Settings& settings) {
  VELLUM_REQUIRE(include, "GatedLoudness: include must be callable");
  std::vector<double> kept;
  for (std::size_t k = 0; k < blockPowers.size(); ++k) {
    const double power = blockPowers[k];
    if (TwoStageGate::passesAbsoluteGate(power, settings.absoluteGatePower) &&
        include(static_cast<std::int64_t>(k)))
      kept.push_back(power);
  }
  return kept;
}

}  // namespace

double integratedLUFS(std::span<const double> blockPowers, const BlockPredicate& include,
                      const Settings& settings) {
  constexpr double unmeasured = -std::numeric_limits<double>::infinity();
  std::vector<double> kept = keptPowers(blockPowers, include, settings);
  if (kept.empty()) return unmeasured;
  std::sort(kept.begin(), kept.end());
  const double mean = std::accumulate(kept.begin(), kept.end(), 0.0) / static_cast<double>(kept.size());
  const auto first = std::upper_bound(kept.begin(), kept.end(), mean * settings.relativeGateFactor);
  if (first == kept.end()) return unmeasured;
  return loudnessOfPower(std::accumulate(first, kept.end(), 0.0) / static_cast<double>(kept.end() - first));
}

std::int64_t gatedBlockCount(std::span<const double> blockPowers, const BlockPredicate& include,
                             const Settings& settings) {
  return static_cast<std::int64_t>(keptPowers(blockPowers, include, settings).size());
}

}  // namespace vellum::GatedLoudness
