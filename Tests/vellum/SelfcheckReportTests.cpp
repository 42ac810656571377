// What `vellum selfcheck` says of readings that are forged.

#include "vellum/SelfcheckReport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Support/CommandText.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using ConformanceSet::Expectation;
using ConformanceSet::Signal;
using nlohmann::ordered_json;
using SelfcheckReport::RateReadings;
using test::contains;
using test::linesOf;
using test::recordsOf;

constexpr std::string_view fault = "NOT AS EXPECTED";

// Every signal reads what is expected of it at 48 kHz, to the last digit.
RateReadings faultless() {
  RateReadings rate{48000, {}};
  for (const Signal& signal : ConformanceSet::signals()) {
    auto& readings = rate.signals.emplace_back();
    for (const Expectation& expectation : signal.expectations)
      readings.push_back({expectation.required + expectation.deviation.value_or(0),
                          {.meetsStandard = !expectation.deviation, .isAsExpected = true}});
  }
  return rate;
}

// Puts another value in the place of a reading, with the verdict that it gets.
void forge(RateReadings& rate, std::string_view name, std::size_t expectation, double value) {
  const auto& signals = ConformanceSet::signals();
  const auto found =
      std::find_if(signals.begin(), signals.end(), [&](const Signal& signal) { return signal.name == name; });
  ASSERT_NE(found, signals.end()) << name;
  rate.signals[static_cast<std::size_t>(found - signals.begin())].at(expectation) = {
      value, verdict(*found, found->expectations.at(expectation), rate.sampleRate, value)};
}

std::vector<std::string> faultyRows(const std::string& table) {
  std::vector<std::string> rows = linesOf(table);
  std::erase_if(rows, [](const std::string& row) { return row.find(fault) == row.npos; });
  return rows;
}

std::string lastLine(const std::string& table) {
  return linesOf(table).back();
}

TEST(SelfcheckReport, AllAsExpectedIsDone) {
  const std::vector<RateReadings> rates = {faultless()};
  const std::string table = tableText(rates);
  EXPECT_EQ(faultyRows(table).size(), 0u);
  EXPECT_EQ(lastLine(table),
            "128 readings, all as expected: 95 meet their standard, 33 miss it by what is known");
  EXPECT_EQ(exitCodeOf(rates), ExitCode::done);
  for (const ordered_json& record : recordsOf(recordsText(rates))) EXPECT_EQ(record["isAsExpected"], true);
}

// Signal 1 reads M, S and I of -23; the short-term one is off by 0.2 LU at the second of two rates.
TEST(SelfcheckReport, AMissedReadingFailsItsRowAndTheCheck) {
  std::vector<RateReadings> rates = {faultless(), faultless()};
  forge(rates[1], "1", 1, -23.2);
  const std::string table = tableText(rates);
  const std::vector<std::string> rows = faultyRows(table);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows[0].starts_with("  1 ")) << rows[0];
  EXPECT_TRUE(contains(rows[0], " S  "));
  EXPECT_TRUE(rows[0].ends_with(" -23.000  -23.200  NOT AS EXPECTED")) << rows[0];
  EXPECT_EQ(lastLine(table), "1 of 256 readings are not as expected");
  EXPECT_EQ(exitCodeOf(rates), ExitCode::checkFailed);

  const std::vector<ordered_json> records = recordsOf(recordsText(rates));
  ASSERT_EQ(records.size(), 256u);
  for (std::size_t k = 0; k < records.size(); ++k) EXPECT_EQ(records[k]["isAsExpected"], k != 128 + 1) << k;
  EXPECT_EQ(records[129]["figure"], "shortTerm");
  EXPECT_EQ(records[129]["meetsStandard"], false);
  EXPECT_EQ(records[129]["reading"], -23.2);
}

// A row that stands for many levels tells how far the worst is off.
TEST(SelfcheckReport, AMissedReadingIsTheOneThatItsRowShows) {
  std::vector<RateReadings> rates = {faultless()};
  forge(rates[0], "11", 7, -31 + 0.5);
  forge(rates[0], "11", 9, -29 - 0.25);
  const std::string table = tableText(rates);
  ASSERT_EQ(faultyRows(table).size(), 1u);
  EXPECT_TRUE(faultyRows(table)[0].ends_with("   +0.500  NOT AS EXPECTED")) << faultyRows(table)[0];
  EXPECT_EQ(lastLine(table), "2 of 128 readings are not as expected");
}

// A row with readings that are known beside one that is not.
TEST(SelfcheckReport, AnUnknownDeviationPrevailsOverKnownOnes) {
  std::vector<RateReadings> rates = {faultless()};
  forge(rates[0], "13", 1, -23.3);  // known to read -23.216
  const std::string table = tableText(rates);
  ASSERT_EQ(faultyRows(table).size(), 1u);
  EXPECT_TRUE(faultyRows(table)[0].starts_with("  13 ")) << faultyRows(table)[0];
  EXPECT_EQ(exitCodeOf(rates), ExitCode::checkFailed);
}

// That meets the standard, and yet is not what was promised. Its reason is no longer given.
TEST(SelfcheckReport, ADeviationThatVanishedIsAFault) {
  std::vector<RateReadings> rates = {faultless()};
  EXPECT_TRUE(contains(tableText(rates), "\n(2) Gating blocks"));
  forge(rates[0], "RelGateTest", 0, -10);
  const std::string table = tableText(rates);
  ASSERT_EQ(faultyRows(table).size(), 1u);
  EXPECT_TRUE(faultyRows(table)[0].starts_with("  RelGateTest ")) << faultyRows(table)[0];
  EXPECT_TRUE(faultyRows(table)[0].ends_with(" -10.000  NOT AS EXPECTED")) << faultyRows(table)[0];
  EXPECT_FALSE(contains(table, "Gating blocks"));
  EXPECT_EQ(lastLine(table), "1 of 128 readings are not as expected");
  EXPECT_EQ(exitCodeOf(rates), ExitCode::checkFailed);
  const ordered_json record = recordsOf(recordsText(rates)).back();
  EXPECT_EQ(record["signal"], "RelGateTest");
  EXPECT_EQ(record["meetsStandard"], true);
  EXPECT_EQ(record["isAsExpected"], false);
}

// Nothing to read, or no number at all, in signals with and without a known deviation.
TEST(SelfcheckReport, WhatIsNotFiniteIsAFaultAndHasNoKey) {
  for (const double value :
       {std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::infinity()}) {
    std::vector<RateReadings> rates = {faultless()};
    forge(rates[0], "1", 0, value);
    forge(rates[0], "13", 3, value);
    forge(rates[0], "RelGateTest", 0, value);
    const std::string table = tableText(rates);
    const std::vector<std::string> rows = faultyRows(table);
    ASSERT_EQ(rows.size(), 3u);
    for (const std::string& row : rows)
      EXPECT_TRUE(row.ends_with(value < 0 ? "     -inf  NOT AS EXPECTED" : "      nan  NOT AS EXPECTED"))
          << row;
    EXPECT_EQ(lastLine(table), "3 of 128 readings are not as expected");
    EXPECT_EQ(exitCodeOf(rates), ExitCode::checkFailed);
    int without = 0;
    for (const ordered_json& record : recordsOf(recordsText(rates))) {
      EXPECT_EQ(record.contains("reading"), record["isAsExpected"].get<bool>()) << record;
      if (!record.contains("reading")) {
        EXPECT_EQ(record["meetsStandard"], false);
        ++without;
      }
    }
    EXPECT_EQ(without, 3);
  }
}

}  // namespace
}  // namespace vellum
