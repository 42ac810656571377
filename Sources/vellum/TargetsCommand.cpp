#include "vellum/TargetsCommand.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

#include "VellumApp/DocumentFile.hpp"
#include "VellumCore/LoudnessTargetSelection.hpp"
#include "vellum/Console.hpp"
#include "vellum/Options.hpp"
#include "vellum/TargetOptions.hpp"

namespace vellum {
namespace {

struct Arguments {
  std::string mode;
  bool json = false;
};

using Row = std::array<std::string, 9>;

const Row titles = {" ",         "ID",      "Name",     "Judged",          "Reference",
                    "Tolerance", "Ceiling", "Playback", "Further ceilings"};

std::string judgedText(LoudnessSource source) {
  switch (source) {
    case LoudnessSource::integrated:
      return "integrated loudness";
    case LoudnessSource::dialogGated:
      return "dialogue loudness";
    case LoudnessSource::rms:
      break;
  }
  return "RMS";
}

std::string criterionText(const ExtraCriterion& criterion) {
  if (const auto* noiseFloor = std::get_if<ExtraCriterion::NoiseFloor>(&criterion.value))
    return fmt::format("noise floor {} dB RMS", noiseFloor->maxDBRMS);
  return fmt::format("short-term {} LUFS", std::get<ExtraCriterion::MaxShortTerm>(criterion.value).maxLUFS);
}

std::string extraCriteriaText(const LoudnessTarget& target) {
  std::vector<std::string> texts;
  for (const ExtraCriterion& criterion : target.extraCriteria) texts.push_back(criterionText(criterion));
  return texts.empty() ? "-" : fmt::format("{}", fmt::join(texts, ", "));
}

std::string toleranceText(const LoudnessTarget& target) {
  const auto* rule = std::get_if<LoudnessTreatment::Compliance>(&target.treatment.value);
  return rule ? fmt::format("±{} {}", rule->toleranceLU, deltaUnit(target.source)) : "-";
}

std::string playbackText(const LoudnessTarget& target) {
  const auto* rule = std::get_if<LoudnessTreatment::Penalty>(&target.treatment.value);
  if (!rule) return "-";
  return rule->boostBehaviour == BoostBehaviour::symmetric ? "turned up or down" : "turned down only";
}

Row rowOf(const LoudnessTarget& target) {
  const std::vector<std::string>& defaults = LoudnessTargetCatalog::defaultSelectedIDs(target.mode);
  const bool isDefault = std::find(defaults.begin(), defaults.end(), target.id) != defaults.end();
  return {isDefault ? "*" : " ",
          target.id,
          target.name,
          judgedText(target.source),
          fmt::format("{} {}", target.treatment.referenceLUFS(), unit(target.source)),
          toleranceText(target),
          fmt::format("{} dBTP", target.treatment.truePeakCeilingDBTP()),
          playbackText(target),
          extraCriteriaText(target)};
}

// Columns as wide as their widest cell, two spaces between them. Bytes are counted, so that a ± can make its
// column one wider.
std::string tableText(const std::vector<Row>& rows) {
  std::array<std::size_t, std::tuple_size_v<Row>> widths{};
  for (const Row& row : rows)
    for (std::size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], row[c].size());
  std::string text;
  for (const Row& row : rows) {
    std::string line;
    for (std::size_t c = 0; c < row.size(); ++c) line += fmt::format("{:<{}}  ", row[c], widths[c]);
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  return text;
}

std::string catalogText(const std::vector<LoudnessTargetMode>& modes) {
  std::vector<Row> rows = {titles};
  for (const LoudnessTargetMode mode : modes)
    for (const LoudnessTarget& target : LoudnessTargetCatalog::targets(mode)) rows.push_back(rowOf(target));
  return tableText(rows) + "\n* chosen by --mode alone; --mode with --all chooses every target of the mode\n";
}

ExitCode printTargets(const Arguments& arguments) {
  const auto all = allCases<LoudnessTargetMode>();
  std::vector<LoudnessTargetMode> modes(all.begin(), all.end());
  LoudnessTargetSelection selection = LoudnessTargetSelection::defaultValue();
  if (!arguments.mode.empty()) {
    selection.mode = modeArgument(arguments.mode);
    modes = {selection.mode};
  }
  Console::writeOutput(arguments.json ? targetSelectionText(selection) : catalogText(modes));
  return ExitCode::done;
}

}  // namespace

void addTargetsCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb = *app.add_subcommand("targets", "List the delivery targets that are built in");
  addTextOption(verb, "--mode", arguments->mode, "MODE", "Only those of music, podcast, vod or broadcast");
  verb.add_flag("--json", arguments->json,
                "The default selection of targets as a document, which --selection reads");
  verb.footer(
      "Examples:\n"
      "  vellum targets --mode broadcast\n"
      "  vellum targets --mode podcast --json > targets.json\n"
      "\n"
      "Exit codes: 0 done, 2 wrong arguments");
  verb.callback([arguments, &exitCode] { exitCode = printTargets(*arguments); });
}

}  // namespace vellum
