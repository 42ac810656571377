#include "VellumApp/SurroundRendering.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/ChannelMapFiles.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "VellumApp/AudioFile.hpp"
#include "VellumApp/AudioFileWriter.hpp"
#include "VellumApp/MetadataForms.hpp"
#include "VellumApp/PlanarBuffer.hpp"

namespace vellum {
namespace {

using SurroundBake::Route;
using SurroundRendering::Result;
using SurroundRendering::Settings;
using SurroundRendering::Step;
using test::Audio;
using test::TemporaryFolder;
using Labels = std::vector<AudioChannelLabel>;
using Routes = std::vector<std::vector<Route>>;

// The document that has these routes.
RoutesDocument documentOf(const Routes& outputRoutes) {
  RoutesDocument document;
  for (const auto& routes : outputRoutes) {
    auto& output = document.outputs.emplace_back();
    for (const Route& route : routes)
      output.routes.push_back({route.source, route.gain, route.useQuadrature});
  }
  return document;
}

Settings settingsOf(const TemporaryFolder& folder, const Routes& routes) {
  return {.document = documentOf(routes),
          .gainDB = 0,
          .isAligned = false,
          .outputs = {.items = {{folder / "in.wav", folder / "out.wav"}},
                      .format = {},
                      .dither = Dither::none,
                      .replacesExisting = true,
                      .isDryRun = false,
                      .channelLabels = {}}};
}

Result bake(const Settings& settings) {
  return SurroundRendering::render(settings, [](Step, const MeasureProgress&) { return true; }).value();
}

std::string errorOf(const Settings& settings) {
  try {
    bake(settings);
  } catch (const FileError& error) {
    return error.what();
  }
  return "none";
}

Audio noise(std::size_t channelCount, std::int64_t frameCount, double amplitude = 0.2) {
  std::mt19937 rng(61);
  return test::noiseAudio(rng, channelCount, frameCount, amplitude);
}

const Routes plain = {{{0, 1, false}, {2, 0.5f, false}}, {{1, -1, false}}};
const Routes shifted = {{{0, 1, false}, {2, 0.5f, true}}, {{1, -1, false}}, {}};

// Lengths around the delay, the library's blocks and the chunks read from files.
TEST(SurroundRendering, TheFileHoldsTheLibrarysRender) {
  const TemporaryFolder folder;
  const std::int64_t chunk = framesPerChunk(3);
  for (const Routes& routes : {plain, shifted})
    for (const std::int64_t frames :
         {std::int64_t{0}, std::int64_t{1}, std::int64_t{49}, std::int64_t{50}, std::int64_t{51},
          std::int64_t{8192}, chunk - 1, chunk, chunk + 1, 2 * chunk + 77}) {
      const Audio input = noise(3, frames);
      test::writeAudio(folder / "in.wav", input, 48000, test::floatWAV);
      const Result result = bake(settingsOf(folder, routes));
      EXPECT_EQ(result.frameCount, frames);
      const Audio output = test::readAudio(folder / "out.wav");
      ASSERT_EQ(output.frameCount(), frames);
      if (frames > 0) {
        EXPECT_EQ(output.channels, SurroundBake::render(input.channels, routes, 48000)) << frames;
      }
    }
}

TEST(SurroundRendering, TellsTheDelay) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(3, 100), 48000, test::floatWAV);
  Settings settings = settingsOf(folder, plain);
  for (const bool isAligned : {false, true}) {
    settings.isAligned = isAligned;
    settings.document = documentOf(plain);
    const Result none = bake(settings);
    EXPECT_EQ(none.delayFrames, 0);
    EXPECT_EQ(none.removedDelayFrames, 0);
    settings.document = documentOf(shifted);
    const Result late = bake(settings);
    EXPECT_EQ(late.delayFrames, isAligned ? 0 : 50);
    EXPECT_EQ(late.removedDelayFrames, isAligned ? 50 : 0);
  }
}

