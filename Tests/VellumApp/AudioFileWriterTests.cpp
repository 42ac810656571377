#include "VellumApp/AudioFileWriter.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sndfile.h>
#include <sys/resource.h>
#include <unistd.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"
#include "VellumApp/AudioFile.hpp"
#include "VellumApp/ChannelLayouts.hpp"
#include "VellumApp/SampleQuantiser.hpp"

namespace vellum {
namespace {

namespace fs = std::filesystem;
using test::Audio;
using test::TemporaryFolder;
using Labels = std::vector<AudioChannelLabel>;
using Names = std::vector<std::string>;

constexpr Container containers[] = {Container::wav, Container::rf64, Container::aiff, Container::caf,
                                    Container::flac};
constexpr SampleCoding codings[] = {SampleCoding::pcm16, SampleCoding::pcm24, SampleCoding::float32};

std::vector<AudioFileFormat> allFormats() {
  std::vector<AudioFileFormat> formats;
  for (const Container container : containers)
    for (const SampleCoding coding : codings)
      if (container != Container::flac || coding != SampleCoding::float32)
        formats.push_back({container, coding});
  return formats;
}

struct Extras {
  Labels labels;
  AudioMetadata metadata;
  double sampleRate = 48000;
  bool replacesExisting = true;
  std::vector<fs::path> inputs;
  std::vector<std::int64_t> splits;
};

AudioFileWriter::Settings settingsFor(const fs::path& path, const AudioFileFormat& format, const Audio& audio,
                                      const Extras& extras = {}) {
  return {.output = {path, extras.replacesExisting, extras.inputs},
          .format = format,
          .sampleRate = extras.sampleRate,
          .channelCount = static_cast<std::int64_t>(audio.channels.size()),
          .channelLabels = extras.labels,
          .frameCount = audio.frameCount(),
          .metadata = extras.metadata};
}

// Writes a whole file and returns its losses.
std::vector<std::string> writeFile(const fs::path& path, const AudioFileFormat& format, const Audio& audio,
                                   const Extras& extras = {}) {
  AudioFileWriter writer(settingsFor(path, format, audio, extras));
  std::int64_t at = 0;
  for (const std::int64_t frames : extras.splits.empty() ? std::vector{audio.frameCount()} : extras.splits) {
    writer.write(audio.pointers(at), frames);
    at += frames;
  }
  writer.finish();
  writer.commit();
  return writer.losses();
}

std::string errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const FileError& error) {
    return error.what();
  }
  return "no error";
}

Audio readWhole(const fs::path& path) {
  AudioFile file(path);
  Audio audio(static_cast<std::size_t>(file.channelCount()), 0);
  for (;;) {
    Audio chunk(audio.channels.size(), 4800);
    std::vector<float*> buffers;
    for (auto& channel : chunk.channels) buffers.push_back(channel.data());
    const std::int64_t got = file.read(buffers, 4800);
    if (got == 0) break;
    audio.append(test::cut(chunk, 0, got));
  }
  EXPECT_EQ(file.endWarning(), std::nullopt) << path;
  // To FLAC, 0 frames are an unknown number.
  if (audio.frameCount() > 0) {
    EXPECT_EQ(file.claimedFrameCount(), audio.frameCount()) << path;
  }
  return audio;
}

// Equal to the bit: signs of zeros, and what is not a number.
bool areSame(const Audio& a, const Audio& b) {
  const auto isSame = [](float x, float y) {
    return std::bit_cast<std::uint32_t>(x) == std::bit_cast<std::uint32_t>(y);
  };
  if (a.channels.size() != b.channels.size()) return false;
  for (std::size_t c = 0; c < a.channels.size(); ++c)
    if (!std::equal(a.channels[c].begin(), a.channels[c].end(), b.channels[c].begin(), b.channels[c].end(),
                    isSame))
      return false;
  return true;
}

// Random samples that the coding holds exactly, with the ends of its range in front.
Audio exactAudio(SampleCoding coding, std::size_t channelCount, std::int64_t frameCount, unsigned seed = 1) {
  std::mt19937 rng(seed);
  Audio audio(channelCount, frameCount);
  std::vector<float> ends;
  if (coding == SampleCoding::float32) {
    using Limits = std::numeric_limits<float>;
    ends = {-0.0f,         Limits::denorm_min(), -Limits::denorm_min(), Limits::max(), Limits::lowest(),
            Limits::min(), Limits::infinity(),   Limits::quiet_NaN(),   1.0f,          -1.0f,
            0.1f};
  } else {
    const double scale = coding == SampleCoding::pcm16 ? 32768 : 8388608;
    ends = {-1.0f, static_cast<float>(1 - 1 / scale), 0.0f, static_cast<float>(1 / scale),
            static_cast<float>(-1 / scale)};
  }
  for (auto& channel : audio.channels)
    for (std::size_t n = 0; n < channel.size(); ++n) {
      const double value = test::uniform(rng, -1, 1);
      const double scale = coding == SampleCoding::pcm16 ? 32768 : 8388608;
      channel[n] = n < ends.size()                   ? ends[n]
                   : coding == SampleCoding::float32 ? static_cast<float>(value)
                                                     : static_cast<float>(std::floor(value * scale) / scale);
    }
  return audio;
}

// A little-endian or big-endian number in a file.
std::uint64_t number(const std::string& bytes, std::size_t at, int width, bool isBig = false) {
  std::uint64_t value = 0;
  for (int k = 0; k < width; ++k) {
    const std::size_t place = at + static_cast<std::size_t>(isBig ? k : width - 1 - k);
    value = value << 8 | static_cast<unsigned char>(bytes.at(place));
  }
  return value;
}

// The content of a RIFF chunk (little) or an AIFF chunk (big), found by walking from the start.
std::string chunkOf(const std::string& bytes, const std::string& id, bool isBig = false) {
  for (std::size_t at = 12; at + 8 <= bytes.size();) {
    const auto size = static_cast<std::size_t>(number(bytes, at + 4, 4, isBig));
    if (bytes.substr(at, 4) == id) return bytes.substr(at + 8, size);
    at += 8 + size + size % 2;
  }
  return "no chunk";
}

struct CloseSndfile {
  void operator()(SNDFILE* file) const { sf_close(file); }
};
using Sndfile = std::unique_ptr<SNDFILE, CloseSndfile>;

Sndfile openSndfile(const fs::path& path, SF_INFO& info) {
  return Sndfile(sf_open(path.c_str(), SFM_READ, &info));
}

// --- Samples ---------------------------------------------------------------------------------------------

