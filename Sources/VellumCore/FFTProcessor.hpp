#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "VellumCore/FFTWindowType.hpp"
#include "VellumCore/PowerSpectrum.hpp"

namespace vellum {

// The spectrum of a display: frames of mono audio become levels in dB that a person can follow, because each
// call moves them only part of the way. A full-scale sine on a bin reads 0 dB whatever the window, within
// 1e-4 dB; the floor is -160 dB.
// Bin 0 holds the offset and the Nyquist frequency together, each at twice its amplitude, on purpose: that is
// where the packed transform leaves them, and what displays show.
//
// Life: construct, (process | setWindowType)*. One thread at a time; process allocates nothing. A frame with
// a NaN reads as silence. The views last as long as the object and show what the last call left.
class FFTProcessor {
 public:
  // fftSize: N, a power of two. sampleRate in Hz, for frequency() and bin() only.
  FFTProcessor(std::int64_t fftSize, double sampleRate, FFTWindowType windowType);

  // Another type than the current one restarts the smoothed spectrum at -100 dB.
  void setWindowType(FFTWindowType type);

  // Moves on by one frame and returns smoothedMagnitudes(). Only the first N samples are looked at; fewer are
  // zero-padded at the end.
  std::span<const float> process(const float* samples, std::int64_t count);

  std::span<const float> smoothedMagnitudes() const {
    return smoothedMagnitudes_;
  }                                                                        // dB; -100 before any frame
  std::span<const float> rawMagnitudes() const { return rawMagnitudes_; }  // dB of the last frame alone
  FFTWindowType currentWindowType() const { return currentWindowType_; }
  double sampleRate() const { return sampleRate_; }
  std::int64_t binCount() const { return fftSize_ / 2; }

  double frequency(std::int64_t forBin) const;  // Hz
  // The bin at or below a frequency in Hz, no higher than the last. A negative frequency has a negative bin;
  // one that no 64-bit bin stands for, or NaN, stops the program.
  std::int64_t bin(double forFrequency) const;

  // Weight of the previous smoothed value.
  float smoothingFactor = 0.6f;

 private:
  std::int64_t fftSize_;
  double sampleRate_;
  FFTWindowType currentWindowType_;
  PowerSpectrum spectrum_;
  std::vector<float> smoothedMagnitudes_, rawMagnitudes_;
};

}  // namespace vellum