// What the unaligned output lacks at its end comes from the input with silence behind it.
TEST(SurroundRendering, AlignedOutputIsTheRenderWithoutItsDelayAndWithItsTail) {
  const TemporaryFolder folder;
  const std::int64_t chunk = framesPerChunk(3);
  for (const std::int64_t frames : {std::int64_t{0}, std::int64_t{1}, std::int64_t{49}, std::int64_t{50},
                                    std::int64_t{51}, chunk - 50, chunk - 1, chunk, chunk + 1, chunk + 50}) {
    const Audio input = noise(3, frames);
    test::writeAudio(folder / "in.wav", input, 48000, test::floatWAV);
    Settings settings = settingsOf(folder, shifted);
    settings.isAligned = true;
    bake(settings);
    const Audio output = test::readAudio(folder / "out.wav");
    ASSERT_EQ(output.frameCount(), frames);
    Audio longer = input;
    for (auto& channel : longer.channels) channel.resize(static_cast<std::size_t>(frames) + 50);
    const auto late = SurroundBake::render(longer.channels, shifted, 48000);
    for (std::size_t o = 0; o < 3 && frames > 0; ++o)
      ASSERT_EQ(output.channels[o], std::vector<float>(late[o].begin() + 50, late[o].end())) << frames;
  }
}

TEST(SurroundRendering, AGainMultipliesEveryRoute) {
  const TemporaryFolder folder;
  const Audio input = noise(3, 5000);
  test::writeAudio(folder / "in.wav", input, 48000, test::floatWAV);
  Settings settings = settingsOf(folder, shifted);
  settings.gainDB = -6;
  bake(settings);
  const auto factor = static_cast<float>(test::amplitudeOf(-6));
  const Audio output = test::readAudio(folder / "out.wav");
  for (std::size_t n = 0; n < 5000; ++n)
    ASSERT_EQ(output.channels[1][n], n < 50 ? 0.0f : -factor * input.channels[1][n - 50]);
}

