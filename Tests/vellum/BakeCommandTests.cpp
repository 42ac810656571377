// `vellum bake`, end to end: what it writes is compared with plain sums of the channels that went in.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/ChannelMapFiles.hpp"
#include "Support/CommandText.hpp"
#include "Support/RunCommand.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"
#include "VellumApp/AudioFile.hpp"

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
using Labels = std::vector<AudioChannelLabel>;
using Samples = std::vector<float>;

const test::FileKind floatWAVEX{"wav", SF_FORMAT_WAVEX | SF_FORMAT_FLOAT};

ordered_json bake(const Arguments& arguments, int exitCode = 0) {
  const CommandResult result = runVellum(Arguments{"bake", "--json"} + arguments);
  EXPECT_EQ(result.exitCode, exitCode) << result.out << result.err;
  return result.exitCode == exitCode && !result.out.empty() ? ordered_json::parse(result.out)
                                                            : ordered_json();
}

Audio noise(std::size_t channelCount, std::int64_t frameCount = 9000, double amplitude = 0.2) {
  std::mt19937 rng(71);
  return test::noiseAudio(rng, channelCount, frameCount, amplitude);
}

// --- Oracles ---------------------------------------------------------------------------------------------

struct Feed {
  double gain;
  const Samples* source;
  bool inQuadrature = false;
};

// The ideal transformer under a Blackman window of 101 taps, as a plain correlation that ends 50 samples
// ahead.
double quadratureAt(const Samples& x, std::int64_t n) {
  long double sum = 0;
  for (int k = -49; k <= 49; k += 2) {
    const double turn = 2 * std::numbers::pi * (k + 50) / 100;
    const double tap = 2 / (std::numbers::pi * k) * (0.42 - 0.5 * std::cos(turn) + 0.08 * std::cos(2 * turn));
    if (n + k >= 0 && n + k < static_cast<std::int64_t>(x.size()))
      sum += static_cast<long double>(tap) * static_cast<long double>(x[static_cast<std::size_t>(n + k)]);
  }
  return static_cast<double>(sum);
}

void expectSum(const Samples& output, const std::vector<Feed>& feeds, std::int64_t delay,
               const std::string& where) {
  ASSERT_EQ(output.size(), feeds[0].source->size()) << where;
  for (std::int64_t n = 0; n < static_cast<std::int64_t>(output.size()); ++n) {
    double expected = 0;
    for (const Feed& feed : feeds)
      if (n >= delay)
        expected +=
            feed.gain * (feed.inQuadrature
                             ? quadratureAt(*feed.source, n - delay)
                             : static_cast<double>((*feed.source)[static_cast<std::size_t>(n - delay)]));
      else if (feed.inQuadrature)
        expected += feed.gain * quadratureAt(*feed.source, n - delay);
    ASSERT_NEAR(static_cast<double>(output[static_cast<std::size_t>(n)]), expected, 1e-6)
        << where << " at " << n;
  }
}

// --- Files with channels in an order ---------------------------------------------------------------------

// A file, and its channels by label as they are read.
struct NamedFile {
  std::string path;
  std::map<AudioChannelLabel, Samples> channels;
};

NamedFile named(const std::string& path, const Labels& labels) {
  NamedFile file{path, {}};
  const Audio audio = test::readAudio(path);
  for (std::size_t c = 0; c < labels.size(); ++c) file.channels[labels[c]] = audio.channels[c];
  EXPECT_EQ(AudioFile(path).channelLabels(), labels) << path;
  return file;
}

constexpr std::uint32_t tagOf(std::uint32_t number, std::uint32_t count) {
  return number << 16 | count;
}

