#include "vellum/SelfcheckCommand.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "VellumApp/ConformanceSet.hpp"
#include "VellumCore/Json/Document.hpp"
#include "vellum/Console.hpp"
#include "vellum/FigureText.hpp"
#include "vellum/Interrupt.hpp"
#include "vellum/Numbers.hpp"
#include "vellum/Options.hpp"
#include "vellum/OrderedJobs.hpp"

namespace vellum {
namespace {

using ConformanceSet::Expectation;
using ConformanceSet::Figure;
using ConformanceSet::Reading;
using ConformanceSet::Signal;
using ConformanceSet::Summary;

struct Arguments {
  std::vector<std::string> rates;
  bool json = false;
};

// The readings of every signal at one sample rate, signal by signal.
struct RateReadings {
  double sampleRate;
  std::vector<std::vector<Reading>> signals;
};

// How many readings there are, and how many of a kind.
struct Tally {
  std::int64_t count = 0, outside = 0, unexpected = 0;

  void add(const Reading& reading) {
    ++count;
    if (!reading.verdict.meetsStandard) ++outside;
    if (!reading.verdict.isAsExpected) ++unexpected;
  }
};

// --- Text

std::string tallyText(const Tally& tally) {
  if (tally.unexpected > 0)
    return fmt::format("{} of {} readings are not as expected\n", tally.unexpected, tally.count);
  return fmt::format("{} readings, all as expected: {} meet their standard, {} miss it by what is known\n",
                     tally.count, tally.count - tally.outside, tally.outside);
}

std::string figureText(Figure figure) {
  switch (figure) {
    case Figure::momentary:
      return "M";
    case Figure::shortTerm:
      return "S";
    case Figure::integrated:
      return "I";
    case Figure::highestMomentary:
      return "max M";
    case Figure::highestShortTerm:
      return "max S";
    case Figure::everyMomentary:
      return "every M";
    case Figure::everyShortTerm:
      return "every S";
    case Figure::loudnessRange:
      return "LRA";
    case Figure::repeatedLoudnessRange:
      break;
  }
  return "LRA twice";
}

constexpr std::string_view legend =
    "Levels are peaks in dBFS, of a tone of 1 kHz unless said. M, S, I: momentary, short-term, integrated "
    "loudness\n"
    "(LUFS); max: the highest; every: of all windows; LRA: loudness range (LU), twice: with the signal "
    "repeated. Of\n"
    "several readings the one farthest off is shown; where each must read something else, how far it is off "
    "(LU).\n";

std::string requiredText(const Summary& row, double tolerance) {
  const std::string lowest = decimal(row.lowestRequired), highest = decimal(row.highestRequired);
  return fmt::format("{} ±{}", lowest == highest ? lowest : lowest + " to " + highest, tolerance);
}

// Three decimals; the distance, with its sign, where one row stands for readings of several levels.
std::string readingText(const Summary& row) {
  if (row.lowestRequired != row.highestRequired) return fmt::format("{:+.3f}", row.off);
  return fmt::format("{:.3f}", row.reading);
}

// Reasons for deviations, each with the number under which rows refer to it.
class Footnotes {
 public:
  std::size_t numberOf(std::string_view reason) {
    const auto found = std::find(reasons_.begin(), reasons_.end(), reason);
    if (found != reasons_.end()) return static_cast<std::size_t>(found - reasons_.begin()) + 1;
    reasons_.push_back(reason);
    return reasons_.size();
  }

  std::string text() const {
    std::string text;
    for (std::size_t k = 0; k < reasons_.size(); ++k) text += fmt::format("({}) {}\n", k + 1, reasons_[k]);
    return text.empty() ? text : text + "\n";
  }