TEST(SurroundRendering, OversAndPeaksAreCountedPerOutputBeforeRounding) {
  const TemporaryFolder folder;
  Audio input(2, 1000);
  input.channels[0][10] = 0.75f;
  input.channels[1][10] = 0.75f;
  input.channels[0][20] = -0.75f;
  input.channels[1][20] = -0.5f;
  input.channels[0][30] = 0.5f;
  input.channels[1][30] = 0.5f;  // full scale is no over
  const Routes routes = {{{0, 1, false}, {1, 1, false}}, {{0, 1, false}}, {}};
  for (const int format : {SF_FORMAT_WAV | SF_FORMAT_FLOAT, SF_FORMAT_WAV | SF_FORMAT_PCM_16}) {
    test::writeAudio(folder / "in.wav", input, 48000, {"wav", format});
    const Result result = bake(settingsOf(folder, routes));
    ASSERT_EQ(result.outputs.size(), 3u);
    EXPECT_EQ(result.outputs[0].overs, 2);
    EXPECT_EQ(result.outputs[1].overs, 0);
    EXPECT_NEAR(result.outputs[0].peakDBFS, 20 * std::log10(1.5), 1e-9);
    EXPECT_NEAR(result.outputs[1].peakDBFS, 20 * std::log10(0.75), 1e-9);
    EXPECT_EQ(result.outputs[2].peakDBFS, -std::numeric_limits<double>::infinity());
    const bool isInteger = (format & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_16;
    EXPECT_EQ(result.clippedSamples, isInteger ? 3 : 0);  // +1 has no integer
    const Audio output = test::readAudio(folder / "out.wav");
    EXPECT_EQ(output.channels[0][10], isInteger ? 32767.0f / 32768 : 1.5f);
    EXPECT_EQ(output.channels[0][20], isInteger ? -1.0f : -1.25f);
  }
}

TEST(SurroundRendering, ChannelsThatAreOnlyPassedOnKeepTheirIntegersUnderDither) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(2, 20'000), 48000, {"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16});
  const Audio input = test::readAudio(folder / "in.wav");
  Settings settings =
      settingsOf(folder, {{{1, 1, false}}, {}, {{0, 1, false}, {1, 1, false}}, {{0, 0.5f, false}}});
  settings.outputs.dither = Dither::tpdf;
  bake(settings);
  const Audio output = test::readAudio(folder / "out.wav");
  EXPECT_EQ(output.channels[0], input.channels[1]);
  EXPECT_EQ(output.channels[1], std::vector<float>(20'000));
  std::int64_t changedSums = 0, changedHalves = 0;
  for (std::size_t n = 0; n < 20'000; ++n) {
    const float half = 0.5f * input.channels[0][n];
    const bool hasInteger = half * 32768 == std::round(half * 32768);
    changedSums += output.channels[2][n] != input.channels[0][n] + input.channels[1][n] ? 1 : 0;
    changedHalves += hasInteger && output.channels[3][n] != half ? 1 : 0;
  }
  EXPECT_GT(changedSums, 1000);  // what is computed is dithered
  EXPECT_GT(changedHalves, 1000);
}

TEST(SurroundRendering, TheOutputIsNamedByItsLabels) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(3, 100), 48000, test::floatWAV);
  for (const std::string name : {"out.wav", "out.aiff", "out.caf"}) {
    Settings settings = settingsOf(folder, {{{0, 1, false}}, {{1, 1, false}}, {{2, 1, false}}});
    settings.document.outputs[0].label = 1;
    settings.document.outputs[1].label = 2;
    settings.document.outputs[2].label = 4;
    settings.outputs.items[0].output = folder / name;
    const Result result = bake(settings);
    EXPECT_EQ(AudioFile(folder / name).channelLabels(), (Labels{1, 2, 4})) << name;
    EXPECT_EQ(result.outputs[2].name, "LFE");
    EXPECT_EQ(result.sourceNames, (std::vector<std::string>{"Ch1", "Ch2", "Ch3"}));
    EXPECT_EQ(result.notes, std::vector<std::string>{});
    settings.document.outputs[1].label.reset();
    const Result unnamed = bake(settings);
    EXPECT_EQ(unnamed.outputs[0].name, "Ch1");
    EXPECT_EQ(
        unnamed.notes,
        (std::vector<std::string>{"Not every output has a label: the channels are left without names"}));
    EXPECT_EQ(AudioFile(folder / name).channelLabels(), Labels{});
  }
}

TEST(SurroundRendering, TheLayoutGivenCountsInsteadOfTheFilesOwn) {
  const TemporaryFolder folder;
  const Audio input = noise(3, 100);
  test::writeCAF(folder / "in.wav", input, test::channelChunk(0, 0, {1, 2, 3}));
  Settings settings = settingsOf(folder, {{}});
  settings.document.outputs[0].routes.push_back({Labels{3}, 1, false});
  settings.outputs.format = {Container::wav, SampleCoding::float32};
  Result result = bake(settings);
  EXPECT_EQ(test::readAudio(folder / "out.wav").channels[0], input.channels[2]);
  EXPECT_EQ(result.unusedNames, (std::vector<std::string>{"L", "R"}));
  settings.outputs.channelLabels = Labels{3, 1, 2};
  result = bake(settings);
  EXPECT_EQ(test::readAudio(folder / "out.wav").channels[0], input.channels[0]);
  EXPECT_EQ(result.sourceNames, (std::vector<std::string>{"C", "L", "R"}));
  settings.outputs.channelLabels = Labels{3, 1};
  EXPECT_TRUE(errorOf(settings).ends_with("in.wav: it has 3 channels, but the layout is for 2"))
      << errorOf(settings);
}

TEST(SurroundRendering, SamplesThatAreNotFiniteAreRefusedAndNothingIsLeft) {
  const TemporaryFolder folder;
  Audio input = noise(2, 60'000);
  input.channels[1][50'000] = std::numeric_limits<float>::quiet_NaN();
  test::writeAudio(folder / "in.wav", input, 48000, test::floatWAV);
  EXPECT_TRUE(
      errorOf(settingsOf(folder, plain)).ends_with("there is no channel 2: it has 2, counted from 0"));
  EXPECT_TRUE(errorOf(settingsOf(folder, {{{0, 1, false}}}))
                  .ends_with("in.wav: 1 sample is not finite: it cannot be rendered"));
  input.channels[1][50'000] = 3e38f;
  test::writeAudio(folder / "in.wav", input, 48000, test::floatWAV);
  EXPECT_TRUE(errorOf(settingsOf(folder, {{{1, 100, false}}, {{1, -2, false}}}))
                  .ends_with("in.wav: with these gains, 2 samples are not finite"));
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"in.wav"}));
}

TEST(SurroundRendering, AnInterruptionAtAnyStepLeavesNothing) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(3, 40'000), 48000, test::floatWAV);
  for (const Step last : {Step::counting, Step::rendering})
    for (int allowed = 0; allowed < 2; ++allowed) {
      int left = allowed;
      const auto result =
          SurroundRendering::render(settingsOf(folder, shifted), [&](Step step, const MeasureProgress& done) {
            EXPECT_LE(done.doneSec, done.totalSec.value_or(1e9));
            return step != last || left-- > 0;
          });
      EXPECT_FALSE(result);
    }
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"in.wav"}));
}

