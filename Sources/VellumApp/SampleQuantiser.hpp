#pragma once

#include <cmath>
#include <cstdint>
#include <span>

#include "VellumApp/AudioFileFormat.hpp"

namespace vellum {

enum class Dither { none, tpdf };

// The integer that a sample, times 2^(bits-1) = scale, is written as: the nearest, halves away from zero,
// kept between -scale and scale - 1; 0 for what is not a number. No branch and no call: loops of it become
// vectors.
inline std::int32_t nearestInteger(double scaled, double scale) {
  constexpr double half = 0.49999999999999994;  // largest below 0.5: with 0.5 itself, it would round up to 1
  const double number = scaled == scaled ? scaled : 0;
  const double least = number > -scale ? number : -scale;
  const double inRange = least < scale - 1 ? least : scale - 1;
  return static_cast<std::int32_t>(inRange + std::copysign(half, inRange));
}

// Whether the nearest integer had to be kept in that range.
inline bool isClipped(double scaled, double scale) {
  return !(std::abs(scaled + 0.5) < scale);
}

// Brings planar floats to the grid of an integer width: x times 2^(bits-1), to the nearest integer (halves
// away from zero), clamped to -2^(bits-1) ... 2^(bits-1)-1, and back to float, which holds it exactly. Dither
// is triangular, white, within 1 step to either side (not included), added before rounding. It depends on the
// channel and on the count of frames before, on nothing else: equal runs give equal files. Life: construct,
// quantise*. Floating codings are left alone.
class SampleQuantiser {
 public:
  struct Settings {
    SampleCoding coding;
    Dither dither;
    std::int64_t channelCount;
  };
  explicit SampleQuantiser(const Settings& settings);

  // In place; a null pointer is an absent channel. `original` holds the samples before any operation, one
  // pointer per channel (null: not known), or nothing at all: a sample that equals its original and stands on
  // the grid is kept without dither, so that input written back unchanged is equal to the bit.
  void quantise(std::span<float* const> channelData, std::span<const float* const> original,
                std::int64_t frameCount);

  // Values outside of the range so far; not a number counts too, and becomes 0.
  std::int64_t clippedSamples() const { return clippedSamples_; }

 private:
  Settings settings_;
  std::int64_t position_ = 0;  // frames before the next one
  std::int64_t clippedSamples_ = 0;
};

}  // namespace vellum
