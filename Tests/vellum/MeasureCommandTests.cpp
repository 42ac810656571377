// The built command, end to end on real files.

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/ChannelMapFiles.hpp"
#include "Support/CommandText.hpp"
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
using test::linesOf;
using test::recordsOf;
using test::runVellum;
using test::startsWith;
using test::TemporaryFolder;

// What EBU Tech 3341 allows between the loudness of a tone and its reading, in LU.
constexpr double toneTolerance = 0.1;

// The records of `vellum measure --json ARGUMENTS`, which has to answer exitCode.
std::vector<ordered_json> measureAll(Arguments arguments, int exitCode = 0) {
  arguments.insert(arguments.begin(), {"measure", "--json"});
  const CommandResult result = runVellum(arguments);
  EXPECT_EQ(result.exitCode, exitCode) << result.err;
  return recordsOf(result.out);
}

ordered_json measureOne(const Arguments& arguments, int exitCode = 0) {
  const auto records = measureAll(arguments, exitCode);
  EXPECT_EQ(records.size(), 1u);
  return records.empty() ? ordered_json() : records.front();
}

Audio tone(std::size_t channelCount, double sampleRate, double peakDBFS, double seconds = 2) {
  return test::sineAudio(channelCount, sampleRate, seconds, 997, peakDBFS);
}

Audio noise(std::size_t channelCount, std::int64_t frameCount, double amplitude = 0.25) {
  std::mt19937 rng(11);
  return test::noiseAudio(rng, channelCount, frameCount, amplitude);
}

// A 5.1 file with the tone in one channel only.
Audio toneIn(std::size_t sounding, double frequencyHz = 997) {
  Audio audio(6, 96'000);
  audio.channels[sounding] = test::sine(48000, 96'000, frequencyHz, test::amplitudeOf(-20));
  return audio;
}

fs::path speechFolder() {
  return "/usr/share/pocketsphinx/test/data/librivox";
}
fs::path musicFolder() {
  return "/usr/share/sonic-pi/samples";
}
fs::path oddWAVFolder() {
  return "/usr/lib/python3/dist-packages/scipy/io/tests/data";
}

// The WAV files in a folder, sorted; none is a failure that names the package.
Arguments wavFilesIn(const fs::path& folder, const std::string& package) {
  Arguments files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error))
    if (entry.path().extension() == ".wav") files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  EXPECT_FALSE(files.empty()) << "the Debian package " << package << " is not installed: nothing in "
                              << folder;
  return files;
}

// The samples that their copyright file lists as CC0.
Arguments freeMusicFiles() {
  std::ifstream copyright("/usr/share/doc/sonic-pi-samples/copyright");
  Arguments files;
  std::string file;
  for (std::string line; std::getline(copyright, line);) {
    constexpr std::string_view filesField = "Files: etc/samples/";
    if (line.starts_with(filesField)) file = line.substr(filesField.size());
    if (line == "License: CC0" && !file.empty() && fs::exists(musicFolder() / file))
      files.push_back(musicFolder() / file);
    if (line.empty()) file.clear();
  }
  EXPECT_FALSE(files.empty()) << "the Debian package sonic-pi-samples is not installed";
  return files;
}

// --- Figures

// A sine of 997 Hz on both channels reads its peak level in dBFS as its loudness in LUFS (ITU-R BS.1770-5,
// EBU Tech 3341 test 1).
TEST(MeasureCommand, AStereoToneReadsItsLevelInEveryKindOfFile) {
  const TemporaryFolder folder;
  for (const test::FileKind& kind : test::allKinds()) {
    const auto path = folder / ("tone." + kind.extension);
    test::writeAudio(path, tone(2, 48000, -23), 48000, kind);
    const ordered_json record = measureOne({path});
    EXPECT_EQ(record.at("file"), path.string());
    EXPECT_EQ(record.at("sampleRate"), 48000) << kind.extension;
    EXPECT_EQ(record.at("channelCount"), 2) << kind.extension;
    EXPECT_EQ(record.at("channelNames"), (Arguments{"L", "R"})) << kind.extension;
    EXPECT_EQ(record.at("channelWeights"), (std::vector<double>{1, 1})) << kind.extension;
    EXPECT_NEAR(record.at("integratedLUFS"), -23.0, toneTolerance) << kind.extension;
    EXPECT_NEAR(record.at("bs1770IntegratedLUFS"), -23.0, toneTolerance) << kind.extension;
    EXPECT_NEAR(record.at("maxMomentaryLUFS"), -23.0, toneTolerance) << kind.extension;
    EXPECT_NEAR(record.at("durationSec"), 2.0, kind.isLossy ? 0.05 : 0.0) << kind.extension;
    EXPECT_FALSE(record.contains("warning")) << record;
    if (kind.isLossy) continue;  // these may add to the peak and the RMS
    EXPECT_NEAR(record.at("truePeakDBTP"), -23.0, 0.05) << kind.extension;
    EXPECT_NEAR(record.at("samplePeakDBFS"), -23.0, 0.05) << kind.extension;
    EXPECT_NEAR(record.at("rmsDBFS"), -23.0 - 3.01, 0.01) << kind.extension;
    EXPECT_NEAR(record.at("channelRMSDBFS").at(1), -23.0 - 3.01, 0.01) << kind.extension;
  }
}

TEST(MeasureCommand, AToneReadsItsLevelAtEverySampleRate) {
  const TemporaryFolder folder;
  for (const int rate : {8000, 11025, 16000, 22050, 32000, 44100, 48000, 88200, 96000, 176400, 192000}) {
    const auto path = folder / (std::to_string(rate) + ".wav");
    test::writeAudio(path, tone(2, rate, -20), rate, test::floatWAV);
    const ordered_json record = measureOne({path});
    EXPECT_EQ(record.at("sampleRate"), rate);
    EXPECT_NEAR(record.at("integratedLUFS"), -20.0, toneTolerance) << rate;
  }
}

// A tone of -20 dBFS on every channel: power 0.5 x 0.01 each, times the sum of the weights.
TEST(MeasureCommand, EveryChannelCountHasItsDefaultWeights) {
  const double s = 1.41253;
  const std::vector<double> weightSums = {1, 2, 3, 2 + 2 * s, 3 + 2 * s, 3 + 2 * s, 7, 3 + 4 * s};
  const TemporaryFolder folder;
  for (std::size_t channels = 1; channels <= 8; ++channels) {
    const auto path = folder / "x.wav";
    test::writeAudio(path, tone(channels, 48000, -20), 48000, test::floatWAV);
    const ordered_json record = measureOne({path});
    const double expected = -20 - 3.01 + 10 * std::log10(weightSums[channels - 1]);
    EXPECT_NEAR(record.at("integratedLUFS"), expected, toneTolerance) << channels;
    EXPECT_EQ(record.at("channelNames").size(), channels);
    EXPECT_EQ(record.at("channelTruePeakDBTP").size(), channels);
    EXPECT_EQ(record.at("channelRMSDBFS").size(), channels);
    EXPECT_EQ(record.at("channelDynamicRange").size(), channels);
  }
}

