#include "VellumApp/ConformanceSet.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <initializer_list>
#include <limits>
#include <utility>

#include "VellumApp/EmbeddedDocuments.hpp"
#include "VellumApp/PlanarBuffer.hpp"
#include "VellumCore/Json/GeneratorDocuments.hpp"
#include "VellumCore/LoudnessProcessor.hpp"
#include "VellumCore/SignalStream.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum::ConformanceSet {
namespace {

// --- The table -------------------------------------------------------------------------------------------

constexpr std::string_view tech3341 = "EBU Tech 3341", tech3342 = "EBU Tech 3342", bs2217 = "ITU-R BS.2217";
constexpr double loudnessTolerance = 0.1, rangeTolerance = 1;  // LU

constexpr std::string_view stepReason =
    "Momentary loudness moves in steps of 100 ms: a burst of 400 ms between two steps never fills its "
    "window.";
constexpr std::string_view gateReason =
    "Gating blocks of 100 ms count the quiet ends of a short programme more than overlapping ones of 400 ms "
    "do.";

// LU from its level that a burst of 400 ms reads when it begins i x 20 ms after a step of the window: 380 or
// 360 ms of it in 400, and 0.007 LU of the weighting's own. Worked out in extended precision.
std::optional<double> burstDeviation(int i) {
  switch (i % 5) {
    case 0:
      return {};
    case 1:
    case 4:
      return -0.216;
    default:
      return -0.451;
  }
}
constexpr double relativeGateDeviation = -0.437;  // LU, worked out likewise

// How much higher in LU a tone of 1 kHz reads than at 48 kHz: the high-pass keeps the numerator 1, -2, 1 of
// ITU-R BS.1770-5 at every rate, and so its gain changes.
double shiftFrom48kHz(double sampleRate) {
  constexpr std::array<double, sampleRates.size()> shifts = {0.003, 0, -0.016, -0.017, -0.027};
  const auto rate = std::find(sampleRates.begin(), sampleRates.end(), sampleRate);
  VELLUM_REQUIRE(rate != sampleRates.end(), "ConformanceSet: sampleRate must be one of sampleRates");
  return shifts[static_cast<std::size_t>(rate - sampleRates.begin())];
}
// LU: 0.0005 for the rounding of either, the rest for a burst's edges, which fall on other samples of the
// tone.
constexpr double deviationTolerance = 0.003;

Expectation expectation(std::string document, Figure figure, double required) {
  return {.document = std::move(document), .figure = figure, .required = required, .deviation = {}};
}

class Table {
 public:
  std::vector<Signal> signals;

  // Expectations of the one document that has the signal's number.
  void add(std::string_view standard, int number, std::string content, double tolerance,
           std::initializer_list<std::pair<Figure, double>> required) {
    Signal& signal = add(standard, fmt::format("{}", number), std::move(content), tolerance);
    for (const auto& [figure, value] : required)
      signal.expectations.push_back(expectation(documentName(standard, number), figure, value));
  }

  Signal& add(std::string_view standard, std::string name, std::string content, double tolerance) {
    return signals.emplace_back(Signal{standard, std::move(name), std::move(content), tolerance, {}, {}});
  }

