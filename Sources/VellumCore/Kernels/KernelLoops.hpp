#pragma once

// The loops behind every kernel table; see Kernels.hpp for the contract. Included by exactly one source per
// instruction set. Everything here has internal linkage and nothing of the standard library is instantiated:
// code compiled for a newer CPU must never be picked by the linker for an older one.

#include "VellumCore/Kernels/Kernels.hpp"

namespace vellum {
namespace {

// NaN-losing: the candidate wins only when it is greater.
inline float greater(float best, float candidate) {
  return candidate > best ? candidate : best;
}
inline float magnitude(float x) {
  return __builtin_fabsf(x);
}

template <typename Value>
inline Value foldSum(const Value (&lanes)[laneCount]) {
  Value folded[laneCount];
  for (int k = 0; k < laneCount; ++k) folded[k] = lanes[k];
  for (std::int64_t half = laneCount / 2; half > 0; half /= 2)
    for (std::int64_t k = 0; k < half; ++k) folded[k] += folded[k + half];
  return folded[0];
}

inline float foldGreatest(const float (&lanes)[laneCount]) {
  float best = 0;
  for (float lane : lanes) best = greater(best, lane);
  return best;
}

float sum(const float* x, std::int64_t n) {
  float lanes[laneCount] = {};
  std::int64_t i = 0;
  for (; i + laneCount <= n; i += laneCount)
    for (int k = 0; k < laneCount; ++k) lanes[k] += x[i + k];
  for (int k = 0; i < n; ++i, ++k) lanes[k] += x[i];
  return foldSum(lanes);
}

double sumOfSquares(const float* x, std::int64_t n) {
  double lanes[laneCount] = {};
  std::int64_t i = 0;
  for (; i + laneCount <= n; i += laneCount)
    for (int k = 0; k < laneCount; ++k) {
      const double value = static_cast<double>(x[i + k]);
      lanes[k] += value * value;
    }
  for (int k = 0; i < n; ++i, ++k) {
    const double value = static_cast<double>(x[i]);
    lanes[k] += value * value;
  }
  return foldSum(lanes);
}

float peakMagnitude(const float* x, std::int64_t n) {
  float lanes[laneCount] = {};
  std::int64_t i = 0;
  for (; i + laneCount <= n; i += laneCount)
    for (int k = 0; k < laneCount; ++k) lanes[k] = greater(lanes[k], magnitude(x[i + k]));
  for (; i < n; ++i) lanes[0] = greater(lanes[0], magnitude(x[i]));
  return foldGreatest(lanes);
}

std::int64_t nonFiniteCount(const float* x, std::int64_t n) {
  std::int64_t count = 0;
  for (std::int64_t i = 0; i < n; ++i) count += x[i] - x[i] != 0.0f;  // infinity and NaN give NaN
  return count;
}

void add(float* accumulator, const float* x, std::int64_t n) {
  for (std::int64_t i = 0; i < n; ++i) accumulator[i] += x[i];
}

void scale(float* x, float factor, std::int64_t n) {
  for (std::int64_t i = 0; i < n; ++i) x[i] *= factor;
}

void multiply(const float* a, const float* b, float* out, std::int64_t n) {
  for (std::int64_t i = 0; i < n; ++i) out[i] = a[i] * b[i];
}

void power(const float* re, const float* im, float* out, std::int64_t n) {
  for (std::int64_t i = 0; i < n; ++i) out[i] = re[i] * re[i] + im[i] * im[i];
}

// --- K-weighting -----------------------------------------------------------------------------------------

// One value per channel: two channels filtered side by side hide each other's recursion.
typedef double Pair __attribute__((vector_size(16)));

// Filter memory below this (-2000 dB) is set to zero at the end of a segment, so that a filter ringing out
// into digital silence never reaches the denormal numbers, which cost a hundred times a normal one.
constexpr double vanishing = 1e-100;
inline double withoutResidue(double x) {
  return __builtin_fabs(x) < vanishing ? 0.0 : x;
}

// Direct form I, arranged so that only one product and one subtraction wait for the newest output.
template <typename Value>
struct Cascade {
  Value x1, x2, v1, v2, y1, y2;

