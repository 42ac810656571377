// `vellum edit`, end to end.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <numbers>
#include <numeric>
#include <random>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/CommandText.hpp"
#include "Support/Picture.hpp"
#include "Support/RealAudio.hpp"
#include "Support/RunCommand.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using nlohmann::ordered_json;
using test::Arguments;
using test::Audio;
using test::CommandResult;
using test::contains;
using test::operator+;
using test::runVellum;
using test::TemporaryFolder;

const test::FileKind wav16{"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16};

std::size_t at(std::int64_t index) {
  return static_cast<std::size_t>(index);
}

Audio noise(std::size_t channels, double seconds, double sampleRate = 48000) {
  std::mt19937 rng(5);
  return test::noiseAudio(rng, channels, static_cast<std::int64_t>(seconds * sampleRate), 0.1);
}

// A band's level in every frame of 512 samples that lies in [from, to), by direct transforms.
std::vector<double> frameLevels(const std::vector<float>& samples, std::int64_t from, std::int64_t to,
                                double lowHz, double highHz, double sampleRate) {
  constexpr std::int64_t size = 512;
  std::vector<std::vector<std::complex<double>>> bins;
  for (double hz = lowHz; hz <= highHz; hz += sampleRate / size) {
    std::vector<std::complex<double>>& bin = bins.emplace_back();
    for (std::int64_t n = 0; n < size; ++n)
      bin.push_back((1 - std::cos(2 * std::numbers::pi * static_cast<double>(n) / size)) / 2 *
                    std::polar(1.0, 2 * std::numbers::pi * hz * static_cast<double>(n) / sampleRate));
  }
  std::vector<double> levels;
  for (std::int64_t start = from; start + size <= to; start += size / 4) {
    double power = 0;
    for (const auto& bin : bins) {
      std::complex<double> sum = 0;
      for (std::int64_t n = 0; n < size; ++n) sum += bin[at(n)] * static_cast<double>(samples[at(start + n)]);
      power += std::norm(sum);
    }
    levels.push_back(10 * std::log10(power + 1e-12));
  }
  return levels;
}

double mean(std::span<const double> values) {
  return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

// The lowest and the highest mean of so many values in a row.
std::pair<double, double> extremes(std::span<const double> values, std::size_t length) {
  std::pair<double, double> found = {mean(values.first(length)), mean(values.first(length))};
  for (std::size_t k = 1; k + length <= values.size(); ++k) {
    found.first = std::min(found.first, mean(values.subspan(k, length)));
    found.second = std::max(found.second, mean(values.subspan(k, length)));
  }
  return found;
}

double bandLevel(const std::vector<float>& samples, std::int64_t from, std::int64_t to, double lowHz,
                 double highHz, double sampleRate) {
  return mean(frameLevels(samples, from, to, lowHz, highHz, sampleRate));
}

// --- Real speech -----------------------------------------------------------------------------------------

// A beep of 0.3 s mixed into sentences at several places, found from one point inside it, and repaired. What
// is left in its band (a third of an octave) is compared with the speech of 0.15 s before and behind it.
//
// That holds for the mean only, because speech scatters: in this band the 0.3 s under a beep differ from the
// speech beside them by 9 dB (root mean square over these 20 places, at most 21), and within 1 s to either
// side the loudest 0.3 s from the quietest by 13 to 40 dB. At a single place, what is left has to be a level
// that the speech itself has around there, within 3 dB; with the beep it is none.
TEST(EditCommand, ABeepInSpeechIsFoundFromOnePointAndRemoved) {
  constexpr double rate = 16'000, hz = 1500, seconds = 0.3;
  const double low = hz / std::pow(2, 1.0 / 6), high = hz * std::pow(2, 1.0 / 6);
  const TemporaryFolder folder;
  double residue = 0, around = 0, beep = 0;
  int places = 0;
  for (const std::string& file : test::speechFiles())
    for (const double start : {0.9, 1.3, 1.7, 2.1}) {
      const Audio speech = test::readAudio(file);
      ASSERT_EQ(speech.channels.size(), 1u);
      const auto from = static_cast<std::int64_t>(start * rate);
      const auto to = static_cast<std::int64_t>((start + seconds) * rate);
      Audio mixed = speech;
      const std::vector<float> tone = test::sine(rate, to - from, hz, 0.2);
      for (std::int64_t n = from; n < to; ++n) {
        const double ramp =
            std::min({1.0, static_cast<double>(n - from) / 80, static_cast<double>(to - n) / 80});
        mixed.channels[0][at(n)] += static_cast<float>(ramp) * tone[at(n - from)];
      }
      test::writeAudio(folder / "in.wav", mixed, 16'000, wav16);
      const std::string point = std::to_string(start + seconds / 2) + ",1500";
      const CommandResult result = runVellum({"edit", folder / "in.wav", folder / "out.wav", "--force",
                                              "--wand", point, "--repair", "--fft-size", "512"});
      ASSERT_EQ(result.exitCode, 0) << result.err;
      const std::vector<float> out = test::readAudio(folder / "out.wav").channels[0];
      ASSERT_EQ(out.size(), speech.channels[0].size());

      const auto level = [&](const std::vector<float>& samples, std::int64_t a, std::int64_t b) {
        return bandLevel(samples, a, b, low, high, rate);
      };
      constexpr std::int64_t beside = 2400;
      const double left = level(out, from, to), beeping = level(mixed.channels[0], from, to);
      beep += beeping;
      residue += left;
      around +=
          (level(speech.channels[0], from - beside, from) + level(speech.channels[0], to, to + beside)) / 2;
      ++places;
      const auto [quietest, loudest] =
          extremes(frameLevels(speech.channels[0], std::max<std::int64_t>(0, from - 16'000),
                               std::min(speech.frameCount(), to + 16'000), low, high, rate),
                   frameLevels(out, from, to, low, high, rate).size());
      EXPECT_LT(left, loudest + 3) << file << ", " << start << " s";
      EXPECT_GT(left, quietest - 3) << file << ", " << start << " s";
      EXPECT_GT(beeping, loudest + 3) << file << ", " << start << " s";

      // Far away nothing has changed.
      const std::vector<float> in = test::readAudio(folder / "in.wav").channels[0];
      for (std::int64_t n = 0; n < from - 2000; ++n) ASSERT_EQ(out[at(n)], in[at(n)]);
      for (auto n = at(to + 2000); n < in.size(); ++n) ASSERT_EQ(out[n], in[n]);
    }
  EXPECT_GE(places, 20);
  EXPECT_NEAR(residue / places, around / places, 3);
  EXPECT_GT(beep / places, around / places + 20);
}

// --- Files -----------------------------------------------------------------------------------------------

TEST(EditCommand, OneChannelOfAStereoFileIsEdited) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(2, 3), 48000, wav16);
  const CommandResult result = runVellum({"edit", folder / "in.wav", folder / "out.wav", "--rect",
                                          "1,2,500,4000", "--attenuate", "-40", "--channels", "1"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const Audio in = test::readAudio(folder / "in.wav"), out = test::readAudio(folder / "out.wav");
  EXPECT_EQ(out.channels[0], in.channels[0]);
  const auto drop = [&](std::int64_t from, std::int64_t to, double low, double high) {
    return bandLevel(in.channels[1], from, to, low, high, 48000) -
           bandLevel(out.channels[1], from, to, low, high, 48000);
  };
  EXPECT_GT(drop(55'000, 60'000, 1000, 3000), 30);
  EXPECT_LT(std::abs(drop(55'000, 60'000, 6000, 8000)), 0.2);
  EXPECT_LT(std::abs(drop(110'000, 115'000, 1000, 3000)), 0.2);
}

TEST(EditCommand, WhatWasDoneIsToldStepByStep) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(2, 3), 48000, wav16);
  test::writeBytes(folder / "edits.json", R"({"steps": [
    {"name": "whistle", "selection": [{"shape": {"rect": {"fromSec": 1, "toSec": 2, "lowHz": 500, "highHz": 4000}}}],
     "operation": {"attenuate": {"dB": -20}}, "channels": [1]},
    {"selection": [{"shape": {"rect": {"fromSec": 1, "toSec": 2, "lowHz": 500, "highHz": 600}}},
                   {"shape": {"rect": {"fromSec": 0.5, "toSec": 2.5, "lowHz": 0, "highHz": 9000}},
                    "mode": "subtract"}],
     "operation": {"repair": {}}}]})");
  const CommandResult result =
      runVellum({"edit", folder / "in.wav", folder / "out.wav", "--script", folder / "edits.json"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err, "");
  const std::string expected[] = {"  Step 1                 whistle: attenuate, -20 dB\n",
                                  // 95 columns from 92 to 186, 151 bins from 21 to 171
                                  "  Selected               14345 cells, 1.003 to 2.005 s, 492 to 4008 Hz\n",
                                  "  Channels               1\n",
                                  "  Changed                0.971 to 2.037 s\n",
                                  "  Step 2                 repair\n", "  Selected               nothing\n",
                                  "  Format                 WAV 16-bit\n"};
  for (const std::string& line : expected) EXPECT_TRUE(contains(result.out, line));
  const ordered_json told = ordered_json::parse(
      runVellum({"edit", folder / "in.wav", "--script", folder / "edits.json", "--dry-run", "--json"}).out);
  EXPECT_EQ(told.at("isDryRun"), true);
  const ordered_json& first = told.at("steps").at(0);
  EXPECT_EQ(first.at("cells"), 14345);
  EXPECT_EQ(first.at("channels"), ordered_json::array({1}));
  EXPECT_NEAR(first.at("changeDB").get<double>(), -19.5, 0.6);
  EXPECT_EQ(told.at("steps").at(1).at("cells"), 0);
  EXPECT_FALSE(told.at("steps").at(1).contains("fromSec"));
}

TEST(EditCommand, OptionsSayTheSameAsAScript) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(2, 3), 48000, wav16);
  struct Case {
    Arguments options;
    std::string step;
  };
  const Case cases[] = {
      {{"--rect", "0:01,0:01.5,500,4000", "--attenuate", "-20"},
       R"("selection": [{"shape": {"rect": {"fromSec": 1, "toSec": 1.5, "lowHz": 500, "highHz": 4000}}}],
          "operation": {"attenuate": {"dB": -20}})"},
      {{"--polygon", "1,500,2,500,1.5,4000", "--erase-to-floor", "3", "--fft-size", "1024", "--crossfade",
        "20"},
       R"("selection": [{"shape": {"polygon": {"points": [[1, 500], [2, 500], [1.5, 4000]]}}}],
          "operation": {"eraseToFloor": {"dB": 3}}, "fftSize": 1024, "crossfadeMs": 20)"},
      {{"--ellipse", "1,1000,0.2,300", "--repair", "--feather", "30,200", "--channels", "0"},
       R"("selection": [{"shape": {"ellipse": {"atSec": 1, "hz": 1000, "radiusSec": 0.2, "radiusHz": 300}}}],
          "operation": {"repair": {}}, "feather": {"timeMs": 30, "freqHz": 200}, "channels": [0])"},
      {{"--wand", "1,1000", "--tolerance", "6", "--reach", "0.5", "--most-cells", "500", "--grow", "2,3",
        "--attenuate", "+6"},
       R"("selection": [{"shape": {"wand": {"atSec": 1, "hz": 1000, "toleranceDB": 6, "reachSec": 0.5,
                                            "mostCells": 500}}, "grow": {"columns": 2, "bins": 3}}],
          "operation": {"attenuate": {"dB": 6}})"}};
  std::string last = test::readBytes(folder / "in.wav");
  for (const auto& [options, step] : cases) {
    test::writeBytes(folder / "edits.json", "{\"steps\": [{" + step + "}]}");
    const CommandResult byOptions =
        runVellum(Arguments{"edit", folder / "in.wav", folder / "a.wav", "--force"} + options);
    const CommandResult byScript = runVellum(
        {"edit", folder / "in.wav", folder / "b.wav", "--force", "--script", folder / "edits.json"});
    EXPECT_EQ(byOptions.exitCode, 0) << byOptions.err;
    EXPECT_EQ(byScript.exitCode, 0) << byScript.err;
    EXPECT_EQ(test::readBytes(folder / "a.wav"), test::readBytes(folder / "b.wav")) << options[0];
    EXPECT_NE(test::readBytes(folder / "a.wav"), last) << options[0];
    last = test::readBytes(folder / "a.wav");
  }
}