// 5.1 and 5.0 as every container orders them; surrounds at the back come out as Ls and Rs.
std::vector<NamedFile> surroundFiles(const TemporaryFolder& folder) {
  const Audio six = noise(6), five = noise(5);
  const auto place = [&](const std::string& name) { return (folder / name).string(); };
  using Map = std::vector<int>;
  test::writeAudio(
      place("back.wav"), six, 48000, floatWAVEX,
      {.channelMap = Map{SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER, SF_CHANNEL_MAP_LFE,
                         SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT}});
  test::writeAudio(
      place("side.wav"), six, 48000, floatWAVEX,
      {.channelMap = Map{SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER, SF_CHANNEL_MAP_LFE,
                         SF_CHANNEL_MAP_SIDE_LEFT, SF_CHANNEL_MAP_SIDE_RIGHT}});
  test::writeAIFF(place("b.aiff"), six, test::channelChunk(tagOf(122, 6)));
  test::writeCAF(place("film.caf"), six, test::channelChunk(tagOf(123, 6)));
  test::writeCAF(place("d.caf"), six, test::channelChunk(tagOf(124, 6)));
  test::writeCAF(place("five.caf"), five, test::channelChunk(tagOf(120, 5)));
  test::writeAudio(place("x.flac"), six, 48000, test::flac);
  std::vector<NamedFile> files = {
      named(place("back.wav"), {1, 2, 3, 4, 33, 34}), named(place("side.wav"), {1, 2, 3, 4, 5, 6}),
      named(place("b.aiff"), {1, 2, 5, 6, 3, 4}),     named(place("film.caf"), {1, 3, 2, 5, 6, 4}),
      named(place("d.caf"), {3, 1, 2, 5, 6, 4}),      named(place("five.caf"), {3, 1, 2, 5, 6}),
      named(place("x.flac"), {1, 2, 3, 4, 33, 34})};
  for (NamedFile& file : files)
    if (file.channels.contains(33)) {
      file.channels[5] = file.channels[33];
      file.channels[6] = file.channels[34];
    }
  return files;
}

const Arguments asFloats = {"--format", "wav", "--bit-depth", "float", "--force"};

// --- Presets ---------------------------------------------------------------------------------------------

TEST(BakeCommand, SurroundBecomesStereoWhateverTheOrderOfItsChannels) {
  const TemporaryFolder folder;
  for (const NamedFile& file : surroundFiles(folder)) {
    const ordered_json told =
        bake(Arguments{file.path, folder / "out.wav", "--preset", "5.1-to-stereo"} + asFloats);
    const Audio output = test::readAudio(folder / "out.wav");
    ASSERT_EQ(output.channels.size(), 2u);
    const auto& in = file.channels;
    expectSum(output.channels[0], {{1, &in.at(1)}, {0.7071, &in.at(3)}, {0.7071, &in.at(5)}}, 0, file.path);
    expectSum(output.channels[1], {{1, &in.at(2)}, {0.7071, &in.at(3)}, {0.7071, &in.at(6)}}, 0, file.path);
    EXPECT_EQ(told.at("unusedSources"), in.contains(4) ? ordered_json{"LFE"} : ordered_json::array());
    EXPECT_EQ(told.at("delayFrames"), 0);
  }
}

TEST(BakeCommand, MatrixStereoHasTheSurroundsInQuadratureAndInOppositePhase) {
  const TemporaryFolder folder;
  for (const NamedFile& file : surroundFiles(folder)) {
    const ordered_json told =
        bake(Arguments{file.path, folder / "out.wav", "--preset", "5.1-to-lt-rt"} + asFloats);
    const Audio output = test::readAudio(folder / "out.wav");
    ASSERT_EQ(output.channels.size(), 2u);
    const auto& in = file.channels;
    const double half = 0.7071;
    expectSum(output.channels[0],
              {{1, &in.at(1)}, {half, &in.at(3)}, {-half, &in.at(5), true}, {-half, &in.at(6), true}}, 50,
              file.path);
    expectSum(output.channels[1],
              {{1, &in.at(2)}, {half, &in.at(3)}, {half, &in.at(5), true}, {half, &in.at(6), true}}, 50,
              file.path);
    EXPECT_EQ(told.at("delayFrames"), 50);
  }
}