  inline Value next(const KWeightingCoefficients& c, Value x) {
    const Value v = ((c.b0 * x + c.b1 * x1) + (c.b2 * x2 - c.a2 * v2)) - c.a1 * v1;
    // Numerator stays 1, -2, 1, not divided by a0: BS.1770's own form.
    const Value y = (((v - v1) - (v1 - v2)) - c.c2 * y2) - c.c1 * y1;
    x2 = x1, x1 = x;
    v2 = v1, v1 = v;
    y2 = y1, y1 = y;
    return y;
  }
};

inline void kWeightPair(const KWeightingCoefficients& c, KWeightingState& left, KWeightingState& right,
                        const float* l, const float* r, double* energies, std::int64_t n) {
  Cascade<Pair> cascade = {{left.x1, right.x1}, {left.x2, right.x2}, {left.v1, right.v1},
                           {left.v2, right.v2}, {left.y1, right.y1}, {left.y2, right.y2}};
  Pair energy = {0, 0};
  for (std::int64_t i = 0; i < n; ++i) {
    const Pair y = cascade.next(c, Pair{static_cast<double>(l[i]), static_cast<double>(r[i])});
    energy += y * y;
  }
  const auto keep = [&](KWeightingState& state, int k) {
    state = {withoutResidue(cascade.x1[k]), withoutResidue(cascade.x2[k]), withoutResidue(cascade.v1[k]),
             withoutResidue(cascade.v2[k]), withoutResidue(cascade.y1[k]), withoutResidue(cascade.y2[k])};
  };
  keep(left, 0);
  keep(right, 1);
  energies[0] = energy[0];
  energies[1] = energy[1];
}

inline void kWeightSingle(const KWeightingCoefficients& c, KWeightingState& state, const float* x,
                          double* energies, std::int64_t n) {
  Cascade<double> cascade = {state.x1, state.x2, state.v1, state.v2, state.y1, state.y2};
  double energy = 0;
  for (std::int64_t i = 0; i < n; ++i) {
    const double y = cascade.next(c, static_cast<double>(x[i]));
    energy += y * y;
  }
  state = {withoutResidue(cascade.x1), withoutResidue(cascade.x2), withoutResidue(cascade.v1),
           withoutResidue(cascade.v2), withoutResidue(cascade.y1), withoutResidue(cascade.y2)};
  energies[0] = energy;
}

void kWeightedEnergy(const KWeightingCoefficients& coefficients, KWeightingState* const* states,
                     const float* const* inputs, double* energies, std::int64_t channelCount,
                     std::int64_t n) {
  std::int64_t c = 0;
  for (; c + 2 <= channelCount; c += 2)
    kWeightPair(coefficients, *states[c], *states[c + 1], inputs[c], inputs[c + 1], energies + c, n);
  if (c < channelCount) kWeightSingle(coefficients, *states[c], inputs[c], energies + c, n);
}

// --- True peak -------------------------------------------------------------------------------------------

inline float oversampledPeak(const PolyphaseFolds& f, const float* w) {
  float even = 0, odd = 0, middle = 0;
  for (int j = 0; j < 6; ++j) {
    const float s = w[j] + w[11 - j];
    const float d = w[j] - w[11 - j];
    even += f.even[j] * s;
    odd += f.odd[j] * d;
    middle += f.middle[j] * s;
  }
  float peak = greater(0.0f, magnitude(w[6]));
  peak = greater(peak, magnitude(even) + magnitude(odd));
  return greater(peak, magnitude(middle));
}

float oversampledPeaks(const PolyphaseFolds& folds, const float* work, float* peaks, std::int64_t n) {
  const PolyphaseFolds f = folds;
  float lanes[laneCount] = {};
  std::int64_t i = 0;
  for (; i + laneCount <= n; i += laneCount) {
    float block[laneCount];
    for (int k = 0; k < laneCount; ++k) block[k] = oversampledPeak(f, work + i + k);
    for (int k = 0; k < laneCount; ++k) lanes[k] = greater(lanes[k], block[k]);
    if (peaks)
      for (int k = 0; k < laneCount; ++k) peaks[i + k] = block[k];
  }
  for (; i < n; ++i) {
    const float peak = oversampledPeak(f, work + i);
    lanes[0] = greater(lanes[0], peak);
    if (peaks) peaks[i] = peak;
  }
  return foldGreatest(lanes);
}

constexpr KernelTable tableNamed(const char* name) {
  return {name,  sum,      sumOfSquares, peakMagnitude,   nonFiniteCount,  add,
          scale, multiply, power,        kWeightedEnergy, oversampledPeaks};
}

}  // namespace
}  // namespace vellum
