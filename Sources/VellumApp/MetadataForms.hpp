#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "VellumApp/AudioFileFormat.hpp"
#include "VellumApp/AudioMetadata.hpp"

// How each family of audio files spells what AudioMetadata holds.
namespace vellum::MetadataForms {

// All that the chunks of an open file say. Leaves the descriptor's position alone; a damaged file says less.
AudioMetadata read(int descriptor, AudioMetadata::Family family);

// The chunks to write into a file of a container, in their order, and what it cannot hold.
struct Spelling {
  std::vector<AudioMetadata::Chunk> chunks;
  std::vector<std::string> losses;
};
Spelling spell(const AudioMetadata& metadata, Container container);

// FLAC's metadata block of tags.
struct VorbisComments {
  std::string vendor;
  std::vector<std::string> entries;  // "TITLE=..."
};
constexpr std::string_view vorbisCommentBlock = "4";
VorbisComments vorbisCommentsOf(std::string_view bytes);
std::string bytesOf(const VorbisComments& comments);

}  // namespace vellum::MetadataForms
