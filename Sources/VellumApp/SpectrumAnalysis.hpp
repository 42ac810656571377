#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "VellumApp/FileMeasurement.hpp"
#include "VellumCore/FFTWindowType.hpp"
#include "VellumCore/Support/PowerOfTwo.hpp"

// The spectrum of a file's section: the average over time, and the highest level that each frequency came to.
//
// Levels are those of sines: a full-scale sine reads 0 dB. Frames of fftSize samples start every quarter of
// that (75 %, at which every window but the flat top weighs all moments alike); only whole ones count, so
// that a section's last quarter may go unseen. A section shorter than one frame is padded with silence and
// reads low, which a warning says. Of several channels, each frame's spectrum is the average of their powers.
namespace vellum {

struct SpectrumSettings {
  std::optional<double> fromSec, toSec;
  FFTWindowType window;
  std::optional<std::int64_t> fftSize;  // a power of two, leastFFTSize to mostFFTSize; absent: by sample rate
  std::vector<std::int64_t> channels;   // from 0; empty: all
};

constexpr std::int64_t leastFFTSize = 16, mostFFTSize = 1 << 20;
constexpr bool isFFTSize(std::int64_t size) {
  return size >= leastFFTSize && size <= mostFFTSize && isPowerOfTwo(size);
}

// The transform that a third of a second fits in: 16,384 at 48 kHz.
std::int64_t spectrumFFTSize(double sampleRate);

// A third of an octave (IEC 61260-1): centres at 1 kHz x 10^(n / 10), edges half a band beside them. Its
// level is that of a sine of the same power, whatever the window.
struct SpectrumBand {
  double nominalHz;  // 31.5, 1000: the centre's name
  double centreHz, lowHz, highHz;
  double averageDB, peakDB;
};

struct FileSpectrum {
  std::string formatName;
  double sampleRate;  // Hz
  std::int64_t channelCount;
  std::vector<std::int64_t> channels;  // that were looked at, from 0
  double fromSec, toSec;
  FFTWindowType window;
  std::int64_t fftSize;
  std::int64_t frameCount;               // frames that count
  double noiseBandwidthHz;               // of a bin
  std::vector<float> averageDB, peakDB;  // of bins 0 to fftSize / 2; -infinity for digital silence
  std::vector<SpectrumBand>
      bands;  // those below half the sample rate that are at least as wide as a bin's noise
  std::vector<std::string> warnings;

  double frequency(std::int64_t bin) const {
    return sampleRate * static_cast<double>(bin) / static_cast<double>(fftSize);
  }
};

// Streams through the section; memory does not depend on its length. Absent: `goOn` answered false.
// Throws FileError: whatever AudioFile throws, a channel that is not there, an empty section.
std::optional<FileSpectrum> analyseSpectrum(const std::filesystem::path& path,
                                            const SpectrumSettings& settings,
                                            const std::function<bool(const MeasureProgress&)>& goOn);

}  // namespace vellum
