// `vellum check`, end to end on real files.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/CommandText.hpp"
#include "Support/RealAudio.hpp"
#include "Support/RunCommand.hpp"
#include "Support/Signals.hpp"
#include "Support/TargetRules.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

namespace fs = std::filesystem;
using nlohmann::ordered_json;
using test::Arguments;
using test::Audio;
using test::CommandResult;
using test::contains;
using test::linesOf;
using test::operator+;
using test::recordsOf;
using test::runVellum;
using test::startsWith;
using test::TargetRule;
using test::TemporaryFolder;

const Arguments modes = {"music", "podcast", "vod", "broadcast"};

CommandResult check(const Arguments& arguments) {
  return runVellum(Arguments{"check"} + arguments);
}

// The records of `vellum check --json ARGUMENTS`, which has to answer exitCode.
std::vector<ordered_json> checkAll(const Arguments& arguments, int exitCode) {
  const CommandResult result = check(Arguments{"--json"} + arguments);
  EXPECT_EQ(result.exitCode, exitCode) << result.err;
  return recordsOf(result.out);
}

ordered_json checkOne(const Arguments& arguments, int exitCode) {
  const auto records = checkAll(arguments, exitCode);
  EXPECT_EQ(records.size(), 1u);
  return records.empty() ? ordered_json() : records.front();
}

Arguments keysOf(const ordered_json& record) {
  Arguments keys;
  for (const auto& [key, value] : record.items()) keys.push_back(key);
  return keys;
}

Arguments targetsOf(const ordered_json& record) {
  Arguments ids;
  for (const ordered_json& evaluation : record.at("evaluations")) ids.push_back(evaluation.at("target"));
  return ids;
}

Arguments idsOfMode(const std::string& mode, bool onlyDefaults) {
  Arguments ids;
  for (const TargetRule& rule : test::targetRules())
    if (rule.mode() == mode && (rule.isDefault || !onlyDefaults)) ids.push_back(rule.id);
  return ids;
}

std::string allIDs() {
  std::string list;
  for (const TargetRule& rule : test::targetRules()) list += (list.empty() ? "" : ",") + rule.id;
  return list;
}

// Its loudness in LUFS is its peak in dBFS (ITU-R BS.1770-5, EBU Tech 3341 test 1), and so is its true peak.
Audio tone(double peakDBFS, double seconds = 4) {
  return test::sineAudio(2, 48000, seconds, 997, peakDBFS);
}

