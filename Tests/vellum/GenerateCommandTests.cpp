// `vellum generate`, end to end.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Support/AllocationCounter.hpp"
#include "Support/AudioFiles.hpp"
#include "Support/CommandText.hpp"
#include "Support/RunCommand.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"
#include "VellumApp/EmbeddedDocuments.hpp"
#include "VellumCore/Json/GeneratorDocuments.hpp"
#include "VellumCore/SignalGenerator.hpp"

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
using test::startsWith;

class GenerateCommand : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return folder_ / name; }
  std::string write(const std::string& name, const std::string& text) const {
    test::writeBytes(folder_ / name, text);
    return path(name);
  }
  static CommandResult generate(const Arguments& arguments) {
    return runVellum(Arguments{"generate"} + arguments);
  }
  // What a preset sounds like.
  Audio preset(const std::string& name) const {
    const CommandResult result = generate({"--preset", name, path("preset.wav"), "--force"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return test::readAudio(path("preset.wav"));
  }

  test::TemporaryFolder folder_;
};

// A document of one module in one channel.
std::string documentOf(const std::string& module, const std::string& rest = "") {
  return R"({"channels": [{"modules": [{)" + module + "}]}]" + rest + "}";
}

const std::string tone = documentOf(R"("source": {"sine": {"frequency": 1000}}, "duration": 0.1)");

double levelDB(double value) {
  return 20 * std::log10(value);
}

double peakOf(const std::vector<float>& samples, std::size_t from, std::size_t to) {
  double peak = 0;
  for (std::size_t n = from; n < to; ++n) peak = std::max(peak, std::abs(static_cast<double>(samples[n])));
  return peak;
}

double peakOf(const std::vector<float>& samples) {
  return peakOf(samples, 0, samples.size());
}

double rmsOf(const std::vector<float>& samples) {
  long double sum = 0;
  for (const float sample : samples) sum += static_cast<long double>(sample) * sample;
  return static_cast<double>(std::sqrt(sum / static_cast<long double>(samples.size())));
}

// Frames that are not silent, in runs with less than 50 ms of silence inside: first and last frame of each.
std::vector<std::pair<std::size_t, std::size_t>> burstsOf(const std::vector<float>& samples) {
  std::vector<std::pair<std::size_t, std::size_t>> bursts;
  for (std::size_t n = 0; n < samples.size(); ++n) {
    if (samples[n] == 0) continue;
    if (bursts.empty() || n - bursts.back().second > 2400) bursts.emplace_back(n, n);
    bursts.back().second = n;
  }
  return bursts;
}

// From the first to the last upward zero crossing in a stretch of frames at 48 kHz.
double frequencyOf(const std::vector<float>& samples, std::size_t from, std::size_t to) {
  std::vector<double> crossings;
  for (std::size_t n = from + 1; n < to; ++n)
    if (samples[n - 1] < 0 && samples[n] >= 0) {
      const double below = samples[n - 1], above = samples[n];
      crossings.push_back(static_cast<double>(n) - above / (above - below));
    }
  return static_cast<double>(crossings.size() - 1) / (crossings.back() - crossings.front()) * 48000;
}

// --- Documents -------------------------------------------------------------------------------------------

TEST_F(GenerateCommand, ADocumentBecomesAFileAndALineTellsWhichItIs) {
  const std::string spec =
      write("spec.json",
            R"({"sampleRate": 44100, "bitDepth": "int16", "container": "aiff", "channels": [{"modules": [
                       {"source": {"sine": {"frequency": 100}}, "duration": 2}]}, {}]})");
  const CommandResult result = generate({spec, path("out.aiff")});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, path("out.aiff") + ": AIFF 16-bit, 44100 Hz, 2 channels, 0:02.0 (88200 frames)\n");
  const Audio audio = test::readAudio(path("out.aiff"));
  ASSERT_EQ(audio.channels.size(), 2u);
  EXPECT_EQ(audio.frameCount(), 88200);
  EXPECT_NEAR(levelDB(peakOf(audio.channels[0])), -6, 0.001);
  EXPECT_EQ(peakOf(audio.channels[1]), 0);
  EXPECT_EQ(folder_.names(), (Arguments{"out.aiff", "spec.json"}));
}