// Their own channel order: L C R surround surround LFE.
TEST(MeasureCommand, VorbisAndOpusSurroundGetTheWeightsOfTheirOwnOrder) {
  const TemporaryFolder folder;
  for (const test::FileKind& kind : {test::vorbis, test::opus}) {
    const auto measure = [&](std::size_t sounding, double frequencyHz) {
      const auto path = folder / ("x." + kind.extension);
      test::writeAudio(path, toneIn(sounding, frequencyHz), 48000, kind,
                       {.quality = 1, .variableBitRate = false, .channelMap = {}});
      return measureOne({path});
    };
    const ordered_json left = measure(0, 997);
    EXPECT_EQ(left.at("channelNames"), (Arguments{"L", "R", "C", "LFE", "Lb", "Rb"}));
    EXPECT_EQ(left.at("fileChannels"), (std::vector<int>{1, 3, 2, 6, 4, 5}));
    EXPECT_NEAR(left.at("integratedLUFS"), -20 - 3.01, toneTolerance) << kind.extension;
    for (const std::size_t front : {1u, 2u})
      EXPECT_NEAR(measure(front, 997).at("integratedLUFS"), left.at("integratedLUFS"), toneTolerance)
          << kind.extension;
    for (const std::size_t surround : {3u, 4u})
      EXPECT_NEAR(measure(surround, 997).at("integratedLUFS"), left.at("integratedLUFS").get<double>() + 1.5,
                  toneTolerance)
          << kind.extension << " " << surround;
    const ordered_json lfe = measure(5, 60);
    EXPECT_GT(lfe.at("channelRMSDBFS").at(3), -26) << kind.extension;       // it is there,
    EXPECT_LT(lfe.value("integratedLUFS", -200.0), -60) << kind.extension;  // and does not count
  }
}

TEST(MeasureCommand, WAVAndFLACSurroundGetTheWeightsOfTheirOwnOrder) {
  const TemporaryFolder folder;
  const test::WriteSettings smpte{
      .quality = 1,
      .variableBitRate = false,
      .channelMap = {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER, SF_CHANNEL_MAP_LFE,
                     SF_CHANNEL_MAP_SIDE_LEFT, SF_CHANNEL_MAP_SIDE_RIGHT}};
  test::writeAudio(folder / "x.wav", toneIn(4), 48000, {"wav", SF_FORMAT_WAVEX | SF_FORMAT_PCM_24}, smpte);
  test::writeAudio(folder / "x.flac", toneIn(4), 48000, test::flac);
  for (const char* name : {"x.wav", "x.flac"})
    EXPECT_NEAR(measureOne({folder / name}).at("integratedLUFS"), -20 - 3.01 + 1.5, toneTolerance) << name;
  test::writeAudio(folder / "x.flac", toneIn(3), 48000, test::flac);
  EXPECT_FALSE(measureOne({folder / "x.flac"}).contains("integratedLUFS"));  // the LFE channel alone
}

TEST(MeasureCommand, ACentreSurroundCountsFullyAndOneLineSaysSo) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.flac", tone(7, 48000, -20), 48000, test::flac);
  const CommandResult result = runVellum({"measure", "--json", folder / "x.flac"});
  EXPECT_EQ(result.err, "🔉 BS.1770 weight: unmapped channel label 9 defaulted to 1.0 (full weight)\n");
  EXPECT_EQ(recordsOf(result.out).at(0).at("channelWeights").at(4), 1.0);
  test::writeAudio(folder / "mono.flac", tone(1, 48000, -20), 48000, test::flac);
  EXPECT_EQ(runVellum({"measure", folder / "mono.flac"}).err, "");
}

TEST(MeasureCommand, WeightsAndDualMonoOverrideTheFilesOwn) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "mono.wav", tone(1, 48000, -20), 48000, test::floatWAV);
  test::writeAudio(folder / "stereo.wav", tone(2, 48000, -20), 48000, test::floatWAV);
  const double mono = measureOne({folder / "mono.wav"}).at("integratedLUFS");
  const ordered_json dual = measureOne({"--dual-mono", folder / "mono.wav"});
  EXPECT_NEAR(dual.at("integratedLUFS"), mono + 3.0103, 1e-4);
  EXPECT_EQ(dual.at("channelWeights"), std::vector<double>{2});
  const double stereo = measureOne({folder / "stereo.wav"}).at("integratedLUFS");
  EXPECT_EQ(measureOne({"--dual-mono", folder / "stereo.wav"}).at("integratedLUFS"), stereo);
  const ordered_json weighted = measureOne({"--weights", "0,1.41", folder / "stereo.wav"});
  EXPECT_NEAR(weighted.at("integratedLUFS"), mono + 10 * std::log10(1.41), 1e-4);
  EXPECT_EQ(weighted.at("channelWeights"), (std::vector<double>{0, 1.41}));
  EXPECT_EQ(measureOne({"--weights", "1,1,1", folder / "stereo.wav"}, 3).at("error"),
            "it has 2 channels, but the weights are for 3");
}

// --- Layouts

// L R Ls Rs C LFE in every form that a chunk has for it; bitmaps cannot say it.
const std::vector<std::string>& filmOrderChunks() {
  static const std::vector<std::string> chunks = {test::channelChunk(122 << 16 | 6),
                                                  test::channelChunk(0, 0, {1, 2, 5, 6, 3, 4})};
  return chunks;
}

// A tone of -20 dBFS in one channel reads -23.01 LUFS at weight 1.
TEST(MeasureCommand, EachChannelCountsByTheLabelThatTheFileGivesIt) {
  const TemporaryFolder folder;
  const double front = -20 - 3.01, surround = front + 1.5;
  for (const std::string& chunk : filmOrderChunks()) {
    const auto measure = [&](std::size_t sounding) {
      test::writeCAF(folder / "x.caf", toneIn(sounding), chunk);
      return measureOne({folder / "x.caf"});
    };
    const std::vector<double> expected = {front, front, surround, surround, front};
    for (std::size_t c = 0; c < expected.size(); ++c)
      EXPECT_NEAR(measure(c).at("integratedLUFS"), expected[c], toneTolerance) << c;
    const ordered_json lfe = measure(5);
    EXPECT_FALSE(lfe.contains("integratedLUFS"));
    EXPECT_NEAR(lfe.at("channelRMSDBFS").at(3), -20 - 3.01, 0.01);  // it is there, and does not count
  }
}

