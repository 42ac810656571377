#include "VellumCore/PolyphaseUpsampler4x.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum::PolyphaseUpsampler4x {

namespace {

using Phases = std::array<std::array<float, delayFrames>, factor>;

// Hann-windowed sinc over 48 intervals, cut into its phases. What is 0 in exact arithmetic stays 0: the
// sinc's zeros away from the centre and the window's two ends.
Phases buildPhases() {
  constexpr double negligible = 1e-9;
  constexpr std::int64_t centre = (taps - 1) / 2;
  Phases phases{};
  for (std::int64_t k = 0; k < taps; ++k) {
    const auto distance = static_cast<double>(k - centre);
    const double x = distance * std::numbers::pi / 4;
    const double sinc = std::abs(distance) <= negligible ? 1 : std::sin(x) / x;
    const double hann =
        (1 - std::cos(2 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(taps - 1))) * 0.5;
    const double h = hann * sinc;
    if (std::abs(h) > negligible)
      phases[static_cast<std::size_t>(k % factor)][static_cast<std::size_t>(k / factor)] =
          static_cast<float>(h);
  }
  return phases;
}

// The same filter as sums over mirrored taps. In 64 bit until the last step.
const PolyphaseFolds& folds() {
  static const PolyphaseFolds built = [] {
    const Phases& phases = flatCoeffs();
    PolyphaseFolds folded{};
    for (std::size_t j = 0; j < 6; ++j) {
      const double tap = static_cast<double>(phases[1][j]), mirrored = static_cast<double>(phases[3][j]);
      folded.even[j] = static_cast<float>((tap + mirrored) / 2);
      folded.odd[j] = static_cast<float>((tap - mirrored) / 2);
      folded.middle[j] = phases[2][j];
    }
    return folded;
  }();
  return built;
}

}  // namespace

const Phases& flatCoeffs() {
  static const Phases built = buildPhases();
  return built;
}

float detectPerSamplePeaks(std::span<const float> workBuf, std::int64_t frameCount,
                           [[maybe_unused]] std::span<float> phaseConvOut,
                           std::span<float> outPerSamplePeak) {
  if (frameCount < 1) return 0;
  const auto n = static_cast<std::size_t>(frameCount);
  VELLUM_REQUIRE(workBuf.size() >= n + delayFrames && outPerSamplePeak.size() >= n,
                 "PolyphaseUpsampler4x: workBuf takes frameCount + 13 samples, outPerSamplePeak frameCount");
  // The kernel runs the four phases side by side and needs no scratch between them.
  return kernels().oversampledPeaks(folds(), workBuf.data(), outPerSamplePeak.data(), frameCount);
}

float batchPeak(std::span<const float> workBuf, std::int64_t frameCount, std::span<float> phaseConvOut,
                std::span<float> outPerSample) {
  return detectPerSamplePeaks(workBuf, frameCount, phaseConvOut, outPerSample);
}

float streamPeak(std::array<float, delayFrames>& history, const float* x, std::int64_t frameCount) {
  if (frameCount < 1) return 0;
  // The outputs that still reach into the history run over a short joint, the others over x itself.
  std::array<float, 2 * delayFrames> joint;
  const std::int64_t joined = std::min(frameCount, delayFrames);
  std::copy(history.begin(), history.end(), joint.begin());
  std::copy_n(x, joined, joint.begin() + delayFrames);
  float peak = kernels().oversampledPeaks(folds(), joint.data(), nullptr, joined);
  if (frameCount > delayFrames)
    peak = std::max(peak, kernels().oversampledPeaks(folds(), x, nullptr, frameCount - delayFrames));

  const float* newest = frameCount >= delayFrames ? x + (frameCount - delayFrames) : joint.data() + joined;
  std::copy_n(newest, delayFrames, history.begin());
  return peak;
}

}  // namespace vellum::PolyphaseUpsampler4x