TEST(SurroundRendering, AsManyChannelsAsContainersHold) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "in.wav", noise(2, 500), 48000, test::floatWAV);
  Routes many(1024, std::vector<Route>{{1, 1, false}});
  bake(settingsOf(folder, many));
  const Audio output = test::readAudio(folder / "out.wav");
  ASSERT_EQ(output.channels.size(), 1024u);
  EXPECT_EQ(output.channels[1023], test::readAudio(folder / "in.wav").channels[1]);
  Settings settings = settingsOf(folder, Routes(9));
  settings.outputs.format = {Container::flac, SampleCoding::pcm16};
  settings.outputs.items[0].output = folder / "out.flac";
  EXPECT_TRUE(errorOf(settings).find("FLAC files have at most 8 channels, and this has 9") !=
              std::string::npos)
      << errorOf(settings);
}

// Tags go on; what names the input's channels one by one does not.
TEST(SurroundRendering, DescriptionsOfTheInputsChannelsAreLeftOut) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "plain.wav", noise(2, 100), 48000, {"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16});
  std::string bytes = test::readBytes(folder / "plain.wav");
  const std::string chunks = std::string("chna\4\0\0\0abcd", 12) + std::string("axml\4\0\0\0<a/>", 12) +
                             std::string("iXML\4\0\0\0<b/>", 12);
  bytes += chunks;
  const auto size = static_cast<std::uint32_t>(bytes.size() - 8);
  for (std::size_t k = 0; k < 4; ++k) bytes[4 + k] = static_cast<char>(size >> (8 * k) & 0xFF);
  test::writeBytes(folder / "in.wav", bytes);
  const Result result = bake(settingsOf(folder, {{{0, 1, false}, {1, 1, false}}}));
  const std::string written = test::readBytes(folder / "out.wav");
  EXPECT_EQ(written.find("axml"), std::string::npos);
  EXPECT_EQ(written.find("chna"), std::string::npos);
  EXPECT_NE(written.find("iXML"), std::string::npos);
  EXPECT_EQ(result.notes,
            (std::vector<std::string>{
                "The audio definition model (axml, chna) is of the input's channels: left out"}));
}

TEST(SurroundRendering, ASpeakerMaskAmongTagsIsLeftOut) {
  const TemporaryFolder folder;
  const Audio input = noise(6, 100);
  AudioMetadata metadata;
  metadata.tags[AudioTag::title] = "Film";
  metadata.family = AudioMetadata::Family::flac;
  metadata.chunks = {
      {std::string(MetadataForms::vorbisCommentBlock),
       MetadataForms::bytesOf({"us", {"TITLE=Film", "WAVEFORMATEXTENSIBLE_CHANNEL_MASK=0x060F"}})}};
  AudioFileWriter writer({.output = {.path = folder / "in.flac", .replacesExisting = false, .inputs = {}},
                          .format = {Container::flac, SampleCoding::pcm16},
                          .sampleRate = 48000,
                          .channelCount = 6,
                          .channelLabels = {1, 2, 3, 4, 33, 34},
                          .frameCount = 100,
                          .metadata = metadata});
  writer.write(input.pointers(), 100);
  writer.finish();
  writer.commit();
  ASSERT_NE(test::readBytes(folder / "in.flac").find("CHANNEL_MASK=0x060F"), std::string::npos);
  Settings settings = settingsOf(folder, {{{0, 1, false}}, {{1, 1, false}}});
  settings.outputs.items = {{folder / "in.flac", folder / "out.flac"}};
  bake(settings);
  const std::string written = test::readBytes(folder / "out.flac");
  EXPECT_EQ(written.find("CHANNEL_MASK"), std::string::npos);
  EXPECT_NE(written.find("TITLE=Film"), std::string::npos);
}

}  // namespace
}  // namespace vellum
