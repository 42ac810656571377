#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "VellumCore/LoudnessTargetEvaluation.hpp"

// Finds the gain and the limiter's ceiling at which a programme meets a target, by trying them out. Knows
// neither files nor audio.
namespace vellum::DeliverySearch {

// What is to be tried: a gain, and a limiter where there is a ceiling.
struct Attempt {
  double gainDB;
  std::optional<double> limiterCeilingDBTP;
};

// What came of it.
struct Trial {
  LoudnessMeasurement figures;  // of the rendered programme
  double reductionDB;           // the limiter's largest, 0 or more
};

struct Round {
  Attempt attempt;
  Trial trial;
};

struct Settings {
  LoudnessTarget target;
  double maxReductionDB;  // of the limiter, 0 or more
  int mostRounds = 8;
};

struct Outcome {
  std::vector<Round> rounds;            // tried, in order; the last one is the delivery where it is met
  std::optional<std::string> obstacle;  // which figure stands in the way; absent where the target is met
};

// A target is met when a compliance target's verdict is compliant; for a normalising one, when the judged
// figure is within this of the reference and the true peak at or below the ceiling.
constexpr float penaltyToleranceLU = 0.1f;

// Whether the programme meets the target, extra criteria included, and what stands in the way if it does not.
bool isMet(const LoudnessTarget& target, const LoudnessMeasurement& measurement);

// Tries gains until the target is met: first the one that takes the judged figure to the reference, or the
// one nearest to it, inside the tolerance, at which every extra criterion holds; then corrected by what was
// measured. The limiter comes in where the true peak would exceed the ceiling: its ceiling and the gain are
// then found together. Gives up once what was measured shows that no gain will do.
//   before   the programme as it is
//   tryOut   renders and measures; absent where it was interrupted, and then there is no outcome
std::optional<Outcome> run(const Settings& settings, const LoudnessMeasurement& before,
                           const std::function<std::optional<Trial>(const Attempt&)>& tryOut);

}  // namespace vellum::DeliverySearch
