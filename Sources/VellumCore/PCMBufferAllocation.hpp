#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "VellumCore/AudioChannelLayout.hpp"

namespace vellum {

// How PCM audio lies in memory. Planar audio has one buffer per channel, interleaved audio one in all.
struct AudioFormat {
  double sampleRate;  // Hz
  std::uint32_t channelCount;
  bool isInterleaved;
  std::uint32_t bytesPerFrame;  // of one buffer
  std::optional<AudioChannelLayout> channelLayout = {};

  // The standard format: 32-bit float samples, one buffer per channel.
  static AudioFormat planarFloat(double sampleRate, std::uint32_t channelCount,
                                 std::optional<AudioChannelLayout> channelLayout = {}) {
    return {sampleRate, channelCount, false, sizeof(float), std::move(channelLayout)};
  }

  std::int64_t bufferCount() const { return isInterleaved ? 1 : channelCount; }
  friend bool operator==(const AudioFormat&, const AudioFormat&) = default;
};

// PCM audio of one format in zeroed memory. Its buffers may exceed 4 GiB together, not one by one. Of the
// frames that it has room for, the first frameLength() are audio; a new buffer has none.
class PCMBuffer {
 public:
  struct Buffer {
    std::uint32_t channelCount;  // in this buffer
    std::uint32_t byteSize;
    struct Free {
      void operator()(void* memory) const;
    };
    std::unique_ptr<void, Free> data;
  };

  PCMBuffer(AudioFormat format, std::vector<Buffer> buffers)
      : format_(std::move(format)), buffers_(std::move(buffers)) {}

  const AudioFormat& format() const { return format_; }
  std::span<const Buffer> buffers() const { return buffers_; }

  std::int64_t frameCapacity() const;  // whole frames that every buffer has room for
  std::int64_t frameLength() const { return frameLength_; }
  void setFrameLength(std::int64_t frameLength);  // 0 to frameCapacity()

  // The samples of one buffer, as 32-bit floats.
  std::span<float> floats(std::size_t buffer);
  std::span<const float> floats(std::size_t buffer) const;

  // Where each channel's first sample is; the following ones are stride() samples apart. Absent where the
  // buffers do not hold one 32-bit float per channel and frame, or are not as many as the format has.
  std::optional<std::vector<float*>> floatChannelData();
  std::optional<std::vector<const float*>> floatChannelData() const;
  std::int64_t stride() const { return format_.isInterleaved ? format_.channelCount : 1; }

 private:
  AudioFormat format_;
  std::vector<Buffer> buffers_;
  std::int64_t frameLength_ = 0;
};

// Whether a PCM buffer of a given length can be made, and making it. Sizes follow the audio buffer with a
// 32-bit byte count that most platforms share.
namespace PCMBufferAllocation {

// Largest byte count of one buffer that callers plan with: a setting of theirs, which no operation here
// reads. The arithmetic below always uses 4,294,967,295.
extern std::int64_t maxBytesPerBuffer;

// frames x bytes per frame x buffers. A product beyond 64 bits stops the program.
std::int64_t totalBytes(const AudioFormat& format, std::int64_t frames);

// Whether 1 to 4,294,967,295 frames of the format fit buffers of 4,294,967,295 bytes. A whole beyond 64 bits
// does not.
bool canAllocate(const AudioFormat& format, std::int64_t frames);

// Whether 1 to 2^30 - 1 frames of planar 32-bit float audio can be held, for one channel or more. A whole
// beyond 64 bits cannot.
bool canAllocateFloat32(std::int64_t frames, std::int64_t channelCount);

// A zeroed buffer of frameCapacity frames; absent where canAllocate is false, or when memory is exhausted.
std::optional<PCMBuffer> make(const AudioFormat& format, std::uint32_t frameCapacity);

// A zeroed buffer list of a caller's own count and size, without make()'s limits on the whole. Absent when
// memory is exhausted; a negative count or size, or a size above 32 bits, stops the program.
std::optional<PCMBuffer> makeUnbounded(const AudioFormat& format, std::int64_t bufferCount,
                                       std::int64_t bytesPerBuffer);

}  // namespace PCMBufferAllocation
}  // namespace vellum
