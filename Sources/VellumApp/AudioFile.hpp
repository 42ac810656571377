#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VellumApp/AudioFileFormat.hpp"
#include "VellumApp/AudioMetadata.hpp"
#include "VellumApp/FileError.hpp"
#include "VellumCore/ChannelOrder.hpp"

namespace vellum {

// An audio file open for reading, as planar 32-bit float with full scale at 1: WAV, RF64, W64, AIFF, CAF,
// FLAC, Ogg Vorbis, Opus, MP3.
// Life: construct, (read | seekTo)* until read returns 0, then endWarning. One thread at a time; different
// files are independent.
// Memory does not depend on the file's length, nor on the length that it claims.
// Everything throws FileError: there is no such file, or it may not be read, holds no audio that can be
// read here, or is damaged.
class AudioFile {
 public:
  explicit AudioFile(const std::filesystem::path& path);
  ~AudioFile();
  AudioFile(AudioFile&&) noexcept;
  AudioFile& operator=(AudioFile&&) noexcept;

  double sampleRate() const;  // Hz, 5 to 1,000,000
  std::int64_t channelCount() const;
  const std::string& formatName() const;  // "WAV 24-bit", "Ogg Vorbis"
  // Frames by the file's header: only a claim. Absent where the header does not tell.
  std::optional<std::int64_t> claimedFrameCount() const;
  // One label per channel in the file's order; empty where the file does not tell.
  const std::vector<AudioChannelLabel>& channelLabels() const;
  bool isLossy() const;
  // Width of the file's integers where read() gives them exactly, as integer / 2^(bits-1): 8, 16 or 24. 0
  // where samples are floating, lossy, or wider than a 32-bit float holds.
  std::int64_t integerBits() const;
  // The format to write that keeps the samples as read() gives them: 8-bit becomes 16-bit; 32-bit integers
  // and 64-bit floats become 32-bit floats; W64 becomes WAV; ALAC becomes PCM. Absent for lossy files.
  std::optional<AudioFileFormat> writableFormat() const;
  // Tags, markers and whatever else the file carries along. Does not move position().
  AudioMetadata metadata() const;

  // Decodes the next frames into one buffer per channel, each with room for frameCount; a null buffer drops
  // its channel. Returns how many frames there were; 0 is the end. What stands before damage is returned
  // first, the next call throws.
  std::int64_t read(std::span<float* const> channelData, std::int64_t frameCount);

  // Frames from the start to the next one read.
  std::int64_t position() const;

  // Makes `frame` the next one read, to the sample; past the end, the end. Lossy files are decoded up to it,
  // because a decoder that starts in the middle gives other samples. `goOn` is asked now and then meanwhile:
  // once it answers false, the position is anywhere and the result is false.
  bool seekTo(
      std::int64_t frame, const std::function<bool()>& goOn = [] { return true; });

  // After read returned 0: why the audio may be less than what its maker meant to keep.
  const std::optional<std::string>& endWarning() const;

 private:
  struct Decoder;
  std::unique_ptr<Decoder> decoder_;
};

}  // namespace vellum