TEST_F(GenerateCommand, TheSameDocumentGivesTheSameBytes) {
  const std::string spec = write("spec.json", documentOf(R"("source": {"noise": {"_0": "pink"}})"));
  for (const std::string dither : {"none", "tpdf"}) {
    EXPECT_EQ(generate({spec, path("1.wav"), "--force", "--dither", dither}).exitCode, 0);
    EXPECT_EQ(generate({spec, path("2.wav"), "--force", "--dither", dither}).exitCode, 0);
    EXPECT_EQ(test::readBytes(path("1.wav")), test::readBytes(path("2.wav")));
  }
}

TEST_F(GenerateCommand, ADocumentIsReadFromStandardInput) {
  const auto generateFrom = [&](const std::string& text, const Arguments& arguments) {
    test::CommandSettings settings;
    settings.in = write("in.json", text);
    return runVellum(Arguments{"generate"} + arguments, settings);
  };
  EXPECT_EQ(generateFrom(tone, {"-", path("a.wav")}).exitCode, 0);
  generate({write("spec.json", tone), path("b.wav")});
  EXPECT_EQ(test::readBytes(path("a.wav")), test::readBytes(path("b.wav")));
  EXPECT_EQ(generateFrom(tone, {"--validate", "-"}).out,
            "standard input: WAV 24-bit, 48000 Hz, 1 channel, 0:00.1 (4800 frames)\n");
  const CommandResult faulty = generateFrom("{}", {"-", path("c.wav")});
  EXPECT_EQ(faulty.exitCode, 2);
  EXPECT_EQ(faulty.err, "vellum: standard input: The spec has no channels.\n");
  // Above 64 MiB, of spaces.
  const CommandResult large =
      generateFrom(std::string((std::size_t{64} << 20) + 1, ' '), {"-", path("c.wav")});
  EXPECT_EQ(large.exitCode, 3);
  EXPECT_EQ(large.err, "vellum: standard input: it is larger than 64 MiB\n");
  EXPECT_FALSE(fs::exists(path("c.wav")));
}

