#pragma once

#include <algorithm>
#include <cmath>

#include "VellumCore/Support/RawValue.hpp"

namespace vellum {

enum class FrequencyScale { linear, log };

template <>
inline constexpr auto rawValueTable<FrequencyScale> =
    rawValues<FrequencyScale>({{FrequencyScale::linear, "linear"}, {FrequencyScale::log, "log"}});

// A frequency axis: where between its ends, 0 and 1, a frequency stands.
struct FrequencyAxis {
  FrequencyScale scale;
  double lowHz, highHz;  // low < high; on a logarithmic scale low > 0

  double positionOf(double frequencyHz) const {
    if (scale == FrequencyScale::linear) return (frequencyHz - lowHz) / (highHz - lowHz);
    return std::log(std::max(frequencyHz, lowHz * 1e-3) / lowHz) / std::log(highHz / lowHz);
  }
  double frequencyAt(double position) const {
    if (scale == FrequencyScale::linear) return lowHz + position * (highHz - lowHz);
    return lowHz * std::pow(highHz / lowHz, position);
  }
};

// All that a sample rate has: from 0, or on a logarithmic scale from 20 Hz, to half of it.
inline FrequencyAxis frequencyAxisOf(FrequencyScale scale, double sampleRate) {
  const double highHz = sampleRate / 2;
  return {scale, scale == FrequencyScale::linear ? 0 : std::min(20.0, highHz / 100), highHz};
}

}  // namespace vellum
