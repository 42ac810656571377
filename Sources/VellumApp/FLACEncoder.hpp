#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "VellumApp/AudioFileFormat.hpp"
#include "VellumApp/AudioMetadata.hpp"
#include "VellumApp/OutputFile.hpp"

namespace vellum {

// Encodes integers into a FLAC file, with metadata blocks of one's own.
// Life: construct, write*, finish once. Everything throws FileError.
class FLACEncoder {
 public:
  struct Settings {
    OutputFile& file;  // empty; outlives the encoder
    SampleCoding coding;
    std::int64_t sampleRate, channelCount;
    std::span<const AudioMetadata::Chunk> blocks;
  };
  explicit FLACEncoder(const Settings& settings);
  ~FLACEncoder();

  // Whether the encoder takes a rate: some high ones are not in FLAC's frame headers.
  static bool takesSampleRate(std::int64_t sampleRate);

  // Interleaved integers of the coding's width; the call may change them.
  void write(std::span<std::int32_t> samples);
  void finish();

 private:
  struct Stream;
  std::unique_ptr<Stream> stream_;
};

}  // namespace vellum
