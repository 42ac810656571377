#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "VellumApp/FileMeasurement.hpp"
#include "VellumApp/FrequencyScale.hpp"

namespace vellum {

struct SpectrogramSettings {
  std::optional<double> fromSec, toSec;
  FrequencyScale scale;
  std::optional<std::int64_t> fftSize;  // a power of two, leastFFTSize to mostFFTSize; absent: by sample rate
  std::vector<std::int64_t> channels;   // from 0; empty: all
  std::int64_t width, height;           // of the picture, at least 1
};

// The transform that a thirtieth of a second fits in: 2,048 at 48 kHz.
std::int64_t spectrogramFFTSize(double sampleRate);

// Levels over time and frequency at the resolution of a picture.
//
// A full-scale sine reads 0 dB. Frames under a Hann window start at least every quarter of their length and
// at least once per column; a point shows the highest level of all frames and bins that it stands for, so
// that nothing short or narrow is lost however long the file, and between bins what lies between them. Around
// the section, frames see what the file holds there. Of several channels it is the average of their powers.
struct SpectrogramImage {
  std::string formatName;
  double sampleRate;  // Hz
  std::int64_t channelCount;
  std::vector<std::int64_t> channels;  // that were looked at, from 0
  double fromSec, toSec;
  FrequencyAxis axis;
  std::int64_t fftSize;
  std::int64_t width, height;
  std::vector<float>
      levels;  // dB, at least -200; rows from the highest frequency, each from the earliest time
  std::vector<std::string> warnings;

  float level(std::int64_t column, std::int64_t row) const {
    return levels[static_cast<std::size_t>(row * width + column)];
  }
};

// Streams through the section: memory depends on the picture and the transform only. Absent: `goOn` answered
// false. Throws FileError: whatever AudioFile throws, a channel that is not there, an empty section.
std::optional<SpectrogramImage> renderSpectrogram(const std::filesystem::path& path,
                                                  const SpectrogramSettings& settings,
                                                  const std::function<bool(const MeasureProgress&)>& goOn);

}  // namespace vellum
