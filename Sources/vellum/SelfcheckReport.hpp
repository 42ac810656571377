#pragma once

#include <string>
#include <vector>

#include "VellumApp/ConformanceSet.hpp"
#include "vellum/ExitCode.hpp"

// What the conformance signals read, as a table for people and as JSON records, and what it comes to.
namespace vellum::SelfcheckReport {

// The readings of every one of ConformanceSet::signals() at one sample rate, signal by signal.
struct RateReadings {
  double sampleRate;  // Hz
  std::vector<std::vector<ConformanceSet::Reading>> signals;
};

// A row for each figure of a signal, a column for each rate; then the reasons of what is known, and the sum.
//   rates   at least one
std::string tableText(const std::vector<RateReadings>& rates);

// One JSON object per line and reading. A reading that is not finite has no key.
std::string recordsText(const std::vector<RateReadings>& rates);

// checkFailed where any reading is not as expected.
ExitCode exitCodeOf(const std::vector<RateReadings>& rates);

}  // namespace vellum::SelfcheckReport