TEST(BakeCommand, SevenChannelsAndLFEBecomeFiveAndLFE) {
  const TemporaryFolder folder;
  const Audio eight = noise(8);
  test::writeCAF(folder / "c.caf", eight, test::channelChunk(tagOf(128, 8)));
  test::writeAudio(folder / "x.flac", eight, 48000, test::flac);
  for (const NamedFile& file : {named(folder / "c.caf", {1, 2, 3, 4, 5, 6, 33, 34}),
                                named(folder / "x.flac", {1, 2, 3, 4, 33, 34, 5, 6})}) {
    bake(Arguments{file.path, folder / "out.wav", "--preset", "7.1-to-5.1"} + asFloats);
    const Audio output = test::readAudio(folder / "out.wav");
    ASSERT_EQ(output.channels.size(), 6u);
    for (const AudioChannelLabel label : {1u, 2u, 3u, 4u})
      EXPECT_EQ(output.channels[label - 1], file.channels.at(label)) << file.path;
    expectSum(output.channels[4], {{0.7071, &file.channels.at(5)}, {0.7071, &file.channels.at(33)}}, 0,
              file.path);
    expectSum(output.channels[5], {{0.7071, &file.channels.at(6)}, {0.7071, &file.channels.at(34)}}, 0,
              file.path);
    EXPECT_EQ(AudioFile(folder / "out.wav").channelLabels(), (Labels{1, 2, 3, 4, 5, 6}));
  }
}

// Plain WAV files of one and two channels do not say what these are.
TEST(BakeCommand, StereoBecomesMonoAndMonoBecomesStereo) {
  const TemporaryFolder folder;
  const Audio two = noise(2), one = noise(1);
  test::writeAudio(folder / "two.wav", two, 44100, test::floatWAV);
  test::writeAudio(folder / "one.wav", one, 44100, test::floatWAV);
  bake({folder / "two.wav", folder / "mono.wav", "--preset", "stereo-to-mono"});
  bake({folder / "one.wav", folder / "stereo.wav", "--preset", "mono-to-stereo"});
  const Audio mono = test::readAudio(folder / "mono.wav"), stereo = test::readAudio(folder / "stereo.wav");
  ASSERT_EQ(mono.channels.size(), 1u);
  ASSERT_EQ(stereo.channels.size(), 2u);
  expectSum(mono.channels[0], {{0.7071, &two.channels[0]}, {0.7071, &two.channels[1]}}, 0, "mono");
  for (const Samples& channel : stereo.channels)
    expectSum(channel, {{0.7071, &one.channels[0]}}, 0, "stereo");
}

TEST(BakeCommand, AnInputWithoutThePresetsChannelsIsRefused) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "two.wav", noise(2, 100), 48000, test::floatWAV);
  test::writeAudio(folder / "six.wav", noise(6, 100), 48000, test::floatWAV);
  test::writeCAF(folder / "eight.caf", noise(8, 100), test::channelChunk(tagOf(128, 8)));
  struct Case {
    std::string file, preset, told;
  };
  for (const auto& [file, preset, told] :
       {Case{"two.wav", "5.1-to-stereo", "two.wav: it has no channel C, only L, R"},
        Case{"two.wav", "mono-to-stereo", "two.wav: it has no channel M or C, only L, R"},
        Case{"six.wav", "5.1-to-stereo",
             "six.wav: it does not tell which of its 6 channels is which, so that L cannot be found: a "
             "layout has "
             "to name them"},
        Case{"eight.caf", "5.1-to-lt-rt", "eight.caf: its channels Lb, Rb would go to no output"},
        Case{"eight.caf", "stereo-to-mono",
             "eight.caf: its channels C, LFE, Ls, Rs, Lb, Rb would go to no output"}}) {
    const CommandResult result =
        runVellum({"bake", folder / file, folder / "out.wav", "--preset", preset, "--format", "wav"});
    EXPECT_EQ(result.exitCode, 3) << file << preset;
    EXPECT_TRUE(contains(result.err, told));
  }
  EXPECT_FALSE(std::filesystem::exists(folder / "out.wav"));
  // A layout says it.
  bake({folder / "six.wav", folder / "out.wav", "--preset", "5.1-to-stereo", "--layout", "C,LFE,L,R,Ls,Rs"});
  const Audio in = test::readAudio(folder / "six.wav");
  expectSum(test::readAudio(folder / "out.wav").channels[0],
            {{1, &in.channels[2]}, {0.7071, &in.channels[0]}, {0.7071, &in.channels[4]}}, 0, "layout");
}

