#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "VellumCore/FFTWindowType.hpp"

namespace vellum {

class RealFFT;

// Power of the bins of one windowed frame, scaled to peaks: a sine of amplitude 1 on a bin reads 1 there,
// whatever the window, and so does an offset of 1 at bin 0.
//
// Life: construct, process*. One thread at a time; process allocates nothing.
class PowerSpectrum {
 public:
  // fftSize: N, a power of two up to 2^30.
  PowerSpectrum(std::int64_t fftSize, FFTWindowType windowType);
  ~PowerSpectrum();
  PowerSpectrum(PowerSpectrum&&) noexcept;
  PowerSpectrum& operator=(PowerSpectrum&&) noexcept;

  std::int64_t fftSize() const { return static_cast<std::int64_t>(window_.size()); }
  std::int64_t binCount() const { return fftSize() / 2 + 1; }

  void setWindowType(FFTWindowType windowType);

  // Bins the width of whose rectangle of the same noise the window has: the powers of a band, added up and
  // divided by this, are the band's power, where a sine of amplitude 1 has 1.
  double noiseBandwidth() const { return noiseBandwidth_; }

  // The power of bins 0 to N / 2, a view of the object's own memory that lasts until the next call. Only the
  // first N samples are looked at; fewer are zero-padded at the end.
  std::span<const double> process(const float* samples, std::int64_t count);

 private:
  std::vector<float> window_, windowed_;
  std::vector<float> realPart_, imagPart_;
  std::vector<double> power_;
  std::unique_ptr<RealFFT> fft_;
  double scale_ = 1;  // of |X|^2 between the outermost bins
  double noiseBandwidth_ = 1;
};

}  // namespace vellum
