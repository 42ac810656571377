#include "VellumApp/AudioFile.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using test::Audio;
using test::FileKind;
using test::TemporaryFolder;

// The next frames of a file; fewer at its end.
Audio readFrames(AudioFile& file, std::int64_t frameCount) {
  Audio audio(static_cast<std::size_t>(file.channelCount()), frameCount);
  std::vector<float*> buffers;
  for (auto& channel : audio.channels) buffers.push_back(channel.data());
  const std::int64_t got = file.read(buffers, frameCount);
  return test::cut(audio, 0, got);
}

Audio readToEnd(AudioFile& file, std::int64_t chunkFrames = 4800) {
  Audio audio(static_cast<std::size_t>(file.channelCount()), 0);
  for (;;) {
    const Audio chunk = readFrames(file, chunkFrames);
    if (chunk.frameCount() == 0) return audio;
    audio.append(chunk);
  }
}

std::string errorOf(const std::filesystem::path& path) {
  try {
    AudioFile file(path);
    readToEnd(file);
  } catch (const FileError& error) {
    return error.what();
  }
  return "no error";
}

std::string warningOf(const std::filesystem::path& path) {
  AudioFile file(path);
  readToEnd(file);
  return file.endWarning().value_or("");
}

Audio testAudio(std::size_t channelCount, std::int64_t frameCount) {
  std::mt19937 rng(7);
  return test::noiseAudio(rng, channelCount, frameCount, 0.4);
}

// Copies the first part of a file, as a broken transfer leaves it.
std::filesystem::path truncated(const std::filesystem::path& path, double share) {
  const std::string bytes = test::readBytes(path);
  const std::filesystem::path result = path.parent_path() / ("cut-" + path.filename().string());
  test::writeBytes(result, std::string_view(bytes).substr(
                               0, static_cast<std::size_t>(share * static_cast<double>(bytes.size()))));
  return result;
}

// A WAV header for 16-bit audio with a speaker mask, and silence.
std::string wavWithMask(std::uint16_t channels, std::uint32_t mask, std::uint32_t sampleRate = 48000) {
  std::string bytes;
  const auto put = [&](std::uint64_t value, int count) {
    for (int k = 0; k < count; ++k) bytes += static_cast<char>(value >> (8 * k) & 0xFF);
  };
  const std::uint32_t dataBytes = 100u * channels * 2u;
  bytes += "RIFF";
  put(4 + 8 + 40 + 8 + dataBytes, 4);
  bytes += "WAVEfmt ";
  put(40, 4);
  put(0xFFFE, 2);
  put(channels, 2);
  put(sampleRate, 4);
  put(std::uint64_t{sampleRate} * channels * 2, 4);
  put(channels * 2u, 2);
  put(16, 2);
  put(22, 2);
  put(16, 2);
  put(mask, 4);
  for (const int byte : {1, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71})
    put(static_cast<unsigned>(byte), 1);
  bytes += "data";
  put(dataBytes, 4);
  return bytes + std::string(dataBytes, '\0');
}

