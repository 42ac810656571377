// `vellum targets`, end to end.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Support/CommandText.hpp"
#include "Support/RunCommand.hpp"
#include "Support/TargetRules.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using nlohmann::ordered_json;
using test::CommandResult;
using test::contains;
using test::linesOf;
using test::runVellum;
using test::startsWith;
using test::TargetRule;
using Texts = std::vector<std::string>;

const Texts modes = {"music", "podcast", "vod", "broadcast"};

// The characters of UTF-8 text.
Texts charactersOf(const std::string& text) {
  Texts characters;
  for (const char c : text) {
    if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) characters.emplace_back();
    characters.back() += c;
  }
  return characters;
}

// The cells of a line, cut where the table's titles begin.
Texts cellsOf(const std::string& line, const std::vector<std::size_t>& starts) {
  const Texts characters = charactersOf(line);
  Texts cells;
  for (std::size_t c = 0; c < starts.size(); ++c) {
    const std::size_t end = c + 1 < starts.size() ? starts[c + 1] : characters.size();
    std::string cell;
    for (std::size_t k = starts[c]; k < std::min(end, characters.size()); ++k) cell += characters[k];
    cell.erase(cell.find_last_not_of(' ') + 1);
    cells.push_back(cell);
  }
  return cells;
}

// The shortest text of a level.
std::string levelText(float level) {
  std::ostringstream stream;
  stream << level;
  return stream.str();
}

Texts expectedCells(const TargetRule& rule) {
  const std::string judged = rule.figure == "integratedLUFS"    ? "integrated loudness"
                             : rule.figure == "speechGatedLUFS" ? "dialogue loudness"
                                                                : "RMS";
  const std::string tolerance =
      rule.tolerance ? "±" + levelText(*rule.tolerance) + " " + rule.deltaUnit : "-";
  const std::string playback = rule.tolerance     ? "-"
                               : rule.isSymmetric ? "turned up or down"
                                                  : "turned down only";
  const std::string extra = rule.maxNoiseFloor  ? "noise floor " + levelText(*rule.maxNoiseFloor) + " dB RMS"
                            : rule.maxShortTerm ? "short-term " + levelText(*rule.maxShortTerm) + " LUFS"
                                                : "-";
  return {rule.isDefault ? "*" : "",
          rule.id,
          rule.name,
          judged,
          levelText(rule.reference) + " " + rule.unit,
          tolerance,
          levelText(rule.ceiling) + " dBTP",
          playback,
          extra};
}

// Compares a printed table with the rules that it is to hold.
void expectTable(const std::string& out, const std::vector<TargetRule>& rules) {
  const Texts lines = linesOf(out);
  ASSERT_EQ(lines.size(), 1 + rules.size() + 2) << out;
  std::vector<std::size_t> starts = {0};
  for (const char* title :
       {"ID", "Name", "Judged", "Reference", "Tolerance", "Ceiling", "Playback", "Further ceilings"}) {
    starts.push_back(lines[0].find(title));
    ASSERT_NE(starts.back(), std::string::npos) << title;
  }
  for (std::size_t k = 0; k < rules.size(); ++k)
    EXPECT_EQ(cellsOf(lines[k + 1], starts), expectedCells(rules[k])) << lines[k + 1];
  EXPECT_EQ(lines[rules.size() + 1], "");
  EXPECT_TRUE(startsWith(lines.back(), "* chosen by --mode alone"));
}

TEST(TargetsCommand, TheTableHoldsEveryTargetWithItsRule) {
  const CommandResult result = runVellum({"targets"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  expectTable(result.out, test::targetRules());
}

TEST(TargetsCommand, AModeHasItsOwnTargetsOnly) {
  for (const std::string& mode : modes) {
    std::vector<TargetRule> rules = test::targetRules();
    std::erase_if(rules, [&](const TargetRule& rule) { return rule.mode() != mode; });
    expectTable(runVellum({"targets", "--mode", mode}).out, rules);
  }
}

TEST(TargetsCommand, TheDocumentIsTheDefaultSelection) {
  ordered_json ids = ordered_json::array();
  for (const std::string& mode : modes) {
    ids.push_back(mode);
    ids.push_back(ordered_json::array());
    for (const TargetRule& rule : test::targetRules())
      if (rule.mode() == mode && rule.isDefault) ids.back().push_back(rule.id);
  }
  for (const std::string& mode : modes) {
    const CommandResult result = runVellum({"targets", "--json", "--mode", mode});
    EXPECT_EQ(result.exitCode, 0);
    const ordered_json expected = {
        {"mode", mode}, {"selectedTargetIDsByMode", ids}, {"customTargets", ordered_json::array()}};
    EXPECT_EQ(ordered_json::parse(result.out).dump(), expected.dump());  // the order of the keys, too
    EXPECT_EQ(result.out.back(), '\n');
  }
  EXPECT_EQ(runVellum({"targets", "--json"}).out, runVellum({"targets", "--json", "--mode", "music"}).out);
}

TEST(TargetsCommand, WrongArgumentsAreRefused) {
  const std::vector<std::pair<Texts, std::string>> cases = {
      {{"targets", "--mode", "tv"}, "--mode: 'tv' is none of music, podcast, vod, broadcast"},
      {{"targets", "--mode", "Music"}, "--mode: 'Music' is none of"},
      {{"targets", "--mode", ""}, "--mode"},
      {{"targets", "music"}, "music"},
  };
  for (const auto& [arguments, message] : cases) {
    const CommandResult result = runVellum(arguments);
    EXPECT_EQ(result.exitCode, 2) << message;
    EXPECT_EQ(result.out, "") << message;
    EXPECT_TRUE(contains(linesOf(result.err).front(), message));
  }
}

TEST(TargetsCommand, AnOutputThatCannotBeWrittenIsTold) {
  const CommandResult full =
      runVellum({"targets"}, {.environment = {}, .out = "/dev/full", .workingFolder = {}});
  EXPECT_EQ(full.exitCode, 3);
  EXPECT_EQ(full.err, "vellum: standard output cannot be written: No space left on device\n");
}

// A line of the table in Docs/Targets.md.
std::string documentedLine(const TargetRule& rule) {
  const Texts cells = expectedCells(rule);
  const auto filled = [](const std::string& cell) { return cell == "-" ? "" : cell + " "; };
  const std::string judged = cells[3].substr(0, cells[3].find(" loudness"));
  return "| `" + rule.id + "`" + (rule.isDefault ? " *" : "") + " | " + rule.name + " | " + judged + " | " +
         cells[4] + " | " + filled(cells[5]) + "| " + cells[6] + " | " + filled(cells[7]) + filled(cells[8]) +
         "|\n";
}

TEST(TargetsCommand, TheDocsHoldTheSameTable) {
  const auto docs = std::filesystem::path(__FILE__).parent_path() / ".." / ".." / "Docs" / "Targets.md";
  const std::string text = test::readBytes(docs);
  for (const TargetRule& rule : test::targetRules()) EXPECT_TRUE(contains(text, documentedLine(rule)));
}

TEST(TargetsCommand, HelpNamesEveryVerb) {
  const std::string help = runVellum({"--help"}).out;
  for (const char* verb : {"\n  measure ", "\n  check ", "\n  targets "}) EXPECT_TRUE(contains(help, verb));
  for (const char* verb : {"check", "targets"}) {
    const CommandResult result = runVellum({verb, "--help"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.out, std::string("\n  vellum ") + verb + " "));
  }
}

}  // namespace
}  // namespace vellum
