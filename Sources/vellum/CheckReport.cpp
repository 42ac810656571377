#include "vellum/CheckReport.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <variant>

#include "vellum/Console.hpp"
#include "vellum/FigureText.hpp"
#include "vellum/MeasureReport.hpp"

namespace vellum::CheckReport {
namespace {

using Evaluation = LoudnessTargetEvaluation;

// --- JSON

void setFigure(Json::Object& record, std::string_view key, const std::optional<float>& value) {
  if (value) vellum::setFigure(record, key, *value);
}

template <typename Failure>
Json::Object levelAndCeiling(const Failure& failure) {
  Json::Object record;
  vellum::setFigure(record, "actual", failure.actual);
  vellum::setFigure(record, "ceiling", failure.ceiling);
  return record;
}

Json::Object onlyMember(std::string_view key, Json::Object fields) {
  Json::Object record;
  record.set(key, std::move(fields));
  return record;
}

Json::Object reasonRecord(const NonComplianceReason& reason) {
  if (const auto* loudness = std::get_if<NonComplianceReason::Loudness>(&reason.value)) {
    Json::Object fields;
    vellum::setFigure(fields, "actual", loudness->actual);
    vellum::setFigure(fields, "reference", loudness->reference);
    vellum::setFigure(fields, "tolerance", loudness->tolerance);
    return onlyMember("loudness", std::move(fields));
  }
  if (const auto* truePeak = std::get_if<NonComplianceReason::TruePeak>(&reason.value))
    return onlyMember("truePeak", levelAndCeiling(*truePeak));
  const auto& extra = std::get<NonComplianceReason::Extra>(reason.value);
  if (const auto* noiseFloor = std::get_if<ExtraCriterionFailure::NoiseFloor>(&extra.value))
    return onlyMember("extra", onlyMember("noiseFloor", levelAndCeiling(*noiseFloor)));
  return onlyMember("extra",
                    onlyMember("maxShortTerm",
                               levelAndCeiling(std::get<ExtraCriterionFailure::MaxShortTerm>(extra.value))));
}

// Sets the case's name and its fields.
struct VerdictWriter {
  Json::Object& record;

  void operator()(const LoudnessVerdict::Penalty& verdict) const {
    record.set("verdict", "penalty");
    vellum::setFigure(record, "gainDB", verdict.gainDB);
    record.set("applies", verdict.applies);
    setTruePeak(verdict);
  }
  void operator()(const LoudnessVerdict::Compliant& verdict) const {
    record.set("verdict", "compliant");
    setTruePeak(verdict);
  }
  void operator()(const LoudnessVerdict::NotCompliant& verdict) const {
    record.set("verdict", "notCompliant");
    record.set("reason", reasonRecord(verdict.reason));
  }
  void operator()(const LoudnessVerdict::Unavailable&) const { record.set("verdict", "unavailable"); }