TEST_F(GenerateCommand, ValidateWritesNothing) {
  const std::string spec = write("spec.json", tone);
  const CommandResult result = generate({spec, "--validate"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, spec + ": WAV 24-bit, 48000 Hz, 1 channel, 0:00.1 (4800 frames)\n");
  EXPECT_EQ(generate({spec, path("out.wav"), "--validate"}).out, result.out);
  EXPECT_EQ(generate({spec, path("out.caf"), "--validate"}).exitCode, 2);
  EXPECT_EQ(folder_.names(), (Arguments{"spec.json"}));
}

TEST_F(GenerateCommand, AFaultyDocumentIsToldByItsPlaceAndNothingIsWritten) {
  const std::vector<std::pair<std::string, std::string>> faults = {
      {"{\n  \"channels\": [,]\n}", "line 2, column 16: "},
      {"", "line 1, column 1: "},
      {R"({"channels": [{"modules": [{}]}]})",
       "channels[0].modules[0].source: the member \"source\" is missing\n"},
      {R"({"channels": [{}, {"modules": [{"source": {}}]}]})",
       "channels[1].modules[0].source: Invalid number of keys found, expected one.\n"},
      {R"({"bitDepth": "int8"})", "bitDepth: "},
      {R"({"sampleRate": "48000"})", "sampleRate: expected a number, found text\n"},
      {"{}", "The spec has no channels.\n"},
      {R"({"channels": [{}]})", "The spec resolves to zero length: add a module or set a duration.\n"},
      {R"({"sampleRate": 0, "channels": []})",
       "Sample rate must be a finite value between 1 Hz and 1000000 Hz (got 0.0).\n"},
      {documentOf(R"("source": {"silence": {}}, "start": -1)"),
       "Channel 0 module 0: start time can't be negative (got -1.0 s).\n"},
      {documentOf(R"("source": {"silence": {}}, "duration": 0)"),
       "Channel 0 module 0: duration must be positive (got 0.0 s).\n"},
      {documentOf(R"("source": {"sine": {"frequency": 24000}})"),
       "Channel 0 module 0: frequency 24000.0 Hz is outside (0, 24000.0) Hz (Nyquist).\n"},
      {documentOf(R"("source": {"silence": {}}, "duration": 1e9)"),
       "Length 1000000000.0 s is over the cap (44739 s at this sample rate).\n"},
      {documentOf(R"("source": {"silence": {}})", R"(, "sampleRate": 44100.5)"),
       "sampleRate: audio files have whole sample rates, and 44100.5 Hz is none\n"}};
  for (const auto& [text, told] : faults) {
    const std::string spec = write("spec.json", text);
    for (const Arguments& arguments : {Arguments{spec, path("out.wav")}, Arguments{"--validate", spec}}) {
      const CommandResult result = generate(arguments);
      EXPECT_EQ(result.exitCode, 2) << text;
      EXPECT_EQ(result.out, "");
      EXPECT_TRUE(startsWith(result.err, "vellum: " + spec + ": " + told));
      EXPECT_EQ(test::linesOf(result.err).size(), 1u) << result.err;
    }
  }
  EXPECT_EQ(folder_.names(), (Arguments{"spec.json"}));
}

// --- Options ---------------------------------------------------------------------------------------------

TEST_F(GenerateCommand, AHarmonicCapOfOneLeavesASine) {
  const std::string spec = write(
      "spec.json", documentOf(R"("source": {"square": {"frequency": 1000}})", R"(, "bitDepth": "float32")"));
  ASSERT_EQ(generate({spec, path("out.wav"), "--harmonic-cap", "1"}).exitCode, 0);
  const std::vector<float> samples = test::readAudio(path("out.wav")).channels[0];
  for (std::size_t n = 0; n < samples.size(); ++n) {
    const double phase = 2 * 3.14159265358979323846 * static_cast<double>(n % 48) / 48;
    ASSERT_NEAR(samples[n], std::pow(10.0, -0.3) * std::sin(phase), 1e-6) << n;  // -6 dB
  }
  // Without a cap the peak is the same, and the RMS that of a square, which is above.
  ASSERT_EQ(generate({spec, path("square.wav")}).exitCode, 0);
  EXPECT_GT(rmsOf(test::readAudio(path("square.wav")).channels[0]), 1.1 * rmsOf(samples));
}

TEST_F(GenerateCommand, DitherMovesIntegersByOneStepAndIsNotTheDefault) {
  const std::string spec =
      write("spec.json", documentOf(R"("source": {"sine": {"frequency": 997}})", R"(, "bitDepth": "int16")"));
  const auto rendered = [&](const Arguments& options) {
    EXPECT_EQ(generate(Arguments{spec, path("out.wav"), "--force"} + options).exitCode, 0);
    return test::readAudio(path("out.wav")).channels[0];
  };
  const std::vector<float> plain = rendered({}), dithered = rendered({"--dither", "tpdf"});
  EXPECT_EQ(rendered({"--dither", "none"}), plain);
  EXPECT_NE(dithered, plain);
  for (std::size_t n = 0; n < plain.size(); ++n)
    ASSERT_LE(std::abs(dithered[n] - plain[n]), 1 / 32768.0f) << n;
}

TEST_F(GenerateCommand, ClippedSamplesAreCountedAndNoError) {
  // 6 + 6 dB at frames 0, 1000, 2000, 3000 and 4000: half a second and a half of a period each.
  const std::string text = documentOf(
      R"("source": {"impulse": {}}, "duration": 0.1, "gainDB": 6,
         "burst": {"onSeconds": 0.01, "offSeconds": 0.0108333333})");
  const std::string spec = write("spec.json", text);
  const CommandResult result = generate({spec, path("out.wav")});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err,
            "vellum: " + path("out.wav") + ": 5 samples were outside of the format's range, and clipped\n");
  EXPECT_NEAR(peakOf(test::readAudio(path("out.wav")).channels[0]), 1, 1e-6);
}

TEST_F(GenerateCommand, ChannelNamesThatAreLeftOutAreTold) {
  const std::string spec = write("spec.json", R"({"duration": 0.1, "channels": [
    {"name": "Ls"}, {"name": "Rs"}, {"name": "L"}, {"name": "R"}]})");
  const CommandResult result = generate({spec, path("out.wav")});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_TRUE(startsWith(result.err, "vellum: " + path("out.wav") + ": WAV cannot name channels"));
}

