#include "vellum/ChaptersCommand.hpp"

#include <fmt/format.h>

#include <array>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "VellumApp/ChapterExports.hpp"
#include "VellumApp/ChapterLeveling.hpp"
#include "VellumApp/ChapterLimits.hpp"
#include "VellumApp/ChapterProgramme.hpp"
#include "VellumApp/ChapterRendering.hpp"
#include "VellumApp/DocumentFile.hpp"
#include "VellumApp/OutputFile.hpp"
#include "vellum/ChaptersReport.hpp"
#include "vellum/Console.hpp"
#include "vellum/Interrupt.hpp"
#include "vellum/Options.hpp"
#include "vellum/Output.hpp"
#include "vellum/Progress.hpp"
#include "vellum/RenderOptions.hpp"

namespace vellum {
namespace {

namespace fs = std::filesystem;
using ChapterAnalyser::LevelTarget;

// --- Arguments -------------------------------------------------------------------------------------------

// What the command line says, as it says it; empty where it does not.
struct Arguments {
  std::string file;
  std::string settings, silenceThreshold, minSilence, deviation, block, metric;
  std::string report, fromReport;
  std::string cue, ffmetadata, labels, podcastChapters;
  bool csv = false, strict = false;
  std::string level, ceiling, render, split;
  RenderArguments rendering;
};

struct Plan {
  ChapterDetectionSettings settings;
  std::optional<ChapterReport> given;
  std::vector<fs::path> inputs;
  std::optional<LevelTarget> level;
  double ceilingDBTP;
  std::optional<ChapterOutput> whole, parts;
  Dither dither;
  std::optional<std::vector<AudioChannelLabel>> channelLabels;
};

double inRange(std::string_view option, const std::string& text, const ChapterLimits::Range& range,
               std::string_view unit) {
  return numberArgument(option, text, range.least, range.most, unit);
}

ChapterDetectionSettings settingsOf(const Arguments& arguments) {
  ChapterDetectionSettings settings = arguments.settings.empty()
                                          ? ChapterDetectionSettings::defaultValue()
                                          : readChapterDetectionSettings(arguments.settings);
  if (!arguments.silenceThreshold.empty())
    settings.silenceThresholdDB = static_cast<float>(inRange(
        "--silence-threshold", arguments.silenceThreshold, ChapterLimits::silenceThresholdDB, "dBFS"));
  if (!arguments.minSilence.empty())
    settings.minSilenceDuration =
        inRange("--min-silence", arguments.minSilence, ChapterLimits::minSilenceSec, "s");
  if (!arguments.deviation.empty())
    settings.deviationThresholdLU =
        static_cast<float>(inRange("--deviation", arguments.deviation, ChapterLimits::deviationLU, "LU"));
  if (!arguments.block.empty())
    settings.blockDuration = inRange("--block", arguments.block, ChapterLimits::blockSec, "s");
  if (!arguments.metric.empty()) {
    const auto metric = fromRawValue<ChapterConsistencyMetric>(arguments.metric);
    if (!metric) refuse("--metric", fmt::format("'{}' is none of rms, integratedLUFS", arguments.metric));
    settings.consistencyMetric = *metric;
  }
  return settings;
}

std::optional<LevelTarget> levelTargetOf(const Arguments& arguments) {
  if (arguments.level.empty()) return {};
  if (arguments.level == "median") return LevelTarget{LevelTarget::Median{}};
  return LevelTarget{LevelTarget::Fixed{
      static_cast<float>(numberArgument("--level", arguments.level, -100, 0, "dB, or median"))}};
}

void refuseCombinations(const Arguments& arguments) {
  const RenderArguments& rendering = arguments.rendering;
  const bool renders = !arguments.render.empty() || !arguments.split.empty();
  if (rendering.json && arguments.csv) refuse("--json", "does not go together with --csv");
  if (arguments.level.empty() && !arguments.render.empty()) refuse("--render", "needs --level");
  if (arguments.level.empty() && !arguments.ceiling.empty()) refuse("--ceiling", "needs --level");
  if (!arguments.level.empty() && !renders) refuse("--level", "needs --render or --split");
  if (!rendering.format.empty() && !renders) refuse("--format", "needs --render or --split");
  if (!rendering.bitDepth.empty() && !renders) refuse("--bit-depth", "needs --render or --split");
}

// Outputs that are one file would overwrite each other.
void refuseSamePlaces(const Arguments& arguments) {
  std::set<fs::path> places;
  for (const std::string& path : {arguments.report, arguments.cue, arguments.ffmetadata, arguments.labels,
                                  arguments.podcastChapters, arguments.render}) {
    if (path.empty()) continue;
    std::error_code unknown;  // then opening it will tell
    const fs::path place = fs::weakly_canonical(path, unknown);
    if (!unknown && !places.insert(place).second)
      throw NamedFileError(path, FileError("it would be written twice"));
  }
}

Plan planOf(const Arguments& arguments) {
  refuseCombinations(arguments);
  const DeliveryOutputs chosen = outputsOf(arguments.rendering, {});
  Plan plan{.settings = settingsOf(arguments),
            .given = {},
            .inputs = {arguments.file},
            .level = levelTargetOf(arguments),
            .ceilingDBTP = arguments.ceiling.empty()
                               ? -1
                               : numberArgument("--ceiling", arguments.ceiling, -60, 0, "dBTP"),
            .whole = {},
            .parts = {},
            .dither = chosen.dither,
            .channelLabels = chosen.channelLabels};
  for (const std::string& document : {arguments.settings, arguments.fromReport})
    if (!document.empty()) plan.inputs.emplace_back(document);
  refuseSamePlaces(arguments);
  if (!arguments.fromReport.empty()) plan.given = readChapterReport(arguments.fromReport);
  const auto outputAt = [&](const std::string& path) -> std::optional<ChapterOutput> {
    if (path.empty()) return {};
    return ChapterOutput{.path = path,
                         .format = chosen.format,
                         .replacesExisting = arguments.rendering.force,
                         .inputs = plan.inputs,
                         .channelLabels = chosen.channelLabels};
  };
  plan.whole = outputAt(arguments.render);
  plan.parts = outputAt(arguments.split);
  return plan;
}

// --- Exports ---------------------------------------------------------------------------------------------

// The texts that go into files: opened before anything takes time, and written together at the end.
class Exports {
 public:
  Exports(const Arguments& arguments, const Plan& plan) {
    add(arguments, plan, arguments.report, {});
    add(arguments, plan, arguments.cue, ChapterExports::cueSheet);
    add(arguments, plan, arguments.ffmetadata, ChapterExports::ffmetadata);
    add(arguments, plan, arguments.labels, ChapterExports::labels);
    add(arguments, plan, arguments.podcastChapters, ChapterExports::podcastChapters);
  }