 private:
  std::vector<std::string_view> reasons_;
};

std::string lineText(std::string_view name, std::string_view content, std::string_view figure,
                     std::string_view required, const std::vector<std::string>& readings,
                     std::string_view verdict) {
  std::string line = fmt::format("{:<14}  {:<38}  {:<9}  {:<19}", name, content, figure, required);
  for (const std::string& reading : readings) line += fmt::format(" {:>8}", reading);
  return fmt::format("{}  {}\n", line, verdict);
}

// The rows of one signal, a column for each rate.
std::string signalText(const Signal& signal, std::size_t index, const std::vector<RateReadings>& rates,
                       Footnotes& footnotes) {
  std::vector<std::vector<Summary>> columns;
  for (const RateReadings& rate : rates) columns.push_back(summaries(signal, rate.signals[index]));
  std::string text;
  for (std::size_t row = 0; row < columns.front().size(); ++row) {
    std::vector<std::string> readings;
    Tally tally;
    for (const auto& column : columns) {
      readings.push_back(readingText(column[row]));
      tally.outside += column[row].outside;
      tally.unexpected += column[row].unexpected;
    }
    std::string verdict = "ok";
    if (tally.unexpected > 0)
      verdict = "NOT AS EXPECTED";
    else if (tally.outside > 0)
      verdict = fmt::format("known ({})", footnotes.numberOf(signal.reason));
    const Summary& first = columns.front()[row];
    text += lineText("  " + signal.name, signal.content, figureText(first.figure),
                     requiredText(first, signal.tolerance), readings, verdict);
  }
  return text;
}

std::string tableText(const std::vector<RateReadings>& rates, const Tally& tally) {
  std::vector<std::string> rateTitles;
  for (const RateReadings& rate : rates)
    rateTitles.push_back(fmt::format("{:g} kHz", rate.sampleRate / 1000));
  std::string text = std::string(legend);
  Footnotes footnotes;
  std::string_view standard;
  const auto& signals = ConformanceSet::signals();
  for (std::size_t k = 0; k < signals.size(); ++k) {
    if (signals[k].standard != standard) {
      standard = signals[k].standard;
      text += "\n" + lineText(standard, "What", "Figure", "Must read", rateTitles, "Verdict");
    }
    text += signalText(signals[k], k, rates, footnotes);
  }
  return text + "\n" + footnotes.text() + tallyText(tally);
}

// --- JSON

Json::Object record(const Signal& signal, const Expectation& expectation, double sampleRate,
                    const Reading& reading) {
  Json::Object object;
  object.set("standard", signal.standard);
  object.set("signal", signal.name);
  object.set("document", expectation.document);
  object.set("sampleRate", sampleRate);
  object.set("figure", rawValue(expectation.figure));
  object.set("required", expectation.required);
  object.set("tolerance", signal.tolerance);
  setFigure(object, "reading", reading.value);
  object.set("meetsStandard", reading.verdict.meetsStandard);
  object.set("isAsExpected", reading.verdict.isAsExpected);
  return object;
}

std::string recordsText(const std::vector<RateReadings>& rates) {
  std::string text;
  const auto& signals = ConformanceSet::signals();
  for (const RateReadings& rate : rates)
    for (std::size_t k = 0; k < signals.size(); ++k)
      for (std::size_t e = 0; e < signals[k].expectations.size(); ++e)
        text += Json::compactText(
                    record(signals[k], signals[k].expectations[e], rate.sampleRate, rate.signals[k][e])) +
                "\n";
  return text;
}

// --- The verb

// The rates in the order in which they are given, each once; without any, all.
std::vector<RateReadings> ratesArgument(const std::vector<std::string>& texts) {
  const auto& known = ConformanceSet::sampleRates;
  std::vector<RateReadings> rates;
  if (texts.empty())
    for (const double rate : known) rates.push_back({rate, {}});
  for (const std::string& text : texts) {
    const auto rate = parseNumber(text);
    if (!rate || std::find(known.begin(), known.end(), *rate) == known.end())
      refuse("--rate", fmt::format("'{}' is none of {}", text, fmt::join(known, ", ")));
    const auto isSame = [&](const RateReadings& other) { return other.sampleRate == *rate; };
    if (std::none_of(rates.begin(), rates.end(), isSame)) rates.push_back({*rate, {}});
  }
  return rates;
}

ExitCode runSelfcheck(const Arguments& arguments) {
  std::vector<RateReadings> rates = ratesArgument(arguments.rates);
  const auto& signals = ConformanceSet::signals();
  const std::size_t threads = std::clamp(std::thread::hardware_concurrency(), 1u, 16u);
  std::atomic<bool> stop = false;
  Tally tally;
  const auto work = [&](std::size_t index) {
    if (stop) return std::vector<Reading>{};
    return measure(signals[index % signals.size()], rates[index / signals.size()].sampleRate);
  };
  const auto deliver = [&](std::size_t index, std::vector<Reading> readings) {
    for (const Reading& reading : readings) tally.add(reading);
    rates[index / signals.size()].signals.push_back(std::move(readings));
  };
  const auto tick = [&] {
    if (Interrupt::wasAsked()) stop = true;
  };
  runInOrder(rates.size() * signals.size(), threads, stop, work, deliver, tick);
  if (Interrupt::wasAsked()) return ExitCode::interrupted;

  Console::writeOutput(arguments.json ? recordsText(rates) : tableText(rates, tally));
  return tally.unexpected == 0 ? ExitCode::done : ExitCode::checkFailed;
}

}  // namespace

void addSelfcheckCommand(CLI::App& app, ExitCode& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App& verb = *app.add_subcommand(
      "selfcheck",
      "Render and measure the standards' conformance signals, and compare with what they must read");
  verb.add_option("--rate", arguments->rates,
                  "Sample rates to render at: 44100, 48000, 88200, 96000, 192000; all without it")
      ->type_name("HZ");
  verb.add_flag("--json", arguments->json, "One JSON object per line and reading");
  verb.footer(
      "Examples:\n"
      "  vellum selfcheck\n"
      "  vellum selfcheck --rate 48000 --json\n"
      "\n"
      "Exit codes: 0 all read what is expected of them, 1 some do not, 2 wrong arguments, 130 interrupted");
  verb.callback([arguments, &exitCode] { exitCode = runSelfcheck(*arguments); });
}

}  // namespace vellum
