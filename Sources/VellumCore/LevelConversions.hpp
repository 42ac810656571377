#pragma once

namespace vellum {

// Gain in dB to linear amplitude, 10^(dB / 20). -200 dB and below is exactly 0.
float dbToLinear(float dB);

// Linear amplitude to dB, 20 log10(value). 0 and below is -infinity.
float linearToDB(float value);

// The two are not mirror images, on purpose: -200 dB becomes 0, and 0 becomes -infinity. A NaN stays one.

}  // namespace vellum