  void write(const ChapterReport& report, const ChapterExports::Source& source) {
    for (const Export& item : exports_)
      item.output->write(item.textOf ? item.textOf(source) : chapterReportText(report));
    for (const Export& item : exports_) item.output->commit();
  }

 private:
  using TextOf = std::string (*)(const ChapterExports::Source&);
  struct Export {
    std::unique_ptr<Output> output;
    TextOf textOf;  // null: the report
  };

  void add(const Arguments& arguments, const Plan& plan, const std::string& path, TextOf textOf) {
    if (!path.empty())
      exports_.push_back({std::make_unique<Output>(path, arguments.rendering.force, plan.inputs), textOf});
  }

  std::vector<Export> exports_;
};

// --- Work ------------------------------------------------------------------------------------------------

struct Interrupted {};

template <typename Result>
Result orInterrupted(std::optional<Result> result) {
  if (!result) throw Interrupted{};
  return *std::move(result);
}

class Job {
 public:
  Job(const Arguments& arguments, Plan plan)
      : arguments_(arguments), plan_(std::move(plan)), path_(arguments.file) {}

  ChaptersReport::Result run() {
    if (plan_.whole) format_ = checkedFormat(path_, *plan_.whole);
    if (plan_.parts) format_ = checkedSplitFormat(path_, *plan_.parts);
    Exports exports(arguments_, plan_);
    ChaptersReport::Result result{.programme = scan(),
                                  .settings = plan_.settings,
                                  .report = {},
                                  .table = {},
                                  .leveled = {},
                                  .notes = {}};
    result.notes = result.programme.warnings;
    result.report = {.chapters = {},
                     .medianLUFS = {},
                     .fileFingerprint = fingerprintOf(result.programme),
                     .origin = ChapterReport::Origin::detected};
    std::vector<Chapter> chapters = result.programme.detected;
    if (plan_.given) {
      compareFingerprints(result);
      result.report.origin = plan_.given->origin;
      chapters = inTimeOrder(plan_.given->chapters);
    }
    refuseCueSheet(result.programme, chapters);

    const MeasuredChapters measured = measure(result.programme, chapters);
    const ChapterConsistencyMetric metric = plan_.settings.consistencyMetric;
    result.report.chapters = measured.chapters;
    result.report.medianLUFS = ChapterAnalyser::median(measured.chapters, metric);
    result.table = ChaptersReport::tableOf(measured.chapters, plan_.settings,
                                           gainsOf(result.programme, measured.chapters));
    render(result, measured);
    exports.write(result.report, sourceOf(result.programme, result.report.chapters));
    return result;
  }