  static std::string documentName(std::string_view standard, int number) {
    return fmt::format("ebu-tech{}-{:02}", standard.substr(standard.rfind(' ') + 1), number);
  }
};

void addTech3341(Table& table) {
  for (const int number : {1, 2}) {
    const double level = number == 1 ? -23 : -33;
    table.add(tech3341, number, fmt::format("{} for 20 s", level), loudnessTolerance,
              {{Figure::momentary, level}, {Figure::shortTerm, level}, {Figure::integrated, level}});
  }
  const auto addIntegrated = [&](int number, const char* content) {
    table.add(tech3341, number, content, loudnessTolerance, {{Figure::integrated, -23}});
  };
  addIntegrated(3, "-36, -23, -36 for 10, 60, 10 s");
  addIntegrated(4, "as 3, between 10 s of -72");
  addIntegrated(5, "-26, -20, -26 for 20, 20.1, 20 s");
  addIntegrated(6, "L R -28, C -24, Ls Rs -30");

  constexpr int files = 20, bursts = 20;
  table.add(tech3341, 9, "-20, -30 for 1.34, 1.66 s, 5 times", loudnessTolerance,
            {{Figure::everyShortTerm, -23}});

  Signal& shortTermFiles =
      table.add(tech3341, "10", "20 files: 3 s of -23 after i x 0.15 s", loudnessTolerance);
  for (int i = 0; i < files; ++i)
    shortTermFiles.expectations.push_back(
        expectation(fmt::format("ebu-tech3341-10-{:02}", i + 1), Figure::highestShortTerm, -23));

  // Each burst has a stretch of the file to itself.
  const auto addBurst = [](Signal& signal, int i, Figure figure, std::int64_t blocks,
                           std::optional<double> deviation) {
    signal.expectations.push_back({.document = Table::documentName(tech3341, std::stoi(signal.name)),
                                   .figure = figure,
                                   .required = -38.0 + i,
                                   .deviation = deviation,
                                   .firstBlock = i * blocks,
                                   .endBlock = (i + 1) * blocks});
  };
  Signal& shortTermBursts = table.add(tech3341, "11", "20 bursts: 3 s after i x 0.15 s", loudnessTolerance);
  for (int i = 0; i < bursts; ++i) addBurst(shortTermBursts, i, Figure::highestShortTerm, 60, {});

  table.add(tech3341, 12, "-20, -30 for 0.18, 0.22 s, 25 times", loudnessTolerance,
            {{Figure::everyMomentary, -23}});
  table.signals.back().expectations.front().firstBlock = 9;  // from 1 s on

  Signal& momentaryFiles =
      table.add(tech3341, "13", "20 files: 0.4 s of -23 after i x 20 ms", loudnessTolerance);
  for (int i = 0; i < files; ++i) {
    momentaryFiles.expectations.push_back(
        expectation(fmt::format("ebu-tech3341-13-{:02}", i + 1), Figure::highestMomentary, -23));
    momentaryFiles.expectations.back().deviation = burstDeviation(i);
  }
  momentaryFiles.reason = stepReason;

  Signal& momentaryBursts = table.add(tech3341, "14", "20 bursts: 0.4 s after i x 20 ms", loudnessTolerance);
  for (int i = 0; i < bursts; ++i)
    addBurst(momentaryBursts, i, Figure::highestMomentary, 8, burstDeviation(i));
  momentaryBursts.reason = stepReason;
}

void addTech3342(Table& table) {
  const auto addRange = [&](int number, const char* levels, double range) {
    table.add(tech3342, number, fmt::format("{} for 20 s each", levels), rangeTolerance,
              {{Figure::loudnessRange, range}, {Figure::repeatedLoudnessRange, range}});
  };
  addRange(1, "-20, -30", 10);
  addRange(2, "-20, -15", 5);
  addRange(3, "-40, -20", 20);
  addRange(4, "-50, -35, -20, -35, -50", 15);
}

void addBS2217(Table& table) {
  const auto addIntegrated = [&](std::string name, std::string content, const std::string& document,
                                 double lufs) {
    table.add(bs2217, std::move(name), std::move(content), loudnessTolerance)
        .expectations.push_back(expectation("itu-bs2217-" + document, Figure::integrated, lufs));
  };
  for (const int frequency : {25, 100, 500, 1000, 2000, 10000})
    for (const int lufs : {23, 24})
      addIntegrated(frequency < 1000 ? fmt::format("{} Hz, -{}", frequency, lufs)
                                     : fmt::format("{} kHz, -{}", frequency / 1000, lufs),
                    "in L and R", fmt::format("tone-{}hz-{}", frequency, lufs), -lufs);
  const std::pair<const char*, const char*> channels[] = {{"L", "l"},     {"R", "r"},   {"C", "c"},
                                                          {"LFE", "lfe"}, {"Ls", "ls"}, {"Rs", "rs"}};
  for (const auto& [name, part] : channels)
    for (const int lufs : {23, 24})
      addIntegrated(
          fmt::format("{}, -{}", name, lufs),
          std::string_view(name) == "LFE" ? "L, and full scale in the LFE" : "one of L R C LFE Ls Rs",
          fmt::format("channel-{}-{}", part, lufs), -lufs);
  for (const int lufs : {23, 24})
    addIntegrated(fmt::format("summing, -{}", lufs), "L R -28, C -24, Ls Rs -30, no LFE",
                  fmt::format("summing-{}", lufs), -lufs);
  addIntegrated("AbsGateTest", "3 bursts of -69.5 over -88", "absgate", -69.5);
  addIntegrated("RelGateTest", "-19.9, -7.1, -19.9 for 0.9, 1.3, 0.8 s", "relgate", -10);
  table.signals.back().expectations.front().deviation = relativeGateDeviation;
  table.signals.back().reason = gateReason;
}

// --- Measuring -------------------------------------------------------------------------------------------

GeneratorSpec specOf(std::string_view document, double sampleRate) {
  const auto documents = conformanceDocuments();
  const auto found = std::find_if(documents.begin(), documents.end(), [&](const EmbeddedDocument& candidate) {
    return candidate.name == document;
  });
  VELLUM_REQUIRE(found != documents.end(), "ConformanceSet: an expectation's document must exist");
  GeneratorSpec spec = Json::parseGeneratorSpec(found->text);
  spec.sampleRate = sampleRate;
  VELLUM_REQUIRE(!spec.validate(), "ConformanceSet: a document must be one that can be rendered");
  return spec;
}

void play(const GeneratorSpec& spec, LoudnessProcessor& meter) {
  SignalStream stream(spec);
  const std::int64_t chunkFrames = framesPerChunk(spec.channelCount());
  const PlanarBuffer buffer(spec.channelCount(), chunkFrames);
  const auto chunk = buffer.constChannels();
  while (const std::int64_t frames = stream.render(buffer.channels(), chunkFrames))
    meter.process(chunk, frames);
}

LoudnessProcessor meterFor(const GeneratorSpec& spec) {
  LoudnessProcessor meter({.sampleRate = spec.sampleRate,
                           .channelCount = spec.channelCount(),
                           .precomputedSpeechHistory = std::nullopt,
                           .channelWeights = std::nullopt});
  meter.setCollectHistory(true);
  return meter;
}

// The windows of an expectation, as loudness in LUFS.
std::vector<double> windows(const LoudnessProcessor& meter, const Expectation& expectation,
                            float LoudnessProcessor::HistoryEntry::*loudness, std::int64_t blocksOfWindow) {
  const auto history = meter.loudnessHistory();
  const auto end = std::min(expectation.endBlock, static_cast<std::int64_t>(history.size()));
  std::vector<double> values;
  for (std::int64_t k = std::max(expectation.firstBlock, blocksOfWindow - 1); k < end; ++k)
    values.push_back(static_cast<double>(history[static_cast<std::size_t>(k)].*loudness));
  return values;
}

// How far a reading is off, to compare. One that is no number is farther off than any other.
double magnitude(double off) {
  return std::isnan(off) ? std::numeric_limits<double>::infinity() : std::abs(off);
}

double readingOf(const LoudnessProcessor& meter, const Expectation& expectation) {
  using Entry = LoudnessProcessor::HistoryEntry;
  constexpr double unmeasured = -std::numeric_limits<double>::infinity();
  const auto momentary = [&] {
    return windows(meter, expectation, &Entry::momentary, LoudnessProcessor::momentaryBlocks);
  };
  const auto shortTerm = [&] {
    return windows(meter, expectation, &Entry::shortTerm, LoudnessProcessor::shortTermBlocks);
  };
  const auto last = [](const std::vector<double>& values) {
    return values.empty() ? unmeasured : values.back();
  };
  const auto highest = [](const std::vector<double>& values) {
    return values.empty() ? unmeasured : *std::max_element(values.begin(), values.end());
  };
  const auto farthest = [&](const std::vector<double>& values) {
    const auto isNearer = [&](double a, double b) {
      return magnitude(a - expectation.required) < magnitude(b - expectation.required);
    };
    return values.empty() ? unmeasured : *std::max_element(values.begin(), values.end(), isNearer);
  };
  switch (expectation.figure) {
    case Figure::momentary:
      return last(momentary());
    case Figure::shortTerm:
      return last(shortTerm());
    case Figure::integrated:
      return meter.integratedLUFS();
    case Figure::highestMomentary:
      return highest(momentary());
    case Figure::highestShortTerm:
      return highest(shortTerm());
    case Figure::everyMomentary:
      return farthest(momentary());
    case Figure::everyShortTerm:
      return farthest(shortTerm());
    case Figure::loudnessRange:
    case Figure::repeatedLoudnessRange:
      break;
  }
  return static_cast<double>(meter.loudnessRange());
}

}  // namespace

