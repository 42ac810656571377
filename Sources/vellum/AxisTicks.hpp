#pragma once

#include <string>
#include <vector>

#include "VellumApp/FrequencyScale.hpp"

// Where the axes of pictures have marks, and what stands there.
namespace vellum {

struct Tick {
  double value;
  std::string label;
};

// Round values between low and high, about `most` of them or fewer, low < high.
std::vector<Tick> levelTicks(double lowDB, double highDB, double most);    // "-60"
std::vector<Tick> frequencyTicks(const FrequencyAxis& axis, double most);  // "500", "2k"
// Of a logarithmic axis, between the marks that have a label: 30, 40, 60 ...; else none.
std::vector<double> minorFrequencies(const FrequencyAxis& axis);
std::vector<Tick> timeTicks(double fromSec, double toSec, double most);  // "0.25", "1:30", "1:02:00"

}  // namespace vellum
