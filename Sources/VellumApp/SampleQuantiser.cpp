#include "VellumApp/SampleQuantiser.hpp"

#include <algorithm>
#include <cmath>

#include "VellumCore/Support/Require.hpp"

namespace vellum {
namespace {

// The n-th number of the generator SplitMix64 (Steele, Lea, Flood 2014) that starts at `seed`. Any number can
// be had without the ones before it, so that the dither does not depend on how a programme is cut into
// chunks.
std::uint64_t splitMix64(std::uint64_t seed, std::uint64_t n) {
  std::uint64_t z = seed + (n + 1) * 0x9E3779B97F4A7C15u;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
  return z ^ (z >> 31);
}

// The difference of two uniform draws: triangular between -1 and 1.
double triangular(std::uint64_t seed, std::uint64_t n) {
  const std::uint64_t bits = splitMix64(seed, n);
  const auto first = static_cast<double>(bits >> 32), second = static_cast<double>(bits & 0xFFFFFFFF);
  return (first - second) * 0x1p-32;
}

// Both answer how many samples were outside of the range.
std::int64_t bringToGrid(std::span<float> samples, double scale) {
  const double step = 1 / scale;  // exact too: a power of two
  std::int64_t clipped = 0;
  for (const float sample : samples) clipped += isClipped(static_cast<double>(sample) * scale, scale) ? 1 : 0;
  // Apart from the count, which would keep it from becoming vectors.
  for (float& sample : samples)
    sample = static_cast<float>(nearestInteger(static_cast<double>(sample) * scale, scale) * step);
  return clipped;
}

std::int64_t ditherToGrid(std::span<float> samples, const float* original, double scale, std::uint64_t seed,
                          std::int64_t position) {
  const double step = 1 / scale;  // exact too: a power of two
  std::int64_t clipped = 0;
  for (std::size_t n = 0; n < samples.size(); ++n) {
    double scaled = static_cast<double>(samples[n]) * scale;  // exact
    const bool isKept = original && samples[n] == original[n] && std::trunc(scaled) == scaled;
    if (!isKept) scaled += triangular(seed, static_cast<std::uint64_t>(position) + n);
    clipped += isClipped(scaled, scale) ? 1 : 0;
    samples[n] = static_cast<float>(nearestInteger(scaled, scale) * step);
  }
  return clipped;
}

}  // namespace

SampleQuantiser::SampleQuantiser(const Settings& settings) : settings_(settings) {}

void SampleQuantiser::quantise(std::span<float* const> channelData, std::span<const float* const> original,
                               std::int64_t frameCount) {
  const auto channelCount = static_cast<std::size_t>(settings_.channelCount);
  VELLUM_REQUIRE(channelData.size() == channelCount,
                 "SampleQuantiser: quantise takes one buffer per channel");
  VELLUM_REQUIRE(original.empty() || original.size() == channelCount,
                 "SampleQuantiser: original has one buffer per channel, or none at all");
  if (settings_.coding == SampleCoding::float32) return;
  const double scale = std::ldexp(1.0, static_cast<int>(integerBits(settings_.coding) - 1));
  for (std::size_t c = 0; c < channelCount; ++c) {
    if (!channelData[c]) continue;
    const std::span<float> samples(channelData[c],
                                   static_cast<std::size_t>(std::max<std::int64_t>(frameCount, 0)));
    if (settings_.dither == Dither::tpdf)
      clippedSamples_ +=
          ditherToGrid(samples, original.empty() ? nullptr : original[c], scale, splitMix64(0, c), position_);
    else
      clippedSamples_ += bringToGrid(samples, scale);
  }
  position_ += std::max<std::int64_t>(frameCount, 0);
}

}  // namespace vellum