const std::vector<Signal>& signals() {
  static const std::vector<Signal> all = [] {
    Table table;
    addTech3341(table);
    addTech3342(table);
    addBS2217(table);
    return std::move(table.signals);
  }();
  return all;
}

Verdict verdict(const Signal& signal, const Expectation& expectation, double sampleRate, double reading) {
  const double off = reading - expectation.required;
  const bool meetsStandard = std::abs(off) <= signal.tolerance;
  if (!expectation.deviation) return {meetsStandard, meetsStandard};
  const double known = *expectation.deviation + shiftFrom48kHz(sampleRate);
  return {meetsStandard, std::abs(off - known) <= deviationTolerance};
}

std::vector<Reading> measure(const Signal& signal, double sampleRate) {
  const auto& expectations = signal.expectations;
  std::vector<Reading> readings;
  for (std::size_t k = 0; k < expectations.size();) {
    const std::string& document = expectations[k].document;
    const GeneratorSpec spec = specOf(document, sampleRate);
    LoudnessProcessor meter = meterFor(spec);
    play(spec, meter);
    for (bool isRepeated = false; k < expectations.size() && expectations[k].document == document; ++k) {
      if (expectations[k].figure == Figure::repeatedLoudnessRange && !std::exchange(isRepeated, true))
        play(spec, meter);
      const double value = readingOf(meter, expectations[k]);
      readings.push_back({value, verdict(signal, expectations[k], sampleRate, value)});
    }
  }
  return readings;
}