// --- Outputs ---------------------------------------------------------------------------------------------

TEST_F(GenerateCommand, AnExistingOutputIsKeptWithoutForce) {
  const std::string spec = write("spec.json", tone);
  write("out.wav", "precious");
  const CommandResult result = generate({spec, path("out.wav")});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.err,
            "vellum: " + path("out.wav") + ": there is such a file already; --force replaces it\n");
  EXPECT_EQ(test::readBytes(path("out.wav")), "precious");
  EXPECT_EQ(generate({spec, path("out.wav"), "--force"}).exitCode, 0);
  EXPECT_EQ(test::readAudio(path("out.wav")).frameCount(), 4800);
}

TEST_F(GenerateCommand, TheDocumentIsNeverTheOutput) {
  const std::string spec = write("spec.wav", tone);
  fs::create_hard_link(spec, path("link.wav"));
  for (const std::string name : {"spec.wav", "link.wav"}) {
    const CommandResult result = generate({spec, path(name), "--force"});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.err, "vellum: " + path(name) + ": it is one of the files that are read\n");
  }
  EXPECT_EQ(test::readBytes(spec), tone);
}

TEST_F(GenerateCommand, AnOutputWhoseExtensionDisagreesIsRefused) {
  for (const std::string container : {"wav", "aiff", "caf"}) {
    const std::string spec = write("spec.json", documentOf(R"("source": {"silence": {}}, "duration": 0.1)",
                                                           ", \"container\": \"" + container + "\""));
    for (const std::string extension : {"wav", "rf64", "aif", "aiff", "caf", "flac", "w64", "mp3", "json"}) {
      const std::string out = path("out." + extension);
      const bool fits =
          extension.substr(0, 3) == container.substr(0, 3) || (extension == "rf64" && container == "wav");
      const CommandResult result = generate({spec, out, "--force"});
      EXPECT_EQ(result.exitCode, fits ? 0 : 2) << container << " " << extension;
      EXPECT_EQ(fs::exists(out), fits);
      fs::remove(out);
      if (!fits) {
        EXPECT_TRUE(startsWith(result.err, "vellum: OUT: '" + out + "' does not end in ." + container +
                                               ", and the document's container is " + container + "\n"));
      }
    }
  }
}

TEST_F(GenerateCommand, WhatDoesNotFitOnTheDiskIsRefusedBeforeAByteIsWritten) {
  if (fs::space(folder_.path()).available > 1'000'000'000'000) GTEST_SKIP() << "it would fit";
  std::string channels = "{}";
  for (int k = 1; k < 128; ++k) channels += ", {}";
  const std::string spec =
      write("spec.json", R"({"sampleRate": 1000000, "duration": 2147, "bitDepth": "float32",
                                                  "channels": [)" +
                             channels + "]}");
  const CommandResult result = generate({spec, path("out.wav")});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_TRUE(startsWith(result.err, "vellum: " + path("out.wav") +
                                         ": there is too little space for it: it needs 1.0 TB, and "));
  EXPECT_TRUE(contains(result.err, " are free\n"));
  EXPECT_EQ(folder_.names(), (Arguments{"spec.json"}));
  // A document of such a size can be checked all the same.
  EXPECT_EQ(generate({spec, "--validate"}).out,
            spec + ": RF64 32-bit float, 1000000 Hz, 128 channels, 35:47.0 (2147000000 frames)\n");
}

// Noise is measured for several seconds before it is rendered, a sine is rendered at once.
TEST_F(GenerateCommand, AnEndedRunLeavesNothingBehind) {
  for (const std::string source : {R"({"noise": {"_0": "pink"}})", R"({"sine": {"frequency": 1000}})"})
    for (const int signal : {SIGINT, SIGTERM, SIGKILL}) {
      const std::string spec =
          write("spec.json", documentOf("\"source\": " + source + ", \"duration\": 43200",
                                        R"(, "sampleRate": 48000, "bitDepth": "int16")"));
      test::RunningCommand command({"generate", spec, path("out.wav")});
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      command.signal(signal);
      EXPECT_EQ(command.wait().exitCode, signal == SIGKILL ? 128 + SIGKILL : 130);
      EXPECT_EQ(folder_.names(), (Arguments{"spec.json"}));
    }
}

