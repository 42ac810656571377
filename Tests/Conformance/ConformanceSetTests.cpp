// The signals of Examples/conformance, rendered from their documents, and the table of what each must read.

#include "VellumApp/ConformanceSet.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <filesystem>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Support/ConformanceSignals.hpp"
#include "Support/ConformanceTable.hpp"
#include "Support/PlainMeter.hpp"
#include "Support/TemporaryFolder.hpp"
#include "VellumApp/ChannelLayouts.hpp"
#include "VellumApp/EmbeddedDocuments.hpp"
#include "VellumCore/Json/GeneratorDocuments.hpp"

namespace vellum::test {
namespace {

using ConformanceSet::Expectation;
using ConformanceSet::Figure;
using ConformanceSet::Reading;
using ConformanceSet::Signal;
using ConformanceSet::Summary;
using ConformanceSet::Verdict;

const Signal& signalNamed(const std::string& standard, const std::string& name) {
  const auto& all = ConformanceSet::signals();
  return *std::find_if(all.begin(), all.end(), [&](const Signal& signal) {
    return signal.standard == standard && signal.name == name;
  });
}

// --- What 100 ms gating blocks read ----------------------------------------------------------------------

// Bursts of EBU Tech 3341 whose window never holds all of them, by how late they begin: the rest is missing
// from a mean over the window.
double lateBurst(int i) {
  const double missing[] = {0, 0.02, 0.04, 0.04, 0.02};
  return 10 * std::log10(1 - missing[i % 5] / 0.4) + 0.007;
}
double lateLongBurst(int i) {
  return 10 * std::log10(1 - (i % 2) * 0.05 / 3) + 0.007;
}

// What the k-th reading of a signal is, worked out for 48 kHz and carried to other rates by the gain of the
// published weighting.
double workedOut(const Signal& signal, std::size_t k, double sampleRate) {
  const int i = static_cast<int>(k);
  const double shift = shiftFrom48kHz(sampleRate), both = 10 * std::log10(2.0);
  const std::string& name = signal.name;
  if (signal.standard == "EBU Tech 3341") {
    const std::map<std::string, double> at48kHz = {{"1", -22.993}, {"2", -32.993}, {"3", -22.993},
                                                   {"4", -22.993}, {"5", -22.990}, {"6", -23.014},
                                                   {"9", -22.986}, {"12", -22.960}};
    if (name == "10") return -23 + lateLongBurst(i) + shift;
    if (name == "11") return -38 + i + lateLongBurst(i) + shift;
    if (name == "13") return -23 + lateBurst(i) + shift;
    if (name == "14") return -38 + i + lateBurst(i) + shift;
    return at48kHz.at(name) + shift;
  }
  if (signal.standard == "EBU Tech 3342")
    return std::map<std::string, double>{{"1", 10}, {"2", 5}, {"3", 20}, {"4", 15}}.at(name);
  if (name == "AbsGateTest") return steadyToneLUFS(sampleRate, 1000, -69.5) + both;
  if (name == "RelGateTest") return -10.437 + shift;

  // "25 Hz, -23": the signal's own name, and the level that it must read.
  const std::string what = name.substr(0, name.find(','));
  const double below = name.ends_with("-24") ? 1 : 0;
  if (what == "summing") return -23.014 - below + shift;
  const std::map<std::string, std::pair<double, double>> tones = {
      {"25 Hz", {25, -11.92}},   {"100 Hz", {100, -21.18}}, {"500 Hz", {500, -22.35}},
      {"1 kHz", {1000, -23.01}}, {"2 kHz", {2000, -25.38}}, {"10 kHz", {10000, -26.35}}};
  if (const auto tone = tones.find(what); tone != tones.end())
    return steadyToneLUFS(sampleRate, tone->second.first, tone->second.second - below) + both;
  if (what == "Ls" || what == "Rs")
    return steadyToneLUFS(sampleRate, 1000, -21.5 - below) + 10 * std::log10(1.41253);
  return steadyToneLUFS(sampleRate, 1000, -20 - below);  // L, R, C, and L with the LFE
}

// --- The table in the examples ---------------------------------------------------------------------------

// A documented row against what was read at the rate of its `column`-th reading.
void expectDocumented(const DocumentedRow& documented, std::size_t column, const Signal& signal,
                      const Summary& row) {
  EXPECT_EQ(documented.standard, signal.standard);
  EXPECT_EQ(documented.signal, signal.name);
  EXPECT_EQ(documented.content, signal.content);
  const std::map<Figure, std::string> names = {
      {Figure::momentary, "M"},
      {Figure::shortTerm, "S"},
      {Figure::integrated, "I"},
      {Figure::highestMomentary, "max M"},
      {Figure::highestShortTerm, "max S"},
      {Figure::everyMomentary, "every M"},
      {Figure::everyShortTerm, "every S"},
      {Figure::loudnessRange, "LRA"},
      {Figure::repeatedLoudnessRange, "LRA twice"},
  };
  EXPECT_EQ(documented.figure, names.at(row.figure));

  // "-23.0 ±0.1" or "-38.0 to -19.0 ±0.1": the distance is shown where it is not one level.
  const std::string& required = documented.required;
  const bool isOneLevel = row.lowestRequired == row.highestRequired;
  EXPECT_DOUBLE_EQ(std::stod(required), row.lowestRequired);
  ASSERT_EQ(required.find(" to ") == required.npos, isOneLevel);
  if (!isOneLevel) {
    EXPECT_DOUBLE_EQ(std::stod(required.substr(required.find(" to ") + 4)), row.highestRequired);
  }
  EXPECT_DOUBLE_EQ(std::stod(required.substr(required.find("±") + std::string("±").size())),
                   signal.tolerance);
  ASSERT_EQ(documented.readings.size(), ConformanceSet::sampleRates.size());
  EXPECT_NEAR(documented.readings[column], isOneLevel ? row.reading : row.off, 0.0006);  // three decimals
  EXPECT_EQ(documented.verdict.starts_with("known "), row.outside > 0) << documented.verdict;
}

// --- Tests -----------------------------------------------------------------------------------------------

class ConformanceSetAtRate : public testing::TestWithParam<std::tuple<const char*, int>> {};

INSTANTIATE_TEST_SUITE_P(Standards, ConformanceSetAtRate,
                         testing::Combine(testing::Values("EBU Tech 3341", "EBU Tech 3342", "ITU-R BS.2217"),
                                          testing::Values(44100, 48000, 88200, 96000, 192000)),
                         [](const auto& parameters) {
                           std::string name = std::get<0>(parameters.param);
                           std::replace_if(
                               name.begin(), name.end(), [](char c) { return !std::isalnum(c); }, '_');
                           return name + "_" + std::to_string(std::get<1>(parameters.param));
                         });

// One test and not three, because rendering and measuring is what takes the time.
TEST_P(ConformanceSetAtRate, EverySignalReadsWhatItMustAndWhatWasWorkedOutAndIsDocumented) {
  const std::string standard = std::get<0>(GetParam());
  const int rate = std::get<1>(GetParam());
  const auto& rates = ConformanceSet::sampleRates;
  const auto column = static_cast<std::size_t>(std::find(rates.begin(), rates.end(), rate) - rates.begin());
  std::vector<DocumentedRow> documented = documentedRows();
  std::erase_if(documented, [&](const DocumentedRow& row) { return row.standard != standard; });
  std::size_t rows = 0;
  for (const Signal& signal : ConformanceSet::signals()) {
    if (signal.standard != standard) continue;
    SCOPED_TRACE(signal.name);
    const std::vector<Reading> readings = measure(signal, rate);
    ASSERT_EQ(readings.size(), signal.expectations.size());
    for (std::size_t k = 0; k < readings.size(); ++k) {
      const Expectation& expectation = signal.expectations[k];
      SCOPED_TRACE(expectation.document);
      EXPECT_TRUE(readings[k].verdict.isAsExpected) << readings[k].value;
      EXPECT_EQ(readings[k].verdict.meetsStandard, !expectation.deviation.has_value());
      EXPECT_NEAR(readings[k].value, workedOut(signal, k, rate),
                  0.002);  // as the signals made without documents
    }
    for (const Summary& row : summaries(signal, readings)) {
      ASSERT_LT(rows, documented.size());
      expectDocumented(documented[rows++], column, signal, row);
    }
  }
  EXPECT_EQ(rows, documented.size());
  EXPECT_GT(rows, 0u);
}

// A tone that is the same in both channels: one of them, and a meter in which it counts twice.
Audio oneChannelOf(const std::vector<TonePart>& parts, double sampleRate) {
  Audio audio;
  audio.channels.resize(1);
  playTone({.sampleRate = sampleRate, .parts = parts, .channelGainsDB = {0}},
           [&](auto channels, std::int64_t n) {
             audio.channels[0].insert(audio.channels[0].end(), channels[0], channels[0] + n);
           });
  return audio;
}
PlainMeter plainStereoMeter(double sampleRate) {
  return PlainMeter(sampleRate, {2.0f});
}

// Figures of a programme of whole blocks.
PlainMeter::Figures plainFigures(const std::vector<TonePart>& parts, double sampleRate) {
  const Audio audio = oneChannelOf(parts, sampleRate);
  const auto blocks = static_cast<std::size_t>(audio.frameCount() / std::llround(sampleRate / 10));
  return plainStereoMeter(sampleRate).measure(audio, std::vector<bool>(blocks));
}

// The highest momentary loudness of a tone in both channels in windows that end with the given blocks.
double plainHighestMomentary(double sampleRate, const std::vector<TonePart>& parts, std::size_t firstBlock,
                             std::size_t endBlock) {
  const auto powers = plainStereoMeter(sampleRate).blockPowers(oneChannelOf(parts, sampleRate));
  PlainMeter::Real highest = PlainMeter::unmeasured;
  for (std::size_t k = std::max<std::size_t>(3, firstBlock); k < std::min(endBlock, powers.size()); ++k)
    highest = std::max(highest,
                       PlainMeter::loudness((powers[k - 3] + powers[k - 2] + powers[k - 1] + powers[k]) / 4));
  return static_cast<double>(highest);
}

// `actual` is what the table knows; a tenth more or less of the smallest deviation is not.
void expectKnown(const Signal& signal, std::size_t k, double sampleRate, double actual) {
  const Expectation& expectation = signal.expectations[k];
  EXPECT_TRUE(verdict(signal, expectation, sampleRate, actual).isAsExpected) << k << ": " << actual;
  if (!expectation.deviation) return;
  for (const double off : {-0.02, 0.02})
    EXPECT_FALSE(verdict(signal, expectation, sampleRate, actual + off).isAsExpected) << k;
}

TEST(ConformanceSet, KnownDeviationsAreThoseOfAMeterInExtendedPrecision) {
  const Signal& files = signalNamed("EBU Tech 3341", "13");
  const Signal& bursts = signalNamed("EBU Tech 3341", "14");
  const Signal& gate = signalNamed("ITU-R BS.2217", "RelGateTest");
  for (const double rate : ConformanceSet::sampleRates) {
    SCOPED_TRACE(rate);
    std::vector<TonePart> inOneFile;
    for (std::size_t i = 0; i < 20; ++i) {
      const double late = 0.02 * static_cast<double>(i), level = -38 + static_cast<double>(i);
      inOneFile.insert(inOneFile.end(), {{late, silent}, {0.4, level}, {0.4 - late, silent}});
      expectKnown(files, i, rate,
                  plainHighestMomentary(rate, {{late, silent}, {0.4, -23}, {1, silent}}, 0, 100));
    }
    for (const std::size_t i : {1u, 2u, 8u, 19u})
      expectKnown(bursts, i, rate, plainHighestMomentary(rate, inOneFile, 8 * i, 8 * (i + 1)));

    expectKnown(gate, 0, rate, static_cast<double>(plainFigures(relativeGateTest(), rate).integrated));
  }
}

TEST(ConformanceSet, ToleranceIncludesItsEdgesAndNothingBeyond) {
  const Signal signal{
      .standard = "", .name = "", .content = "", .tolerance = 0.5, .expectations = {}, .reason = ""};
  const Expectation expectation{
      .document = "", .figure = Figure::integrated, .required = -23, .deviation = {}};
  for (const double reading : {-23.5, -23.0, -22.5})
    EXPECT_EQ(verdict(signal, expectation, 48000, reading), (Verdict{true, true})) << reading;
  const double none = std::numeric_limits<double>::infinity(), faulty = std::nan("");
  for (const double reading : {-23.5001, -22.4999, -none, none, faulty})
    EXPECT_EQ(verdict(signal, expectation, 48000, reading), (Verdict{false, false})) << reading;
}

// One that has gone is no less a surprise than one that has grown.
TEST(ConformanceSet, KnownDeviationIsExpectedAndItsAbsenceIsNot) {
  const Signal signal{
      .standard = "", .name = "", .content = "", .tolerance = 0.1, .expectations = {}, .reason = ""};
  const Expectation expectation{
      .document = "", .figure = Figure::integrated, .required = -23, .deviation = -0.4};
  EXPECT_EQ(verdict(signal, expectation, 48000, -23.4), (Verdict{false, true}));
  EXPECT_EQ(verdict(signal, expectation, 48000, -23.402), (Verdict{false, true}));
  EXPECT_EQ(verdict(signal, expectation, 48000, -23.405), (Verdict{false, false}));
  EXPECT_EQ(verdict(signal, expectation, 48000, -23.2), (Verdict{false, false}));
  EXPECT_EQ(verdict(signal, expectation, 48000, -22.6), (Verdict{false, false}));
  EXPECT_EQ(verdict(signal, expectation, 48000, -23), (Verdict{true, false}));
  EXPECT_EQ(verdict(signal, expectation, 48000, std::nan("")), (Verdict{false, false}));
}

TEST(ConformanceSet, SummaryShowsTheReadingFarthestOffOfEachFigure) {
  const auto of = [](Figure figure, double required) {
    return Expectation{.document = "", .figure = figure, .required = required, .deviation = {}};
  };
  const Signal signal{.standard = "",
                      .name = "",
                      .content = "",
                      .tolerance = 0.1,
                      .expectations = {of(Figure::momentary, -20), of(Figure::integrated, -30),
                                       of(Figure::momentary, -25), of(Figure::momentary, -22)},
                      .reason = ""};
  const auto rows = summaries(
      signal,
      {{-20.25, {false, false}}, {-30.05, {true, true}}, {-24.5, {false, true}}, {-22.0, {true, true}}});
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].figure, Figure::momentary);
  EXPECT_EQ(rows[0].lowestRequired, -25);
  EXPECT_EQ(rows[0].highestRequired, -20);
  EXPECT_EQ(rows[0].reading, -24.5);
  EXPECT_EQ(rows[0].off, 0.5);
  EXPECT_EQ(rows[0].count, 3);
  EXPECT_EQ(rows[0].outside, 2);
  EXPECT_EQ(rows[0].unexpected, 1);
  EXPECT_EQ(rows[1].figure, Figure::integrated);
  EXPECT_EQ(rows[1].reading, -30.05);
  EXPECT_EQ(rows[1].count, 1);