Audio quietNoise() {
  std::mt19937 rng(7);
  return test::noiseAudio(rng, 2, 4 * 48'000, 0.01);
}

// Quiet, but for one sample of full scale.
Audio quietWithClick() {
  Audio audio = quietNoise();
  audio.channels[1][100'000] = 0.999f;
  return audio;
}

void write(const fs::path& path, const Audio& audio, int sampleRate = 48000) {
  test::writeAudio(path, audio, sampleRate, test::floatWAV);
}

// A custom target's document form.
ordered_json customTarget(const std::string& id, const std::string& name, const std::string& mode) {
  return {
      {"id", id},
      {"name", name},
      {"mode", mode},
      {"source", "integrated"},
      {"treatment",
       {{"penalty", {{"referenceLUFS", -14}, {"truePeakCeilingDBTP", -1}, {"boostBehaviour", "symmetric"}}}}},
      {"extraCriteria", ordered_json::array()}};
}

ordered_json selectionDocument(const std::string& mode, const Arguments& ids,
                               const std::vector<ordered_json>& customTargets = {}) {
  return {{"mode", mode},
          {"selectedTargetIDsByMode", ordered_json::array({mode, ids})},
          {"customTargets", customTargets}};
}

fs::path writeSelection(const TemporaryFolder& folder, const ordered_json& document) {
  test::writeBytes(folder / "my.json", document.dump());
  return folder / "my.json";
}

// --- A second evaluator, from what `vellum measure --json` says of a file

template <typename... Values>
std::string printed(const char* format, Values... values) {
  char text[300];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

class Oracle {
 public:
  Oracle(const TargetRule& rule, const ordered_json& measured) : rule_(rule), measured_(measured) {}

  // The evaluation as a record; its numbers are 32-bit ones.
  ordered_json record() const {
    const auto actual = figure(rule_.figure);
    ordered_json record = {{"target", rule_.id}, {"name", rule_.name}};
    if (!actual) {
      record["verdict"] = "unavailable";
      record["tooltip"] = rule_.figure == "speechGatedLUFS"
                              ? "Dialog-gated targets need detected speech.\n"
                                "This file has no detected speech, so the verdict is unavailable."
                              : "Loudness reading not available yet.";
      return record;
    }
    rule_.tolerance ? judge(record, *actual) : normalise(record, *actual);
    return record;
  }

 private:
  std::optional<float> figure(const std::string& key) const {
    return measured_.contains(key) ? std::optional(measured_.at(key).get<float>()) : std::nullopt;
  }
  float truePeak() const { return *figure("truePeakDBTP"); }
  bool isClean() const { return truePeak() <= rule_.ceiling; }

  void setTruePeak(ordered_json& record) const {
    record["truePeakDBTP"] = truePeak();
    record["ceilingDBTP"] = rule_.ceiling;
    record["truePeakClean"] = isClean();
  }

  void normalise(ordered_json& record, float actual) const {
    const float gain = rule_.reference - actual;
    const bool applies = gain <= 0 || rule_.isSymmetric;
    const char* const name = rule_.name.c_str();
    const char* const unit = rule_.unit.c_str();
    record["verdict"] = "penalty";
    record["gainDB"] = gain;
    record["applies"] = applies;
    setTruePeak(record);
    record["actualLUFS"] = actual;
    record["tooltip"] =
        applies ? printed("%s will turn %s this by %.1f dB to hit the %.0f %s reference.\n", name,
                          gain < 0 ? "down" : "up", std::abs(gain), rule_.reference, unit) +
                      printed("True Peak %.1f dBTP %s the %.0f dBTP ceiling.", truePeak(),
                              isClean() ? "within" : "exceeds", rule_.ceiling)
                : printed("%s does not boost quieter masters.\n", name) +
                      printed("File plays as recorded (%.1f %s), %.1f dB under the %.0f %s reference.",
                              actual, unit, gain, rule_.reference, unit);
  }

  void judge(ordered_json& record, float actual) const {
    const auto noiseFloor = figure("noiseFloorDBRMS"), shortTerm = figure("maxShortTermLUFS");
    const float off = actual - rule_.reference;
    const bool failsLoudness = std::abs(off) > *rule_.tolerance;
    const bool failsPeak = !failsLoudness && !isClean();
    const bool passesBoth = !failsLoudness && !failsPeak;
    const bool failsNoise =
        passesBoth && rule_.maxNoiseFloor && noiseFloor && *noiseFloor > *rule_.maxNoiseFloor;
    const bool failsShortTerm =
        passesBoth && rule_.maxShortTerm && shortTerm && *shortTerm > *rule_.maxShortTerm;

    std::string first = "Compliant.";
    ordered_json reason;
    if (failsLoudness) {
      first = printed("Not compliant: %s %+.1f %s off target.", rule_.label.c_str(), off,
                      rule_.deltaUnit.c_str());
      reason["loudness"] = {
          {"actual", actual}, {"reference", rule_.reference}, {"tolerance", *rule_.tolerance}};
    } else if (failsPeak) {
      first = printed("Not compliant: True Peak exceeds the ceiling by %.1f dB.", truePeak() - rule_.ceiling);
      reason["truePeak"] = {{"actual", truePeak()}, {"ceiling", rule_.ceiling}};
    } else if (failsNoise) {
      first = printed("Not compliant: noise floor %.1f dB above the ceiling.",
                      *noiseFloor - *rule_.maxNoiseFloor);
      reason["extra"]["noiseFloor"] = {{"actual", *noiseFloor}, {"ceiling", *rule_.maxNoiseFloor}};
    } else if (failsShortTerm) {
      first = printed("Not compliant: Max Short-term %.1f LU above the ceiling.",
                      *shortTerm - *rule_.maxShortTerm);
      reason["extra"]["maxShortTerm"] = {{"actual", *shortTerm}, {"ceiling", *rule_.maxShortTerm}};
    }

    const auto mark = [](bool fails) { return fails ? "✗" : "✓"; };
    const bool isWhole = *rule_.tolerance == std::floor(*rule_.tolerance);
    std::string lines = first + printed("\n%s %.1f %s %s (target %.0f ±%.*f).", rule_.label.c_str(), actual,
                                        rule_.unit.c_str(), mark(failsLoudness), rule_.reference,
                                        isWhole ? 0 : 1, *rule_.tolerance);
    lines +=
        printed("\nTrue Peak %.1f dBTP %s (ceiling %.0f dBTP).", truePeak(), mark(failsPeak), rule_.ceiling);
    if (rule_.maxNoiseFloor)
      lines += noiseFloor ? printed("\nNoise floor %.1f dB RMS %s (ceiling %.0f dB).", *noiseFloor,
                                    mark(failsNoise), *rule_.maxNoiseFloor)
                          : "\nNoise floor not measured.";
    if (rule_.maxShortTerm)
      lines += shortTerm ? printed("\nMax Short-term %.1f LUFS %s (ceiling %.0f LUFS).", *shortTerm,
                                   mark(failsShortTerm), *rule_.maxShortTerm)
                         : "\nMax Short-term not measured.";

    record["verdict"] = reason.is_null() ? "compliant" : "notCompliant";
    if (reason.is_null())
      setTruePeak(record);
    else
      record["reason"] = reason;
    record["actualLUFS"] = actual;
    if (!reason.is_null()) record["headline"] = first;
    record["tooltip"] = lines;
  }

  TargetRule rule_;
  ordered_json measured_;
};

// A record with its numbers as 32 bits hold them, as text.
std::string as32Bits(ordered_json value) {
  if (value.is_number_float()) value = static_cast<double>(value.get<float>());
  if (value.is_structured())
    for (ordered_json& element : value) element = ordered_json::parse(as32Bits(element));
  return value.dump();
}

// Files that bring about every verdict: real ones, and some of them at the level that an outlet asks for.
Arguments manyFiles(const TemporaryFolder& folder) {
  Arguments files = test::speechFiles(), music = test::freeMusicFiles();
  files.resize(std::min<std::size_t>(files.size(), 3));
  for (std::size_t k = 0; k < music.size(); k += 10) files.push_back(music[k]);

  const auto add = [&](const char* name, const Audio& audio, int sampleRate) {
    write(folder / name, audio, sampleRate);
    files.push_back(folder / name);
  };
  for (const float level : {-14.0f, -18.0f, -23.0f, -24.0f})
    add(("tone" + std::to_string(level) + ".wav").c_str(), tone(level), 48000);
  add("click.wav", quietWithClick(), 48000);
  add("silence.wav", Audio(2, 48'000), 48000);
  add("rms.wav", tone(-20.5 + 3.01), 48000);  // the RMS that audio books ask for, with a loud floor

  const std::string speech = files.front();
  const double dialogue = recordsOf(runVellum({"measure", "--json", speech}).out).at(0).at("speechGatedLUFS");
  Audio scaled = test::readAudio(speech);
  for (float& sample : scaled.channels[0]) sample *= static_cast<float>(test::amplitudeOf(-27 - dialogue));
  add("vod.wav", scaled, 16000);
  scaled.channels[0][20'000] = -1.0f;
  add("vod peak.wav", scaled, 16000);

  Audio bursts = tone(-30, 20);
  const Audio loud = tone(-16, 3);
  for (std::size_t c = 0; c < 2; ++c)
    std::copy(loud.channels[c].begin(), loud.channels[c].end(), bursts.channels[c].begin() + 48'000 * 8);
  add("bursts.wav", bursts, 48000);
  // The same bursts at the loudness of short programmes: only the short-term ceiling is exceeded.
  const double loudness =
      recordsOf(runVellum({"measure", "--json", files.back()}).out).at(0).at("integratedLUFS");
  for (auto& channel : bursts.channels)
    for (float& sample : channel) sample *= static_cast<float>(test::amplitudeOf(-23 - loudness));
  add("short-term.wav", bursts, 48000);
  return files;
}

TEST(CheckCommand, EveryVerdictFollowsFromTheMeasuredFigures) {
  const TemporaryFolder folder;
  const Arguments files = manyFiles(folder);
  const auto measured = recordsOf(runVellum(Arguments{"measure", "--json"} + files).out);
  const auto checked = checkAll(Arguments{"--target", allIDs()} + files, 1);
  ASSERT_EQ(measured.size(), files.size());
  ASSERT_EQ(checked.size(), files.size());
  std::map<std::string, int> verdicts;
  for (std::size_t k = 0; k < files.size(); ++k) {
    EXPECT_EQ(checked[k].at("file"), files[k]);
    const ordered_json& evaluations = checked[k].at("evaluations");
    const auto rules = test::targetRules();
    ASSERT_EQ(evaluations.size(), rules.size());
    for (std::size_t r = 0; r < rules.size(); ++r) {
      EXPECT_EQ(as32Bits(evaluations[r]), as32Bits(Oracle(rules[r], measured[k]).record())) << files[k];
      std::string verdict = evaluations[r].at("verdict");
      if (evaluations[r].contains("reason")) {
        const ordered_json& reason = evaluations[r].at("reason");
        verdict += " " + keysOf(reason).front();
        if (reason.contains("extra")) verdict += " " + keysOf(reason.at("extra")).front();
      }
      ++verdicts[verdict];
    }
  }
  Arguments kinds;
  for (const auto& [verdict, count] : verdicts) kinds.push_back(verdict);
  EXPECT_EQ(kinds, (Arguments{"compliant", "notCompliant extra maxShortTerm", "notCompliant extra noiseFloor",
                              "notCompliant loudness", "notCompliant truePeak", "penalty", "unavailable"}));
}

TEST(CheckCommand, TheMeasurementHoldsWhatMeasureSays) {
  const TemporaryFolder folder;
  for (const std::string& file : manyFiles(folder)) {
    const ordered_json measured = recordsOf(runVellum({"measure", "--json", file}).out).at(0);
    ordered_json expected;
    const std::vector<std::pair<std::string, std::string>> keys = {
        {"integratedLUFS", "integratedLUFS"},     {"speechGatedLUFS", "dialogGatedLUFS"},
        {"truePeakDBTP", "truePeakDBTP"},         {"noiseFloorDBRMS", "noiseFloorDBRMS"},
        {"maxShortTermLUFS", "maxShortTermLUFS"}, {"rmsDBFS", "rmsDBFS"}};
    for (const auto& [theirs, ours] : keys)
      if (measured.contains(theirs)) expected[ours] = measured.at(theirs);
    const ordered_json record = recordsOf(check({"--json", file}).out).at(0);
    EXPECT_EQ(keysOf(record), (Arguments{"file", "measurement", "evaluations"}));
    EXPECT_EQ(as32Bits(record.at("measurement")), as32Bits(expected)) << file;
  }
}

// --- Tones of known loudness

TEST(CheckCommand, ATonePassesWithinTheToleranceOnly) {
  const TemporaryFolder folder;
  const auto verdict = [&](double level, const char* target) {
    write(folder / "x.wav", tone(level));
    const CommandResult result = check({"--json", "--target", target, folder / "x.wav"});
    const std::string name = recordsOf(result.out).at(0).at("evaluations").at(0).at("verdict");
    EXPECT_EQ(result.exitCode, name == "compliant" ? 0 : 1);
    return name;
  };
  // 0.1 LU is what EBU Tech 3341 allows a meter.
  for (const double side : {-1.0, 1.0}) {
    EXPECT_EQ(verdict(-23 + side * 0.4, "broadcast.ebuR128"), "compliant");
    EXPECT_EQ(verdict(-23 + side * 0.6, "broadcast.ebuR128"), "notCompliant");
    EXPECT_EQ(verdict(-23 + side * 0.9, "broadcast.ebuR128Live"), "compliant");
    EXPECT_EQ(verdict(-23 + side * 1.1, "broadcast.ebuR128Live"), "notCompliant");
    EXPECT_EQ(verdict(-23 + side * 0.1, "broadcast.ebuR128S1"), "compliant");
    EXPECT_EQ(verdict(-23 + side * 0.3, "broadcast.ebuR128S1"), "notCompliant");
  }
}

TEST(CheckCommand, TheTextShowsNameFirstLineAndFurtherLines) {
  const TemporaryFolder folder;
  write(folder / "loud.wav", tone(-9.5));
  write(folder / "quiet.wav", tone(-20));
  const CommandResult result =
      check({"--target", "music.spotify,music.appleMusic", folder / "loud.wav", folder / "quiet.wav"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "vellum: 2 files checked\n");
  EXPECT_EQ(linesOf(result.out),
            (Arguments{folder / "loud.wav",
                       "  Channels               L 1, R 1",
                       "  Integrated loudness    -9.5 LUFS",
                       "  True peak              -9.5 dBTP",
                       "  True-peak margin       8.5 dB to the lowest ceiling, -1 dBTP",
                       "  Dynamic range          DR 1",
                       "",
                       "  Spotify",
                       "    Spotify will turn down this by 4.5 dB to hit the -14 LUFS reference.",
                       "      True Peak -9.5 dBTP within the -1 dBTP ceiling.",
                       "  Apple Music",
                       "    Apple Music will turn down this by 6.5 dB to hit the -16 LUFS reference.",
                       "      True Peak -9.5 dBTP within the -1 dBTP ceiling.",
                       "",
                       folder / "quiet.wav",
                       "  Channels               L 1, R 1",
                       "  Integrated loudness    -20.0 LUFS",
                       "  True peak              -20.0 dBTP",
                       "  True-peak margin       19.0 dB to the lowest ceiling, -1 dBTP",
                       "  Dynamic range          DR 1",
                       "",
                       "  Spotify",
                       "    Spotify will turn up this by 6.0 dB to hit the -14 LUFS reference.",
                       "      True Peak -20.0 dBTP within the -1 dBTP ceiling.",
                       "  Apple Music",
                       "    Apple Music does not boost quieter masters.",
                       "      File plays as recorded (-20.0 LUFS), 4.0 dB under the -16 LUFS reference."}));
}

TEST(CheckCommand, ARefusalShowsItsHeadlineAndMarks) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-24.0));
  const CommandResult result = check({"--target", "broadcast.ebuR128S1", folder / "x.wav"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(contains(result.out,
                       "\n  EBU R128 S1 (EU, short-form)\n"
                       "    Not compliant: Loudness -1.0 LU off target.\n"
                       "      Loudness -24.0 LUFS ✗ (target -23 ±0.2).\n"
                       "      True Peak -24.0 dBTP ✓ (ceiling -1 dBTP).\n"
                       "      Max Short-term -24.0 LUFS ✓ (ceiling -18 LUFS).\n"));
}

// --- Which targets

TEST(CheckCommand, WithoutOptionsTheDefaultSelectionIsChecked) {
  const std::string file = test::freeMusicFiles().at(0);
  EXPECT_EQ(targetsOf(checkOne({file}, 0)), idsOfMode("music", true));
}

TEST(CheckCommand, AModeChecksItsDefaultsAndAllOfItWithAll) {
  const std::string file = test::speechFiles().at(0);
  for (const std::string& mode : modes) {
    const CommandResult result = check({"--json", "--mode", mode, file});
    EXPECT_EQ(targetsOf(recordsOf(result.out).at(0)), idsOfMode(mode, true));
    const CommandResult all = check({"--json", "--mode", mode, "--all", file});
    EXPECT_EQ(targetsOf(recordsOf(all.out).at(0)), idsOfMode(mode, false));
  }
}

TEST(CheckCommand, TargetsKeepTheirOrderAndCountOnce) {
  const std::string file = test::freeMusicFiles().at(0);
  const ordered_json record = recordsOf(check({"--json", "--target", "music.tidal,vod.max", file, "--target",
                                               "vod.max", "--target=podcast.acx,music.tidal"})
                                            .out)
                                  .at(0);
  EXPECT_EQ(record.at("file"), file);
  EXPECT_EQ(targetsOf(record), (Arguments{"music.tidal", "vod.max", "podcast.acx"}));
}

TEST(CheckCommand, ReadoutsFollowTheTargetsModes) {
  const std::string file = test::speechFiles().at(0);
  const auto shown = [&](const Arguments& arguments) {
    Arguments labels;
    for (const std::string& line : linesOf(check(arguments + Arguments{file}).out)) {
      if (line.empty()) break;
      if (startsWith(line, "  ")) labels.push_back(line.substr(2, line.find("  ", 2) - 2));
    }
    return labels;
  };
  const std::string channels = "Channels", loudness = "Integrated loudness", speech = "Dialogue loudness",
                    peak = "True peak", margin = "True-peak margin", floor = "Noise floor",
                    range = "Dynamic range";
  EXPECT_EQ(shown({"--mode", "music"}), (Arguments{channels, loudness, peak, margin, range}));
  EXPECT_EQ(shown({"--mode", "podcast"}), (Arguments{channels, loudness, speech, peak, floor}));
  EXPECT_EQ(shown({"--mode", "vod"}), (Arguments{channels, loudness, speech, peak}));
  EXPECT_EQ(shown({"--mode", "broadcast"}), (Arguments{channels, loudness, speech, peak, margin, range}));
  EXPECT_EQ(shown({"--target", "podcast.acx,music.tidal"}),
            (Arguments{channels, loudness, speech, peak, margin, floor, range}));
}

TEST(CheckCommand, TheMarginIsToTheLowestCeiling) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-0.5));
  const std::string out = check({"--target", "music.spotify,music.amazonMusic", folder / "x.wav"}).out;
  EXPECT_TRUE(contains(out, "  True-peak margin       -1.5 dB to the lowest ceiling, -2 dBTP\n"));
}

// --- Selections

TEST(CheckCommand, ASelectionThatTargetsPrintsChecksWhatTheModeDoes) {
  const TemporaryFolder folder;
  const Arguments files = {test::speechFiles().at(0), test::freeMusicFiles().at(0)};
  for (const std::string& mode : modes) {
    test::writeBytes(folder / "my.json", runVellum({"targets", "--json", "--mode", mode}).out);
    for (const char* form : {"--json", "--strict"}) {
      const CommandResult selected = check(Arguments{form, "--selection", folder / "my.json"} + files);
      const CommandResult byMode = check(Arguments{form, "--mode", mode} + files);
      EXPECT_EQ(selected.out, byMode.out);
      EXPECT_EQ(selected.err, byMode.err);
      EXPECT_EQ(selected.exitCode, byMode.exitCode);
    }
  }
}

TEST(CheckCommand, ASelectionsCustomTargetsAreChecked) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  const fs::path selection =
      writeSelection(folder, selectionDocument("vod", {"custom.mine", "vod.max"},
                                               {customTarget("custom.mine", "My Outlet", "vod"),
                                                customTarget("custom.other", "Another", "vod")}));
  const auto targets = [&](const Arguments& arguments) {
    return targetsOf(
        recordsOf(check(Arguments{"--json", "--selection", selection, folder / "x.wav"} + arguments).out)
            .at(0));
  };
  EXPECT_EQ(targets({}), (Arguments{"custom.mine", "vod.max"}));
  EXPECT_EQ(targets({"--target", "music.tidal,custom.other"}), (Arguments{"music.tidal", "custom.other"}));
  EXPECT_EQ(targets({"--mode", "podcast"}), idsOfMode("podcast", true));  // the document names none
  EXPECT_EQ(targets({"--mode", "vod", "--all"}),
            idsOfMode("vod", false) + Arguments({"custom.mine", "custom.other"}));
  EXPECT_TRUE(contains(check({"--selection", selection, folder / "x.wav"}).out,
                       "\n  My Outlet\n"
                       "    My Outlet will turn up this by 6.0 dB to hit the -14 LUFS reference.\n"));
}

TEST(CheckCommand, IDsThatASelectionChoosesInVainAreTold) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  const fs::path selection = writeSelection(
      folder, selectionDocument("music", {"music.tidal", "music.tida", "vod.max", "music.deezer",
                                          "music.tidal", "music.youtube", "music.spotify"}));
  const CommandResult result = check({"--json", "--selection", selection, folder / "x.wav"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(targetsOf(recordsOf(result.out).at(0)),
            (Arguments{"music.tidal", "music.deezer", "music.tidal", "music.youtube"}));
  EXPECT_EQ(result.err, "vellum: " + selection.string() +
                            ": left out of mode music: \"music.tida\" (no such target), \"vod.max\" "
                            "(of another mode), \"music.spotify\" (one too many)\n");
}

TEST(CheckCommand, ALongListOfIDsInVainIsCutShort) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  Arguments ids = {"music.tidal"};
  for (int k = 0; k < 1000; ++k) ids.push_back("nope" + std::to_string(k));
  const CommandResult result =
      check({"--selection", writeSelection(folder, selectionDocument("music", ids)), folder / "x.wav"});
  EXPECT_TRUE(contains(result.err, "\"nope7\" (no such target) and 992 more\n"));
  EXPECT_FALSE(contains(result.err, "nope8"));
}

TEST(CheckCommand, CustomTargetsThatNoIDFindsAreTold) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  const fs::path selection =
      writeSelection(folder, selectionDocument("music", {"music.spotify", "custom.a"},
                                               {customTarget("music.spotify", "Mine", "music"),
                                                customTarget("custom.a", "First", "music"),
                                                customTarget("custom.a", "Second", "music")}));
  const CommandResult result = check({"--selection", selection, folder / "x.wav"});
  EXPECT_EQ(result.err, "vellum: " + selection.string() +
                            ": custom targets that are never used, because another has their id: "
                            "\"music.spotify\", \"custom.a\"\n");
  EXPECT_TRUE(contains(result.out, "\n  First\n"));
  for (const char* name : {"Mine", "Second"}) EXPECT_FALSE(contains(result.out, name));
}

TEST(CheckCommand, ACustomNameCannotSendControlCharactersToATerminal) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  const std::string name = "a\x1b[31mb\nVerdict: fine\x7f";
  const fs::path selection =
      writeSelection(folder, selectionDocument("music", {"custom.\x1b[2J", "no\x1b[2J"},
                                               {customTarget("custom.\x1b[2J", name, "music")}));
  const CommandResult result = check({"--selection", selection, folder / "x.wav"});
  EXPECT_EQ((result.out + result.err).find('\x1b'), std::string::npos);
  EXPECT_TRUE(contains(result.out,
                       "\n  a?[31mb?Verdict: fine?\n"
                       "    a?[31mb?Verdict: fine? will turn up this by 6.0 dB"));
  const ordered_json record =
      recordsOf(check({"--json", "--selection", selection, folder / "x.wav"}).out).at(0);
  EXPECT_EQ(record.at("evaluations").at(0).at("name"), name);
}

TEST(CheckCommand, ANameMayBeVeryLong) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  std::string name;
  for (int k = 0; k < 100'000; ++k) name += "ä";
  const fs::path selection = writeSelection(
      folder, selectionDocument("music", {"custom.long"}, {customTarget("custom.long", name, "music")}));
  const CommandResult result = check({"--selection", selection, folder / "x.wav"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_NE(result.out.find("\n    " + name + " will turn up this by 6.0 dB"), std::string::npos);
}

TEST(CheckCommand, LevelsBeyondReasonAreJudgedAndWritten) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  ordered_json target = customTarget("custom.far", "Far", "music");
  target["treatment"]["penalty"]["referenceLUFS"] = -3.4e38;
  target["treatment"]["penalty"]["truePeakCeilingDBTP"] = 3.4e38;
  const fs::path selection = writeSelection(folder, selectionDocument("music", {"custom.far"}, {target}));
  const ordered_json record = checkOne({"--selection", selection, folder / "x.wav"}, 0);
  EXPECT_EQ(record.at("evaluations").at(0).at("gainDB").get<float>(), -3.4e38f);
  EXPECT_EQ(check({"--selection", selection, folder / "x.wav"}).exitCode, 0);
}

// Nothing is measured: the file that is named does not even exist, which would be told with exit code 3.
TEST(CheckCommand, AFaultyDocumentIsToldWithItsPlaceAndNothingIsMeasured) {
  const TemporaryFolder folder;
  ordered_json target = customTarget("custom.x", "X", "music");
  const auto withTarget = [&](const ordered_json& custom) {
    return selectionDocument("music", {"custom.x"}, {custom}).dump();
  };
  const auto changed = [&](const char* pointer, const ordered_json& value) {
    ordered_json copy = target;
    copy[ordered_json::json_pointer(pointer)] = value;
    return withTarget(copy);
  };
  ordered_json nameless = target;
  nameless.erase("name");
  const ordered_json penalty = target["treatment"]["penalty"];
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"selectedTargetIDsByMode":[]})", "mode: the member \"mode\" is missing"},
      {R"({"mode":"music"})", "selectedTargetIDsByMode: the member \"selectedTargetIDsByMode\" is missing"},
      {R"({"mode":"tv","selectedTargetIDsByMode":[]})",
       "mode: \"tv\" is none of music, podcast, vod, broadcast"},
      {R"({"mode":7,"selectedTargetIDsByMode":[]})", "mode: expected text, found a number"},
      {R"({"mode":"music","selectedTargetIDsByMode":["music"]})", "selectedTargetIDsByMode: "},
      {R"({"mode":"music","selectedTargetIDsByMode":["music",["a",3]]})",
       "selectedTargetIDsByMode[1][1]: expected text, found a number"},
      {withTarget(nameless), "customTargets[0].name: the member \"name\" is missing"},
      {changed("/source", "loudest"),
       "customTargets[0].source: \"loudest\" is none of integrated, dialogGated, rms"},
      {changed("/treatment", {{"penalty", penalty}, {"compliance", penalty}}),
       "customTargets[0].treatment: Invalid number of keys found, expected one."},
      {changed("/treatment", ordered_json::object()),
       "customTargets[0].treatment: Invalid number of keys found, expected one."},
      {changed("/treatment", {{"fine", penalty}}), "customTargets[0].treatment: there is no case \"fine\""},
      {changed("/treatment/penalty/referenceLUFS", "-14"),
       "customTargets[0].treatment.penalty.referenceLUFS: expected a number, found text"},
      {changed("/treatment/penalty/referenceLUFS", 1e39),
       "customTargets[0].treatment.penalty.referenceLUFS: "},
      {changed("/treatment/penalty/boostBehaviour", nullptr),
       "customTargets[0].treatment.penalty.boostBehaviour: expected text, found null"},
      {changed("/extraCriteria", ordered_json::parse(R"([{"noiseFloor":{"maxDBRMS":true}}])")),
       "customTargets[0].extraCriteria[0].noiseFloor.maxDBRMS: expected a number, found true or false"},
      {changed("/extraCriteria", ordered_json::parse(R"([{"hum":{"maxDBRMS":-60}}])")),
       "customTargets[0].extraCriteria[0]: there is no case \"hum\""},
      {"[]", "expected an object, found an array"},
      {"{\n  \"mode\": \"music\",\n  oops\n}", "line 3, column 3: "},
      {R"({"mode":"music")", "line 1, column "},
      {"", "line 1, column 1: "},
      {"{\"mode\":\"mu\xff\x1bsic\"}", "line 1, column "},
      {std::string(65, '[') + std::string(65, ']'), "nested deeper than 64 levels"},
  };
  for (const auto& [document, message] : cases) {
    test::writeBytes(folder / "my.json", document);
    const CommandResult result =
        check({"--json", "--out", folder / "out", "--selection", folder / "my.json", folder / "no.wav"});
    EXPECT_EQ(result.exitCode, 2) << message;
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(startsWith(result.err, "vellum: " + (folder / "my.json").string() + ": " + message));
    EXPECT_EQ(linesOf(result.err).size(), 1u) << result.err;
    EXPECT_EQ(result.err.find('\x1b'), std::string::npos);
    EXPECT_EQ(folder.names(), Arguments{"my.json"});
  }
}