 private:
  template <typename Verdict>
  void setTruePeak(const Verdict& verdict) const {
    vellum::setFigure(record, "truePeakDBTP", verdict.truePeakDBTP);
    vellum::setFigure(record, "ceilingDBTP", verdict.ceilingDBTP);
    record.set("truePeakClean", verdict.truePeakClean);
  }
};

// --- Text

bool shownForAny(const std::vector<Evaluation>& evaluations, bool (*shows)(LoudnessTargetMode)) {
  return std::any_of(evaluations.begin(), evaluations.end(),
                     [shows](const Evaluation& evaluation) { return shows(evaluation.target.mode); });
}

float lowestCeiling(const std::vector<Evaluation>& evaluations) {
  const auto ceiling = [](const Evaluation& evaluation) {
    return evaluation.target.treatment.truePeakCeilingDBTP();
  };
  float lowest = ceiling(evaluations.front());
  for (const Evaluation& evaluation : evaluations) lowest = std::min(lowest, ceiling(evaluation));
  return lowest;
}

std::string figuresText(const CheckedFile& file) {
  const ProgrammeFigures& figures = file.measured.figures;
  const auto shows = [&](bool (*flag)(LoudnessTargetMode)) { return shownForAny(file.evaluations, flag); };
  std::string block;
  addLine(block, "Channels", MeasureReport::channelsText(file.measured));
  addLine(block, "Integrated loudness", figure(file.judged.integratedLUFS, "LUFS"));
  if (shows(showsSpeechGated))
    addLine(block, "Dialogue loudness",
            fmt::format("{}  ({} % speech)", figure(file.judged.dialogGatedLUFS, "LUFS"),
                        decimal(figures.speechPercentage)));
  addLine(block, "True peak", figure(file.judged.truePeakDBTP, "dBTP"));
  if (shows(showsMargin)) {
    const float ceiling = lowestCeiling(file.evaluations);
    addLine(block, "True-peak margin",
            figure(ceiling - file.judged.truePeakDBTP,
                   fmt::format("dB to the lowest ceiling, {} dBTP", ceiling)));
  }
  if (shows(showsNoiseFloor)) addLine(block, "Noise floor", figure(figures.noiseFloorDBRMS, "dB RMS"));
  if (shows(showsDynamicRange))
    addLine(block, "Dynamic range",
            figures.dynamicRange ? fmt::format("DR {}", *figures.dynamicRange) : "not measured");
  if (figures.nonFiniteSamples > 0)
    addLine(block, "Non-finite samples", std::to_string(figures.nonFiniteSamples));
  if (!file.measured.warnings.empty())
    addLine(block, "Warning", fmt::format("{}", fmt::join(file.measured.warnings, "; ")));
  return block;
}

}  // namespace

bool isMet(const LoudnessVerdict& verdict, bool isStrict) {
  if (const auto* penalty = std::get_if<LoudnessVerdict::Penalty>(&verdict.value))
    return !isStrict || penalty->truePeakClean;
  return std::holds_alternative<LoudnessVerdict::Compliant>(verdict.value);
}

Json::Object record(const LoudnessMeasurement& measurement) {
  Json::Object record;
  setFigure(record, "integratedLUFS", measurement.integratedLUFS);
  setFigure(record, "dialogGatedLUFS", measurement.dialogGatedLUFS);
  setFigure(record, "truePeakDBTP", measurement.truePeakDBTP);
  setFigure(record, "noiseFloorDBRMS", measurement.noiseFloorDBRMS);
  setFigure(record, "maxShortTermLUFS", measurement.maxShortTermLUFS);
  setFigure(record, "rmsDBFS", measurement.rmsDBFS);
  return record;
}

Json::Object record(const Evaluation& evaluation, const LoudnessMeasurement& measurement) {
  const std::string tooltip = LoudnessTargetEvaluator::tooltipText(evaluation, measurement);
  Json::Object record;
  record.set("target", evaluation.target.id);
  record.set("name", evaluation.target.name);
  std::visit(VerdictWriter{record}, evaluation.verdict.value);
  vellum::setFigure(record, "actualLUFS", evaluation.actualLUFS);
  if (std::holds_alternative<LoudnessVerdict::NotCompliant>(evaluation.verdict.value))
    record.set("headline", tooltip.substr(0, tooltip.find('\n')));
  record.set("tooltip", tooltip);
  return record;
}

Json::Object record(const CheckedFile& file) {
  Json::Array evaluations;
  for (const Evaluation& evaluation : file.evaluations)
    evaluations.push_back(record(evaluation, file.judged));
  Json::Object result;
  result.set("file", file.path.string());
  result.set("measurement", record(file.judged));
  result.set("evaluations", std::move(evaluations));
  if (file.measured.figures.nonFiniteSamples > 0)
    result.set("nonFiniteSamples", file.measured.figures.nonFiniteSamples);
  if (!file.measured.warnings.empty())
    result.set("warning", fmt::format("{}", fmt::join(file.measured.warnings, "; ")));
  return result;
}

std::string verdictText(const Evaluation& evaluation, const LoudnessMeasurement& measurement, bool isStrict) {
  Evaluation shown = evaluation;
  shown.target.name = Console::printable(shown.target.name);  // also within the verdict's lines
  std::string lines = LoudnessTargetEvaluator::tooltipText(shown, measurement);
  // The lines of a quiet file that plays as it is do not tell its true peak.
  if (const auto* penalty = std::get_if<LoudnessVerdict::Penalty>(&evaluation.verdict.value);
      isStrict && penalty && !penalty->applies && !penalty->truePeakClean)
    lines +=
        fmt::format("\nTrue Peak {:.1f} dBTP exceeds the {:.0f} dBTP ceiling.",
                    static_cast<double>(penalty->truePeakDBTP), static_cast<double>(penalty->ceilingDBTP));

  std::string text = fmt::format("  {}\n", shown.target.name);
  std::string_view rest = lines;
  for (std::string_view indent = "    ";; indent = "      ") {
    const std::size_t end = rest.find('\n');
    text.append(indent).append(rest.substr(0, end)).append("\n");
    if (end == rest.npos) return text;
    rest.remove_prefix(end + 1);
  }
}

std::string textBlock(const CheckedFile& file, bool isStrict) {
  std::string block = Console::printable(file.path.string()) + "\n" + figuresText(file) + "\n";
  for (const Evaluation& evaluation : file.evaluations)
    block += verdictText(evaluation, file.judged, isStrict);
  return block;
}

}  // namespace vellum::CheckReport
