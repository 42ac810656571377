// `vellum selfcheck`, end to end.

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Support/CommandText.hpp"
#include "Support/ConformanceTable.hpp"
#include "Support/RunCommand.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using nlohmann::ordered_json;
using test::CommandResult;
using test::contains;
using test::DocumentedRow;
using test::linesOf;
using test::runVellum;
using test::startsWith;
using Texts = std::vector<std::string>;

// A text with every run of spaces as one.
std::string squeezed(const std::string& text) {
  std::istringstream words(text);
  std::string result;
  for (std::string word; words >> word;) result += (result.empty() ? "" : " ") + word;
  return result;
}

// A printed row against a documented one, of whose readings those in `columns` are shown.
void expectRow(const std::string& line, const DocumentedRow& documented,
               const std::vector<std::size_t>& columns) {
  const std::string head = documented.signal + " " + documented.content + " " + documented.figure + " " +
                           documented.required + " ";
  const std::string row = squeezed(line);
  ASSERT_TRUE(startsWith(row, head));
  std::istringstream rest(row.substr(head.size()));
  for (const std::size_t column : columns) {
    double reading = 0;
    rest >> reading;
    EXPECT_NEAR(reading, documented.readings[column], 0.0011) << row;  // the last of three decimals
  }
  std::string verdict;
  std::getline(rest >> std::ws, verdict);
  EXPECT_EQ(verdict, documented.verdict) << row;
}

void expectTable(const CommandResult& result, const std::vector<std::size_t>& columns) {
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  std::vector<std::string> rows;
  for (const std::string& line : linesOf(result.out))
    if (line.starts_with("  ")) rows.push_back(line);
  const std::vector<DocumentedRow> documented = test::documentedRows();
  ASSERT_EQ(rows.size(), documented.size());
  for (std::size_t k = 0; k < rows.size(); ++k) expectRow(rows[k], documented[k], columns);
  for (const char* standard : {"\nEBU Tech 3341 ", "\nEBU Tech 3342 ", "\nITU-R BS.2217 "})
    EXPECT_TRUE(contains(result.out, standard));
  EXPECT_TRUE(contains(result.out, "\n(1) Momentary loudness moves in steps of 100 ms"));
  EXPECT_TRUE(contains(result.out, "\n(2) Gating blocks of 100 ms"));
}

TEST(SelfcheckCommand, AllRatesReadAsExpectedAndAsDocumented) {
  const CommandResult result = runVellum({"selfcheck"});
  expectTable(result, {0, 1, 2, 3, 4});
  // At each rate 32 bursts that begin between two steps, and the gate test.
  EXPECT_EQ(linesOf(result.out).back(),
            "640 readings, all as expected: 475 meet their standard, 165 miss it by what is known");
}

TEST(SelfcheckCommand, ChosenRatesAreShownInTheirOrderAndOnce) {
  const CommandResult result =
      runVellum({"selfcheck", "--rate", "48000", "--rate", "44100", "--rate", "48e3"});
  expectTable(result, {1, 0});
  EXPECT_TRUE(contains(squeezed(result.out), "Must read 48 kHz 44.1 kHz Verdict"));
}

TEST(SelfcheckCommand, RecordsHoldEveryReading) {
  const CommandResult result = runVellum({"selfcheck", "--json", "--rate", "44100"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  const std::vector<ordered_json> records = test::recordsOf(result.out);
  ASSERT_EQ(records.size(), 128u);
  std::set<std::string> documents;
  std::map<std::string, int> outside;
  for (const ordered_json& record : records) {
    Texts keys;
    for (const auto& [key, value] : record.items()) keys.push_back(key);
    EXPECT_EQ(keys, (Texts{"standard", "signal", "document", "sampleRate", "figure", "required", "tolerance",
                           "reading", "meetsStandard", "isAsExpected"}));
    EXPECT_EQ(record["sampleRate"], 44100);
    EXPECT_EQ(record["isAsExpected"], true);
    const double off = record["reading"].get<double>() - record["required"].get<double>();
    EXPECT_EQ(record["meetsStandard"], std::abs(off) <= record["tolerance"].get<double>()) << record;
    documents.insert(record["document"]);
    if (!record["meetsStandard"]) ++outside[record["signal"]];
  }
  EXPECT_EQ(documents.size(), 82u);
  EXPECT_EQ(outside, (std::map<std::string, int>{{"13", 16}, {"14", 16}, {"RelGateTest", 1}}));
}

TEST(SelfcheckCommand, WrongArgumentsAreRefused) {
  const std::vector<std::pair<Texts, std::string>> cases = {
      {{"selfcheck", "--rate", "32000"}, "--rate: '32000' is none of 44100, 48000, 88200, 96000, 192000"},
      {{"selfcheck", "--rate", "48000", "--rate", "fast"}, "--rate: 'fast' is none of"},
      {{"selfcheck", "--rate", ""}, "--rate"},
      {{"selfcheck", "song.flac"}, "song.flac"},
  };
  for (const auto& [arguments, message] : cases) {
    const CommandResult result = runVellum(arguments);
    EXPECT_EQ(result.exitCode, 2) << message;
    EXPECT_EQ(result.out, "") << message;
    EXPECT_TRUE(contains(linesOf(result.err).front(), message));
  }
}

TEST(SelfcheckCommand, AnOutputThatCannotBeWrittenIsTold) {
  const CommandResult full = runVellum({"selfcheck", "--rate", "44100"},
                                       {.environment = {}, .out = "/dev/full", .workingFolder = {}});
  EXPECT_EQ(full.exitCode, 3);
  EXPECT_EQ(full.err, "vellum: standard output cannot be written: No space left on device\n");
}

}  // namespace
}  // namespace vellum