TEST(CheckCommand, ASelectionFileThatCannotBeReadIsAFailedFile) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  const std::vector<std::pair<fs::path, std::string>> cases = {
      {folder / "missing.json", "there is no such file"},
      {folder.path(), "it is a directory"},
      {folder / "pipe", "it is not a regular file"}};
  for (const auto& [path, message] : cases) {
    const CommandResult result = check({"--selection", path, folder / "x.wav"});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "vellum: " + path.string() + ": " + message + "\n");
  }
}

TEST(CheckCommand, AnEmptyChoiceIsRefusedWithTheReason) {
  const TemporaryFolder folder;
  const auto refusal = [&](const ordered_json& document, const Arguments& further = {}) {
    const fs::path selection = writeSelection(folder, document);
    const CommandResult result = check(Arguments{"--selection", selection, "x.wav"} + further);
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.out, "");
    const std::string start = "vellum: --selection: " + selection.string() + ": no target of mode ";
    EXPECT_TRUE(startsWith(result.err, start));
    return linesOf(result.err).front().substr(start.size());
  };
  EXPECT_EQ(refusal(selectionDocument("podcast", {})), "podcast is chosen: its list is empty");
  EXPECT_EQ(refusal(selectionDocument("podcast", {"vod.netflix", "nope"})),
            "podcast is chosen: \"vod.netflix\" (of another mode), \"nope\" (no such target)");
  EXPECT_EQ(refusal({{"mode", "music"}, {"selectedTargetIDsByMode", {"vod", ordered_json::array()}}},
                    {"--mode", "vod"}),
            "vod is chosen: its list is empty");
}

