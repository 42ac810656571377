#include "VellumApp/DeliverySearch.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>
#include <variant>

namespace vellum::DeliverySearch {
namespace {

using Compliance = LoudnessTreatment::Compliance;

// What has a ceiling is taken this much below it, so that rounding and dither do not put it above.
constexpr double marginDB = 0.02;

// A smaller gain would change what nobody hears and no verdict shows: the samples are left as they are.
constexpr double smallestFirstGainDB = 0.05;

// More is no mastering, and beyond what 32-bit floats can take.
constexpr double largestGainDB = 200;

double number(float value) {
  return static_cast<double>(value);
}

// The target as one that passes or fails, which every target is for a delivery.
LoudnessTarget asCompliance(const LoudnessTarget& target) {
  LoudnessTarget strict = target;
  if (const auto* penalty = std::get_if<LoudnessTreatment::Penalty>(&target.treatment.value))
    strict.treatment = {Compliance{penalty->referenceLUFS, penaltyToleranceLU, penalty->truePeakCeilingDBTP}};
  return strict;
}

const Compliance& ruleOf(const LoudnessTarget& strictTarget) {
  return std::get<Compliance>(strictTarget.treatment.value);
}

double judgedFigure(const LoudnessTarget& target, const LoudnessMeasurement& figures) {
  return number(LoudnessTargetEvaluator::evaluate(target, figures).actualLUFS);
}

// --- How loud it may become --------------------------------------------------------------------------------

struct Aim {
  double loudness;  // of the judged figure
  std::optional<std::string> obstacle;
};

// An extra criterion as a ceiling of the judged figure, which takes the criterion's own along, dB for dB.
struct Bound {
  double loudness;
  std::string_view figure, unit;
  float level, ceiling;
};

std::optional<Bound> boundOf(const ExtraCriterion& criterion, const LoudnessMeasurement& figures,
                             double loudness) {
  if (const auto* noise = std::get_if<ExtraCriterion::NoiseFloor>(&criterion.value)) {
    const std::optional<float>& level = figures.noiseFloorDBRMS;
    if (!level) return {};
    return Bound{loudness + number(noise->maxDBRMS) - number(*level), "noise floor", "dB RMS", *level,
                 noise->maxDBRMS};
  }
  const float ceiling = std::get<ExtraCriterion::MaxShortTerm>(criterion.value).maxLUFS;
  const std::optional<float>& level = figures.maxShortTermLUFS;
  if (!level || !std::isfinite(*level)) return {};
  return Bound{loudness + number(ceiling) - number(*level), "maximum short-term loudness", "LUFS", *level,
               ceiling};
}

std::string obstacleOf(const Bound& bound, const LoudnessTarget& target) {
  return fmt::format(
      "the {} is in the way: taking it from {:.1f} to its ceiling of {:g} {} takes the {} to "
      "{:.1f} {}, outside of {:g} ±{:g}",
      bound.figure, bound.level, bound.ceiling, bound.unit,
      target.source == LoudnessSource::rms ? "RMS" : "loudness", bound.loudness, unit(target.source),
      ruleOf(target).referenceLUFS, ruleOf(target).toleranceLU);
}

// The reference, or what is nearest to it inside the tolerance where every extra criterion holds.
Aim aimFor(const LoudnessTarget& target, const LoudnessMeasurement& figures) {
  const LoudnessTargetEvaluation evaluation = LoudnessTargetEvaluator::evaluate(target, figures);
  if (std::holds_alternative<LoudnessVerdict::Unavailable>(evaluation.verdict.value))
    return {0, LoudnessTargetEvaluator::tooltipText(evaluation, figures)};

  const double reference = number(ruleOf(target).referenceLUFS);
  const double least = reference - number(ruleOf(target).toleranceLU);
  std::optional<Bound> tightest;
  for (const ExtraCriterion& criterion : target.extraCriteria)
    if (const auto bound = boundOf(criterion, figures, number(evaluation.actualLUFS));
        bound && (!tightest || bound->loudness < tightest->loudness))
      tightest = bound;
  if (!tightest || tightest->loudness >= reference) return {reference, {}};
  if (tightest->loudness < least) return {0, obstacleOf(*tightest, target)};
  return {std::max((least + tightest->loudness) / 2, tightest->loudness - marginDB), {}};
}

// --- How to get there --------------------------------------------------------------------------------------

// A limiter's output moves with its ceiling; all else depends on its drive alone, which is how far the gain
// takes the programme above the ceiling. So one unknown is left, and what a trial tells about it is this:
struct DrivePoint {
  double driveDB;       // gain minus the limiter's ceiling
  double peakToFigure;  // the judged figure minus the true peak, below 0: the more drive, the nearer to it
  double overshootDB;   // the true peak minus the limiter's ceiling
};

// Before anything is known about the programme: a dB of drive brings figure and peak this much nearer to each
// other, and lets the peaks this much over the ceiling (with the limiter's usual look-ahead and release).
constexpr double usualSlope = 0.85, usualOvershoot = 0.05;
// Jumps of the speech detector are no slope.
constexpr double leastSlope = 0.2, mostSlope = 1;

class Approach {
 public:
  Approach(const LoudnessTarget& target, double maxReductionDB, const LoudnessMeasurement& before)
      : target_(target), maxReductionDB_(maxReductionDB) {
    note({{0, {}}, {before, 0}});
  }

