// `vellum spectrum`, end to end: figures against known levels.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/CommandText.hpp"
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
using test::linesOf;
using test::operator+;
using test::runVellum;
using test::TemporaryFolder;

// 1,000 Hz at -18 dBFS; with --size 4096 at 40,960 Hz it is bin 100.
void writeTone(const std::filesystem::path& path, std::size_t channelCount = 1) {
  test::writeAudio(path, test::sineAudio(channelCount, 40960, 2, 1000, -18), 40960, test::floatWAV);
}

std::string output(const Arguments& arguments) {
  const CommandResult result = runVellum(Arguments{"spectrum"} + arguments);
  EXPECT_EQ(result.exitCode, 0) << result.err;
  return result.out;
}

TEST(SpectrumCommand, PrintsAToneInItsBand) {
  const TemporaryFolder folder;
  writeTone(folder / "tone.wav", 2);
  const std::string out = output({folder / "tone.wav"});
  EXPECT_TRUE(contains(out, "Audio                  WAV 32-bit float, 40960 Hz, 2 channels\n")) << out;
  EXPECT_TRUE(contains(out, "Section                0:00.0 to 0:02.0\n"));
  EXPECT_TRUE(contains(out, "Transform              16384 samples, Hann window, 17 frames\n"));
  EXPECT_TRUE(contains(out, "Loudest bin            1000.0 Hz at -18.0 dBFS\n"));
  EXPECT_TRUE(std::regex_search(out, std::regex(" 1 kHz +-18\\.0 +-18\\.0  #{40}\n"))) << out;
}

TEST(SpectrumCommand, CSVHoldsEveryBin) {
  const TemporaryFolder folder;
  writeTone(folder / "tone.wav");
  const auto lines = linesOf(output({folder / "tone.wav", "--csv", "--size", "4096", "--window", "flatTop"}));
  ASSERT_EQ(lines.size(), 1u + 2049);
  EXPECT_EQ(lines[0], "frequencyHz,averageDBFS,peakDBFS");
  EXPECT_EQ(lines[101], "1000,-18.000,-18.000");
  EXPECT_TRUE(lines[2049].starts_with("20480,"));
}

TEST(SpectrumCommand, JSONHoldsBinsAndBands) {
  const TemporaryFolder folder;
  writeTone(folder / "tone.wav");
  const auto record = ordered_json::parse(output(
      {folder / "tone.wav", "--json", "--size", "4096", "--from", "0.5", "--to", "1.5", "--channels", "0"}));
  EXPECT_EQ(record.at("file"), (folder / "tone.wav").string());
  EXPECT_EQ(record.at("sampleRate"), 40960);
  EXPECT_EQ(record.at("channels"), (ordered_json{0}));
  EXPECT_EQ(record.at("fromSec"), 0.5);
  EXPECT_EQ(record.at("toSec"), 1.5);
  EXPECT_EQ(record.at("window"), "hann");
  EXPECT_EQ(record.at("fftSize"), 4096);
  EXPECT_EQ(record.at("frameCount"), 37);
  EXPECT_NEAR(record.at("noiseBandwidthHz"), 15, 1e-4);
  EXPECT_EQ(record.at("frequencyHz").size(), 2049u);
  EXPECT_EQ(record.at("frequencyHz")[100], 1000);
  EXPECT_NEAR(record.at("averageDBFS")[100], -18, 1e-3);
  EXPECT_NEAR(record.at("peakDBFS")[100], -18, 1e-3);
  for (const auto& band : record.at("bands"))
    if (band.at("nominalHz") == 1000) {
      EXPECT_NEAR(band.at("averageDBFS"), -18, 0.01);
    }
}

// Where a label's mark stands: x of a frequency, y of a level.
struct Mark {
  double x, y;
};
Mark markOf(const std::string& svg, const std::string& label) {
  std::smatch match;
  if (!std::regex_search(svg, match, std::regex("<text x=\"([0-9.]+)\" y=\"([0-9.]+)\"[^>]*>" + label + "<")))
    throw std::runtime_error("no mark " + label);
  return {std::stod(match[1]), std::stod(match[2]) - 4};  // the text hangs below its mark
}

// The curves as points, undone by the axes' own marks: below 1 kHz bins are further apart than pixels, at
// 10 kHz several share one.
TEST(SpectrumCommand, PlotShowsTonesWhereTheAxesSay) {
  for (const auto& [frequencyHz, label] : {std::pair{1000.0, "1k"}, {10000.0, "10k"}}) {
    const TemporaryFolder folder;
    test::writeAudio(folder / "a.wav", test::sineAudio(1, 40960, 2, frequencyHz, -18), 40960, test::floatWAV);
    output({folder / "a.wav", "--svg", folder / "a.svg", "--size", "4096"});
    const std::string svg = test::readBytes(folder / "a.svg");
    for (const std::string curve : {"average", "peak"}) {
      std::smatch match;
      ASSERT_TRUE(std::regex_search(svg, match,
                                    std::regex("<polyline id=\"" + curve + "\"[^>]*points=\"([^\"]*)\"")));
      std::istringstream points(match[1]);
      double bestX = 0, bestY = 1e9;
      char comma;
      for (double x, y; points >> x >> comma >> y;)
        if (y < bestY) bestX = x, bestY = y;
      EXPECT_NEAR(bestX, markOf(svg, label).x, 0.2);
      const double top = markOf(svg, "-10").y, perDB = (markOf(svg, "-50").y - top) / 40;
      EXPECT_NEAR(-10 - (bestY - top) / perDB, -18, 0.1);
    }
  }
}