// --- Exit codes

TEST(CheckCommand, TheWorstFileDecidesTheExitCode) {
  const TemporaryFolder folder;
  write(folder / "met.wav", tone(-23));
  write(folder / "missed.wav", tone(-20));
  const std::string met = folder / "met.wav", missed = folder / "missed.wav", absent = folder / "no.wav";
  const auto result = [&](const Arguments& files) {
    return check(Arguments{"--target", "broadcast.ebuR128"} + files);
  };
  EXPECT_EQ(result({met}).exitCode, 0);
  EXPECT_EQ(result({missed}).exitCode, 1);
  EXPECT_EQ(result({met, missed, met}).exitCode, 1);
  EXPECT_EQ(result({met, absent}).exitCode, 3);
  EXPECT_EQ(result({absent, missed}).exitCode, 3);  // what is not known weighs more than what is
  EXPECT_EQ(result({missed, absent, met}).exitCode, 3);

  EXPECT_EQ(result({met}).err, "");
  EXPECT_EQ(result({missed}).err, "");
  EXPECT_EQ(result({met, met}).err, "vellum: 2 files checked\n");
  EXPECT_EQ(result({met, missed}).err, "vellum: 1 of 2 files did not meet every target\n");
  EXPECT_EQ(result({missed, absent, met}).err,
            "vellum: 1 of 3 files could not be measured\nvellum: 1 of 3 files did not meet every target\n");
  EXPECT_EQ(result({absent}).err, "vellum: 1 of 1 file could not be measured\n");
}

