#include "vellum/SelfcheckReport.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "VellumCore/Json/Document.hpp"
#include "vellum/FigureText.hpp"

namespace vellum::SelfcheckReport {
namespace {

using ConformanceSet::Expectation;
using ConformanceSet::Figure;
using ConformanceSet::Reading;
using ConformanceSet::Signal;
using ConformanceSet::Summary;

// How many readings there are, and how many of a kind.
struct Tally {
  std::int64_t count = 0, outside = 0, unexpected = 0;

  Tally() = default;
  explicit Tally(const std::vector<RateReadings>& rates) {
    for (const RateReadings& rate : rates)
      for (const auto& readings : rate.signals)
        for (const Reading& reading : readings) add(reading);
  }

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

}  // namespace

std::string tableText(const std::vector<RateReadings>& rates) {
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
      text.append("\n").append(lineText(standard, "What", "Figure", "Must read", rateTitles, "Verdict"));
    }
    text += signalText(signals[k], k, rates, footnotes);
  }
  return text + "\n" + footnotes.text() + tallyText(Tally(rates));
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

ExitCode exitCodeOf(const std::vector<RateReadings>& rates) {
  return Tally(rates).unexpected == 0 ? ExitCode::done : ExitCode::checkFailed;
}

}  // namespace vellum::SelfcheckReport
