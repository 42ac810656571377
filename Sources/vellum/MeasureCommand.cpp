#include "vellum/MeasureCommand.hpp"

#include <fmt/format.h>

#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellumApp/FileMeasurement.hpp"
#include "vellum/FileBatch.hpp"
#include "vellum/LayoutOption.hpp"
#include "vellum/MeasureReport.hpp"
#include "vellum/Numbers.hpp"
#include "vellum/Options.hpp"
#include "vellum/SectionOptions.hpp"

namespace vellum {
namespace {

// What the command line says, as it says it.
struct Arguments {
  BatchArguments batch;
  bool json = false, csv = false, history = false, dualMono = false;
  std::string from, to, layout, weights;
};

enum class Form { text, json, csv };

struct Plan {
  Form form;
  bool withHistory;
  MeasureSettings settings;
};

std::vector<float> weightsArgument(const std::string& text) {
  std::vector<float> weights;
  for (const std::string& part : splitAtCommas(text)) {
    const auto weight = parseNumber(part);
    if (!weight || *weight < 0 || *weight > static_cast<double>(std::numeric_limits<float>::max()))
      refuse("--weights",
             fmt::format("'{}' is not a weight; write numbers of 0 and more, with commas between", part));
    weights.push_back(static_cast<float>(*weight));
  }
  return weights;
}

Plan makePlan(const Arguments& arguments) {
  if (arguments.json && arguments.csv) refuse("--json", "does not go together with --csv");
  if (arguments.history && !arguments.json) refuse("--history", "needs --json");
  if (!arguments.weights.empty() && arguments.dualMono)
    refuse("--weights", "does not go together with --dual-mono");

  Plan plan{};
  plan.form = arguments.json ? Form::json : arguments.csv ? Form::csv : Form::text;
  plan.withHistory = arguments.history;
  const SectionTimes times = sectionTimesArgument(arguments.from, arguments.to);
  plan.settings.fromSec = times.fromSec;
  plan.settings.toSec = times.toSec;
  if (!arguments.layout.empty()) plan.settings.channelLabels = layoutArgument(arguments.layout);
  if (!arguments.weights.empty()) plan.settings.channelWeights = weightsArgument(arguments.weights);
  plan.settings.dualMono = arguments.dualMono;
  return plan;
}

std::string render(const Plan& plan, const std::filesystem::path& path, const FileMeasurement& measurement) {
  switch (plan.form) {
    case Form::json:
      return Json::compactText(MeasureReport::record(path, measurement, plan.withHistory)) + "\n";
    case Form::csv:
      return MeasureReport::csvRow(MeasureReport::record(path, measurement, false)) + "\n";
    case Form::text:
      break;
  }
  return MeasureReport::textBlock(path, measurement);
}

std::string render(const Plan& plan, const std::filesystem::path& path, std::string_view error) {
  switch (plan.form) {
    case Form::json:
      return Json::compactText(MeasureReport::record(path, error)) + "\n";
    case Form::csv:
      return MeasureReport::csvRow(MeasureReport::record(path, error)) + "\n";
    case Form::text:
      break;
  }
  return MeasureReport::textBlock(path, error);
}

ExitCode measure(const Arguments& arguments) {
  const Plan plan = makePlan(arguments);
  FileBatch batch;
  batch.done = "measured";
  if (plan.form == Form::csv) batch.header = MeasureReport::csvHeader() + "\n";
  if (plan.form == Form::text) batch.separator = "\n";
  batch.work = [&](const std::filesystem::path& path,
                   const FileBatch::GoOn& goOn) -> std::optional<FileResult> {
    const auto measurement = measureFile(path, plan.settings, goOn);
    if (!measurement) return {};
    return FileResult{ExitCode::done, render(plan, path, *measurement)};
  };
  batch.failureText = [&](const std::filesystem::path& path, std::string_view error) {
    return render(plan, path, error);
  };
  return runBatch(arguments.batch, batch);
}

}  // namespace

void addMeasureCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb = *app.add_subcommand("measure", "Print the loudness, peaks and dynamics of audio files");
  verb.add_flag("--json", arguments->json, "One JSON object per line and file");
  verb.add_flag("--csv", arguments->csv, "A table with a header line");
  verb.add_flag("--history", arguments->history, "With --json: add the values of every 100 ms block");
  addTextOption(verb, "--from", arguments->from, "TIME", "Measure from here on (seconds or h:mm:ss)");
  addTextOption(verb, "--to", arguments->to, "TIME", "Measure up to here (seconds or h:mm:ss)");
  addLayoutOption(verb, arguments->layout);
  addTextOption(verb, "--weights", arguments->weights, "LIST",
                "Channel weights in the file's order, not by its layout: 1,1,1,0,1.41,1.41");
  verb.add_flag("--dual-mono", arguments->dualMono,
                "Give a single channel weight 2: it plays from two speakers");
  addBatchOptions(verb, arguments->batch);
  verb.footer(
      "Examples:\n"
      "  vellum measure song.flac\n"
      "  vellum measure --json --recursive --jobs 2 album/ --out album.jsonl\n"
      "\n"
      "Exit codes: 0 done, 2 wrong arguments, 3 some file failed or the output exists, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = measure(*arguments); });
}

}  // namespace vellum