TEST(BakeCommand, PresetsAreListedAndPrinted) {
  const CommandResult list = runVellum({"bake", "--list"});
  EXPECT_EQ(list.exitCode, 0);
  const std::vector<std::string> lines = test::linesOf(list.out);
  EXPECT_EQ(lines.size(), 5u);
  for (const std::string& line : lines) {
    const std::string name = line.substr(0, line.find(' '));
    const CommandResult printed = runVellum({"bake", "--preset", name, "--print"});
    EXPECT_EQ(printed.exitCode, 0) << name;
    EXPECT_TRUE(line.ends_with(ordered_json::parse(printed.out).at("description").get<std::string>()))
        << line;
  }
}

// What is printed is what --routes reads.
TEST(BakeCommand, APrintedPresetDoesWhatThePresetDoes) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.flac", noise(6), 48000, test::flac);
  test::writeBytes(folder / "x.json", runVellum({"bake", "--preset", "5.1-to-lt-rt", "--print"}).out);
  bake({folder / "in.flac", folder / "a.flac", "--preset", "5.1-to-lt-rt"});
  bake({folder / "in.flac", folder / "b.flac", "--routes", folder / "x.json"});
  EXPECT_EQ(test::readBytes(folder / "a.flac"), test::readBytes(folder / "b.flac"));
}

// --- Delay -----------------------------------------------------------------------------------------------

TEST(BakeCommand, AlignTakesTheDelayOutAndBringsTheTail) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.flac", noise(6, 40'000), 48000, test::flac);
  const Arguments arguments =
      Arguments{folder / "in.flac", folder / "out.wav", "--preset", "5.1-to-lt-rt"} + asFloats;
  EXPECT_EQ(bake(arguments).at("delayFrames"), 50);
  const Audio late = test::readAudio(folder / "out.wav");
  const ordered_json told = bake(arguments + Arguments{"--align"});
  EXPECT_EQ(told.at("delayFrames"), 0);
  EXPECT_EQ(told.at("removedDelayFrames"), 50);
  const Audio aligned = test::readAudio(folder / "out.wav");
  ASSERT_EQ(aligned.frameCount(), 40'000);
  for (std::size_t c = 0; c < 2; ++c) {
    EXPECT_EQ(Samples(aligned.channels[c].begin(), aligned.channels[c].end() - 50),
              Samples(late.channels[c].begin() + 50, late.channels[c].end()));
    // The tail: what the routes say of the input's last samples, with silence behind them.
    const Audio in = test::readAudio(folder / "in.flac");
    for (std::int64_t n = 39'950; n < 40'000; ++n) {
      const auto at = static_cast<std::size_t>(n);
      const double surrounds = quadratureAt(in.channels[4], n) + quadratureAt(in.channels[5], n);
      const double expected =
          static_cast<double>(in.channels[c][at]) +
          0.7071 * (static_cast<double>(in.channels[2][at]) + (c == 0 ? -surrounds : surrounds));
      ASSERT_NEAR(static_cast<double>(aligned.channels[c][at]), expected, 1e-6);
    }
  }
}

TEST(BakeCommand, TheDelayIsTold) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.flac", noise(6, 1000), 48000, test::flac);
  const Arguments arguments = {"bake", folder / "in.flac", folder / "out.flac", "--force", "--preset"};
  EXPECT_TRUE(
      contains(runVellum(arguments + Arguments{"5.1-to-stereo"}).out, "  Delay                  none\n"));
  EXPECT_TRUE(contains(runVellum(arguments + Arguments{"5.1-to-lt-rt"}).out,
                       "  Delay                  50 samples (1.04 ms) late; --align takes that out\n"));
  EXPECT_TRUE(contains(runVellum(arguments + Arguments{"5.1-to-lt-rt", "--align"}).out,
                       "  Delay                  50 samples (1.04 ms) taken out\n"));
}

