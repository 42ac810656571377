#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VellumApp/AudioFileFormat.hpp"
#include "VellumApp/AudioMetadata.hpp"
#include "VellumApp/FileBytes.hpp"
#include "VellumCore/ChannelOrder.hpp"

namespace vellum {

// The bytes around the interleaved samples of a WAV, RF64, AIFF or CAF file.
struct ContainerLayout {
  struct Settings {
    AudioFileFormat format;  // not FLAC; WAV has to fit into 32-bit sizes
    std::int64_t sampleRate, channelCount, frameCount;
    std::span<const AudioChannelLabel> labels;  // empty: unknown
    std::span<const AudioMetadata::Chunk> chunks;
  };
  std::string head, tail;  // the head's length does not depend on frameCount

  static ContainerLayout of(const Settings& settings);
};

// The largest size of a whole file whose header has 32-bit sizes.
constexpr std::int64_t largest32BitFile = std::int64_t{0xFFFFFFFF} + 8;
// No header without metadata is larger.
constexpr std::int64_t mostHeadBytes = 4096;

ByteOrder sampleOrder(Container container);

// The speaker mask of WAV files: one bit for each channel, in the order of the channels. Absent where there
// is no such mask.
std::optional<std::uint32_t> speakerMask(std::span<const AudioChannelLabel> labels);

}  // namespace vellum
