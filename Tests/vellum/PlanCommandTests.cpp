// `vellum plan`, end to end: its masters are rendered and checked.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/CommandText.hpp"
#include "Support/RealAudio.hpp"
#include "Support/RunCommand.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using nlohmann::ordered_json;
using test::Arguments;
using test::CommandResult;
using test::contains;
using test::operator+;
using test::runVellum;
using test::TemporaryFolder;

ordered_json planOf(const std::string& path, const Arguments& arguments, int exitCode = 0) {
  const CommandResult result = runVellum(Arguments{"plan", "--json", path} + arguments);
  EXPECT_EQ(result.exitCode, exitCode) << result.out << result.err;
  return ordered_json::parse(result.out);
}

std::string joined(const ordered_json& ids) {
  std::string text;
  for (const std::string id : ids) text += (text.empty() ? "" : ",") + id;
  return text;
}

// Music without anything like speech.
std::string bassLoop() {
  for (const std::string& file : test::freeMusicFiles())
    if (file.ends_with("/bass_dnb_f.flac")) return file;
  ADD_FAILURE() << "sonic-pi-samples has no bass_dnb_f";
  return {};
}

// Renders a plan's masters as it says and has each of their targets judge them.
void expectMastersServe(const std::string& path, const ordered_json& plan, const TemporaryFolder& folder) {
  for (const ordered_json& master : plan.at("masters")) {
    ASSERT_EQ(master.at("reductionDB"), 0) << "a limiter changes the loudness";
    const std::string out = folder / "master.wav";
    ASSERT_EQ(runVellum({"limit", "--force", path, out, "--bit-depth", "float", "--gain",
                         std::to_string(master.at("gainDB").get<double>()), "--ceiling",
                         master.at("ceilingDBTP").dump()})
                  .exitCode,
              0);
    const CommandResult check =
        runVellum({"check", "--json", "--strict", out, "--target", joined(master.at("targets"))});
    EXPECT_EQ(check.exitCode, 0) << check.out;
    const ordered_json record = ordered_json::parse(check.out);
    for (const ordered_json& evaluation : record.at("evaluations")) {
      if (evaluation.at("verdict") == "penalty") {
        EXPECT_TRUE(evaluation.at("applies").get<bool>()) << evaluation;
      }
    }
    for (const char* figure : {"integratedLUFS", "truePeakDBTP"})
      EXPECT_NEAR(record.at("measurement").at(figure).get<double>(),
                  master.at("after").at(figure).get<double>(), 0.001);
  }
}

TEST(PlanCommand, TheMastersOfRealSpeechAreTakenByTheirTargets) {
  const TemporaryFolder folder;
  const std::string speech = test::speechFiles().at(4);
  for (const std::string mode : {"vod", "broadcast"}) {
    const ordered_json plan = planOf(speech, {"--mode", mode, "--all"});
    EXPECT_TRUE(plan.at("unserved").empty());
    expectMastersServe(speech, plan, folder);
  }
  EXPECT_EQ(planOf(speech, {"--mode", "vod", "--all"}).at("masters").size(), 1u);
}

TEST(PlanCommand, OneMasterOfALoudSongServesAllMusicServices) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "loud.wav", test::sineAudio(2, 48000, 4, 997, -9), 48000, test::floatWAV);
  const ordered_json plan = planOf(folder / "loud.wav", {"--mode", "music", "--all"});
  ASSERT_EQ(plan.at("masters").size(), 1u);
  const ordered_json& master = plan.at("masters").at(0);
  EXPECT_EQ(master.at("targets").size(), 8u);
  EXPECT_EQ(master.at("gainDB"), 0);
  EXPECT_EQ(master.at("ceilingDBTP"), -2);  // Amazon Music's
  EXPECT_NEAR(master.at("leastGainDB").get<double>(), -5, 0.1);
  EXPECT_FALSE(master.contains("mostGainDB")) << "it has no upper end";
  EXPECT_NEAR(master.at("limitingBeginsAtDB").get<double>(), 7, 0.1);
  expectMastersServe(folder / "loud.wav", plan, folder);
}