 private:
  ChapterProgramme scan() const {
    StepWatch watch("finding pauses", path_);
    const ScanSettings settings{.detection = plan_.settings, .channelLabels = plan_.channelLabels};
    return naming(path_, [&] { return orInterrupted(scanProgramme(path_, settings, std::ref(watch))); });
  }

  MeasuredChapters measure(const ChapterProgramme& programme, std::span<const Chapter> chapters) const {
    StepWatch watch("measuring chapters", path_);
    return naming(
        path_, [&] { return orInterrupted(measureChapters(path_, programme, chapters, std::ref(watch))); });
  }

  void compareFingerprints(ChaptersReport::Result& result) const {
    const auto differences = differencesFrom(plan_.given->fileFingerprint, result.report.fileFingerprint);
    if (differences.empty()) return;
    const std::string text = fmt::format("the report is of another file: {}", fmt::join(differences, "; "));
    if (!arguments_.rendering.force)
      throw NamedFileError(path_, FileError(text + " (--force takes it anyway)"));
    result.notes.push_back(text);
  }

  ChapterExports::Source sourceOf(const ChapterProgramme& programme,
                                  std::span<const Chapter> chapters) const {
    const fs::path& audio = plan_.whole ? plan_.whole->path : path_;
    return {.chapters = chapters,
            .fileName = audio.filename().string(),
            .sampleRate = programme.sampleRate,
            .durationSec = programme.figures.durationSec};
  }

  void refuseCueSheet(const ChapterProgramme& programme, std::span<const Chapter> chapters) const {
    if (arguments_.cue.empty()) return;
    if (const auto reason = ChapterExports::reasonAgainstCueSheet(sourceOf(programme, chapters)))
      throw NamedFileError(arguments_.cue, FileError(*reason));
  }

  // What the table proposes.
  std::vector<std::optional<float>> gainsOf(const ChapterProgramme& programme,
                                            std::span<const Chapter> chapters) const {
    const ChapterConsistencyMetric metric = plan_.settings.consistencyMetric;
    const LevelTarget target = plan_.level.value_or(LevelTarget{LevelTarget::Median{}});
    std::vector<std::optional<float>> gainDB;
    for (const auto& gain : gainsTo(levelOf(target, chapters, metric), chapters, metric, programme))
      gainDB.push_back(gain ? std::optional(gain->gainDB) : std::nullopt);
    return gainDB;
  }

  void render(ChaptersReport::Result& result, const MeasuredChapters& before) const {
    if (!format_) return;
    const LevelingSettings settings{.metric = plan_.settings.consistencyMetric,
                                    .target = plan_.level.value_or(LevelTarget{LevelTarget::Median{}}),
                                    .ceilingDBTP = plan_.ceilingDBTP,
                                    .coding = format_->coding,
                                    .dither = plan_.dither};
    Leveling leveling;
    if (plan_.level) leveling = search(result.programme, before, settings);
    const RenderSettings rendering = renderingOf(leveling, settings, result.programme.sampleRate);
    MeasuredChapters after = leveling.after;
    if (plan_.whole) after = renderWhole(result, rendering);
    if (plan_.parts) renderParts(result, rendering);
    if (!plan_.level) return;
    notePeaksLeft(result, leveling, after);
    result.leveled = ChaptersReport::Leveled{
        .path = plan_.whole ? plan_.whole->path.string() : "",
        .target = *leveling.target,
        .table = ChaptersReport::tableOf(after.chapters, plan_.settings, leveling.gainDB),
        .misses = missesOf(leveling, settings, after),
        .rounds = leveling.rounds,
        .largestReductionDB = leveling.largestReductionDB};
  }

  // Only what a gain pushes over the ceiling is limited.
  void notePeaksLeft(ChaptersReport::Result& result, const Leveling& leveling,
                     const MeasuredChapters& after) const {
    for (std::size_t k = 0; k < after.chapters.size(); ++k) {
      const auto& peak = after.truePeakDBTP[k];
      if (leveling.gainDB[k].value_or(0) > 0 || !peak || static_cast<double>(*peak) <= plan_.ceilingDBTP)
        continue;
      result.notes.push_back(
          fmt::format("Chapter {}: not raised, and its true peak of {:.2f} dBTP stays above the ceiling",
                      after.chapters[k].index, *peak));
    }
  }

  Leveling search(const ChapterProgramme& programme, const MeasuredChapters& before,
                  const LevelingSettings& settings) const {
    std::optional<StepWatch> watch;
    int shownRound = 0;
    const auto goOn = [&](int round, const MeasureProgress& done) {
      if (std::exchange(shownRound, round) != round)
        watch.emplace(fmt::format("leveling, round {}", round), path_);
      return (*watch)(done);
    };
    return naming(path_, [&] {
      Leveling leveling = orInterrupted(level(programme, before, settings, goOn));
      if (!leveling.target) throw FileError("there is no chapter whose level could be matched");
      return leveling;
    });
  }

