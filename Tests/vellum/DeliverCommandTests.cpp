// `vellum deliver`, end to end: what it writes is measured again by runs of `vellum check`.

#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sndfile.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>
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

namespace fs = std::filesystem;
using nlohmann::ordered_json;
using test::Arguments;
using test::Audio;
using test::CommandResult;
using test::contains;
using test::operator+;
using test::runVellum;
using test::TemporaryFolder;

// The record of `vellum deliver --json ARGUMENTS`, which has to answer exitCode.
ordered_json deliver(const Arguments& arguments, int exitCode = 0) {
  const CommandResult result = runVellum(Arguments{"deliver", "--json"} + arguments);
  EXPECT_EQ(result.exitCode, exitCode) << result.out << result.err;
  return ordered_json::parse(result.out);
}

// A file's record from a run of `vellum check` of its own.
ordered_json checked(const std::string& path, const Arguments& arguments) {
  const CommandResult result = runVellum(Arguments{"check", "--strict", "--json", path} + arguments);
  EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
  return ordered_json::parse(result.out);
}

// That the target takes the file, and what was told of it is what is in it.
void expectIsMet(const std::string& path, const Arguments& target, const ordered_json& told) {
  const ordered_json record = checked(path, target);
  const ordered_json& evaluation = record.at("evaluations").at(0);
  if (evaluation.at("verdict") == "penalty") {
    EXPECT_NEAR(evaluation.at("gainDB").get<double>(), 0, 0.1001);
    EXPECT_TRUE(evaluation.at("truePeakClean").get<bool>());
  } else {
    EXPECT_EQ(evaluation.at("verdict"), "compliant");
  }
  EXPECT_EQ(told.at("after"), record.at("measurement"));
  EXPECT_EQ(told.at("evaluation"), evaluation);
  EXPECT_TRUE(told.at("isMet").get<bool>());
  EXPECT_TRUE(told.at("isWritten").get<bool>());
}

std::string speech() {
  return test::speechFiles().at(4);  // 3.3 s at -23.0 LUFS, dialogue at -20.8, peak at -9
}

std::string music(const std::string& name) {
  for (const std::string& file : test::freeMusicFiles())
    if (fs::path(file).filename() == name + ".flac") return file;
  ADD_FAILURE() << "sonic-pi-samples has no " << name;
  return {};
}

// 48 kHz, both channels alike: its loudness in LUFS is its level.
void writeTone(const fs::path& path, double peakDBFS, double seconds = 4,
               const test::FileKind& kind = test::floatWAV) {
  test::writeAudio(path, test::sineAudio(2, 48000, seconds, 997, peakDBFS), 48000, kind);
}