// A steady tone in the middle of the voice counts as speech.
TEST(PlanCommand, SaysInWordsWhatItPlans) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "a.wav", test::sineAudio(2, 48000, 4, 997, -20), 48000, test::floatWAV);
  const CommandResult two = runVellum(
      {"plan", folder / "a.wav", "--target", "broadcast.ebuR128,broadcast.ebuR128Live,music.youtube"});
  EXPECT_EQ(two.exitCode, 0) << two.err;
  EXPECT_EQ(two.out, (folder / "a.wav").string() +
                         "\n"
                         "  Now                    -20.0 LUFS, dialogue -20.0 LKFS, true peak -20.0 dBTP\n"
                         "  Master 1 of 2: gain -3.0 dB, ceiling -1 dBTP\n"
                         "    Serves               EBU R128 (EU), EBU R128 (EU, live)\n"
                         "    Gains that do        -3.5 dB to -2.5 dB\n"
                         "    Limiting             none: it begins at a gain of +19.0 dB\n"
                         "    Then                 -23.0 LUFS, dialogue -23.0 LKFS, true peak -23.0 dBTP\n"
                         "  Master 2 of 2: gain +6.0 dB, ceiling -1 dBTP\n"
                         "    Serves               YouTube\n"
                         "    Gains that do        +6.0 dB and more\n"
                         "    Limiting             none: it begins at a gain of +19.0 dB\n"
                         "    Then                 -14.0 LUFS, dialogue -14.0 LKFS, true peak -14.0 dBTP\n");
}

TEST(PlanCommand, SaysHowMuchLimitingAGainCosts) {
  const TemporaryFolder folder;
  // Silence with a loud click: -20 LUFS or so, and a peak near full scale.
  test::Audio audio = test::sineAudio(2, 48000, 4, 997, -20);
  for (auto& channel : audio.channels) channel[90'000] = 0.9f;
  test::writeAudio(folder / "a.wav", audio, 48000, test::floatWAV);
  const ordered_json master = planOf(folder / "a.wav", {"--target", "music.youtube"}).at("masters").at(0);
  EXPECT_NEAR(master.at("gainDB").get<double>(), 6, 0.2);
  EXPECT_NEAR(master.at("reductionDB").get<double>(),
              master.at("gainDB").get<double>() - master.at("limitingBeginsAtDB").get<double>(), 1e-9);
  EXPECT_GT(master.at("reductionDB").get<double>(), 5);
  EXPECT_TRUE(contains(runVellum({"plan", folder / "a.wav", "--target", "music.youtube"}).out,
                       "and the loudness comes out lower than said\n"));
}

TEST(PlanCommand, ATargetThatNoMasterServesIsToldWithTheReason) {
  const std::string bass = bassLoop();
  const ordered_json plan = planOf(bass, {"--target", "music.spotify,vod.netflix"}, 1);
  EXPECT_EQ(plan.at("masters").size(), 1u);
  ASSERT_EQ(plan.at("unserved").size(), 1u);
  EXPECT_EQ(plan.at("unserved").at(0).at("target"), "vod.netflix");
  EXPECT_EQ(plan.at("unserved").at(0).at("reason"),
            "Dialog-gated targets need detected speech.\n"
            "This file has no detected speech, so the verdict is unavailable.");
  EXPECT_TRUE(contains(runVellum({"plan", bass, "--target", "vod.netflix"}).out,
                       "  Not served: Netflix\n"
                       "    Dialog-gated targets need detected speech.\n"
                       "    This file has no detected speech, so the verdict is unavailable.\n"));
}

TEST(PlanCommand, SeveralFilesHaveAPlanEach) {
  const TemporaryFolder folder;
  for (const std::string name : {"a.wav", "b.wav"})
    test::writeAudio(folder / name, test::sineAudio(2, 48000, 4, 997, -20), 48000, test::floatWAV);
  const CommandResult result =
      runVellum({"plan", "--json", folder / "a.wav", folder / "none.wav", folder / "b.wav"});
  EXPECT_EQ(result.exitCode, 3);
  std::istringstream lines(result.out);
  std::vector<ordered_json> records;
  for (std::string line; std::getline(lines, line);) records.push_back(ordered_json::parse(line));
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].at("file"), (folder / "a.wav").string());
  EXPECT_EQ(records[0].at("masters").size(), 1u);
  EXPECT_TRUE(records[1].contains("error"));
  EXPECT_EQ(records[2].at("masters"), records[0].at("masters"));
}

TEST(PlanCommand, WrongArgumentsAreTold) {
  EXPECT_EQ(runVellum({"plan"}).exitCode, 2);
  EXPECT_EQ(runVellum({"plan", "a.wav", "--mode", "radio"}).exitCode, 2);
  EXPECT_EQ(runVellum({"plan", "a.wav", "--target", "none"}).exitCode, 2);
}

// Music has no dialogue, so no gain serves a target that judges it.
TEST(PlanCommand, TheSummaryCountsTheFilesWithAnUnservedTarget) {
  const CommandResult result = runVellum({"plan", "--target", "vod.netflix", bassLoop(), bassLoop()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.err, "vellum: 2 of 2 files have a target that no master serves\n");
}

}  // namespace
}  // namespace vellum
