#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vellum {

enum class AudioTag {
  title,
  artist,
  album,
  date,
  comment,
  genre,
  trackNumber,
  copyright,
  license,
  software,
};

// What a file says about its audio, beside the format.
struct AudioMetadata {
  struct Marker {
    std::int64_t frame;
    std::string name;
    friend bool operator==(const Marker&, const Marker&) = default;
  };
  // Files of one family spell everything alike; other families cannot read their chunks.
  enum class Family { none, riff, aiff, caf, flac };
  struct Chunk {
    std::string id;  // 4 characters; of FLAC the number of the metadata block's type
    std::string bytes;
    friend bool operator==(const Chunk&, const Chunk&) = default;
  };

  std::map<AudioTag, std::string> tags;
  std::string bext;             // the Broadcast Wave extension as it stands (EBU Tech 3285); empty: none
  std::vector<Marker> markers;  // in the file's order
  // Everything else, as the file has it. The file's own forms of tags and markers are here too, because they
  // hold more than the fields above; a file of the same family gets them back unless the fields were changed.
  Family family = Family::none;
  std::vector<Chunk> chunks;
  std::vector<std::string> omissions;  // what was too large or too damaged to be carried, in words for people

  friend bool operator==(const AudioMetadata&, const AudioMetadata&) = default;
};

// Takes out what describes the level of the samples and is wrong after a gain or a limiter: the loudness
// fields of `bext` and playback gains among the tags.
void clearLoudness(AudioMetadata& metadata);

}  // namespace vellum