  // One that is no number does not hide behind those that are.
  const auto faulty = summaries(
      signal,
      {{-20, {true, true}}, {-30, {true, true}}, {std::nan(""), {false, false}}, {-22.5, {false, false}}});
  EXPECT_TRUE(std::isnan(faulty[0].reading));
}

// The signals in which every window counts are steady: one of these is loudest in its middle, one is not.
TEST(ConformanceSet, EveryWindowIsReadByTheOneFarthestOff) {
  const auto read = [](Figure figure, const char* document, double required) {
    const Signal signal{
        .standard = "",
        .name = "",
        .content = "",
        .tolerance = 0,
        .expectations = {{.document = document, .figure = figure, .required = required, .deviation = {}}},
        .reason = ""};
    return measure(signal, 48000).at(0).value;
  };
  for (const Figure figure : {Figure::everyMomentary, Figure::everyShortTerm}) {
    EXPECT_NEAR(read(figure, "ebu-tech3341-05", -26), -20 + 0.007, 0.002);
    EXPECT_NEAR(read(figure, "ebu-tech3341-03", -23), -36 + 0.007, 0.002);
  }
}

// Of the published signals none reads another range when it is repeated: this one is too short not to.
TEST(ConformanceSet, RepeatedRangeIsThatOfTheSignalPlayedTwice) {
  const auto of = [](Figure figure) {
    return Expectation{.document = "itu-bs2217-relgate", .figure = figure, .required = 0, .deviation = {}};
  };
  const Signal signal{.standard = "",
                      .name = "",
                      .content = "",
                      .tolerance = 0,
                      .expectations = {of(Figure::loudnessRange), of(Figure::repeatedLoudnessRange)},
                      .reason = ""};
  const std::vector<Reading> readings = measure(signal, 48000);
  ASSERT_EQ(readings.size(), 2u);
  for (const int times : {1, 2}) {
    const auto plain = plainFigures(repeated(relativeGateTest(), times), 48000);
    const double reading = readings[static_cast<std::size_t>(times - 1)].value;
    EXPECT_NEAR(reading, static_cast<double>(plain.range), 0.001) << times;
  }
  EXPECT_GT(std::abs(readings[0].value - readings[1].value), 0.1);
}

