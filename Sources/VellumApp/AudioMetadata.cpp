#include "VellumApp/AudioMetadata.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include "VellumApp/FileBytes.hpp"
#include "VellumApp/MetadataForms.hpp"

namespace vellum {
namespace {

// EBU Tech 3285: five 16-bit figures from version 2 on, 0x7FFF where there is none.
void clearBextLoudness(std::string& bext) {
  constexpr std::size_t versionAt = 346, loudnessAt = 412, loudnessBytes = 10;
  if (bext.size() < loudnessAt + loudnessBytes || numberAt(bext, versionAt, 2, ByteOrder::little) < 2) return;
  for (std::size_t k = 0; k < loudnessBytes; ++k) bext[loudnessAt + k] = k % 2 == 0 ? '\xFF' : '\x7F';
}

bool isPlaybackGain(const std::string& entry) {
  constexpr std::array<std::string_view, 2> starts = {"REPLAYGAIN_", "R128_"};
  return std::any_of(starts.begin(), starts.end(), [&](std::string_view start) {
    return entry.size() > start.size() &&
           std::equal(start.begin(), start.end(), entry.begin(), [](char capital, char letter) {
             return letter == capital || (letter >= 'a' && letter <= 'z' && letter - 'a' + 'A' == capital);
           });
  });
}

}  // namespace

void clearLoudness(AudioMetadata& metadata) {
  clearBextLoudness(metadata.bext);
  if (metadata.family != AudioMetadata::Family::flac) return;
  for (AudioMetadata::Chunk& chunk : metadata.chunks) {
    if (chunk.id != MetadataForms::vorbisCommentBlock) continue;
    MetadataForms::VorbisComments comments = MetadataForms::vorbisCommentsOf(chunk.bytes);
    if (std::erase_if(comments.entries, isPlaybackGain) > 0) chunk.bytes = MetadataForms::bytesOf(comments);
  }
}

}  // namespace vellum
