#include "vellum/DeliverReport.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string_view>
#include <utility>

#include "vellum/CheckReport.hpp"
#include "vellum/Console.hpp"
#include "vellum/FigureText.hpp"

namespace vellum::DeliverReport {
namespace {

// --- Text

std::string signedDB(double value) {
  return value > 0 ? fmt::format("+{} dB", decimal(value)) : fmt::format("{} dB", decimal(value));
}

// Two decimals, because a ceiling may be missed by less than one shows.
std::string peakText(double truePeakDBTP) {
  return std::isfinite(truePeakDBTP) ? fmt::format("true peak {:.2f} dBTP", truePeakDBTP)
                                     : "true peak not measured";
}

std::string levelsText(const LoudnessMeasurement& figures) {
  return figure(figures.integratedLUFS, "LUFS") + ", " + peakText(static_cast<double>(figures.truePeakDBTP));
}

std::string_view firstLine(std::string_view text) {
  return text.substr(0, text.find('\n'));
}

// A line whose value may have several lines itself.
void addLines(std::string& block, std::string_view name, std::string_view value) {
  addLine(block, name, firstLine(value));
  while (value.find('\n') != value.npos) {
    value.remove_prefix(value.find('\n') + 1);
    addLine(block, "", firstLine(value));
  }
}

std::string titleOf(const DeliveryItem& item) {
  return Console::printable(item.input.string()) + " -> " + Console::printable(item.output.string());
}

std::int64_t clippedSamples(const Delivery& delivery) {
  std::int64_t count = 0;
  for (const DeliveredFile& file : delivery.files) count += file.clippedSamples;
  return count;
}

void addRounds(std::string& block, const Delivery& delivery) {
  if (delivery.rounds.empty()) return;
  const auto& [attempt, trial] = delivery.rounds.back();
  addLine(block, "Gain", signedDB(attempt.gainDB));
  addLine(block, "Limiter",
          attempt.limiterCeilingDBTP ? fmt::format("at {:.2f} dBTP, takes at most {} dB",
                                                   *attempt.limiterCeilingDBTP, decimal(trial.reductionDB))
                                     : "not needed");
  if (const std::int64_t count = clippedSamples(delivery); count > 0)
    addLine(block, "Clipped samples", std::to_string(count));
  addLine(block, "Rounds", std::to_string(delivery.rounds.size()));
}

void addNotes(std::string& block, const DeliveredFile& file) {
  for (const std::string& note : file.notes) addLine(block, "Note", Console::printable(note));
}

// The files of an album, each with its own figures.
void addFiles(std::string& block, const Delivery& delivery) {
  for (const DeliveredFile& file : delivery.files) {
    block += "  " + titleOf(file.item) + "\n";
    addLine(block, "  Format", nameOf(file.format));
    addLine(block, "  Before", levelsText(file.before));
    if (file.after) addLine(block, "  After", levelsText(*file.after));
    addNotes(block, file);
  }
}

// --- JSON

Json::Array textList(const std::vector<std::string>& texts) {
  return {texts.begin(), texts.end()};
}

Json::Object fileRecord(const DeliveredFile& file) {
  Json::Object record;
  record.set("input", file.item.input.string());
  record.set("output", file.item.output.string());
  record.set("format", nameOf(file.format));
  record.set("before", CheckReport::record(file.before));
  if (file.after) {
    record.set("after", CheckReport::record(*file.after));
    setFigure(record, "largestReductionDB", file.largestReductionDB);
    record.set("clippedSamples", file.clippedSamples);
  }
  if (!file.notes.empty()) record.set("notes", textList(file.notes));
  return record;
}

Json::Object roundRecord(const DeliverySearch::Round& round) {
  Json::Object record;
  setFigure(record, "gainDB", round.attempt.gainDB);
  if (round.attempt.limiterCeilingDBTP)
    setFigure(record, "limiterCeilingDBTP", *round.attempt.limiterCeilingDBTP);
  setFigure(record, "largestReductionDB", round.trial.reductionDB);
  record.set("after", CheckReport::record(round.trial.figures));
  return record;
}

// What both verbs tell, behind what was asked for.
void setDelivery(Json::Object& record, const Delivery& delivery, bool isMet, bool isWritten) {
  record.set("isMet", isMet);
  record.set("isWritten", isWritten);
  if (delivery.obstacle) record.set("obstacle", *delivery.obstacle);
  record.set("before", CheckReport::record(delivery.before));
  if (delivery.after) record.set("after", CheckReport::record(*delivery.after));
  if (!delivery.rounds.empty()) {
    const auto& [attempt, trial] = delivery.rounds.back();
    setFigure(record, "gainDB", attempt.gainDB);
    if (attempt.limiterCeilingDBTP) setFigure(record, "limiterCeilingDBTP", *attempt.limiterCeilingDBTP);
    setFigure(record, "largestReductionDB", trial.reductionDB);
    record.set("clippedSamples", clippedSamples(delivery));
  }
  Json::Array rounds, files;
  for (const DeliverySearch::Round& round : delivery.rounds) rounds.push_back(roundRecord(round));
  for (const DeliveredFile& file : delivery.files) files.push_back(fileRecord(file));
  record.set("rounds", std::move(rounds));
  record.set("files", std::move(files));
}

}  // namespace

std::string textBlock(const DeliverySettings& settings, const Delivery& delivery) {
  const LoudnessTarget& target = settings.target;
  const bool isAlbum = delivery.files.size() > 1;
  const auto evaluated = [&](const LoudnessMeasurement& figures) {
    return LoudnessTargetEvaluator::evaluate(target, figures);
  };
  const auto levels = [&](const LoudnessMeasurement& figures) {
    return figure(evaluated(figures).actualLUFS, unit(target.source)) + ", " +
           peakText(static_cast<double>(figures.truePeakDBTP));
  };

  std::string block = isAlbum ? fmt::format("{} files with one gain\n", delivery.files.size())
                              : titleOf(delivery.files.front().item) + "\n";
  addLine(block, "Target",
          fmt::format("{} ({})", Console::printable(target.name), Console::printable(target.id)));
  addLine(block, "Before", levels(delivery.before));
  addLine(block, "",
          Console::printable(
              firstLine(LoudnessTargetEvaluator::tooltipText(evaluated(delivery.before), delivery.before))));
  addRounds(block, delivery);
  if (delivery.after) {
    addLine(block, "After", levels(*delivery.after));
    block += CheckReport::verdictText(evaluated(*delivery.after), *delivery.after, true);
  }
  if (isAlbum) {
    addFiles(block, delivery);
  } else {
    addLine(block, "Format", nameOf(delivery.files.front().format));
    addNotes(block, delivery.files.front());
  }
  if (delivery.obstacle)
    addLines(block, "Not written", *delivery.obstacle);
  else if (settings.outputs.isDryRun)
    addLine(block, "Not written", "this was a dry run");
  return block;
}

Json::Object record(const DeliverySettings& settings, const Delivery& delivery) {
  Json::Object record;
  record.set("target", settings.target.id);
  record.set("name", settings.target.name);
  record.set("maxReductionDB", settings.maxReductionDB);
  record.set("isDryRun", settings.outputs.isDryRun);
  const bool isMet = !delivery.obstacle;
  setDelivery(record, delivery, isMet, isMet && !settings.outputs.isDryRun);
  const auto setVerdict = [&](std::string_view key, const LoudnessMeasurement& figures) {
    record.set(key,
               CheckReport::record(LoudnessTargetEvaluator::evaluate(settings.target, figures), figures));
  };
  setVerdict("evaluationBefore", delivery.before);
  if (delivery.after) setVerdict("evaluation", *delivery.after);
  return record;
}

double excessDB(const LimitSettings& settings, const Delivery& delivery) {
  const double truePeak = delivery.after ? static_cast<double>(delivery.after->truePeakDBTP) : -HUGE_VAL;
  return truePeak - settings.limiter.ceilingDBTP;
}

std::string textBlock(const LimitSettings& settings, const Delivery& delivery) {
  const DeliveredFile& file = delivery.files.front();
  std::string block = titleOf(file.item) + "\n";
  addLine(block, "Ceiling", fmt::format("{} dBTP", settings.limiter.ceilingDBTP));
  addLine(block, "Before", levelsText(delivery.before));
  addRounds(block, delivery);
  if (delivery.after) addLine(block, "After", levelsText(*delivery.after));
  if (const double excess = excessDB(settings, delivery); excess > 0)
    addLine(block, "Above the ceiling",
            fmt::format("by {:.2f} dB{}", excess,
                        settings.isExact ? "" : "; --exact lowers the limiter's own ceiling until it holds"));
  addLine(block, "Format", nameOf(file.format));
  addNotes(block, file);
  if (delivery.obstacle) addLines(block, "Not written", *delivery.obstacle);
  return block;
}

Json::Object record(const LimitSettings& settings, const Delivery& delivery) {
  Json::Object record;
  record.set("ceilingDBTP", settings.limiter.ceilingDBTP);
  record.set("lookaheadMs", settings.limiter.lookaheadMs);
  record.set("releaseMs", settings.limiter.releaseMs);
  record.set("isExact", settings.isExact);
  setDelivery(record, delivery, excessDB(settings, delivery) <= 0, !delivery.obstacle);
  return record;
}

}  // namespace vellum::DeliverReport