TEST(AudioFileWriter, EveryFormatHoldsEverySampleToTheBit) {
  const TemporaryFolder folder;
  for (const AudioFileFormat& format : allFormats())
    for (const std::size_t channels : {1u, 2u, 3u, 5u, 8u})
      for (const std::int64_t frames : {0, 1, 2, 7, 20'001}) {
        const Audio audio = exactAudio(format.coding, channels, frames);
        AudioFileWriter writer(settingsFor(folder / "x", format, audio));
        writer.write(audio.pointers(), frames);
        writer.finish();
        ASSERT_TRUE(areSame(readWhole(writer.temporaryPath()), audio))
            << nameOf(format) << " " << channels << " channels, " << frames << " frames";
        const AudioFile file(writer.temporaryPath());
        ASSERT_EQ(file.formatName(), nameOf(format));
        ASSERT_EQ(file.writableFormat(), format);
        ASSERT_EQ(file.sampleRate(), 48000);
      }
}

TEST(AudioFileWriter, ManyChannelsAndUnusualRatesAreKept) {
  const TemporaryFolder folder;
  for (const Container container : containers) {
    const std::size_t channels = container == Container::flac ? 8 : 1024;
    for (const double rate : {5.0, 11025.0, 44100.0, 96000.0, 192000.0, 384000.0}) {
      const Audio audio = exactAudio(SampleCoding::pcm24, channels, 100);
      Extras extras;
      extras.sampleRate = rate;
      writeFile(folder / "x", {container, SampleCoding::pcm24}, audio, extras);
      EXPECT_EQ(AudioFile(folder / "x").sampleRate(), rate);
      EXPECT_TRUE(areSame(readWhole(folder / "x"), audio)) << nameOf(container) << " " << rate;
    }
  }
}

// Against the integers that libsndfile reads.
TEST(AudioFileWriter, SamplesBesideTheGridGoToTheNearestIntegerClamped) {
  const TemporaryFolder folder;
  Audio audio(1, 9);
  audio.channels[0] = {0.4f / 32768, 0.6f / 32768,  -0.6f / 32768,
                       0.5f / 32768, 1.0f,          7.0f,
                       -1.5f,        std::nanf(""), -std::numeric_limits<float>::infinity()};
  for (const Container container : containers) {
    writeFile(folder / "x", {container, SampleCoding::pcm16}, audio);
    SF_INFO info{};
    const Sndfile file = openSndfile(folder / "x", info);
    std::vector<short> samples(9);
    ASSERT_EQ(sf_readf_short(file.get(), samples.data(), 9), 9);
    EXPECT_EQ(samples, (std::vector<short>{0, 1, -1, 1, 32767, 32767, -32768, 0, -32768}))
        << nameOf(container);
  }
}

// A file that somebody else wrote, through the quantiser with dither on, and back into its own format.
TEST(AudioFileWriter, InputWrittenBackUnchangedIsEqualToTheBit) {
  const TemporaryFolder folder;
  std::mt19937 rng(3);
  const Audio noise = test::noiseAudio(rng, 2, 30'001, 1.0);
  for (const int coding : {SF_FORMAT_PCM_16, SF_FORMAT_PCM_24, SF_FORMAT_FLOAT}) {
    test::writeAudio(folder / "in.wav", noise, 44100, {"wav", SF_FORMAT_WAV | coding});
    test::writeAudio(folder / "in.aiff", noise, 44100, {"aiff", SF_FORMAT_AIFF | coding});
    for (const std::string name : {"wav", "aiff"}) {
      const AudioFileFormat format = AudioFile(folder / ("in." + name)).writableFormat().value();
      const Audio original = readWhole(folder / ("in." + name));
      Audio audio = original;
      SampleQuantiser quantiser({format.coding, Dither::tpdf, 2});
      const std::vector<float*> pointers = {audio.channels[0].data(), audio.channels[1].data()};
      quantiser.quantise(pointers, original.pointers(), audio.frameCount());
      writeFile(folder / ("out." + name), format, audio);
      const bool isBig = name == "aiff";
      const std::string in =
          chunkOf(test::readBytes(folder / ("in." + name)), isBig ? "SSND" : "data", isBig);
      const std::string out =
          chunkOf(test::readBytes(folder / ("out." + name)), isBig ? "SSND" : "data", isBig);
      ASSERT_GT(in.size(), 100'000u);
      EXPECT_TRUE(in == out) << name << " " << coding;
    }
  }
}

TEST(AudioFileWriter, EqualCallsAndAnySplitGiveEqualFiles) {
  const TemporaryFolder folder;
  std::mt19937 rng(4);
  for (const AudioFileFormat& format : allFormats()) {
    const Audio audio = exactAudio(format.coding, 2, 50'000);
    writeFile(folder / "a", format, audio);
    const std::string first = test::readBytes(folder / "a");
    for (int trial = 0; trial < 3; ++trial) {
      Extras extras;
      extras.splits = test::randomSplits(rng, audio.frameCount());
      writeFile(folder / "b", format, audio, extras);
      ASSERT_TRUE(test::readBytes(folder / "b") == first) << nameOf(format);
    }
  }
}

TEST(AudioFileWriter, AHeaderTellsWhatWasWrittenAndNotWhatWasAnnounced) {
  const TemporaryFolder folder;
  for (const AudioFileFormat& format : allFormats())
    for (const std::int64_t announced : {0, 999, 1001, 5000}) {
      const Audio audio = exactAudio(format.coding, 1, 1001);
      AudioFileWriter::Settings settings = settingsFor(folder / "x", format, audio);
      settings.frameCount = announced;
      AudioFileWriter writer(settings);
      writer.write(audio.pointers(), 1001);
      writer.finish();
      writer.commit();
      EXPECT_TRUE(areSame(readWhole(folder / "x"), audio)) << nameOf(format) << " " << announced;
      writeFile(folder / "y", format, audio);
      EXPECT_TRUE(test::readBytes(folder / "x") == test::readBytes(folder / "y")) << nameOf(format);
    }
}

// Sizes in a header are those of the file, and chunks have even lengths.
TEST(AudioFileWriter, TheHeaderTellsTheSizeOfTheFile) {
  const TemporaryFolder folder;
  for (const std::int64_t frames : {6, 7}) {
    for (const Container container : {Container::wav, Container::aiff}) {
      writeFile(folder / "x", {container, SampleCoding::pcm24}, Audio(1, frames));
      const std::string bytes = test::readBytes(folder / "x");
      EXPECT_EQ(bytes.size() % 2, 0u) << nameOf(container);
      EXPECT_EQ(number(bytes, 4, 4, container == Container::aiff), bytes.size() - 8) << nameOf(container);
    }
    writeFile(folder / "x", {Container::rf64, SampleCoding::pcm24}, Audio(1, frames));
    const std::string bytes = test::readBytes(folder / "x");
    EXPECT_EQ(bytes.size() % 2, 0u);
    EXPECT_EQ(number(bytes, 20, 8), bytes.size() - 8);
  }
}

// --- The file as a whole ---------------------------------------------------------------------------------

TEST(AudioFileWriter, AFinishedFileCanBeReadBeforeItHasItsName) {
  const TemporaryFolder folder;
  for (const AudioFileFormat& format : allFormats()) {
    const Audio audio = exactAudio(format.coding, 2, 10'000);
    {
      AudioFileWriter writer(settingsFor(folder / "x", format, audio));
      writer.write(audio.pointers(), audio.frameCount());
      writer.finish();
      EXPECT_TRUE(areSame(readWhole(writer.temporaryPath()), audio)) << nameOf(format);
      AudioFile file(writer.temporaryPath());
      EXPECT_TRUE(file.seekTo(9'999));
      EXPECT_FALSE(fs::exists(folder / "x"));
    }
    EXPECT_EQ(folder.names(), Names{}) << nameOf(format);
  }
}

TEST(AudioFileWriter, RefusesAPlaceBeforeAnythingIsWritten) {
  const TemporaryFolder folder;
  const Audio audio(2, 10);
  const AudioFileFormat format{Container::wav, SampleCoding::pcm16};
  test::writeBytes(folder / "there.wav", "old");
  fs::create_hard_link(folder / "there.wav", folder / "other.wav");
  Extras keep;
  keep.replacesExisting = false;
  EXPECT_THROW(AudioFileWriter(settingsFor(folder / "there.wav", format, audio, keep)), FileExistsError);
  Extras input;
  input.inputs = {folder / "other.wav"};
  EXPECT_EQ(errorOf([&] { AudioFileWriter(settingsFor(folder / "there.wav", format, audio, input)); }),
            "it is one of the files that are read");
  EXPECT_EQ(errorOf([&] { AudioFileWriter(settingsFor(folder / "no" / "x.wav", format, audio)); }),
            "its folder does not exist");
  EXPECT_EQ(test::readBytes(folder / "there.wav"), "old");
  EXPECT_EQ(folder.names(), (Names{"other.wav", "there.wav"}));
}

TEST(AudioFileWriter, TooLittleSpaceIsToldBeforeAnythingIsWritten) {
  const TemporaryFolder folder;
  for (const Container container : {Container::wav, Container::caf, Container::flac}) {
    AudioFileWriter::Settings settings =
        settingsFor(folder / "x", {container, SampleCoding::pcm16}, Audio(2, 0));
    settings.frameCount = std::int64_t{1} << 49;
    EXPECT_TRUE(test::startsWith(errorOf([&] { AudioFileWriter writer(settings); }),
                                 "there is too little space for it: it needs 2251 TB, and "));
    settings.frameCount = std::numeric_limits<std::int64_t>::max();
    EXPECT_TRUE(test::startsWith(errorOf([&] { AudioFileWriter writer(settings); }),
                                 "there is too little space for it: it needs "));
  }
  EXPECT_EQ(folder.names(), Names{});
}

// A limit on the size of files stands in for a disk that fills up. FLAC also meets it when it is finished.
TEST(AudioFileWriter, AFullDiskIsAnErrorAndLeavesNothing) {
  const TemporaryFolder folder;
  test::writeBytes(folder / "old", "old");
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = ::signal(SIGXFSZ, SIG_IGN);
  for (const AudioFileFormat& format : allFormats()) {
    std::mt19937 rng(5);
    const Audio audio = test::noiseAudio(rng, 2, 100'000, 1.0);
    for (const rlim_t limit : {10u, 1'000u, 200'000u}) {
      const rlimit limited{limit, before.rlim_max};
      ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
      const std::string error = errorOf([&] { writeFile(folder / "old", format, audio); });
      ::setrlimit(RLIMIT_FSIZE, &before);
      EXPECT_EQ(error, "it cannot be written: File too large") << nameOf(format) << " " << limit;
    }
  }
  ::signal(SIGXFSZ, handler);
  EXPECT_EQ(folder.names(), Names{"old"});
  EXPECT_EQ(test::readBytes(folder / "old"), "old");
}

// --- Sizes -----------------------------------------------------------------------------------------------

TEST(AudioFileWriter, WAVBecomesRF64AboveFourGibibytes) {
  const TemporaryFolder folder;
  if (fs::space(folder.path()).available < 6'000'000'000) GTEST_SKIP() << "too little free space";
  const Audio audio = exactAudio(SampleCoding::pcm16, 2, 1000);
  constexpr std::int64_t headBytes = 44, largest = 0xFFFFFFFF + std::int64_t{8};
  for (const auto& [dataBytes, name] : {std::pair{largest - headBytes - 5, "WAV 16-bit"},
                                        std::pair{largest - headBytes + 1, "RF64 16-bit"}}) {
    AudioFileWriter::Settings settings =
        settingsFor(folder / "x.wav", {Container::wav, SampleCoding::pcm16}, audio);
    settings.frameCount = dataBytes / 4;
    AudioFileWriter writer(settings);
    writer.write(audio.pointers(), 1000);
    writer.finish();
    EXPECT_EQ(AudioFile(writer.temporaryPath()).formatName(), name);
    EXPECT_TRUE(areSame(readWhole(writer.temporaryPath()), audio));
  }
}

TEST(AudioFileWriter, WhatAContainerCannotTakeIsToldWithThoseThatCan) {
  const auto reason = [](Container container, SampleCoding coding, double rate, std::int64_t channels,
                         std::int64_t frames, const Labels& labels = {}) {
    return reasonAgainst({container, coding}, rate, channels, frames, labels).value_or("none");
  };
  constexpr SampleCoding pcm16 = SampleCoding::pcm16, float32 = SampleCoding::float32;
  EXPECT_EQ(reason(Container::flac, float32, 48000, 2, 100),
            "FLAC has no floating-point samples; possible: WAV, AIFF, CAF");
  EXPECT_EQ(reason(Container::flac, pcm16, 48000, 9, 100),
            "FLAC files have at most 8 channels, and this has 9; possible: WAV, AIFF, CAF");
  EXPECT_EQ(reason(Container::wav, pcm16, 48000, 1025, 100),
            "WAV files have at most 1024 channels, and this has 1025");
  EXPECT_EQ(reason(Container::flac, pcm16, 768000, 2, 100),
            "FLAC has no sample rate of 768000 Hz; possible: WAV, AIFF, CAF");
  EXPECT_EQ(reason(Container::flac, pcm16, 65537, 2, 100),
            "FLAC has no sample rate of 65537 Hz; possible: WAV, AIFF, CAF");
  EXPECT_EQ(reason(Container::flac, pcm16, 352800, 2, 100), "none");
  EXPECT_EQ(reason(Container::aiff, pcm16, 48000, 2, 1'100'000'000),
            "AIFF files end at 4 GiB, and this has 4.4 GB of samples; possible: WAV, CAF, FLAC");
  EXPECT_EQ(reason(Container::aiff, pcm16, 48000, 2, 1'070'000'000), "none");
  for (const Container container : {Container::wav, Container::rf64, Container::caf, Container::flac})
    EXPECT_EQ(reason(container, pcm16, 48000, 2, 1'100'000'000), "none");
}

// FLAC takes exactly the rates that reasonAgainst lets pass.
TEST(AudioFileWriter, ARateThatFLACShallTakeIsTaken) {
  const TemporaryFolder folder;
  const Audio audio = exactAudio(SampleCoding::pcm16, 1, 10);
  const AudioFileFormat format{Container::flac, SampleCoding::pcm16};
  for (const double rate : {5.0, 44'100.0, 65'535.0, 65'540.0, 655'350.0}) {
    ASSERT_EQ(reasonAgainst(format, rate, 1, 10, {}), std::nullopt) << rate;
    Extras extras;
    extras.sampleRate = rate;
    writeFile(folder / "x.flac", format, audio, extras);
    EXPECT_EQ(AudioFile(folder / "x.flac").sampleRate(), rate);
  }
  for (const double rate : {65'536.0, 70'001.0, 655'360.0, 1'000'000.0})
    EXPECT_NE(reasonAgainst(format, rate, 1, 10, {}), std::nullopt) << rate;
}

TEST(AudioFileWriter, WhatReasonAgainstNamesIsThrown) {
  const TemporaryFolder folder;
  EXPECT_EQ(errorOf([&] {
              writeFile(folder / "x.flac", {Container::flac, SampleCoding::float32}, Audio(2, 10));
            }),
            "FLAC has no floating-point samples; possible: WAV, AIFF, CAF");
  EXPECT_EQ(folder.names(), Names{});
}

// --- Channels --------------------------------------------------------------------------------------------

const Labels smpte51 = {1, 2, 3, 4, 5, 6}, film51 = {1, 3, 2, 5, 6, 4}, back51 = {1, 2, 3, 4, 33, 34};

Labels readLabels(const fs::path& path) {
  return AudioFile(path).channelLabels();
}

Extras labelled(const Labels& labels) {
  Extras extras;
  extras.labels = labels;
  return extras;
}

TEST(AudioFileWriter, WAVKeepsEveryMapInTheOrderOfTheSpeakerMask) {
  const TemporaryFolder folder;
  for (const Container container : {Container::wav, Container::rf64})
    for (const SampleCoding coding : codings)
      for (const Labels& labels :
           {smpte51, back51, Labels{3}, Labels{4}, Labels{5, 6}, Labels{1, 2, 3}, Labels{1, 2, 5, 6},
            Labels{1, 2, 33, 34}, Labels{1, 2, 3, 4, 9, 5, 6}, Labels{1, 2, 3, 4, 33, 34, 5, 6},
            Labels{1, 2, 3, 4, 33, 34, 7, 8, 9, 5, 6, 12, 13, 14, 15, 16, 17, 18}}) {
        const Audio audio = exactAudio(coding, labels.size(), 100);
        EXPECT_EQ(writeFile(folder / "x", {container, coding}, audio, labelled(labels)), Names{});
        EXPECT_EQ(readLabels(folder / "x"), labels);
        EXPECT_TRUE(areSame(readWhole(folder / "x"), audio));
      }
}

TEST(AudioFileWriter, MonoAndStereoWAVFilesAreThePlainKind) {
  const TemporaryFolder folder;
  constexpr std::uint64_t pcm = 1, ieeeFloat = 3, extensible = 0xFFFE;
  const auto tagOf = [&](SampleCoding coding, std::size_t channels, const Labels& labels) {
    writeFile(folder / "x", {Container::wav, coding}, Audio(channels, 10), labelled(labels));
    return number(chunkOf(test::readBytes(folder / "x"), "fmt "), 0, 2);
  };
  for (const Labels& labels : {Labels{}, Labels{42}}) {
    EXPECT_EQ(tagOf(SampleCoding::pcm16, 1, labels), pcm);
    EXPECT_EQ(tagOf(SampleCoding::pcm24, 1, labels), pcm);
    EXPECT_EQ(tagOf(SampleCoding::float32, 1, labels), ieeeFloat);
  }
  EXPECT_EQ(tagOf(SampleCoding::pcm24, 2, {1, 2}), pcm);
  EXPECT_EQ(tagOf(SampleCoding::float32, 2, {}), ieeeFloat);
  EXPECT_EQ(tagOf(SampleCoding::pcm16, 2, {5, 6}), extensible);
  EXPECT_EQ(tagOf(SampleCoding::pcm16, 6, {}), extensible);
  EXPECT_EQ(number(chunkOf(test::readBytes(folder / "x"), "fmt "), 20, 4), 0u);  // the mask
  EXPECT_EQ(readLabels(folder / "x"), Labels{});
}

TEST(AudioFileWriter, AnOrderThatWouldBeWeighedWrongIsRefused) {
  const TemporaryFolder folder;
  const Labels surroundsFirst = {1, 2, 5, 6, 3, 4};
  const auto reason = [&](Container container, const Labels& labels, std::int64_t channels) {
    return reasonAgainst({container, SampleCoding::pcm16}, 48000, channels, 100, labels).value_or("none");
  };
  EXPECT_EQ(
      reason(Container::wav, surroundsFirst, 6),
      "WAV cannot name channels in the order L R Ls Rs C LFE: their loudness would be read differently; "
      "possible: AIFF, CAF");
  EXPECT_EQ(
      reason(Container::flac, surroundsFirst, 6),
      "FLAC cannot name channels in the order L R Ls Rs C LFE: their loudness would be read differently; "
      "possible: AIFF, CAF");
  EXPECT_EQ(reason(Container::flac, film51, 6).substr(0, 48),
            "FLAC cannot name channels in the order L C R Ls ");
  EXPECT_EQ(reason(Container::flac, {1, 2, 4}, 3),
            "FLAC cannot name channels in the order L R LFE: their loudness would be read differently; "
            "possible: WAV, AIFF, CAF");
  // Seven channels without names weigh 1 each; the fourth of FLAC's seven is the LFE.
  EXPECT_EQ(reason(Container::flac, {}, 7),
            "FLAC names every channel, and these have no names: their loudness would be read differently; "
            "possible: WAV, AIFF, CAF");
  for (const Container container : {Container::aiff, Container::caf})
    EXPECT_EQ(reason(container, surroundsFirst, 6), "none");
  EXPECT_EQ(reason(Container::flac, {1, 2, 3, 4, 9, 5, 6}, 7), "none");
}

TEST(AudioFileWriter, NamesThatChangeWithoutChangingTheLoudnessAreSaid) {
  const TemporaryFolder folder;
  const auto losses = [&](Container container, const Labels& labels) {
    return writeFile(folder / "x", {container, SampleCoding::pcm16}, Audio(labels.size(), 10),
                     labelled(labels));
  };
  EXPECT_EQ(losses(Container::flac, smpte51),
            Names{"FLAC names the channels L R C LFE Lb Rb instead of L R C LFE Ls Rs"});
  EXPECT_EQ(readLabels(folder / "x"), back51);
  EXPECT_EQ(losses(Container::flac, back51), Names{});
  EXPECT_EQ(losses(Container::flac, {1, 2}), Names{});
  EXPECT_EQ(losses(Container::flac, {42}), Names{});
  EXPECT_EQ(losses(Container::wav, {1, 2, 3, 4, 10, 11}),
            Names{"WAV cannot name the channels L R C LFE Lss Rss: they are left without names"});
  EXPECT_EQ(readLabels(folder / "x"), Labels{});
  EXPECT_EQ(losses(Container::wav, {1, 2, 3, 4, 5, 6, 33, 34}),
            Names{"WAV cannot name the channels L R C LFE Ls Rs Lb Rb: they are left without names"});
  EXPECT_EQ(losses(Container::wav, {38, 39}),
            Names{"WAV cannot name the channels Ch1 Ch2: they are left without names"});
}

// Whatever is let through reads back with the weights that the labels have; tried on random maps.
TEST(AudioFileWriter, WeightsSurviveWhateverIsWritten) {
  const TemporaryFolder folder;
  std::mt19937 rng(6);
  const Labels known = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 33, 34, 37, 38, 39, 42};
  int written = 0, refused = 0;
  for (int trial = 0; trial < 400; ++trial) {
    Labels labels = known;
    std::shuffle(labels.begin(), labels.end(), rng);
    labels.resize(1 + rng() % 8);
    if (rng() % 2) std::sort(labels.begin(), labels.end());
    for (const Container container : containers) {
      const AudioFileFormat format{container, SampleCoding::pcm16};
      const auto count = static_cast<std::int64_t>(labels.size());
      if (reasonAgainst(format, 48000, count, 10, labels)) {
        ++refused;
        continue;
      }
      ++written;
      AudioFileWriter writer(settingsFor(folder / "x", format, Audio(labels.size(), 0), labelled(labels)));
      writer.finish();
      testing::internal::CaptureStderr();  // lines about labels without a weight of their own
      const auto expected = ChannelLayouts::weights(labels, count);
      const auto read = ChannelLayouts::weights(readLabels(writer.temporaryPath()), count);
      testing::internal::GetCapturedStderr();
      ASSERT_EQ(read, expected) << nameOf(container) << " trial " << trial;
    }
  }
  EXPECT_GT(written, 500);
  EXPECT_GT(refused, 100);
}

TEST(AudioFileWriter, AskingForAReasonPrintsNothing) {
  testing::internal::CaptureStderr();
  for (const Container container : containers)
    reasonAgainst({container, SampleCoding::pcm16}, 48000, 4, 10, Labels{9, 42, 12, 38});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(AudioFileWriter, CAFAndAIFFKeepMapsThatHaveANumberAndMapsThatHaveNone) {
  const TemporaryFolder folder;
  for (const Container container : {Container::caf, Container::aiff})
    for (const Labels& labels :
         {Labels{42}, Labels{1, 2}, Labels{1, 2, 3}, Labels{3, 1, 2}, Labels{1, 2, 5, 6},
          Labels{1, 2, 3, 5, 6}, smpte51, film51, Labels{1, 2, 5, 6, 3, 4}, Labels{1, 2, 3, 4, 5, 6, 9},
          Labels{1, 2, 3, 4, 5, 6, 33, 34}, Labels{1, 2, 4}, Labels{34, 33, 2, 1}, Labels{1, 2, 3, 37},
          back51, Labels{1, 2, 3, 4, 10, 11}}) {
      const Audio audio = exactAudio(SampleCoding::pcm24, labels.size(), 100);
      EXPECT_EQ(writeFile(folder / "x", {container, SampleCoding::pcm24}, audio, labelled(labels)), Names{});
      EXPECT_EQ(readLabels(folder / "x"), labels) << nameOf(container);
      EXPECT_TRUE(areSame(readWhole(folder / "x"), audio));
    }
}

// --- Metadata --------------------------------------------------------------------------------------------

using Tag = AudioTag;
using Tags = std::map<AudioTag, std::string>;
using Family = AudioMetadata::Family;
using Chunk = AudioMetadata::Chunk;
using Markers = std::vector<AudioMetadata::Marker>;

const Tags allTags = {{Tag::title, "Bach: Präludium"}, {Tag::artist, "Somebody"},
                      {Tag::album, "An album"},        {Tag::date, "2024-05-17"},
                      {Tag::comment, "odd"},           {Tag::genre, "Classical"},
                      {Tag::trackNumber, "7"},         {Tag::copyright, "(c) 2024 X"},
                      {Tag::license, "CC0"},           {Tag::software, "a program"}};
const Markers someMarkers = {{0, "start"}, {4801, ""}, {70'000, "Ende, größer"}, {123, "not in order"}};

Extras with(const AudioMetadata& metadata) {
  Extras extras;
  extras.metadata = metadata;
  return extras;
}

AudioMetadata tagged(const Tags& tags, const Markers& markers = {}, const std::string& bext = "") {
  AudioMetadata metadata;
  metadata.tags = tags;
  metadata.markers = markers;
  metadata.bext = bext;
  return metadata;
}

AudioMetadata metadataOf(const fs::path& path) {
  return AudioFile(path).metadata();
}

// A Broadcast Wave extension of version 2 with a history of odd length.
std::string bextBytes() {
  std::string bytes(602, '\0');
  bytes.replace(0, 11, "Description");
  bytes.replace(256, 10, "Originator");
  bytes.replace(320, 18, "2024-05-1712:34:56");
  bytes[338] = 0x11;  // time reference
  bytes[346] = 2;
  bytes.replace(412, 10, "\x18\xFC\xF4\x01\x9C\xFF\x0C\xFE\xD4\xFD");
  return bytes + "A=PCM,F=48000,W=24,M=stereo,T=here\r\nA";
}

const AudioFileFormat wav16{Container::wav, SampleCoding::pcm16},
    aiff16{Container::aiff, SampleCoding::pcm16}, caf16{Container::caf, SampleCoding::pcm16},
    flac16{Container::flac, SampleCoding::pcm16}, rf16{Container::rf64, SampleCoding::pcm16};

Tags without(std::initializer_list<Tag> absent) {
  Tags tags = allTags;
  for (const Tag tag : absent) tags.erase(tag);
  return tags;
}

TEST(AudioFileWriter, TagsAreKeptWhereTheContainerHasThem) {
  const TemporaryFolder folder;
  const auto roundTrip = [&](const AudioFileFormat& format, const Names& losses) {
    EXPECT_EQ(writeFile(folder / "x", format, exactAudio(format.coding, 2, 1001), with(tagged(allTags))),
              losses);
    return metadataOf(folder / "x").tags;
  };
  for (const AudioFileFormat& format : {wav16, rf16, AudioFileFormat{Container::wav, SampleCoding::float32}})
    EXPECT_EQ(
        roundTrip(format, {std::string(nameOf(format.container)) + " keeps no license tag: it is lost"}),
        without({Tag::license}));
  EXPECT_EQ(
      roundTrip(aiff16, {"AIFF keeps no album tag: it is lost", "AIFF keeps no date tag: it is lost",
                         "AIFF keeps no genre tag: it is lost", "AIFF keeps no track number tag: it is lost",
                         "AIFF keeps no license tag: it is lost", "AIFF keeps no software tag: it is lost"}),
      without({Tag::album, Tag::date, Tag::genre, Tag::trackNumber, Tag::license, Tag::software}));
  EXPECT_EQ(roundTrip(caf16, {}), allTags);
  EXPECT_EQ(roundTrip(flac16, {}), allTags);
}

// libsndfile finds the same tags.
TEST(AudioFileWriter, AnotherReaderFindsTheTags) {
  const TemporaryFolder folder;
  for (const AudioFileFormat& format : {wav16, rf16, flac16, aiff16}) {
    writeFile(folder / "x", format, exactAudio(format.coding, 2, 1001), with(tagged(allTags)));
    SF_INFO info{};
    const Sndfile file = openSndfile(folder / "x", info);
    ASSERT_TRUE(file);
    const auto text = [&](int word) {
      const char* found = sf_get_string(file.get(), word);
      return std::string(found ? found : "");
    };
    EXPECT_EQ(text(SF_STR_TITLE), "Bach: Präludium");
    EXPECT_EQ(text(SF_STR_ARTIST), "Somebody");
    EXPECT_EQ(text(SF_STR_COMMENT), "odd");
    EXPECT_EQ(text(SF_STR_COPYRIGHT), "(c) 2024 X");
    if (format == aiff16) continue;
    EXPECT_EQ(text(SF_STR_ALBUM), "An album");
    EXPECT_EQ(text(SF_STR_DATE), "2024-05-17");
    EXPECT_EQ(text(SF_STR_GENRE), "Classical");
    EXPECT_EQ(text(SF_STR_TRACKNUMBER), "7");
    EXPECT_EQ(text(SF_STR_SOFTWARE), "a program");
  }
}

TEST(AudioFileWriter, TagsOfFilesThatAreNotWrittenAreRead) {
  const TemporaryFolder folder;
  for (const test::FileKind& kind : {test::vorbis, test::opus}) {
    const fs::path path = folder / ("x." + kind.extension);
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = 2;
    info.format = kind.format;
    {
      const Sndfile file(sf_open(path.c_str(), SFM_WRITE, &info));
      ASSERT_EQ(sf_set_string(file.get(), SF_STR_TITLE, "A title"), 0) << kind.extension;
      ASSERT_EQ(sf_set_string(file.get(), SF_STR_ARTIST, "An artist"), 0) << kind.extension;
      const std::vector<float> samples(9600);
      sf_writef_float(file.get(), samples.data(), 4800);
    }
    Tags tags = metadataOf(path).tags;
    tags.erase(Tag::software);  // whatever the encoder says of itself
    EXPECT_EQ(tags, (Tags{{Tag::title, "A title"}, {Tag::artist, "An artist"}})) << kind.extension;
  }
  test::writeAudio(folder / "x.mp3", Audio(2, 48'000), 48000, test::mp3);
  const std::string frame("TIT2\0\0\0\x08\0\0\0A title", 18);
  test::writeBytes(folder / "tagged.mp3",
                   std::string("ID3\x03\0\0\0\0\0\x12", 10) + frame + test::readBytes(folder / "x.mp3"));
  EXPECT_EQ(metadataOf(folder / "tagged.mp3").tags.at(Tag::title), "A title");
}

TEST(AudioFileWriter, MarkersAreKeptInOrderWithTheirNames) {
  const TemporaryFolder folder;
  for (const AudioFileFormat& format : {wav16, rf16, aiff16, caf16}) {
    const Audio audio = exactAudio(format.coding, 1, 80'001);
    EXPECT_EQ(writeFile(folder / "x", format, audio, with(tagged({}, someMarkers))), Names{});
    EXPECT_EQ(metadataOf(folder / "x").markers, someMarkers) << nameOf(format);
    EXPECT_TRUE(areSame(readWhole(folder / "x"), audio));
  }
  for (const std::size_t count : {1u, 3u}) {
    const Markers markers(someMarkers.begin(), someMarkers.begin() + static_cast<std::ptrdiff_t>(count));
    EXPECT_EQ(writeFile(folder / "x", flac16, Audio(1, 10), with(tagged({}, markers))),
              Names{count == 1 ? "FLAC keeps no markers: 1 is lost" : "FLAC keeps no markers: 3 are lost"});
  }
}

TEST(AudioFileWriter, AnotherReaderFindsTheMarkers) {
  const TemporaryFolder folder;
  for (const AudioFileFormat& format : {wav16, aiff16}) {
    writeFile(folder / "x", format, exactAudio(format.coding, 1, 80'001), with(tagged({}, someMarkers)));
    SF_INFO info{};
    const Sndfile file = openSndfile(folder / "x", info);
    SF_CUES cues{};
    ASSERT_EQ(sf_command(file.get(), SFC_GET_CUE, &cues, sizeof cues), SF_TRUE);
    ASSERT_EQ(cues.cue_count, someMarkers.size());
    for (std::size_t k = 0; k < someMarkers.size(); ++k) {
      EXPECT_EQ(cues.cue_points[k].sample_offset, someMarkers[k].frame) << nameOf(format);
      EXPECT_EQ(cues.cue_points[k].name, someMarkers[k].name) << nameOf(format);
    }
  }
}

TEST(AudioFileWriter, MarkersBeyondWhatTheContainerCountsAreSaid) {
  const TemporaryFolder folder;
  const Markers markers = {{4'294'967'295, "last"}, {4'294'967'296, "too far"}};
  EXPECT_EQ(writeFile(folder / "x", wav16, Audio(1, 10), with(tagged({}, markers))),
            Names{"WAV keeps no markers after frame 4294967295: 1 is lost"});
  EXPECT_EQ(metadataOf(folder / "x").markers, (Markers{markers[0]}));
  EXPECT_EQ(writeFile(folder / "x", caf16, Audio(1, 10), with(tagged({}, markers))), Names{});
  EXPECT_EQ(metadataOf(folder / "x").markers, markers);
  EXPECT_EQ(writeFile(folder / "x", aiff16, Audio(1, 10), with(tagged({}, Markers(32'769, {1, "x"})))),
            Names{"AIFF keeps only 32767 markers: the other 2 are lost"});
  EXPECT_EQ(metadataOf(folder / "x").markers.size(), 32'767u);
  std::string longName(254, 'x');
  longName += "ä";  // 256 bytes: the cut would go through it
  EXPECT_EQ(writeFile(folder / "x", aiff16, Audio(1, 10), with(tagged({}, {{1, longName}, {2, "after"}}))),
            Names{"AIFF keeps 255 bytes of a marker's name: the end of 1 is lost"});
  EXPECT_EQ(metadataOf(folder / "x").markers, (Markers{{1, std::string(254, 'x')}, {2, "after"}}));
}

TEST(AudioFileWriter, BextIsKeptByteForByteInWAVFiles) {
  const TemporaryFolder folder;
  for (const AudioFileFormat& format : {wav16, rf16}) {
    EXPECT_EQ(writeFile(folder / "x", format, Audio(1, 10), with(tagged({}, {}, bextBytes()))), Names{});
    // RF64 gets an even length: a NUL behind the text at the end.
    EXPECT_EQ(metadataOf(folder / "x").bext, format == rf16 ? bextBytes() + '\0' : bextBytes());
    SF_INFO info{};
    const Sndfile file = openSndfile(folder / "x", info);
    SF_BROADCAST_INFO read{};
    ASSERT_EQ(sf_command(file.get(), SFC_GET_BROADCAST_INFO, &read, sizeof read), SF_TRUE);
    EXPECT_STREQ(read.description, "Description");
    EXPECT_EQ(read.time_reference_low, 0x11u);
  }
  for (const AudioFileFormat& format : {aiff16, caf16, flac16})
    EXPECT_EQ(writeFile(folder / "x", format, Audio(1, 10), with(tagged({}, {}, bextBytes()))),
              Names{std::string(nameOf(format.container)) + " keeps no 'bext' chunk: it is lost"});
}

std::string riffChunk(const std::string& id, const std::string& content) {
  std::string bytes = id;
  for (int k = 0; k < 4; ++k) bytes += static_cast<char>(content.size() >> (8 * k) & 0xFF);
  return bytes + content + std::string(content.size() % 2, '\0');
}
std::string littleEndian(std::uint64_t value, int width = 4) {
  std::string bytes;
  for (int k = 0; k < width; ++k) bytes += static_cast<char>(value >> (8 * k) & 0xFF);
  return bytes;
}

// A WAV file with more than our fields hold: a tag of its own kind, a region with a length, a note, iXML
// behind the samples, figures drawn from the samples, and filling.
fs::path richWAV(const TemporaryFolder& folder) {
  const std::string cues =
      littleEndian(1) + littleEndian(9) + littleEndian(50) + "data" + littleEndian(0, 8) + littleEndian(50);
  const std::string region =
      riffChunk("ltxt", littleEndian(9) + littleEndian(20) + "rgn " + littleEndian(0, 8));
  const std::string body =
      "WAVE" +
      riffChunk("fmt ", littleEndian(1, 2) + littleEndian(1, 2) + littleEndian(48000) + littleEndian(96000) +
                            littleEndian(2, 2) + littleEndian(16, 2)) +
      riffChunk("PEAK", std::string(16, 'p')) + riffChunk("JUNK", std::string(33, '\0')) +
      riffChunk("LIST", "INFO" + riffChunk("INAM", std::string("A title\0", 8)) +
                            riffChunk("IENG", std::string("An engineer\0", 12))) +
      riffChunk("data", std::string(200, 'd')) + riffChunk("cue ", cues) +
      riffChunk("LIST", "adtl" + riffChunk("labl", littleEndian(9) + std::string("name\0", 5)) + region +
                            riffChunk("note", littleEndian(9) + std::string("a note\0", 7))) +
      riffChunk("iXML", "<BWFXML/>") + riffChunk("bext", bextBytes());
  test::writeBytes(folder / "rich.wav", riffChunk("RIFF", body));
  return folder / "rich.wav";
}

TEST(AudioFileWriter, AFileOfTheSameFamilyGetsAllChunksBackAsTheyWere) {
  const TemporaryFolder folder;
  const AudioMetadata metadata = metadataOf(richWAV(folder));
  EXPECT_EQ(metadata.tags, (Tags{{Tag::title, "A title"}}));
  EXPECT_EQ(metadata.markers, (Markers{{50, "name"}}));
  EXPECT_EQ(metadata.bext, bextBytes());
  const std::string before = test::readBytes(folder / "rich.wav");
  EXPECT_EQ(writeFile(folder / "x", wav16, Audio(1, 101), with(metadata)), Names{});
  const std::string after = test::readBytes(folder / "x");
  for (const std::string id : {"LIST", "cue ", "iXML", "bext"})
    EXPECT_EQ(chunkOf(after, id), chunkOf(before, id)) << id;
  for (const std::string id : {"PEAK", "JUNK"}) EXPECT_EQ(chunkOf(after, id), "no chunk") << id;
  EXPECT_EQ(metadataOf(folder / "x").chunks, metadata.chunks);
}

// Some readers cannot do with odd ones there: libsndfile 1.2 is one.
TEST(AudioFileWriter, ChunksOfRF64HaveEvenLengths) {
  const TemporaryFolder folder;
  const AudioMetadata metadata = metadataOf(richWAV(folder));
  EXPECT_EQ(writeFile(folder / "x", rf16, Audio(1, 101), with(metadata)), Names{});
  const std::string after = test::readBytes(folder / "x");
  EXPECT_EQ(chunkOf(after, "iXML"), "<BWFXML/>\n");
  EXPECT_EQ(chunkOf(after, "bext"), bextBytes() + '\0');
  EXPECT_EQ(metadataOf(folder / "x").tags, metadata.tags);
  EXPECT_EQ(metadataOf(folder / "x").markers, metadata.markers);
  EXPECT_EQ(readWhole(folder / "x").frameCount(), 101);
}

TEST(AudioFileWriter, WhatAnotherFamilyCannotHoldIsSaid) {
  const TemporaryFolder folder;
  const AudioMetadata metadata = metadataOf(richWAV(folder));
  EXPECT_EQ(
      writeFile(folder / "x", caf16, Audio(1, 100), with(metadata)),
      (Names{"CAF keeps no 'bext' chunk: it is lost", "CAF keeps no 'iXML' chunk: it is lost",
             "CAF keeps no tag 'IENG': it is lost", "CAF keeps no lengths of marked regions: they are lost",
             "CAF keeps no notes on markers: they are lost"}));
  EXPECT_EQ(metadataOf(folder / "x").tags, metadata.tags);
  EXPECT_EQ(metadataOf(folder / "x").markers, metadata.markers);
}

TEST(AudioFileWriter, AChangedFieldIsWrittenAndTheRestStays) {
  const TemporaryFolder folder;
  AudioMetadata metadata = metadataOf(richWAV(folder));
  metadata.tags[Tag::title] = "Another title";
  EXPECT_EQ(writeFile(folder / "x", wav16, Audio(1, 100), with(metadata)),
            Names{"WAV keeps no tag 'IENG': it is lost"});
  const AudioMetadata read = metadataOf(folder / "x");
  EXPECT_EQ(read.tags, (Tags{{Tag::title, "Another title"}}));
  EXPECT_EQ(read.markers, (Markers{{50, "name"}}));
  EXPECT_EQ(chunkOf(test::readBytes(folder / "x"), "cue "),
            chunkOf(test::readBytes(folder / "rich.wav"), "cue "));
}

std::string vorbisComment(const std::vector<std::string>& entries) {
  std::string bytes = littleEndian(6) + "vendor" + littleEndian(entries.size());
  for (const std::string& entry : entries) bytes += littleEndian(entry.size()) + entry;
  return bytes;
}

// FLAC's block of a picture of some size.
std::string picture(std::size_t blockBytes) {
  std::string bytes(32, '\0');
  bytes[3] = 3;  // front cover
  const std::size_t dataBytes = blockBytes - bytes.size();
  for (std::size_t k = 0; k < 4; ++k) bytes[28 + k] = static_cast<char>(dataBytes >> (24 - 8 * k) & 0xFF);
  return bytes + std::string(dataBytes, 'p');
}

AudioMetadata flacMetadata(const std::vector<std::string>& comments) {
  AudioMetadata metadata;
  metadata.family = Family::flac;
  metadata.chunks = {{"4", vorbisComment(comments)}, {"6", picture(5000)}, {"2", "abcdDATA"}};
  return metadata;
}

TEST(AudioFileWriter, FLACKeepsAllCommentsPicturesAndOtherBlocks) {
  const TemporaryFolder folder;
  const std::vector<std::string> comments = {"Title=A title", "ISRC=XY", "ARTIST=One", "ARTIST=Two"};
  AudioMetadata metadata = flacMetadata(comments);
  metadata.tags = {{Tag::title, "A title"}, {Tag::artist, "One"}};
  const Audio audio = exactAudio(SampleCoding::pcm16, 2, 30'000);
  EXPECT_EQ(writeFile(folder / "x.flac", flac16, audio, with(metadata)), Names{});
  const AudioMetadata read = metadataOf(folder / "x.flac");
  EXPECT_EQ(read.tags, metadata.tags);
  ASSERT_EQ(read.chunks.size(), 3u);
  EXPECT_EQ(read.chunks[1], metadata.chunks[1]);
  EXPECT_EQ(read.chunks[2], metadata.chunks[2]);
  EXPECT_TRUE(test::contains(read.chunks[0].bytes, "reference libFLAC"));  // whoever encoded it now
  for (const std::string& comment : comments) EXPECT_TRUE(test::contains(read.chunks[0].bytes, comment));
  EXPECT_TRUE(areSame(readWhole(folder / "x.flac"), audio));
  EXPECT_TRUE(AudioFile(folder / "x.flac").seekTo(29'999));

  EXPECT_EQ(
      writeFile(folder / "x.wav", wav16, audio, with(read)),
      (Names{"WAV keeps no picture: it is lost", "WAV keeps no block of another application: it is lost",
             "WAV keeps no tag 'ARTIST': it is lost", "WAV keeps no tag 'ISRC': it is lost"}));
  EXPECT_EQ(metadataOf(folder / "x.wav").tags, metadata.tags);
}

TEST(AudioFileWriter, ABlockTooLargeForFLACIsAnError) {
  const TemporaryFolder folder;
  AudioMetadata metadata = flacMetadata({});
  metadata.chunks[1].bytes = picture(0x1000000);
  EXPECT_TRUE(
      test::startsWith(errorOf([&] { writeFile(folder / "x", flac16, Audio(1, 10), with(metadata)); }),
                       "it cannot be written: "));
  metadata.chunks[1].bytes = picture(0xFFFFFF);
  EXPECT_EQ(writeFile(folder / "x", flac16, Audio(1, 10), with(metadata)), Names{});
  EXPECT_EQ(readWhole(folder / "x").frameCount(), 10);
}

TEST(AudioFileWriter, ChunksOfAIFFAndCAFStayInTheirFamilies) {
  const TemporaryFolder folder;
  AudioMetadata metadata;
  metadata.family = Family::aiff;
  metadata.chunks = {{"NAME", "A title"}, {"ID3 ", "some bytes!"}, {"COMT", std::string("\0\0", 2)}};
  metadata.tags = {{Tag::title, "A title"}};
  EXPECT_EQ(writeFile(folder / "x", aiff16, exactAudio(SampleCoding::pcm16, 1, 11), with(metadata)), Names{});
  EXPECT_EQ(metadataOf(folder / "x"), metadata);
  EXPECT_EQ(writeFile(folder / "x", caf16, Audio(1, 11), with(metadata)),
            (Names{"CAF keeps no 'ID3 ' chunk: it is lost", "CAF keeps no 'COMT' chunk: it is lost"}));
  metadata.family = Family::caf;
  metadata.chunks = {{"umid", std::string(64, 'u')}, {"uuid", std::string(33, 'v')}};
  metadata.tags = {};
  EXPECT_EQ(writeFile(folder / "x", caf16, Audio(1, 11), with(metadata)), Names{});
  EXPECT_EQ(metadataOf(folder / "x"), metadata);
  EXPECT_EQ(writeFile(folder / "x", wav16, Audio(1, 11), with(metadata)),
            (Names{"WAV keeps no 'umid' chunk: it is lost", "WAV keeps no 'uuid' chunk: it is lost"}));
}

TEST(AudioFileWriter, TextThatIsNotUTF8IsTakenForLatin1) {
  const TemporaryFolder folder;
  AudioMetadata metadata;
  metadata.family = Family::riff;
  metadata.chunks = {{"LIST", "INFO" + riffChunk("INAM", std::string("Pr\xE4ludium\0", 10))}};
  metadata.tags = {{Tag::title, "Präludium"}};
  writeFile(folder / "x.wav", wav16, Audio(1, 10), with(metadata));
  EXPECT_EQ(metadataOf(folder / "x.wav"), metadata);  // the file keeps its bytes
  writeFile(folder / "x.flac", flac16, Audio(1, 10), with(metadata));
  EXPECT_EQ(metadataOf(folder / "x.flac").tags, metadata.tags);
}

TEST(AudioFileWriter, ClearLoudnessTakesOutWhatAGainMakesWrongAndNothingElse) {
  AudioMetadata metadata =
      flacMetadata({"TITLE=x", "replaygain_track_gain=-3 dB", "R128_TRACK_GAIN=5", "R128=x"});
  metadata.bext = bextBytes();
  clearLoudness(metadata);
  EXPECT_EQ(metadata.chunks[0].bytes, vorbisComment({"TITLE=x", "R128=x"}));
  std::string expected = bextBytes();
  expected.replace(412, 10, "\xFF\x7F\xFF\x7F\xFF\x7F\xFF\x7F\xFF\x7F");
  EXPECT_EQ(metadata.bext, expected);

  std::string version1 = bextBytes();
  version1[346] = 1;  // these bytes are not loudness there
  metadata.bext = version1;
  clearLoudness(metadata);
  EXPECT_EQ(metadata.bext, version1);
  for (const std::size_t bytes : {0u, 347u, 400u, 421u}) {  // no chunk of the full length
    metadata.bext = bextBytes().substr(0, bytes);
    clearLoudness(metadata);
    EXPECT_EQ(metadata.bext, bextBytes().substr(0, bytes));
  }
}

TEST(AudioFileWriter, AChunkThatIsCutShortIsSaid) {
  const TemporaryFolder folder;
  const std::string bytes = test::readBytes(richWAV(folder));
  test::writeBytes(folder / "cut.wav", bytes.substr(0, bytes.size() - 10));
  EXPECT_EQ(writeFile(folder / "x", wav16, Audio(1, 10), with(metadataOf(folder / "cut.wav"))),
            Names{"the 'bext' chunk of the input is cut short: it is lost"});
}

// Bytes changed at random: metadata says something or nothing, and can be written; it never hangs or fails.
TEST(AudioFileWriter, DamagedMetadataDoesNoHarm) {
  const TemporaryFolder folder;
  std::mt19937 rng(8);
  std::vector<std::string> files = {test::readBytes(richWAV(folder))};
  for (const AudioFileFormat& format : {wav16, rf16, aiff16, caf16, flac16}) {
    writeFile(folder / "x", format, Audio(1, 20), with(tagged(allTags, someMarkers, bextBytes())));
    files.push_back(test::readBytes(folder / "x"));
  }
  int opened = 0;
  for (int trial = 0; trial < 600; ++trial) {
    std::string bytes = files[static_cast<std::size_t>(trial) % files.size()];
    for (int k = 0; k < 4; ++k) bytes[rng() % bytes.size()] = static_cast<char>(rng() % 4 ? rng() : 0xFF);
    test::writeBytes(folder / "damaged", bytes);
    AudioMetadata metadata;
    try {
      metadata = metadataOf(folder / "damaged");
    } catch (const FileError&) {
      continue;
    }
    ++opened;
    for (const AudioFileFormat& format : {wav16, aiff16, caf16, flac16})
      ASSERT_NO_THROW({
        AudioFileWriter writer(settingsFor(folder / "x", format, Audio(1, 0), with(metadata)));
        writer.finish();
      }) << "trial "
         << trial;
  }
  EXPECT_GT(opened, 200);
}

}  // namespace
}  // namespace vellum
