#pragma once

#include <cstdint>
#include <memory>
#include <span>

namespace vellum {

// Discrete Fourier transform of real signals; the only place that names the FFT library.
//
// Layout: a spectrum of N points is two arrays of max(1, N / 2) values, re and im. Entry k >= 1 is bin k;
// entry 0 holds the two real bins, DC in re[0] and Nyquist in im[0] (0 where N is 1).
// Scale: forward is the plain sum X[k] = sum x[n] e^(-2 pi i k n / N); inverse(forward(x)) is N x.
//
// 32-bit floats; the error of a forward transform is a few 1e-7 of the largest bin. N is a power of two.
// One thread at a time; transforms allocate nothing.
class RealFFT {
 public:
  explicit RealFFT(std::int64_t size);
  ~RealFFT();
  RealFFT(RealFFT&&) noexcept;
  RealFFT& operator=(RealFFT&&) noexcept;

  std::int64_t size() const { return size_; }
  std::int64_t binCount() const { return size_ > 1 ? size_ / 2 : 1; }

  // signal: N values; re, im: binCount() values each.
  void forward(std::span<const float> signal, std::span<float> re, std::span<float> im);
  void inverse(std::span<const float> re, std::span<const float> im, std::span<float> signal);

 private:
  struct Plan;
  std::int64_t size_;
  std::unique_ptr<Plan> plan_;  // absent where N is 1
};

}  // namespace vellum