TEST(AudioFile, TellsWhatEveryKindOfFileIs) {
  const TemporaryFolder folder;
  const std::vector<std::pair<FileKind, std::string>> names = {
      {{"16.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16}, "WAV 16-bit"},
      {{"ex.wav", SF_FORMAT_WAVEX | SF_FORMAT_PCM_24}, "WAV 24-bit"},
      {{"f.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT}, "WAV 32-bit float"},
      {{"rf64", SF_FORMAT_RF64 | SF_FORMAT_PCM_32}, "RF64 32-bit"},
      {{"w64", SF_FORMAT_W64 | SF_FORMAT_DOUBLE}, "W64 64-bit float"},
      {{"aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_S8}, "AIFF 8-bit"},
      {{"caf", SF_FORMAT_CAF | SF_FORMAT_ALAC_24}, "CAF ALAC 24-bit"},
      {test::flac, "FLAC 24-bit"},
      {test::vorbis, "Ogg Vorbis"},
      {test::opus, "Ogg Opus"},
      {test::mp3, "MP3"},
  };
  for (const auto& [kind, name] : names) {
    const auto path = folder / ("x." + kind.extension);
    test::writeAudio(path, testAudio(2, 9600), 48000, kind);
    const AudioFile file(path);
    EXPECT_EQ(file.formatName(), name);
    EXPECT_EQ(file.sampleRate(), 48000) << name;
    EXPECT_EQ(file.channelCount(), 2) << name;
    EXPECT_EQ(file.claimedFrameCount(), 9600) << name;
    EXPECT_EQ(file.position(), 0) << name;
  }
}

TEST(AudioFile, SamplesComeBackAsTheyWereWritten) {
  const TemporaryFolder folder;
  for (std::size_t channels : {1u, 2u, 3u, 6u, 8u}) {
    const Audio audio = testAudio(channels, 20'000);
    for (FileKind kind : test::allKinds()) {
      if (kind.isLossy) continue;
      const auto path = folder / ("x." + kind.extension);
      test::writeAudio(path, audio, 44100, kind);
      AudioFile file(path);
      const Audio read = readToEnd(file);
      ASSERT_EQ(read.frameCount(), audio.frameCount()) << kind.extension;
      const bool is16Bit = (kind.format & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_16;
      const float step = is16Bit ? 1.0f / 32768 : 1.0f / 8388608;  // what the width of the samples can hold
      for (std::size_t c = 0; c < channels; ++c)
        for (std::size_t n = 0; n < read.channels[c].size(); ++n)
          ASSERT_NEAR(read.channels[c][n], audio.channels[c][n], step)
              << kind.extension << " " << c << " " << n;
      EXPECT_EQ(file.endWarning(), std::nullopt) << kind.extension;
    }
  }
}

TEST(AudioFile, FloatSamplesBeyondFullScaleAndNonFiniteOnesAreKept) {
  const TemporaryFolder folder;
  Audio audio(1, 4);
  audio.channels[0] = {3.5f, -2.0f, std::numeric_limits<float>::infinity(), std::nanf("")};
  test::writeAudio(folder / "x.wav", audio, 48000, test::floatWAV);
  AudioFile file(folder / "x.wav");
  const Audio read = readToEnd(file);
  EXPECT_EQ(read.channels[0][0], 3.5f);
  EXPECT_EQ(read.channels[0][1], -2.0f);
  EXPECT_EQ(read.channels[0][2], std::numeric_limits<float>::infinity());
  EXPECT_TRUE(std::isnan(read.channels[0][3]));
}

TEST(AudioFile, AnyChunkLengthReadsTheSame) {
  const TemporaryFolder folder;
  for (const FileKind& kind : test::allKinds()) {
    const auto path = folder / ("x." + kind.extension);
    test::writeAudio(path, testAudio(2, 30'000), 48000, kind);
    AudioFile whole(path);
    const Audio expected = readToEnd(whole, 100'000);
    EXPECT_EQ(expected.channels, test::readAudio(path).channels) << kind.extension;
    for (const std::int64_t chunk : {997, 1152, 16'384}) {
      AudioFile file(path);
      EXPECT_EQ(readToEnd(file, chunk).channels, expected.channels) << kind.extension << " " << chunk;
      EXPECT_EQ(file.position(), expected.frameCount()) << kind.extension;
    }
  }
}

TEST(AudioFile, ANullBufferDropsItsChannel) {
  const TemporaryFolder folder;
  const Audio audio = testAudio(2, 100);
  test::writeAudio(folder / "x.wav", audio, 48000, test::floatWAV);
  AudioFile file(folder / "x.wav");
  std::vector<float> right(100);
  const std::vector<float*> buffers = {nullptr, right.data()};
  EXPECT_EQ(file.read(buffers, 100), 100);
  EXPECT_EQ(right, audio.channels[1]);
}

// Forward, back, to both ends, and behind the end: always the samples that reading on from the start gives.
TEST(AudioFile, SeeksToTheSampleInEveryKindOfFile) {
  const TemporaryFolder folder;
  for (const FileKind& kind : test::allKinds()) {
    const auto path = folder / ("x." + kind.extension);
    test::writeAudio(path, testAudio(2, 50'000), 48000, kind);
    const Audio whole = test::readAudio(path);
    const std::int64_t end = whole.frameCount();
    AudioFile file(path);
    for (const std::int64_t frame :
         {std::int64_t{30'001}, std::int64_t{12'345}, std::int64_t{12'345}, end - 1, std::int64_t{0}, end,
          std::int64_t{1}, end + 1000, std::int64_t{49'000}}) {
      const std::int64_t expected = std::min(frame, end);
      ASSERT_TRUE(file.seekTo(frame)) << kind.extension;
      ASSERT_EQ(file.position(), expected) << kind.extension;
      const Audio read = readFrames(file, 500);
      EXPECT_EQ(read.channels, test::cut(whole, expected, std::min(expected + 500, end)).channels)
          << kind.extension << " at " << frame;
    }
  }
}

TEST(AudioFile, ASeekByDecodingCanBeStopped) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.ogg", testAudio(2, 100'000), 48000, test::vorbis);
  AudioFile file(folder / "x.ogg");
  int questions = 0;
  EXPECT_FALSE(file.seekTo(90'000, [&] { return ++questions < 3; }));
  EXPECT_EQ(questions, 3);
}

// The orders that the formats fix by channel count.
TEST(AudioFile, FLACVorbisAndOpusHaveOneOrderForEachCount) {
  using Labels = std::vector<AudioChannelLabel>;
  const std::vector<Labels> flacOrders = {{42},
                                          {1, 2},
                                          {1, 2, 3},
                                          {1, 2, 33, 34},
                                          {1, 2, 3, 33, 34},
                                          {1, 2, 3, 4, 33, 34},
                                          {1, 2, 3, 4, 9, 5, 6},
                                          {1, 2, 3, 4, 33, 34, 5, 6}};
  const std::vector<Labels> vorbisOrders = {{42},
                                            {1, 2},
                                            {1, 3, 2},
                                            {1, 2, 33, 34},
                                            {1, 3, 2, 33, 34},
                                            {1, 3, 2, 33, 34, 4},
                                            {1, 3, 2, 5, 6, 9, 4},
                                            {1, 3, 2, 5, 6, 33, 34, 4}};
  const TemporaryFolder folder;
  for (std::size_t channels = 1; channels <= 8; ++channels) {
    const Audio audio = testAudio(channels, 4800);
    test::writeAudio(folder / "x.flac", audio, 48000, test::flac);
    EXPECT_EQ(AudioFile(folder / "x.flac").channelLabels(), flacOrders[channels - 1]) << channels;
    for (const FileKind& kind : {test::vorbis, test::opus}) {
      test::writeAudio(folder / "x.ogg", audio, 48000, kind);
      EXPECT_EQ(AudioFile(folder / "x.ogg").channelLabels(), vorbisOrders[channels - 1]) << channels;
    }
  }
}

// Sound in one channel of a surround file comes out in the channel that has that place in the order.
TEST(AudioFile, VorbisAndOpusChannelsArriveInTheOrderOfTheirLabels) {
  const TemporaryFolder folder;
  for (const FileKind& kind : {test::vorbis, test::opus})
    for (std::size_t sounding = 0; sounding < 6; ++sounding) {
      Audio audio(6, 24'000);
      audio.channels[sounding] = test::sine(48000, 24'000, 80, 0.25);  // low enough for the LFE channel
      test::writeAudio(folder / "x.ogg", audio, 48000, kind);
      AudioFile file(folder / "x.ogg");
      const Audio read = readToEnd(file);
      std::vector<double> energies;
      for (const auto& channel : read.channels) {
        double energy = 0;
        for (const float sample : channel) energy += static_cast<double>(sample) * sample;
        energies.push_back(energy);
      }
      const auto loudest = std::max_element(energies.begin(), energies.end()) - energies.begin();
      EXPECT_EQ(static_cast<std::size_t>(loudest), sounding) << kind.extension;
    }
}

TEST(AudioFile, WAVSpeakerMasksGiveLabels) {
  using Labels = std::vector<AudioChannelLabel>;
  const TemporaryFolder folder;
  const auto labelsOf = [&](std::uint16_t channels, std::uint32_t mask) {
    test::writeBytes(folder / "x.wav", wavWithMask(channels, mask));
    return AudioFile(folder / "x.wav").channelLabels();
  };
  EXPECT_EQ(labelsOf(1, 0x4), (Labels{3}));
  EXPECT_EQ(labelsOf(2, 0x3), (Labels{1, 2}));
  EXPECT_EQ(labelsOf(6, 0x3F), (Labels{1, 2, 3, 4, 33, 34}));
  EXPECT_EQ(labelsOf(6, 0x60F), (Labels{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(labelsOf(8, 0x63F), (Labels{1, 2, 3, 4, 33, 34, 5, 6}));
  EXPECT_EQ(labelsOf(11, 0x7FF), (Labels{1, 2, 3, 4, 33, 34, 7, 8, 9, 5, 6}));
  EXPECT_EQ(labelsOf(12, 0x2D63F), (Labels{1, 2, 3, 4, 33, 34, 5, 6, 13, 15, 16, 18}));
}

TEST(AudioFile, AMaskThatDoesNotFitTheChannelsIsNone) {
  const TemporaryFolder folder;
  const std::vector<std::pair<std::uint16_t, std::uint32_t>> misfits = {
      {6, 0}, {6, 0x3}, {8, 0x3F}, {2, 0x80000001}};
  for (const auto& [channels, mask] : misfits) {
    test::writeBytes(folder / "x.wav", wavWithMask(channels, mask));
    EXPECT_TRUE(AudioFile(folder / "x.wav").channelLabels().empty()) << channels << " " << mask;
  }
}

// "Rear" is the surround pair there.
TEST(AudioFile, CAFAndAIFFMapsGiveLabels) {
  using Labels = std::vector<AudioChannelLabel>;
  const TemporaryFolder folder;
  const test::WriteSettings settings{
      .quality = 1,
      .variableBitRate = false,
      .channelMap = {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER, SF_CHANNEL_MAP_LFE,
                     SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT}};
  for (const int container : {SF_FORMAT_CAF, SF_FORMAT_AIFF}) {
    const FileKind kind{"x", container | SF_FORMAT_PCM_16};
    test::writeAudio(folder / "x", testAudio(6, 100), 48000, kind, settings);
    EXPECT_EQ(AudioFile(folder / "x").channelLabels(), (Labels{1, 2, 3, 4, 5, 6}));
    test::writeAudio(folder / "x", testAudio(6, 100), 48000, kind);
    EXPECT_EQ(AudioFile(folder / "x").channelLabels(), Labels{});
  }
}

TEST(AudioFile, AFileWithoutFramesEndsAtOnce) {
  const TemporaryFolder folder;
  for (const FileKind& kind : test::fixedWidthKinds()) {
    test::writeAudio(folder / "x", Audio(2, 0), 48000, kind);
    AudioFile file(folder / "x");
    EXPECT_EQ(readToEnd(file).frameCount(), 0) << kind.extension;
    EXPECT_EQ(file.endWarning(), std::nullopt) << kind.extension;
  }
}

TEST(AudioFile, WhatStandsInACutFileIsReadWithAWarning) {
  const TemporaryFolder folder;
  const Audio audio = testAudio(2, 480'000);
  for (const FileKind& kind : test::allKinds()) {
    if (kind.extension == "caf") continue;  // see below
    const auto path = folder / ("x." + kind.extension);
    test::writeAudio(path, audio, 48000, kind);
    const Audio whole = test::readAudio(path);
    AudioFile file(truncated(path, 0.6));
    const Audio read = readToEnd(file);
    EXPECT_GT(read.frameCount(), 480'000 / 2) << kind.extension;
    EXPECT_LT(read.frameCount(), 480'000 * 2 / 3) << kind.extension;
    EXPECT_EQ(read.channels[1], test::cut(whole, 0, read.frameCount()).channels[1]) << kind.extension;
    ASSERT_TRUE(file.endWarning()) << kind.extension;
    EXPECT_TRUE(test::contains(*file.endWarning(), kind.extension == "ogg" || kind.extension == "opus"
                                                       ? "no end mark"
                                                       : "shorter than its header says"))
        << kind.extension;
  }
}

TEST(AudioFile, TheWarningTellsBothLengths) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", Audio(2, 48'000), 48000, {"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16});
  const std::string bytes = test::readBytes(folder / "x.wav");
  test::writeBytes(folder / "x.wav",
                   std::string_view(bytes).substr(0, bytes.size() - 48'000));  // 12,000 frames
  AudioFile file(folder / "x.wav");
  EXPECT_EQ(file.claimedFrameCount(), 48'000);
  EXPECT_EQ(readToEnd(file).frameCount(), 36'000);
  EXPECT_EQ(file.endWarning(), "the file is shorter than its header says: it holds 0.750 s of 1.000 s");
}

// The decoder does not open these at all.
TEST(AudioFile, ACutCAFFileIsAnError) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.caf", testAudio(2, 48'000), 48000, {"caf", SF_FORMAT_CAF | SF_FORMAT_PCM_24});
  EXPECT_TRUE(test::contains(errorOf(truncated(folder / "x.caf", 0.6)), "damaged, cut short"));
}

// What a writer to a pipe leaves in the header says nothing about the length.
TEST(AudioFile, PlaceholdersForAnUnknownLengthAreNoClaim) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", testAudio(2, 4800), 48000, {"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16});
  const std::string whole = test::readBytes(folder / "x.wav");
  const std::size_t data = whole.find("data");
  ASSERT_NE(data, std::string::npos);
  for (const std::string& placeholder :
       {std::string("\xFF\xFF\xFF\xFF"), std::string("\x00\xF0\xFF\x7F", 4)}) {
    std::string bytes = whole;
    bytes.replace(4, 4, placeholder);
    bytes.replace(data + 4, 4, placeholder);
    test::writeBytes(folder / "x.wav", bytes);
    AudioFile file(folder / "x.wav");
    EXPECT_EQ(file.claimedFrameCount(), std::nullopt);
    EXPECT_EQ(readToEnd(file).frameCount(), 4800);
    EXPECT_EQ(file.endWarning(), std::nullopt);
  }
}

// A recorder that died before it could write the length.
TEST(AudioFile, AHeaderThatClaimsNoAudioInALongFileIsWarnedOf) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", testAudio(2, 4800), 48000, {"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16});
  std::string bytes = test::readBytes(folder / "x.wav");
  bytes.replace(bytes.find("data") + 4, 4, std::string(4, '\0'));
  test::writeBytes(folder / "x.wav", bytes);
  EXPECT_TRUE(test::contains(warningOf(folder / "x.wav"), "the header says that there is no audio"));
}

// Such a file does not tell its length, and its first packets are far larger than the rest: the rate of the
// loud beginning must not be taken for that of the whole.
TEST(AudioFile, AnMP3OfVariableBitRateWithoutALengthIsReadToItsEnd) {
  const TemporaryFolder folder;
  Audio audio = testAudio(2, 48'000);
  audio.append(Audio(2, 480'000));
  const auto path = folder / "x.mp3";
  test::writeAudio(path, audio, 48000, test::mp3,
                   {.quality = 0.8, .variableBitRate = true, .channelMap = {}});
  std::string bytes = test::readBytes(path);
  const std::size_t tag = std::min(bytes.find("Xing"), bytes.find("Info"));
  ASSERT_NE(tag, std::string::npos);
  bytes.replace(tag, 4, std::string(4, '\0'));  // now it is a packet of silence
  test::writeBytes(path, bytes);

  AudioFile file(path);
  EXPECT_EQ(file.claimedFrameCount(), std::nullopt);
  EXPECT_GE(readToEnd(file).frameCount(), audio.frameCount());
  EXPECT_EQ(file.endWarning(), std::nullopt);
  EXPECT_LT(test::readAudio(path).frameCount(), audio.frameCount())
      << "the file is none that shows the fault";

  // Nor are the tags that players append taken for damage.
  std::string tagBytes =
      "APETAGEX" + std::string("\xD0\x07\0\0", 4) + std::string("\x20\x75\0\0", 4) + std::string(16, '\0');
  const std::string tagged =
      bytes + std::string(30'000 - 32 + 0x20 - 0x20, 'x') + tagBytes + "TAG" + std::string(125, ' ');
  test::writeBytes(path, tagged);
  AudioFile taggedFile(path);
  EXPECT_GE(readToEnd(taggedFile).frameCount(), audio.frameCount());
  EXPECT_EQ(taggedFile.endWarning(), std::nullopt);
}

TEST(AudioFile, DamageInTheMiddleIsAnErrorThatTellsWhere) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.flac", testAudio(2, 480'000), 48000, test::flac);
  std::string bytes = test::readBytes(folder / "x.flac");
  const auto middle = static_cast<std::ptrdiff_t>(bytes.size() / 2);
  std::fill(bytes.begin() + middle, bytes.begin() + middle + 50'000, '\x5A');
  test::writeBytes(folder / "x.flac", bytes);

  AudioFile file(folder / "x.flac");
  std::int64_t frames = 0;
  try {
    for (std::int64_t got; (got = readFrames(file, 4800).frameCount()) > 0;) frames += got;
    FAIL() << "no error";
  } catch (const FileError& error) {
    EXPECT_TRUE(test::startsWith(error.what(), "it is damaged: it cannot be decoded beyond "));
  }
  EXPECT_GT(frames, 480'000 / 3);  // what stands before the damage came first
  EXPECT_LT(frames, 480'000 / 2 + 4800);
}

TEST(AudioFile, ASecondStreamBehindTheFirstIsWarnedOf) {
  const TemporaryFolder folder;
  for (const FileKind& kind : {test::vorbis, test::opus, test::mp3}) {
    test::writeAudio(folder / "x", testAudio(2, 96'000), 48000, kind);
    const std::string bytes = test::readBytes(folder / "x");
    test::writeBytes(folder / "x", bytes + bytes);
    EXPECT_TRUE(test::contains(warningOf(folder / "x"), "bytes of the file were not read")) << kind.extension;
  }
}

TEST(AudioFile, WhatIsNoAudioFileIsToldPlainly) {
  const TemporaryFolder folder;
  EXPECT_EQ(errorOf(folder / "missing.wav"), "there is no such file");
  EXPECT_EQ(errorOf(folder / "missing" / "x.wav"), "there is no such file");
  EXPECT_EQ(errorOf(folder.path()), "it is a directory");
  test::writeBytes(folder / "empty.wav", "");
  EXPECT_EQ(errorOf(folder / "empty.wav"), "the file is empty");
  test::writeBytes(folder / "text.wav", "Dear diary, today I recorded nothing at all.\n");
  EXPECT_TRUE(test::startsWith(errorOf(folder / "text.wav"), "it is not audio that this program reads"));
  ASSERT_EQ(::mkfifo((folder / "pipe.wav").c_str(), 0600), 0);
  EXPECT_EQ(errorOf(folder / "pipe.wav"), "it is not a regular file");  // and does not wait for a writer
  EXPECT_EQ(errorOf("/dev/null"), "it is not a regular file");
}

TEST(AudioFile, AFileThatMayNotBeReadIsToldPlainly) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may read everything";
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.wav", Audio(1, 10), 48000, test::floatWAV);
  std::filesystem::permissions(folder / "x.wav", std::filesystem::perms::none);
  EXPECT_EQ(errorOf(folder / "x.wav"), "no permission to read it");
}

// The content tells what a file is; formats without a header are never guessed from a name.
TEST(AudioFile, TheNameOfAFileDoesNotMatter) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.mp3", testAudio(1, 100), 48000, test::flac);
  EXPECT_EQ(AudioFile(folder / "x.mp3").formatName(), "FLAC 24-bit");
  for (const char* name : {"x.raw", "x.vox", "x.gsm", "x.au", "x.snd", "x.sds"}) {
    test::writeBytes(folder / name, std::string(5000, '\x55'));
    EXPECT_TRUE(test::startsWith(errorOf(folder / name), "it is not audio that this program reads")) << name;
  }
}

TEST(AudioFile, AudioFormatsOutsideOfTheListAreRefused) {
  const TemporaryFolder folder;
  test::writeAudio(folder / "x.au", testAudio(1, 100), 48000, {"au", SF_FORMAT_AU | SF_FORMAT_PCM_16});
  EXPECT_TRUE(test::startsWith(errorOf(folder / "x.au"), "it is not audio that this program reads"));
}

TEST(AudioFile, SampleRatesThatTheMeterRefusesAreErrors) {
  const TemporaryFolder folder;
  const auto errorAt = [&](std::uint32_t rate) {
    test::writeBytes(folder / "x.wav", wavWithMask(2, 3, rate));
    return errorOf(folder / "x.wav");
  };
  EXPECT_EQ(errorAt(5), "no error");
  EXPECT_EQ(errorAt(1'000'000), "no error");
  EXPECT_EQ(errorAt(4), "its sample rate of 4 Hz is outside of 5 to 1,000,000 Hz");
  EXPECT_EQ(errorAt(1'000'001), "its sample rate of 1000001 Hz is outside of 5 to 1,000,000 Hz");
}

struct CodingCase {
  int format;  // SF_FORMAT_...
  std::int64_t integerBits;
  std::optional<AudioFileFormat> writable;
};

// Integers of every width that a float holds come out as integer / 2^(bits-1), both ends of the range
// included.
TEST(AudioFile, IntegersAreReadExactly) {
  const std::vector<std::pair<int, int>> formats = {
      {SF_FORMAT_WAV | SF_FORMAT_PCM_U8, 8},    {SF_FORMAT_AIFF | SF_FORMAT_PCM_S8, 8},
      {SF_FORMAT_CAF | SF_FORMAT_PCM_S8, 8},    {SF_FORMAT_FLAC | SF_FORMAT_PCM_S8, 8},
      {SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16},   {SF_FORMAT_RF64 | SF_FORMAT_PCM_16, 16},
      {SF_FORMAT_W64 | SF_FORMAT_PCM_16, 16},   {SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 16},
      {SF_FORMAT_CAF | SF_FORMAT_PCM_16, 16},   {SF_FORMAT_CAF | SF_FORMAT_ALAC_16, 16},
      {SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 16},  {SF_FORMAT_WAV | SF_FORMAT_PCM_24, 24},
      {SF_FORMAT_WAVEX | SF_FORMAT_PCM_24, 24}, {SF_FORMAT_AIFF | SF_FORMAT_PCM_24, 24},
      {SF_FORMAT_CAF | SF_FORMAT_PCM_24, 24},   {SF_FORMAT_CAF | SF_FORMAT_ALAC_24, 24},
      {SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 24},
  };
  const TemporaryFolder folder;
  std::mt19937 rng(9);
  for (const auto& [format, bits] : formats) {
    const std::int32_t scale = 1 << (bits - 1);
    std::vector<std::int32_t> integers = {-scale, scale - 1, 0, 1, -1, scale / 2};
    while (integers.size() < 20'000)
      integers.push_back(static_cast<std::int32_t>(rng() >> (32 - bits)) - scale);
    std::vector<int> leftAligned;
    for (const std::int32_t integer : integers) leftAligned.push_back(integer * (1 << (32 - bits)));
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = 1;
    info.format = format;
    SNDFILE* const out = sf_open((folder / "x").c_str(), SFM_WRITE, &info);
    ASSERT_TRUE(out) << std::hex << format;
    sf_write_int(out, leftAligned.data(), static_cast<sf_count_t>(leftAligned.size()));
    sf_close(out);

    AudioFile file(folder / "x");
    EXPECT_EQ(file.integerBits(), bits) << std::hex << format;
    const Audio read = readToEnd(file);
    ASSERT_EQ(read.channels[0].size(), integers.size()) << std::hex << format;
    for (std::size_t n = 0; n < integers.size(); ++n)
      ASSERT_EQ(static_cast<double>(read.channels[0][n]) * scale, integers[n])
          << std::hex << format << " " << n;
  }
}

TEST(AudioFile, TellsWhatToWriteToKeepItAsItIs) {
  constexpr SampleCoding pcm16 = SampleCoding::pcm16, pcm24 = SampleCoding::pcm24,
                         float32 = SampleCoding::float32;
  const std::vector<CodingCase> cases = {
      {SF_FORMAT_WAV | SF_FORMAT_PCM_U8, 8, {{Container::wav, pcm16}}},
      {SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16, {{Container::wav, pcm16}}},
      {SF_FORMAT_WAVEX | SF_FORMAT_PCM_24, 24, {{Container::wav, pcm24}}},
      {SF_FORMAT_WAV | SF_FORMAT_PCM_32, 0, {{Container::wav, float32}}},
      {SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, {{Container::wav, float32}}},
      {SF_FORMAT_WAV | SF_FORMAT_DOUBLE, 0, {{Container::wav, float32}}},
      {SF_FORMAT_RF64 | SF_FORMAT_PCM_24, 24, {{Container::rf64, pcm24}}},
      {SF_FORMAT_W64 | SF_FORMAT_PCM_16, 16, {{Container::wav, pcm16}}},
      {SF_FORMAT_AIFF | SF_FORMAT_PCM_S8, 8, {{Container::aiff, pcm16}}},
      {SF_FORMAT_AIFF | SF_FORMAT_FLOAT, 0, {{Container::aiff, float32}}},
      {SF_FORMAT_CAF | SF_FORMAT_PCM_24, 24, {{Container::caf, pcm24}}},
      {SF_FORMAT_CAF | SF_FORMAT_ALAC_16, 16, {{Container::caf, pcm16}}},
      {SF_FORMAT_CAF | SF_FORMAT_ALAC_20, 24, {{Container::caf, pcm24}}},
      {SF_FORMAT_CAF | SF_FORMAT_ALAC_32, 0, {{Container::caf, float32}}},
      {SF_FORMAT_FLAC | SF_FORMAT_PCM_S8, 8, {{Container::flac, pcm16}}},
      {SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 24, {{Container::flac, pcm24}}},
      {SF_FORMAT_WAV | SF_FORMAT_ULAW, 0, {}},
      {SF_FORMAT_WAV | SF_FORMAT_ALAW, 0, {}},
      {SF_FORMAT_WAV | SF_FORMAT_IMA_ADPCM, 0, {}},
      {SF_FORMAT_WAV | SF_FORMAT_MS_ADPCM, 0, {}},
      {SF_FORMAT_OGG | SF_FORMAT_VORBIS, 0, {}},
      {SF_FORMAT_OGG | SF_FORMAT_OPUS, 0, {}},
      {SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 0, {}},
  };
  const TemporaryFolder folder;
  for (const CodingCase& one : cases) {
    test::writeAudio(folder / "x", testAudio(2, 9600), 48000, {"x", one.format});
    const AudioFile file(folder / "x");
    EXPECT_EQ(file.integerBits(), one.integerBits) << file.formatName();
    EXPECT_EQ(file.writableFormat(), one.writable) << file.formatName();
    EXPECT_EQ(file.isLossy(), !one.writable) << file.formatName();
  }
}

TEST(AudioFile, ReadingMetadataDoesNotMoveThePosition) {
  const TemporaryFolder folder;
  for (const FileKind& kind : test::allKinds()) {
    const auto path = folder / ("x." + kind.extension);
    test::writeAudio(path, testAudio(2, 20'000), 48000, kind);
    AudioFile file(path);
    AudioFile other(path);
    readFrames(file, 5000);
    readFrames(other, 5000);
    file.metadata();
    EXPECT_EQ(file.position(), 5000);
    EXPECT_EQ(readToEnd(file).channels, readToEnd(other).channels) << kind.extension;
  }
}

}  // namespace
}  // namespace vellum
