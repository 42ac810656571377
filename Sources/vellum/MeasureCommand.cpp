#include "vellum/MeasureCommand.hpp"

#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Error.hpp>
#include <CLI/Validators.hpp>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellumApp/FileMeasurement.hpp"
#include "vellum/Console.hpp"
#include "vellum/InputFiles.hpp"
#include "vellum/Interrupt.hpp"
#include "vellum/MeasureReport.hpp"
#include "vellum/Numbers.hpp"
#include "vellum/OrderedJobs.hpp"
#include "vellum/Output.hpp"
#include "vellum/Progress.hpp"

namespace vellum {
namespace {

// What the command line says, as it says it.
struct Arguments {
  std::vector<std::string> files;
  bool json = false, csv = false, history = false, dualMono = false, recursive = false, force = false;
  std::string out, from, to, weights, jobs = "1";
};

enum class Form { text, json, csv };

struct Plan {
  Form form;
  bool withHistory;
  MeasureSettings settings;
  std::size_t jobs;
  std::vector<InputFile> inputs;
};

struct FileResult {
  bool failed;
  std::string text;  // ready to be written
};

[[noreturn]] void refuse(std::string_view option, std::string_view why) {
  throw CLI::ValidationError(std::string(option), std::string(why));
}

double timeArgument(std::string_view option, const std::string& text) {
  if (const auto seconds = parseTime(text)) return *seconds;
  refuse(option, fmt::format("'{}' is not a time; write seconds or h:mm:ss, not negative", text));
}

std::vector<float> weightsArgument(std::string_view text) {
  std::vector<float> weights;
  for (bool isLast = false; !isLast;) {
    const std::size_t comma = text.find(',');
    isLast = comma == std::string_view::npos;
    const auto weight = parseNumber(text.substr(0, comma));
    if (!weight || *weight < 0 || *weight > static_cast<double>(std::numeric_limits<float>::max()))
      refuse("--weights",
             fmt::format("'{}' is not a weight; write numbers of 0 and more, with commas between",
                         text.substr(0, comma)));
    weights.push_back(static_cast<float>(*weight));
    if (!isLast) text.remove_prefix(comma + 1);
  }
  return weights;
}

std::size_t jobsArgument(const std::string& text) {
  constexpr double most = 256;
  const auto jobs = parseNumber(text);
  if (!jobs || *jobs < 1 || *jobs > most || *jobs != std::floor(*jobs))
    refuse("--jobs", fmt::format("'{}' is not a whole number from 1 to {}", text, most));
  return static_cast<std::size_t>(*jobs);
}

Plan makePlan(const Arguments& arguments) {
  if (arguments.json && arguments.csv) refuse("--json", "does not go together with --csv");
  if (arguments.history && !arguments.json) refuse("--history", "needs --json");
  if (!arguments.weights.empty() && arguments.dualMono)
    refuse("--weights", "does not go together with --dual-mono");
  if (arguments.force && arguments.out.empty()) refuse("--force", "needs --out");

  Plan plan{};
  plan.form = arguments.json ? Form::json : arguments.csv ? Form::csv : Form::text;
  plan.withHistory = arguments.history;
  plan.jobs = jobsArgument(arguments.jobs);
  if (!arguments.from.empty()) plan.settings.fromSec = timeArgument("--from", arguments.from);
  if (!arguments.to.empty()) plan.settings.toSec = timeArgument("--to", arguments.to);
  if (plan.settings.toSec && *plan.settings.toSec <= plan.settings.fromSec.value_or(0))
    refuse("--to", "has to be later than the section's start");
  if (!arguments.weights.empty()) plan.settings.channelWeights = weightsArgument(arguments.weights);
  plan.settings.dualMono = arguments.dualMono;
  plan.inputs = findInputFiles(arguments.files, arguments.recursive);
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

// Measures one input; whatever goes wrong with it becomes its result.
FileResult measureInput(const Plan& plan, const InputFile& input,
                        const std::function<bool(const MeasureProgress&)>& goOn) {
  const auto failure = [&](std::string_view error) {
    return FileResult{true, render(plan, input.path, error)};
  };
  if (input.error) return failure(*input.error);
  try {
    const auto measurement = measureFile(input.path, plan.settings, goOn);
    if (!measurement) return failure("interrupted");  // nobody will read it
    return {false, render(plan, input.path, *measurement)};
  } catch (const std::exception& error) {
    return failure(error.what());
  }
}

std::string summary(std::size_t count, std::size_t failed) {
  const auto files = [](std::size_t n) { return fmt::format("{} file{}", n, n == 1 ? "" : "s"); };
  return failed == 0 ? fmt::format("{} measured", files(count))
                     : fmt::format("{} of {} could not be measured", failed, files(count));
}

ExitCode measure(const Arguments& arguments) {
  const Plan plan = makePlan(arguments);
  std::vector<std::filesystem::path> paths;
  std::vector<std::string> names;
  for (const InputFile& input : plan.inputs) {
    paths.push_back(input.path);
    names.push_back(input.path.filename().string());
  }

  Output output(arguments.out, arguments.force, paths);
  Progress progress(names);
  std::atomic<bool> stop = false;
  std::size_t failed = 0;
  const auto work = [&](std::size_t index) {
    FileResult result = measureInput(plan, plan.inputs[index], [&](const MeasureProgress& done) {
      progress.advance(index, done);
      return !stop;
    });
    progress.finish(index);
    return result;
  };
  const auto deliver = [&](std::size_t index, const FileResult& result) {
    progress.clear();
    if (index > 0 && plan.form == Form::text) output.write("\n");
    output.write(result.text);
    if (result.failed) ++failed;
  };
  const auto tick = [&] {
    if (Interrupt::wasAsked()) stop = true;
    progress.draw();
  };

  if (plan.form == Form::csv) output.write(MeasureReport::csvHeader() + "\n");
  runInOrder(plan.inputs.size(), plan.jobs, stop, work, deliver, tick);
  progress.clear();
  if (Interrupt::wasAsked()) return ExitCode::interrupted;
  output.commit();
  if (failed > 0)
    Console::printError(summary(plan.inputs.size(), failed));
  else if (plan.inputs.size() > 1)
    Console::printNote(summary(plan.inputs.size(), failed));
  return failed > 0 ? ExitCode::fileFailed : ExitCode::done;
}

}  // namespace

void addMeasureCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  const CLI::Validator notEmpty([](const std::string& text) { return text.empty() ? "needs a value" : ""; },
                                "");
  CLI::App& verb = *app.add_subcommand("measure", "Print the loudness, peaks and dynamics of audio files");
  verb.add_option("FILE", arguments->files,
                  "Audio files: WAV, RF64, W64, AIFF, CAF, FLAC, Ogg Vorbis, Opus, MP3")
      ->required()
      ->type_name("");
  verb.add_flag("--json", arguments->json, "One JSON object per line and file");
  verb.add_flag("--csv", arguments->csv, "A table with a header line");
  verb.add_flag("--history", arguments->history, "With --json: add the values of every 100 ms block");
  const auto addOption = [&](const char* name, std::string& value, const char* type,
                             const char* description) {
    return verb.add_option(name, value, description)->type_name(type)->check(notEmpty);
  };
  addOption("--out", arguments->out, "FILE", "Write to this file, which appears whole or not at all");
  verb.add_flag("--force", arguments->force, "Let --out replace an existing file");
  addOption("--from", arguments->from, "TIME", "Measure from here on (seconds or h:mm:ss)");
  addOption("--to", arguments->to, "TIME", "Measure up to here (seconds or h:mm:ss)");
  addOption("--weights", arguments->weights, "LIST",
            "Channel weights, not the file's own: 1,1,1,0,1.41,1.41");
  verb.add_flag("--dual-mono", arguments->dualMono,
                "Give a single channel weight 2: it plays from two speakers");
  addOption("--jobs", arguments->jobs, "N", "Files measured side by side")->capture_default_str();
  verb.add_flag("--recursive", arguments->recursive, "Measure the audio files in directories and below");
  verb.footer(
      "Examples:\n"
      "  vellum measure song.flac\n"
      "  vellum measure --json --recursive --jobs 2 album/ --out album.jsonl\n"
      "\n"
      "Exit codes: 0 done, 2 wrong arguments, 3 some file failed or the output exists, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = measure(*arguments); });
}

}  // namespace vellum
