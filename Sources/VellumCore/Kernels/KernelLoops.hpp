#pragma once

// The loops behind every kernel table; see Kernels.hpp for the contract. Included by exactly one source per
// instruction set. Everything here has internal linkage and nothing of the standard library is instantiated:
// code compiled for a newer CPU must never be picked by the linker for an older one. The including source
// defines VELLUM_VECTOR_BYTES.

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/Kernels/WaveformLoops.hpp"

namespace vellum {
namespace {

// NaN-losing: the candidate wins only when it is greater.
inline float greater(float best, float candidate) {
  return candidate > best ? candidate : best;
}
inline float magnitude(float x) {
  return __builtin_fabsf(x);
}

// The widest floats of this instruction set, for loops in which every element goes its own way: their results
// do not depend on the width. Reductions use lane arrays instead, whose order is part of the contract.
constexpr int vectorBytes = VELLUM_VECTOR_BYTES;
constexpr int vectorWidth = vectorBytes / static_cast<int>(sizeof(float));
typedef float Vector __attribute__((vector_size(vectorBytes)));
typedef std::int32_t VectorBits __attribute__((vector_size(vectorBytes)));

inline Vector load(const float* x) {
  Vector v;
  __builtin_memcpy(&v, x, sizeof v);
  return v;
}
inline void store(float* x, Vector v) {
  __builtin_memcpy(x, &v, sizeof v);
}
inline Vector greater(Vector best, Vector candidate) {
  return candidate > best ? candidate : best;
}
inline Vector magnitude(Vector v) {
  return (Vector)((VectorBits)v & 0x7fffffff);
}
inline float greatestOf(Vector v) {
  float best = 0;
  for (int k = 0; k < vectorWidth; ++k) best = greater(best, v[k]);
  return best;
}

template <typename Value>
inline Value foldSum(const Value (&lanes)[laneCount]) {
  Value folded[laneCount];
  for (int k = 0; k < laneCount; ++k) folded[k] = lanes[k];
  for (std::int64_t half = laneCount / 2; half > 0; half /= 2)
    for (std::int64_t k = 0; k < half; ++k) folded[k] += folded[k + half];
  return folded[0];
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
  Vector peaks[2] = {};  // two: one would wait for itself at every comparison
  std::int64_t i = 0;
  for (; i + 2 * vectorWidth <= n; i += 2 * vectorWidth) {
    peaks[0] = greater(peaks[0], magnitude(load(x + i)));
    peaks[1] = greater(peaks[1], magnitude(load(x + i + vectorWidth)));
  }
  float peak = greatestOf(greater(peaks[0], peaks[1]));
  for (; i < n; ++i) peak = greater(peak, magnitude(x[i]));
  return peak;
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
// into digital silence leaves the denormal numbers, which cost a hundred times a normal one, with the segment
// in which it reaches them.
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

// The largest magnitude of the four phases at one position, or at the positions of one vector.
template <typename Value, Value (*at)(const float*)>
inline Value oversampledPeak(const PolyphaseFolds& f, const float* w) {
  Value even{}, odd{}, middle{};
  for (int j = 0; j < 6; ++j) {
    const Value tap = at(w + j), mirrored = at(w + 11 - j);
    const Value s = tap + mirrored;
    const Value d = tap - mirrored;
    even += f.even[j] * s;
    odd += f.odd[j] * d;
    middle += f.middle[j] * s;
  }
  Value peak = greater(Value{}, magnitude(at(w + 6)));
  peak = greater(peak, magnitude(even) + magnitude(odd));
  return greater(peak, magnitude(middle));
}

inline float single(const float* x) {
  return *x;
}

template <bool keepsPeaks>
inline float oversampledPeaksOf(const PolyphaseFolds& folds, const float* work, float* peaks,
                                std::int64_t n) {
  const PolyphaseFolds f = folds;
  Vector largest{};
  std::int64_t i = 0;
  for (; i + vectorWidth <= n; i += vectorWidth) {
    const Vector peak = oversampledPeak<Vector, load>(f, work + i);
    largest = greater(largest, peak);
    if (keepsPeaks) store(peaks + i, peak);
  }
  float best = greatestOf(largest);
  for (; i < n; ++i) {
    const float peak = oversampledPeak<float, single>(f, work + i);
    best = greater(best, peak);
    if (keepsPeaks) peaks[i] = peak;
  }
  return best;
}

float oversampledPeaks(const PolyphaseFolds& folds, const float* work, float* peaks, std::int64_t n) {
  return peaks ? oversampledPeaksOf<true>(folds, work, peaks, n)
               : oversampledPeaksOf<false>(folds, work, peaks, n);
}

// `peak`, or a phase's magnitude where that is greater, at one position or at the positions of one vector.
template <typename Value, Value (*at)(const float*)>
inline Value raisedToTapPeak(Value peak, const PolyphaseTaps& t, const float* w) {
  Value first{}, second{}, third{};
  for (int k = 0; k < 12; ++k) {
    const Value sample = at(w + k);
    first += t.taps[0][k] * sample;
    second += t.taps[1][k] * sample;
    third += t.taps[2][k] * sample;
  }
  const Value phases[] = {at(w + 6), first, second, third};
  for (const Value& phase : phases) peak = greater(peak, magnitude(phase));
  return peak;
}

void raiseToTapPeaks(const PolyphaseTaps& taps, const float* work, float* peaks, std::int64_t n) {
  const PolyphaseTaps t = taps;
  std::int64_t i = 0;
  for (; i + vectorWidth <= n; i += vectorWidth)
    store(peaks + i, raisedToTapPeak<Vector, load>(load(peaks + i), t, work + i));
  for (; i < n; ++i) peaks[i] = raisedToTapPeak<float, single>(peaks[i], t, work + i);
}

// --- Limiter ---------------------------------------------------------------------------------------------

void ceilingGains(float ceiling, float* x, std::int64_t n) {
  std::int64_t i = 0;
  for (; i + vectorWidth <= n; i += vectorWidth) {
    const Vector peaks = load(x + i);
    store(x + i, ceiling < peaks ? ceiling / peaks : Vector{} + 1.0f);
  }
  for (; i < n; ++i) x[i] = ceiling < x[i] ? ceiling / x[i] : 1.0f;
}

void exchangeWithGain(float* x, float* line, const float* gains, std::int64_t n) {
  std::int64_t i = 0;
  for (; i + vectorWidth <= n; i += vectorWidth) {
    const Vector sample = load(x + i);
    store(x + i, load(gains + i) * load(line + i));
    store(line + i, sample);
  }
  for (; i < n; ++i) {
    const float sample = x[i];
    x[i] = gains[i] * line[i];
    line[i] = sample;
  }
}

// --- Surround --------------------------------------------------------------------------------------------

void multiplyAdd(float* accumulator, float factor, const float* x, std::int64_t n) {
  for (std::int64_t i = 0; i < n; ++i) accumulator[i] += factor * x[i];
}

// `count` neighbouring values, or vectors of them: side by side they hide each other's chain of additions.
template <typename Value, Value (*at)(const float*), int count>
inline void sumOddTaps(const OddTaps& taps, const float* centre, std::int64_t step, Value (&sums)[count]) {
  for (Value& sum : sums) sum = Value{};
  for (std::int64_t j = 0, distance = 2 * taps.count - 1; j < taps.count; ++j, distance -= 2) {
    const float tap = taps.odd[j];
    for (int k = 0; k < count; ++k)
      sums[k] += tap * (at(centre + k * step + distance) - at(centre + k * step - distance));
  }
}

void correlateOddTaps(const OddTaps& taps, const float* centre, float* out, std::int64_t n) {
  constexpr int side = 4;
  std::int64_t i = 0;
  for (Vector sums[side]; i + side * vectorWidth <= n; i += side * vectorWidth) {
    sumOddTaps<Vector, load, side>(taps, centre + i, vectorWidth, sums);
    for (int k = 0; k < side; ++k) store(out + i + k * vectorWidth, sums[k]);
  }
  for (float sums[1]; i < n; ++i) {
    sumOddTaps<float, single, 1>(taps, centre + i, 1, sums);
    out[i] = sums[0];
  }
}

constexpr KernelTable tableNamed(const char* name) {
  return {name,
          sum,
          sumOfSquares,
          peakMagnitude,
          nonFiniteCount,
          add,
          scale,
          multiply,
          power,
          kWeightedEnergy,
          oversampledPeaks,
          raiseToTapPeaks,
          ceilingGains,
          exchangeWithGain,
          multiplyAdd,
          correlateOddTaps,
          sine,
          linearChirp,
          logarithmicChirp,
          sineSeries,
          manyHarmonicsSquare,
          manyHarmonicsTriangle,
          manyHarmonicsSawtooth,
          raisedCosine,
          decibelsToGains,
          powersToDecibels};
}

}  // namespace
}  // namespace vellum
