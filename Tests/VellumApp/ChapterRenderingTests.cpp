#include "VellumApp/ChapterRendering.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "VellumApp/AudioFile.hpp"
#include "VellumApp/AudioFileWriter.hpp"

namespace vellum {
namespace {

using test::Audio;
using test::TemporaryFolder;
using Marker = AudioMetadata::Marker;

constexpr int rate = 8000;
const auto goOn = [](const MeasureProgress&) { return true; };
const auto goOnRendering = [](RenderStep, const MeasureProgress&) { return true; };

// Where the Broadcast Wave extension has them (EBU Tech 3285).
constexpr std::size_t timeReferenceAt = 338, versionAt = 346, loudnessAt = 412, bextBytes = 602;

std::uint64_t numberIn(const std::string& bytes, std::size_t at, std::size_t width) {
  std::uint64_t number = 0;
  for (std::size_t k = width; k-- > 0;) number = number << 8 | static_cast<unsigned char>(bytes[at + k]);
  return number;
}

// 20 s of noise with a time reference above 32 bits, a loudness and markers.
AudioMetadata fullMetadata() {
  AudioMetadata metadata;
  metadata.bext.assign(bextBytes, '\0');
  metadata.bext[timeReferenceAt] = 5;
  metadata.bext[timeReferenceAt + 4] = 1;
  metadata.bext[versionAt] = 2;
  metadata.bext[loudnessAt] = 7;
  metadata.tags[AudioTag::title] = "The whole";
  metadata.tags[AudioTag::artist] = "Reader";
  metadata.markers = {{100, "a"}, {80'000, "b"}, {159'999, "c"}};
  return metadata;
}

std::filesystem::path writeProgramme(const TemporaryFolder& folder) {
  std::mt19937 rng(1);
  const Audio audio = test::noiseAudio(rng, 1, 20 * rate, 0.1);
  AudioFileWriter writer({.output = {.path = folder / "x.wav", .replacesExisting = false, .inputs = {}},
                          .format = {Container::wav, SampleCoding::float32},
                          .sampleRate = rate,
                          .channelCount = 1,
                          .channelLabels = {},
                          .frameCount = audio.frameCount(),
                          .metadata = fullMetadata()});
  writer.write(audio.pointers(), audio.frameCount());
  writer.finish();
  writer.commit();
  return folder / "x.wav";
}

ChapterProgramme scanned(const std::filesystem::path& path) {
  return scanProgramme(path, {.detection = ChapterDetectionSettings::defaultValue(), .channelLabels = {}},
                       goOn)
      .value();
}

std::vector<Chapter> halves() {
  return {{.id = UUID::random(), .index = 1, .name = "One", .startSec = 0, .endSec = 10},
          {.id = UUID::random(), .index = 2, .name = "Two", .startSec = 10, .endSec = 20}};
}

ChapterOutput outputAt(const std::filesystem::path& path, const std::filesystem::path& input) {
  return {.path = path, .format = {}, .replacesExisting = false, .inputs = {input}, .channelLabels = {}};
}

RenderSettings plain() {
  return {.gainDB = 0, .limiter = {}, .coding = SampleCoding::float32, .dither = Dither::none, .curve = {}};
}

TEST(ChapterRendering, WhatAPartSaysOfItselfIsItsOwn) {
  const TemporaryFolder folder;
  const auto input = writeProgramme(folder);
  ASSERT_TRUE(renderSplit(scanned(input), halves(), plain(), outputAt(folder / "parts", input), goOn));
  const AudioMetadata first = AudioFile(folder / "parts/01 One.wav").metadata();
  AudioMetadata second = AudioFile(folder / "parts/02 Two.wav").metadata();
  EXPECT_EQ(first.markers, (std::vector<Marker>{{100, "a"}}));
  EXPECT_EQ(second.markers, (std::vector<Marker>{{0, "b"}, {79'999, "c"}}));
  EXPECT_EQ(numberIn(first.bext, timeReferenceAt, 8), (std::uint64_t{1} << 32) + 5);
  EXPECT_EQ(numberIn(second.bext, timeReferenceAt, 8), (std::uint64_t{1} << 32) + 5 + 80'000);
  EXPECT_EQ(numberIn(second.bext, loudnessAt, 2), 0x7FFFu);  // it was the whole programme's
  EXPECT_EQ(second.tags[AudioTag::title], "Two");
  EXPECT_EQ(second.tags[AudioTag::trackNumber], "2");
  EXPECT_EQ(second.tags[AudioTag::artist], "Reader");
}

TEST(ChapterRendering, LoudnessInTheMetadataIsClearedWhereAGainChangedIt) {
  const TemporaryFolder folder;
  const auto input = writeProgramme(folder);
  RenderSettings halved = plain();
  halved.curve = [](std::int64_t, std::span<float> gain, std::span<float> limiting) {
    std::fill(gain.begin(), gain.end(), 0.5f);
    std::fill(limiting.begin(), limiting.end(), 0.0f);
  };
  ASSERT_TRUE(
      renderProgramme(scanned(input), halves(), halved, outputAt(folder / "o.wav", input), goOnRendering));
  EXPECT_EQ(numberIn(AudioFile(folder / "o.wav").metadata().bext, loudnessAt, 2), 0x7FFFu);
  ASSERT_TRUE(
      renderProgramme(scanned(input), halves(), plain(), outputAt(folder / "p.wav", input), goOnRendering));
  EXPECT_EQ(numberIn(AudioFile(folder / "p.wav").metadata().bext, loudnessAt, 2), 7u);
  EXPECT_EQ(AudioFile(folder / "p.wav").metadata().markers, fullMetadata().markers);
}

TEST(ChapterRendering, TheChaptersAreMeasuredOnTheWrittenFile) {
  const TemporaryFolder folder;
  const auto input = writeProgramme(folder);
  const ChapterProgramme programme = scanned(input);
  RenderSettings halved = plain();
  halved.gainDB = -6;
  const auto rendered =
      renderProgramme(programme, halves(), halved, outputAt(folder / "o.wav", input), goOnRendering);
  const auto before = measureChapters(input, programme, halves(), goOn);
  for (std::size_t k = 0; k < 2; ++k)
    EXPECT_NEAR(*rendered->after.chapters[k].rmsDBFS, *before->chapters[k].rmsDBFS - 6, 0.001);
}

TEST(ChapterRendering, SamplesOutsideOfTheRangeAreCountedInANote) {
  const TemporaryFolder folder;
  const auto input = writeProgramme(folder);
  RenderSettings louder = plain();
  louder.coding = SampleCoding::pcm16;
  louder.curve = [](std::int64_t firstFrame, std::span<float> gain, std::span<float> limiting) {
    for (std::size_t n = 0; n < gain.size(); ++n) {
      gain[n] = firstFrame + static_cast<std::int64_t>(n) < 3 ? 1e9f : 1.0f;
      limiting[n] = 0;
    }
  };
  ChapterOutput output = outputAt(folder / "o.wav", input);
  output.format.coding = SampleCoding::pcm16;
  const std::string note = "3 samples were outside of the format's range, and clipped";
  EXPECT_EQ(renderProgramme(scanned(input), halves(), louder, output, goOnRendering)->notes,
            (std::vector<std::string>{note}));
  output.path = folder / "parts";
  EXPECT_EQ(*renderSplit(scanned(input), halves(), louder, output, goOn), (std::vector<std::string>{note}));
}

TEST(ChapterRendering, InterruptionLeavesNoFile) {
  const TemporaryFolder folder;
  const auto input = writeProgramme(folder);
  const auto stop = [](const MeasureProgress&) { return false; };
  EXPECT_FALSE(renderSplit(scanned(input), halves(), plain(), outputAt(folder / "parts", input), stop));
  EXPECT_TRUE(std::filesystem::is_empty(folder / "parts"));
  for (const RenderStep last : {RenderStep::rendering, RenderStep::verifying}) {
    const auto stopAt = [&](RenderStep step, const MeasureProgress&) { return step != last; };
    EXPECT_FALSE(
        renderProgramme(scanned(input), halves(), plain(), outputAt(folder / "o.wav", input), stopAt));
    EXPECT_FALSE(std::filesystem::exists(folder / "o.wav"));
  }
}

TEST(ChapterRendering, AFormatThatCannotTakeTheAudioIsRefused) {
  const TemporaryFolder folder;
  const auto input = writeProgramme(folder);
  ChapterOutput output = outputAt(folder / "o.flac", input);
  EXPECT_THROW(renderProgramme(scanned(input), halves(), plain(), output, goOnRendering), NamedFileError);
  output.path = folder / "o.mp3";
  EXPECT_THROW(checkedFormat(input, output), NamedFileError);
  output.path = folder / "none/o.wav";
  EXPECT_THROW(checkedFormat(input, output), NamedFileError);
  output = outputAt(folder / "parts", input);
  output.format.container = Container::flac;  // which has no floating samples
  EXPECT_THROW(renderSplit(scanned(input), halves(), plain(), output, goOn), NamedFileError);
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"x.wav"}));
}

}  // namespace
}  // namespace vellum