// 10 minutes are 58 MB of samples in 16 bit, twice that in memory.
TEST_F(GenerateCommand, MemoryDoesNotGrowWithTheSignal) {
  const auto peakKilobytes = [&](const std::string& seconds) {
    const std::string spec = write(
        "spec.json",
        documentOf("\"source\": {\"noise\": {\"_0\": \"white\"}}, \"gainDB\": -20, \"duration\": " + seconds,
                   R"(, "bitDepth": "int16", "peakCeilingDB": -1)"));
    const CommandResult result =
        test::runVellumWatchingMemory({"generate", spec, path("out.wav"), "--force"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_GT(result.peakKilobytes, 1000);
    return result.peakKilobytes;
  };
  const std::int64_t brief = peakKilobytes("10"), lengthy = peakKilobytes("600");
  EXPECT_LT(lengthy - brief, 1000);
  // A sanitizer takes more by itself.
  EXPECT_LT(lengthy, test::AllocationCounter::isAvailable ? 20'000 : 200'000);
}

// --- Presets ---------------------------------------------------------------------------------------------

TEST_F(GenerateCommand, ThePresetsAreListedWithADescription) {
  const CommandResult result = generate({"--list"});
  EXPECT_EQ(result.exitCode, 0);
  const Arguments names = {"tone",           "pink-noise",     "sweep",    "channel-id-stereo",
                           "channel-id-5.1", "channel-id-7.1", "impulses", "bursts"};
  const std::vector<std::string> lines = test::linesOf(result.out);
  ASSERT_EQ(lines.size(), names.size());
  for (std::size_t k = 0; k < names.size(); ++k) {
    EXPECT_TRUE(startsWith(lines[k], names[k] + "  "));
    EXPECT_GT(lines[k].size(), std::string("channel-id-stereo  ").size() + 10);
    EXPECT_LE(lines[k].size(), 120u);
  }
}

TEST_F(GenerateCommand, ThePresetsAreTheFilesOfTheExamplesWithStableIDs) {
  const fs::path examples = fs::path(__FILE__).parent_path() / ".." / ".." / "Examples" / "generator";
  std::size_t files = 0;
  for (const auto& entry : fs::directory_iterator(examples)) files += entry.path().extension() == ".json";
  EXPECT_EQ(files, generatorPresetDocuments().size());
  for (const EmbeddedDocument& preset : generatorPresetDocuments()) {
    const std::string name(preset.name), text = test::readBytes(examples / (name + ".json"));
    EXPECT_EQ(preset.text, text);
    EXPECT_EQ(generate({"--preset", name, "--print"}).out, text);
    EXPECT_EQ(Json::parseGeneratorSpec(text), Json::parseGeneratorSpec(text)) << name;
    const CommandResult checked = generate({"--preset", name, "--validate"});
    EXPECT_EQ(checked.exitCode, 0) << checked.err;
    EXPECT_TRUE(startsWith(checked.out, name + ": WAV 24-bit, 48000 Hz, "));
    // What is printed renders as the preset does.
    generate({write("printed.json", text), path("printed.wav"), "--force"});
    generate({"--preset", name, path("preset.wav"), "--force"});
    EXPECT_EQ(test::readBytes(path("printed.wav")), test::readBytes(path("preset.wav"))) << name;
  }
}

TEST_F(GenerateCommand, TheToneHasItsLevelAndFrequency) {
  const Audio audio = preset("tone");
  ASSERT_EQ(audio.channels.size(), 2u);
  for (const auto& channel : audio.channels) {
    EXPECT_NEAR(levelDB(peakOf(channel)), -18, 1e-4);
    EXPECT_NEAR(frequencyOf(channel, 0, channel.size()), 1000, 1e-3);
  }
  const ordered_json measured = ordered_json::parse(runVellum({"measure", "--json", path("preset.wav")}).out);
  EXPECT_NEAR(measured.at("truePeakDBTP"), -18, 0.01);
}

TEST_F(GenerateCommand, TheNoiseHasItsLevelAndFallsBy3DBPerOctave) {
  const Audio audio = preset("pink-noise");
  ASSERT_EQ(audio.channels.size(), 2u);
  for (const auto& channel : audio.channels) {
    EXPECT_NEAR(levelDB(rmsOf(channel)), -20, 1e-4);
    // The difference of neighbours weighs the power at f by 4 sin^2(pi f / rate). With power 1/f between
    // 20 Hz and 20 kHz, its RMS stands 2.9 dB below, where white noise's stands 3 dB above.
    std::vector<float> steps(channel.size() - 1);
    for (std::size_t n = 0; n < steps.size(); ++n) steps[n] = channel[n + 1] - channel[n];
    double power = 0, weighted = 0;
    for (double f = 20; f < 20'000; f *= 1.001) {  // equal steps of log f: each has the same share of power
      power += 1;
      weighted += 4 * std::pow(std::sin(3.14159265358979323846 * f / 48000), 2);
    }
    EXPECT_NEAR(levelDB(rmsOf(steps)) + 20, 10 * std::log10(weighted / power), 0.7);
  }
  EXPECT_NE(audio.channels[0], audio.channels[1]);
}

TEST_F(GenerateCommand, TheSweepGoesFrom20HzTo20KHzAtItsLevel) {
  const Audio audio = preset("sweep");
  ASSERT_EQ(audio.channels.size(), 1u);
  const std::vector<float>& sweep = audio.channels[0];
  ASSERT_EQ(sweep.size(), 960'000u);
  EXPECT_NEAR(levelDB(peakOf(sweep)), -12, 0.001);
  // 20 Hz x 1000^(t / 20 s)
  for (const double second : {2.0, 10.0, 18.0, 19.9}) {
    const auto at = static_cast<std::size_t>(second * 48000);
    const double expected = 20 * std::pow(1000, second / 20);
    const auto half = static_cast<std::size_t>(std::clamp(3 * 48000 / expected, 480.0, 48000.0));
    EXPECT_NEAR(frequencyOf(sweep, at - half, at + half) / expected, 1, 0.02) << second;
  }
  EXPECT_NEAR(frequencyOf(sweep, 960'000 - 480, 960'000), 20'000, 60);
}

TEST_F(GenerateCommand, EveryChannelIsIdentifiedByItsOwnNumberOfBurstsInItsOwnTime) {
  const std::map<std::string, Arguments> layouts = {
      {"channel-id-stereo", {"L", "R"}},
      {"channel-id-5.1", {"L", "R", "C", "LFE", "Ls", "Rs"}},
      {"channel-id-7.1", {"L", "R", "C", "LFE", "Lb", "Rb", "Ls", "Rs"}}};
  for (const auto& [name, channels] : layouts) {
    const Audio audio = preset(name);
    ASSERT_EQ(audio.channels.size(), channels.size());
    ASSERT_EQ(audio.frameCount(), static_cast<std::int64_t>(120'000 * channels.size()));  // 2.5 s each
    for (std::size_t c = 0; c < channels.size(); ++c) {
      const auto bursts = burstsOf(audio.channels[c]);
      ASSERT_EQ(bursts.size(), c + 1) << name << " " << channels[c];
      for (std::size_t k = 0; k < bursts.size(); ++k) {
        const std::size_t start = 120'000 * c + 12'000 * k;  // 0.25 s apart, 0.12 s long
        EXPECT_GE(bursts[k].first, start);
        EXPECT_LT(bursts[k].second, start + 5760);
        EXPECT_NEAR(levelDB(peakOf(audio.channels[c], start, start + 5760)), -18, 0.01);
        EXPECT_NEAR(frequencyOf(audio.channels[c], bursts[k].first, bursts[k].second),
                    channels[c] == "LFE" ? 50 : 1000, 0.5);
      }
    }
    const ordered_json measured =
        ordered_json::parse(runVellum({"measure", "--json", path("preset.wav")}).out);
    EXPECT_EQ(measured.at("channelNames"), ordered_json(channels)) << name;
  }
}

TEST_F(GenerateCommand, TheImpulsesAreSingleSamplesASecondApart) {
  const std::vector<float> samples = preset("impulses").channels.at(0);
  ASSERT_EQ(samples.size(), 480'000u);
  for (std::size_t n = 0; n < samples.size(); ++n)
    ASSERT_NEAR(samples[n], n % 48'000 == 0 ? std::pow(10, -6 / 20.0) : 0, 1e-6) << n;
}

TEST_F(GenerateCommand, TheBurstsStepThroughTheirLevels) {
  const std::vector<float> samples = preset("bursts").channels.at(0);
  const auto bursts = burstsOf(samples);
  ASSERT_EQ(bursts.size(), 24u);
  for (std::size_t k = 0; k < bursts.size(); ++k) {
    EXPECT_NEAR(static_cast<double>(bursts[k].first), 24'000.0 * static_cast<double>(k), 3) << k;
    EXPECT_LT(bursts[k].second - bursts[k].first, 9600u);
    EXPECT_NEAR(levelDB(peakOf(samples, bursts[k].first, bursts[k].second)),
                -36 + 6 * static_cast<double>(k / 4), 0.01);
  }
}

// --- Usage -----------------------------------------------------------------------------------------------

TEST_F(GenerateCommand, WrongArgumentsAreToldAndNothingIsWritten) {
  const std::string spec = write("spec.json", tone), out = path("out.wav");
  struct Case {
    Arguments arguments;
    std::string told;
  };
  for (const auto& [arguments, told] :
       {Case{{}, "SPEC: a document is needed"},
        Case{{spec}, "OUT: an output is needed"},
        Case{{spec, out, "more"}, "OUT: there is one document and one output"},
        Case{{spec, "-"}, "OUT: a file appears whole or not at all"},
        Case{{"--validate"}, "SPEC: a document is needed"},
        Case{{"--preset", "tone"}, "OUT: an output is needed"},
        Case{{"--preset", "tone", spec, out}, "OUT: --preset takes the place of SPEC"},
        Case{{"--preset", "none", out}, "--preset: 'none' is none of tone, pink-noise, sweep, "},
        Case{{"--preset", "", out}, "--preset: needs a value"},
        Case{{"--list", "--preset", "tone"}, "--list: does not go together with --preset"},
        Case{{"--list", "--print"}, "--list: does not go together with --print"},
        Case{{"--list", spec}, "--list: prints, and renders nothing"},
        Case{{"--preset", "tone", "--print", out}, "--print: prints, and renders nothing"},
        Case{{"--preset", "tone", "--print", "--validate"}, "--print: prints, and renders nothing"},
        Case{{"--print", spec}, "--print: prints, and renders nothing"},
        Case{{"--print"}, "--print: needs --preset"},
        Case{{spec, out, "--dither", "rectangular"}, "--dither: 'rectangular' is none of tpdf, none"},
        Case{{spec, out, "--harmonic-cap", "0"},
             "--harmonic-cap: '0' is not a whole number from 1 to 1000000"},
        Case{{spec, out, "--harmonic-cap", "1.5"}, "--harmonic-cap: '1.5' is not a whole number"},
        Case{{spec, out, "--harmonic-cap", "1000001"}, "--harmonic-cap: '1000001' is not a whole number"},
        Case{{spec, out, "--harmonic-cap", "many"}, "--harmonic-cap: 'many' is not a whole number"}}) {
    const CommandResult result = generate(arguments);
    EXPECT_EQ(result.exitCode, 2) << told;
    EXPECT_TRUE(startsWith(result.err, "vellum: " + told));
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(folder_.names(), (Arguments{"spec.json"}));
}

TEST_F(GenerateCommand, AFileThatFailsIsNoFaultyDocument) {
  for (const auto& [arguments, told] :
       {std::pair(Arguments{path("none.json"), path("out.wav")}, path("none.json: there is no such file")),
        std::pair(Arguments{path("."), path("out.wav")}, path(".: it is a directory")),
        std::pair(Arguments{write("spec.json", tone), path("nowhere/out.wav")},
                  path("nowhere/out.wav: its folder does not exist"))}) {
    const CommandResult result = generate(arguments);
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.err, "vellum: " + told + "\n");
  }
}

}  // namespace
}  // namespace vellum