  void note(const Round& round) {
    const auto& [attempt, trial] = round;
    const double truePeak = number(trial.figures.truePeakDBTP);
    const double figure = judgedFigure(target_, trial.figures);
    if (!attempt.limiterCeilingDBTP) {
      plainGainDB_ = attempt.gainDB;
      plainFigure_ = figure;
      plainPeakDBTP_ = truePeak;
      // Where the peak touches the ceiling, the limiter begins.
      points_ = {{attempt.gainDB - truePeak, figure - truePeak, 0}};
      return;
    }
    const double ceiling = *attempt.limiterCeilingDBTP;
    points_.push_back({attempt.gainDB - ceiling, figure - truePeak, truePeak - ceiling});
  }

  // What to try so that the judged figure becomes `loudness`. Absent: no gain does, within the limits of the
  // limiter, not even one that takes it to the tolerance's edge.
  std::optional<Attempt> towards(double loudness) const {
    const double allowed = number(ruleOf(target_).truePeakCeilingDBTP);
    const double change = loudness - plainFigure_;
    // Silence has no peak at all.
    if (!(plainPeakDBTP_ + change > allowed)) return Attempt{plainGainDB_ + change, {}};

    constexpr double roundingDB = 0.005;
    const double leastDrive = points_.front().driveDB;
    const double mostDrive = leastDrive + std::max(0.0, maxReductionDB_ - roundingDB);
    const DrivePoint& last = points_.back();
    const double leastLoudness = number(ruleOf(target_).referenceLUFS) - number(ruleOf(target_).toleranceLU);
    if (allowed + last.peakToFigure + mostSlope * (mostDrive - last.driveDB) < leastLoudness) return {};

    const double peak = allowed - marginDB;
    const auto [slope, overshoot] = slopes();
    const double drive =
        std::clamp(last.driveDB + (loudness - peak - last.peakToFigure) / slope, leastDrive, mostDrive);
    const double ceiling = peak - last.overshootDB - overshoot * (drive - last.driveDB);
    return Attempt{drive + ceiling, ceiling};
  }

 private:
  // Per dB of drive: what figure and peak come nearer, and what the overshoot grows.
  std::pair<double, double> slopes() const {
    constexpr double leastDistanceDB = 0.05;
    if (points_.size() < 2) return {usualSlope, usualOvershoot};
    const DrivePoint &a = points_[points_.size() - 2], &b = points_.back();
    const double distance = b.driveDB - a.driveDB;
    if (std::abs(distance) < leastDistanceDB) return {usualSlope, usualOvershoot};
    return {std::clamp((b.peakToFigure - a.peakToFigure) / distance, leastSlope, mostSlope),
            (b.overshootDB - a.overshootDB) / distance};
  }

  const LoudnessTarget& target_;
  double maxReductionDB_;
  double plainGainDB_ = 0, plainFigure_ = 0, plainPeakDBTP_ = 0;  // of the last trial without a limiter
  std::vector<DrivePoint> points_;                                // since then, that one first
};

std::string peakObstacle(const LoudnessTarget& target, double maxReductionDB) {
  return fmt::format(
      "the true peak is in the way: holding it at {:g} dBTP with no more than {:.1f} dB of "
      "limiting leaves no gain that takes the {} to {:g} ±{:g} {}",
      ruleOf(target).truePeakCeilingDBTP, maxReductionDB,
      target.source == LoudnessSource::rms ? "RMS" : "loudness", ruleOf(target).referenceLUFS,
      ruleOf(target).toleranceLU, unit(target.source));
}

}  // namespace

bool isMet(const LoudnessTarget& target, const LoudnessMeasurement& measurement) {
  const auto evaluation = LoudnessTargetEvaluator::evaluate(asCompliance(target), measurement);
  return std::holds_alternative<LoudnessVerdict::Compliant>(evaluation.verdict.value);
}

std::optional<Outcome> run(const Settings& settings, const LoudnessMeasurement& before,
                           const std::function<std::optional<Trial>(const Attempt&)>& tryOut) {
  const LoudnessTarget target = asCompliance(settings.target);
  const auto failed = [](Outcome outcome, std::string obstacle) {
    outcome.obstacle = std::move(obstacle);
    return outcome;
  };
  Outcome outcome;
  Approach approach(target, settings.maxReductionDB, before);
  LoudnessMeasurement latest = before;
  for (int round = 0; round < settings.mostRounds; ++round) {
    const Aim aim = aimFor(target, latest);
    if (aim.obstacle) return failed(std::move(outcome), *aim.obstacle);
    std::optional<Attempt> attempt = approach.towards(aim.loudness);
    if (!attempt) return failed(std::move(outcome), peakObstacle(target, settings.maxReductionDB));
    if (round == 0 && std::abs(attempt->gainDB) < smallestFirstGainDB) attempt->gainDB = 0;
    if (!(std::abs(attempt->gainDB) <= largestGainDB))
      return failed(std::move(outcome),
                    fmt::format("it takes a gain of {:+.1f} dB, and at most {:g} dB are possible",
                                attempt->gainDB, largestGainDB));

    const std::optional<Trial> trial = tryOut(*attempt);
    if (!trial) return {};
    latest = trial->figures;
    outcome.rounds.push_back({*attempt, *trial});
    if (isMet(target, latest) && trial->reductionDB <= settings.maxReductionDB) return outcome;
    approach.note(outcome.rounds.back());
  }
  const auto evaluation = LoudnessTargetEvaluator::evaluate(target, latest);
  return failed(std::move(outcome), fmt::format("not met within {} rounds. {}", settings.mostRounds,
                                                LoudnessTargetEvaluator::tooltipText(evaluation, latest)));
}

}  // namespace vellum::DeliverySearch
