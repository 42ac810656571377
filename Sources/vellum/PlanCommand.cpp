#include "vellum/PlanCommand.hpp"

#include <fmt/format.h>

#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VellumApp/DeliveryPlan.hpp"
#include "VellumApp/FileMeasurement.hpp"
#include "VellumApp/TargetFigures.hpp"
#include "vellum/CheckReport.hpp"
#include "vellum/Console.hpp"
#include "vellum/FigureText.hpp"
#include "vellum/FileBatch.hpp"
#include "vellum/LayoutOption.hpp"
#include "vellum/MeasureReport.hpp"
#include "vellum/TargetOptions.hpp"

namespace vellum {
namespace {

using DeliveryPlan::Master;
using DeliveryPlan::Plan;

struct Arguments {
  BatchArguments batch;
  TargetArguments targets;
  std::string layout;
  bool json = false;
};

// --- Text

std::string levelsText(const LoudnessMeasurement& figures) {
  std::string text = figure(figures.integratedLUFS, "LUFS");
  if (std::isfinite(figures.dialogGatedLUFS)) text += ", dialogue " + figure(figures.dialogGatedLUFS, "LKFS");
  return text + ", true peak " + figure(figures.truePeakDBTP, "dBTP");
}

std::string gainText(double gainDB) {
  return (gainDB > 0 ? "+" : "") + decimal(gainDB) + " dB";
}

// The limiter's part in a master.
std::string limitingText(const Master& master) {
  if (!std::isfinite(master.limitingBeginsAtDB)) return "none: there is no true peak";
  const std::string begins = gainText(master.limitingBeginsAtDB);
  return master.reductionDB() > 0
             ? fmt::format(
                   "up to {} dB: it begins at a gain of {}, and the loudness comes out lower than said",
                   decimal(master.reductionDB()), begins)
             : fmt::format("none: it begins at a gain of {}", begins);
}

std::string rangeText(const Master& master) {
  const bool hasLeast = std::isfinite(master.leastGainDB), hasMost = std::isfinite(master.mostGainDB);
  if (hasLeast && hasMost)
    return fmt::format("{} to {}", gainText(master.leastGainDB), gainText(master.mostGainDB));
  if (hasLeast) return gainText(master.leastGainDB) + " and more";
  return hasMost ? gainText(master.mostGainDB) + " and less" : "any";
}

std::string namesOf(const std::vector<LoudnessTarget>& targets) {
  std::string names;
  for (const LoudnessTarget& target : targets)
    names += (names.empty() ? "" : ", ") + Console::printable(target.name);
  return names;
}

void addMaster(std::string& block, std::string_view title, const Master& master) {
  block +=
      fmt::format("  {}: gain {}, ceiling {} dBTP\n", title, gainText(master.gainDB), master.ceilingDBTP);
  addLine(block, "  Serves", namesOf(master.targets));
  addLine(block, "  Gains that do", rangeText(master));
  addLine(block, "  Limiting", limitingText(master));
  addLine(block, "  Then", levelsText(master.after));
}

std::string textBlock(const std::filesystem::path& path, const LoudnessMeasurement& figures, const Plan& plan,
                      const std::vector<std::string>& warnings) {
  std::string block = Console::printable(path.string()) + "\n";
  addLine(block, "Now", levelsText(figures));
  for (const std::string& warning : warnings) addLine(block, "Warning", warning);
  for (std::size_t k = 0; k < plan.masters.size(); ++k)
    addMaster(
        block,
        plan.masters.size() == 1 ? "One master" : fmt::format("Master {} of {}", k + 1, plan.masters.size()),
        plan.masters[k]);
  for (const DeliveryPlan::Unserved& unserved : plan.unserved) {
    block += fmt::format("  Not served: {}\n", Console::printable(unserved.target.name));
    for (std::string_view rest = unserved.reason; !rest.empty();) {
      const std::size_t end = rest.find('\n');
      block += fmt::format("    {}\n", Console::printable(rest.substr(0, end)));
      rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
    }
  }
  return block;
}

// --- JSON

Json::Object masterRecord(const Master& master) {
  Json::Array targets;
  for (const LoudnessTarget& target : master.targets) targets.push_back(target.id);
  Json::Object record;
  record.set("targets", std::move(targets));
  setFigure(record, "gainDB", master.gainDB);
  setFigure(record, "ceilingDBTP", master.ceilingDBTP);
  setFigure(record, "leastGainDB", master.leastGainDB);
  setFigure(record, "mostGainDB", master.mostGainDB);
  setFigure(record, "limitingBeginsAtDB", master.limitingBeginsAtDB);
  setFigure(record, "reductionDB", master.reductionDB());
  record.set("after", CheckReport::record(master.after));
  return record;
}

Json::Object planRecord(const std::filesystem::path& path, const LoudnessMeasurement& figures,
                        const Plan& plan, const std::vector<std::string>& warnings) {
  Json::Array masters, unserved;
  for (const Master& master : plan.masters) masters.push_back(masterRecord(master));
  for (const DeliveryPlan::Unserved& target : plan.unserved) {
    Json::Object one;
    one.set("target", target.target.id);
    one.set("name", target.target.name);
    one.set("reason", target.reason);
    unserved.push_back(std::move(one));
  }
  Json::Object record;
  record.set("file", path.string());
  record.set("measurement", CheckReport::record(figures));
  record.set("masters", std::move(masters));
  record.set("unserved", std::move(unserved));
  if (!warnings.empty()) record.set("warning", fmt::format("{}", fmt::join(warnings, "; ")));
  return record;
}

// ---

ExitCode plan(const Arguments& arguments) {
  const std::vector<LoudnessTarget> targets = chooseTargets(arguments.targets);
  MeasureSettings settings;
  if (!arguments.layout.empty()) settings.channelLabels = layoutArgument(arguments.layout);

  FileBatch batch;
  batch.done = "planned";
  batch.missed = "have a target that no master serves";
  if (!arguments.json) batch.separator = "\n";
  if (!arguments.targets.selection.empty()) batch.furtherInputs.push_back(arguments.targets.selection);
  batch.work = [&](const std::filesystem::path& path,
                   const FileBatch::GoOn& goOn) -> std::optional<FileResult> {
    const auto measured = measureFile(path, settings, goOn);
    if (!measured) return {};
    const LoudnessMeasurement figures = loudnessMeasurement(measured->figures);
    const Plan made = DeliveryPlan::make(targets, figures);
    return FileResult{made.unserved.empty() ? ExitCode::done : ExitCode::checkFailed,
                      arguments.json
                          ? Json::compactText(planRecord(path, figures, made, measured->warnings)) + "\n"
                          : textBlock(path, figures, made, measured->warnings)};
  };
  batch.failureText = [&](const std::filesystem::path& path, std::string_view error) {
    return MeasureReport::failureText(path, error, arguments.json);
  };
  return runBatch(arguments.batch, batch);
}

}  // namespace

void addPlanCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb = *app.add_subcommand("plan", "Say how few masters serve a set of delivery targets");
  addTargetOptions(verb, arguments->targets);
  addLayoutOption(verb, arguments->layout);
  verb.add_flag("--json", arguments->json, "One JSON object per line and file");
  addBatchOptions(verb, arguments->batch);
  verb.footer(
      "Examples:\n"
      "  vellum plan --mode music song.flac\n"
      "  vellum plan --target broadcast.ebuR128,vod.netflix film.wav\n"
      "\n"
      "Exit codes: 0 every target is served, by however many masters, 1 some is not, 2 wrong arguments or a\n"
      "faulty selection, 3 some file failed, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = plan(*arguments); });
}

}  // namespace vellum