std::vector<Summary> summaries(const Signal& signal, const std::vector<Reading>& readings) {
  VELLUM_REQUIRE(readings.size() == signal.expectations.size(),
                 "ConformanceSet: summaries takes one reading per expectation");
  std::vector<Summary> rows;
  for (std::size_t k = 0; k < readings.size(); ++k) {
    const Expectation& expectation = signal.expectations[k];
    const auto [value, verdict] = readings[k];
    const double off = value - expectation.required;
    auto row = std::find_if(rows.begin(), rows.end(),
                            [&](const Summary& summary) { return summary.figure == expectation.figure; });
    if (row == rows.end())
      row = rows.insert(row, {.figure = expectation.figure,
                              .lowestRequired = expectation.required,
                              .highestRequired = expectation.required,
                              .reading = value,
                              .off = off,
                              .count = 0,
                              .outside = 0,
                              .unexpected = 0});
    row->lowestRequired = std::min(row->lowestRequired, expectation.required);
    row->highestRequired = std::max(row->highestRequired, expectation.required);
    if (magnitude(off) > magnitude(row->off)) {
      row->off = off;
      row->reading = value;
    }
    ++row->count;
    if (!verdict.meetsStandard) ++row->outside;
    if (!verdict.isAsExpected) ++row->unexpected;
  }
  return rows;
}

}  // namespace vellum::ConformanceSet
