#include "vellum/CheckCommand.hpp"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellumApp/FileMeasurement.hpp"
#include "VellumApp/TargetFigures.hpp"
#include "VellumCore/LoudnessTargetEvaluation.hpp"
#include "vellum/CheckReport.hpp"
#include "vellum/FileBatch.hpp"
#include "vellum/LayoutOption.hpp"
#include "vellum/MeasureReport.hpp"
#include "vellum/TargetOptions.hpp"

namespace vellum {
namespace {

struct Arguments {
  BatchArguments batch;
  TargetArguments targets;
  std::string layout;
  bool json = false, strict = false, dualMono = false;
};

FileResult resultOf(const Arguments& arguments, const CheckReport::CheckedFile& file) {
  bool isMet = true;
  for (const LoudnessTargetEvaluation& evaluation : file.evaluations)
    isMet = isMet && CheckReport::isMet(evaluation.verdict, arguments.strict);
  return {isMet ? ExitCode::done : ExitCode::checkFailed,
          arguments.json ? Json::compactText(CheckReport::record(file)) + "\n"
                         : CheckReport::textBlock(file, arguments.strict)};
}

ExitCode check(const Arguments& arguments) {
  const std::vector<LoudnessTarget> targets = chooseTargets(arguments.targets);
  MeasureSettings settings;
  settings.dualMono = arguments.dualMono;
  if (!arguments.layout.empty()) settings.channelLabels = layoutArgument(arguments.layout);

  FileBatch batch;
  batch.done = "checked";
  if (!arguments.json) batch.separator = "\n";
  if (!arguments.targets.selection.empty()) batch.furtherInputs.push_back(arguments.targets.selection);
  batch.work = [&](const std::filesystem::path& path,
                   const FileBatch::GoOn& goOn) -> std::optional<FileResult> {
    const auto measured = measureFile(path, settings, goOn);
    if (!measured) return {};
    CheckReport::CheckedFile file{path, *measured, loudnessMeasurement(measured->figures), {}};
    for (const LoudnessTarget& target : targets)
      file.evaluations.push_back(LoudnessTargetEvaluator::evaluate(target, file.judged));
    return resultOf(arguments, file);
  };
  batch.failureText = [&](const std::filesystem::path& path, std::string_view error) {
    return MeasureReport::failureText(path, error, arguments.json);
  };
  return runBatch(arguments.batch, batch);
}

}  // namespace

void addCheckCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb =
      *app.add_subcommand("check", "Say what streaming services and broadcasters do to audio files");
  addTargetOptions(verb, arguments->targets);
  verb.add_flag("--strict", arguments->strict,
                "A normalising service whose true-peak ceiling is exceeded counts as not met");
  verb.add_flag("--json", arguments->json, "One JSON object per line and file");
  addLayoutOption(verb, arguments->layout);
  verb.add_flag("--dual-mono", arguments->dualMono,
                "Give a single channel weight 2: it plays from two speakers");
  addBatchOptions(verb, arguments->batch);
  verb.footer(
      "Examples:\n"
      "  vellum check song.flac\n"
      "  vellum check --mode podcast --all episode.wav\n"
      "  vellum check --target broadcast.ebuR128,vod.netflix film.wav\n"
      "\n"
      "Exit codes: 0 every target met, 1 some not compliant or unavailable, 2 wrong arguments or a faulty\n"
      "selection, 3 some file failed, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = check(*arguments); });
}

}  // namespace vellum
