#include "VellumApp/ChannelMaps.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/ChannelMapFiles.hpp"
#include "Support/TemporaryFolder.hpp"
#include "VellumApp/AudioFile.hpp"

namespace vellum {
namespace {

using ChannelMaps::Labels;
using test::channelChunk;

constexpr std::uint32_t byDescriptions = 0, byBitmap = 0x10000;
constexpr std::uint32_t tagOf(std::uint32_t number, std::uint32_t count) {
  return number << 16 | count;
}

TEST(ChannelMaps, FormatsHaveNoOrderForOtherCountsThan1To8) {
  for (const std::int64_t count : {-1, 0, 9, 1024}) {
    EXPECT_EQ(ChannelMaps::flacOrder(count), Labels{});
    EXPECT_EQ(ChannelMaps::vorbisOrder(count), Labels{});
  }
  for (std::int64_t count = 1; count <= 8; ++count) {
    EXPECT_EQ(ChannelMaps::flacOrder(count).size(), static_cast<std::size_t>(count));
    EXPECT_EQ(ChannelMaps::vorbisOrder(count).size(), static_cast<std::size_t>(count));
  }
}

TEST(ChannelMaps, AMapNamesEveryPlaceOnce) {
  EXPECT_TRUE(ChannelMaps::isMap(Labels{1, 2, 3, 4, 5, 6}));
  EXPECT_TRUE(ChannelMaps::isMap(Labels{42}));
  EXPECT_TRUE(ChannelMaps::isMap(Labels{38, 39, 400, 0x10001}));
  EXPECT_FALSE(ChannelMaps::isMap(Labels{1, 2, 1}));
  for (const AudioChannelLabel label : {0u, 100u, 0xFFFFFFFFu})
    EXPECT_FALSE(ChannelMaps::isMap(Labels{1, label})) << label;
}

// The three forms of the chunk, and what each may hold.
struct ChunkCase {
  std::string chunk;
  std::size_t channelCount;
  Labels labels;
};

std::vector<ChunkCase> chunkCases() {
  return {
      {channelChunk(tagOf(100, 1)), 1, {42}},
      {channelChunk(tagOf(121, 6)), 6, {1, 2, 3, 4, 5, 6}},
      {channelChunk(tagOf(122, 6)), 6, {1, 2, 5, 6, 3, 4}},
      {channelChunk(tagOf(124, 6)), 6, {3, 1, 2, 5, 6, 4}},
      {channelChunk(tagOf(126, 8)), 8, {1, 2, 3, 4, 5, 6, 7, 8}},
      {channelChunk(tagOf(127, 8)), 8, {3, 7, 8, 1, 2, 5, 6, 4}},
      {channelChunk(tagOf(128, 8)), 8, {1, 2, 3, 4, 5, 6, 33, 34}},
      {channelChunk(tagOf(187, 6)), 6, {1, 2, 3, 4, 33, 34}},
      {channelChunk(tagOf(189, 8)), 8, {1, 2, 3, 4, 33, 34, 5, 6}},
      {channelChunk(byBitmap, 0x3F), 6, {1, 2, 3, 4, 5, 6}},
      {channelChunk(byBitmap, 0x60F), 6, {1, 2, 3, 4, 10, 11}},
      {channelChunk(byDescriptions, 0, {1, 2, 5, 6, 3, 4}), 6, {1, 2, 5, 6, 3, 4}},
      {channelChunk(byDescriptions, 0, {4}), 1, {4}},
      {channelChunk(byDescriptions, 0, {6, 5, 37, 400}), 4, {6, 5, 37, 400}},
      // Another number of channels.
      {channelChunk(tagOf(121, 6)), 5, {}},
      {channelChunk(byBitmap, 0x3F), 7, {}},
      {channelChunk(byDescriptions, 0, {1, 2, 3}), 2, {}},
      {channelChunk(byDescriptions, 0, {1, 2, 3}), 4, {}},
      {channelChunk(byDescriptions), 2, {}},
      // No order, unknown entries, repeated entries.
      {channelChunk(tagOf(147, 6)), 6, {}},
      {channelChunk(0xFFFF0000), 2, {}},
      {channelChunk(byBitmap, 0x40001), 2, {}},
      {channelChunk(byBitmap, 0), 1, {}},
      {channelChunk(byDescriptions, 0, {1, 0}), 2, {}},
      {channelChunk(byDescriptions, 0, {1, 0xFFFFFFFF}), 2, {}},
      {channelChunk(byDescriptions, 0, {1, 100}), 2, {}},
      {channelChunk(byDescriptions, 0, {1, 2, 1}), 3, {}},
  };
}

TEST(ChannelMaps, AChannelChunkTellsByTagBitmapOrDescriptions) {
  for (const ChunkCase& c : chunkCases())
    EXPECT_EQ(ChannelMaps::labelsOfChannelChunk(c.chunk, static_cast<std::int64_t>(c.channelCount)), c.labels)
        << testing::PrintToString(c.chunk);
}

TEST(ChannelMaps, AChunkThatIsCutShortTellsNothing) {
  const std::string byTag = channelChunk(tagOf(101, 2)), byLabels = channelChunk(0, 0, {1, 2});
  ASSERT_EQ(ChannelMaps::channelChunkBytes(2), byLabels.size());
  for (std::size_t size = 0; size < byTag.size(); ++size)
    EXPECT_EQ(ChannelMaps::labelsOfChannelChunk(byTag.substr(0, size), 2), Labels{}) << size;
  for (std::size_t size = 0; size < byLabels.size(); ++size)
    EXPECT_EQ(ChannelMaps::labelsOfChannelChunk(byLabels.substr(0, size), 2), Labels{}) << size;
}

TEST(ChannelMaps, WhatStandsBehindTheDescriptionsDoesNotMatter) {
  EXPECT_EQ(ChannelMaps::labelsOfChannelChunk(channelChunk(tagOf(101, 2)) + "more", 2), (Labels{1, 2}));
  EXPECT_EQ(ChannelMaps::labelsOfChannelChunk(channelChunk(0, 0, {2, 1}) + "more", 2), (Labels{2, 1}));
}

TEST(ChannelMaps, CAFAndAIFFFilesHaveTheLabelsOfTheirChunk) {
  const test::TemporaryFolder folder;
  for (const ChunkCase& c : chunkCases()) {
    const test::Audio audio(c.channelCount, 100);
    test::writeCAF(folder / "x.caf", audio, c.chunk);
    EXPECT_EQ(AudioFile(folder / "x.caf").channelLabels(), c.labels) << testing::PrintToString(c.chunk);
    test::writeAIFF(folder / "x.aiff", audio, c.chunk);
    EXPECT_EQ(AudioFile(folder / "x.aiff").channelLabels(), c.labels) << testing::PrintToString(c.chunk);
  }
}

TEST(ChannelMaps, AChannelChunkLeavesTheSamplesAlone) {
  const test::TemporaryFolder folder;
  std::mt19937 rng(4);
  const test::Audio audio = test::noiseAudio(rng, 6, 100, 0.5);
  test::writeCAF(folder / "x.caf", audio, channelChunk(0, 0, {1, 2, 5, 6, 3, 4}));
  EXPECT_EQ(test::readAudio(folder / "x.caf").channels, audio.channels);
  AudioFile file(folder / "x.caf");
  test::Audio read(6, 100);
  std::vector<float*> buffers;
  for (auto& channel : read.channels) buffers.push_back(channel.data());
  EXPECT_EQ(file.read(buffers, 100), 100);
  EXPECT_EQ(read.channels, audio.channels);
}

}  // namespace
}  // namespace vellum
