#include "VellumApp/SignalFile.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/GeneratorModules.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"
#include "VellumApp/AudioFile.hpp"
#include "VellumCore/SignalGenerator.hpp"

namespace vellum {
namespace {

namespace fs = std::filesystem;
using test::contains;
using test::moduleOf;
using test::specOf;
using test::startingAt;
using test::TemporaryFolder;
using Channels = std::vector<std::vector<float>>;
using Labels = std::vector<AudioChannelLabel>;
using Step = SignalFile::Step;

const SignalFile::GoOn goOn = [](Step, const MeasureProgress&) { return true; };

SignalFile::Settings settingsFor(const fs::path& path) {
  return {.output = {.path = path, .replacesExisting = false, .inputs = {}},
          .harmonicCap = {},
          .dither = Dither::none};
}

// One of everything, over several chunks, in two channels.
GeneratorSpec varied() {
  GeneratorModule gated = moduleOf({GeneratorSource::Sine{440}}, 1.1, -12);
  gated.burst = {.onSeconds = 0.1, .offSeconds = 0.05, .count = 0, .rampMilliseconds = 5};
  gated.fadeOutSeconds = 0.2;
  return specOf({{gated, startingAt(0.3, moduleOf({GeneratorSource::Noise{NoiseColor::pink}}, 0.7, -30))},
                 {moduleOf({GeneratorSource::Square{100}}, 0.9, -6),
                  startingAt(0.9, moduleOf({GeneratorSource::Impulse{}}, 0.1, -3))}});
}

GeneratorSpec named(GeneratorSpec spec, const std::vector<std::string>& names) {
  const GeneratorChannel channel = spec.channels.front();
  spec.channels.assign(names.size(), channel);
  for (std::size_t c = 0; c < names.size(); ++c) spec.channels[c].name = names[c];
  return spec;
}

GeneratorSpec shortTone() {
  return specOf({{moduleOf({GeneratorSource::Sine{440}}, 0.01, -20)}});
}

// Steps of the integers' grid to the nearest, halves away from zero, kept in the range.
Channels onGrid(Channels channels, GeneratorBitDepth bitDepth) {
  if (isFloat(bitDepth)) return channels;
  const long double scale = std::pow(2.0L, static_cast<long double>(bits(bitDepth) - 1));
  for (auto& channel : channels)
    for (float& sample : channel)
      sample = static_cast<float>(
          std::clamp(std::round(static_cast<long double>(sample) * scale), -scale, scale - 1) / scale);
  return channels;
}

std::string errorOf(const GeneratorSpec& spec, const SignalFile::Settings& settings) {
  try {
    SignalFile::write(spec, settings, goOn);
  } catch (const FileError& error) {
    return error.what();
  }
  return "no error";
}

// --- Samples ---------------------------------------------------------------------------------------------

TEST(SignalFile, EveryContainerAndBitDepthHoldsWhatTheGeneratorRenders) {
  const TemporaryFolder folder;
  GeneratorSpec spec = varied();
  const Channels exact = SignalGenerator::render(spec);
  const std::string containers[] = {"WAV ", "AIFF ", "CAF "}, depths[] = {"16-bit", "24-bit", "32-bit float"};
  for (const GeneratorContainer container : allCases<GeneratorContainer>())
    for (const GeneratorBitDepth bitDepth : allCases<GeneratorBitDepth>()) {
      spec.container = container;
      spec.bitDepth = bitDepth;
      const std::string name = std::string(rawValue(bitDepth)) + "." + std::string(fileExtension(container));
      const auto result = SignalFile::write(spec, settingsFor(folder / name), goOn);
      ASSERT_TRUE(result) << name;
      EXPECT_EQ(result->clippedSamples, 0);
      EXPECT_TRUE(result->notes.empty());
      EXPECT_EQ(test::readAudio(folder / name).channels, onGrid(exact, bitDepth)) << name;
      const AudioFile file(folder / name);
      EXPECT_EQ(file.sampleRate(), 48000);
      EXPECT_EQ(file.formatName(),
                containers[static_cast<std::size_t>(container)] + depths[static_cast<std::size_t>(bitDepth)]);
    }
}

TEST(SignalFile, EqualCallsGiveEqualBytes) {
  const TemporaryFolder folder;
  for (const Dither dither : {Dither::none, Dither::tpdf}) {
    for (const std::string name : {"1.wav", "2.wav"}) {
      GeneratorSpec spec = varied();
      spec.bitDepth = GeneratorBitDepth::int16;
      SignalFile::Settings settings = settingsFor(folder / name);
      settings.dither = dither;
      settings.output.replacesExisting = true;
      ASSERT_TRUE(SignalFile::write(spec, settings, goOn));
    }
    EXPECT_EQ(test::readBytes(folder / "1.wav"), test::readBytes(folder / "2.wav"));
  }
}

TEST(SignalFile, DitherMovesASampleByOneStepAtMost) {
  const TemporaryFolder folder;
  GeneratorSpec spec = varied();
  spec.bitDepth = GeneratorBitDepth::int16;
  SignalFile::Settings settings = settingsFor(folder / "plain.wav");
  SignalFile::write(spec, settings, goOn);
  settings.output.path = folder / "dithered.wav";
  settings.dither = Dither::tpdf;
  SignalFile::write(spec, settings, goOn);
  const Channels plain = test::readAudio(folder / "plain.wav").channels;
  const Channels dithered = test::readAudio(folder / "dithered.wav").channels;
  std::int64_t moved = 0;
  for (std::size_t c = 0; c < plain.size(); ++c)
    for (std::size_t n = 0; n < plain[c].size(); ++n) {
      const float steps = (dithered[c][n] - plain[c][n]) * 32768;
      ASSERT_LE(std::abs(steps), 1) << c << " " << n;
      moved += steps != 0 ? 1 : 0;
    }
  EXPECT_GT(moved, 10'000);

  spec.bitDepth = GeneratorBitDepth::float32;
  settings.output.path = folder / "float.wav";
  SignalFile::write(spec, settings, goOn);
  EXPECT_EQ(test::readAudio(folder / "float.wav").channels, SignalGenerator::render(spec));
}

TEST(SignalFile, TheHarmonicCapReachesTheGenerator) {
  const TemporaryFolder folder;
  SignalFile::Settings settings = settingsFor(folder / "x.wav");
  settings.harmonicCap = 3;
  SignalFile::write(varied(), settings, goOn);
  EXPECT_EQ(test::readAudio(folder / "x.wav").channels, SignalGenerator::render(varied(), 3));
  EXPECT_NE(SignalGenerator::render(varied(), 3), SignalGenerator::render(varied()));
}

// Counted as a plain loop does it; floats have no range to leave.
TEST(SignalFile, SamplesBeyondFullScaleAreClippedInIntegersAndCounted) {
  const TemporaryFolder folder;
  for (const GeneratorBitDepth bitDepth : allCases<GeneratorBitDepth>()) {
    GeneratorSpec spec = specOf({{moduleOf({GeneratorSource::Sine{997}}, 0.5, 6.0206f)}});
    spec.bitDepth = bitDepth;
    const double scale = std::pow(2.0, static_cast<double>(bits(bitDepth) - 1));
    std::int64_t beyond = 0;
    const Channels exact = SignalGenerator::render(spec);
    for (const float sample : exact[0]) {
      const double value = std::round(static_cast<double>(sample) * scale);
      beyond += value > scale - 1 || value < -scale ? 1 : 0;
    }
    const fs::path path = folder / (std::string(rawValue(bitDepth)) + ".wav");
    const auto result = SignalFile::write(spec, settingsFor(path), goOn);
    EXPECT_EQ(result->clippedSamples, isFloat(bitDepth) ? 0 : beyond);
    EXPECT_GT(beyond, 10'000);
    const std::vector<float> samples = test::readAudio(path).channels[0];
    const float least = *std::min_element(samples.begin(), samples.end());
    EXPECT_NEAR(least, isFloat(bitDepth) ? -2 : -1, 1e-3);
  }
}

// --- Channels --------------------------------------------------------------------------------------------

Labels labelsInFile(const GeneratorSpec& spec, const fs::path& path,
                    std::vector<std::string>* notes = nullptr) {
  SignalFile::Settings settings = settingsFor(path);
  settings.output.replacesExisting = true;
  const auto result = SignalFile::write(spec, settings, goOn);
  if (notes) *notes = result->notes;
  return AudioFile(path).channelLabels();
}

TEST(SignalFile, NamesOfPlacesAreWrittenAsTheFilesChannelMap) {
  const TemporaryFolder folder;
  for (const GeneratorContainer container : allCases<GeneratorContainer>()) {
    const fs::path path = folder / ("x." + std::string(fileExtension(container)));
    const auto labels = [&](const std::vector<std::string>& names) {
      GeneratorSpec spec = named(shortTone(), names);
      spec.container = container;
      std::vector<std::string> notes;
      const Labels read = labelsInFile(spec, path, &notes);
      EXPECT_TRUE(notes.empty()) << path << notes.front();
      return read;
    };
    EXPECT_EQ(labels({"L", "R", "C", "LFE", "Ls", "Rs"}), (Labels{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(labels({"L", "R", "C", "LFE", "Lb", "Rb", "Ls", "Rs"}), (Labels{1, 2, 3, 4, 33, 34, 5, 6}));
    EXPECT_EQ(labels({"L", "R", "C"}), (Labels{1, 2, 3}));
    // Not all of them places, or one twice: no map, and nothing to say about it.
    EXPECT_EQ(labels({"L", "R", "C", "LFE", "Ls", "tone"}), Labels{});
    EXPECT_EQ(labels({"L", "R", "C", "LFE", "Ls", "Ls"}), Labels{});
    EXPECT_EQ(labels({"", "", "", ""}), Labels{});
  }
}

// A WAV file's mask has one order only, a CAF file names channels in any.
TEST(SignalFile, NamesThatTheContainerCannotHoldAreLeftOutWithANote) {
  const TemporaryFolder folder;
  const std::vector<std::string> names = {"Ls", "Rs", "L", "R"};
  std::vector<std::string> notes;
  GeneratorSpec spec = named(shortTone(), names);
  EXPECT_EQ(labelsInFile(spec, folder / "x.wav", &notes), Labels{});
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_TRUE(test::startsWith(notes[0], "WAV cannot name channels in the order Ls Rs L R: "));
  spec.container = GeneratorContainer::caf;
  EXPECT_EQ(labelsInFile(spec, folder / "x.caf", &notes), (Labels{5, 6, 1, 2}));
  EXPECT_TRUE(notes.empty());
}

// --- Names -----------------------------------------------------------------------------------------------

TEST(SignalFile, ANameFitsByItsExtensionOrHasNone) {
  const auto fits = [](const std::string& name) {
    std::string containers;
    for (const GeneratorContainer container : allCases<GeneratorContainer>())
      if (SignalFile::isFittingName(name, container)) containers += std::string(rawValue(container)) + " ";
    return containers;
  };
  for (const std::string name : {"x.wav", "x.WAV", "x.wave", "x.bwf", "x.rf64", "a.caf/x.wav"})
    EXPECT_EQ(fits(name), "wav ") << name;
  for (const std::string name : {"x.aif", "x.aiff", "x.Aifc"}) EXPECT_EQ(fits(name), "aiff ") << name;
  EXPECT_EQ(fits("x.caf"), "caf ");
  for (const std::string name : {"x.flac", "x.w64", "x.mp3", "x.json", "x.", "1.5kHz"})
    EXPECT_EQ(fits(name), "") << name;
  for (const std::string name : {"x", ".wav", "a.b/x"}) EXPECT_EQ(fits(name), "wav aiff caf ") << name;
}

TEST(SignalFile, ANameEndingInRF64ChoosesIt) {
  const TemporaryFolder folder;
  ASSERT_TRUE(SignalFile::write(shortTone(), settingsFor(folder / "x.rf64"), goOn));
  EXPECT_EQ(test::readBytes(folder / "x.rf64").substr(0, 4), "RF64");
  EXPECT_EQ(test::readAudio(folder / "x.rf64").channels, SignalGenerator::render(shortTone()));
  ASSERT_TRUE(SignalFile::write(shortTone(), settingsFor(folder / "x"), goOn));
  EXPECT_EQ(test::readBytes(folder / "x").substr(0, 4), "RIFF");
}

// --- Faults ----------------------------------------------------------------------------------------------

// 2^31 - 1 frames of 128 floats.
GeneratorSpec huge() {
  GeneratorSpec spec = named(specOf({{}}), std::vector<std::string>(128));
  spec.sampleRate = 1'000'000;
  spec.duration = 2147.483647;
  return spec;
}

// At 4 GiB less a header: 477.2 million frames of three channels with 24 bit.
TEST(SignalFile, WAVBecomesRF64WhereItWouldEnd) {
  GeneratorSpec spec = huge();
  spec.channels.resize(3);
  spec.bitDepth = GeneratorBitDepth::int24;
  spec.sampleRate = 48000;
  const auto containerOf = [&](double frames, const char* name) {
    spec.duration = frames / 48000;
    return SignalFile::formatOf(spec, name).container;
  };
  EXPECT_EQ(containerOf(477'000'000, "x.wav"), Container::wav);
  EXPECT_EQ(containerOf(478'000'000, "x.wav"), Container::rf64);
  EXPECT_EQ(containerOf(100, "x.rf64"), Container::rf64);
  spec.container = GeneratorContainer::caf;
  EXPECT_EQ(containerOf(478'000'000, "x.caf"), Container::caf);
}

TEST(SignalFile, WhatCannotBecomeAFileIsTold) {
  const TemporaryFolder folder;
  std::vector<std::pair<GeneratorSpec, std::string>> faults;
  faults.emplace_back(specOf({}), "The spec has no channels.");
  faults.emplace_back(specOf({{moduleOf({GeneratorSource::Sine{24000}})}}),
                      "Channel 0 module 0: frequency 24000.0 Hz is outside (0, 24000.0) Hz (Nyquist).");
  for (const auto& [rate, text] :
       {std::pair(44100.5, "44100.5"), std::pair(0.5, "0.5"), std::pair(1e-300, "1e-300")}) {
    GeneratorSpec spec = specOf({{moduleOf({GeneratorSource::Silence{}})}});
    spec.sampleRate = rate;
    spec.duration = 1 / rate;
    faults.emplace_back(
        spec, "sampleRate: audio files have whole sample rates, and " + std::string(text) + " Hz is none");
  }
  GeneratorSpec large = huge();
  large.container = GeneratorContainer::aiff;
  faults.emplace_back(large,
                      "AIFF files end at 4 GiB, and this has 1099.5 GB of samples; possible: WAV, CAF");
  for (const auto& [spec, text] : faults) {
    EXPECT_EQ(SignalFile::faultOf(spec), text);
    EXPECT_EQ(errorOf(spec, settingsFor(folder / "x.wav")), text);
  }
  EXPECT_EQ(SignalFile::faultOf(huge()), std::nullopt);
  EXPECT_EQ(folder.names(), std::vector<std::string>{});
}

TEST(SignalFile, WhatDoesNotFitOnTheDiskIsRefusedWithBothSizes) {
  const TemporaryFolder folder;
  if (fs::space(folder.path()).available > 1'100'000'000'000) GTEST_SKIP() << "it would fit";
  int calls = 0;
  try {
    SignalFile::write(huge(), settingsFor(folder / "x.wav"), [&](Step, const MeasureProgress&) {
      ++calls;
      return false;
    });
    ADD_FAILURE();
  } catch (const FileError& error) {
    EXPECT_TRUE(test::startsWith(error.what(), "there is too little space for it: it needs 1.0 TB, and "));
    EXPECT_TRUE(contains(error.what(), " are free"));
  }
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(folder.names(), std::vector<std::string>{});
}

TEST(SignalFile, AnotherFileIsReplacedOnlyWhenToldTo) {
  const TemporaryFolder folder;
  test::writeBytes(folder / "x.wav", "precious");
  SignalFile::Settings settings = settingsFor(folder / "x.wav");
  EXPECT_EQ(errorOf(shortTone(), settings), "there is such a file already");
  EXPECT_EQ(test::readBytes(folder / "x.wav"), "precious");
  settings.output.replacesExisting = true;
  const fs::path inputs[] = {folder / "x.wav"};
  settings.output.inputs = inputs;
  EXPECT_EQ(errorOf(shortTone(), settings), "it is one of the files that are read");
  settings.output.inputs = {};
  EXPECT_EQ(errorOf(shortTone(), settings), "no error");
  EXPECT_EQ(test::readBytes(folder / "x.wav").substr(0, 4), "RIFF");
}

// --- Progress --------------------------------------------------------------------------------------------

// 20 s: several steps of each kind.
GeneratorSpec lengthy() {
  GeneratorSpec spec = specOf({{moduleOf({GeneratorSource::Noise{NoiseColor::white}}, 20, -20)}});
  spec.bitDepth = GeneratorBitDepth::int16;
  return spec;
}

TEST(SignalFile, ProgressIsToldOfMeasuringAndRendering) {
  const TemporaryFolder folder;
  const auto steps = [&](const GeneratorSpec& spec) {
    std::vector<std::pair<Step, MeasureProgress>> told;
    SignalFile::Settings settings = settingsFor(folder / "x.wav");
    settings.output.replacesExisting = true;
    SignalFile::write(spec, settings, [&](Step step, const MeasureProgress& progress) {
      told.emplace_back(step, progress);
      return true;
    });
    return told;
  };
  const auto told = steps(lengthy());
  ASSERT_GE(told.size(), 10u);
  EXPECT_EQ(told.front().first, Step::measuring);
  EXPECT_EQ(told.back().first, Step::rendering);
  EXPECT_EQ(told.back().second.doneSec, 20);
  for (std::size_t k = 0; k < told.size(); ++k) {
    EXPECT_EQ(told[k].second.totalSec, 20);
    if (k > 0 && told[k].first == told[k - 1].first)
      EXPECT_GT(told[k].second.doneSec, told[k - 1].second.doneSec);
    else
      EXPECT_EQ(told[k].second.doneSec, 0);
  }
  // What is known from the first sample needs no measuring.
  for (const auto& [step, progress] : steps(shortTone())) EXPECT_EQ(step, Step::rendering);
}

TEST(SignalFile, AnInterruptedRenderingLeavesNothingBehind) {
  const TemporaryFolder folder;
  for (const Step last : {Step::measuring, Step::rendering})
    for (const double afterSec : {0.0, 5.0}) {
      const auto result = SignalFile::write(lengthy(), settingsFor(folder / "x.wav"),
                                            [&](Step step, const MeasureProgress& progress) {
                                              return step != last || progress.doneSec < afterSec;
                                            });
      EXPECT_FALSE(result);
      EXPECT_EQ(folder.names(), std::vector<std::string>{});
    }
}

TEST(SignalFileDeathTest, AKilledRenderingLeavesNothingBehind) {
  const TemporaryFolder folder;
  const auto die = [](Step step, const MeasureProgress& progress) {
    if (step == Step::rendering && progress.doneSec > 5) ::raise(SIGKILL);
    return true;
  };
  EXPECT_EXIT(SignalFile::write(lengthy(), settingsFor(folder / "x.wav"), die),
              testing::KilledBySignal(SIGKILL), "");
  EXPECT_EQ(folder.names(), std::vector<std::string>{});
}

}  // namespace
}  // namespace vellum