TEST(CheckCommand, OneMissedTargetAmongMetOnesIsEnough) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-23));
  for (const char* targets : {"broadcast.ebuR128,broadcast.aribB32", "broadcast.aribB32,broadcast.ebuR128"}) {
    EXPECT_EQ(check({"--target", targets, folder / "x.wav"}).exitCode, 0);
    write(folder / "y.wav", tone(-22.7));
    EXPECT_EQ(check({"--target", targets, folder / "y.wav"}).exitCode, 1);
  }
}

TEST(CheckCommand, MusicWithoutSpeechIsUnavailableToDialogueTargets) {
  for (const std::string& file : test::freeMusicFiles()) {
    if (recordsOf(runVellum({"measure", "--json", file}).out).at(0).contains("speechGatedLUFS")) continue;
    const CommandResult result = check({"--target", "vod.netflix", file});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.out,
                         "\n  Netflix\n"
                         "    Dialog-gated targets need detected speech.\n"
                         "      This file has no detected speech, so the verdict is unavailable.\n"));
    EXPECT_TRUE(contains(result.out, "  Dialogue loudness      not measured  (0.0 % speech)\n"));
    return;
  }
  FAIL() << "there is no music without speech";
}

TEST(CheckCommand, StrictMissesANormalisingOutletWhoseCeilingIsExceeded) {
  const TemporaryFolder folder;
  write(folder / "loud.wav", tone(-0.5));
  write(folder / "clean.wav", tone(-1.5));
  const Arguments target = {"--target", "music.spotify"};
  EXPECT_EQ(check(target + Arguments{folder / "loud.wav"}).exitCode, 0);
  EXPECT_EQ(check(target + Arguments{"--strict", folder / "loud.wav"}).exitCode, 1);
  EXPECT_EQ(check(target + Arguments{"--strict", folder / "clean.wav"}).exitCode, 0);
}

