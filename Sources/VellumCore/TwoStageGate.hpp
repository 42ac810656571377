#pragma once

#include <cstdint>
#include <limits>

#include "VellumCore/Support/OrderedStatistics.hpp"

namespace vellum {

// Loudness in LUFS of a mean block power: 10 log10(max(power, 1e-10)) - 0.691.
//   power   weighted mean square, linear, >= 0; at or below 1e-10 reads -100.691
//   -0.691  cancels the K-weighting's gain at 997 Hz (ITU-R BS.1770-5)
double loudnessOfPower(double power);

// Gated loudness of a growing list of blocks: the mean of those above a relative gate that is itself taken
// from all of them (ITU-R BS.1770-5, two-stage gating). The integrated and the speech-gated loudness are two
// such gates fed with different blocks. The caller applies the absolute gate.
class TwoStageGate {
 public:
  // 10^((-70 + 0.691)/10): -70 LUFS as block power.
  static constexpr double absoluteThreshold = 1.1724653045822981e-07;
  // The relative gate stands at this factor of the mean power: -10 LU.
  static constexpr double relativeGateFactor = 0.1;

  // The absolute gate: a block at or below it never counts, nor does one whose power is not finite.
  static constexpr bool passesAbsoluteGate(double power, double threshold = absoluteThreshold) {
    return power > threshold && power <= std::numeric_limits<double>::max();
  }

  // Takes a block's power, finite, and brings the loudness up to date.
  void admit(double power);
  void clear();

  double loudnessLUFS() const { return figures_.loudnessLUFS; }  // -infinity until a block passes both gates
  std::int64_t absolutePassCount() const { return absolutePassBlocks_.count(); }
  double absolutePassSum() const { return figures_.absolutePassSum; }
  std::int64_t relativePassCount() const { return figures_.relativePassCount; }
  double relativePassSum() const { return figures_.relativePassSum; }

 private:
  struct Figures {
    double absolutePassSum = 0, relativePassSum = 0;
    std::int64_t relativePassCount = 0;
    double loudnessLUFS = -std::numeric_limits<double>::infinity();
  };
  OrderedStatistics<double> absolutePassBlocks_;
  Figures figures_;
};

}  // namespace vellum
