#include "VellumApp/ContainerLayout.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Support/TemporaryFolder.hpp"
#include "VellumApp/AudioFile.hpp"

namespace vellum {
namespace {

using test::TemporaryFolder;
using Labels = std::vector<AudioChannelLabel>;

ContainerLayout layoutOf(const AudioFileFormat& format, std::int64_t channelCount, std::int64_t frameCount) {
  return ContainerLayout::of({format, 48000, channelCount, frameCount, {}, {}});
}

// A file whose samples are a hole, all of them 0.
void writeHollowFile(const std::filesystem::path& path, const ContainerLayout& layout,
                     std::int64_t dataBytes) {
  test::writeBytes(path, layout.head);
  std::filesystem::resize_file(path, layout.head.size() + static_cast<std::uintmax_t>(dataBytes));
}

// The smallest file, byte by byte.
TEST(ContainerLayout, AWAVHeadIsThatOfTheTextbook) {
  const ContainerLayout layout = layoutOf({Container::wav, SampleCoding::pcm16}, 2, 3);
  const std::string expected(
      "RIFF\x30\0\0\0WAVE"
      "fmt \x10\0\0\0\x01\0\x02\0\x80\xBB\0\0\0\xEE\x02\0\x04\0\x10\0"
      "data\x0C\0\0\0",
      44);
  EXPECT_EQ(layout.head, expected);
  EXPECT_EQ(layout.tail, "");
}

TEST(ContainerLayout, AnOddNumberOfBytesIsFilledUp) {
  for (const Container container : {Container::wav, Container::rf64, Container::aiff}) {
    EXPECT_EQ(layoutOf({container, SampleCoding::pcm24}, 1, 3).tail.size(), 1u);
    EXPECT_EQ(layoutOf({container, SampleCoding::pcm24}, 1, 4).tail.size(), 0u);
  }
  EXPECT_EQ(layoutOf({Container::caf, SampleCoding::pcm24}, 1, 3).tail.size(), 0u);
}

TEST(ContainerLayout, FilesAboveFourGibibytesTellTheirLength) {
  const TemporaryFolder folder;
  constexpr std::int64_t frames = 1'200'000'001;
  for (const Container container : {Container::rf64, Container::caf})
    for (const SampleCoding coding : {SampleCoding::pcm16, SampleCoding::float32}) {
      const AudioFileFormat format{container, coding};
      writeHollowFile(folder / "x", layoutOf(format, 2, frames), frames * 2 * bytesPerSample(coding));
      AudioFile file(folder / "x");
      EXPECT_EQ(file.formatName(), nameOf(format));
      EXPECT_EQ(file.claimedFrameCount(), frames);
      ASSERT_TRUE(file.seekTo(frames - 2));
      std::vector<float> left(10), right(10);
      const std::vector<float*> buffers = {left.data(), right.data()};
      EXPECT_EQ(file.read(buffers, 10), 2);
      EXPECT_EQ(file.read(buffers, 10), 0);
      EXPECT_EQ(file.endWarning(), std::nullopt);
    }
}

TEST(ContainerLayout, TheLargestWAVAndAIFFFilesTellTheirLength) {
  const TemporaryFolder folder;
  for (const Container container : {Container::wav, Container::aiff}) {
    const AudioFileFormat format{container, SampleCoding::pcm16};
    const auto headBytes = static_cast<std::int64_t>(layoutOf(format, 1, 0).head.size());
    const std::int64_t frames =
        (largest32BitFile - headBytes) / 2 - 40'000;  // clear of sizes that mean "unknown"
    writeHollowFile(folder / "x", layoutOf(format, 1, frames), 2 * frames);
    AudioFile file(folder / "x");
    EXPECT_EQ(file.formatName(), nameOf(format));
    EXPECT_EQ(file.claimedFrameCount(), frames);
    EXPECT_TRUE(file.seekTo(frames - 1));
  }
}

TEST(ContainerLayout, TheHeadsLengthDoesNotDependOnTheNumberOfFrames) {
  for (const Container container : {Container::wav, Container::rf64, Container::aiff, Container::caf})
    EXPECT_EQ(layoutOf({container, SampleCoding::float32}, 3, 0).head.size(),
              layoutOf({container, SampleCoding::float32}, 3, 1'000'000).head.size());
}

TEST(ContainerLayout, ASpeakerMaskNeedsSpeakersInTheirOrder) {
  EXPECT_EQ(speakerMask(Labels{1, 2, 3, 4, 5, 6}), 0x60Fu);
  EXPECT_EQ(speakerMask(Labels{1, 2, 3, 4, 33, 34}), 0x3Fu);
  EXPECT_EQ(speakerMask(Labels{18}), 0x20000u);
  EXPECT_EQ(speakerMask(Labels{}), 0u);
  for (const Labels& labels : {Labels{2, 1}, Labels{1, 1}, Labels{1, 2, 5, 6, 3, 4}, Labels{42},
                               Labels{1, 2, 3, 37}, Labels{10, 11}, Labels{0}})
    EXPECT_EQ(speakerMask(labels), std::nullopt);
}

}  // namespace
}  // namespace vellum