// The verdict on a file that plays as it is does not speak of the true peak.
TEST(CheckCommand, StrictTellsTheTruePeakOfAFileThatPlaysAsItIs) {
  const TemporaryFolder folder;
  write(folder / "x.wav", quietWithClick());
  const CommandResult lenient = check({"--target", "music.tidal", folder / "x.wav"});
  EXPECT_EQ(lenient.exitCode, 0);
  EXPECT_FALSE(contains(lenient.out, "exceeds"));
  const CommandResult strict = check({"--target", "music.tidal", "--strict", folder / "x.wav"});
  EXPECT_EQ(strict.exitCode, 1);
  const std::string& out = strict.out;
  EXPECT_TRUE(startsWith(out, lenient.out));
  EXPECT_TRUE(startsWith(out.substr(lenient.out.size()), "      True Peak "));
  EXPECT_TRUE(contains(out, " dBTP exceeds the -1 dBTP ceiling.\n"));

  write(folder / "clean.wav", quietNoise());
  EXPECT_EQ(check({"--target", "music.tidal", "--strict", folder / "clean.wav"}).out,
            check({"--target", "music.tidal", folder / "clean.wav"}).out);
}

TEST(CheckCommand, WrongArgumentsAreRefused) {
  const std::vector<std::pair<Arguments, std::string>> cases = {
      {{}, "FILE is required"},
      {{"--all", "x"}, "--all: needs --mode"},
      {{"--all", "--target", "music.tidal", "x"}, "--all: needs --mode"},
      {{"--mode", "tv", "x"}, "--mode: 'tv' is none of music, podcast, vod, broadcast"},
      {{"--mode", "", "x"}, "--mode"},
      {{"--mode", "vod", "--target", "music.tidal", "x"}, "--mode: does not go together with --target"},
      {{"--target", "music.tida", "x"}, "--target: there is no target 'music.tida'; vellum targets lists"},
      {{"--target", "MUSIC.tidal", "x"}, "--target: there is no target 'MUSIC.tidal'"},
      {{"--target", "music.tidal,", "x"}, "--target: there is no target ''"},
      {{"--target", "", "x"}, "--target: there is no target ''"},
      {{"--target", "custom.x", "x"}, "--target: there is no target 'custom.x'"},
      {{"x", "--target"}, "--target"},
      {{"--selection", "", "x"}, "--selection"},
      {{"--force", "x"}, "--force: needs --out"},
      {{"--jobs", "0", "x"}, "--jobs: '0' is not a whole number from 1 to 256"},
      {{"--csv", "x"}, "--csv"},
  };
  for (const auto& [arguments, message] : cases) {
    const CommandResult result = check(arguments);
    EXPECT_EQ(result.exitCode, 2) << message;
    EXPECT_EQ(result.out, "") << message;
    EXPECT_TRUE(contains(linesOf(result.err).front(), message));
    EXPECT_EQ(linesOf(result.err).back(), "vellum: see vellum check --help");
  }
}