// --- Levels ----------------------------------------------------------------------------------------------

TEST(BakeCommand, OversAreCountedPerOutputAndAGainAvoidsThem) {
  const TemporaryFolder folder;
  Audio in(2, 1000);
  for (std::size_t n = 100; n < 110; ++n) in.channels[0][n] = in.channels[1][n] = 0.9f;
  test::writeAudio(folder / "in.wav", in, 48000, {"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16});
  const Arguments arguments = {folder / "in.wav", folder / "out.wav", "--force", "--preset",
                               "stereo-to-mono"};
  const ordered_json told = bake(arguments);
  EXPECT_EQ(told.at("outputs").at(0).at("overs"), 10);
  EXPECT_EQ(told.at("overs"), 10);
  EXPECT_EQ(told.at("clippedSamples"), 10);
  EXPECT_NEAR(told.at("outputs").at(0).at("samplePeakDBFS"), 20 * std::log10(2 * 0.7071 * 0.9), 1e-3);
  bake(arguments + Arguments{"--strict"}, 1);
  EXPECT_EQ(test::readAudio(folder / "out.wav").channels[0][100], 32767.0f / 32768);

  // 20 log10(2 x 0.7071 x 0.9) = 2.097
  EXPECT_TRUE(
      contains(runVellum(Arguments{"bake"} + arguments).out,
               "  Sample peak            M +2.10 dBFS\n"
               "  Beyond full scale      M 10 samples, which the format clamps; --gain -2.1 leaves none\n"
               "  Clipped samples        10\n"));
  EXPECT_TRUE(contains(runVellum(Arguments{"bake", "--bit-depth", "float"} + arguments).out,
                       "M 10 samples, which the format holds; --gain -2.1 leaves none\n"));
  EXPECT_EQ(bake(arguments + Arguments{"--gain", "-2.1", "--strict"}).at("overs"), 0);
}

TEST(BakeCommand, AGainIsADocumentsToo) {
  const TemporaryFolder folder;
  const Audio in = noise(1, 500);
  test::writeAudio(folder / "in.wav", in, 48000, test::floatWAV);
  test::writeBytes(
      folder / "x.json",
      R"({"outputs": [{"routes": [{"source": 0, "gainDB": -6}]}, {"routes": [{"source": 0, "gain": -2}]}]})");
  const ordered_json told =
      bake({folder / "in.wav", folder / "out.wav", "--routes", folder / "x.json", "--gain", "+6"});
  EXPECT_EQ(told.at("gainDB"), 6);
  EXPECT_EQ(told.at("outputs").at(1).at("name"), "Ch2");
  const Audio out = test::readAudio(folder / "out.wav");
  expectSum(out.channels[0], {{1, &in.channels[0]}}, 0, "0 dB");
  expectSum(out.channels[1], {{-2 * test::amplitudeOf(6), &in.channels[0]}}, 0, "-2");
}

// --- What goes wrong -------------------------------------------------------------------------------------

TEST(BakeCommand, FaultyDocumentsAreToldWithTheirPlaceAndNothingIsWritten) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(2, 100), 48000, test::floatWAV);
  struct Case {
    std::string text, told;
    int exitCode = 2;
  };
  for (const auto& [text, told, exitCode] :
       {Case{"{", "line 1"}, Case{"[]", "expected an object, found an array"},
        Case{R"({"outputs": []})", "outputs: there is none"},
        Case{R"({"outputs": [{"routes": [{"source": "X"}]}]})",
             "outputs[0].routes[0].source: 'X' is not a channel; the channels are L R C"},
        Case{R"({"outputs": [{"routes": [{"source": 0, "gain": 1e39}]}]})", "outputs[0].routes[0].gain: "},
        Case{R"({"outputs": [{"routes": [{"source": 0, "gain": null, "gainDB": 1e9}]}]})",
             "outputs[0].routes[0].gainDB: 1000000000 is not from -200 to 60"},
        Case{R"({"outputs": [{"routes": [{"source": 9223372036854775808}]}]})",
             "outputs[0].routes[0].source: "},
        Case{R"({"outputs": [{"routes": [{"source": 2}]}]})",
             "in.wav: there is no channel 2: it has 2, counted from 0", 3}}) {
    test::writeBytes(folder / "x.json", text);
    const CommandResult result =
        runVellum({"bake", folder / "in.wav", folder / "out.wav", "--routes", folder / "x.json"});
    EXPECT_EQ(result.exitCode, exitCode) << text << result.err;
    EXPECT_TRUE(contains(result.err, told));
    EXPECT_TRUE(contains(result.err, exitCode == 2 ? "x.json: " : "in.wav: "));
  }
  const CommandResult missing =
      runVellum({"bake", folder / "in.wav", folder / "out.wav", "--routes", folder / "none.json"});
  EXPECT_EQ(missing.exitCode, 3);
  EXPECT_TRUE(contains(missing.err, "none.json: "));
  EXPECT_EQ(folder.names(), (Arguments{"in.wav", "x.json"}));
}

