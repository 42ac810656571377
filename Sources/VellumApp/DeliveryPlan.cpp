#include "VellumApp/DeliveryPlan.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>
#include <variant>

namespace vellum::DeliveryPlan {
namespace {

constexpr double unbounded = std::numeric_limits<double>::infinity();

// A gain at the very edge of a tolerance would leave the verdict to rounding.
constexpr double marginDB = 0.001;

double number(float value) {
  return static_cast<double>(value);
}

// The gains that serve a target.
struct Gains {
  double least, most;

  bool isEmpty() const { return least > most; }
  Gains operator&(const Gains& other) const {
    return {std::max(least, other.least), std::min(most, other.most)};
  }
};

// How far from its reference a target takes a programme: nowhere at all (below 0) with a negative tolerance.
double slackOf(const LoudnessTreatment::Compliance& rule) {
  const double tolerance = number(rule.toleranceLU);
  return tolerance < 0 ? tolerance : std::max(0.0, tolerance - marginDB);
}

Gains gainsFor(const LoudnessTargetEvaluation& evaluation, const LoudnessMeasurement& measurement) {
  const LoudnessTarget& target = evaluation.target;
  const double toReference = number(target.treatment.referenceLUFS()) - number(evaluation.actualLUFS);
  if (const auto* penalty = std::get_if<LoudnessTreatment::Penalty>(&target.treatment.value))
    // A service that only turns down leaves a quieter file below its reference.
    return {penalty->boostBehaviour == BoostBehaviour::symmetric ? -unbounded
            : toReference <= 0                                   ? std::min(0.0, toReference + marginDB)
                                                                 : toReference + marginDB,
            unbounded};

  const double slack = slackOf(std::get<LoudnessTreatment::Compliance>(target.treatment.value));
  Gains gains{toReference - slack, toReference + slack};
  for (const ExtraCriterion& criterion : target.extraCriteria) {
    if (const auto* noise = std::get_if<ExtraCriterion::NoiseFloor>(&criterion.value)) {
      if (measurement.noiseFloorDBRMS)
        gains.most =
            std::min(gains.most, number(noise->maxDBRMS) - number(*measurement.noiseFloorDBRMS) - marginDB);
    } else if (measurement.maxShortTermLUFS && std::isfinite(*measurement.maxShortTermLUFS)) {
      const float ceiling = std::get<ExtraCriterion::MaxShortTerm>(criterion.value).maxLUFS;
      gains.most = std::min(gains.most, number(ceiling) - number(*measurement.maxShortTermLUFS) - marginDB);
    }
  }
  return gains;
}

struct Candidate {
  LoudnessTarget target;
  Gains gains;
};

double gainWithin(const Gains& gains, double limitingBeginsAtDB) {
  const bool isBounded = std::isfinite(gains.least) && std::isfinite(gains.most);
  const double ideal = isBounded ? (gains.least + gains.most) / 2 : 0.0;
  const double most = std::max(gains.least, std::min(gains.most, limitingBeginsAtDB));
  return std::clamp(ideal, gains.least, most);
}

LoudnessMeasurement moved(LoudnessMeasurement figures, double gainDB, double ceilingDBTP) {
  const auto move = [gainDB](float& level) { level = static_cast<float>(number(level) + gainDB); };
  move(figures.integratedLUFS);
  move(figures.dialogGatedLUFS);
  move(figures.truePeakDBTP);
  figures.truePeakDBTP = std::min(figures.truePeakDBTP, static_cast<float>(ceilingDBTP));
  for (auto* level : {&figures.noiseFloorDBRMS, &figures.maxShortTermLUFS, &figures.rmsDBFS})
    if (*level) move(**level);
  return figures;
}

Master masterFor(std::vector<Candidate> served, const LoudnessMeasurement& measurement) {
  Master master{};
  Gains gains{-unbounded, unbounded};
  master.ceilingDBTP = unbounded;
  for (Candidate& candidate : served) {
    gains = gains & candidate.gains;
    master.ceilingDBTP =
        std::min(master.ceilingDBTP, number(candidate.target.treatment.truePeakCeilingDBTP()));
    master.targets.push_back(std::move(candidate.target));
  }
  const double truePeak = number(measurement.truePeakDBTP);
  master.limitingBeginsAtDB = std::isfinite(truePeak) ? master.ceilingDBTP - truePeak : unbounded;
  master.leastGainDB = gains.least;
  master.mostGainDB = gains.most;
  master.gainDB = gainWithin(gains, master.limitingBeginsAtDB);
  master.after = moved(measurement, master.gainDB, master.ceilingDBTP);
  return master;
}

// Why no gain serves a target whose extra criteria contradict its tolerance.
std::string contradiction(const LoudnessTarget& target, const LoudnessMeasurement& measurement) {
  // Taken down to the lowest level that the tolerance allows, what still exceeds its ceiling is to blame.
  const auto& rule = std::get<LoudnessTreatment::Compliance>(target.treatment.value);
  const LoudnessTargetEvaluation evaluation = LoudnessTargetEvaluator::evaluate(target, measurement);
  const double lowest = number(rule.referenceLUFS) - slackOf(rule) - number(evaluation.actualLUFS);
  const LoudnessMeasurement down = moved(measurement, lowest, number(rule.truePeakCeilingDBTP));
  return LoudnessTargetEvaluator::tooltipText(LoudnessTargetEvaluator::evaluate(target, down), down);
}

}  // namespace

Plan make(const std::vector<LoudnessTarget>& targets, const LoudnessMeasurement& measurement) {
  Plan plan;
  std::vector<Candidate> candidates;
  for (const LoudnessTarget& target : targets) {
    const LoudnessTargetEvaluation evaluation = LoudnessTargetEvaluator::evaluate(target, measurement);
    if (std::holds_alternative<LoudnessVerdict::Unavailable>(evaluation.verdict.value)) {
      plan.unserved.push_back({target, LoudnessTargetEvaluator::tooltipText(evaluation, measurement)});
      continue;
    }
    const Gains gains = gainsFor(evaluation, measurement);
    if (gains.isEmpty())
      plan.unserved.push_back({target, contradiction(target, measurement)});
    else
      candidates.push_back({target, gains});
  }

  // Each target is an interval of gains. Taken by their upper ends, each that the last master does not serve
  // begins a new one: no cover of intervals by points is smaller.
  std::vector<std::size_t> order(candidates.size());
  for (std::size_t k = 0; k < order.size(); ++k) order[k] = k;
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return candidates[a].gains.most < candidates[b].gains.most;
  });
  std::vector<std::vector<std::size_t>> groups;
  Gains shared{};
  for (const std::size_t k : order) {
    if (groups.empty() || (shared & candidates[k].gains).isEmpty()) {
      groups.emplace_back();
      shared = {-unbounded, unbounded};
    }
    groups.back().push_back(k);
    shared = shared & candidates[k].gains;
  }
  for (std::vector<std::size_t>& group : groups) {
    std::sort(group.begin(), group.end());  // back to the order of the targets
    std::vector<Candidate> served;
    for (const std::size_t k : group) served.push_back(candidates[k]);
    plan.masters.push_back(masterFor(std::move(served), measurement));
  }
  return plan;
}

}  // namespace vellum::DeliveryPlan
