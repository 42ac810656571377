#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "VellumCore/TwoStageGate.hpp"

// Gates a stored sequence of block powers anew, over any subset of its blocks: one chapter, the speech only,
// or whatever else the caller selects.
namespace vellum::GatedLoudness {

struct Settings {
  double absoluteGatePower = TwoStageGate::absoluteThreshold;    // block power, linear: -70 LUFS
  double relativeGateFactor = TwoStageGate::relativeGateFactor;  // on the mean power: -10 LU
};

// Whether the block of an index is to count. Only asked about blocks above the absolute gate.
using BlockPredicate = std::function<bool(std::int64_t index)>;

// Loudness in LUFS of the included blocks that pass both gates, or -infinity. A power that is not finite
// never counts, so that a meter's own history reads as the meter does.
//   blockPowers  weighted mean squares, linear, one per 100 ms block
double integratedLUFS(std::span<const double> blockPowers, const BlockPredicate& include,
                      const Settings& settings = {});

// How many included blocks pass the absolute gate.
std::int64_t gatedBlockCount(std::span<const double> blockPowers, const BlockPredicate& include,
                             const Settings& settings = {});

}  // namespace vellum::GatedLoudness
