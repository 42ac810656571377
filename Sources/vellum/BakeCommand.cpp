#include "vellum/BakeCommand.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VellumApp/DocumentFile.hpp"
#include "VellumApp/EmbeddedDocuments.hpp"
#include "VellumApp/SurroundRendering.hpp"
#include "VellumCore/Json/Document.hpp"
#include "vellum/Console.hpp"
#include "vellum/FigureText.hpp"
#include "vellum/Options.hpp"
#include "vellum/Presets.hpp"
#include "vellum/Progress.hpp"
#include "vellum/RenderOptions.hpp"

namespace vellum {
namespace {

using SurroundRendering::OutputChannel;
using SurroundRendering::Result;
using SurroundRendering::Settings;
using SurroundRendering::Step;

constexpr double leastGainDB = -60, mostGainDB = 60;

struct Arguments {
  std::string input, output;
  std::string routes, preset, gain = "0";
  bool align = false, strict = false, list = false, print = false;
  RenderArguments render;
};

// --- What to do ------------------------------------------------------------------------------------------

RoutesDocument documentOf(const Arguments& arguments) {
  if (arguments.routes.empty() == arguments.preset.empty())
    refuse("--routes",
           arguments.routes.empty() ? "is needed, or --preset" : "does not go together with --preset");
  if (!arguments.routes.empty()) return readRoutesDocument(arguments.routes);
  const EmbeddedDocument& preset = presetArgument(routePresetDocuments(), arguments.preset);
  return routesDocumentOf(preset.text, preset.name);
}

Settings settingsOf(const Arguments& arguments) {
  if (arguments.input.empty()) refuse("IN", "an input is needed, or --list");
  if (arguments.output.empty()) refuse("OUT", "an output is needed");
  const double gainDB = numberArgument("--gain", arguments.gain, leastGainDB, mostGainDB, "dB");
  DeliveryOutputs outputs = outputsOf(arguments.render, {{arguments.input, arguments.output}});
  Settings settings{.document = documentOf(arguments),
                    .gainDB = gainDB,
                    .isAligned = arguments.align,
                    .outputs = std::move(outputs)};
  if (!arguments.routes.empty()) settings.outputs.furtherInputs = {arguments.routes};
  return settings;
}

// --- What was done ---------------------------------------------------------------------------------------

std::string peakText(const OutputChannel& output) {
  return std::isfinite(output.peakDBFS) ? fmt::format("{} {:+.2f} dBFS", output.name, output.peakDBFS)
                                        : output.name + " silent";
}

std::string_view samples(std::int64_t count) {
  return count == 1 ? "sample" : "samples";
}

std::string delayText(const Result& result) {
  const auto text = [&](std::int64_t frames) {
    return fmt::format("{} {} ({:.2f} ms)", frames, samples(frames),
                       1000 * static_cast<double>(frames) / result.sampleRate);
  };
  if (result.removedDelayFrames > 0) return text(result.removedDelayFrames) + " taken out";
  return result.delayFrames > 0 ? text(result.delayFrames) + " late; --align takes that out" : "none";
}

double highestPeakDBFS(const Result& result) {
  double highest = -HUGE_VAL;
  for (const OutputChannel& output : result.outputs) highest = std::max(highest, output.peakDBFS);
  return highest;
}

std::int64_t oversOf(const Result& result) {
  std::int64_t count = 0;
  for (const OutputChannel& output : result.outputs) count += output.overs;
  return count;
}

// The gain that would have left none, to the next tenth; nothing where there is no such gain.
std::string wayOut(const Settings& settings, const Result& result) {
  const double gainDB = std::floor((settings.gainDB - highestPeakDBFS(result)) * 10) / 10;
  return gainDB < leastGainDB ? "" : fmt::format("; --gain {} leaves none", decimal(gainDB));
}

void addOvers(std::string& block, const Settings& settings, const Result& result) {
  std::string counts;
  for (const OutputChannel& output : result.outputs)
    if (output.overs > 0)
      counts += fmt::format("{}{} {}", counts.empty() ? "" : ", ", output.name, output.overs);
  if (counts.empty()) return;
  const bool isClamped = integerBits(result.format.coding) > 0;
  addLine(block, "Beyond full scale",
          fmt::format("{} {}, which the format {}{}", counts, samples(oversOf(result)),
                      isClamped ? "clamps" : "holds", wayOut(settings, result)));
}

std::string textBlock(const Arguments& arguments, const Settings& settings, const Result& result) {
  std::vector<std::string> outputs, peaks;
  for (const OutputChannel& output : result.outputs) {
    outputs.push_back(output.name);
    peaks.push_back(peakText(output));
  }
  std::string block =
      fmt::format("{} -> {}\n", Console::printable(arguments.input), Console::printable(arguments.output));
  addLine(block, "Routes",
          Console::printable(arguments.preset.empty() ? arguments.routes : arguments.preset));
  addLine(block, "Channels",
          fmt::format("{} -> {}", fmt::join(result.sourceNames, " "), fmt::join(outputs, " ")));
  if (!result.unusedNames.empty())
    addLine(block, "Left out", fmt::format("{}", fmt::join(result.unusedNames, " ")));
  addLine(block, "Delay", delayText(result));
  addLine(block, "Sample peak", fmt::format("{}", fmt::join(peaks, ", ")));
  addOvers(block, settings, result);
  if (result.clippedSamples > 0) addLine(block, "Clipped samples", std::to_string(result.clippedSamples));
  addLine(block, "Format", nameOf(result.format));
  for (const std::string& note : result.notes) addLine(block, "Note", Console::printable(note));
  return block;
}

Json::Array textList(const std::vector<std::string>& texts) {
  return {texts.begin(), texts.end()};
}

Json::Object record(const Arguments& arguments, const Settings& settings, const Result& result) {
  Json::Object record;
  record.set("input", arguments.input);
  record.set("output", arguments.output);
  record.set(arguments.preset.empty() ? "routes" : "preset",
             arguments.preset.empty() ? arguments.routes : arguments.preset);
  record.set("gainDB", settings.gainDB);
  record.set("format", nameOf(result.format));
  record.set("sampleRate", result.sampleRate);
  record.set("frameCount", result.frameCount);
  record.set("sources", textList(result.sourceNames));
  record.set("unusedSources", textList(result.unusedNames));
  Json::Array outputs;
  for (const OutputChannel& output : result.outputs) {
    Json::Object channel;
    channel.set("name", output.name);
    setFigure(channel, "samplePeakDBFS", output.peakDBFS);
    channel.set("overs", output.overs);
    outputs.push_back(std::move(channel));
  }
  record.set("outputs", std::move(outputs));
  record.set("overs", oversOf(result));
  record.set("clippedSamples", result.clippedSamples);
  record.set("delayFrames", result.delayFrames);
  record.set("removedDelayFrames", result.removedDelayFrames);
  if (!result.notes.empty()) record.set("notes", textList(result.notes));
  return record;
}

// --- The verb --------------------------------------------------------------------------------------------

ExitCode printPresets(const Arguments& arguments) {
  const std::string_view option = arguments.list ? "--list" : "--print";
  if (arguments.list && arguments.print) refuse("--list", "does not go together with --print");
  if (arguments.list && !arguments.preset.empty()) refuse("--list", "does not go together with --preset");
  if (!arguments.input.empty() || !arguments.routes.empty()) refuse(option, "prints, and renders nothing");
  if (arguments.print && arguments.preset.empty()) refuse("--print", "needs --preset");
  Console::writeOutput(arguments.list
                           ? presetsText(routePresetDocuments())
                           : std::string(presetArgument(routePresetDocuments(), arguments.preset).text));
  return ExitCode::done;
}

std::optional<Result> renderWatched(const Settings& settings) {
  const std::filesystem::path& input = settings.outputs.items.front().input;
  std::optional<StepWatch> watch;
  std::optional<Step> shown;
  return SurroundRendering::render(settings, [&](Step step, const MeasureProgress& done) {
    if (shown != step) watch.emplace(step == Step::counting ? "reading" : "rendering", input);
    shown = step;
    return (*watch)(done);
  });
}

ExitCode bake(const Arguments& arguments) {
  if (arguments.list || arguments.print) return printPresets(arguments);
  const Settings settings = settingsOf(arguments);
  const std::optional<Result> result = renderWatched(settings);
  if (!result) return ExitCode::interrupted;
  Console::writeOutput(arguments.render.json ? Json::compactText(record(arguments, settings, *result)) + "\n"
                                             : textBlock(arguments, settings, *result));
  return arguments.strict && oversOf(*result) > 0 ? ExitCode::checkFailed : ExitCode::done;
}

}  // namespace

void addBakeCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb = *app.add_subcommand("bake", "Render the channels of an audio file into other channels");
  verb.add_option("IN", arguments->input, "The audio file to read")->type_name("");
  verb.add_option("OUT", arguments->output, "The audio file to write")->type_name("");
  addTextOption(verb, "--routes", arguments->routes, "FILE", "A document of routes from inputs to outputs");
  addTextOption(verb, "--preset", arguments->preset, "NAME", "A built-in document");
  verb.add_flag("--list", arguments->list, "List the built-in documents");
  verb.add_flag("--print", arguments->print, "Print the built-in document, to start from");
  addTextOption(verb, "--gain", arguments->gain, "DB", "Gain of every output, -60 to 60")
      .capture_default_str();
  verb.add_flag("--align", arguments->align, "Take out the delay of routes in quadrature");
  verb.add_flag("--strict", arguments->strict, "Samples beyond full scale make the exit code 1");
  addRenderOptions(verb, arguments->render);
  verb.footer(
      "Examples:\n"
      "  vellum bake --list\n"
      "  vellum bake film.wav stereo.wav --preset 5.1-to-stereo --gain -3\n"
      "  vellum bake film.wav matrix.wav --preset 5.1-to-lt-rt --align\n"
      "  vellum bake --preset 5.1-to-stereo --print > my.json\n"
      "  vellum bake film.wav out.wav --routes my.json\n"
      "\n"
      "Exit codes: 0 done, 1 samples beyond full scale and --strict was given, 2 wrong arguments or a "
      "faulty\n"
      "document, 3 a file failed or the output exists, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = bake(*arguments); });
}

}  // namespace vellum