  MeasuredChapters renderWhole(ChaptersReport::Result& result, const RenderSettings& rendering) const {
    StepWatch renderWatch("rendering", path_), verifyWatch("verifying", path_);
    auto rendered = orInterrupted(
        renderProgramme(result.programme, result.report.chapters, rendering, *plan_.whole,
                        [&](RenderStep step, const MeasureProgress& done) {
                          return step == RenderStep::rendering ? renderWatch(done) : verifyWatch(done);
                        }));
    for (std::string& note : rendered.notes) result.notes.push_back(std::move(note));
    return std::move(rendered.after);
  }

  void renderParts(ChaptersReport::Result& result, const RenderSettings& rendering) const {
    StepWatch watch("writing chapters", path_);
    auto notes = orInterrupted(
        renderSplit(result.programme, result.report.chapters, rendering, *plan_.parts, std::ref(watch)));
    for (std::string& note : notes) result.notes.push_back(std::move(note));
  }

  const Arguments& arguments_;
  const Plan plan_;
  const fs::path path_;
  std::optional<AudioFileFormat> format_;  // of what is rendered
};

ExitCode conclude(const Arguments& arguments, const ChaptersReport::Result& result) {
  const ChaptersReport::Table& last = result.leveled ? result.leveled->table : result.table;
  if (arguments.rendering.json)
    Console::writeOutput(Json::compactText(ChaptersReport::record(result)) + "\n");
  else if (arguments.csv)
    Console::writeOutput(ChapterExports::csv(last.chapters, last.judgements));
  else
    Console::writeOutput(ChaptersReport::textBlock(result));
  if (result.leveled && !result.leveled->misses.empty()) return ExitCode::checkFailed;
  if (arguments.strict)
    for (const ChapterExports::Judgement& judgement : last.judgements)
      if (judgement.isFlagged) return ExitCode::checkFailed;
  return ExitCode::done;
}

ExitCode chapters(const Arguments& arguments) {
  try {
    return conclude(arguments, Job(arguments, planOf(arguments)).run());
  } catch (const Interrupted&) {
    return ExitCode::interrupted;
  }
}

}  // namespace

void addChaptersCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb =
      *app.add_subcommand("chapters", "Find, measure, level and export the chapters of a spoken programme");
  verb.add_option("FILE", arguments->file, "The audio file")->required()->type_name("");
  const auto add = [&](const char* name, std::string& value, const char* type, const char* description) {
    addTextOption(verb, name, value, type, description);
  };
  add("--settings", arguments->settings, "FILE", "Detection settings; single options override them");
  add("--silence-threshold", arguments->silenceThreshold, "DBFS", "RMS below which a block is silent (-55)");
  add("--min-silence", arguments->minSilence, "SEC", "Shortest pause between two chapters (2)");
  add("--deviation", arguments->deviation, "LU", "A chapter further from the median is flagged (2)");
  add("--block", arguments->block, "SEC", "Length of a block (0.1)");
  add("--metric", arguments->metric, "METRIC", "rms or integratedLUFS: what chapters are compared by (rms)");
  add("--report", arguments->report, "FILE", "Write the chapters and their figures as a JSON document");
  add("--from-report", arguments->fromReport, "FILE", "Take the chapters of such a document, edited or not");
  add("--cue", arguments->cue, "FILE", "Write a cue sheet");
  add("--ffmetadata", arguments->ffmetadata, "FILE", "Write FFmpeg metadata");
  add("--labels", arguments->labels, "FILE", "Write labels: start, end and name between tabs");
  add("--podcast-chapters", arguments->podcastChapters, "FILE", "Write Podcasting 2.0 chapters");
  verb.add_flag("--csv", arguments->csv, "Print a table with a header line");
  add("--level", arguments->level, "LEVEL", "Level the chapters to their median, or to a value");
  add("--ceiling", arguments->ceiling, "DBTP", "The true peak that a gain may reach, -60 to 0 (-1)");
  add("--render", arguments->render, "OUT", "Write the leveled programme");
  add("--split", arguments->split, "DIR", "Write each chapter to a file of its own, leveled or not");
  verb.add_flag("--strict", arguments->strict, "A flagged chapter makes the exit code 1");
  addRenderOptions(verb, arguments->rendering);
  verb.footer(
      "Examples:\n"
      "  vellum chapters book.wav --report book.json --cue book.cue\n"
      "  vellum chapters book.wav --from-report book.json --level median --render level.wav\n"
      "  vellum chapters book.flac --level -20 --split parts/\n"
      "\n"
      "Exit codes: 0 done, 1 a chapter could not be leveled, or is flagged and --strict was given, 2 wrong\n"
      "arguments or a faulty document, 3 a file failed or an output exists, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = chapters(*arguments); });
}

}  // namespace vellum
