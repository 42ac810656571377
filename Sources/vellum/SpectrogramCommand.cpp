#include "vellum/SpectrogramCommand.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VellumApp/DocumentFile.hpp"
#include "VellumApp/DocumentText.hpp"
#include "VellumApp/SpectralEdit.hpp"
#include "VellumApp/SpectrogramImage.hpp"
#include "vellum/ClockText.hpp"
#include "vellum/Console.hpp"
#include "vellum/Drawing.hpp"
#include "vellum/FigureText.hpp"
#include "vellum/Numbers.hpp"
#include "vellum/Options.hpp"
#include "vellum/Output.hpp"
#include "vellum/Progress.hpp"
#include "vellum/RenderOptions.hpp"
#include "vellum/SectionOptions.hpp"

namespace vellum {
namespace {

constexpr double leastDB = -200, mostDB = 100;

struct Arguments {
  std::string file, picture, size = "1200x600", minDB = "-100", maxDB = "0", scale = "log", fftSize, script;
  SectionArguments section;
  bool force = false;
};

struct Plan {
  SpectrogramSettings image;
  Drawing::SpectrogramPicture picture;
};

Drawing::PictureSize sizeArgument(const std::string& text) {
  const std::size_t x = text.find('x');
  const auto side = [&](const std::string& digits) -> std::int64_t {
    const auto number = parseNumber(digits);
    const bool isSide =
        number && *number >= 1 && *number <= 1e6 && digits.find_first_not_of("0123456789") == digits.npos;
    return isSide ? static_cast<std::int64_t>(*number) : 0;
  };
  const Drawing::PictureSize size{x == text.npos ? 0 : side(text.substr(0, x)),
                                  x == text.npos ? 0 : side(text.substr(x + 1))};
  if (size.width == 0 || size.height == 0)
    refuse("--size", fmt::format("'{}' is not a size; write pixels across and down: 1200x600", text));
  if (size.width < Drawing::leastSize.width || size.height < Drawing::leastSize.height)
    refuse("--size", fmt::format("'{}' leaves no room; the least is {}x{}", text, Drawing::leastSize.width,
                                 Drawing::leastSize.height));
  if (size.width > Drawing::mostSide || size.height > Drawing::mostSide ||
      size.width * size.height > Drawing::mostPixels)
    refuse("--size", fmt::format("'{}' is too large; no side may be above {}, and {} pixels are the most",
                                 text, Drawing::mostSide, Drawing::mostPixels));
  return size;
}

// Whatever the case.
bool endsInPNG(const std::filesystem::path& path) {
  const std::string extension = path.extension().string();
  constexpr std::string_view expected = ".png";
  return std::equal(extension.begin(), extension.end(), expected.begin(), expected.end(),
                    [](char a, char b) { return a == b || (a >= 'A' && a <= 'Z' && a - 'A' + 'a' == b); });
}

Plan planOf(const Arguments& arguments) {
  if (!endsInPNG(arguments.picture))
    refuse("OUT", fmt::format("'{}' does not end in .png, and the picture is a PNG", arguments.picture));
  const SectionTimes times = sectionTimesArgument(arguments.section.from, arguments.section.to);
  const auto scale = fromRawValue<FrequencyScale>(arguments.scale);
  if (!scale) refuse("--scale", fmt::format("'{}' is neither log nor linear", arguments.scale));
  const Drawing::PictureSize size = sizeArgument(arguments.size), plot = Drawing::plotSize(size);
  const Plan plan{.image = {.fromSec = times.fromSec,
                            .toSec = times.toSec,
                            .scale = *scale,
                            .fftSize = fftSizeArgument("--fft-size", arguments.fftSize),
                            .channels = channelsArgument(arguments.section.channels),
                            .width = plot.width,
                            .height = plot.height},
                  .picture = {.size = size,
                              .title = {},
                              .subtitle = {},
                              .minDB = numberArgument("--min-db", arguments.minDB, leastDB, mostDB, "dB"),
                              .maxDB = numberArgument("--max-db", arguments.maxDB, leastDB, mostDB, "dB"),
                              .overlays = {}}};
  if (plan.picture.maxDB < plan.picture.minDB + 1)
    refuse("--max-db", "has to be at least 1 dB above --min-db");
  return plan;
}

std::string textBlock(const Arguments& arguments, const Plan& plan, const SpectrogramImage& image) {
  std::string block =
      fmt::format("{} -> {}\n", Console::printable(arguments.file), Console::printable(arguments.picture));
  addLine(block, "Audio",
          fmt::format("{}, {} Hz, {} channel{}", image.formatName, image.sampleRate, image.channelCount,
                      image.channelCount == 1 ? "" : "s"));
  addLine(block, "Section",
          fmt::format("{} to {}", clockTextWithTenths(image.fromSec), clockTextWithTenths(image.toSec)));
  if (static_cast<std::int64_t>(image.channels.size()) < image.channelCount)
    addLine(block, "Channels", channelNumbers(image.channels));
  addLine(block, "Transform", fmt::format("{} samples, Hann window", image.fftSize));
  addLine(block, "Picture",
          fmt::format("{} x {} pixels, {} to {} dBFS", plan.picture.size.width, plan.picture.size.height,
                      plan.picture.minDB, plan.picture.maxDB));
  if (!image.warnings.empty()) addLine(block, "Warning", fmt::format("{}", fmt::join(image.warnings, "; ")));
  return block;
}

// The selections of an edit script as they would be made in the file. Absent: interrupted.
std::optional<std::vector<Drawing::Overlay>> overlaysOf(const Arguments& arguments,
                                                        const EditScript& script) {
  std::optional<std::vector<StepSelection>> selections;
  try {
    StepWatch watch("selecting", arguments.file);
    selections = selectInFile(arguments.file, script,
                              [&](const SpectralEditProgress& progress) { return watch(progress.done); });
  } catch (const EditFault& fault) {
    throw FaultyDocument(arguments.script, fault);
  }
  if (!selections) return {};
  std::vector<Drawing::Overlay> overlays;
  for (std::size_t k = 0; k < selections->size(); ++k) {
    const StepSelection& step = (*selections)[k];
    Drawing::Overlay overlay{.label = step.name.empty() ? fmt::format("step {}", k + 1)
                                                        : Console::printable(asInDocument(step.name)),
                             .outlines = {},
                             .cells = {}};
    for (const EditSelection::Rect& area : areasOf(step.mask, step.config))
      overlay.cells.push_back({area.fromSec, area.toSec, area.lowHz, area.highHz});
    overlays.push_back(std::move(overlay));
  }
  return overlays;
}

ExitCode run(const Arguments& arguments) {
  namespace fs = std::filesystem;
  Plan plan = planOf(arguments);
  const fs::path path = arguments.file;
  std::vector<fs::path> inputs = {path};
  std::optional<EditScript> script;
  if (!arguments.script.empty()) {
    script = readEditScript(arguments.script);
    inputs.push_back(arguments.script);
  }
  Output output(arguments.picture, arguments.force, inputs);  // refused before anything takes time

  if (script) {
    auto overlays = overlaysOf(arguments, *script);
    if (!overlays) return ExitCode::interrupted;
    plan.picture.overlays = std::move(*overlays);
  }
  const auto image = [&] {
    StepWatch watch("analysing", path);
    return naming(path, [&] { return renderSpectrogram(path, plan.image, std::ref(watch)); });
  }();
  if (!image) return ExitCode::interrupted;
  plan.picture.title = Console::printable(asInDocument(path.filename().string()));
  plan.picture.subtitle = fmt::format("{} Hz, {} samples, Hann", image->sampleRate, image->fftSize);
  output.write(Drawing::spectrogramPNG(*image, plan.picture));
  output.commit();
  Console::writeOutput(textBlock(arguments, plan, *image));
  return ExitCode::done;
}

}  // namespace

void addSpectrogramCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb = *app.add_subcommand("spectrogram", "Draw an audio file's levels over time and frequency");
  verb.add_option("FILE", arguments->file, "The audio file")->required()->type_name("");
  verb.add_option("OUT", arguments->picture, "The PNG picture to write, by a name that ends in .png")
      ->required()
      ->type_name("");
  const auto add = [&](const char* name, std::string& value, const char* type, const char* description) {
    addTextOption(verb, name, value, type, description).capture_default_str();
  };
  addSectionOptions(verb, arguments->section);
  add("--size", arguments->size, "WxH", "Pixels across and down");
  add("--min-db", arguments->minDB, "DB", "The level that is black, -200 to 100");
  add("--max-db", arguments->maxDB, "DB", "The level that is white, -200 to 100");
  add("--scale", arguments->scale, "SCALE", "The frequency axis: log or linear");
  add("--fft-size", arguments->fftSize, "N",
      "Samples of a transform, a power of two (a thirtieth of a second)");
  addTextOption(verb, "--script", arguments->script, "FILE",
                "Draw what the steps of an edit script select over it");
  verb.add_flag("--force", arguments->force, "Replace a file that is there already");
  verb.footer(
      "Examples:\n"
      "  vellum spectrogram song.flac song.png\n"
      "  vellum spectrogram talk.wav edits.png --script edits.json\n"
      "  vellum spectrogram talk.wav cough.png --from 12:03 --to 12:05 --scale linear --fft-size 1024\n"
      "\n"
      "Exit codes: 0 done, 2 wrong arguments, 3 the file failed or the output exists, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = run(*arguments); });
}

}  // namespace vellum
