#pragma once

#include <cstdint>

namespace vellum {

// Samples lower ... upper - 1.
struct SampleRange {
  std::int64_t lower, upper;
  friend bool operator==(const SampleRange&, const SampleRange&) = default;
};

// The geometry of a short-time Fourier transform: frames of fftSize samples that start every hop(), and what
// their columns and bins mean in samples and Hz. A plain value.
struct SpectralGridConfig {
  std::int64_t fftSize;  // N, a power of two
  double sampleRate;     // Hz, above 0

  // Anything else stops the program.
  SpectralGridConfig(std::int64_t fftSize, double sampleRate);

  std::int64_t hop() const { return fftSize / 4; }  // 75 % overlap; 0 where N is below 4
  std::int64_t binCount() const { return fftSize / 2 + 1; }

  // The nearest bin (halves away from zero), 0 to N / 2. A frequency that is not finite, or whose product
  // with N is not, stops the program.
  std::int64_t bin(double forFrequency) const;
  double frequency(std::int64_t forBin) const;  // Hz

  // The last column that starts at or before a sample; towards 0 before the signal's start. An N below 4 has
  // no columns, and stops the program.
  std::int64_t column(std::int64_t forSample) const;
  // Columns up to 2^62 / N to either side; others stop the program.
  SampleRange sampleRange(std::int64_t forColumn) const;

  // Whole frames in a signal of this length. An N below 4 stops the program unless there are none.
  std::int64_t columnCount(std::int64_t forSampleCount) const;

  friend bool operator==(const SpectralGridConfig&, const SpectralGridConfig&) = default;
};

}  // namespace vellum
