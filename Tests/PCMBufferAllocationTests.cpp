#include "VellumCore/PCMBufferAllocation.hpp"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace vellum {
namespace {

using namespace PCMBufferAllocation;

constexpr std::int64_t largestBuffer = 4'294'967'295;  // bytes, and frames
constexpr std::int64_t fourGiB = largestBuffer + 1;
constexpr std::int64_t largestInt = std::numeric_limits<std::int64_t>::max();
constexpr std::uint32_t largestUInt = std::numeric_limits<std::uint32_t>::max();

AudioFormat planar(std::uint32_t channelCount, std::uint32_t bytesPerFrame = 4) {
  return {.sampleRate = 48000,
          .channelCount = channelCount,
          .isInterleaved = false,
          .bytesPerFrame = bytesPerFrame};
}
AudioFormat interleaved(std::uint32_t channelCount, std::uint32_t bytesPerFrame) {
  return {.sampleRate = 48000,
          .channelCount = channelCount,
          .isInterleaved = true,
          .bytesPerFrame = bytesPerFrame};
}

// Lets the process grow by so many bytes and no further while it lives.
class MemoryLimit {
 public:
  explicit MemoryLimit(std::int64_t furtherBytes) {
    getrlimit(RLIMIT_AS, &before_);
    std::int64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit limit = before_;
    limit.rlim_cur = static_cast<rlim_t>(pages * sysconf(_SC_PAGESIZE) + furtherBytes);
    isSet_ = pages > 0 && setrlimit(RLIMIT_AS, &limit) == 0;
  }
  ~MemoryLimit() { setrlimit(RLIMIT_AS, &before_); }
  bool isSet() const { return isSet_; }

