#pragma once

#include <optional>
#include <string>
#include <vector>

#include "VellumCore/LoudnessTargetEvaluation.hpp"

// How few masters serve a set of outlets. Works on figures alone: all of them move with the gain, dB for dB,
// up to the point where limiting begins, and the plan says where that is.
namespace vellum::DeliveryPlan {

// Why a target is served by no master, whatever its gain.
struct Unserved {
  LoudnessTarget target;
  std::string reason;  // in words
};

// One rendering, and the targets that it serves. A normalising outlet is served when the file plays at the
// outlet's reference after the gain that the outlet itself applies, and does not exceed its true-peak
// ceiling; a compliance outlet when its verdict would be compliant.
struct Master {
  std::vector<LoudnessTarget> targets;
  double gainDB;
  double ceilingDBTP;  // the lowest of the targets' ceilings
  double leastGainDB;  // gains between these serve the same targets; may be infinite
  double mostGainDB;
  double limitingBeginsAtDB;  // the gain at which the true peak meets the ceiling
  LoudnessMeasurement after;  // as they would be: dB for dB, and the true peak at most the ceiling

  double reductionDB() const { return gainDB > limitingBeginsAtDB ? gainDB - limitingBeginsAtDB : 0.0; }
};

struct Plan {
  std::vector<Master> masters;  // as few as can be; one where one gain and one ceiling satisfy all targets
  std::vector<Unserved> unserved;
};

// Every target is served by one master or is among the unserved. Within the gains that serve a master's
// targets, its gain is one that needs no limiting if there is any; among those the nearest to none at all,
// or, where compliance targets bound it on both sides, the nearest to their middle.
Plan make(const std::vector<LoudnessTarget>& targets, const LoudnessMeasurement& measurement);

}  // namespace vellum::DeliveryPlan
