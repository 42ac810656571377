#include "VellumCore/TwoStageGate.hpp"

#include <algorithm>
#include <cmath>

namespace vellum {

double loudnessOfPower(double power) {
  return 10.0 * std::log10(std::max(power, 1e-10)) - 0.691;
}

void TwoStageGate::admit(double power) {
  absolutePassBlocks_.insert(power);
  figures_.absolutePassSum += power;
  const double mean = figures_.absolutePassSum / static_cast<double>(absolutePassBlocks_.count());
  const auto passed = absolutePassBlocks_.tailAbove(mean * relativeGateFactor);
  figures_.relativePassCount = absolutePassBlocks_.count() - passed.firstRank;
  figures_.relativePassSum = passed.sum;
  if (figures_.relativePassCount < 1) return;
  figures_.loudnessLUFS =
      loudnessOfPower(figures_.relativePassSum / static_cast<double>(figures_.relativePassCount));
}

void TwoStageGate::clear() {
  absolutePassBlocks_.clear();
  figures_ = {};
}

}  // namespace vellum
