#include "vellum/GenerateCommand.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VellumApp/Descriptor.hpp"
#include "VellumApp/DocumentFile.hpp"
#include "VellumApp/EmbeddedDocuments.hpp"
#include "VellumApp/OutputFormat.hpp"
#include "VellumApp/SignalFile.hpp"
#include "VellumCore/Json/Document.hpp"
#include "vellum/ClockText.hpp"
#include "vellum/Console.hpp"
#include "vellum/Interrupt.hpp"
#include "vellum/Options.hpp"
#include "vellum/Presets.hpp"
#include "vellum/Progress.hpp"
#include "vellum/RenderOptions.hpp"

namespace vellum {
namespace {

namespace fs = std::filesystem;

struct Arguments {
  std::vector<std::string> files;
  std::string preset, harmonicCap, dither = "none";
  bool list = false, print = false, validate = false, force = false;
};

// --- The document ----------------------------------------------------------------------------------------

// As far as it was given until the interruption, if there was one.
std::string readStandardInput() {
  std::string bytes;
  std::array<char, 65'536> chunk;
  while (!Interrupt::wasAsked()) {
    const ssize_t got = ::read(STDIN_FILENO, chunk.data(), chunk.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw FileError("standard input cannot be read: " + systemErrorText(errno));
    if (got == 0) break;
    bytes.append(chunk.data(), static_cast<std::size_t>(got));
    if (bytes.size() > Json::mostDocumentBytes) throw FileError("standard input: it is larger than 64 MiB");
  }
  return bytes;
}

// What is to be rendered, and where to.
struct Job {
  GeneratorSpec spec;
  std::string name;              // of the document
  std::vector<fs::path> inputs;  // which the output may not replace
  std::optional<fs::path> output;
};

// Absent: interrupted.
std::optional<Job> jobOf(const Arguments& arguments) {
  const bool hasPreset = !arguments.preset.empty();
  const std::size_t outputAt = hasPreset ? 0 : 1;
  if (arguments.files.size() < outputAt) refuse("SPEC", "a document is needed, or --preset, or --list");
  if (arguments.files.size() > outputAt + 1)
    refuse("OUT", hasPreset ? "--preset takes the place of SPEC: there is only an output"
                            : "there is one document and one output");
  if (arguments.files.size() == outputAt && !arguments.validate) refuse("OUT", "an output is needed");

  Job job;
  if (arguments.files.size() > outputAt) job.output = arguments.files[outputAt];
  if (job.output == "-") refuse("OUT", "a file appears whole or not at all, which standard output cannot");
  if (hasPreset) {
    const EmbeddedDocument& preset = presetArgument(generatorPresetDocuments(), arguments.preset);
    job.name = preset.name;
    job.spec = generatorSpecOf(preset.text, job.name);
  } else if (arguments.files.front() == "-") {
    job.name = "standard input";
    const std::string text = readStandardInput();
    if (Interrupt::wasAsked()) return {};
    job.spec = generatorSpecOf(text, job.name);
  } else {
    job.name = arguments.files.front();
    job.inputs = {job.name};
    job.spec = readGeneratorSpec(job.name);
  }
  if (job.output && !SignalFile::isFittingName(*job.output, job.spec.container))
    refuse("OUT",
           fmt::format("'{}' does not end in .{}, and the document's container is {}", job.output->string(),
                       fileExtension(job.spec.container), rawValue(job.spec.container)));
  return job;
}

// "tone.json: WAV 24-bit, 48000 Hz, 2 channels, 0:20.0 (960000 frames)"
std::string signalText(std::string_view name, const Job& job) {
  const GeneratorSpec& spec = job.spec;
  const std::int64_t channels = spec.channelCount(), frames = spec.frameCount();
  return fmt::format("{}: {}, {} Hz, {} channel{}, {} ({} frame{})\n", Console::printable(name),
                     nameOf(SignalFile::formatOf(spec, job.output.value_or(fs::path()))), spec.sampleRate,
                     channels, channels == 1 ? "" : "s",
                     clockTextWithTenths(static_cast<double>(frames) / spec.sampleRate), frames,
                     frames == 1 ? "" : "s");
}

// --- Work ------------------------------------------------------------------------------------------------

std::optional<SignalFile::Result> render(const Job& job, const SignalFile::Settings& settings) {
  std::optional<StepWatch> watch;
  std::optional<SignalFile::Step> shown;
  return naming(*job.output, [&] {
    return SignalFile::write(job.spec, settings, [&](SignalFile::Step step, const MeasureProgress& done) {
      if (shown != step)
        watch.emplace(step == SignalFile::Step::measuring ? "measuring" : "rendering", *job.output);
      shown = step;
      return (*watch)(done);
    });
  });
}

ExitCode generate(const Arguments& arguments) {
  if (arguments.list || arguments.print) {
    const std::string_view option = arguments.list ? "--list" : "--print";
    if (arguments.list && arguments.print) refuse("--list", "does not go together with --print");
    if (arguments.list && !arguments.preset.empty()) refuse("--list", "does not go together with --preset");
    if (!arguments.files.empty() || arguments.validate) refuse(option, "prints, and renders nothing");
    if (arguments.print && arguments.preset.empty()) refuse("--print", "needs --preset");
    Console::writeOutput(arguments.list ? presetsText(generatorPresetDocuments())
                                        : presetArgument(generatorPresetDocuments(), arguments.preset).text);
    return ExitCode::done;
  }
  SignalFile::Settings settings{.output = {}, .harmonicCap = {}, .dither = ditherArgument(arguments.dither)};
  if (!arguments.harmonicCap.empty())
    settings.harmonicCap = wholeNumberArgument("--harmonic-cap", arguments.harmonicCap, 1, 1'000'000);
  const std::optional<Job> job = jobOf(arguments);
  if (!job) return ExitCode::interrupted;
  if (arguments.validate) {
    Console::writeOutput(signalText(job->name, *job));
    return ExitCode::done;
  }
  settings.output = {.path = *job->output, .replacesExisting = arguments.force, .inputs = job->inputs};
  const std::optional<SignalFile::Result> result = render(*job, settings);
  if (!result) return ExitCode::interrupted;
  const std::string output = job->output->string();
  for (const std::string& note : result->notes) Console::printNote(output + ": " + note);
  if (result->clippedSamples > 0)
    Console::printNote(output + ": " + samplesWereClipped(result->clippedSamples));
  Console::writeOutput(signalText(output, *job));
  return ExitCode::done;
}

}  // namespace

void addGenerateCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb = *app.add_subcommand("generate", "Write a test signal that a JSON document describes");
  verb.add_option("FILE", arguments->files, "SPEC OUT, or with --preset OUT; SPEC may be - (standard input)")
      ->type_name("");
  verb.add_flag("--validate", arguments->validate, "Only check the document, and tell what it would render");
  addTextOption(verb, "--harmonic-cap", arguments->harmonicCap, "N",
                "The most harmonics of squares, sawtooths and triangles");
  addTextOption(verb, "--dither", arguments->dither, "KIND", "tpdf or none; of 16 and 24 bit")
      .capture_default_str();
  verb.add_flag("--force", arguments->force, "Replace an existing output");
  verb.add_flag("--list", arguments->list, "List the built-in documents");
  addTextOption(verb, "--preset", arguments->preset, "NAME", "Render a built-in document");
  verb.add_flag("--print", arguments->print, "Print the built-in document, to start from");
  verb.footer(
      "Examples:\n"
      "  vellum generate --preset tone tone.wav\n"
      "  vellum generate --preset sweep --print > my.json\n"
      "  vellum generate --validate my.json\n"
      "  vellum generate my.json my.wav\n"
      "\n"
      "Exit codes: 0 done, 2 wrong arguments or a faulty document, 3 a file failed or the output exists,\n"
      "130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = generate(*arguments); });
}

}  // namespace vellum