TEST(BakeCommand, WrongArgumentsAreToldAndNothingIsWritten) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(2, 100), 48000, test::floatWAV);
  const std::string in = folder / "in.wav", out = folder / "out.wav";
  const Arguments preset = {"--preset", "stereo-to-mono"};
  struct Case {
    Arguments arguments;
    std::string told;
  };
  for (const Case& wrong :
       {Case{{}, "IN: an input is needed, or --list"},
        Case{Arguments{in} + preset, "OUT: an output is needed"},
        Case{{in, out}, "--routes: is needed, or --preset"},
        Case{Arguments{in, out, "--routes", "x.json"} + preset,
             "--routes: does not go together with --preset"},
        Case{{in, out, "--preset", "5.1"},
             "--preset: '5.1' is none of 5.1-to-stereo, 5.1-to-lt-rt, 7.1-to-5.1"},
        Case{Arguments{in, out, in} + preset, ""},
        Case{Arguments{in, out, "--gain", "61"} + preset, "--gain: '61' is not a number from -60 to 60 dB"},
        Case{Arguments{in, out, "--gain", "nan"} + preset, "--gain: 'nan' is not a number"},
        Case{Arguments{in, out, "--bit-depth", "8"} + preset, "--bit-depth: '8' is none of 16, 24, float"},
        Case{Arguments{in, out, "--layout", "L,X"} + preset, "--layout: 'X' is not a channel"},
        Case{{"--list", "--print"}, "--list: does not go together with --print"},
        Case{Arguments{"--list"} + preset, "--list: does not go together with --preset"},
        Case{{"--list", in}, "--list: prints, and renders nothing"},
        Case{{"--print"}, "--print: needs --preset"},
        Case{Arguments{"--print", in} + preset, "--print: prints, and renders nothing"},
        Case{Arguments{"--print", "--routes", "x"} + preset, "--print: prints, and renders nothing"}}) {
    const CommandResult result = runVellum(Arguments{"bake"} + wrong.arguments);
    EXPECT_EQ(result.exitCode, 2) << wrong.told << result.err;
    EXPECT_TRUE(contains(result.err, wrong.told));
  }
  EXPECT_EQ(folder.names(), (Arguments{"in.wav"}));
}

TEST(BakeCommand, AnExistingOutputAndTheInputAreKept) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(2, 100), 48000, test::floatWAV);
  test::writeBytes(folder / "out.wav", "precious");
  const std::string before = test::readBytes(folder / "in.wav");
  std::filesystem::create_hard_link(folder / "in.wav", folder / "link.wav");
  const Arguments preset = {"--preset", "stereo-to-mono"};
  const CommandResult existing = runVellum(Arguments{"bake", folder / "in.wav", folder / "out.wav"} + preset);
  EXPECT_EQ(existing.exitCode, 3);
  EXPECT_TRUE(contains(existing.err, "--force replaces it"));
  EXPECT_EQ(test::readBytes(folder / "out.wav"), "precious");
  for (const std::string name : {"in.wav", "link.wav"})
    EXPECT_EQ(runVellum(Arguments{"bake", "--force", folder / "in.wav", folder / name} + preset).exitCode, 3);
  EXPECT_EQ(test::readBytes(folder / "in.wav"), before);
}