// What verbs with a single target make of the same options.
TEST(TargetOptions, AVerbForOneTargetTakesExactlyOneThatExists) {
  const TemporaryFolder folder;
  const std::vector<std::pair<Arguments, std::string>> cases = {
      {{"--target", "music.tidal", "--target", "vod.max"}, "--target: takes one target here"},
      {{"--target", "music.tidal,vod.max"}, "--target: there is no target 'music.tidal,vod.max'"},
      {{"--target", "custom.x"}, "--target: there is no target 'custom.x'"},
      {{}, "--target is required"},
  };
  for (const auto& [arguments, message] : cases) {
    const CommandResult result = runVellum(Arguments{"deliver", "x.wav", folder / "y.wav"} + arguments);
    EXPECT_EQ(result.exitCode, 2) << message;
    EXPECT_TRUE(contains(linesOf(result.err).front(), message));
  }
}

// --- Files

TEST(CheckCommand, AFileThatFailsHasFileAndErrorAndStopsNothing) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  test::writeBytes(folder / "text.wav", "This is no audio.\n");
  const Arguments files = {folder / "no.wav", folder / "x.wav", folder.path(), folder / "text.wav"};
  const auto records = checkAll(files, 3);
  ASSERT_EQ(records.size(), 4u);
  const Arguments errors = {"there is no such file", "",
                            "it is a directory (--recursive measures the audio files in it)",
                            "it is not audio that this program reads"};
  for (std::size_t k = 0; k < files.size(); ++k) {
    EXPECT_EQ(records[k].at("file"), files[k]);
    EXPECT_EQ(records[k].contains("error"), !errors[k].empty());
    if (errors[k].empty()) continue;
    EXPECT_EQ(keysOf(records[k]), (Arguments{"file", "error"}));
    EXPECT_TRUE(startsWith(records[k].at("error").get<std::string>(), errors[k]));
  }
  EXPECT_TRUE(startsWith(check(files).out, (folder / "no.wav").string() +
                                               "\n  Error                  there is no such file\n\n"));
}

TEST(CheckCommand, AFileWithoutFramesIsUnavailable) {
  const TemporaryFolder folder;
  write(folder / "x.wav", Audio(2, 0));
  const ordered_json record = checkOne({folder / "x.wav"}, 1);
  EXPECT_EQ(record.at("measurement"), ordered_json::object());
  for (const ordered_json& evaluation : record.at("evaluations")) {
    EXPECT_EQ(keysOf(evaluation), (Arguments{"target", "name", "verdict", "tooltip"}));
    EXPECT_EQ(evaluation.at("verdict"), "unavailable");
    EXPECT_EQ(evaluation.at("tooltip"), "Loudness reading not available yet.");
  }
  const std::string out = check({folder / "x.wav"}).out;
  for (const char* label : {"Integrated loudness    ", "True peak              ", "True-peak margin       "})
    EXPECT_TRUE(contains(out, std::string("  ") + label + "not measured\n"));
}

