#include "VellumCore/HilbertPhaseShifter.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {
namespace {

constexpr std::int64_t mostSamples = std::int64_t{1} << 32;

std::int64_t checkedTaps(std::int64_t taps) {
  VELLUM_REQUIRE(taps > 0 && taps % 2 == 1, "HilbertPhaseShifter: taps must be positive and odd");
  return taps;
}

std::int64_t checkedFrames(std::int64_t taps, std::int64_t maxFrames) {
  const bool areHeld = taps < mostSamples && maxFrames < mostSamples - taps;
  VELLUM_REQUIRE(areHeld, "HilbertPhaseShifter: taps and maxFrames are too many to be held");
  return std::max<std::int64_t>(maxFrames, 0);
}

std::vector<float> coefficients(std::int64_t taps) {
  using std::numbers::pi;
  std::vector<float> coef(static_cast<std::size_t>(taps));
  const double span = static_cast<double>(taps - 1);
  for (std::int64_t n = 0; n < taps; ++n) {
    const std::int64_t k = n - (taps - 1) / 2;
    if (k % 2 == 0) continue;
    const double position = static_cast<double>(n);
    const double blackman =
        0.42 - 0.5 * std::cos(2 * pi * position / span) + 0.08 * std::cos(4 * pi * position / span);
    coef[static_cast<std::size_t>(n)] = static_cast<float>(2 / (static_cast<double>(k) * pi) * blackman);
  }
  return coef;
}

// Those behind the centre, from the last one; the others are their negatives.
std::vector<float> oddTapsOf(const std::vector<float>& coef) {
  const std::size_t centre = coef.size() / 2;
  std::vector<float> odd;
  for (std::size_t distance = centre; distance > 0; --distance)
    if (distance % 2 == 1) odd.push_back(coef[centre + distance]);
  return odd;
}

}  // namespace

HilbertPhaseShifter::HilbertPhaseShifter(std::int64_t taps, std::int64_t maxFrames)
    : taps_(checkedTaps(taps)),
      groupDelay_((taps - 1) / 2),
      maxFrames_(checkedFrames(taps, maxFrames)),
      history_(static_cast<std::size_t>(taps - 1)),
      work_(static_cast<std::size_t>(maxFrames_ + taps - 1)) {
  coef_ = coefficients(taps);
  oddTaps_ = oddTapsOf(coef_);
}

void HilbertPhaseShifter::process(const float* input, std::int64_t count, float* reference,
                                  float* quadrature) {
  if (count < 1 || count > maxFrames_) return;
  const auto past = std::copy(history_.begin(), history_.end(), work_.begin());
  std::copy_n(input, count, past);
  const float* const centre = work_.data() + groupDelay_;
  std::copy_n(centre, count, reference);
  if (quadrature) {
    const OddTaps odd = {oddTaps_.data(), static_cast<std::int64_t>(oddTaps_.size())};
    kernels().correlateOddTaps(odd, centre, quadrature, count);
  }
  std::copy_n(work_.begin() + count, taps_ - 1, history_.begin());
}

void HilbertPhaseShifter::reset() {
  std::fill(history_.begin(), history_.end(), 0.0f);
}

}  // namespace vellum
