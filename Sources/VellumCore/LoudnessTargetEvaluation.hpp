#pragma once

#include <optional>
#include <span>
#include <string>
#include <variant>

#include "VellumCore/LoudnessTargets.hpp"

// Judging one set of figures against a delivery target, and wording the result.
namespace vellum {

// The figures of one file, in dB. What was not measured is -infinity, or absent where it may be.
struct LoudnessMeasurement {
  float integratedLUFS;
  float dialogGatedLUFS;  // -infinity where no speech was found
  float truePeakDBTP;
  std::optional<float> noiseFloorDBRMS;
  std::optional<float> maxShortTermLUFS;
  std::optional<float> rmsDBFS;

  // Programme RMS in dBFS from one level per channel: the mean of the powers of the channels that are not
  // silent, not their sum. -infinity where every channel is. 64-bit arithmetic.
  static float programRMSDBFS(std::span<const float> perChannelDBFS);

  friend bool operator==(const LoudnessMeasurement&, const LoudnessMeasurement&) = default;
};

// An extra criterion that was not met: the measured level and its ceiling.
struct ExtraCriterionFailure {
  struct NoiseFloor {
    float actual, ceiling;  // dB RMS
    friend bool operator==(const NoiseFloor&, const NoiseFloor&) = default;
  };
  struct MaxShortTerm {
    float actual, ceiling;  // LUFS
    friend bool operator==(const MaxShortTerm&, const MaxShortTerm&) = default;
  };

  std::variant<NoiseFloor, MaxShortTerm> value;

  friend bool operator==(const ExtraCriterionFailure&, const ExtraCriterionFailure&) = default;
};

// Why a file is refused: the first thing that failed.
struct NonComplianceReason {
  struct Loudness {
    float actual, reference, tolerance;  // in the unit of the target's source
    friend bool operator==(const Loudness&, const Loudness&) = default;
  };
  struct TruePeak {
    float actual, ceiling;  // dBTP
    friend bool operator==(const TruePeak&, const TruePeak&) = default;
  };
  using Extra = ExtraCriterionFailure;

  std::variant<Loudness, TruePeak, Extra> value;

  friend bool operator==(const NonComplianceReason&, const NonComplianceReason&) = default;
};

struct LoudnessVerdict {
  // What a normalising service does to the file.
  struct Penalty {
    float gainDB;  // that takes the file to the reference
    bool applies;  // whether the service applies it
    float truePeakDBTP, ceilingDBTP;
    bool truePeakClean;
    friend bool operator==(const Penalty&, const Penalty&) = default;
  };
  struct Compliant {
    float truePeakDBTP, ceilingDBTP;
    bool truePeakClean;
    friend bool operator==(const Compliant&, const Compliant&) = default;
  };
  struct NotCompliant {
    NonComplianceReason reason;
    friend bool operator==(const NotCompliant&, const NotCompliant&) = default;
  };
  // The figure that the target judges was not measured.
  struct Unavailable {
    friend bool operator==(const Unavailable&, const Unavailable&) = default;
  };

  std::variant<Penalty, Compliant, NotCompliant, Unavailable> value;

  friend bool operator==(const LoudnessVerdict&, const LoudnessVerdict&) = default;
};

struct LoudnessTargetEvaluation {
  LoudnessTarget target;
  LoudnessVerdict verdict;
  float actualLUFS;  // the judged figure, whatever its unit

  friend bool operator==(const LoudnessTargetEvaluation&, const LoudnessTargetEvaluation&) = default;
};

// Pure functions; any thread may call them.
namespace LoudnessTargetEvaluator {

// The verdict, in 32-bit arithmetic. A true peak that is not finite counts as clean, and an extra figure that
// is absent as met. A file at the very edge of a tolerance passes.
LoudnessTargetEvaluation evaluate(const LoudnessTarget& target, const LoudnessMeasurement& measurement);

// The verdict in words, lines separated by a line feed. The first line of a refusal is its headline.
//   measurement  the one that was evaluated
std::string tooltipText(const LoudnessTargetEvaluation& evaluation, const LoudnessMeasurement& measurement);

}  // namespace LoudnessTargetEvaluator
}  // namespace vellum