TEST(ConformanceSet, EveryDocumentBelongsToOneSignalAndCanBeRendered) {
  std::map<std::string, std::set<std::string>> signalsOf;
  for (const Signal& signal : ConformanceSet::signals())
    for (const Expectation& expectation : signal.expectations)
      signalsOf[expectation.document].insert(std::string(signal.standard) + signal.name);

  std::set<std::string> ids;
  for (const EmbeddedDocument& document : conformanceDocuments()) {
    SCOPED_TRACE(document.name);
    EXPECT_EQ(signalsOf[std::string(document.name)].size(), 1u);
    const GeneratorSpec spec = Json::parseGeneratorSpec(document.text);
    EXPECT_EQ(spec.validate(), std::nullopt);
    EXPECT_EQ(spec.sampleRate, 48000);
    std::vector<std::string> names;
    for (const GeneratorChannel& channel : spec.channels) {
      names.push_back(channel.name);
      EXPECT_TRUE(ids.insert(channel.id.text()).second) << channel.id.text();
      for (const GeneratorModule& module : channel.modules)
        EXPECT_TRUE(ids.insert(module.id.text()).second) << module.id.text();
    }
    EXPECT_EQ(names, ChannelLayouts::names({}, spec.channelCount()));  // by which the meter weighs
  }
  EXPECT_EQ(conformanceDocuments().size(), signalsOf.size());
}

TEST(ConformanceSet, BuiltInDocumentsAreTheFilesOfTheExamples) {
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(conformanceFolder()))
    if (entry.path().extension() == ".json") ++files;
  EXPECT_EQ(conformanceDocuments().size(), files);
  for (const EmbeddedDocument& document : conformanceDocuments())
    EXPECT_EQ(document.text, readBytes(conformanceFolder() / (std::string(document.name) + ".json")))
        << document.name;
}

TEST(ConformanceSetDeath, RateWithoutKnownDeviationsStopsTheProgram) {
  const Signal& signal = signalNamed("ITU-R BS.2217", "RelGateTest");
  EXPECT_DEATH(verdict(signal, signal.expectations.front(), 32000, -10.4), "must be one of sampleRates");
}

}  // namespace
}  // namespace vellum::test