 private:
  rlimit before_{};
  bool isSet_ = false;
};

// --- Format ----------------------------------------------------------------------------------------------

TEST(AudioFormat, PlanarHasOneBufferPerChannelAndInterleavedOneInAll) {
  EXPECT_EQ(planar(6).bufferCount(), 6);
  EXPECT_EQ(planar(largestUInt).bufferCount(), largestBuffer);
  EXPECT_EQ(interleaved(6, 24).bufferCount(), 1);
}

TEST(AudioFormat, PlanarFloatIsFourBytesAFrame) {
  const AudioFormat format = AudioFormat::planarFloat(96000, 3);
  EXPECT_EQ(format, (AudioFormat{96000, 3, false, 4}));
  EXPECT_NE(format, (AudioFormat{96000, 3, true, 4}));
}

TEST(AudioFormat, FormatsWithDifferentLayoutsDiffer) {
  const AudioFormat plain = AudioFormat::planarFloat(48000, 2);
  EXPECT_EQ(plain.channelLayout, std::nullopt);
  const auto with = [](const AudioChannelLayout& layout) {
    return AudioFormat::planarFloat(48000, 2, layout);
  };
  EXPECT_NE(with({}), plain);
  EXPECT_EQ(with(AudioChannelLayout::ofLabels({1, 2})), with(AudioChannelLayout::ofLabels({1, 2})));
  EXPECT_NE(with(AudioChannelLayout::ofLabels({1, 2})), with(AudioChannelLayout::ofLabels({2, 1})));
  EXPECT_NE(with(AudioChannelLayout::ofLabels({1, 2})), with(AudioChannelLayout::ofTag(101 << 16 | 2)));
}

// --- Arithmetic ------------------------------------------------------------------------------------------

TEST(PCMBufferAllocation, TotalIsFramesTimesBytesTimesBuffers) {
  EXPECT_EQ(totalBytes(planar(2), 1000), 8000);
  EXPECT_EQ(totalBytes(interleaved(2, 8), 1000), 8000);
  EXPECT_EQ(totalBytes(planar(2), 0), 0);
  EXPECT_EQ(totalBytes(planar(2), 1'073'741'824), 8'589'934'592);
  EXPECT_EQ(totalBytes(planar(1, 1), largestInt), largestInt);
}

TEST(PCMBufferAllocation, TotalBeyond64BitsStopsTheProgram) {
  EXPECT_DEATH(totalBytes(planar(1), largestInt), "totalBytes exceeds 64 bits");
  // One buffer still fits here, two do not.
  EXPECT_EQ(totalBytes(planar(1), std::int64_t{1} << 60), std::int64_t{1} << 62);
  EXPECT_DEATH(totalBytes(planar(2), std::int64_t{1} << 60), "totalBytes exceeds 64 bits");
}

TEST(PCMBufferAllocation, FrameCountMustBe1To4294967295) {
  EXPECT_FALSE(canAllocate(planar(2), 0));
  EXPECT_FALSE(canAllocate(planar(2), -1));
  EXPECT_FALSE(canAllocate(planar(2), std::numeric_limits<std::int64_t>::min()));
  EXPECT_TRUE(canAllocate(planar(2), 1));
  EXPECT_TRUE(canAllocate(planar(1, 1), largestBuffer));
  EXPECT_FALSE(canAllocate(planar(1, 1), largestBuffer + 1));
  EXPECT_FALSE(canAllocate(planar(1, 0), largestBuffer + 1));  // though they would take no byte at all
}

TEST(PCMBufferAllocation, BufferOf4GiBIsRefused) {
  EXPECT_FALSE(canAllocate(planar(2), 1'073'741'824));
  EXPECT_TRUE(canAllocate(planar(2), 1'073'741'823));
  EXPECT_FALSE(canAllocate(interleaved(2, 8), 536'870'912));
  EXPECT_TRUE(canAllocate(interleaved(2, 8), 536'870'911));
}

TEST(PCMBufferAllocation, WholeOf4GiBAndMoreIsAListOfBuffersAndAllowed) {
  EXPECT_EQ(totalBytes(planar(2), 536'870'912), fourGiB);
  EXPECT_TRUE(canAllocate(planar(2), 536'870'912));
  EXPECT_TRUE(canAllocate(planar(64), 1'073'741'823));
}

TEST(PCMBufferAllocation, QueriesAnswerFalseWhereTheProductExceeds64Bits) {
  EXPECT_FALSE(canAllocate(planar(largestUInt, 1), largestBuffer));
  EXPECT_FALSE(canAllocate(planar(2, largestUInt), largestInt));
  EXPECT_FALSE(canAllocateFloat32(1, largestInt));
  EXPECT_FALSE(canAllocateFloat32(1'073'741'823, largestInt / 4));
}

// Step by step, in numbers so wide that nothing overflows.
TEST(PCMBufferAllocation, CanAllocateFollowsItsRuleAtEveryLimit) {
  const auto allowed = [](const AudioFormat& format, std::int64_t frames) {
    if (frames < 1 || frames > largestBuffer) return false;
    const long double perBuffer = static_cast<long double>(frames) * format.bytesPerFrame;
    return perBuffer <= 4294967295.0L && perBuffer * static_cast<long double>(format.bufferCount()) < 0x1p63L;
  };
  const std::int64_t frameCounts[] = {-1,
                                      0,
                                      1,
                                      2,
                                      65'535,
                                      65'536,
                                      536'870'911,
                                      536'870'912,
                                      715'827'882,
                                      715'827'883,
                                      1'073'741'823,
                                      1'073'741'824,
                                      2'147'483'647,
                                      2'147'483'648,
                                      largestBuffer,
                                      fourGiB,
                                      largestInt};
  const std::uint32_t counts[] = {0, 1, 2, 3, 4, 6, 8, 65'535, 65'536, 2'147'483'648, largestUInt};
  for (std::int64_t frames : frameCounts)
    for (std::uint32_t bytes : counts)
      for (std::uint32_t channels : counts)
        for (bool isInterleaved : {false, true}) {
          const AudioFormat format{48000, channels, isInterleaved, bytes};
          EXPECT_EQ(canAllocate(format, frames), allowed(format, frames))
              << frames << " frames of " << bytes << " bytes, " << channels << " channels";
        }
}

TEST(PCMBufferAllocation, FloatFramesStayBelowTwoToThe30) {
  EXPECT_FALSE(canAllocateFloat32(1'073'741'824, 1));
  EXPECT_TRUE(canAllocateFloat32(1'073'741'823, 1));
  EXPECT_TRUE(canAllocateFloat32(1, 1));
  EXPECT_FALSE(canAllocateFloat32(0, 1));
  EXPECT_FALSE(canAllocateFloat32(-5, 1));
  EXPECT_FALSE(canAllocateFloat32(largestInt, 1));
}

TEST(PCMBufferAllocation, FloatChannelsStartAtOne) {
  EXPECT_FALSE(canAllocateFloat32(1000, 0));
  EXPECT_FALSE(canAllocateFloat32(1000, -2));
  EXPECT_TRUE(canAllocateFloat32(1000, 1'000'000));
}

TEST(PCMBufferAllocation, FloatAudioBeyond4GiBInAllIsAllowed) {
  ASSERT_GT(totalBytes(planar(2), 1'073'741'823), fourGiB);
  ASSERT_LT(totalBytes(planar(2), 1'073'741'823), 2 * fourGiB);
  EXPECT_TRUE(canAllocateFloat32(1'073'741'823, 2));
}

// --- Making buffers --------------------------------------------------------------------------------------

TEST(PCMBufferAllocation, MadePlanarBufferIsZeroedMemoryPerChannel) {
  const AudioFormat format = AudioFormat::planarFloat(44100, 3);
  std::optional<PCMBuffer> made = make(format, 1000);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->format(), format);
  ASSERT_EQ(made->buffers().size(), 3u);
  for (std::size_t b = 0; b < 3; ++b) {
    EXPECT_EQ(made->buffers()[b].channelCount, 1u);
    EXPECT_EQ(made->buffers()[b].byteSize, 4000u);
    const std::span<float> samples = made->floats(b);
    ASSERT_EQ(samples.size(), 1000u);
    EXPECT_EQ(std::count(samples.begin(), samples.end(), 0.0f), 1000);
    std::fill(samples.begin(), samples.end(), static_cast<float>(b + 1));
  }
  const PCMBuffer& reader = *made;
  for (std::size_t b = 0; b < 3; ++b) {
    const std::span<const float> samples = reader.floats(b);
    EXPECT_EQ(std::count(samples.begin(), samples.end(), static_cast<float>(b + 1)), 1000);
  }
}

TEST(PCMBufferAllocation, MadeInterleavedBufferHoldsAllChannels) {
  const std::optional<PCMBuffer> made = make(interleaved(6, 24), 500);
  ASSERT_TRUE(made);
  ASSERT_EQ(made->buffers().size(), 1u);
  EXPECT_EQ(made->buffers()[0].channelCount, 6u);
  EXPECT_EQ(made->buffers()[0].byteSize, 12000u);
  EXPECT_EQ(made->floats(0).size(), 3000u);
}

TEST(PCMBufferAllocation, MakeIsAbsentForSizesThatCannotBe) {
  EXPECT_FALSE(make(planar(2), 0));
  EXPECT_FALSE(make(planar(2), 1'073'741'824));
  EXPECT_FALSE(make(interleaved(2, 8), 536'870'912));
  EXPECT_FALSE(make(planar(1, 2), largestUInt));
  EXPECT_FALSE(make(planar(largestUInt, 1), largestUInt));
}

TEST(PCMBuffer, CapacityIsWhatEveryBufferHasRoomFor) {
  EXPECT_EQ(make(planar(3), 1000)->frameCapacity(), 1000);
  EXPECT_EQ(make(interleaved(3, 12), 1000)->frameCapacity(), 1000);
  EXPECT_EQ(make(planar(1, 1), 5)->frameCapacity(), 5);
  EXPECT_EQ(makeUnbounded(planar(2), 2, 39)->frameCapacity(), 9);
  EXPECT_EQ(makeUnbounded(planar(2), 0, 40)->frameCapacity(), 0);
  EXPECT_EQ(makeUnbounded(planar(2, 0), 2, 40)->frameCapacity(), 0);
  std::vector<PCMBuffer::Buffer> buffers;
  for (const std::uint32_t byteSize : {40u, 20u, 60u}) buffers.push_back({1, byteSize, nullptr});
  EXPECT_EQ(PCMBuffer(planar(3), std::move(buffers)).frameCapacity(), 5);
}

TEST(PCMBuffer, ANewBufferHoldsNoFramesUntilTold) {
  std::optional<PCMBuffer> made = make(planar(2), 10);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->frameLength(), 0);
  for (const std::int64_t frames : {10, 0, 7}) {
    made->setFrameLength(frames);
    EXPECT_EQ(made->frameLength(), frames);
  }
}

TEST(PCMBuffer, AFrameLengthOutsideOfTheCapacityStopsTheProgram) {
  std::optional<PCMBuffer> made = make(planar(2), 10);
  ASSERT_TRUE(made);
  EXPECT_DEATH(made->setFrameLength(11), "frameLength must be 0 to frameCapacity");
  EXPECT_DEATH(made->setFrameLength(-1), "frameLength must be 0 to frameCapacity");
}

TEST(PCMBuffer, FloatChannelsOfPlanarAudioAreItsBuffers) {
  std::optional<PCMBuffer> made = make(planar(3), 10);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->stride(), 1);
  const auto channels = made->floatChannelData();
  ASSERT_TRUE(channels);
  ASSERT_EQ(channels->size(), 3u);
  for (std::size_t c = 0; c < 3; ++c) {
    EXPECT_EQ((*channels)[c], made->floats(c).data());
    EXPECT_EQ((*std::as_const(*made).floatChannelData())[c], made->floats(c).data());
  }
}

TEST(PCMBuffer, FloatChannelsOfInterleavedAudioAreOneSampleApart) {
  std::optional<PCMBuffer> made = make(interleaved(3, 12), 10);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->stride(), 3);
  const auto channels = made->floatChannelData();
  ASSERT_TRUE(channels);
  ASSERT_EQ(channels->size(), 3u);
  for (std::size_t c = 0; c < 3; ++c) EXPECT_EQ((*channels)[c], made->floats(0).data() + c);
}

TEST(PCMBuffer, BuffersThatAreNoFloatFramesHaveNoFloatChannels) {
  EXPECT_FALSE(make(planar(2, 2), 10)->floatChannelData());
  EXPECT_FALSE(make(planar(2, 8), 10)->floatChannelData());
  EXPECT_FALSE(make(interleaved(2, 4), 10)->floatChannelData());
  EXPECT_FALSE(make(interleaved(2, 16), 10)->floatChannelData());
  EXPECT_FALSE(makeUnbounded(planar(2), 3, 40)->floatChannelData());
  EXPECT_FALSE(makeUnbounded(planar(2), 1, 40)->floatChannelData());
  EXPECT_FALSE(makeUnbounded(interleaved(2, 8), 2, 40)->floatChannelData());
}

// 1,025 buffers of 4 MiB. Memory that nobody touches is not taken from the machine.
TEST(PCMBufferAllocation, MakesMoreThan4GiBInAll) {
  std::optional<PCMBuffer> made = make(planar(1025), 1'048'576);
  ASSERT_TRUE(made);
  ASSERT_EQ(made->buffers().size(), 1025u);
  ASSERT_GT(totalBytes(planar(1025), 1'048'576), fourGiB);
  const std::span<float> last = made->floats(1024);
  ASSERT_EQ(last.size(), 1'048'576u);
  EXPECT_EQ(last.back(), 0.0f);
  last.back() = 1.0f;
  EXPECT_EQ(made->floats(1023).back(), 0.0f);
}

TEST(PCMBufferAllocation, UnboundedListTakesItsCountAndSizeFromTheCaller) {
  std::optional<PCMBuffer> made = makeUnbounded(planar(2), 5, 12);
  ASSERT_TRUE(made);
  ASSERT_EQ(made->buffers().size(), 5u);
  for (std::size_t b = 0; b < 5; ++b) {
    EXPECT_EQ(made->buffers()[b].channelCount, 1u);
    EXPECT_EQ(made->buffers()[b].byteSize, 12u);
    EXPECT_EQ(made->floats(b).size(), 3u);
  }
  made = makeUnbounded(interleaved(7, 28), 2, 28);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->buffers()[1].channelCount, 7u);
}

TEST(PCMBufferAllocation, EmptyListsAndEmptyBuffersArePresent) {
  const std::optional<PCMBuffer> noBuffers = makeUnbounded(planar(2), 0, 1000);
  ASSERT_TRUE(noBuffers);
  EXPECT_TRUE(noBuffers->buffers().empty());
  const std::optional<PCMBuffer> noBytes = makeUnbounded(planar(2), 3, 0);
  ASSERT_TRUE(noBytes);
  ASSERT_EQ(noBytes->buffers().size(), 3u);
  EXPECT_TRUE(noBytes->floats(2).empty());
}

TEST(PCMBufferAllocation, UnboundedCountsBeyondTheirFieldsStopTheProgram) {
  EXPECT_DEATH(makeUnbounded(planar(1), 1, fourGiB), "makeUnbounded");
  EXPECT_DEATH(makeUnbounded(planar(1), 1, -1), "makeUnbounded");
  EXPECT_DEATH(makeUnbounded(planar(1), -1, 4), "makeUnbounded");
}

TEST(PCMBufferAllocation, BufferOutsideTheListStopsTheProgram) {
  std::optional<PCMBuffer> made = make(planar(2), 10);
  ASSERT_TRUE(made);
  EXPECT_DEATH(made->floats(2), "no such buffer");
  EXPECT_DEATH(std::as_const(*made).floats(2), "no such buffer");
}

TEST(PCMBufferAllocation, MemoryExhaustedAtOnceIsAbsent) {
  const MemoryLimit limit(std::int64_t{1} << 30);
  ASSERT_TRUE(limit.isSet());
  EXPECT_FALSE(makeUnbounded(planar(1), 1, largestBuffer));
  EXPECT_FALSE(make(planar(4), 1'073'741'823));
}

// Half-way through the list memory runs out. What was allocated until then goes back: it can be had again.
TEST(PCMBufferAllocation, MemoryExhaustedHalfWayIsGivenBack) {
  constexpr std::int64_t mebibyte = 1 << 20;
  const MemoryLimit limit(1024 * mebibyte);
  ASSERT_TRUE(limit.isSet());
  for (int attempt = 0; attempt < 3; ++attempt) {
    EXPECT_FALSE(makeUnbounded(planar(32), 32, 64 * mebibyte)) << "attempt " << attempt;
    EXPECT_TRUE(makeUnbounded(planar(8), 8, 64 * mebibyte)) << "attempt " << attempt;
  }
}

// A list so long that its entries alone have no room.
TEST(PCMBufferAllocation, ListOfMoreBuffersThanMemoryIsAbsent) {
  const MemoryLimit limit(std::int64_t{1} << 30);
  ASSERT_TRUE(limit.isSet());
  EXPECT_FALSE(makeUnbounded(planar(1), largestInt, 0));
}

// --- The setting -----------------------------------------------------------------------------------------

TEST(PCMBufferAllocation, MaxBytesPerBufferIsASettingThatNoOperationReads) {
  ASSERT_EQ(maxBytesPerBuffer, largestBuffer);
  for (std::int64_t setting : {std::int64_t{0}, std::int64_t{100}, largestInt}) {
    maxBytesPerBuffer = setting;
    EXPECT_EQ(maxBytesPerBuffer, setting);
    EXPECT_EQ(totalBytes(planar(2), 1000), 8000);
    EXPECT_TRUE(canAllocate(planar(2), 1'073'741'823));
    EXPECT_FALSE(canAllocate(planar(2), 1'073'741'824));
    EXPECT_TRUE(canAllocateFloat32(1'073'741'823, 2));
    EXPECT_TRUE(make(planar(2), 1000));
    EXPECT_TRUE(makeUnbounded(planar(2), 2, 4000));
  }
  maxBytesPerBuffer = largestBuffer;
}

}  // namespace
}  // namespace vellum
