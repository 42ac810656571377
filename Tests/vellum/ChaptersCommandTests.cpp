// `vellum chapters`, end to end on real files.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/Audiobook.hpp"
#include "Support/CommandText.hpp"
#include "Support/RunCommand.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"
#include "VellumApp/AudioFile.hpp"

namespace vellum {
namespace {

namespace fs = std::filesystem;
using nlohmann::ordered_json;
using test::Arguments;
using test::Audio;
using test::CommandResult;
using test::contains;
using test::readBytes;
using test::operator+;
using test::runVellum;
using test::startsWith;
using test::TemporaryFolder;
using test::writeBytes;

constexpr int rate = 8000;
const test::FileKind pcm16{"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16};

CommandResult chapters(const Arguments& arguments) {
  return runVellum(Arguments{"chapters"} + arguments);
}

ordered_json recordOf(const Arguments& arguments) {
  const CommandResult result = chapters(arguments + Arguments{"--json"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  return ordered_json::parse(result.out);
}

struct Part {
  double seconds, levelDB;  // RMS of white noise; -200: silence
};

Audio audioOf(const std::vector<Part>& parts, std::size_t channelCount = 1) {
  std::mt19937 rng(1);
  Audio audio(channelCount, 0);
  for (const auto& [seconds, dB] : parts)
    audio.append(test::noiseAudio(rng, channelCount, std::llround(seconds * rate),
                                  dB > -200 ? test::amplitudeOf(dB) * std::sqrt(3.0) : 0));
  return audio;
}

// Three chapters: 14.5, 14 and 13.5 s with their halves of the pauses, at -20, -26 and -23 dB RMS of sound.
const std::vector<Part> threeParts = {{13, -20}, {3, -200}, {11, -26}, {3, -200}, {12, -23}};

class ChaptersCommand : public testing::Test {
 protected:
  std::string talk(const std::vector<Part>& parts = threeParts, const std::string& name = "talk.wav") const {
    test::writeAudio(folder / name, audioOf(parts), rate, pcm16);
    return folder / name;
  }
  std::string path(const std::string& name) const { return folder / name; }
  // What went wrong, with the exit code.
  static void expectError(const Arguments& arguments, int exitCode, const std::string& text) {
    const CommandResult result = chapters(arguments);
    EXPECT_EQ(result.exitCode, exitCode) << result.err;
    EXPECT_TRUE(contains(result.err, text)) << result.err;
    EXPECT_EQ(result.out, "");
  }

  const TemporaryFolder folder;
};

// --- The table -------------------------------------------------------------------------------------------

TEST_F(ChaptersCommand, TheTableTellsEachChapterAndTheMedian) {
  const CommandResult result = chapters({talk()});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(startsWith(result.out, path("talk.wav") + "\n"));
  EXPECT_TRUE(contains(result.out, "WAV 16-bit, 8000 Hz, 1 channel, 0:42.0"));
  for (const std::string text :
       {"Chapter 01  0:00.0  0:14.5  0:14.5", "Chapter 02  0:14.5  0:28.5  0:14.0",
        "Chapter 03  0:28.5  0:42.0  0:13.5", "Median ", "2 of 3 more than 2 dB away (!)"})
    EXPECT_TRUE(contains(result.out, text)) << text << "\n" << result.out;
}

TEST_F(ChaptersCommand, DeviationAndGainAreOfTheChosenMetricAgainstItsOwnMedian) {
  const std::string file = talk();
  for (const std::string metric : {"rms", "integratedLUFS"}) {
    const ordered_json record = recordOf({file, "--metric", metric, "--deviation", "1.5"});
    const std::string key = metric == "rms" ? "rmsDBFS" : metric;
    std::vector<float> levels;
    for (const auto& chapter : record["report"]["chapters"]) levels.push_back(chapter[key]);
    std::vector<float> sorted = levels;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(record["median"].get<float>(), sorted[1]);
    for (std::size_t k = 0; k < 3; ++k) {
      const ordered_json& row = record["rows"][k];
      EXPECT_FLOAT_EQ(row["deviation"], levels[k] - sorted[1]);
      EXPECT_EQ(row["isFlagged"], std::fabs(levels[k] - sorted[1]) > 1.5f);
      if (k != 2) {
        EXPECT_FLOAT_EQ(row["gainDB"], sorted[1] - levels[k]);
      }
    }
    EXPECT_FALSE(record["rows"][2].contains("gainDB"));  // the median itself
    EXPECT_EQ(record["settings"]["consistencyMetric"], metric);
    EXPECT_EQ(record["report"]["medianLUFS"], record["median"]);
  }
}

TEST_F(ChaptersCommand, AShortChapterSaysWhyItHasNoLoudness) {
  const CommandResult result = chapters({talk({{13, -20}, {3, -200}, {5, -26}, {3, -200}, {12, -23}})});
  EXPECT_TRUE(contains(result.out, "Chapter 2: shorter than 10 s, so loudness is not measured"))
      << result.out;
  const ordered_json second = recordOf({path("talk.wav")})["report"]["chapters"][1];
  EXPECT_FALSE(second.contains("integratedLUFS"));
  EXPECT_TRUE(second.contains("rmsDBFS"));
}

TEST_F(ChaptersCommand, AFileWithoutSoundHasAnEmptyTable) {
  const CommandResult result = chapters({talk({{20, -200}})});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_TRUE(contains(result.out, "Median not measured (dB RMS); 0 of 0 more than 2 dB away")) << result.out;
}

TEST_F(ChaptersCommand, StrictMakesAFlaggedChapterAFailure) {
  const std::string file = talk();
  EXPECT_EQ(chapters({file}).exitCode, 0);
  EXPECT_EQ(chapters({file, "--strict"}).exitCode, 1);
  EXPECT_EQ(chapters({file, "--strict", "--deviation", "12"}).exitCode, 0);
}

TEST_F(ChaptersCommand, CSVHasALinePerChapter) {
  const CommandResult result = chapters({talk(), "--csv"});
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 4);
  EXPECT_TRUE(startsWith(result.out, "id,index,name,startSec,endSec,durationSec,integratedLUFS,"));
}

// --- Settings --------------------------------------------------------------------------------------------

TEST_F(ChaptersCommand, OptionsOverrideTheSettingsDocument) {
  const std::string file = talk();
  writeBytes(path("s.json"),
             R"({"minSilenceDuration": 4, "blockDuration": 0.05, "consistencyMetric": "integratedLUFS"})");
  const ordered_json all = recordOf({file, "--settings", path("s.json")});
  EXPECT_EQ(all["report"]["chapters"].size(), 1u);
  EXPECT_EQ(all["settings"]["blockDuration"], 0.05);
  EXPECT_EQ(all["settings"]["silenceThresholdDB"], -55.0);
  const ordered_json overridden =
      recordOf({file, "--settings", path("s.json"), "--min-silence", "2.5", "--silence-threshold", "-60.5",
                "--deviation", "3", "--block", "0.2", "--metric", "rms"});
  EXPECT_EQ(overridden["report"]["chapters"].size(), 3u);
  EXPECT_EQ(
      overridden["settings"].dump(),
      R"({"silenceThresholdDB":-60.5,"minSilenceDuration":2.5,"deviationThresholdLU":3.0,"blockDuration":0.2,"consistencyMetric":"rms"})");
}

TEST_F(ChaptersCommand, FaultySettingsAreRefusedByNameAndPlace) {
  const std::string file = talk();
  const std::vector<std::pair<std::string, std::string>> faults = {
      {R"({"blockDuration": 0})", "blockDuration: 0 is not from 0.001 to 60"},
      {R"({"blockDuration": -0.1})", "blockDuration: -0.1 is not from"},
      {R"({"blockDuration": 1e-300})", "blockDuration: 1e-300 is not from"},
      {R"({"minSilenceDuration": 1e300})", "minSilenceDuration: 1e+300 is not from"},
      {R"({"silenceThresholdDB": 12})", "silenceThresholdDB: 12 is not from"},
      {R"({"consistencyMetric": "integrated"})", "consistencyMetric: \"integrated\" is none of"},
      {R"({"deviationThresholdLU": "2"})", "deviationThresholdLU: "},
      {"{", "line 1"},
  };
  for (const auto& [text, fault] : faults) {
    writeBytes(path("s.json"), text);
    expectError({file, "--settings", path("s.json")}, 2, path("s.json") + ": ");
    expectError({file, "--settings", path("s.json")}, 2, fault);
  }
  expectError({file, "--settings", path("none.json")}, 3, path("none.json") + ": ");
}

TEST_F(ChaptersCommand, OptionsOutOfRangeAreRefused) {
  const std::string file = talk();
  for (const auto& [option, value] :
       std::vector<std::pair<std::string, std::string>>{{"--block", "0"},
                                                        {"--block", "nan"},
                                                        {"--block", "1e-9"},
                                                        {"--min-silence", "-1"},
                                                        {"--silence-threshold", "1"},
                                                        {"--deviation", "x"},
                                                        {"--metric", "RMS"}})
    expectError({file, option, value}, 2, option + ": '" + value + "' is ");
  for (const auto& [option, value] : std::vector<std::pair<std::string, std::string>>{
           {"--level", "loud"}, {"--level", "1"}, {"--ceiling", "1"}})
    expectError(Arguments{file, "--render", path("o.wav")} +
                    (option == "--ceiling" ? Arguments{"--level", "-20"} : Arguments{}) +
                    Arguments{option, value},
                2, option + ": '" + value + "' is ");
}

TEST_F(ChaptersCommand, OptionsThatNeedOthersSaySo) {
  const std::string file = talk();
  expectError({file, "--level", "median"}, 2, "--level: needs --render or --split");
  expectError({file, "--render", path("o.wav")}, 2, "--render: needs --level");
  expectError({file, "--split", path("parts"), "--ceiling", "-2"}, 2, "--ceiling: needs --level");
  expectError({file, "--bit-depth", "16"}, 2, "--bit-depth: needs --render or --split");
  expectError({file, "--csv", "--json"}, 2, "--json: does not go together with --csv");
}

// --- Reports ---------------------------------------------------------------------------------------------

TEST_F(ChaptersCommand, AReportCanBeEditedAndUsedAgain) {
  const std::string file = talk();
  ASSERT_EQ(chapters({file, "--report", path("r.json")}).exitCode, 0);
  ordered_json report = ordered_json::parse(readBytes(path("r.json")));
  EXPECT_EQ(report["origin"], "detected");
  EXPECT_EQ(report["fileFingerprint"].dump(),
            R"({"fileName":"talk.wav","durationCS":4200,"sampleRate":8000,"channelCount":1})");
  ASSERT_EQ(report["chapters"].size(), 3u);

  report["origin"] = "manual";
  report["chapters"][1]["name"] = "Zwei";
  report["chapters"][1]["endSec"] = 27.25;
  report["chapters"].erase(0);
  writeBytes(path("edited.json"), report.dump());
  const ordered_json again =
      recordOf({file, "--from-report", path("edited.json"), "--report", path("again.json")})["report"];
  EXPECT_EQ(again, ordered_json::parse(readBytes(path("again.json"))));
  EXPECT_EQ(again["origin"], "manual");
  ASSERT_EQ(again["chapters"].size(), 2u);
  EXPECT_EQ(again["chapters"][0]["name"], "Zwei");
  EXPECT_EQ(again["chapters"][0]["endSec"], 27.25);
  EXPECT_EQ(again["chapters"][0]["index"], 1);
  EXPECT_EQ(again["chapters"][0]["id"], report["chapters"][0]["id"]);
  EXPECT_NE(again["chapters"][0]["rmsDBFS"], report["chapters"][0]["rmsDBFS"]);  // measured anew
  EXPECT_EQ(again["chapters"][1], [&] {
    ordered_json third = report["chapters"][1];
    third["index"] = 2;
    return third;
  }());
}

TEST_F(ChaptersCommand, AReportOfAnotherFileIsRefusedUnlessForced) {
  const std::string file = talk(), other = talk({{13, -20}, {3, -200}, {11, -26}}, "other.wav");
  ASSERT_EQ(chapters({file, "--report", path("r.json")}).exitCode, 0);
  const std::string text =
      "the report is of another file: the name is other.wav, not talk.wav; the duration is 27.00 s, not "
      "42.00 s";
  expectError({other, "--from-report", path("r.json")}, 3, other + ": " + text);
  const CommandResult forced = chapters({other, "--from-report", path("r.json"), "--force"});
  EXPECT_EQ(forced.exitCode, 0);
  EXPECT_TRUE(contains(forced.out, text)) << forced.out;
  EXPECT_TRUE(contains(forced.out, "Chapter 3: behind the end of the file")) << forced.out;
}

TEST_F(ChaptersCommand, FaultyReportsAreRefusedByNameAndPlace) {
  const std::string file = talk();
  ASSERT_EQ(chapters({file, "--report", path("r.json")}).exitCode, 0);
  const ordered_json good = ordered_json::parse(readBytes(path("r.json")));
  const auto expectFault = [&](const ordered_json& report, const std::string& fault) {
    writeBytes(path("bad.json"), report.dump());
    expectError({file, "--from-report", path("bad.json")}, 2, path("bad.json") + ": " + fault);
  };
  const auto with = [&](const std::string& pointer, const ordered_json& value) {
    ordered_json report = good;
    report[ordered_json::json_pointer(pointer)] = value;
    return report;
  };
  expectFault(with("/chapters/1/startSec", -1), "chapters[1].startSec: -1 is not from 0 to 1000000000");
  expectFault(with("/chapters/2/endSec", 1e300), "chapters[2].endSec: 1e+300 is not from 0 to 1000000000");
  expectFault(with("/chapters/2/endSec", 3), "chapters[2].endSec: 3 is not after the start at 28.5");
  expectFault(with("/chapters/0/id", "7"), "chapters[0].id: ");
  expectFault(with("/chapters/0/name", 7), "chapters[0].name: ");
  expectFault(with("/origin", "Music"), "origin: ");
  expectFault(with("/fileFingerprint/durationCS", 1.5), "fileFingerprint.durationCS: ");
  ordered_json crowded = good;
  for (int k = 0; k < 20; ++k) crowded["chapters"].push_back(good["chapters"][0]);
  expectFault(crowded, "chapters[");
  writeBytes(path("bad.json"), "{\"chapters\": [{\"startSec\": NaN}]}");
  expectError({file, "--from-report", path("bad.json")}, 2, path("bad.json") + ": ");
}

// --- Exports ---------------------------------------------------------------------------------------------

TEST_F(ChaptersCommand, ExportsAreWrittenTogether) {
  const std::string file = talk();
  ASSERT_EQ(chapters({file, "--cue", path("c.cue"), "--ffmetadata", path("f.txt"), "--labels", path("l.txt"),
                      "--podcast-chapters", path("p.json"), "--report", path("r.json")})
                .exitCode,
            0);
  EXPECT_TRUE(contains(readBytes(path("c.cue")), "FILE \"talk.wav\" WAVE\n  TRACK 01 AUDIO\n"));
  EXPECT_TRUE(contains(readBytes(path("c.cue")), "    TITLE \"Chapter 02\"\n    INDEX 01 00:14:38\n"));
  EXPECT_TRUE(
      contains(readBytes(path("f.txt")), "TIMEBASE=1/8000\nSTART=116000\nEND=228000\ntitle=Chapter 02\n"));
  EXPECT_TRUE(contains(readBytes(path("l.txt")), "14.500000\t28.500000\tChapter 02\n"));
  EXPECT_EQ(ordered_json::parse(readBytes(path("p.json")))["chapters"][1]["startTime"], 14.5);
  EXPECT_EQ(ordered_json::parse(readBytes(path("r.json")))["chapters"].size(), 3u);
}

TEST_F(ChaptersCommand, NothingIsOverwrittenWithoutForce) {
  const std::string file = talk();
  writeBytes(path("c.cue"), "mine");
  expectError({file, "--cue", path("c.cue"), "--report", path("r.json")}, 3,
              path("c.cue") + ": there is such a file already; --force replaces it");
  EXPECT_EQ(readBytes(path("c.cue")), "mine");
  EXPECT_FALSE(fs::exists(path("r.json")));
  EXPECT_EQ(chapters({file, "--cue", path("c.cue"), "--force"}).exitCode, 0);
  EXPECT_NE(readBytes(path("c.cue")), "mine");
}

TEST_F(ChaptersCommand, NoInputIsOverwrittenEvenWithForce) {
  const std::string file = talk();
  const std::string before = readBytes(file);
  writeBytes(path("s.json"), "{}");
  for (const std::string option : {"--report", "--cue", "--labels"})
    expectError({file, option, file, "--force"}, 3, "it is one of the files that are read");
  expectError({file, "--level", "median", "--render", file, "--force"}, 3,
              "it is one of the files that are read");
  expectError({file, "--settings", path("s.json"), "--report", path("s.json"), "--force"}, 3,
              "it is one of the files that are read");
  EXPECT_EQ(readBytes(file), before);
}

TEST_F(ChaptersCommand, TwoOutputsInOnePlaceAreRefused) {
  expectError({talk(), "--cue", path("x"), "--labels", path("./x")}, 3, "it would be written twice");
  EXPECT_EQ(folder.names(), (Arguments{"talk.wav"}));
}

TEST_F(ChaptersCommand, ACueSheetThatCannotHoldTheChaptersIsRefusedWithTheReason) {
  const std::string file = talk();
  ASSERT_EQ(chapters({file, "--report", path("r.json")}).exitCode, 0);
  ordered_json report = ordered_json::parse(readBytes(path("r.json")));
  const ordered_json chapter = report["chapters"][0];
  report["chapters"].clear();
  for (int k = 0; k < 100; ++k) {
    report["chapters"].push_back(chapter);
    report["chapters"][static_cast<std::size_t>(k)]["startSec"] = 0.4 * k;
    report["chapters"][static_cast<std::size_t>(k)]["endSec"] = 0.4 * k + 0.4;
  }
  writeBytes(path("many.json"), report.dump());
  expectError({file, "--from-report", path("many.json"), "--cue", path("c.cue"), "--labels", path("l.txt")},
              3, path("c.cue") + ": a cue sheet has at most 99 tracks, and there are 100 chapters");
  EXPECT_FALSE(fs::exists(path("l.txt")));
  EXPECT_EQ(chapters({file, "--from-report", path("many.json"), "--labels", path("l.txt")}).exitCode, 0);
}

// --- Leveling --------------------------------------------------------------------------------------------

double rmsOf(const Audio& audio, double startSec, double endSec) {
  const auto& samples = audio.channels.at(0);
  return test::rmsDB(
      {samples.begin() + std::llround(startSec * rate), samples.begin() + std::llround(endSec * rate)});
}

TEST_F(ChaptersCommand, LeveledChaptersEndAtTheMedian) {
  const std::string file = talk();
  const CommandResult result =
      chapters({file, "--level", "median", "--render", path("o.wav"), "--json", "--strict"});
  ASSERT_EQ(result.exitCode, 0) << result.err;  // no chapter is flagged any more
  const ordered_json record = ordered_json::parse(result.out);
  EXPECT_EQ(record["leveled"]["target"], record["median"]);
  EXPECT_TRUE(record["leveled"]["misses"].empty());
  const Audio audio = test::readAudio(path("o.wav"));
  const double target = record["median"];
  for (const auto& [start, end] : {std::pair{0.0, 14.5}, {14.5, 28.5}, {28.5, 42.0}})
    EXPECT_NEAR(rmsOf(audio, start, end), target, 0.1);
  for (std::size_t k = 0; k < 3; ++k) {
    EXPECT_NEAR(record["leveled"]["chapters"][k]["rmsDBFS"].get<double>(), target, 0.1);
    if (k != 2) {
      EXPECT_NEAR(record["leveled"]["rows"][k]["gainDB"], record["rows"][k]["gainDB"].get<double>(), 0.1);
    }
  }
  // The third one is the median: nothing happens to it.
  const Audio before = test::readAudio(file);
  EXPECT_TRUE(std::equal(before.channels[0].begin() + 228'000, before.channels[0].end(),
                         audio.channels[0].begin() + 228'000));
  EXPECT_EQ(AudioFile(path("o.wav")).formatName(), "WAV 16-bit");
}

TEST_F(ChaptersCommand, TheCueSheetOfALeveledProgrammeNamesItsFile) {
  ASSERT_EQ(
      chapters({talk(), "--level", "median", "--render", path("o.wav"), "--cue", path("c.cue")}).exitCode, 0);
  EXPECT_TRUE(startsWith(readBytes(path("c.cue")), "FILE \"o.wav\" WAVE\n"));
}

TEST_F(ChaptersCommand, TheTableIsPrintedAgainAfterLeveling) {
  const CommandResult result =
      chapters({talk(), "--level", "-25", "--render", path("o.flac"), "--format", "flac"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_TRUE(contains(result.out, "Leveled to             -25.00 dB RMS\n")) << result.out;
  EXPECT_TRUE(contains(result.out, "Applied"));
  EXPECT_TRUE(contains(result.out, "0 of 3 more than 2 dB away"));
}

TEST_F(ChaptersCommand, AChapterThatCannotBeLeveledIsNamedAndTheExitCodeIs1) {
  const std::string file = talk();
  const CommandResult result =
      chapters({file, "--level", "-3", "--ceiling", "-6", "--render", path("o.wav")});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_TRUE(contains(result.out, "Not leveled            Chapter 1 (Chapter 01): it ends at "))
      << result.out;
  EXPECT_TRUE(contains(result.out, "held back by the limiter"));
  EXPECT_TRUE(fs::exists(path("o.wav")));
}

TEST_F(ChaptersCommand, TruePeaksStayUnderTheCeilingAfterAGain) {
  const std::string file = talk();
  const ordered_json record =
      recordOf({file, "--level", "-19", "--ceiling", "-10", "--render", path("o.wav"), "--bit-depth", "24"});
  EXPECT_GT(record["leveled"]["largestReductionDB"], 0.1);
  for (const auto& chapter : record["leveled"]["chapters"]) EXPECT_LE(chapter["truePeakDBTP"], -10.0);
  EXPECT_EQ(AudioFile(path("o.wav")).formatName(), "WAV 24-bit");
}

TEST_F(ChaptersCommand, APeakThatNoGainPushedOverTheCeilingIsLeftAndTold) {
  const CommandResult result =
      chapters({talk(), "--level", "-26", "--ceiling", "-20", "--render", path("o.wav")});
  EXPECT_TRUE(contains(result.out, "Chapter 1: not raised, and its true peak of -1")) << result.out;
  EXPECT_FALSE(contains(result.out, "Chapter 2: not raised"));
}

TEST_F(ChaptersCommand, NothingToLevelIsAnErrorThatWritesNothing) {
  expectError({talk({{20, -200}}), "--level", "median", "--render", path("o.wav")}, 3,
              "there is no chapter whose level could be matched");
  EXPECT_EQ(folder.names(), (Arguments{"talk.wav"}));
}

TEST_F(ChaptersCommand, AnExistingRenderingIsKept) {
  const std::string file = talk();
  writeBytes(path("o.wav"), "mine");
  expectError({file, "--level", "median", "--render", path("o.wav")}, 3,
              path("o.wav") + ": there is such a file already; --force replaces it");
  EXPECT_EQ(readBytes(path("o.wav")), "mine");
}

TEST_F(ChaptersCommand, RenderingInterruptedLeavesNothing) {
  test::writeAudio(path("long.flac"), audioOf({{600, -20}, {3, -200}, {600, -30}}), rate, test::flac);
  test::RunningCommand command({"chapters", path("long.flac"), "--level", "median", "--render",
                                path("o.flac"), "--report", path("r.json"), "--split", path("parts")});
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  command.signal(SIGINT);
  const CommandResult result = command.wait();
  if (result.exitCode == 0) GTEST_SKIP() << "it was done before the signal came";
  EXPECT_EQ(result.exitCode, 130);
  EXPECT_FALSE(fs::exists(path("o.flac")));
  EXPECT_FALSE(fs::exists(path("r.json")));
}

// --- Splitting -------------------------------------------------------------------------------------------

TEST_F(ChaptersCommand, EachChapterBecomesAFileOfItsOwn) {
  const std::string file = talk();
  ASSERT_EQ(chapters({file, "--split", path("parts")}).exitCode, 0);
  const Audio audio = test::readAudio(file);
  const std::vector<std::pair<std::string, std::pair<std::int64_t, std::int64_t>>> parts = {
      {"01 Chapter 01.wav", {0, 116'000}},
      {"02 Chapter 02.wav", {116'000, 228'000}},
      {"03 Chapter 03.wav", {228'000, 336'000}}};
  EXPECT_EQ(std::distance(fs::directory_iterator(path("parts")), {}), 3);
  for (const auto& [name, frames] : parts)
    EXPECT_EQ(test::readAudio(folder / ("parts/" + name)).channels,
              test::cut(audio, frames.first, frames.second).channels)
        << name;
  AudioFile second(folder / "parts/02 Chapter 02.wav");
  EXPECT_EQ(second.metadata().tags[AudioTag::title], "Chapter 02");
  EXPECT_EQ(second.metadata().tags[AudioTag::trackNumber], "2");
}

TEST_F(ChaptersCommand, PartsOfALeveledProgrammeAreCutsOfItsRendering) {
  const std::string file = talk();
  ASSERT_EQ(chapters({file, "--level", "-24", "--render", path("o.wav"), "--split", path("parts")}).exitCode,
            0);
  const Audio audio = test::readAudio(path("o.wav"));
  EXPECT_EQ(test::readAudio(folder / "parts/01 Chapter 01.wav").channels,
            test::cut(audio, 0, 116'000).channels);
  EXPECT_EQ(test::readAudio(folder / "parts/03 Chapter 03.wav").channels,
            test::cut(audio, 228'000, 336'000).channels);
  // The same without a rendering of the whole.
  const CommandResult alone = chapters({file, "--level", "-24", "--split", path("alone")});
  ASSERT_EQ(alone.exitCode, 0) << alone.err;
  EXPECT_EQ(readBytes(folder / "alone/02 Chapter 02.wav"), readBytes(folder / "parts/02 Chapter 02.wav"));
}

TEST_F(ChaptersCommand, PartsHaveSafeNamesAndMayOverlap) {
  const std::string file = talk();
  ASSERT_EQ(chapters({file, "--report", path("r.json")}).exitCode, 0);
  ordered_json report = ordered_json::parse(readBytes(path("r.json")));
  report["chapters"][0]["name"] = "../a/b";
  report["chapters"][0]["endSec"] = 20;
  report["chapters"][1]["name"] = "";
  writeBytes(path("e.json"), report.dump());
  ASSERT_EQ(chapters({file, "--from-report", path("e.json"), "--split", path("parts"), "--format", "flac"})
                .exitCode,
            0);
  const Audio audio = test::readAudio(file);
  EXPECT_EQ(test::readAudio(folder / "parts/01 .._a_b.flac").channels, test::cut(audio, 0, 160'000).channels);
  EXPECT_EQ(test::readAudio(folder / "parts/02.flac").channels, test::cut(audio, 116'000, 228'000).channels);
}

TEST_F(ChaptersCommand, ExistingPartsAreKept) {
  const std::string file = talk();
  fs::create_directory(path("parts"));
  writeBytes(folder / "parts/02 Chapter 02.wav", "mine");
  expectError({file, "--split", path("parts")}, 3, "02 Chapter 02.wav: there is such a file already");
  EXPECT_EQ(readBytes(folder / "parts/02 Chapter 02.wav"), "mine");
  EXPECT_FALSE(fs::exists(folder / "parts/01 Chapter 01.wav"));
  EXPECT_EQ(chapters({file, "--split", path("parts"), "--force"}).exitCode, 0);
  expectError({file, "--split", file}, 3, "it is no folder");
}

TEST_F(ChaptersCommand, LossyInputNeedsAFormatForItsParts) {
  test::writeAudio(path("t.ogg"), audioOf(threeParts), rate, test::vorbis);
  expectError({path("t.ogg"), "--split", path("parts")}, 3, "it is lossy");
  ASSERT_EQ(chapters({path("t.ogg"), "--split", path("parts"), "--format", "flac"}).exitCode, 0);
  EXPECT_TRUE(fs::exists(folder / "parts/01 Chapter 01.flac"));
}

// --- Files -----------------------------------------------------------------------------------------------

TEST_F(ChaptersCommand, AFileThatCannotBeReadIsNamed) {
  expectError({path("none.wav")}, 3, path("none.wav") + ": ");
  writeBytes(path("text.wav"), "no audio");
  expectError({path("text.wav")}, 3, path("text.wav") + ": ");
}

TEST_F(ChaptersCommand, SamplesThatAreNotFiniteAreMeasuredButNotLeveled) {
  Audio audio = audioOf(threeParts);
  audio.channels[0][1000] = std::nanf("");
  test::writeAudio(path("x.wav"), audio, rate, test::floatWAV);
  EXPECT_EQ(chapters({path("x.wav")}).exitCode, 0);
  expectError({path("x.wav"), "--level", "-20", "--render", path("o.wav")}, 3, "1 sample is not finite");
}

TEST_F(ChaptersCommand, MemoryDoesNotGrowWithTheSamples) {
  test::writeAudio(path("short.wav"), audioOf({{20, -20}, {3, -200}, {20, -20}}), rate, pcm16);
  test::writeAudio(path("long.wav"), audioOf({{900, -20}, {3, -200}, {900, -20}}), rate, pcm16);
  const std::int64_t few = test::runVellumWatchingMemory({"chapters", path("short.wav")}).peakKilobytes;
  const std::int64_t many = test::runVellumWatchingMemory({"chapters", path("long.wav")}).peakKilobytes;
  EXPECT_GT(few, 1000);
  EXPECT_LT(many - few, 10'000);  // the long one has 56 MB as floats
}

}  // namespace
}  // namespace vellum
