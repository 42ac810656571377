#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace vellum {

// Kinds of audio file that can be written.
//   wav   becomes RF64 by itself where 32-bit sizes do not suffice (4 GiB)
//   rf64  RF64 at every size
//   aiff  AIFC where the samples are floating
enum class Container { wav, rf64, aiff, caf, flac };
enum class SampleCoding { pcm16, pcm24, float32 };

struct AudioFileFormat {
  Container container;
  SampleCoding coding;
  friend bool operator==(const AudioFileFormat&, const AudioFileFormat&) = default;
};

// "WAV 24-bit", "CAF 32-bit float": the words of AudioFile::formatName().
std::string nameOf(const AudioFileFormat& format);
std::string_view nameOf(Container container);  // "WAV"

// Width of the integers, in bits; 0 where samples are floating.
std::int64_t integerBits(SampleCoding coding);
std::int64_t bytesPerSample(SampleCoding coding);

// By .wav .wave .bwf .rf64 .aif .aiff .aifc .caf .flac, in either case.
std::optional<Container> containerOfExtension(const std::filesystem::path& path);

}  // namespace vellum
