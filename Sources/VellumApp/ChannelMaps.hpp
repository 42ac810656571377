#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "VellumCore/AudioChannelLayout.hpp"

// How files say which channel is where: one label per channel, empty where a file does not tell.
namespace vellum::ChannelMaps {

using Labels = std::vector<AudioChannelLabel>;

// The order that a format fixes for each channel count; empty for a count without one.
Labels flacOrder(std::int64_t channelCount);
Labels vorbisOrder(std::int64_t channelCount);  // Ogg Vorbis and Opus

// Whether labels tell the channels apart: none that names no place, and none twice. A file's map that fails
// this counts as none.
bool isMap(std::span<const AudioChannelLabel> labels);

// Labels from the content of an AIFF file's CHAN chunk or a CAF file's chan chunk: a layout tag, a bitmap, or
// one description per channel. Empty where it is cut short, speaks of another number of channels, or holds no
// map. Only the first channelChunkBytes() are looked at.
Labels labelsOfChannelChunk(std::string_view bytes, std::int64_t channelCount);
std::size_t channelChunkBytes(std::int64_t channelCount);

}  // namespace vellum::ChannelMaps