const test::FileKind wav16{"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16};

// --- Real audio

TEST(DeliverCommand, RealSpeechMeetsATargetOfEachModeAtEveryWidth) {
  const TemporaryFolder folder;
  for (const std::string target : {"music.spotify", "podcast.apple", "vod.netflix", "broadcast.ebuR128"})
    for (const std::string width : {"16", "24", "float"}) {
      SCOPED_TRACE(target + " " + width);
      const std::string out = folder / (target + width + ".wav");
      const ordered_json told = deliver({speech(), out, "--target", target, "--bit-depth", width});
      expectIsMet(out, {"--target", target}, told);
      EXPECT_EQ(told.at("files").at(0).at("format"),
                "WAV " + (width == "float" ? "32-bit float" : width + "-bit"));
      EXPECT_LE(told.at("rounds").size(), 4u);
      EXPECT_EQ(test::readAudio(out).frameCount(), test::readAudio(speech()).frameCount());
    }
}

TEST(DeliverCommand, RealMusicMeetsAMusicAndABroadcastTargetAtEveryWidth) {
  const TemporaryFolder folder;
  for (const std::string target : {"music.spotify", "broadcast.ebuR128"})
    for (const std::string width : {"16", "24", "float"}) {
      SCOPED_TRACE(target + " " + width);
      const std::string out = folder / (target + width + ".caf");
      const ordered_json told =
          deliver({music("ambi_lunar_land"), out, "--target", target, "--bit-depth", width});
      expectIsMet(out, {"--target", target}, told);
      const double reduction = told.at("largestReductionDB");
      if (target == "music.spotify")
        EXPECT_GT(reduction, 2) << "3.4 dB up, from a peak at the ceiling";
      else
        EXPECT_EQ(reduction, 0);
      EXPECT_LE(told.at("rounds").size(), 4u);
    }
}

TEST(DeliverCommand, MusicWithoutSpeechIsRefusedInTheSystemsWords) {
  const TemporaryFolder folder;
  const std::string out = folder / "out.flac";
  const CommandResult result = runVellum({"deliver", music("bass_dnb_f"), out, "--target", "vod.netflix"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_TRUE(contains(result.out, "Dialog-gated targets need detected speech.\n"));
  EXPECT_TRUE(contains(result.out, "This file has no detected speech, so the verdict is unavailable.\n"));
  EXPECT_TRUE(folder.names().empty());

  const ordered_json told = deliver({music("bass_dnb_f"), out, "--target", "vod.netflix"}, 1);
  EXPECT_EQ(told.at("obstacle"),
            "Dialog-gated targets need detected speech.\n"
            "This file has no detected speech, so the verdict is unavailable.");
  EXPECT_FALSE(told.at("isMet").get<bool>());
  EXPECT_FALSE(told.at("isWritten").get<bool>());
  EXPECT_EQ(told.at("evaluationBefore").at("verdict"), "unavailable");
}

TEST(DeliverCommand, ANoiseFloorThatNoGainLowersEnoughIsNamed) {
  const TemporaryFolder folder;
  const CommandResult result =
      runVellum({"deliver", speech(), folder / "out.wav", "--target", "podcast.acx"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_TRUE(
      contains(result.out, "Not written            the noise floor is in the way: taking it from -20.6"));
  EXPECT_TRUE(folder.names().empty());
}

TEST(DeliverCommand, MoreLimitingThanAllowedIsRefusedAndMoreAllowedIsDone) {
  const TemporaryFolder folder;
  const std::string out = folder / "out.flac";
  const Arguments arguments = {music("ambi_lunar_land"), out, "--target", "music.spotify"};
  const ordered_json refused = deliver(arguments + Arguments{"--max-reduction", "2"}, 1);
  EXPECT_TRUE(contains(refused.at("obstacle").get<std::string>(), "the true peak is in the way: "));
  EXPECT_TRUE(folder.names().empty());
  expectIsMet(out, {"--target", "music.spotify"}, deliver(arguments + Arguments{"--max-reduction", "9.5"}));
}

TEST(DeliverCommand, PrintsBeforeWhatWasDoneAfterAndTheVerdict) {
  const TemporaryFolder folder;
  writeTone(folder / "in.wav", -20, 4, wav16);
  const CommandResult result =
      runVellum({"deliver", folder / "in.wav", folder / "out.wav", "--target", "broadcast.ebuR128"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  const auto truePeak = [&](const std::string& name) {
    char text[32];
    std::snprintf(text, sizeof text, "true peak %.2f dBTP",
                  checked(folder / name, {"--target", "music.spotify"})
                      .at("measurement")
                      .at("truePeakDBTP")
                      .get<double>());
    return std::string(text);
  };
  EXPECT_EQ(result.out, (folder / "in.wav").string() + " -> " + (folder / "out.wav").string() +
                            "\n"
                            "  Target                 EBU R128 (EU) (broadcast.ebuR128)\n"
                            "  Before                 -20.0 LUFS, " +
                            truePeak("in.wav") +
                            "\n"
                            "                         Not compliant: Loudness +3.0 LU off target.\n"
                            "  Gain                   -3.0 dB\n"
                            "  Limiter                not needed\n"
                            "  Rounds                 1\n"
                            "  After                  -23.0 LUFS, " +
                            truePeak("out.wav") +
                            "\n"
                            "  EBU R128 (EU)\n"
                            "    Compliant.\n"
                            "      Loudness -23.0 LUFS ✓ (target -23 ±0.5).\n"
                            "      True Peak -23.0 dBTP ✓ (ceiling -1 dBTP).\n"
                            "  Format                 WAV 16-bit\n");
}

// --- Albums

TEST(DeliverCommand, AnAlbumGetsOneGainAndKeepsItsLevelsApart) {
  const TemporaryFolder folder;
  fs::create_directory(folder / "masters");
  writeTone(folder / "loud.wav", -10);
  writeTone(folder / "soft.wav", -16);
  const ordered_json told = deliver(
      {"--album", folder / "loud.wav", folder / "soft.wav", folder / "masters", "--target", "music.spotify"});
  // Both are 4 s long and within 10 LU: the loudness of their mean power.
  const double before = 10 * std::log10((std::pow(10, -1.0) + std::pow(10, -1.6)) / 2);
  EXPECT_NEAR(told.at("before").at("integratedLUFS").get<double>(), before, 0.1);
  EXPECT_NEAR(told.at("after").at("integratedLUFS").get<double>(), -14, 0.1);
  const double gain = told.at("gainDB");
  EXPECT_NEAR(gain, -14 - before, 0.1);
  ASSERT_EQ(told.at("files").size(), 2u);
  for (const std::string name : {"loud.wav", "soft.wav"}) {
    const Audio in = test::readAudio(folder / name), out = test::readAudio(folder / "masters" / name);
    ASSERT_EQ(out.frameCount(), in.frameCount());
    const auto factor = static_cast<float>(test::amplitudeOf(gain));
    for (std::size_t n = 0; n < 1000; ++n) ASSERT_EQ(out.channels[0][n], factor * in.channels[0][n]) << name;
  }
}

TEST(DeliverCommand, AnAlbumOfRealMusicIsMetAsAWhole) {
  const TemporaryFolder folder;
  const ordered_json told = deliver({"--album", music("guit_em9"), music("ambi_lunar_land"), folder.path(),
                                     "--target", "music.appleMusic", "--format", "wav"});
  EXPECT_TRUE(told.at("isMet").get<bool>());
  EXPECT_NEAR(told.at("after").at("integratedLUFS").get<double>(), -16, 0.1);
  EXPECT_LE(told.at("after").at("truePeakDBTP").get<double>(), -1);
  EXPECT_EQ(folder.names(), (Arguments{"ambi_lunar_land.wav", "guit_em9.wav"}));
  for (const ordered_json& file : told.at("files"))
    EXPECT_EQ(file.at("after"),
              ordered_json::parse(runVellum({"check", "--json", file.at("output").get<std::string>()}).out)
                  .at("measurement"));
}

TEST(DeliverCommand, AnAlbumThatCannotBeWrittenWritesNothing) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "a");
  fs::create_directories(folder / "masters");
  writeTone(folder / "x.wav", -10);
  writeTone(folder / "y.wav", -10);
  writeTone(folder / "a" / "x.wav", -10);
  const auto run = [&](const Arguments& files) {
    return runVellum(Arguments{"deliver", "--album", "--target", "music.spotify"} + files);
  };
  const CommandResult twice = run({folder / "x.wav", folder / "a" / "x.wav", folder / "masters"});
  EXPECT_EQ(twice.exitCode, 3);
  EXPECT_TRUE(contains(twice.err, "x.wav: it would be written twice"));
  EXPECT_EQ(run({folder / "x.wav", folder / "nowhere.wav", folder / "masters"}).exitCode, 3);
  EXPECT_TRUE(fs::is_empty(folder / "masters"));
  const CommandResult noFolder = run({folder / "x.wav", folder / "y.wav", folder / "none"});
  EXPECT_EQ(noFolder.exitCode, 3);
  EXPECT_TRUE(contains(noFolder.err, "none: there is no such folder"));
}

// --- Equality

TEST(DeliverCommand, EqualRunsGiveEqualFiles) {
  const TemporaryFolder folder;
  for (const std::string name : {"1.wav", "2.wav"})
    EXPECT_EQ(
        runVellum({"deliver", music("ambi_lunar_land"), folder / name, "--target", "music.spotify"}).exitCode,
        0);
  EXPECT_EQ(test::readBytes(folder / "1.wav"), test::readBytes(folder / "2.wav"));
}

TEST(DeliverCommand, ADryRunSaysWhatTheRealOneDoesAndWritesNothing) {
  const TemporaryFolder folder;
  const Arguments arguments = {music("ambi_lunar_land"), folder / "out.wav", "--target", "music.spotify"};
  ordered_json dry = deliver(arguments + Arguments{"--dry-run"});
  EXPECT_TRUE(folder.names().empty());
  EXPECT_FALSE(dry.at("isWritten").get<bool>());
  ordered_json real = deliver(arguments);
  for (const char* key : {"gainDB", "limiterCeilingDBTP", "largestReductionDB", "clippedSamples", "rounds",
                          "after", "evaluation", "isMet", "files"})
    EXPECT_EQ(dry.at(key), real.at(key)) << key;
  EXPECT_TRUE(contains(runVellum(Arguments{"deliver", "--dry-run", "--force"} + arguments).out,
                       "Not written            this was a dry run\n"));
}

TEST(DeliverCommand, AFileThatIsMetAlreadyComesOutEqualToTheBit) {
  const TemporaryFolder folder;
  for (const std::string width : {"16", "24", "float"}) {
    const std::string once = folder / (width + "once.wav"), twice = folder / (width + "twice.wav");
    deliver({speech(), once, "--target", "vod.netflix", "--bit-depth", width});
    const ordered_json told = deliver({once, twice, "--target", "vod.netflix"});
    EXPECT_EQ(told.at("gainDB"), 0);
    EXPECT_EQ(test::readBytes(once), test::readBytes(twice)) << width;
  }
}

TEST(DeliverCommand, DitherIsTakenOutByRequest) {
  const TemporaryFolder folder;
  writeTone(folder / "in.wav", -20);
  Audio in = test::readAudio(folder / "in.wav");
  const auto run = [&](const std::string& dither) {
    const ordered_json told = deliver({folder / "in.wav", folder / (dither + ".wav"), "--target",
                                       "broadcast.ebuR128", "--bit-depth", "16", "--dither", dither});
    const auto gain = static_cast<float>(test::amplitudeOf(told.at("gainDB").get<double>()));
    const Audio out = test::readAudio(folder / (dither + ".wav"));
    double largest = 0;
    for (std::size_t n = 0; n < out.channels[0].size(); ++n)
      largest = std::max(largest, std::abs(static_cast<double>(out.channels[0][n]) * 32768 -
                                           static_cast<double>(gain * in.channels[0][n]) * 32768));
    return largest;
  };
  EXPECT_LE(run("none"), 0.5);  // nearest
  const double dithered = run("tpdf");
  EXPECT_GT(dithered, 1.0);  // up to a step of dither, and half a step of rounding
  EXPECT_LT(dithered, 1.5);
}

// --- Custom targets

// A target of the user's own, judged by integrated loudness.
void writeSelection(const fs::path& path, double reference, double tolerance,
                    const ordered_json& extraCriteria) {
  const ordered_json treatment = {
      {"compliance",
       {{"referenceLUFS", reference}, {"toleranceLU", tolerance}, {"truePeakCeilingDBTP", -1}}}};
  const ordered_json target = {{"id", "custom.mine"},    {"name", "My Outlet"},
                               {"mode", "broadcast"},    {"source", "integrated"},
                               {"treatment", treatment}, {"extraCriteria", extraCriteria}};
  const ordered_json document = {{"mode", "broadcast"},
                                 {"selectedTargetIDsByMode", {"broadcast", {"custom.mine"}}},
                                 {"customTargets", {target}}};
  test::writeBytes(path, document.dump());
}

TEST(DeliverCommand, AShortTermCriterionPullsTheGainBelowTheReference) {
  const TemporaryFolder folder;
  const Arguments target = {"--target", "custom.mine", "--selection", folder / "mine.json"};
  const ordered_json measured =
      ordered_json::parse(runVellum({"measure", "--json", music("ambi_lunar_land")}).out);
  const double shortTerm = measured.at("maxShortTermLUFS"), integrated = measured.at("integratedLUFS");
  // The reference would leave the short-term 0.6 LU too loud.
  const double ceiling = shortTerm + (-23 - integrated) - 0.6;
  writeSelection(folder / "mine.json", -23, 1, {{{"maxShortTerm", {{"maxLUFS", ceiling}}}}});
  const ordered_json told = deliver(Arguments{music("ambi_lunar_land"), folder / "out.wav"} + target);
  expectIsMet(folder / "out.wav", target, told);
  EXPECT_NEAR(told.at("after").at("integratedLUFS").get<double>(), -23.6, 0.05);

  writeSelection(folder / "mine.json", -23, 0.5, {{{"maxShortTerm", {{"maxLUFS", ceiling}}}}});
  const ordered_json refused = deliver(Arguments{music("ambi_lunar_land"), folder / "no.wav"} + target, 1);
  EXPECT_TRUE(
      contains(refused.at("obstacle").get<std::string>(), "the maximum short-term loudness is in the way: "));
  EXPECT_EQ(folder.names(), (Arguments{"mine.json", "out.wav"}));
}

TEST(DeliverCommand, TheSelectionIsNeverReplacedByTheOutput) {
  const TemporaryFolder folder;
  writeSelection(folder / "mine.wav", -23, 1, ordered_json::array());
  const std::string before = test::readBytes(folder / "mine.wav");
  const auto run = runVellum({"deliver", music("ambi_lunar_land"), folder / "mine.wav", "--target",
                              "custom.mine", "--selection", folder / "mine.wav", "--force"});
  EXPECT_EQ(run.exitCode, 3);
  EXPECT_TRUE(contains(run.err, "it is one of the files that are read"));
  EXPECT_EQ(test::readBytes(folder / "mine.wav"), before);
}

TEST(DeliverCommand, AFaultySelectionIsNamedBeforeAnythingIsMeasured) {
  const TemporaryFolder folder;
  test::writeBytes(folder / "bad.json", R"({"mode": "broadcast", "selectedTargetIDsByMode": 3})");
  const CommandResult result = runVellum({"deliver", folder / "no such input.wav", folder / "out.wav",
                                          "--target", "music.spotify", "--selection", folder / "bad.json"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_TRUE(contains(result.err, "bad.json: selectedTargetIDsByMode"));
}

// --- Places

TEST(DeliverCommand, AnExistingOutputIsKeptUnlessForced) {
  const TemporaryFolder folder;
  writeTone(folder / "in.wav", -20);
  test::writeBytes(folder / "out.wav", "precious");
  const Arguments arguments = {"deliver", folder / "in.wav", folder / "out.wav", "--target", "music.spotify"};
  const CommandResult refused = runVellum(arguments);
  EXPECT_EQ(refused.exitCode, 3);
  EXPECT_EQ(refused.err, "vellum: " + (folder / "out.wav").string() +
                             ": there is such a file already; --force replaces it\n");
  EXPECT_EQ(test::readBytes(folder / "out.wav"), "precious");
  EXPECT_EQ(runVellum(arguments + Arguments{"--force"}).exitCode, 0);
  EXPECT_EQ(test::readAudio(folder / "out.wav").frameCount(), 4 * 48000);
  EXPECT_EQ(folder.names(), (Arguments{"in.wav", "out.wav"}));
}

TEST(DeliverCommand, TheInputIsNeverWrittenByWhateverName) {
  const TemporaryFolder folder;
  writeTone(folder / "in.wav", -20);
  fs::create_directory(folder / "sub");
  fs::create_symlink(folder / "in.wav", folder / "link.wav");
  fs::create_hard_link(folder / "in.wav", folder / "hard.wav");
  fs::create_directory_symlink(folder.path(), folder / "sub" / "back");
  const std::string before = test::readBytes(folder / "in.wav");
  for (const fs::path& output : {folder / "in.wav", folder / "link.wav", folder / "hard.wav",
                                 folder / "sub/../in.wav", folder / "./sub/back/in.wav"}) {
    const CommandResult result =
        runVellum({"deliver", "--force", folder / "in.wav", output, "--target", "music.spotify"});
    EXPECT_EQ(result.exitCode, 3) << output;
    EXPECT_TRUE(contains(result.err, "it is one of the files that are read")) << output;
    EXPECT_EQ(test::readBytes(folder / "in.wav"), before) << output;
  }
  EXPECT_EQ(folder.names(), (Arguments{"hard.wav", "in.wav", "link.wav", "sub"}));
}

TEST(DeliverCommand, AFolderThatDoesNotExistIsToldBeforeAnythingIsMeasured) {
  const TemporaryFolder folder;
  const CommandResult result =
      runVellum({"deliver", folder / "in.wav", folder / "none/out.wav", "--target", "music.spotify"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_TRUE(contains(result.err, "out.wav: its folder does not exist"));
}

// --- Formats

TEST(DeliverCommand, ALossyInputNeedsAFormat) {
  const TemporaryFolder folder;
  writeTone(folder / "in.mp3", -20, 4, test::mp3);
  const auto run = [&](const std::string& output, const Arguments& further) {
    return runVellum(Arguments{"deliver", folder / "in.mp3", folder / output, "--target", "music.spotify"} +
                     further);
  };
  const CommandResult refused = run("out.wav", {});
  EXPECT_EQ(refused.exitCode, 3);
  EXPECT_TRUE(contains(refused.err, "in.mp3: it is lossy (MP3"));
  EXPECT_EQ(run("out.flac", {"--format", "flac"}).exitCode, 0);
  EXPECT_EQ(run("no.mp3", {"--format", "wav"}).exitCode, 3);
  EXPECT_EQ(run("no.flac", {"--format", "wav"}).exitCode, 3);
  EXPECT_EQ(folder.names(), (Arguments{"in.mp3", "out.flac"}));
}

TEST(DeliverCommand, TheFormatIsTheInputsOwnOrTheOutputNamesOrTheChosenOne) {
  const TemporaryFolder folder;
  writeTone(folder / "in.aiff", -20, 4, {"aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_24});
  const auto format = [&](const std::string& output, const Arguments& further) -> std::string {
    return deliver(Arguments{folder / "in.aiff", folder / output, "--target", "music.spotify"} + further)
        .at("files")
        .at(0)
        .at("format");
  };
  EXPECT_EQ(format("a.aiff", {}), "AIFF 24-bit");
  EXPECT_EQ(format("a", {}), "AIFF 24-bit");
  EXPECT_EQ(format("a.flac", {}), "FLAC 24-bit");
  EXPECT_EQ(format("b", {"--format", "caf"}), "CAF 24-bit");
  EXPECT_EQ(format("b.wav", {"--format", "rf64", "--bit-depth", "float"}), "RF64 32-bit float");
  const CommandResult floating = runVellum({"deliver", folder / "in.aiff", folder / "c.flac", "--target",
                                            "music.spotify", "--bit-depth", "float"});
  EXPECT_EQ(floating.exitCode, 3);
  EXPECT_TRUE(contains(floating.err, "c.flac: FLAC has no floating-point samples"));
  EXPECT_EQ(folder.names(), (Arguments{"a", "a.aiff", "a.flac", "b", "b.wav", "in.aiff"}));
}

TEST(DeliverCommand, SamplesThatAreNotFiniteAreCountedAndRefused) {
  const TemporaryFolder folder;
  Audio audio = test::sineAudio(2, 48000, 1, 997, -20);
  audio.channels[0][100] = std::numeric_limits<float>::infinity();
  audio.channels[1][100] = audio.channels[1][4800] = std::numeric_limits<float>::quiet_NaN();
  test::writeAudio(folder / "in.wav", audio, 48000, test::floatWAV);
  const CommandResult result =
      runVellum({"deliver", folder / "in.wav", folder / "out.wav", "--target", "music.spotify"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_TRUE(contains(result.err, "in.wav: 3 samples are not finite"));
  EXPECT_EQ(folder.names(), (Arguments{"in.wav"}));
}

// C L R Ls Rs LFE, as cinemas have it: metered in another order, written in its own.
TEST(DeliverCommand, ChannelsKeepTheirOrderAndTheirMap) {
  const TemporaryFolder folder;
  const std::vector<int> map = {SF_CHANNEL_MAP_CENTER,    SF_CHANNEL_MAP_LEFT,       SF_CHANNEL_MAP_RIGHT,
                                SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT, SF_CHANNEL_MAP_LFE};
  Audio audio;
  for (int c = 0; c < 6; ++c)
    audio.channels.push_back(test::sine(48000, 4 * 48000, 400 + 100 * c, test::amplitudeOf(-20 - 2 * c)));
  test::writeAudio(folder / "in.caf", audio, 48000, {"caf", SF_FORMAT_CAF | SF_FORMAT_FLOAT},
                   {.quality = 0, .variableBitRate = false, .channelMap = map});
  const ordered_json told = deliver({folder / "in.caf", folder / "out.caf", "--target", "broadcast.ebuR128"});
  expectIsMet(folder / "out.caf", {"--target", "broadcast.ebuR128"}, told);

  SF_INFO info{};
  SNDFILE* const file = sf_open((folder / "out.caf").c_str(), SFM_READ, &info);
  ASSERT_TRUE(file);
  std::vector<int> written(6);
  EXPECT_EQ(sf_command(file, SFC_GET_CHANNEL_MAP_INFO, written.data(), 6 * sizeof(int)), SF_TRUE);
  sf_close(file);
  EXPECT_EQ(written, map);
  const Audio out = test::readAudio(folder / "out.caf");
  const auto gain = static_cast<float>(test::amplitudeOf(told.at("gainDB").get<double>()));
  for (std::size_t c = 0; c < 6; ++c) EXPECT_EQ(out.channels[c][1234], gain * audio.channels[c][1234]) << c;

  // A dry run meters in the same order.
  EXPECT_EQ(deliver({folder / "in.caf", folder / "dry.caf", "--target", "broadcast.ebuR128", "--dry-run"})
                .at("after"),
            told.at("after"));
}

TEST(DeliverCommand, ALayoutCanBeGivenAndIsWritten) {
  const TemporaryFolder folder;
  const Audio audio = test::sineAudio(6, 48000, 4, 997, -30);
  test::writeAudio(folder / "in.wav", audio, 48000, test::floatWAV);
  const ordered_json told = deliver({folder / "in.wav", folder / "out.caf", "--target", "broadcast.ebuR128",
                                     "--layout", "C,L,R,Ls,Rs,LFE", "--format", "caf"});
  expectIsMet(folder / "out.caf", {"--target", "broadcast.ebuR128"}, told);
  EXPECT_EQ(runVellum({"deliver", folder / "in.wav", folder / "no.wav", "--target", "broadcast.ebuR128",
                       "--layout", "L,R"})
                .exitCode,
            3);
  EXPECT_EQ(runVellum({"deliver", folder / "in.wav", folder / "no.wav", "--target", "broadcast.ebuR128",
                       "--layout", "L,Q"})
                .exitCode,
            2);
}

TEST(DeliverCommand, TagsAndMarkersAreKept) {
  const TemporaryFolder folder;
  writeTone(folder / "tone.wav", -20, 4, wav16);
  {
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* const file = sf_open((folder / "in.wav").c_str(), SFM_WRITE, &info);
    ASSERT_TRUE(file);
    sf_set_string(file, SF_STR_TITLE, "A Title");
    SF_CUES cues{};
    cues.cue_count = 1;
    cues.cue_points[0].indx = 1;
    cues.cue_points[0].sample_offset = cues.cue_points[0].position = 4800;
    sf_command(file, SFC_SET_CUE, &cues, sizeof cues);
    SF_BROADCAST_INFO bext{};
    std::string("A Description").copy(bext.description, sizeof bext.description);
    sf_command(file, SFC_SET_BROADCAST_INFO, &bext, sizeof bext);
    const std::vector<float> samples = test::sine(48000, 4 * 48000, 997, 0.1);
    sf_writef_float(file, samples.data(), 4 * 48000);
    sf_close(file);
  }
  deliver({folder / "in.wav", folder / "out.wav", "--target", "broadcast.ebuR128"});
  SF_INFO info{};
  SNDFILE* const file = sf_open((folder / "out.wav").c_str(), SFM_READ, &info);
  ASSERT_TRUE(file);
  ASSERT_TRUE(sf_get_string(file, SF_STR_TITLE));
  EXPECT_STREQ(sf_get_string(file, SF_STR_TITLE), "A Title");
  SF_CUES cues{};
  EXPECT_EQ(sf_command(file, SFC_GET_CUE, &cues, sizeof cues), SF_TRUE);
  EXPECT_EQ(cues.cue_count, 1u);
  EXPECT_EQ(cues.cue_points[0].sample_offset, 4800u);
  SF_BROADCAST_INFO bext{};
  EXPECT_EQ(sf_command(file, SFC_GET_BROADCAST_INFO, &bext, sizeof bext), SF_TRUE);
  EXPECT_STREQ(bext.description, "A Description");
  sf_close(file);

  const ordered_json flac =
      deliver({folder / "in.wav", folder / "out.flac", "--target", "broadcast.ebuR128"});
  EXPECT_TRUE(flac.at("files").at(0).contains("notes")) << "FLAC holds no markers";
}

// --- Interruption

// Runs the command on a terminal, sends it the signal once it shows the text, and answers how it ended.
int signalledAt(const std::string& text, int signal, Arguments arguments) {
  std::vector<char*> argv = {const_cast<char*>(VELLUM_COMMAND)};
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  int terminal = -1;
  winsize size{24, 200, 0, 0};
  const pid_t child = ::forkpty(&terminal, nullptr, nullptr, &size);
  if (child == 0) {
    ::setenv("TERM", "xterm", 1);
    ::alarm(60);
    ::execv(VELLUM_COMMAND, argv.data());
    ::_exit(127);
  }
  std::string shown;
  char buffer[4096];
  for (bool isSent = false; const ssize_t got = ::read(terminal, buffer, sizeof buffer);) {
    if (got < 0) break;
    shown.append(buffer, static_cast<std::size_t>(got));
    if (!isSent && contains(shown, text)) {
      ::kill(child, signal);
      isSent = true;
    }
  }
  ::close(terminal);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(contains(shown, text));
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// Long enough for each stage to be seen; the clicks bring the limiter.
TEST(DeliverCommand, AnEndedRunLeavesNothingBehind) {
  const TemporaryFolder folder;
  {
    std::mt19937 rng(1);
    const Audio second = test::noiseAudio(rng, 2, 48000, 0.05);
    Audio audio;
    for (int k = 0; k < 300; ++k) audio.append(second);
    for (auto& channel : audio.channels)
      for (std::size_t n = 0; n < channel.size(); n += 48000) channel[n] = 0.9f;
    test::writeAudio(folder / "in.wav", audio, 48000, wav16);
  }
  const Arguments arguments = {
      "deliver", folder / "in.wav", folder / "out.wav", "--target", "music.spotify", "--max-reduction", "40"};
  for (const std::string stage : {"measuring  in.wav", "rendering  in.wav"})
    for (const int signal : {SIGINT, SIGKILL}) {
      EXPECT_EQ(signalledAt(stage, signal, arguments), signal == SIGINT ? 130 : 128 + SIGKILL) << stage;
      EXPECT_EQ(folder.names(), (Arguments{"in.wav"})) << stage;
    }
}

// --- Memory

TEST(DeliverCommand, MemoryDoesNotGrowWithTheProgramme) {
  const TemporaryFolder folder;
  const auto peakOf = [&](double seconds) {
    writeTone(folder / "in.wav", -20, seconds, wav16);
    const CommandResult result = test::runVellumWatchingMemory(
        {"deliver", "--force", folder / "in.wav", folder / "out.wav", "--target", "broadcast.ebuR128"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_GT(result.peakKilobytes, 1000);
    return result.peakKilobytes;
  };
  const std::int64_t brief = peakOf(5), lengthy = peakOf(105);
  EXPECT_LT(lengthy - brief, 4000) << "100 s are 19 MB";  // the histories are 80 bytes per 100 ms
}

// --- Usage

TEST(DeliverCommand, WrongArgumentsAreToldAndNothingIsWritten) {
  const TemporaryFolder folder;
  writeTone(folder / "in.wav", -20);
  const std::string in = folder / "in.wav", out = folder / "out.wav";
  const Arguments target = {"--target", "music.spotify"};
  struct Case {
    Arguments arguments;
    std::string told;
  };
  for (const Case& wrong :
       {Case{{in, out}, "--target is required"}, Case{Arguments{in} + target, "an output is needed"},
        Case{Arguments{in, in, out} + target, "several inputs need --album"},
        Case{Arguments{"--album", in} + target, "a folder for the outputs is needed"},
        Case{{in, out, "--target", "music.none"}, "there is no target 'music.none'"},
        Case{Arguments{in, out, "--max-reduction", "-1"} + target,
             "--max-reduction: '-1' is not a number from 0 to 60 dB"},
        Case{Arguments{in, out, "--max-reduction", "nan"} + target, "'nan' is not a number"},
        Case{Arguments{in, out, "--max-reduction", "61"} + target, "'61' is not a number"},
        Case{Arguments{in, out, "--format", "ogg"} + target,
             "--format: 'ogg' is none of wav, rf64, aiff, caf, flac"},
        Case{Arguments{in, out, "--bit-depth", "20"} + target, "--bit-depth: '20' is none of 16, 24, float"},
        Case{Arguments{in, out, "--dither", "rect"} + target, "--dither: 'rect' is none of tpdf, none"}}) {
    const CommandResult result = runVellum(Arguments{"deliver"} + wrong.arguments);
    EXPECT_EQ(result.exitCode, 2) << wrong.told;
    EXPECT_TRUE(contains(result.err, wrong.told));
  }
  EXPECT_EQ(folder.names(), (Arguments{"in.wav"}));
}

}  // namespace
}  // namespace vellum
