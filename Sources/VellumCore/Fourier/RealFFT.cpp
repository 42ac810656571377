#include "VellumCore/Fourier/RealFFT.hpp"

#include <vector>

#include <kissfft/kiss_fftr.h>

#include "VellumCore/Support/PowerOfTwo.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {

namespace {

// One direction of the library's transform.
struct Direction {
  struct Release {
    void operator()(kiss_fftr_cfg plan) const { kiss_fftr_free(plan); }
  };
  std::unique_ptr<kiss_fftr_state, Release> config;

  Direction(std::int64_t size, bool inverse)
      : config(kiss_fftr_alloc(static_cast<int>(size), inverse ? 1 : 0, nullptr, nullptr)) {
    VELLUM_REQUIRE(config, "RealFFT: out of memory");
  }
};

}  // namespace

struct RealFFT::Plan {
  explicit Plan(std::int64_t size)
      : forward(size, false), inverse(size, true), bins(static_cast<std::size_t>(size / 2 + 1)) {}

  Direction forward, inverse;
  std::vector<kiss_fft_cpx> bins;  // 0 ... N / 2, the library's own layout
};

RealFFT::RealFFT(std::int64_t size) : size_(size) {
  VELLUM_REQUIRE(isPowerOfTwo(size) && size <= (std::int64_t{1} << 30),
                 "RealFFT: size must be a power of two from 1 to 2^30");
  if (size > 2) plan_ = std::make_unique<Plan>(size);
}

RealFFT::~RealFFT() = default;
RealFFT::RealFFT(RealFFT&&) noexcept = default;
RealFFT& RealFFT::operator=(RealFFT&&) noexcept = default;

void RealFFT::forward(std::span<const float> signal, std::span<float> re, std::span<float> im) {
  const auto bins = static_cast<std::size_t>(binCount());
  VELLUM_REQUIRE(signal.size() == static_cast<std::size_t>(size_) && re.size() == bins && im.size() == bins,
                 "RealFFT: forward takes N samples and gives N / 2 bins");
  if (!plan_) {
    // One sample is its own spectrum, two are their sum and difference.
    const float second = size_ == 2 ? signal[1] : 0.0f;
    re[0] = signal[0] + second;
    im[0] = size_ == 2 ? signal[0] - second : 0.0f;
    return;
  }
  kiss_fftr(plan_->forward.config.get(), signal.data(), plan_->bins.data());
  for (std::size_t k = 0; k < bins; ++k) {
    re[k] = plan_->bins[k].r;
    im[k] = plan_->bins[k].i;
  }
  im[0] = plan_->bins[bins].r;
}

void RealFFT::inverse(std::span<const float> re, std::span<const float> im, std::span<float> signal) {
  const auto bins = static_cast<std::size_t>(binCount());
  VELLUM_REQUIRE(signal.size() == static_cast<std::size_t>(size_) && re.size() == bins && im.size() == bins,
                 "RealFFT: inverse takes N / 2 bins and gives N samples");
  if (!plan_) {
    signal[0] = size_ == 2 ? re[0] + im[0] : re[0];
    if (size_ == 2) signal[1] = re[0] - im[0];
    return;
  }
  for (std::size_t k = 0; k < bins; ++k) plan_->bins[k] = {re[k], im[k]};
  plan_->bins[0] = {re[0], 0};
  plan_->bins[bins] = {im[0], 0};
  kiss_fftri(plan_->inverse.config.get(), plan_->bins.data(), signal.data());
}

}  // namespace vellum