TEST(EditCommand, MemoryDoesNotGrowWithTheFile) {
  const TemporaryFolder folder;
  Audio audio = noise(1, 60, 16'000);
  test::writeAudio(folder / "short.flac", audio, 16'000, test::flac);
  audio.channels[0].resize(at(30 * 60 * 16'000));  // 115 MB as floats
  test::writeAudio(folder / "long.flac", audio, 16'000, test::flac);
  const auto peak = [&](const std::string& name) {
    const CommandResult result =
        test::runVellumWatchingMemory({"edit", folder / name, folder / ("out-" + name), "--rect",
                                       "30,31,500,4000", "--erase-to-floor", "0"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return result.peakKilobytes;
  };
  const std::int64_t few = peak("short.flac"), many = peak("long.flac");
  EXPECT_GT(few, 0);
  EXPECT_LE(many, few + few / 2);
}

// --- Before it runs --------------------------------------------------------------------------------------

// Drawn as 400 columns of 5 ms and 400 rows of 60 Hz, from (60, 34).
TEST(EditCommand, ASpectrogramShowsWhatAScriptWouldTouch) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(2, 2), 48000, wav16);
  const auto writeScript = [&](const std::string& name, const std::string& to) {
    test::writeBytes(folder / name, R"({"steps": [{"name": "whistle", "operation": {"repair": {}},
      "selection": [{"shape": {"rect": {"fromSec": 1, "toSec": )" +
                                        to + R"(, "lowHz": 3000, "highHz": 9000}}}]}]})");
  };
  const auto draw = [&](const std::string& picture, const Arguments& options) {
    const CommandResult result = runVellum(Arguments{"spectrogram", folder / "in.wav", folder / picture,
                                                     "--force", "--size", "544x480", "--scale", "linear"} +
                                           options);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return test::Picture(folder / picture);
  };
  const test::Picture plain = draw("plain.png", {});
  for (const auto& [to, last] : {std::pair<std::string, int>{"1.5", 300}, {"1.8", 360}}) {
    const int lastColumn = last;
    writeScript("edits.json", to);
    const test::Picture drawn = draw("edits.png", {"--script", folder / "edits.json"});
    ASSERT_EQ(drawn.width(), plain.width());
    ASSERT_EQ(drawn.height(), plain.height());
    // 9,000 Hz is the lower edge of row 249, 3,000 Hz that of row 349. Cells are 10.7 ms and 23 Hz, so that
    // what is selected may end three columns and a row from the shape's edges.
    int labelled = 0;
    for (int x = 0; x < plain.width(); ++x)
      for (int y = 0; y < plain.height(); ++y) {
        const int column = x - 60, row = y - 34;
        const auto lies = [&](int margin, int rows) {
          return column >= 200 - margin && column < lastColumn + margin && row >= 250 - rows &&
                 row < 350 + rows;
        };
        const bool differs = drawn.at(x, y) != plain.at(x, y);
        const bool isLabel = column >= 197 && column < 270 && row >= 228 && row < 249;
        ASSERT_TRUE(differs || !lies(-3, -1)) << to << ": " << column << ", " << row;
        ASSERT_TRUE(!differs || isLabel || lies(3, 1)) << to << ": " << column << ", " << row;
        if (!lies(3, 1) && differs) ++labelled;
      }
    EXPECT_GT(labelled, 16 * 40);  // the name, on a ground of its own
  }

  writeScript("edits.json", "9");
  const CommandResult faulty =
      runVellum({"spectrogram", folder / "in.wav", folder / "x.png", "--script", folder / "edits.json"});
  EXPECT_EQ(faulty.exitCode, 2);
  EXPECT_TRUE(contains(faulty.err, "edits.json: steps[0].selection[0]: it is 8.000 s wide"));
  // A script is an input, and kept.
  writeScript("script.png", "1.5");
  const std::string script = test::readBytes(folder / "script.png");
  EXPECT_EQ(runVellum({"spectrogram", folder / "in.wav", folder / "script.png", "--force", "--script",
                       folder / "script.png"})
                .exitCode,
            3);
  EXPECT_EQ(test::readBytes(folder / "script.png"), script);
  EXPECT_EQ(folder.names(), (Arguments{"edits.json", "edits.png", "in.wav", "plain.png", "script.png"}));
}

// --- What is refused -------------------------------------------------------------------------------------

TEST(EditCommand, AFaultyScriptIsToldWithItsPlaceAndNothingIsWritten) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(2, 2), 48000, wav16);
  struct Case {
    std::string script, fault;
  };
  const std::string rect =
      R"("selection": [{"shape": {"rect": {"fromSec": 0, "toSec": 1, "lowHz": 0, "highHz": 9}}}])";
  const std::string repair = R"("operation": {"repair": {}})";
  for (const auto& [script, fault] :
       {Case{"{", "line 1, column 2"}, Case{"{}", ": steps: the member \"steps\" is missing"},
        Case{"{\"steps\": [{" + rect + R"(, "operation": {"erase": {}}}]})",
             ": steps[0].operation: there is no case \"erase\""},
        Case{"{\"steps\": [{" + rect + ", " + repair + R"(, "fftSize": 3000}]})",
             ": steps[0].fftSize: 3000 is no power of two"},
        Case{"{\"steps\": [{" + rect + ", " + repair +
                 R"(}, {"selection": [{"shape": {"wand": {"atSec": 2.5, )" + R"("hz": 100}}}], )" + repair +
                 "}]}",
             ": steps[1].selection[0]: it lies at 2.500 s, outside of the file, which is 2.000 s "
             "long"},
        Case{"{\"steps\": [{" + rect + ", " + repair + R"(, "channels": [2]}]})",
             ": steps[0].channels[0]: there is no channel 2: it has 2, counted from 0"}}) {
    test::writeBytes(folder / "edits.json", script);
    const CommandResult result =
        runVellum({"edit", folder / "in.wav", folder / "out.wav", "--script", folder / "edits.json"});
    EXPECT_EQ(result.exitCode, 2) << script;
    EXPECT_TRUE(contains(result.err, (folder / "edits.json").string() + ": ")) << script;
    EXPECT_TRUE(contains(result.err, fault)) << script;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(folder.names(), (Arguments{"edits.json", "in.wav"}));
  }
  EXPECT_EQ(runVellum({"edit", folder / "in.wav", folder / "out.wav", "--script", folder / "none"}).exitCode,
            3);
}

TEST(EditCommand, WrongOptionsAreToldAndNothingIsWritten) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(2, 2), 48000, wav16);
  struct Case {
    Arguments options;
    std::string fault;
  };
  const Arguments rect = {"--rect", "0,1,0,900"}, repair = {"--repair"};
  const Case cases[] = {
      {{}, "--rect: one of --rect, --polygon, --ellipse, --wand is needed, or --script"},
      {rect, "--attenuate: one of --attenuate, --erase-to-floor, --repair is needed, or --script"},
      {rect + repair + Arguments{"--attenuate", "-3"}, "--repair: does not go together with --attenuate"},
      {rect + repair + Arguments{"--wand", "1,2"}, "--wand: does not go together with --rect"},
      {repair + Arguments{"--rect", "0,1,0"}, "--rect: '0,1,0' is not FROM,TO,LOW,HIGH"},
      {repair + Arguments{"--rect", "0,nan,0,9"}, "--rect: 'nan' is not a number from -1000000 to 1000000 s"},
      {repair + Arguments{"--rect", "0,1,0,inf"},
       "--rect: 'inf' is not a number from -1000000 to 1000000 Hz"},
      {repair + Arguments{"--rect", "1,0,0,9"}, "--rect: the end at 0 s lies before the start at 1 s"},
      {repair + Arguments{"--rect", "0,9,0,9"}, "--rect: it is 9.000 s wide, and the file is 2.000 s long"},
      {repair + Arguments{"--polygon", "1,2,3,4"},
       "--polygon: '1,2,3,4' is not SEC,HZ,SEC,HZ,SEC,HZ or more"},
      {repair + Arguments{"--ellipse", "1,2,-3,4"}, "--ellipse: '-3' is not a number from 0 to 1000000 s"},
      {repair + Arguments{"--wand", "5,100"}, "--wand: it lies at 5.000 s, outside of the file"},
      {repair + Arguments{"--wand", "1,30000"}, "--wand: it lies at 30000 Hz, outside of the file"},
      {repair + Arguments{"--wand", "1,100", "--tolerance", "-1"},
       "--tolerance: '-1' is not a number from 0"},
      {repair + Arguments{"--wand", "1,100", "--reach", "99"},
       "--reach: '99' is not a number from 0 to 60 s"},
      {repair + Arguments{"--wand", "1,100", "--most-cells", "0"}, "--most-cells: '0' is not"},
      {repair + rect + Arguments{"--grow", "3"}, "--grow: '3' is not COLUMNS,BINS"},
      {rect + Arguments{"--attenuate", "25"}, "--attenuate: '25' is not a number from -96 to 24 dB"},
      {rect + Arguments{"--erase-to-floor", "-1"}, "--erase-to-floor: '-1' is not a number from 0 to 200 dB"},
      {repair + rect + Arguments{"--fft-size", "1000"}, "--fft-size: '1000' is not a power of two from 64"},
      {repair + rect + Arguments{"--fft-size", "131072"}, "--fft-size: '131072' is not a power of two"},
      {repair + rect + Arguments{"--feather", "3"}, "--feather: '3' is not MS,HZ"},
      {repair + rect + Arguments{"--crossfade", "nan"},
       "--crossfade: 'nan' is not a number from 0 to 10000 ms"},
      {repair + rect + Arguments{"--channels", "0,2"}, "--channels: there is no channel 2: it has 2"},
      {repair + rect + Arguments{"--script", "x"}, "--rect: does not go together with --script"}};
  for (const auto& [options, fault] : cases) {
    const CommandResult result =
        runVellum(Arguments{"edit", folder / "in.wav", folder / "out.wav"} + options);
    EXPECT_EQ(result.exitCode, 2) << fault;
    EXPECT_TRUE(contains(result.err, fault));
    EXPECT_EQ(folder.names(), (Arguments{"in.wav"}));
  }
  const CommandResult withoutOutput = runVellum(Arguments{"edit", folder / "in.wav"} + rect + repair);
  EXPECT_EQ(withoutOutput.exitCode, 2);
  EXPECT_TRUE(contains(withoutOutput.err, "OUT: an output is needed, or --dry-run"));
}

TEST(EditCommand, TheShortestFilesDoNotStopTheProgram) {
  const TemporaryFolder folder;
  for (const std::int64_t frames : {0, 1, 63, 64, 100}) {
    test::writeAudio(folder / "in.wav", test::cut(noise(1, 1), 0, frames), 48000, wav16);
    for (const Arguments& options :
         {Arguments{"--rect", "0,0,0,24000", "--attenuate", "-3"}, Arguments{"--wand", "0,0", "--repair"},
          Arguments{"--rect", "0,0,0,24000", "--erase-to-floor", "0"}}) {
      const CommandResult result = runVellum(
          Arguments{"edit", "--force", folder / "in.wav", folder / "out.wav", "--fft-size", "64"} + options);
      EXPECT_EQ(result.exitCode, frames == 0 ? 3 : frames < 64 ? 2 : 0) << frames << result.err;
      EXPECT_EQ(result.err.find("--fft-size: the file has ") != std::string::npos, frames > 0 && frames < 64);
      EXPECT_EQ(result.err.find("in.wav: it holds no audio") != std::string::npos, frames == 0);
    }
  }
}

TEST(EditCommand, TheScriptIsNeverReplacedByTheOutput) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(1, 2), 48000, wav16);
  const std::string script = R"({"steps": [{"operation": {"repair": {}}, "selection": [{"shape": {"rect":
      {"fromSec": 0.5, "toSec": 1, "lowHz": 500, "highHz": 4000}}}]}]})";
  test::writeBytes(folder / "edits.wav", script);
  const CommandResult result = runVellum(
      {"edit", folder / "in.wav", folder / "edits.wav", "--script", folder / "edits.wav", "--force"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_TRUE(test::contains(result.err, "it is one of the files that are read"));
  EXPECT_EQ(test::readBytes(folder / "edits.wav"), script);
}

TEST(EditCommand, AnExistingOutputAndTheInputAreKept) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(1, 1), 48000, wav16);
  test::writeBytes(folder / "out.wav", "precious");
  const std::string before = test::readBytes(folder / "in.wav");
  const Arguments options = {"--rect", "0,1,0,900", "--repair"};
  const CommandResult existing =
      runVellum(Arguments{"edit", folder / "in.wav", folder / "out.wav"} + options);
  EXPECT_EQ(existing.exitCode, 3);
  EXPECT_TRUE(contains(existing.err, "--force replaces it"));
  EXPECT_EQ(test::readBytes(folder / "out.wav"), "precious");
  EXPECT_EQ(runVellum(Arguments{"edit", "--force", folder / "in.wav", folder / "in.wav"} + options).exitCode,
            3);
  EXPECT_EQ(test::readBytes(folder / "in.wav"), before);
  EXPECT_EQ(runVellum(Arguments{"edit", folder / "none.wav", folder / "x.wav"} + options).exitCode, 3);
  EXPECT_EQ(runVellum(Arguments{"edit", folder / "in.wav", folder / "x.mp3"} + options).exitCode, 3);
}

}  // namespace
}  // namespace vellum
