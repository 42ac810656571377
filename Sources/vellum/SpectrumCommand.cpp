#include "vellum/SpectrumCommand.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VellumApp/DocumentText.hpp"
#include "VellumApp/SpectrumAnalysis.hpp"
#include "VellumCore/Json/Document.hpp"
#include "vellum/ClockText.hpp"
#include "vellum/Console.hpp"
#include "vellum/FigureText.hpp"
#include "vellum/Options.hpp"
#include "vellum/Output.hpp"
#include "vellum/Progress.hpp"
#include "vellum/SectionOptions.hpp"
#include "vellum/SpectrumPlot.hpp"

namespace vellum {
namespace {

struct Arguments {
  std::string file, window = "hann", size, svg;
  SectionArguments section;
  bool csv = false, json = false, force = false;
};

SpectrumSettings settingsOf(const Arguments& arguments) {
  if (arguments.json && arguments.csv) refuse("--json", "does not go together with --csv");
  if (!arguments.svg.empty() && (arguments.json || arguments.csv))
    refuse("--svg", fmt::format("does not go together with {}", arguments.json ? "--json" : "--csv"));
  if (arguments.force && arguments.svg.empty()) refuse("--force", "needs --svg");
  const auto window = fromRawValue<FFTWindowType>(arguments.window);
  if (!window) {
    std::string known;
    for (const FFTWindowType type : allCases<FFTWindowType>())
      known.append(known.empty() ? "" : ", ").append(rawValue(type));
    refuse("--window", fmt::format("'{}' is not one of {}", arguments.window, known));
  }
  const SectionTimes times = sectionTimesArgument(arguments.section.from, arguments.section.to);
  return {.fromSec = times.fromSec,
          .toSec = times.toSec,
          .window = *window,
          .fftSize = fftSizeArgument("--size", arguments.size),
          .channels = channelsArgument(arguments.section.channels)};
}

// --- Text

std::string level(double dB) {
  return std::isfinite(dB) ? decimal(dB) : "silent";
}

std::string bandText(double nominalHz) {
  return nominalHz < 1000 ? fmt::format("{:g} Hz", nominalHz) : fmt::format("{:g} kHz", nominalHz / 1000);
}

std::string transformText(const FileSpectrum& spectrum) {
  return fmt::format("{} samples, {} window, {} frame{}", spectrum.fftSize, displayName(spectrum.window),
                     spectrum.frameCount, spectrum.frameCount == 1 ? "" : "s");
}

std::string loudestText(const FileSpectrum& spectrum) {
  // Not bin 0, which is an offset and no sound.
  const auto loudest = std::max_element(spectrum.averageDB.begin() + 1, spectrum.averageDB.end());
  if (!std::isfinite(*loudest)) return "silent";
  return fmt::format("{:.1f} Hz at {} dBFS", spectrum.frequency(loudest - spectrum.averageDB.begin()),
                     decimal(*loudest));
}

// A line per band: its levels, and a bar for the average, 2 dB to a mark.
std::string bandTable(const FileSpectrum& spectrum) {
  constexpr double barDB = 80, markDB = 2;
  double highest = -HUGE_VAL;
  for (const SpectrumBand& band : spectrum.bands) highest = std::max(highest, band.averageDB);
  std::string table = "  Third octave      Average      Peak  dBFS\n";
  for (const SpectrumBand& band : spectrum.bands) {
    const double marks = (band.averageDB - highest + barDB) / markDB;
    const std::string bar(static_cast<std::size_t>(marks > 0 ? marks : 0), '#');  // NaN where all is silent
    std::string line = fmt::format("  {:>12}   {:>10}{:>10}  {}", bandText(band.nominalHz),
                                   level(band.averageDB), level(band.peakDB), bar);
    line.erase(line.find_last_not_of(' ') + 1);
    table += line + "\n";
  }
  return table;
}

std::string headText(const Arguments& arguments, const FileSpectrum& spectrum) {
  std::string block = Console::printable(arguments.file) + "\n";
  addLine(block, "Audio",
          fmt::format("{}, {} Hz, {} channel{}", spectrum.formatName, spectrum.sampleRate,
                      spectrum.channelCount, spectrum.channelCount == 1 ? "" : "s"));
  addLine(
      block, "Section",
      fmt::format("{} to {}", clockTextWithTenths(spectrum.fromSec), clockTextWithTenths(spectrum.toSec)));
  if (static_cast<std::int64_t>(spectrum.channels.size()) < spectrum.channelCount)
    addLine(block, "Channels", channelNumbers(spectrum.channels));
  addLine(block, "Transform", transformText(spectrum));
  addLine(block, "Loudest bin", loudestText(spectrum));
  if (!spectrum.warnings.empty())
    addLine(block, "Warning", fmt::format("{}", fmt::join(spectrum.warnings, "; ")));
  return block;
}

// --- Records

std::string csvTable(const FileSpectrum& spectrum) {
  const auto cell = [](float dB) { return std::isfinite(dB) ? fmt::format("{:.3f}", dB) : ""; };
  std::string table = "frequencyHz,averageDBFS,peakDBFS\n";
  for (std::size_t k = 0; k < spectrum.averageDB.size(); ++k)
    table += fmt::format("{},{},{}\n", spectrum.frequency(static_cast<std::int64_t>(k)),
                         cell(spectrum.averageDB[k]), cell(spectrum.peakDB[k]));
  return table;
}

template <typename Number>
Json::Value numberOrNull(Number value) {
  return std::isfinite(value) ? Json::Value(value) : Json::Value();
}

Json::Array numberList(const std::vector<float>& values) {
  Json::Array list;
  list.reserve(values.size());
  for (const float value : values) list.push_back(numberOrNull(value));
  return list;
}

Json::Object record(const Arguments& arguments, const FileSpectrum& spectrum) {
  Json::Array channels, bands, frequencies;
  for (const std::int64_t channel : spectrum.channels) channels.push_back(channel);
  for (std::size_t k = 0; k < spectrum.averageDB.size(); ++k)
    frequencies.push_back(spectrum.frequency(static_cast<std::int64_t>(k)));
  for (const SpectrumBand& band : spectrum.bands)
    bands.push_back(Json::Object({{"nominalHz", band.nominalHz},
                                  {"lowHz", band.lowHz},
                                  {"highHz", band.highHz},
                                  {"averageDBFS", numberOrNull(band.averageDB)},
                                  {"peakDBFS", numberOrNull(band.peakDB)}}));
  Json::Object record({{"file", arguments.file},
                       {"sampleRate", spectrum.sampleRate},
                       {"channelCount", spectrum.channelCount},
                       {"channels", channels},
                       {"fromSec", spectrum.fromSec},
                       {"toSec", spectrum.toSec},
                       {"window", rawValue(spectrum.window)},
                       {"fftSize", spectrum.fftSize},
                       {"frameCount", spectrum.frameCount},
                       {"noiseBandwidthHz", spectrum.noiseBandwidthHz},
                       {"bands", bands},
                       {"frequencyHz", frequencies},
                       {"averageDBFS", numberList(spectrum.averageDB)},
                       {"peakDBFS", numberList(spectrum.peakDB)}});
  if (!spectrum.warnings.empty())
    record.set("warning", fmt::format("{}", fmt::join(spectrum.warnings, "; ")));
  return record;
}

ExitCode run(const Arguments& arguments) {
  namespace fs = std::filesystem;
  const SpectrumSettings settings = settingsOf(arguments);
  const fs::path path = arguments.file;
  const std::vector<fs::path> inputs = {path};
  std::optional<Output> plot;  // refused before anything takes time
  if (!arguments.svg.empty()) plot.emplace(arguments.svg, arguments.force, inputs);

  const auto spectrum = [&] {
    StepWatch watch("analysing", path);
    return naming(path, [&] { return analyseSpectrum(path, settings, std::ref(watch)); });
  }();
  if (!spectrum) return ExitCode::interrupted;
  if (plot) {
    plot->write(spectrumSVG(*spectrum, asInDocument(path.filename().string()), transformText(*spectrum)));
    plot->commit();
    Console::writeOutput(headText(arguments, *spectrum));
  } else if (arguments.json) {
    Console::writeOutput(Json::compactText(record(arguments, *spectrum)) + "\n");
  } else if (arguments.csv) {
    Console::writeOutput(csvTable(*spectrum));
  } else {
    Console::writeOutput(headText(arguments, *spectrum) + bandTable(*spectrum));
  }
  return ExitCode::done;
}

}  // namespace

void addSpectrumCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb =
      *app.add_subcommand("spectrum", "Print or plot the average and peak spectrum of an audio file");
  verb.add_option("FILE", arguments->file, "The audio file")->required()->type_name("");
  addTextOption(verb, "--window", arguments->window, "WINDOW",
                "hann, hamming, blackman, blackmanHarris or flatTop")
      .capture_default_str();
  addTextOption(verb, "--size", arguments->size, "N",
                "Samples of a transform, a power of two (a third of a second)");
  addSectionOptions(verb, arguments->section);
  addTextOption(verb, "--svg", arguments->svg, "OUT", "Write a plot instead of the table");
  verb.add_flag("--csv", arguments->csv, "Print every bin as a table with a header line");
  verb.add_flag("--json", arguments->json, "Print bands and bins as one JSON object");
  verb.add_flag("--force", arguments->force, "With --svg: replace a file that is there already");
  verb.footer(
      "Examples:\n"
      "  vellum spectrum song.flac\n"
      "  vellum spectrum song.flac --from 1:00 --to 1:10 --window flatTop --svg spectrum.svg\n"
      "\n"
      "Exit codes: 0 done, 2 wrong arguments, 3 the file failed or the output exists, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = run(*arguments); });
}

}  // namespace vellum