// The document is an input too.
TEST(BakeCommand, TheDocumentIsNotOverwritten) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(1, 100), 48000, test::floatWAV);
  const std::string document = R"({"outputs": [{"routes": []}]})";
  test::writeBytes(folder / "x.wav", document);
  EXPECT_EQ(runVellum({"bake", "--force", folder / "in.wav", folder / "x.wav", "--routes", folder / "x.wav"})
                .exitCode,
            3);
  EXPECT_EQ(test::readBytes(folder / "x.wav"), document);
}

TEST(BakeCommand, BrokenChannelsAreTold) {
  const TemporaryFolder folder;
  Audio in = noise(2, 1000);
  in.channels[1][999] = std::numeric_limits<float>::infinity();
  test::writeAudio(folder / "in.wav", in, 48000, test::floatWAV);
  const CommandResult infinite =
      runVellum({"bake", folder / "in.wav", folder / "out.wav", "--preset", "stereo-to-mono"});
  EXPECT_EQ(infinite.exitCode, 3);
  EXPECT_TRUE(contains(infinite.err, "in.wav: 1 sample is not finite: it cannot be rendered"));

  test::writeAudio(folder / "cut.wav", noise(2, 1000), 48000, test::floatWAV);
  const std::string bytes = test::readBytes(folder / "cut.wav");
  test::writeBytes(folder / "cut.wav", bytes.substr(0, bytes.size() - 800));  // of 8 bytes a frame
  const ordered_json told = bake({folder / "cut.wav", folder / "out.wav", "--preset", "stereo-to-mono"});
  EXPECT_EQ(told.at("frameCount"), 900);
  EXPECT_EQ(test::readAudio(folder / "out.wav").frameCount(), 900);
  EXPECT_EQ(told.at("notes").size(), 1u) << told;

  test::writeBytes(folder / "text.wav", "no audio");
  EXPECT_EQ(runVellum({"bake", folder / "text.wav", folder / "x.wav", "--preset", "stereo-to-mono"}).exitCode,
            3);
}

TEST(BakeCommand, ALossyInputNeedsAFormat) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.ogg", noise(6, 5000), 48000, test::vorbis);
  const CommandResult result =
      runVellum({"bake", folder / "in.ogg", folder / "out.wav", "--preset", "5.1-to-stereo"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_TRUE(contains(result.err, "in.ogg: it is lossy"));
  const ordered_json told =
      bake({folder / "in.ogg", folder / "out.wav", "--preset", "5.1-to-stereo", "--format", "wav"});
  EXPECT_EQ(told.at("sources"), (ordered_json{"L", "C", "R", "Lb", "Rb", "LFE"}));
  EXPECT_EQ(told.at("format"), "WAV 24-bit");
}

TEST(BakeCommand, MemoryDoesNotGrowWithTheProgramme) {
  const TemporaryFolder folder;
  const auto peakOf = [&](std::int64_t frames) {
    test::writeAudio(folder / "in.flac", Audio(6, frames), 48000, test::flac);
    const CommandResult result =
        test::runVellumWatchingMemory({"bake", "--force", folder / "in.flac", folder / "out.wav", "--format",
                                       "wav", "--preset", "5.1-to-lt-rt", "--align"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_GT(result.peakKilobytes, 1000);
    return result.peakKilobytes;
  };
  const std::int64_t brief = peakOf(100'000), lengthy = peakOf(2'000'000);
  EXPECT_LT(lengthy - brief, 4000) << "46 MB of samples";
}

}  // namespace
}  // namespace vellum
