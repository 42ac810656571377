#include "vellum/MeasureReport.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <span>
#include <variant>
#include <vector>

#include "VellumApp/CSVCell.hpp"
#include "vellum/ClockText.hpp"
#include "vellum/Console.hpp"
#include "vellum/FigureText.hpp"

namespace vellum::MeasureReport {
namespace {

bool isReordered(const FileMeasurement& measurement) {
  return !std::is_sorted(measurement.fileChannels.begin(), measurement.fileChannels.end());
}

std::vector<std::string> namesInFile(const FileMeasurement& measurement) {
  std::vector<std::string> names(measurement.channelNames.size());
  for (std::size_t c = 0; c < names.size(); ++c)
    names[static_cast<std::size_t>(measurement.fileChannels[c])] = measurement.channelNames[c];
  return names;
}

// --- Text

template <typename Number>
std::string figureAt(Number value, std::string_view unit, std::optional<double> atSec) {
  std::string text = figure(value, unit);
  if (std::isfinite(value) && atSec) text += " at " + clockTextWithTenths(*atSec);
  return text;
}

// "  (L -1.2, R -0.9)"; nothing for a single channel, or for more than a line holds.
template <typename Value>
std::string perChannel(const std::vector<std::string>& names, const std::vector<Value>& values) {
  constexpr std::size_t mostChannels = 8;
  if (values.size() < 2 || values.size() > mostChannels) return {};
  std::string text;
  for (std::size_t c = 0; c < values.size(); ++c) {
    text += (c == 0 ? "  (" : ", ") + names[c] + " ";
    if constexpr (std::is_integral_v<Value>)
      text += std::to_string(values[c]);
    else
      text += std::isfinite(values[c]) ? decimal(values[c]) : "none";
  }
  return text + ")";
}

// --- JSON

Json::Value numberOrNull(double value) {
  return std::isfinite(value) ? Json::Value(value) : Json::Value();
}
Json::Value numberOrNull(float value) {
  return std::isfinite(value) ? Json::Value(value) : Json::Value();
}
Json::Value numberOrNull(std::int64_t value) {
  return value;
}

template <typename Values, typename Convert>
Json::Array listOf(const Values& values, const Convert& convert) {
  Json::Array list;
  list.reserve(values.size());
  for (const auto& value : values) list.push_back(convert(value));
  return list;
}

template <typename Number>
Json::Array numberList(std::span<const Number> values) {
  return listOf(values, [](Number value) { return numberOrNull(value); });
}

template <typename Number>
void setFigureAt(Json::Object& record, std::string_view key, Number value, std::string_view timeKey,
                 std::optional<double> atSec) {
  if (!std::isfinite(value)) return;
  record.set(key, value);
  if (atSec) record.set(timeKey, *atSec);
}

void setFigures(Json::Object& record, const ProgrammeFigures& figures) {
  setFigure(record, "integratedLUFS", figures.integratedLUFS);
  setFigure(record, "bs1770IntegratedLUFS", figures.bs1770IntegratedLUFS);
  setFigureAt(record, "maxMomentaryLUFS", figures.maxMomentaryLUFS, "maxMomentaryAtSec",
              figures.maxMomentaryAtSec);
  setFigureAt(record, "maxShortTermLUFS", figures.maxShortTermLUFS, "maxShortTermAtSec",
              figures.maxShortTermAtSec);
  setFigure(record, "loudnessRange", figures.loudnessRange);
  setFigureAt(record, "truePeakDBTP", figures.truePeakDBTP, "truePeakAtSec", figures.truePeakAtSec);
  record.set("channelTruePeakDBTP", numberList<float>(figures.channelTruePeakDBTP));
  setFigure(record, "samplePeakDBFS", figures.samplePeakDBFS);
  setFigure(record, "rmsDBFS", figures.rmsDBFS);
  record.set("channelRMSDBFS", numberList<float>(figures.channelRMSDBFS));
  setFigure(record, "speechGatedLUFS", figures.speechGatedLUFS);
  setFigure(record, "speechPercentage", figures.speechPercentage);
  setFigure(record, "noiseFloorDBRMS", figures.noiseFloorDBRMS);
  if (figures.dynamicRange) {
    record.set("dynamicRange", *figures.dynamicRange);
    record.set("channelDynamicRange", numberList<std::int64_t>(figures.channelDynamicRange));
  }
  if (figures.nonFiniteSamples > 0) record.set("nonFiniteSamples", figures.nonFiniteSamples);
}

Json::Object historyRecord(const ProgrammeHistory& history) {
  using Entry = LoudnessProcessor::HistoryEntry;
  Json::Object record;
  record.set("momentaryLUFS",
             listOf(history.loudness, [](const Entry& entry) { return numberOrNull(entry.momentary); }));
  record.set("shortTermLUFS",
             listOf(history.loudness, [](const Entry& entry) { return numberOrNull(entry.shortTerm); }));
  record.set("integratedLUFS",
             listOf(history.loudness, [](const Entry& entry) { return numberOrNull(entry.integrated); }));
  record.set("truePeakDBTP", numberList(history.truePeakDBTP));
  record.set("blockPower", numberList(history.blockPower));
  record.set("speech", listOf(history.speech, [](bool isSpeech) { return Json::Value(isSpeech); }));
  return record;
}

std::string joined(const std::vector<std::string>& texts, std::string_view separator) {
  return fmt::format("{}", fmt::join(texts, separator));
}

// --- CSV

// Every key that a record can have, in its order; `error` stands in the records of files that failed.
constexpr std::array<std::string_view, 29> columns = {
    "file",
    "sampleRate",
    "channelCount",
    "channelNames",
    "channelWeights",
    "fileChannels",
    "durationSec",
    "integratedLUFS",
    "bs1770IntegratedLUFS",
    "maxMomentaryLUFS",
    "maxMomentaryAtSec",
    "maxShortTermLUFS",
    "maxShortTermAtSec",
    "loudnessRange",
    "truePeakDBTP",
    "truePeakAtSec",
    "channelTruePeakDBTP",
    "samplePeakDBFS",
    "rmsDBFS",
    "channelRMSDBFS",
    "speechGatedLUFS",
    "speechPercentage",
    "noiseFloorDBRMS",
    "dynamicRange",
    "channelDynamicRange",
    "nonFiniteSamples",
    "gating",
    "warning",
    "error",
};

// A cell before quoting: texts as they are, null empty, everything else as JSON has it.
std::string cellText(const Json::Value& value) {
  if (const auto* text = std::get_if<std::string>(&value.content())) return *text;
  if (std::holds_alternative<std::nullptr_t>(value.content())) return {};
  if (const auto* list = std::get_if<Json::Array>(&value.content())) {
    std::vector<std::string> texts;
    for (const Json::Value& element : *list) texts.push_back(cellText(element));
    return joined(texts, ";");
  }
  return Json::compactText(value);
}

}  // namespace

std::string channelsText(const FileMeasurement& measurement) {
  const std::vector<std::string>& names = measurement.channelNames;
  const std::span<const float> weights = measurement.meter.channelWeights();
  std::string text;
  for (std::size_t c = 0; c < names.size(); ++c)
    text += fmt::format("{}{} {}", c == 0 ? "" : ", ", names[c], weights[c]);
  if (isReordered(measurement))
    text += fmt::format("  (reordered from the file's {})", fmt::join(namesInFile(measurement), " "));
  else if (measurement.channelLabels.empty() && names.size() > 2)
    text += "  (by their number: the file does not say which is which)";
  return text;
}

std::string textBlock(const std::filesystem::path& path, const FileMeasurement& measurement) {
  const ProgrammeFigures& figures = measurement.figures;
  const std::vector<std::string>& names = measurement.channelNames;
  std::string block = Console::printable(path.string()) + "\n";
  addLine(block, "Audio",
          fmt::format("{}, {} Hz, {} channel{}, {}", measurement.formatName, measurement.sampleRate,
                      measurement.channelCount, measurement.channelCount == 1 ? "" : "s",
                      clockTextWithTenths(figures.durationSec)));
  addLine(block, "Channels", channelsText(measurement));
  if (figures.frameCount > 0) {
    addLine(block, "Integrated loudness", figure(figures.integratedLUFS, "LUFS  (100 ms gating blocks)"));
    addLine(block, "BS.1770 integrated",
            figure(figures.bs1770IntegratedLUFS, "LUFS  (400 ms gating blocks)"));
    addLine(block, "Maximum momentary",
            figureAt(figures.maxMomentaryLUFS, "LUFS", figures.maxMomentaryAtSec));
    addLine(block, "Maximum short-term",
            figureAt(figures.maxShortTermLUFS, "LUFS", figures.maxShortTermAtSec));
    addLine(block, "Loudness range", figure(figures.loudnessRange, "LU"));
    addLine(block, "True peak",
            figureAt(figures.truePeakDBTP, "dBTP", figures.truePeakAtSec) +
                perChannel(names, figures.channelTruePeakDBTP));
    addLine(block, "Sample peak", figure(figures.samplePeakDBFS, "dBFS"));
    addLine(block, "RMS", figure(figures.rmsDBFS, "dBFS") + perChannel(names, figures.channelRMSDBFS));
    addLine(block, "Dialogue loudness",
            fmt::format("{}  ({} % speech)", figure(figures.speechGatedLUFS, "LUFS"),
                        decimal(figures.speechPercentage)));
    addLine(block, "Noise floor", figure(figures.noiseFloorDBRMS, "dB RMS"));
    addLine(block, "Dynamic range",
            figures.dynamicRange ? fmt::format("DR {}{}", *figures.dynamicRange,
                                               perChannel(names, figures.channelDynamicRange))
                                 : "not measured");
  }
  if (figures.nonFiniteSamples > 0)
    addLine(block, "Non-finite samples", std::to_string(figures.nonFiniteSamples));
  if (!measurement.warnings.empty()) addLine(block, "Warning", joined(measurement.warnings, "; "));
  return block;
}

std::string textBlock(const std::filesystem::path& path, std::string_view error) {
  std::string block = Console::printable(path.string()) + "\n";
  addLine(block, "Error", error);
  return block;
}

Json::Object record(const std::filesystem::path& path, const FileMeasurement& measurement, bool withHistory) {
  const ProgrammeFigures& figures = measurement.figures;
  Json::Object record;
  record.set("file", path.string());
  record.set("sampleRate", static_cast<std::int64_t>(measurement.sampleRate));  // files have whole ones
  record.set("channelCount", measurement.channelCount);
  record.set("channelNames",
             listOf(measurement.channelNames, [](const std::string& name) { return Json::Value(name); }));
  record.set("channelWeights", numberList(measurement.meter.channelWeights()));
  if (isReordered(measurement))
    record.set("fileChannels",
               listOf(measurement.fileChannels, [](std::int64_t place) { return Json::Value(place + 1); }));
  record.set("durationSec", figures.durationSec);
  if (figures.frameCount > 0) setFigures(record, figures);
  record.set("gating", "blocks-100ms");
  if (!measurement.warnings.empty()) record.set("warning", joined(measurement.warnings, "; "));
  if (withHistory) record.set("history", historyRecord(measurement.meter.history()));
  return record;
}

Json::Object record(const std::filesystem::path& path, std::string_view error) {
  Json::Object record;
  record.set("file", path.string());
  record.set("error", error);
  return record;
}

std::string failureText(const std::filesystem::path& path, std::string_view error, bool asJSON) {
  return asJSON ? Json::compactText(record(path, error)) + "\n" : textBlock(path, error);
}

std::string csvHeader() {
  return fmt::format("{}", fmt::join(columns, ","));
}

std::string csvRow(const Json::Object& record) {
  std::vector<std::string> cells;
  for (const std::string_view column : columns) {
    const Json::Value* value = record.find(column);
    cells.push_back(value ? csvCell(cellText(*value)) : "");
  }
  return joined(cells, ",");
}

}  // namespace vellum::MeasureReport
