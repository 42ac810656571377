// `vellum limit`, end to end: what it writes is measured again by runs of `vellum measure`.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
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

using nlohmann::ordered_json;
using test::Arguments;
using test::Audio;
using test::CommandResult;
using test::contains;
using test::operator+;
using test::runVellum;
using test::TemporaryFolder;

ordered_json limit(const Arguments& arguments, int exitCode) {
  const CommandResult result = runVellum(Arguments{"limit", "--json"} + arguments);
  EXPECT_EQ(result.exitCode, exitCode) << result.out << result.err;
  return ordered_json::parse(result.out);
}

double measuredTruePeak(const std::string& path) {
  return ordered_json::parse(runVellum({"measure", "--json", path}).out).at("truePeakDBTP");
}

// Quiet noise with a loud burst in its middle, 48 kHz.
Audio burst(std::int64_t at, std::int64_t length) {
  std::mt19937 rng(2);
  Audio audio = test::noiseAudio(rng, 2, 48000, 0.1);
  for (auto& channel : audio.channels)
    for (std::int64_t n = at; n < at + length; ++n) channel[static_cast<std::size_t>(n)] *= 9;
  return audio;
}

const test::FileKind wav16{"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16};

std::string loudMusic() {
  for (const std::string& file : test::freeMusicFiles())
    if (file.ends_with("/ambi_lunar_land.flac")) return file;
  ADD_FAILURE() << "sonic-pi-samples has no ambi_lunar_land";
  return {};
}

TEST(LimitCommand, TheTruePeakThatIsToldIsTheOneOfTheFileAsWritten) {
  const TemporaryFolder folder;
  for (const std::string width : {"16", "24", "float"}) {
    const std::string out = folder / (width + ".wav");
    const CommandResult result =
        runVellum({"limit", "--json", loudMusic(), out, "--gain", "6", "--bit-depth", width});
    const ordered_json told = ordered_json::parse(result.out);
    const double truePeak = told.at("after").at("truePeakDBTP");
    EXPECT_EQ(truePeak, measuredTruePeak(out)) << width;
    EXPECT_EQ(told.at("isMet").get<bool>(), truePeak <= -1);
    EXPECT_EQ(result.exitCode, truePeak <= -1 ? 0 : 1);
    EXPECT_LT(truePeak, -0.5);  // what recovers during the look-ahead, and no more
    EXPECT_GT(told.at("largestReductionDB").get<double>(), 4);
  }
}

// In the 5 ms before a peak leaves, the gain has recovered by a twentieth of what was taken away.
TEST(LimitCommand, AboveTheCeilingTheFileIsWrittenAndTheExitCodeSaysSo) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", burst(20'000, 100), 48000, test::floatWAV);
  const CommandResult result = runVellum({"limit", folder / "in.wav", folder / "out.wav", "--ceiling", "-6"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_TRUE(contains(result.out, "  Above the ceiling      by 0."));
  EXPECT_TRUE(contains(result.out, " dB; --exact lowers the limiter's own ceiling until it holds\n"));
  EXPECT_EQ(result.err, "");
  EXPECT_GT(measuredTruePeak(folder / "out.wav"), -6);
  EXPECT_LT(measuredTruePeak(folder / "out.wav"), -5);

  const ordered_json exact =
      limit({folder / "in.wav", folder / "exact.wav", "--ceiling", "-6", "--exact"}, 0);
  EXPECT_LE(measuredTruePeak(folder / "exact.wav"), -6);
  EXPECT_GT(measuredTruePeak(folder / "exact.wav"), -6.2);
  EXPECT_LT(exact.at("limiterCeilingDBTP").get<double>(), -6);
  EXPECT_GE(exact.at("rounds").size(), 2u);
  EXPECT_EQ(exact.at("rounds").at(0).at("limiterCeilingDBTP"), -6);
}

TEST(LimitCommand, RealMusicHoldsTheCeilingExactlyAtEveryWidth) {
  const TemporaryFolder folder;
  for (const std::string width : {"16", "24", "float"})
    for (const std::string gain : {"2", "12"}) {
      const std::string out = folder / (width + gain + ".wav");
      limit({loudMusic(), out, "--gain", gain, "--bit-depth", width, "--exact"}, 0);
      EXPECT_LE(measuredTruePeak(out), -1) << width << " " << gain;
      EXPECT_GT(measuredTruePeak(out), -1.3) << width << " " << gain;
    }
}

TEST(LimitCommand, TheOutputIsAlignedAndAsLong) {
  const TemporaryFolder folder;
  const Audio in = burst(20'000, 100);
  test::writeAudio(folder / "in.wav", in, 48000, test::floatWAV);
  runVellum({"limit", folder / "in.wav", folder / "out.wav", "--ceiling", "-6"});
  const Audio out = test::readAudio(folder / "out.wav");
  ASSERT_EQ(out.frameCount(), in.frameCount());
  // Untouched up to the look-ahead before the burst, then turned down sample by sample.
  for (std::size_t n = 0; n < 19'000; ++n) ASSERT_EQ(out.channels[0][n], in.channels[0][n]) << n;
  for (std::size_t n = 19'000; n < in.channels[0].size(); ++n) {
    ASSERT_LE(std::abs(out.channels[0][n]), std::abs(in.channels[0][n])) << n;
    ASSERT_GE(out.channels[0][n] * in.channels[0][n], 0) << n;
  }
}

TEST(LimitCommand, AFileBelowTheCeilingIsWrittenAsItIs) {
  const TemporaryFolder folder;
  std::mt19937 rng(2);
  test::writeAudio(folder / "in.wav", test::noiseAudio(rng, 2, 48000, 0.4), 48000, wav16);
  const ordered_json told = limit({folder / "in.wav", folder / "out.wav"}, 0);
  EXPECT_EQ(told.at("largestReductionDB"), 0);
  EXPECT_EQ(test::readAudio(folder / "out.wav").channels, test::readAudio(folder / "in.wav").channels);
}

TEST(LimitCommand, ClippedSamplesAreCounted) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", burst(20'000, 10'000), 48000, test::floatWAV);
  // A frame of look-ahead sees every peak too late.
  const Arguments arguments = {folder / "in.wav", folder / "out.wav",
                               "--ceiling",       "0",
                               "--gain",          "6",
                               "--lookahead",     "0",
                               "--bit-depth",     "16"};
  const ordered_json told = limit(arguments, 1);
  EXPECT_GT(told.at("clippedSamples").get<int>(), 0);
  EXPECT_TRUE(contains(runVellum(Arguments{"limit", "--force"} + arguments).out,
                       "  Clipped samples        " + told.at("clippedSamples").dump() + "\n"));
}

TEST(LimitCommand, TheOptionsReachTheLimiter) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", burst(20'000, 100), 48000, test::floatWAV);
  const auto render = [&](const Arguments& options) {
    const CommandResult result =
        runVellum(Arguments{"limit", "--force", folder / "in.wav", folder / "out.wav"} + options);
    EXPECT_LE(result.exitCode, 1) << result.err;
    return test::readAudio(folder / "out.wav").channels;
  };
  const auto usual = render({});
  EXPECT_EQ(render({"--ceiling", "-1", "--lookahead", "5", "--release", "100", "--gain", "+0"}), usual);
  EXPECT_NE(render({"--lookahead", "10"}), usual);
  EXPECT_NE(render({"--release", "50"}), usual);
  EXPECT_NE(render({"--gain", "-1"}), usual);
  EXPECT_NE(render({"--ceiling", "-2"}), usual);
}

// Whatever the ranges allow, on the shortest files too.
TEST(LimitCommand, NoOptionStopsTheProgram) {
  const TemporaryFolder folder;
  for (const std::int64_t frames : {0, 1, 500}) {
    test::writeAudio(folder / "in.wav", test::cut(burst(0, 500), 0, frames), 48000, test::floatWAV);
    for (const Arguments& options :
         {Arguments{"--lookahead", "0"}, Arguments{"--lookahead", "1000"}, Arguments{"--release", "1"},
          Arguments{"--release", "10000"}, Arguments{"--ceiling", "-60"}, Arguments{"--ceiling", "0"},
          Arguments{"--gain", "60"}, Arguments{"--gain", "-60"},
          Arguments{"--gain", "60", "--lookahead", "0", "--ceiling", "-60", "--exact"}}) {
      const CommandResult result =
          runVellum(Arguments{"limit", "--force", folder / "in.wav", folder / "out.wav"} + options);
      EXPECT_LE(result.exitCode, 1) << frames << " " << options.front() << result.err;
    }
  }
}

TEST(LimitCommand, ValuesOutOfRangeAreToldAndNothingIsWritten) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", burst(0, 500), 48000, test::floatWAV);
  struct Case {
    std::string option, value, range;
  };
  for (const auto& [option, value, range] :
       {Case{"--ceiling", "0.1", "-60 to 0 dBTP"}, Case{"--ceiling", "-61", "-60 to 0 dBTP"},
        Case{"--ceiling", "inf", "-60 to 0 dBTP"}, Case{"--gain", "61", "-60 to 60 dB"},
        Case{"--gain", "-61", "-60 to 60 dB"}, Case{"--gain", "nan", "-60 to 60 dB"},
        Case{"--gain", "++1", "-60 to 60 dB"}, Case{"--lookahead", "-1", "0 to 1000 ms"},
        Case{"--lookahead", "1001", "0 to 1000 ms"}, Case{"--release", "0", "1 to 10000 ms"},
        Case{"--release", "10001", "1 to 10000 ms"}, Case{"--release", "long", "1 to 10000 ms"}}) {
    const CommandResult result = runVellum({"limit", folder / "in.wav", folder / "out.wav", option, value});
    EXPECT_EQ(result.exitCode, 2) << option << value;
    EXPECT_TRUE(contains(result.err, option + ": '" + value + "' is not a number from " + range));
  }
  EXPECT_EQ(runVellum({"limit", folder / "in.wav"}).exitCode, 2);
  EXPECT_EQ(folder.names(), (Arguments{"in.wav"}));
}

TEST(LimitCommand, AnExistingOutputAndTheInputAreKept) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", burst(0, 500), 48000, test::floatWAV);
  test::writeBytes(folder / "out.wav", "precious");
  const CommandResult existing = runVellum({"limit", folder / "in.wav", folder / "out.wav"});
  EXPECT_EQ(existing.exitCode, 3);
  EXPECT_TRUE(contains(existing.err, "--force replaces it"));
  EXPECT_EQ(test::readBytes(folder / "out.wav"), "precious");
  EXPECT_EQ(runVellum({"limit", "--force", folder / "in.wav", folder / "in.wav"}).exitCode, 3);
  EXPECT_EQ(runVellum({"limit", folder / "none.wav", folder / "x.wav"}).exitCode, 3);
}

}  // namespace
}  // namespace vellum
