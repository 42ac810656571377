#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VellumApp/AudioFileFormat.hpp"
#include "VellumApp/AudioMetadata.hpp"
#include "VellumApp/FileError.hpp"
#include "VellumApp/OutputFile.hpp"
#include "VellumCore/ChannelOrder.hpp"

namespace vellum {

// Why a format cannot take this audio, as the rest of "song.flac: "; absent where it can.
//   labels  one per channel, or none at all: unknown. A file must read back with the same loudness weights.
std::optional<std::string> reasonAgainst(const AudioFileFormat& format, double sampleRate,
                                         std::int64_t channelCount, std::int64_t frameCount,
                                         std::span<const AudioChannelLabel> labels);

// An audio file that appears whole or not at all, from planar 32-bit float with full scale at 1.
// Equal calls give files that are equal to the byte.
// Life: construct, write*, finish, commit; one thread at a time. Without commit() nothing is left behind.
// Memory does not depend on the length. Everything throws FileError.
class AudioFileWriter {
 public:
  struct Settings {
    OutputFile::Settings output;
    AudioFileFormat format;
    double sampleRate;  // whole Hz
    std::int64_t channelCount;
    std::vector<AudioChannelLabel> channelLabels;  // in the order of the channels; empty: unknown
    std::int64_t frameCount;                       // that will be written
    AudioMetadata metadata;
  };
  // Refuses all that can be refused before anything is rendered: the place, the format, too little space.
  explicit AudioFileWriter(const Settings& settings);
  ~AudioFileWriter();
  AudioFileWriter(AudioFileWriter&&) noexcept;
  AudioFileWriter& operator=(AudioFileWriter&&) noexcept;

  // One pointer per channel. Samples on the integers' grid (SampleQuantiser) and floats are written to the
  // bit; others go to the nearest integer, clamped.
  void write(std::span<const float* const> channelData, std::int64_t frameCount);

  // The file is complete, and can be read as temporaryPath() with AudioFile in this process.
  void finish();
  const std::filesystem::path& temporaryPath() const;

  // Gives the file its name. After finish().
  void commit();

  // What the file cannot hold, in words for people: "FLAC keeps no markers: 3 are lost".
  const std::vector<std::string>& losses() const;

 private:
  struct Encoder;
  std::unique_ptr<Encoder> encoder_;
};

}  // namespace vellum