TEST(CheckCommand, WhatIsOddAboutAFileIsSaidWithTheVerdict) {
  const TemporaryFolder folder;
  Audio audio = tone(-23);
  audio.channels[0][150'000] = std::numeric_limits<float>::quiet_NaN();
  write(folder / "x.wav", audio);
  const std::string bytes = test::readBytes(folder / "x.wav");
  test::writeBytes(folder / "cut.wav", std::string_view(bytes).substr(0, bytes.size() - 100'000));
  const Arguments arguments = {"--target", "broadcast.ebuR128", folder / "cut.wav"};
  const ordered_json record = checkOne(arguments, 0);
  EXPECT_EQ(keysOf(record), (Arguments{"file", "measurement", "evaluations", "nonFiniteSamples", "warning"}));
  EXPECT_EQ(record.at("nonFiniteSamples"), 1);
  const std::string out = check(arguments).out;
  EXPECT_TRUE(contains(out, "  Non-finite samples     1\n"));
  EXPECT_TRUE(contains(out, "  Warning                " + record.at("warning").get<std::string>() + "\n"));
}

TEST(CheckCommand, DualMonoIsJudgedAsTwoLoudspeakers) {
  const TemporaryFolder folder;
  write(folder / "mono.wav", test::sineAudio(1, 48000, 4, 997, -23));
  const Arguments arguments = {"--target", "broadcast.ebuR128", folder / "mono.wav"};
  EXPECT_EQ(check(arguments).exitCode, 1);
  EXPECT_EQ(check(Arguments{"--dual-mono"} + arguments).exitCode, 0);
}

// A tone in two of three channels: whether it counts depends on which channels these are.
TEST(CheckCommand, TheLayoutDecidesWhatCounts) {
  const TemporaryFolder folder;
  Audio audio(3, 4 * 48'000);
  audio.channels[0] = audio.channels[1] = tone(-23).channels[0];
  audio.channels[2] = tone(0).channels[0];
  write(folder / "x.wav", audio);
  const Arguments arguments = {"--target", "broadcast.aribB32", folder / "x.wav"};
  EXPECT_EQ(check(Arguments{"--layout", "L,R,C"} + arguments).exitCode, 1);
  const CommandResult withLFE = check(Arguments{"--layout", "L,R,LFE"} + arguments);
  EXPECT_TRUE(contains(withLFE.out, "  Channels               L 1, R 1, LFE 0"));
  EXPECT_TRUE(contains(withLFE.out, "  Integrated loudness    -23.0 LUFS\n"));
  EXPECT_EQ(check(Arguments{"--layout", "L,R"} + arguments).exitCode, 3);
  EXPECT_EQ(check(Arguments{"--layout", "L,R,no"} + arguments).exitCode, 2);
}

TEST(CheckCommand, FilesSideBySideGiveTheSameOutput) {
  const TemporaryFolder folder;
  Arguments files = test::speechFiles() + Arguments{folder / "no.wav"};
  for (const char* form : {"--json", "--strict"}) {
    const Arguments arguments = Arguments{form, "--mode", "podcast", "--all"} + files;
    const CommandResult one = check(arguments);
    EXPECT_EQ(one.exitCode, 3);
    for (const char* jobs : {"2", "7"}) {
      const CommandResult several = check(arguments + Arguments{"--jobs", jobs});
      EXPECT_EQ(several.out, one.out);
      EXPECT_EQ(several.err, one.err);
      EXPECT_EQ(several.exitCode, 3);
    }
  }
}

TEST(CheckCommand, RecursiveChecksTheAudioFilesBelow) {
  const TemporaryFolder folder;
  fs::create_directory(folder / "b");
  for (const char* name : {"a.wav", "b/c.wav"}) write(folder / name, tone(-20, 1));
  const auto records = checkAll({"--recursive", folder.path()}, 0);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].at("file"), (folder / "a.wav").string());
  EXPECT_EQ(records[1].at("file"), (folder / "b" / "c.wav").string());
}

// What a command reads from files, pages of its own code included.
std::int64_t bytesReadBy(const Arguments& arguments) {
  std::vector<char*> argv = {const_cast<char*>(VELLUM_COMMAND)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    if (!std::freopen("/dev/null", "w", stdout)) ::_exit(126);
    ::alarm(60);
    ::execv(VELLUM_COMMAND, argv.data());
    ::_exit(127);
  }
  siginfo_t info{};
  ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);  // it stays, so that it can be asked
  std::ifstream io("/proc/" + std::to_string(child) + "/io");
  std::string name;
  std::int64_t count = -1;
  io >> name >> count;
  ::waitpid(child, nullptr, 0);
  EXPECT_EQ(name, "rchar:");
  return count;
}

TEST(CheckCommand, AFileIsReadOnceForAllTargets) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  const auto size = static_cast<std::int64_t>(fs::file_size(folder / "x.wav"));
  const std::int64_t forOne = bytesReadBy({"check", "--target", "music.tidal", folder / "x.wav"});
  const std::int64_t forAll = bytesReadBy({"check", "--target", allIDs(), folder / "x.wav"});
  EXPECT_GE(forOne, size);
  EXPECT_LT(forAll, forOne + size / 2);
}

// --- The output

TEST(CheckCommand, OutWritesWhatStandardOutputWouldHave) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  for (const char* form : {"--json", "--strict"}) {
    const CommandResult direct = check({form, folder / "x.wav"});
    const CommandResult result = check({form, folder / "x.wav", "--out", folder / "out", "--force"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(test::readBytes(folder / "out"), direct.out);
  }
  const CommandResult kept = check({folder / "x.wav", "--out", folder / "out"});
  EXPECT_EQ(kept.exitCode, 3);
  EXPECT_EQ(kept.err,
            "vellum: " + (folder / "out").string() + ": there is such a file already; --force replaces it\n");
}

TEST(CheckCommand, OutIsWrittenAlsoWhenTargetsAreMissed) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  EXPECT_EQ(check({"--mode", "broadcast", folder / "x.wav", "--out", folder / "out"}).exitCode, 1);
  EXPECT_TRUE(contains(test::readBytes(folder / "out"), "Not compliant: Loudness +3.0 LU off target.\n"));
}

TEST(CheckCommand, OutNeverReplacesAnInputOrTheSelection) {
  const TemporaryFolder folder;
  write(folder / "x.wav", tone(-20));
  test::writeBytes(folder / "my.json", runVellum({"targets", "--json"}).out);
  for (const char* name : {"x.wav", "my.json"}) {
    const std::string before = test::readBytes(folder / name);
    const CommandResult result =
        check({"--selection", folder / "my.json", folder / "x.wav", "--force", "--out", folder / "." / name});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_TRUE(contains(result.err, "it is one of the files that are read\n"));
    EXPECT_EQ(test::readBytes(folder / name), before);
  }
}

TEST(CheckCommand, CtrlCEndsAtOnceAndLeavesNothing) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.flac", Audio(2, 48'000 * 60), 48000, test::flac);
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  // Standard output is a pipe that nobody reads, so that the command is surely under way.
  const int reader = ::open((folder / "pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  Arguments arguments = {"check", "--jobs", "2"};
  arguments.insert(arguments.end(), 4000, folder / "x.flac");
  test::RunningCommand command(arguments, {.environment = {}, .out = folder / "pipe", .workingFolder = {}});
  char first = 0;
  while (::read(reader, &first, 1) != 1) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  command.signal(SIGINT);
  EXPECT_EQ(command.wait().exitCode, 130);
  ::close(reader);
  EXPECT_EQ(folder.names(), (Arguments{"pipe", "x.flac"}));
}

// --- Documentation

fs::path sourceFolder() {
  return fs::path(__FILE__).parent_path().parent_path().parent_path();
}

TEST(CheckCommand, TheDocsShowWhatTheCommandPrints) {
  const std::string arguments = "check --target podcast.spotify,vod.netflix sentence.flac";
  const CommandResult result =
      runVellum({"check", "--target", "podcast.spotify,vod.netflix", "sentence.flac"},
                {.environment = {}, .out = {}, .workingFolder = sourceFolder() / "Examples"});
  EXPECT_TRUE(contains(test::readBytes(sourceFolder() / "Docs" / "Check.md"),
                       "```\n$ vellum " + arguments + "\n" + result.out + "```\n"));
}

TEST(CheckCommand, TheExampleSelectionIsTheOneInTheDocsAndIsRead) {
  const fs::path example = sourceFolder() / "Examples" / "targets.json";
  EXPECT_TRUE(contains(test::readBytes(sourceFolder() / "Docs" / "Targets.md"),
                       "```json\n" + test::readBytes(example) + "```\n"));
  const CommandResult result = check({"--json", "--selection", example, test::speechFiles().at(0)});
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(targetsOf(recordsOf(result.out).at(0)), (Arguments{"broadcast.ebuR128", "custom.regionalRadio"}));
}

}  // namespace
}  // namespace vellum