TEST(SpectrumCommand, PlotIsWellFormedWhateverTheFileIsCalled) {
  const TemporaryFolder folder;
  writeTone(folder / "<tone> & \xff.wav");
  output({folder / "<tone> & \xff.wav", "--svg", folder / "a.svg"});
  const std::string svg = test::readBytes(folder / "a.svg");
  EXPECT_TRUE(svg.starts_with("<svg ") && svg.ends_with("</svg>\n"));
  EXPECT_TRUE(contains(svg, "<title>&lt;tone&gt; &amp; \xef\xbf\xbd.wav</title>"));
  for (const char* text : {">average<", ">peak<", ">Frequency / Hz<", ">Level / dBFS<"})
    EXPECT_TRUE(contains(svg, text));
}

TEST(SpectrumCommand, SilentFileIsSilent) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "silent.wav", Audio(2, 48000), 48000, test::floatWAV);
  const std::string out = output({folder / "silent.wav"});
  EXPECT_TRUE(contains(out, "Loudest bin            silent\n")) << out;
  EXPECT_TRUE(std::regex_search(out, std::regex(" 1 kHz +silent +silent\n")));
  const auto record = ordered_json::parse(output({folder / "silent.wav", "--json"}));
  EXPECT_TRUE(record.at("averageDBFS")[100].is_null());
  EXPECT_EQ(linesOf(output({folder / "silent.wav", "--csv", "--size", "16"}))[1], "0,,");
  output({folder / "silent.wav", "--svg", folder / "a.svg"});
}

TEST(SpectrumCommand, ShortFileSaysSo) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "short.wav", Audio(1, 100), 48000, test::floatWAV);
  EXPECT_TRUE(contains(output({folder / "short.wav"}),
                       "Warning                the section is shorter than one transform"));
  const auto record = ordered_json::parse(output({folder / "short.wav", "--json"}));
  EXPECT_TRUE(contains(record.at("warning").get<std::string>(), "levels read low"));
}

TEST(SpectrumCommand, RefusesWrongArguments) {
  const TemporaryFolder folder;
  writeTone(folder / "tone.wav");
  const std::vector<std::pair<Arguments, std::string>> cases = {
      {{"--window", "Hann"}, "'Hann' is not one of hann, hamming, blackman, blackmanHarris, flatTop"},
      {{"--size", "4000"}, "not a power of two from 16 to 1048576"},
      {{"--size", "4096x2"}, "not a power of two"},
      {{"--json", "--csv"}, "does not go together with --csv"},
      {{"--svg", folder / "a.svg", "--csv"}, "does not go together with --csv"},
      {{"--svg", folder / "a.svg", "--json"}, "does not go together with --json"},
      {{"--force"}, "needs --svg"},
      {{"--from", "-1"}, "is not a time"},
      {{"--from", "1", "--to", "0:01"}, "has to be later"},
      {{"--channels", "x"}, "is not a whole number"},
  };
  for (const auto& [arguments, text] : cases) {
    const CommandResult result = runVellum(Arguments{"spectrum", folder / "tone.wav"} + arguments);
    EXPECT_EQ(result.exitCode, 2) << arguments.front();
    EXPECT_TRUE(contains(result.err, text)) << result.err;
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(folder.names(), std::vector<std::string>{"tone.wav"});
}

TEST(SpectrumCommand, FailuresLeaveNothingBehind) {
  const TemporaryFolder folder;
  writeTone(folder / "tone.wav");
  CommandResult result = runVellum({"spectrum", folder / "none.wav", "--svg", folder / "a.svg"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_TRUE(contains(result.err, "none.wav: there is no such file"));
  result = runVellum({"spectrum", folder / "tone.wav", "--from", "9"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_TRUE(contains(result.err, "starts after the end of the file at 2.000 s"));
  EXPECT_EQ(folder.names(), std::vector<std::string>{"tone.wav"});

  output({folder / "tone.wav", "--svg", folder / "a.svg"});
  result = runVellum({"spectrum", folder / "tone.wav", "--svg", folder / "a.svg"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_TRUE(contains(result.err, "--force replaces it"));
  output({folder / "tone.wav", "--svg", folder / "a.svg", "--force"});
  EXPECT_EQ(runVellum({"spectrum", folder / "tone.wav", "--svg", folder / "tone.wav", "--force"}).exitCode,
            3);
}

TEST(SpectrumCommand, MemoryDoesNotGrowWithTheAudio) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "short.flac", Audio(1, 8000 * 300), 8000, test::flac);
  test::writeAudio(folder / "long.flac", Audio(1, 8000 * 3000), 8000, test::flac);
  const auto shortRun = test::runVellumWatchingMemory({"spectrum", folder / "short.flac"});
  const auto longRun = test::runVellumWatchingMemory({"spectrum", folder / "long.flac"});
  EXPECT_EQ(longRun.exitCode, 0);
  EXPECT_GT(shortRun.peakKilobytes, 1000);
  EXPECT_LT(longRun.peakKilobytes - shortRun.peakKilobytes, 1024);
}

}  // namespace
}  // namespace vellum