// A tone of -23 dBFS in the LFE channel only, which is where the canonical order has a surround.
TEST(MeasureCommand, ALowFrequencyChannelAtTheEndAddsNothing) {
  const TemporaryFolder folder;
  Audio audio(6, 96'000);
  audio.channels[0] = test::sine(48000, 96'000, 997, test::amplitudeOf(-23));
  test::writeCAF(folder / "without.caf", audio, filmOrderChunks()[0]);
  audio.channels[5] = audio.channels[0];
  test::writeCAF(folder / "with.caf", audio, filmOrderChunks()[0]);
  EXPECT_EQ(measureOne({folder / "with.caf"}).at("integratedLUFS"),
            measureOne({folder / "without.caf"}).at("integratedLUFS"));
}

TEST(MeasureCommand, ARecordSaysHowChannelsWereReordered) {
  const TemporaryFolder folder;
  test::writeCAF(folder / "film.caf", toneIn(0), filmOrderChunks()[0]);
  const ordered_json film = measureOne({folder / "film.caf"});
  EXPECT_EQ(film.at("channelNames"), (Arguments{"L", "R", "C", "LFE", "Ls", "Rs"}));
  EXPECT_EQ(film.at("channelWeights"), ordered_json::parse("[1,1,1,0,1.41253,1.41253]"));
  EXPECT_EQ(film.at("fileChannels"), (std::vector<int>{1, 2, 5, 6, 3, 4}));
  test::writeCAF(folder / "smpte.caf", toneIn(0), test::channelChunk(0x10000, 0x3F));
  const ordered_json smpte = measureOne({folder / "smpte.caf"});
  EXPECT_EQ(smpte.at("channelNames"), film.at("channelNames"));
  EXPECT_FALSE(smpte.contains("fileChannels"));
}

TEST(MeasureCommand, TheTextTellsChannelsWeightsAndTheirOrderInTheFile) {
  const TemporaryFolder folder;
  const auto channelsLine = [&](const Arguments& arguments) {
    const auto lines = linesOf(runVellum(arguments).out);
    return lines.size() > 2 ? lines[2] : "no such line";
  };
  test::writeCAF(folder / "film.caf", toneIn(0), filmOrderChunks()[0]);
  EXPECT_EQ(
      channelsLine({"measure", folder / "film.caf"}),
      "  Channels               L 1, R 1, C 1, LFE 0, Ls 1.41253, Rs 1.41253  (reordered from the file's L R "
      "Ls Rs C LFE)");
  test::writeCAF(folder / "seven.caf", tone(7, 48000, -20), test::channelChunk(125 << 16 | 7));
  EXPECT_EQ(channelsLine({"measure", folder / "seven.caf"}),
            "  Channels               L 1, R 1, C 1, LFE 0, Ls 1.41253, Rs 1.41253, Cs 1");
  test::writeAudio(folder / "four.wav", tone(4, 48000, -20), 48000, test::floatWAV);
  EXPECT_EQ(
      channelsLine({"measure", folder / "four.wav"}),
      "  Channels               L 1, R 1, Ls 1.41253, Rs 1.41253  (by their number: the file does not say "
      "which is which)");
  EXPECT_EQ(channelsLine({"measure", "--layout", "C,L,R,LFE2", folder / "four.wav"}),
            "  Channels               C 1, L 1, R 1, LFE2 0");
  EXPECT_EQ(
      channelsLine({"measure", "--weights", "0.5,1,2,3", folder / "four.wav"}),
      "  Channels               L 0.5, R 1, Ls 2, Rs 3  (by their number: the file does not say which is "
      "which)");
}

TEST(MeasureCommand, ALayoutOverridesTheFilesOwn) {
  const TemporaryFolder folder;
  const std::string layout = "L,R,Ls,Rs,C,LFE";
  test::writeAudio(folder / "x.wav", toneIn(2), 48000, test::floatWAV);
  test::writeAudio(folder / "x.flac", toneIn(2), 48000, test::flac);
  test::writeCAF(folder / "x.caf", toneIn(2), test::channelChunk(121 << 16 | 6));
  for (const char* name : {"x.wav", "x.flac", "x.caf"}) {
    EXPECT_NEAR(measureOne({folder / name}).at("integratedLUFS"), -20 - 3.01, toneTolerance) << name;
    const ordered_json record = measureOne({"--layout", layout, folder / name});
    EXPECT_NEAR(record.at("integratedLUFS"), -20 - 3.01 + 1.5, toneTolerance) << name;
    EXPECT_EQ(record.at("channelNames"), (Arguments{"L", "R", "C", "LFE", "Ls", "Rs"})) << name;
    EXPECT_EQ(record.at("fileChannels"), (std::vector<int>{1, 2, 5, 6, 3, 4})) << name;
  }
  EXPECT_EQ(measureOne({"--layout", "L,R", folder / "x.wav"}, 3).at("error"),
            "it has 6 channels, but the layout is for 2");
}

// Weights are given for the file's channels and outweigh the layout's; the layout still names and orders
// them.
TEST(MeasureCommand, ALayoutGoesTogetherWithWeightsAndDualMono) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", toneIn(2), 48000, test::floatWAV);
  const ordered_json weighted =
      measureOne({"--layout", "L,R,Ls,Rs,C,LFE", "--weights", "1,2,4,5,3,6", folder / "x.wav"});
  EXPECT_EQ(weighted.at("channelNames"), (Arguments{"L", "R", "C", "LFE", "Ls", "Rs"}));
  EXPECT_EQ(weighted.at("channelWeights"), (std::vector<double>{1, 2, 3, 6, 4, 5}));
  EXPECT_NEAR(weighted.at("integratedLUFS"), -20 - 3.01 + 10 * std::log10(4), toneTolerance);
  test::writeAudio(folder / "mono.wav", tone(1, 48000, -20), 48000, test::floatWAV);
  const ordered_json mono = measureOne({"--layout", "C", "--dual-mono", folder / "mono.wav"});
  EXPECT_EQ(mono.at("channelNames"), Arguments{"C"});
  EXPECT_EQ(mono.at("channelWeights"), std::vector<double>{2});
}

TEST(MeasureCommand, AnUnmappedLabelOfALayoutIsToldOncePerFile) {
  const TemporaryFolder folder;
  const auto line = [](int label) {
    return "🔉 BS.1770 weight: unmapped channel label " + std::to_string(label) +
           " defaulted to 1.0 (full weight)\n";
  };
  for (const char* name : {"a.wav", "b.wav"})
    test::writeAudio(folder / name, noise(4, 480'000), 48000, test::floatWAV);
  const CommandResult result =
      runVellum({"measure", "--json", "--layout", "L,R,C,Cs", folder / "a.wav", folder / "b.wav"});
  EXPECT_EQ(result.err, line(9) + line(9) + "vellum: 2 files measured\n");
  EXPECT_EQ(runVellum({"measure", "--layout", "L,R,C,M", folder / "a.wav"}).err, "");
}

// --- Sections

TEST(MeasureCommand, ASectionReadsAsTheSameSamplesCutToAFile) {
  const TemporaryFolder folder;
  const Audio audio = noise(2, 5 * 44'100);
  for (const test::FileKind& kind : test::allKinds()) {
    if (kind.format == test::opus.format) continue;  // not at this rate: see the next test
    const auto path = folder / ("x." + kind.extension);
    test::writeAudio(path, audio, 44100, kind);
    const Audio part = test::cut(test::readAudio(path), 44'100 + 22'050, 3 * 44'100);
    test::writeAudio(folder / "part.wav", part, 44100, test::floatWAV);
    ordered_json expected = measureOne({folder / "part.wav"});
    expected["file"] = path.string();
    EXPECT_EQ(measureOne({"--from", "1.5", "--to", "3", path}), expected) << kind.extension;
  }
}

TEST(MeasureCommand, ASectionOfAnOpusFileReadsAsTheSameSamplesToo) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.opus", noise(2, 4 * 48'000), 48000, test::opus);
  const Audio whole = test::readAudio(folder / "x.opus");
  test::writeAudio(folder / "part.wav", test::cut(whole, 2 * 48'000, whole.frameCount()), 48000,
                   test::floatWAV);
  ordered_json expected = measureOne({folder / "part.wav"});
  expected["file"] = (folder / "x.opus").string();
  EXPECT_EQ(measureOne({"--from", "0:02", folder / "x.opus"}), expected);
}

TEST(MeasureCommand, ASectionBeyondTheEndIsTold) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", noise(1, 96'000), 48000, test::floatWAV);
  const ordered_json cut = measureOne({"--from", "1", "--to", "3", folder / "x.wav"});
  EXPECT_EQ(cut.at("durationSec"), 1.0);
  EXPECT_EQ(cut.at("warning"), "the section is cut short: the file ends at 2.000 s");
  EXPECT_EQ(measureOne({"--from", "2.5", folder / "x.wav"}, 3).at("error"),
            "the section starts after the end of the file at 2.000 s");
}

// --- Forms

const Arguments jsonKeys = {"file",
                            "sampleRate",
                            "channelCount",
                            "channelNames",
                            "channelWeights",
                            "fileChannels",
                            "durationSec",
                            "integratedLUFS",
                            "bs1770IntegratedLUFS",
                            "maxMomentaryLUFS",
                            "maxMomentaryAtSec",
                            "maxShortTermLUFS",
                            "maxShortTermAtSec",
                            "loudnessRange",
                            "truePeakDBTP",
                            "truePeakAtSec",
                            "channelTruePeakDBTP",
                            "samplePeakDBFS",
                            "rmsDBFS",
                            "channelRMSDBFS",
                            "speechGatedLUFS",
                            "speechPercentage",
                            "noiseFloorDBRMS",
                            "dynamicRange",
                            "channelDynamicRange",
                            "nonFiniteSamples",
                            "gating",
                            "warning"};

Arguments keysOf(const ordered_json& record) {
  Arguments keys;
  for (const auto& [key, value] : record.items()) keys.push_back(key);
  return keys;
}

TEST(MeasureCommand, AJSONRecordHasItsKeysInOrder) {
  const Arguments files = wavFilesIn(speechFolder(), "pocketsphinx-testdata");
  ASSERT_FALSE(files.empty());
  const ordered_json record = measureOne({files.front()});
  Arguments expected = jsonKeys;
  std::erase(expected, "fileChannels");
  std::erase(expected, "nonFiniteSamples");
  std::erase(expected, "warning");
  EXPECT_EQ(keysOf(record), expected);
  EXPECT_EQ(record.at("gating"), "blocks-100ms");
}

TEST(MeasureCommand, AFigureThatWasNotMeasuredHasNoKey) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "silence.wav", Audio(2, 48'000), 48000, test::floatWAV);
  const ordered_json silence = measureOne({folder / "silence.wav"});
  for (const char* key : {"integratedLUFS", "bs1770IntegratedLUFS", "loudnessRange", "speechGatedLUFS",
                          "rmsDBFS", "samplePeakDBFS"})
    EXPECT_FALSE(silence.contains(key)) << key;
  EXPECT_EQ(silence.at("channelRMSDBFS"), ordered_json::parse("[null,null]"));
}

TEST(MeasureCommand, AFileWithoutFramesHasNoFiguresAndNoError) {
  const TemporaryFolder folder;
  for (const test::FileKind& kind : test::fixedWidthKinds()) {
    test::writeAudio(folder / "x", Audio(2, 0), 48000, kind);
    const ordered_json record = measureOne({folder / "x"});
    EXPECT_EQ(keysOf(record), (Arguments{"file", "sampleRate", "channelCount", "channelNames",
                                         "channelWeights", "durationSec", "gating"}))
        << kind.extension;
    EXPECT_EQ(record.at("durationSec"), 0.0);
  }
  EXPECT_EQ(runVellum({"measure", folder / "x"}).exitCode, 0);
}

TEST(MeasureCommand, SamplesThatAreNotFiniteAreCountedAndStopNothing) {
  const TemporaryFolder folder;
  Audio audio = noise(2, 96'000);
  audio.channels[0][50'000] = std::numeric_limits<float>::quiet_NaN();
  audio.channels[1][60'000] = std::numeric_limits<float>::infinity();
  audio.channels[1][60'001] = -std::numeric_limits<float>::infinity();
  test::writeAudio(folder / "x.wav", audio, 48000, test::floatWAV);
  const ordered_json record = measureOne({"--history", folder / "x.wav"});
  EXPECT_EQ(record.at("nonFiniteSamples"), 3);
  EXPECT_TRUE(record.contains("integratedLUFS"));  // of the blocks before
  EXPECT_TRUE(record.at("history").at("momentaryLUFS").back().is_null());
  EXPECT_TRUE(contains(runVellum({"measure", folder / "x.wav"}).out, "Non-finite samples     3\n"));
}

TEST(MeasureCommand, AHistoryHasOneEntryPerBlock) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", noise(2, 48'000 * 4 + 100), 48000, test::floatWAV);
  const ordered_json record = measureOne({"--history", folder / "x.wav"});
  EXPECT_EQ(keysOf(record).back(), "history");
  const ordered_json& history = record.at("history");
  EXPECT_EQ(keysOf(history), (Arguments{"momentaryLUFS", "shortTermLUFS", "integratedLUFS", "truePeakDBTP",
                                        "blockPower", "speech"}));
  for (const auto& [key, list] : history.items())
    EXPECT_EQ(list.size(), 41u) << key;  // the last one of 100 frames
  EXPECT_EQ(history.at("blockPower").back(), 0.0);
  EXPECT_TRUE(history.at("speech").front().is_boolean());
  // The record's maxima are those of the whole blocks' full windows.
  double momentary = -200;
  for (std::size_t block = 3; block < 40; ++block)
    momentary = std::max<double>(momentary, history.at("momentaryLUFS").at(block));
  EXPECT_EQ(record.at("maxMomentaryLUFS"), momentary);
  double peak = -200;
  for (const double blockPeak : history.at("truePeakDBTP")) peak = std::max(peak, blockPeak);
  EXPECT_EQ(record.at("truePeakDBTP"), peak);
  EXPECT_FALSE(measureOne({folder / "x.wav"}).contains("history"));
}

// Cells of one line of a table; quotes taken off.
Arguments cellsOf(const std::string& line) {
  Arguments cells(1);
  bool isQuoted = false;
  for (std::size_t k = 0; k < line.size(); ++k) {
    if (line[k] == '"' && isQuoted && k + 1 < line.size() && line[k + 1] == '"')
      cells.back() += line[k++];
    else if (line[k] == '"')
      isQuoted = !isQuoted;
    else if (line[k] == ',' && !isQuoted)
      cells.emplace_back();
    else
      cells.back() += line[k];
  }
  return cells;
}

std::string cellOf(const ordered_json& value) {
  if (value.is_null()) return "";
  if (value.is_string()) return value;
  if (!value.is_array()) return value.dump();
  std::string cell;
  for (const ordered_json& element : value)
    cell += (cell.empty() && &element == &value.front() ? "" : ";") + cellOf(element);
  return cell;
}

TEST(MeasureCommand, ATableHoldsWhatTheRecordsHold) {
  const TemporaryFolder folder;
  const auto odd = folder / "a \"b\", c.wav";
  test::writeAudio(odd, noise(2, 48'000), 48000, test::floatWAV);
  test::writeAudio(folder / "silence.wav", Audio(3, 4800), 48000, test::floatWAV);
  test::writeCAF(folder / "reordered.caf", toneIn(0), filmOrderChunks()[0]);
  const Arguments files = {odd, folder / "missing.wav", folder / "silence.wav", folder / "reordered.caf"};
  const auto records = measureAll(files, 3);
  Arguments arguments = {"measure", "--csv"};
  arguments.insert(arguments.end(), files.begin(), files.end());
  const CommandResult result = runVellum(arguments);
  EXPECT_EQ(result.exitCode, 3);
  const auto lines = linesOf(result.out);
  ASSERT_EQ(lines.size(), 5u);
  Arguments columns = jsonKeys;
  columns.push_back("error");
  EXPECT_EQ(cellsOf(lines[0]), columns);
  for (std::size_t row = 0; row < records.size(); ++row) {
    const Arguments cells = cellsOf(lines[row + 1]);
    ASSERT_EQ(cells.size(), columns.size()) << lines[row + 1];
    for (std::size_t c = 0; c < columns.size(); ++c)
      EXPECT_EQ(cells[c], records[row].contains(columns[c]) ? cellOf(records[row].at(columns[c])) : "")
          << columns[c];
  }
}

TEST(MeasureCommand, TheTextTellsFiguresWithTheirUnits) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "tone.wav", tone(2, 48000, -23, 12), 48000,
                   {"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24});
  const CommandResult result = runVellum({"measure", folder / "tone.wav"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  const auto lines = linesOf(result.out);
  ASSERT_EQ(lines.size(), 14u) << result.out;
  EXPECT_EQ(lines[0], (folder / "tone.wav").string());
  EXPECT_EQ(lines[1], "  Audio                  WAV 24-bit, 48000 Hz, 2 channels, 0:12.0");
  EXPECT_EQ(lines[2], "  Channels               L 1, R 1");
  EXPECT_EQ(lines[3], "  Integrated loudness    -23.0 LUFS  (100 ms gating blocks)");
  EXPECT_EQ(lines[4], "  BS.1770 integrated     -23.0 LUFS  (400 ms gating blocks)");
  EXPECT_TRUE(startsWith(lines[5], "  Maximum momentary      -23.0 LUFS at 0:"));
  EXPECT_TRUE(startsWith(lines[6], "  Maximum short-term     -23.0 LUFS at 0:"));
  EXPECT_EQ(lines[7], "  Loudness range         0.0 LU");
  EXPECT_TRUE(startsWith(lines[8], "  True peak              -23.0 dBTP at 0:"));
  EXPECT_TRUE(contains(lines[8], "  (L -23.0, R -23.0)"));
  EXPECT_EQ(lines[9], "  Sample peak            -23.0 dBFS");
  EXPECT_EQ(lines[10], "  RMS                    -26.0 dBFS  (L -26.0, R -26.0)");
  EXPECT_TRUE(startsWith(lines[11], "  Dialogue loudness      "));
  EXPECT_TRUE(startsWith(lines[12], "  Noise floor            "));
  EXPECT_TRUE(startsWith(lines[13], "  Dynamic range          DR 1  (L 1, R 1)"));
}

TEST(MeasureCommand, TheTextSaysWhatWasNotMeasured) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "silence.wav", Audio(1, 48'000), 48000, test::floatWAV);
  const std::string out = runVellum({"measure", folder / "silence.wav"}).out;
  for (const char* line :
       {"  Integrated loudness    not measured\n", "  Loudness range         not measured\n",
        "  RMS                    not measured\n"})
    EXPECT_TRUE(contains(out, line));
}

TEST(MeasureCommand, TheTextHasNoNegativeZero) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", tone(1, 48000, -0.04), 48000, test::floatWAV);
  const std::string out = runVellum({"measure", folder / "x.wav"}).out;
  EXPECT_TRUE(contains(out, "  Sample peak            0.0 dBFS\n"));
}

TEST(MeasureCommand, NamesCannotSendControlCharactersToATerminal) {
  const TemporaryFolder folder;
  const auto path = folder / "a\x1b[31mb\nc.wav";
  test::writeAudio(path, noise(1, 4800), 48000, test::floatWAV);
  const std::string out = runVellum({"measure", path}).out;
  EXPECT_EQ(out.find('\x1b'), std::string::npos);
  EXPECT_TRUE(contains(linesOf(out).front(), "a?[31mb?c.wav"));
  EXPECT_EQ(measureOne({path}).at("file"), path.string());
}

// --- Files that are broken, or none

TEST(MeasureCommand, OneBadFileNeverStopsTheOthers) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "good.wav", tone(2, 48000, -23), 48000, test::floatWAV);
  test::writeAudio(folder / "wrong.mp3", tone(2, 48000, -23), 48000,
                   test::flac);  // the name says something else
  test::writeBytes(folder / "text.wav", "This is no audio.\n");
  test::writeBytes(folder / "empty.flac", "");
  const Arguments files = {folder / "missing.wav", folder / "good.wav",   folder.path(),
                           folder / "text.wav",    folder / "empty.flac", folder / "wrong.mp3"};
  const auto records = measureAll(files, 3);
  ASSERT_EQ(records.size(), 6u);
  const std::vector<std::string> errors = {"there is no such file", "",
                                           "it is a directory",     "it is not audio that this program reads",
                                           "the file is empty",     ""};
  for (std::size_t k = 0; k < records.size(); ++k) {
    EXPECT_EQ(records[k].at("file"), files[k]);
    if (errors[k].empty()) {
      EXPECT_NEAR(records[k].at("integratedLUFS"), -23, toneTolerance);
    } else {
      EXPECT_EQ(keysOf(records[k]), (Arguments{"file", "error"}));
      EXPECT_TRUE(startsWith(records[k].at("error").get<std::string>(), errors[k]));
    }
  }
  Arguments arguments = {"measure"};
  arguments.insert(arguments.end(), files.begin(), files.end());
  const CommandResult text = runVellum(arguments);
  EXPECT_EQ(text.exitCode, 3);
  EXPECT_EQ(text.err, "vellum: 4 of 6 files could not be measured\n");
  EXPECT_TRUE(contains(text.out, "text.wav\n  Error                  it is not audio"));
}

TEST(MeasureCommand, AFileThatMayNotBeReadIsAnError) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may read everything";
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", noise(1, 100), 48000, test::floatWAV);
  fs::permissions(folder / "x.wav", fs::perms::none);
  EXPECT_EQ(measureOne({folder / "x.wav"}, 3).at("error"), "no permission to read it");
}

TEST(MeasureCommand, WhatACutFileHoldsIsMeasuredWithAWarning) {
  const TemporaryFolder folder;
  const std::vector<test::FileKind> kinds = {
      {"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16}, test::flac, test::vorbis, test::opus, test::mp3};
  for (const test::FileKind& kind : kinds) {
    const auto path = folder / ("x." + kind.extension);
    test::writeAudio(path, noise(2, 480'000), 48000, kind);
    const std::string bytes = test::readBytes(path);
    test::writeBytes(path, std::string_view(bytes).substr(0, bytes.size() / 2));
    const ordered_json record = measureOne({path});
    EXPECT_GT(record.at("durationSec"), 4.0) << kind.extension;
    EXPECT_LT(record.at("durationSec"), 6.0) << kind.extension;
    EXPECT_TRUE(record.contains("integratedLUFS")) << kind.extension;
    EXPECT_TRUE(record.contains("warning")) << kind.extension;
    EXPECT_TRUE(contains(runVellum({"measure", path}).out, "  Warning                the file "))
        << kind.extension;
  }
}

TEST(MeasureCommand, DamagedAudioIsAnError) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.flac", noise(2, 480'000), 48000, test::flac);
  std::string bytes = test::readBytes(folder / "x.flac");
  bytes.replace(bytes.size() / 2, 50'000, std::string(50'000, 'x'));
  test::writeBytes(folder / "x.flac", bytes);
  EXPECT_TRUE(
      startsWith(measureOne({folder / "x.flac"}, 3).at("error").get<std::string>(), "it is damaged: "));
}

TEST(MeasureCommand, OddWAVFilesAreMeasuredOrReportedInOrder) {
  const Arguments files = wavFilesIn(oddWAVFolder(), "python3-scipy");
  ASSERT_GE(files.size(), 20u);
  const auto records = measureAll(files, 3);
  ASSERT_EQ(records.size(), files.size());
  Arguments failed;
  for (std::size_t k = 0; k < files.size(); ++k) {
    EXPECT_EQ(records[k].at("file"), files[k]);
    if (records[k].contains("error"))
      failed.push_back(fs::path(files[k]).filename());
    else
      EXPECT_EQ(records[k].at("durationSec").get<double>(),
                static_cast<double>(test::readAudio(files[k]).frameCount()) /
                    records[k].at("sampleRate").get<double>())
          << files[k];
  }
  EXPECT_EQ(failed, (Arguments{"test-44100Hz-le-1ch-4bytes-early-eof-no-data.wav",
                               "test-44100Hz-le-1ch-4bytes-incomplete-chunk.wav",
                               "test-8000Hz-le-3ch-5S-36bit.wav", "test-8000Hz-le-3ch-5S-45bit.wav",
                               "test-8000Hz-le-3ch-5S-53bit.wav", "test-8000Hz-le-3ch-5S-64bit.wav"}));
}

// --- Real speech and music

TEST(MeasureCommand, RealSpeechHasDialogueLoudnessAndANoiseFloor) {
  const Arguments files = wavFilesIn(speechFolder(), "pocketsphinx-testdata");
  for (const ordered_json& record : measureAll(files)) {
    EXPECT_GT(record.at("speechPercentage"), 0) << record;
    EXPECT_TRUE(record.contains("speechGatedLUFS")) << record;
    EXPECT_TRUE(record.contains("noiseFloorDBRMS")) << record;
    // Speech pauses: overlapping 400 ms blocks let in more of them than single blocks of 100 ms.
    EXPECT_LT(record.at("bs1770IntegratedLUFS"), record.at("integratedLUFS")) << record;
    EXPECT_GT(record.at("bs1770IntegratedLUFS"), record.at("integratedLUFS").get<double>() - 1.0) << record;
  }
}

// Peaks and levels against plain sums over the decoded samples.
TEST(MeasureCommand, RealMusicHasTheLevelsOfItsSamples) {
  const Arguments files = freeMusicFiles();
  ASSERT_GT(files.size(), 50u);
  Arguments arguments = {"--jobs", "2"};
  arguments.insert(arguments.end(), files.begin(), files.end());
  const auto records = measureAll(arguments);
  ASSERT_EQ(records.size(), files.size());
  for (std::size_t k = 0; k < files.size(); ++k) {
    const Audio audio = test::readAudio(files[k]);
    const ordered_json& record = records[k];
    double peak = 0;
    for (std::size_t c = 0; c < audio.channels.size(); ++c) {
      double squares = 0;
      for (const float sample : audio.channels[c]) {
        peak = std::max(peak, std::abs(static_cast<double>(sample)));
        squares += static_cast<double>(sample) * sample;
      }
      EXPECT_NEAR(record.at("channelRMSDBFS").at(c),
                  10 * std::log10(squares / static_cast<double>(audio.frameCount())), 1e-4)
          << files[k];
    }
    EXPECT_NEAR(record.at("samplePeakDBFS"), 20 * std::log10(peak), 1e-4) << files[k];
    // The samples themselves are among the oversampled values; 32-bit levels are rounded.
    EXPECT_GE(record.at("truePeakDBTP").get<double>(), record.at("samplePeakDBFS").get<double>() - 1e-5)
        << files[k];
    EXPECT_TRUE(record.contains("maxMomentaryLUFS")) << files[k];
    EXPECT_FALSE(record.contains("warning")) << record;
  }
}

// --- Batches

TEST(MeasureCommand, FilesSideBySideGiveTheSameOutput) {
  const TemporaryFolder folder;
  std::mt19937 rng(5);
  Arguments files;
  for (int k = 0; k < 12; ++k) {
    files.push_back(folder / (std::to_string(k) + ".wav"));
    if (k % 5 != 3)
      test::writeAudio(files.back(),
                       noise(2, k % 4 == 0 ? 480'000 : 1 + static_cast<std::int64_t>(rng() % 9600)), 48000,
                       test::floatWAV);
  }
  for (const char* form : {"--json", "--csv", "--recursive"}) {  // the last one: text
    Arguments arguments = {"measure", form, "--jobs", "1"};
    arguments.insert(arguments.end(), files.begin(), files.end());
    const CommandResult one = runVellum(arguments);
    EXPECT_EQ(one.exitCode, 3);
    for (const char* jobs : {"2", "5", "100"}) {
      arguments[3] = jobs;
      const CommandResult several = runVellum(arguments);
      EXPECT_EQ(several.out, one.out) << jobs;
      EXPECT_EQ(several.err, one.err) << jobs;
      EXPECT_EQ(several.exitCode, 3);
    }
  }
}

TEST(MeasureCommand, RecursiveFindsTheAudioFilesBelowADirectory) {
  const TemporaryFolder folder;
  fs::create_directories(folder / "b" / "deep");
  fs::create_directories(folder / ".hidden");
  fs::create_directory(folder / "empty");
  const Arguments names = {"a.WAV", "b/deep/x.flac", "b/y.ogg", "c.wav"};
  for (const std::string& name : names)
    test::writeAudio(folder / name, noise(1, 4800), 48000, test::floatWAV);
  for (const char* name : {".hidden/x.wav", "._a.wav"})
    test::writeAudio(folder / name, noise(1, 4800), 48000, test::floatWAV);
  test::writeBytes(folder / "b" / "cover.jpg", "no audio");
  fs::create_directory_symlink(folder.path(), folder / "b" / "loop");

  const auto records = measureAll({"--recursive", folder.path()});
  Arguments found;
  for (const ordered_json& record : records)
    found.push_back(fs::path(record.at("file")).lexically_relative(folder.path()));
  EXPECT_EQ(found, names);
  EXPECT_EQ(measureOne({"--recursive", folder / "empty"}, 3).at("error"),
            "there are no audio files in this directory");
  EXPECT_EQ(measureOne({folder / "b"}, 3).at("error"),
            "it is a directory (--recursive measures the audio files in it)");
}

TEST(MeasureCommand, AnyFileNameCanBeGiven) {
  const TemporaryFolder folder;
  for (const char* name : {"[live]", "-x.wav", "ä ö.wav", "a,b.wav", "\xFF.wav", "--json"})
    test::writeAudio(folder / name, noise(1, 4800), 48000, test::floatWAV);
  const CommandResult result =
      runVellum({"measure", "--json", "[live]", "ä ö.wav", "a,b.wav", "\xFF.wav", "--", "-x.wav", "--json"},
                {.environment = {}, .out = {}, .workingFolder = folder.path()});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  Arguments found;
  for (const ordered_json& record : recordsOf(result.out)) found.push_back(record.at("file"));
  EXPECT_EQ(found, (Arguments{"./[live]", "ä ö.wav", "a,b.wav", "\uFFFD.wav", "./-x.wav", "./--json"}));
}

// --- The output

TEST(MeasureCommand, OutWritesWhatStandardOutputWouldHave) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", noise(2, 9600), 48000, test::floatWAV);
  for (const char* form : {"--json", "--csv", "--recursive"}) {
    const auto out = folder / (std::string("out") + form);
    const CommandResult direct = runVellum({"measure", form, folder / "x.wav"});
    const CommandResult result = runVellum({"measure", form, folder / "x.wav", "--out", out});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(test::readBytes(out), direct.out);
  }
}

TEST(MeasureCommand, OutKeepsAnExistingFileUnlessForced) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", noise(2, 9600), 48000, test::floatWAV);
  test::writeBytes(folder / "out", "old");
  const CommandResult kept = runVellum({"measure", folder / "x.wav", "--out", folder / "out"});
  EXPECT_EQ(kept.exitCode, 3);
  EXPECT_EQ(kept.err,
            "vellum: " + (folder / "out").string() + ": there is such a file already; --force replaces it\n");
  EXPECT_EQ(test::readBytes(folder / "out"), "old");
  EXPECT_EQ(runVellum({"measure", folder / "x.wav", "--out", folder / "out", "--force"}).exitCode, 0);
  EXPECT_TRUE(contains(test::readBytes(folder / "out"), "Integrated loudness"));
  EXPECT_EQ(folder.names(), (Arguments{"out", "x.wav"}));
}

TEST(MeasureCommand, OutNeverReplacesAnInput) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", noise(2, 9600), 48000, test::floatWAV);
  const std::string before = test::readBytes(folder / "x.wav");
  for (const Arguments& input : {Arguments{folder / "x.wav"}, Arguments{"--recursive", folder.path()}}) {
    Arguments arguments = {"measure", "--force", "--out", folder / "." / "x.wav"};
    arguments.insert(arguments.end(), input.begin(), input.end());
    const CommandResult result = runVellum(arguments);
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_TRUE(contains(result.err, "x.wav: it is one of the files that are read\n"));
  }
  EXPECT_EQ(test::readBytes(folder / "x.wav"), before);
}

TEST(MeasureCommand, OutIsWrittenAlsoWhenSomeFilesFail) {
  const TemporaryFolder folder;
  EXPECT_EQ(runVellum({"measure", "--json", folder / "missing.wav", "--out", folder / "out"}).exitCode, 3);
  EXPECT_TRUE(contains(test::readBytes(folder / "out"), "there is no such file"));
}

TEST(MeasureCommand, AnOutputThatCannotBeWrittenIsTold) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", noise(2, 9600), 48000, test::floatWAV);
  const CommandResult missing = runVellum({"measure", folder / "x.wav", "--out", folder / "no" / "out"});
  EXPECT_EQ(missing.exitCode, 3);
  EXPECT_EQ(missing.err, "vellum: " + (folder / "no" / "out").string() + ": its folder does not exist\n");
  const CommandResult full =
      runVellum({"measure", folder / "x.wav"}, {.environment = {}, .out = "/dev/full", .workingFolder = {}});
  EXPECT_EQ(full.exitCode, 3);
  EXPECT_EQ(full.err, "vellum: standard output cannot be written: No space left on device\n");
}

// The reading end of a pipe into which the command writes far more than it holds.
class PipeReader {
 public:
  explicit PipeReader(const TemporaryFolder& folder) : path_(folder / "pipe") {
    test::writeAudio(folder / "x.wav", noise(1, 8000 * 120), 8000, test::floatWAV);
    arguments_.insert(arguments_.end(), 20, folder / "x.wav");
    if (::mkfifo(path_.c_str(), 0600) != 0) throw std::runtime_error("no pipe");
    reader_ = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    command_ = std::make_unique<test::RunningCommand>(
        arguments_, test::CommandSettings{.environment = {}, .out = path_, .workingFolder = {}});
  }
  ~PipeReader() { close(); }

  test::RunningCommand& command() { return *command_; }
  void waitForBytes(int count) const {
    for (int held = 0; held < count; std::this_thread::sleep_for(std::chrono::milliseconds(1)))
      if (::ioctl(reader_, FIONREAD, &held) != 0) throw std::runtime_error("no pipe");
  }
  void close() {
    if (reader_ >= 0) ::close(std::exchange(reader_, -1));
  }

 private:
  fs::path path_;
  Arguments arguments_ = {"measure", "--json", "--history"};
  int reader_ = -1;
  std::unique_ptr<test::RunningCommand> command_;
};

TEST(MeasureCommand, AClosedPipeEndsQuietly) {
  const TemporaryFolder folder;
  PipeReader pipe(folder);
  pipe.waitForBytes(1);
  pipe.close();
  const CommandResult result = pipe.command().wait();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
}

TEST(MeasureCommand, CtrlCEndsAlsoWhenNobodyReadsThePipe) {
  const TemporaryFolder folder;
  PipeReader pipe(folder);
  pipe.waitForBytes(60'000);  // nearly what it holds
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  pipe.command().signal(SIGINT);
  EXPECT_EQ(pipe.command().wait().exitCode, 130);
}

TEST(MeasureCommand, CtrlCEndsAtOnceAndLeavesNothing) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.flac", Audio(2, 48'000 * 60), 48000, test::flac);
  for (const char* jobs : {"1", "3"}) {
    Arguments arguments = {"measure", "--jobs", jobs, "--out", folder / "out"};
    arguments.insert(arguments.end(), 400, folder / "x.flac");  // more than can be done meanwhile
    test::RunningCommand command(arguments);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // now it works; its output has no name yet
    command.signal(SIGINT);
    const auto asked = std::chrono::steady_clock::now();
    const CommandResult result = command.wait();
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(5));
    EXPECT_EQ(result.exitCode, 130) << result.err;
    EXPECT_EQ(folder.names(), Arguments{"x.flac"});
  }
}

// --- The command line

TEST(MeasureCommand, WrongArgumentsAreRefusedWithOneLine) {
  const std::vector<std::pair<Arguments, std::string>> cases = {
      {{}, "a verb is required"},
      {{"sing"}, "sing"},
      {{"measure"}, "FILE is required"},
      {{"measure", "--loud", "x"}, "--loud"},
      {{"measure", "--json", "--csv", "x"}, "--json: does not go together with --csv"},
      {{"measure", "--history", "x"}, "--history: needs --json"},
      {{"measure", "--history", "--csv", "x"}, "--history: needs --json"},
      {{"measure", "--weights", "1,1", "--dual-mono", "x"},
       "--weights: does not go together with --dual-mono"},
      {{"measure", "--force", "x"}, "--force: needs --out"},
      {{"measure", "--weights", "1,-1", "x"}, "--weights: '-1' is not a weight"},
      {{"measure", "--weights", "1,nan", "x"}, "--weights: 'nan' is not a weight"},
      {{"measure", "--weights", "inf", "x"}, "--weights: 'inf' is not a weight"},
      {{"measure", "--weights", "1e300", "x"}, "--weights: '1e300' is not a weight"},
      {{"measure", "--weights", "1,,1", "x"}, "--weights: '' is not a weight"},
      {{"measure", "--weights", "1,1,", "x"}, "--weights: '' is not a weight"},
      {{"measure", "--weights", "1;1", "x"}, "--weights: '1;1' is not a weight"},
      {{"measure", "--weights", "", "x"}, "--weights"},
      {{"measure", "--layout", "L,X", "x"},
       "--layout: 'X' is not a channel; the channels are L R C LFE Ls Rs Lc Rc Cs Lss Rss Lb Rb LFE2 M"},
      {{"measure", "--layout", "L,R,L", "x"},
       "--layout: 'L' stands there twice; the channels are L R C LFE Ls Rs Lc Rc Cs Lss Rss Lb Rb LFE2 M"},
      {{"measure", "--layout", "l,r", "x"}, "--layout: 'l' is not a channel"},
      {{"measure", "--layout", "L, R", "x"}, "--layout: ' R' is not a channel"},
      {{"measure", "--layout", "L,,R", "x"}, "--layout: '' is not a channel"},
      {{"measure", "--layout", "L,Ch2", "x"}, "--layout: 'Ch2' is not a channel"},
      {{"measure", "--layout", "", "x"}, "--layout"},
      {{"measure", "--from", "-1", "x"}, "--from: '-1' is not a time"},
      {{"measure", "--from", "nan", "x"}, "--from: 'nan' is not a time"},
      {{"measure", "--from", "1e999", "x"}, "--from: '1e999' is not a time"},
      {{"measure", "--from", "1e18", "x"}, "--from: '1e18' is not a time"},
      {{"measure", "--to", "soon", "x"}, "--to: 'soon' is not a time"},
      {{"measure", "--to", "1:60", "x"}, "--to: '1:60' is not a time"},
      {{"measure", "--to", "1.5:20", "x"}, "--to: '1.5:20' is not a time"},
      {{"measure", "--to", "1:2:3:4", "x"}, "--to: '1:2:3:4' is not a time"},
      {{"measure", "--to", "0", "x"}, "--to: has to be later"},
      {{"measure", "--from", "5", "--to", "5", "x"}, "--to: has to be later"},
      {{"measure", "--jobs", "0", "x"}, "--jobs: '0' is not a whole number from 1 to 256"},
      {{"measure", "--jobs", "two", "x"}, "--jobs: 'two' is not"},
      {{"measure", "--jobs", "1.5", "x"}, "--jobs: '1.5' is not"},
      {{"measure", "--out", "", "x"}, "--out"},
  };
  for (const auto& [arguments, message] : cases) {
    const CommandResult result = runVellum(arguments);
    EXPECT_EQ(result.exitCode, 2) << message;
    EXPECT_EQ(result.out, "") << message;
    EXPECT_TRUE(startsWith(result.err, "vellum: ")) << message;
    EXPECT_TRUE(contains(linesOf(result.err).front(), message));
  }
}

TEST(MeasureCommand, ClockTimesAreTimes) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", noise(1, 8000 * 70), 8000, test::floatWAV);
  EXPECT_EQ(measureOne({"--from", "0:01:00.5", "--to", "1:02", folder / "x.wav"}).at("durationSec"), 1.5);
}

TEST(MeasureCommand, HelpAndVersionGoToStandardOutput) {
  const CommandResult version = runVellum({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_TRUE(startsWith(version.out, "vellum "));
  for (const Arguments& arguments : {Arguments{"--help"}, Arguments{"measure", "--help"}}) {
    const CommandResult help = runVellum(arguments);
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_EQ(help.err, "");
    EXPECT_TRUE(contains(help.out, "Example"));
    EXPECT_TRUE(contains(help.out, "vellum measure song.flac"));
  }
}

TEST(MeasureCommand, TheLocaleDoesNotMatter) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", tone(2, 48000, -23), 48000, test::floatWAV);
  const Arguments arguments = {"measure", "--json", "--from", "0.5", "--weights", "1,0.5", folder / "x.wav"};
  const CommandResult plain = runVellum(arguments);
  EXPECT_EQ(plain.exitCode, 0);
  // A locale of our own with a decimal comma, if the system has the parts to make one.
  const auto locales = folder / "locales";
  fs::create_directory(locales);
  const std::string make =
      "localedef -i de_DE -f UTF-8 '" + (locales / "de_DE.UTF-8").string() + "' >/dev/null 2>&1";
  const bool isMade = std::system(make.c_str()) == 0;
  const CommandResult german =
      runVellum(arguments, {.environment = {{"LC_ALL", isMade ? "de_DE.UTF-8" : "C"}, {"LOCPATH", locales}},
                            .out = {},
                            .workingFolder = {}});
  EXPECT_EQ(german.out, plain.out);
}

// --- On a terminal

// Everything that the command shows on a terminal of its own, both streams.
std::string onTerminal(const Arguments& arguments, const std::map<std::string, std::string>& environment) {
  std::vector<char*> argv = {const_cast<char*>(VELLUM_COMMAND)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  int terminal = -1;
  winsize size{24, 60, 0, 0};
  const pid_t child = ::forkpty(&terminal, nullptr, nullptr, &size);
  if (child == 0) {
    ::unsetenv("NO_COLOR");
    for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
    ::alarm(60);
    ::execv(VELLUM_COMMAND, argv.data());
    ::_exit(127);
  }
  std::string shown;
  char buffer[4096];
  for (ssize_t got; (got = ::read(terminal, buffer, sizeof buffer)) > 0;)
    shown.append(buffer, static_cast<std::size_t>(got));
  ::close(terminal);
  ::waitpid(child, nullptr, 0);
  return shown;
}

TEST(MeasureCommand, ProgressIsShownOnATerminalOnlyAndTakenAway) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "a rather long name that does not fit on the line.flac", Audio(8, 48'000 * 120),
                   48000, test::flac);
  const std::string path = folder / "a rather long name that does not fit on the line.flac";
  const std::string shown = onTerminal({"measure", path}, {{"TERM", "xterm"}});
  EXPECT_TRUE(contains(shown, "\r1/1  ["));
  EXPECT_TRUE(contains(shown, " / 2:00  "));
  EXPECT_TRUE(contains(shown, " left  "));
  EXPECT_TRUE(contains(shown, "x  a rather"));
  EXPECT_FALSE(contains(shown.substr(0, shown.find(path)), "on the line"));  // cut to the width
  EXPECT_TRUE(contains(shown, "\r\x1b[K" + path));                           // gone before the figures

  EXPECT_FALSE(contains(onTerminal({"measure", path}, {{"TERM", "dumb"}}), "\r1/1"));
  EXPECT_EQ(runVellum({"measure", path}).err, "");
}

TEST(MeasureCommand, ColoursAreShownOnATerminalOnlyAndNotWithNoColor) {
  const Arguments arguments = {"measure", "/no/such/file.wav"};
  EXPECT_TRUE(contains(onTerminal(arguments, {{"TERM", "xterm"}}), "\x1b[31mvellum:\x1b[0m 1 of 1 file"));
  EXPECT_TRUE(
      contains(onTerminal(arguments, {{"TERM", "xterm"}, {"NO_COLOR", "1"}}), "\nvellum: 1 of 1 file"));
  EXPECT_EQ(runVellum(arguments).err, "vellum: 1 of 1 file could not be measured\n");
}

// --- Memory

// 40 minutes against 4: only the statistics of the blocks grow, some 80 bytes for each 100 ms.
TEST(MeasureCommand, MemoryDoesNotGrowWithTheAudio) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "short.flac", Audio(2, 8000 * 240), 8000, test::flac);
  test::writeAudio(folder / "long.flac", Audio(2, 8000 * 2400), 8000, test::flac);
  const auto shortRun = test::runVellumWatchingMemory({"measure", folder / "short.flac"});
  const auto longRun = test::runVellumWatchingMemory({"measure", folder / "long.flac"});
  EXPECT_EQ(longRun.exitCode, 0);
  EXPECT_GT(shortRun.peakKilobytes, 1000);
  const double blocks = (2400 - 240) * 10;
  EXPECT_LT(static_cast<double>(longRun.peakKilobytes - shortRun.peakKilobytes) * 1024,
            blocks * 300);  // with slack of growing arrays
}

}  // namespace
}  // namespace vellum
