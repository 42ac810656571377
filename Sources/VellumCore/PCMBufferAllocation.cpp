#include "VellumCore/PCMBufferAllocation.hpp"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <limits>

#include "VellumCore/Support/Require.hpp"

namespace vellum {

void PCMBuffer::Buffer::Free::operator()(void* memory) const {
  std::free(memory);
}

std::int64_t PCMBuffer::frameCapacity() const {
  if (buffers_.empty() || format_.bytesPerFrame == 0) return 0;
  const auto isSmaller = [](const Buffer& a, const Buffer& b) { return a.byteSize < b.byteSize; };
  return std::min_element(buffers_.begin(), buffers_.end(), isSmaller)->byteSize / format_.bytesPerFrame;
}

void PCMBuffer::setFrameLength(std::int64_t frameLength) {
  VELLUM_REQUIRE(frameLength >= 0 && frameLength <= frameCapacity(),
                 "PCMBuffer: frameLength must be 0 to frameCapacity");
  frameLength_ = frameLength;
}

std::span<float> PCMBuffer::floats(std::size_t buffer) {
  VELLUM_REQUIRE(buffer < buffers_.size(), "PCMBuffer: no such buffer");
  return {static_cast<float*>(buffers_[buffer].data.get()), buffers_[buffer].byteSize / sizeof(float)};
}

std::span<const float> PCMBuffer::floats(std::size_t buffer) const {
  VELLUM_REQUIRE(buffer < buffers_.size(), "PCMBuffer: no such buffer");
  return {static_cast<const float*>(buffers_[buffer].data.get()), buffers_[buffer].byteSize / sizeof(float)};
}

std::optional<std::vector<float*>> PCMBuffer::floatChannelData() {
  const auto readable = std::as_const(*this).floatChannelData();
  if (!readable) return {};
  std::vector<float*> channels;
  for (const float* channel : *readable) channels.push_back(const_cast<float*>(channel));  // our own memory
  return channels;
}

std::optional<std::vector<const float*>> PCMBuffer::floatChannelData() const {
  if (format_.bytesPerFrame != stride() * std::int64_t{sizeof(float)} ||
      static_cast<std::int64_t>(buffers_.size()) != format_.bufferCount())
    return {};
  std::vector<const float*> channels;
  for (std::size_t c = 0; c < format_.channelCount; ++c)
    channels.push_back(format_.isInterleaved ? floats(0).data() + c : floats(c).data());
  return channels;
}

namespace PCMBufferAllocation {

namespace {

constexpr std::int64_t byteLimit =
    std::numeric_limits<std::uint32_t>::max();  // of one buffer, and of a frame count
constexpr std::int64_t beyondOneBuffer = byteLimit + 1;

// Buffers of more than 4 GiB in all are lists of separate blocks here: every platform can hold them.
constexpr bool supportsBufferLists = true;

std::optional<std::int64_t> product(std::int64_t a, std::int64_t b) {
  std::int64_t result;
  if (__builtin_mul_overflow(a, b, &result)) return std::nullopt;
  return result;
}

std::optional<std::int64_t> product(std::int64_t a, std::int64_t b, std::int64_t c) {
  const std::optional<std::int64_t> first = product(a, b);
  return first ? product(*first, c) : std::nullopt;
}

bool canHold(std::optional<std::int64_t> total) {
  if (!total) return false;
  return *total >= beyondOneBuffer ? supportsBufferLists : true;
}

}  // namespace

std::int64_t maxBytesPerBuffer = byteLimit;

std::int64_t totalBytes(const AudioFormat& format, std::int64_t frames) {
  const auto total = product(frames, format.bytesPerFrame, format.bufferCount());
  VELLUM_REQUIRE(total, "PCMBufferAllocation: totalBytes exceeds 64 bits");
  return *total;
}

bool canAllocate(const AudioFormat& format, std::int64_t frames) {
  if (frames < 1 || frames > byteLimit) return false;
  const auto perBuffer = product(frames, format.bytesPerFrame);
  if (!perBuffer || *perBuffer > byteLimit) return false;
  return canHold(product(*perBuffer, format.bufferCount()));
}

bool canAllocateFloat32(std::int64_t frames, std::int64_t channelCount) {
  constexpr std::int64_t frameLimit = std::int64_t{1} << 30;
  if (frames < 1 || frames >= frameLimit || channelCount < 1) return false;
  return canHold(product(frames, sizeof(float), channelCount));
}

std::optional<PCMBuffer> make(const AudioFormat& format, std::uint32_t frameCapacity) {
  if (!canAllocate(format, frameCapacity)) return std::nullopt;
  return makeUnbounded(format, format.bufferCount(), std::int64_t{format.bytesPerFrame} * frameCapacity);
}

std::optional<PCMBuffer> makeUnbounded(const AudioFormat& format, std::int64_t bufferCount,
                                       std::int64_t bytesPerBuffer) {
  VELLUM_REQUIRE(bufferCount >= 0 && bytesPerBuffer >= 0 && bytesPerBuffer <= byteLimit,
                 "PCMBufferAllocation: makeUnbounded takes 0 buffers or more, of 0 to 4,294,967,295 bytes");
  std::vector<PCMBuffer::Buffer> buffers;
  try {
    buffers.reserve(static_cast<std::size_t>(bufferCount));
  } catch (const std::exception&) {  // length_error or bad_alloc: the list alone has no room
    return std::nullopt;
  }
  for (std::int64_t b = 0; b < bufferCount; ++b) {
    // One byte at least: an empty block may come back as a null pointer without being a failure.
    void* memory = std::calloc(bytesPerBuffer > 0 ? static_cast<std::size_t>(bytesPerBuffer) : 1, 1);
    if (!memory) return std::nullopt;  // what was allocated goes with `buffers`
    buffers.push_back({format.isInterleaved ? format.channelCount : 1,
                       static_cast<std::uint32_t>(bytesPerBuffer),
                       std::unique_ptr<void, PCMBuffer::Buffer::Free>(memory)});
  }
  return PCMBuffer(format, std::move(buffers));
}

}  // namespace PCMBufferAllocation
}  // namespace vellum
