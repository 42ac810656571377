#include "vellum/EditCommand.hpp"

#include <fmt/format.h>

#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "VellumApp/DocumentFile.hpp"
#include "VellumApp/EditScript.hpp"
#include "VellumApp/SpectralEdit.hpp"
#include "VellumCore/SpectralEditKernel.hpp"
#include "vellum/Console.hpp"
#include "vellum/FigureText.hpp"
#include "vellum/Numbers.hpp"
#include "vellum/Options.hpp"
#include "vellum/Progress.hpp"
#include "vellum/RenderOptions.hpp"

namespace vellum {
namespace {

using EditLimits::Range;
using SpectralEditKernel::Operation;

// As written; empty where not given.
struct Arguments {
  std::string input, output, script;
  std::string rect, polygon, ellipse, wand, tolerance, reach, mostCells, grow;
  std::string attenuate, eraseToFloor;
  bool repair = false;
  std::string feather, fftSize, crossfade, channels;
  bool dryRun = false;
  RenderArguments render;
};

// --- A single step ---------------------------------------------------------------------------------------

std::int64_t wholeNumber(std::string_view option, const std::string& text, const Range& range) {
  return wholeNumberArgument(option, text, static_cast<std::int64_t>(range.least),
                             static_cast<std::int64_t>(range.most));
}

double number(std::string_view option, const std::string& text, const Range& range, std::string_view unit) {
  return numberArgument(option, text, range.least, range.most, unit);
}

// A clock time, or seconds, which may lie before the file's start.
double seconds(std::string_view option, const std::string& text) {
  if (const auto time = parseTime(text); time && *time <= EditLimits::timeSec.most) return *time;
  return number(option, text, EditLimits::timeSec, "s");
}

double hertz(std::string_view option, const std::string& text) {
  return number(option, text, EditLimits::frequencyHz, "Hz");
}

std::vector<std::string> parts(std::string_view option, const std::string& text, std::size_t count,
                               std::string_view form) {
  std::vector<std::string> all = splitAtCommas(text);
  if (all.size() != count) refuse(option, fmt::format("'{}' is not {}", text, form));
  return all;
}

EditSelection::Rect rectOf(const std::string& text) {
  const auto part = parts("--rect", text, 4, "FROM,TO,LOW,HIGH");
  const EditSelection::Rect rect = {.fromSec = seconds("--rect", part[0]),
                                    .toSec = seconds("--rect", part[1]),
                                    .lowHz = hertz("--rect", part[2]),
                                    .highHz = hertz("--rect", part[3])};
  if (const auto fault = faultOf(rect)) refuse("--rect", *fault);
  return rect;
}

EditSelection::Polygon polygonOf(const std::string& text) {
  const auto part = splitAtCommas(text);
  if (part.size() < 6 || part.size() % 2 != 0)
    refuse("--polygon", fmt::format("'{}' is not SEC,HZ,SEC,HZ,SEC,HZ or more of these", text));
  if (part.size() / 2 > static_cast<std::size_t>(EditLimits::mostPoints))
    refuse("--polygon", fmt::format("there are more than {} points", EditLimits::mostPoints));
  EditSelection::Polygon polygon;
  for (std::size_t k = 0; k < part.size(); k += 2)
    polygon.points.push_back({seconds("--polygon", part[k]), hertz("--polygon", part[k + 1])});
  return polygon;
}

EditSelection::Ellipse ellipseOf(const std::string& text) {
  const auto part = parts("--ellipse", text, 4, "SEC,HZ,RADIUS-SEC,RADIUS-HZ");
  return {.atSec = seconds("--ellipse", part[0]),
          .hz = hertz("--ellipse", part[1]),
          .radiusSec = number("--ellipse", part[2], EditLimits::radiusSec, "s"),
          .radiusHz = number("--ellipse", part[3], EditLimits::radiusHz, "Hz")};
}

EditSelection::Wand wandOf(const Arguments& arguments) {
  const auto part = parts("--wand", arguments.wand, 2, "SEC,HZ");
  EditSelection::Wand wand = {.atSec = seconds("--wand", part[0]),
                              .hz = hertz("--wand", part[1]),
                              .toleranceDB = EditDefaults::toleranceDB,
                              .reachSec = EditDefaults::reachSec,
                              .mostCells = EditDefaults::mostCells};
  if (!arguments.tolerance.empty())
    wand.toleranceDB =
        static_cast<float>(number("--tolerance", arguments.tolerance, EditLimits::toleranceDB, "dB"));
  if (!arguments.reach.empty()) wand.reachSec = number("--reach", arguments.reach, EditLimits::reachSec, "s");
  if (!arguments.mostCells.empty())
    wand.mostCells = wholeNumber("--most-cells", arguments.mostCells, EditLimits::mostCells);
  return wand;
}

// Of several options, the only one that is given; refuses any other number.
std::string_view onlyOne(const std::vector<std::pair<std::string_view, bool>>& options) {
  std::string_view given;
  std::string all;
  for (const auto& [option, isGiven] : options) {
    if (isGiven && !given.empty()) refuse(option, fmt::format("does not go together with {}", given));
    if (isGiven) given = option;
    all += fmt::format("{}{}", all.empty() ? "" : ", ", option);
  }
  if (given.empty()) refuse(options.front().first, fmt::format("one of {} is needed, or --script", all));
  return given;
}

std::string_view shapeOption(const Arguments& arguments) {
  return onlyOne({{"--rect", !arguments.rect.empty()},
                  {"--polygon", !arguments.polygon.empty()},
                  {"--ellipse", !arguments.ellipse.empty()},
                  {"--wand", !arguments.wand.empty()}});
}

EditSelection selectionOf(const Arguments& arguments) {
  EditSelection selection{.shape = EditSelection::Rect{}, .mode = CombineMode::add, .grow = {}};
  const std::string_view option = shapeOption(arguments);
  if (option == "--rect") selection.shape = rectOf(arguments.rect);
  if (option == "--polygon") selection.shape = polygonOf(arguments.polygon);
  if (option == "--ellipse") selection.shape = ellipseOf(arguments.ellipse);
  if (option == "--wand") selection.shape = wandOf(arguments);
  if (!arguments.grow.empty()) {
    const auto part = parts("--grow", arguments.grow, 2, "COLUMNS,BINS");
    selection.grow = {.columns = wholeNumber("--grow", part[0], EditLimits::growColumns),
                      .bins = wholeNumber("--grow", part[1], EditLimits::growBins)};
  }
  return selection;
}

Operation operationOf(const Arguments& arguments) {
  const std::string_view option = onlyOne({{"--attenuate", !arguments.attenuate.empty()},
                                           {"--erase-to-floor", !arguments.eraseToFloor.empty()},
                                           {"--repair", arguments.repair}});
  if (option == "--attenuate")
    return {Operation::Attenuate{
        static_cast<float>(number(option, arguments.attenuate, EditLimits::gainDB, "dB"))}};
  if (option == "--erase-to-floor")
    return {Operation::EraseToFloor{
        static_cast<float>(number(option, arguments.eraseToFloor, EditLimits::depthDB, "dB"))}};
  return {Operation::Repair{}};
}

std::int64_t fftSizeOf(const std::string& text) {
  for (auto size = static_cast<std::int64_t>(EditLimits::fftSize.least);
       size <= static_cast<std::int64_t>(EditLimits::fftSize.most); size *= 2)
    if (text == std::to_string(size)) return size;
  refuse("--fft-size", fmt::format("'{}' is not a power of two from {} to {}", text,
                                   EditLimits::fftSize.least, EditLimits::fftSize.most));
}

EditStep stepOf(const Arguments& arguments) {
  EditStep step{.name = "",
                .selection = {selectionOf(arguments)},
                .operation = operationOf(arguments),
                .feather = EditDefaults::feather,
                .fftSize = EditDefaults::fftSize,
                .crossfadeMs = EditDefaults::crossfadeMs,
                .channels = {}};
  if (!arguments.feather.empty()) {
    const auto part = parts("--feather", arguments.feather, 2, "MS,HZ");
    step.feather = {.timeMs = number("--feather", part[0], EditLimits::featherMs, "ms"),
                    .freqHz = number("--feather", part[1], EditLimits::featherHz, "Hz")};
  }
  if (!arguments.fftSize.empty()) step.fftSize = fftSizeOf(arguments.fftSize);
  if (!arguments.crossfade.empty())
    step.crossfadeMs = number("--crossfade", arguments.crossfade, EditLimits::crossfadeMs, "ms");
  if (!arguments.channels.empty())
    for (const std::string& channel : splitAtCommas(arguments.channels))
      step.channels.push_back(wholeNumber("--channels", channel, EditLimits::channel));
  return step;
}

// --- What to do ------------------------------------------------------------------------------------------

EditScript scriptOf(const Arguments& arguments) {
  if (arguments.script.empty()) return {.description = "", .steps = {stepOf(arguments)}};
  const std::pair<std::string_view, bool> others[] = {{"--rect", !arguments.rect.empty()},
                                                      {"--polygon", !arguments.polygon.empty()},
                                                      {"--ellipse", !arguments.ellipse.empty()},
                                                      {"--wand", !arguments.wand.empty()},
                                                      {"--tolerance", !arguments.tolerance.empty()},
                                                      {"--reach", !arguments.reach.empty()},
                                                      {"--most-cells", !arguments.mostCells.empty()},
                                                      {"--grow", !arguments.grow.empty()},
                                                      {"--attenuate", !arguments.attenuate.empty()},
                                                      {"--erase-to-floor", !arguments.eraseToFloor.empty()},
                                                      {"--repair", arguments.repair},
                                                      {"--feather", !arguments.feather.empty()},
                                                      {"--fft-size", !arguments.fftSize.empty()},
                                                      {"--crossfade", !arguments.crossfade.empty()},
                                                      {"--channels", !arguments.channels.empty()}};
  for (const auto& [option, isGiven] : others)
    if (isGiven) refuse(option, "does not go together with --script, whose steps say it");
  return readEditScript(arguments.script);
}

SpectralEditSettings settingsOf(const Arguments& arguments) {
  SpectralEditSettings settings{
      .script = scriptOf(arguments),
      .outputs = outputsOf(arguments.render, {{arguments.input, arguments.output}})};
  if (arguments.output.empty() && !arguments.dryRun) refuse("OUT", "an output is needed, or --dry-run");
  settings.outputs.isDryRun = arguments.dryRun;
  if (!arguments.script.empty()) settings.outputs.furtherInputs = {arguments.script};
  return settings;
}

// --- What was done ---------------------------------------------------------------------------------------

std::string textOf(const Operation& operation) {
  if (const auto* attenuate = std::get_if<Operation::Attenuate>(&operation.value))
    return fmt::format("attenuate, {:+g} dB", attenuate->dB);
  if (const auto* erase = std::get_if<Operation::EraseToFloor>(&operation.value))
    return erase->dB > 0 ? fmt::format("erase to {:g} dB below the floor", erase->dB) : "erase to the floor";
  return "repair";
}

std::string levelText(double dB) {
  return std::isfinite(dB) ? decimal(dB) + " dB" : "silence";
}

std::string levelsText(const SpectralEditor::Edited& edited) {
  std::string text =
      fmt::format("{}, then {}", levelText(edited.levelBeforeDB), levelText(edited.levelAfterDB));
  const double change = edited.levelAfterDB - edited.levelBeforeDB;
  if (std::isfinite(change)) text += fmt::format(" ({:+.1f} dB)", std::round(change * 10) / 10 + 0.0);
  return text;
}

void addStep(std::string& block, const SpectralEditor::Edited& edited, const SpectralEditResult& result) {
  if (!edited.extent) {
    addLine(block, "Selected", "nothing");
    return;
  }
  addLine(block, "Selected",
          fmt::format("{} cell{}, {:.3f} to {:.3f} s, {:.0f} to {:.0f} Hz", edited.cells,
                      edited.cells == 1 ? "" : "s", edited.extent->fromSec, edited.extent->toSec,
                      edited.extent->lowHz, edited.extent->highHz));
  std::vector<std::string> names;
  for (const std::int64_t channel : edited.channels)
    names.push_back(
        result.channelNames.empty()
            ? std::to_string(channel)
            : fmt::format("{} {}", channel, result.channelNames[static_cast<std::size_t>(channel)]));
  addLine(block, "Channels", fmt::format("{}", fmt::join(names, ", ")));
  addLine(block, "Level there", levelsText(edited));
  addLine(
      block, "Changed",
      fmt::format("{:.3f} to {:.3f} s", static_cast<double>(edited.extent->changed.lower) / result.sampleRate,
                  static_cast<double>(edited.extent->changed.upper) / result.sampleRate));
}

std::string textBlock(const Arguments& arguments, const SpectralEditSettings& settings,
                      const SpectralEditResult& result) {
  std::string block = arguments.output.empty()
                          ? Console::printable(arguments.input) + "\n"
                          : fmt::format("{} -> {}\n", Console::printable(arguments.input),
                                        Console::printable(arguments.output));
  const std::vector<EditStep>& steps = settings.script.steps;
  for (std::size_t k = 0; k < steps.size(); ++k) {
    const std::string operation = textOf(steps[k].operation);
    if (arguments.script.empty())
      addLine(block, "Operation", operation);
    else
      addLine(block, fmt::format("Step {}", k + 1),
              (steps[k].name.empty() ? "" : Console::printable(steps[k].name) + ": ") + operation);
    addStep(block, result.steps[k], result);
  }
  addLine(block, "Format", nameOf(result.format));
  if (result.clippedSamples > 0) addLine(block, "Clipped samples", std::to_string(result.clippedSamples));
  for (const std::string& note : result.notes) addLine(block, "Note", Console::printable(note));
  if (arguments.dryRun) addLine(block, "Not written", "this was a dry run");
  return block;
}

Json::Object record(const SpectralEditor::Edited& edited, const SpectralEditResult& result) {
  Json::Object record;
  record.set("name", edited.name);
  record.set("cells", edited.cells);
  if (edited.extent) {
    record.set("fromSec", edited.extent->fromSec);
    record.set("toSec", edited.extent->toSec);
    record.set("lowHz", edited.extent->lowHz);
    record.set("highHz", edited.extent->highHz);
    record.set("changedFromSec", static_cast<double>(edited.extent->changed.lower) / result.sampleRate);
    record.set("changedToSec", static_cast<double>(edited.extent->changed.upper) / result.sampleRate);
  }
  record.set("channels", Json::Array(edited.channels.begin(), edited.channels.end()));
  setFigure(record, "levelBeforeDB", edited.levelBeforeDB);
  setFigure(record, "levelAfterDB", edited.levelAfterDB);
  setFigure(record, "changeDB", edited.levelAfterDB - edited.levelBeforeDB);
  return record;
}

Json::Object record(const Arguments& arguments, const SpectralEditResult& result) {
  Json::Object whole;
  whole.set("input", arguments.input);
  if (!arguments.output.empty()) whole.set("output", arguments.output);
  whole.set("isDryRun", arguments.dryRun);
  whole.set("format", nameOf(result.format));
  whole.set("sampleRate", result.sampleRate);
  whole.set("frameCount", result.frameCount);
  Json::Array steps;
  for (const SpectralEditor::Edited& edited : result.steps) steps.push_back(record(edited, result));
  whole.set("steps", std::move(steps));
  whole.set("clippedSamples", result.clippedSamples);
  if (!result.notes.empty()) whole.set("notes", Json::Array(result.notes.begin(), result.notes.end()));
  return whole;
}

// --- The verb --------------------------------------------------------------------------------------------

std::optional<SpectralEditResult> editWatched(const SpectralEditSettings& settings) {
  using Stage = SpectralEditProgress::Stage;
  std::optional<StepWatch> watch;
  std::optional<std::pair<Stage, std::size_t>> shown;
  return editFile(settings, [&](const SpectralEditProgress& progress) {
    if (shown != std::pair(progress.stage, progress.step)) {
      const std::string stage = progress.stage == Stage::reading ? "reading"
                                : progress.stage == Stage::writing
                                    ? "writing"
                                    : fmt::format("step {}", progress.step + 1);
      watch.emplace(stage, settings.outputs.items.front().input);
    }
    shown = {progress.stage, progress.step};
    return (*watch)(progress.done);
  });
}

// A step that does not fit the file is as wrong as one that cannot be read.
[[noreturn]] void refuseStep(const Arguments& arguments, const EditFault& fault) {
  if (!arguments.script.empty()) throw FaultyDocument(arguments.script, fault);
  switch (fault.part()) {
    case EditFault::Part::step:
      refuse("--fft-size", fault.reason());
    case EditFault::Part::selection:
      refuse(shapeOption(arguments), fault.reason());
    case EditFault::Part::channels:
      break;
  }
  refuse("--channels", fault.reason());
}

ExitCode edit(const Arguments& arguments) {
  const SpectralEditSettings settings = settingsOf(arguments);
  std::optional<SpectralEditResult> result;
  try {
    result = editWatched(settings);
  } catch (const EditFault& fault) {
    refuseStep(arguments, fault);
  }
  if (!result) return ExitCode::interrupted;
  Console::writeOutput(arguments.render.json ? Json::compactText(record(arguments, *result)) + "\n"
                                             : textBlock(arguments, settings, *result));
  return ExitCode::done;
}

}  // namespace

void addEditCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb = *app.add_subcommand("edit", "Change the levels of parts of an audio file's spectrogram");
  verb.add_option("IN", arguments->input, "The audio file to read")->required()->type_name("");
  verb.add_option("OUT", arguments->output, "The audio file to write")->type_name("");
  const auto addText = [&](const char* name, std::string& value, const char* type, const char* description) {
    addTextOption(verb, name, value, type, description);
  };
  addText("--script", arguments->script, "FILE", "A document of steps, instead of the options for one step");
  addText("--rect", arguments->rect, "FROM,TO,LOW,HIGH", "Select a rectangle, in seconds and Hz");
  addText("--polygon", arguments->polygon, "SEC,HZ,...", "Select a polygon of three points or more");
  addText("--ellipse", arguments->ellipse, "SEC,HZ,SEC,HZ", "Select an ellipse: its centre, its radii");
  addText("--wand", arguments->wand, "SEC,HZ",
          "Select what is connected to a point and hardly quieter; grows by the feather unless --grow says");
  addText("--tolerance", arguments->tolerance, "DB",
          "How much quieter the wand's cells may be, 0 to 200 [20]");
  addText("--reach", arguments->reach, "SEC", "How far from its point the wand goes, 0 to 60 [5]");
  addText("--most-cells", arguments->mostCells, "N",
          "How many cells the wand takes, up to 10000000 [200000]");
  addText("--grow", arguments->grow, "COLUMNS,BINS", "Take cells around the selection too");
  addText("--attenuate", arguments->attenuate, "DB", "Change the level by -96 to 24 dB");
  addText("--erase-to-floor", arguments->eraseToFloor, "DB",
          "Bring the level to the noise floor around it, less 0 to 200 dB");
  verb.add_flag("--repair", arguments->repair, "Take the levels from before and after");
  addText("--feather", arguments->feather, "MS,HZ", "How softly the edit begins and ends [10,50]");
  addText("--fft-size", arguments->fftSize, "N", "Samples of a column, a power of two, 64 to 65536 [2048]");
  addText("--crossfade", arguments->crossfade, "MS", "Fades at the ends of what is changed, 0 to 10000 [5]");
  addText("--channels", arguments->channels, "LIST", "Channels to edit, counted from 0 [all]");
  verb.add_flag("--dry-run", arguments->dryRun, "Tell what would be done, and write nothing");
  addRenderOptions(verb, arguments->render);
  verb.footer(
      "Examples:\n"
      "  vellum edit talk.wav clean.wav --wand 12.5,1000 --erase-to-floor 0\n"
      "  vellum edit talk.wav clean.wav --rect 1:02.3,1:02.9,300,900 --attenuate -20\n"
      "  vellum edit talk.wav clean.wav --script edits.json\n"
      "\n"
      "Exit codes: 0 done, 2 wrong arguments or a script that does not fit, 3 a file failed or the output\n"
      "exists, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = edit(*arguments); });
}

}  // namespace vellum
