#include "VellumCore/LoudnessTargetEvaluation.hpp"

#include <fmt/format.h>

#include <cmath>
#include <cstddef>
#include <limits>
#include <string_view>

namespace vellum {
namespace {

constexpr float unmeasured = -std::numeric_limits<float>::infinity();

bool isFinite(const std::optional<float>& level) {
  return level && std::isfinite(*level);
}

}  // namespace

float LoudnessMeasurement::programRMSDBFS(std::span<const float> perChannelDBFS) {
  double sum = 0;
  std::size_t count = 0;
  for (const float level : perChannelDBFS) {
    if (!std::isfinite(level)) continue;
    sum += std::pow(10.0, static_cast<double>(level) / 10.0);
    ++count;
  }
  return count > 0 ? static_cast<float>(10.0 * std::log10(sum / static_cast<double>(count))) : unmeasured;
}

namespace LoudnessTargetEvaluator {
namespace {

float judgedFigure(LoudnessSource source, const LoudnessMeasurement& measurement) {
  switch (source) {
    case LoudnessSource::integrated:
      return measurement.integratedLUFS;
    case LoudnessSource::dialogGated:
      return measurement.dialogGatedLUFS;
    case LoudnessSource::rms:
      break;
  }
  return measurement.rmsDBFS.value_or(unmeasured);
}

std::optional<ExtraCriterionFailure> failureOf(const ExtraCriterion& criterion,
                                               const LoudnessMeasurement& measurement) {
  if (const auto* noiseFloor = std::get_if<ExtraCriterion::NoiseFloor>(&criterion.value)) {
    // An infinite noise floor fails too.
    if (const auto actual = measurement.noiseFloorDBRMS; actual && *actual > noiseFloor->maxDBRMS)
      return ExtraCriterionFailure{ExtraCriterionFailure::NoiseFloor{*actual, noiseFloor->maxDBRMS}};
    return {};
  }
  const float ceiling = std::get<ExtraCriterion::MaxShortTerm>(criterion.value).maxLUFS;
  if (const auto actual = measurement.maxShortTermLUFS; isFinite(actual) && *actual > ceiling)
    return ExtraCriterionFailure{ExtraCriterionFailure::MaxShortTerm{*actual, ceiling}};
  return {};
}

// The first thing that fails, if anything does.
std::optional<NonComplianceReason> faultOf(const LoudnessTarget& target,
                                           const LoudnessTreatment::Compliance& rule, float actual,
                                           bool truePeakClean, const LoudnessMeasurement& measurement) {
  if (rule.toleranceLU < std::abs(actual - rule.referenceLUFS))
    return NonComplianceReason{NonComplianceReason::Loudness{actual, rule.referenceLUFS, rule.toleranceLU}};
  if (!truePeakClean)
    return NonComplianceReason{
        NonComplianceReason::TruePeak{measurement.truePeakDBTP, rule.truePeakCeilingDBTP}};
  for (const ExtraCriterion& criterion : target.extraCriteria)
    if (const auto failure = failureOf(criterion, measurement)) return NonComplianceReason{*failure};
  return {};
}

LoudnessVerdict verdictOn(const LoudnessTarget& target, float actual,
                          const LoudnessMeasurement& measurement) {
  if (!std::isfinite(actual)) return {LoudnessVerdict::Unavailable{}};
  const float truePeak = measurement.truePeakDBTP;
  const float ceiling = target.treatment.truePeakCeilingDBTP();
  const bool truePeakClean = truePeak <= ceiling || !std::isfinite(truePeak);

  if (const auto* rule = std::get_if<LoudnessTreatment::Penalty>(&target.treatment.value)) {
    const float gainDB = rule->referenceLUFS - actual;
    const bool applies = gainDB <= 0 || rule->boostBehaviour == BoostBehaviour::symmetric;
    return {LoudnessVerdict::Penalty{gainDB, applies, truePeak, ceiling, truePeakClean}};
  }
  const auto& rule = std::get<LoudnessTreatment::Compliance>(target.treatment.value);
  if (const auto reason = faultOf(target, rule, actual, truePeakClean, measurement))
    return {LoudnessVerdict::NotCompliant{*reason}};
  return {LoudnessVerdict::Compliant{truePeak, ceiling, true}};
}

// The texts follow printf, whose numbers are 64-bit.
double number(float value) {
  return static_cast<double>(value);
}

constexpr std::string_view passed = "✓", failed = "✗";

std::string_view mark(bool hasFailed) {
  return hasFailed ? failed : passed;
}

// "2", "0.5"
std::string formatTol(float tolerance) {
  return tolerance == std::round(tolerance) ? fmt::format("{:.0f}", number(tolerance))
                                            : fmt::format("{:.1f}", number(tolerance));
}

std::string headlineForFailure(const NonComplianceReason& reason, const LoudnessTarget& target) {
  if (const auto* loudness = std::get_if<NonComplianceReason::Loudness>(&reason.value))
    return fmt::format("Not compliant: {} {:+.1f} {} off target.", metricLabel(target.source),
                       number(loudness->actual - loudness->reference), deltaUnit(target.source));
  if (const auto* truePeak = std::get_if<NonComplianceReason::TruePeak>(&reason.value))
    return fmt::format("Not compliant: True Peak exceeds the ceiling by {:.1f} dB.",
                       number(truePeak->actual - truePeak->ceiling));
  const auto& extra = std::get<NonComplianceReason::Extra>(reason.value);
  if (const auto* noiseFloor = std::get_if<ExtraCriterionFailure::NoiseFloor>(&extra.value))
    return fmt::format("Not compliant: noise floor {:.1f} dB above the ceiling.",
                       number(noiseFloor->actual - noiseFloor->ceiling));
  const auto& shortTerm = std::get<ExtraCriterionFailure::MaxShortTerm>(extra.value);
  return fmt::format("Not compliant: Max Short-term {:.1f} LU above the ceiling.",
                     number(shortTerm.actual - shortTerm.ceiling));
}

std::string criterionLine(const ExtraCriterion& criterion, const LoudnessMeasurement& measurement,
                          std::string_view mark) {
  if (const auto* shortTerm = std::get_if<ExtraCriterion::MaxShortTerm>(&criterion.value)) {
    if (!isFinite(measurement.maxShortTermLUFS)) return "Max Short-term not measured.";
    return fmt::format("Max Short-term {:.1f} LUFS {} (ceiling {:.0f} LUFS).",
                       number(*measurement.maxShortTermLUFS), mark, number(shortTerm->maxLUFS));
  }
  if (!isFinite(measurement.noiseFloorDBRMS)) return "Noise floor not measured.";
  return fmt::format("Noise floor {:.1f} dB RMS {} (ceiling {:.0f} dB).",
                     number(*measurement.noiseFloorDBRMS), mark,
                     number(std::get<ExtraCriterion::NoiseFloor>(criterion.value).maxDBRMS));
}

// What a judged file's texts have in common: a first line, and a line for each thing that was judged.
struct Outcome {
  std::string firstLine;
  float truePeakDBTP, ceilingDBTP;
  const NonComplianceReason* reason;  // null where nothing failed
};

bool failedOnLoudness(const NonComplianceReason* reason) {
  return reason && std::holds_alternative<NonComplianceReason::Loudness>(reason->value);
}
bool failedOnTruePeak(const NonComplianceReason* reason) {
  return reason && std::holds_alternative<NonComplianceReason::TruePeak>(reason->value);
}
// Every criterion of the kind that failed: the reason does not tell which of two it was.
bool failedOn(const ExtraCriterion& criterion, const NonComplianceReason* reason) {
  const auto* extra = reason ? std::get_if<NonComplianceReason::Extra>(&reason->value) : nullptr;
  return extra && std::holds_alternative<ExtraCriterion::NoiseFloor>(criterion.value) ==
                      std::holds_alternative<ExtraCriterionFailure::NoiseFloor>(extra->value);
}

std::string linesOf(const Outcome& outcome, const LoudnessTargetEvaluation& evaluation,
                    const LoudnessMeasurement& measurement) {
  const LoudnessTarget& target = evaluation.target;
  std::string text = outcome.firstLine;
  if (const auto* rule = std::get_if<LoudnessTreatment::Compliance>(&target.treatment.value))
    text += fmt::format("\n{} {:.1f} {} {} (target {:.0f} ±{}).", metricLabel(target.source),
                        number(evaluation.actualLUFS), unit(target.source),
                        mark(failedOnLoudness(outcome.reason)), number(rule->referenceLUFS),
                        formatTol(rule->toleranceLU));
  if (std::isfinite(outcome.truePeakDBTP))
    text += fmt::format("\nTrue Peak {:.1f} dBTP {} (ceiling {:.0f} dBTP).", number(outcome.truePeakDBTP),
                        mark(failedOnTruePeak(outcome.reason)), number(outcome.ceilingDBTP));
  for (const ExtraCriterion& criterion : target.extraCriteria)
    text.append("\n").append(
        criterionLine(criterion, measurement, mark(failedOn(criterion, outcome.reason))));
  return text;
}

std::string textOf(const LoudnessVerdict::Penalty& verdict, const LoudnessTargetEvaluation& evaluation) {
  const LoudnessTarget& target = evaluation.target;
  const double reference = number(target.treatment.referenceLUFS());
  const double change = number(std::abs(verdict.gainDB));
  if (!verdict.applies)  // no line for the true peak here, on purpose
    return fmt::format(
        "{} does not boost quieter masters.\nFile plays as recorded ({:.1f} {}), {:.1f} dB under the {:.0f} "
        "{} reference.",
        target.name, number(evaluation.actualLUFS), unit(target.source), change, reference,
        unit(target.source));

  const std::string text =
      fmt::format("{} will {} this by {:.1f} dB to hit the {:.0f} {} reference.\n", target.name,
                  verdict.gainDB < 0 ? "turn down" : "turn up", change, reference, unit(target.source));
  if (!std::isfinite(verdict.truePeakDBTP)) return text + "True Peak not measured.";
  return text + fmt::format("True Peak {:.1f} dBTP {} the {:.0f} dBTP ceiling.", number(verdict.truePeakDBTP),
                            verdict.truePeakClean ? "within" : "exceeds", number(verdict.ceilingDBTP));
}

}  // namespace

LoudnessTargetEvaluation evaluate(const LoudnessTarget& target, const LoudnessMeasurement& measurement) {
  const float actual = judgedFigure(target.source, measurement);
  return {target, verdictOn(target, actual, measurement), actual};
}

std::string tooltipText(const LoudnessTargetEvaluation& evaluation, const LoudnessMeasurement& measurement) {
  const LoudnessTarget& target = evaluation.target;
  const auto& verdict = evaluation.verdict.value;
  if (const auto* penalty = std::get_if<LoudnessVerdict::Penalty>(&verdict))
    return textOf(*penalty, evaluation);
  if (const auto* compliant = std::get_if<LoudnessVerdict::Compliant>(&verdict))
    return linesOf({"Compliant.", compliant->truePeakDBTP, compliant->ceilingDBTP, nullptr}, evaluation,
                   measurement);
  if (const auto* refused = std::get_if<LoudnessVerdict::NotCompliant>(&verdict))
    return linesOf({headlineForFailure(refused->reason, target), measurement.truePeakDBTP,
                    target.treatment.truePeakCeilingDBTP(), &refused->reason},
                   evaluation, measurement);
  if (target.source == LoudnessSource::dialogGated)
    return "Dialog-gated targets need detected speech.\n"
           "This file has no detected speech, so the verdict is unavailable.";
  return "Loudness reading not available yet.";
}

}  // namespace LoudnessTargetEvaluator
}  // namespace vellum
