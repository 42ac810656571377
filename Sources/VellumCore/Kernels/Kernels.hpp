#pragma once

#include <cstdint>

// Stateless loops over samples: the only place that knows the CPU.
//
// One source of loops is compiled once per instruction set and picked at run time. Every version does the
// same operations in the same order, without fused multiply-add, so two machines agree to the last bit:
// a sum runs in `laneCount` partial results (element i goes to lane i mod laneCount), and the lanes
// are folded by halves (lane k with lane k + half, until one is left). The energy of a filtered channel is
// added up in the order of its samples, and a maximum needs no order.
//
// Arrays need no alignment. Counts of 0 or less do nothing and reduce to 0. In-place use (out == in) is
// allowed where an output is element by element.

namespace vellum {

constexpr std::int64_t laneCount = 16;

// Coefficients b0, b1, b2, a1, a2 of the two K-weighting sections (ITU-R BS.1770-5, Annex 1).
// The second section's numerator is 1, -2, 1 by definition and is not stored.
struct KWeightingCoefficients {
  double b0, b1, b2, a1, a2;  // high shelf
  double c1, c2;              // high pass: denominator
};

// One channel's filter memory, newest first: input, output of the shelf, output of the high pass.
struct KWeightingState {
  double x1 = 0, x2 = 0, v1 = 0, v2 = 0, y1 = 0, y2 = 0;
};

// The 4x polyphase filter in the form that its symmetry allows. Phase 3 is phase 1 reversed over 12 taps and
// phase 2 is symmetric, so with s_j = w_j + w_(11-j) and d_j = w_j - w_(11-j), j < 6:
//   phase 1 = E + O, phase 3 = E - O with E = sum even_j s_j, O = sum odd_j d_j; phase 2 = sum middle_j s_j.
// The larger of |phase 1| and |phase 3| is then |E| + |O|. Phase 0 is the sample itself, w_6.
struct PolyphaseFolds {
  float even[6], odd[6], middle[6];
};

// The same filter tap by tap: phases 1 to 3. Phase 0 is the sample w_6, and every phase's tap 12 is 0.
struct PolyphaseTaps {
  float taps[3][12];
};

// An antisymmetric filter in which every tap at an even distance from the centre is 0, outermost tap first:
// odd[j] stands 2 (count - j) - 1 places behind the centre, and its negative as many before it.
struct OddTaps {
  const float* odd;
  std::int64_t count;
};

// A sine whose frequency moves, by the time t = frame / sampleRate.
struct Chirp {
  double sampleRate;
  double startHz, slope;            // linear: phase 2 pi (startHz t + slope t^2)
  double seconds, logRatio, scale;  // logarithmic: phase scale (e^(logRatio t / seconds) - 1)
};

// sum over k < count of coefficients[k] sin(h w), with h = k + 1, or with h = 2k + 1 where oddOnly is set.
struct SineSeries {
  const double* coefficients;
  std::int64_t count;
  bool oddOnly;
};

struct KernelTable {
  const char* name;  // "baseline", "avx2"

  float (*sum)(const float* x, std::int64_t n);            // 32-bit lanes
  double (*sumOfSquares)(const float* x, std::int64_t n);  // squares and lanes in 64 bit
  float (*peakMagnitude)(const float* x, std::int64_t n);  // largest |x|; a NaN loses every comparison
  std::int64_t (*nonFiniteCount)(const float* x, std::int64_t n);

  void (*add)(float* accumulator, const float* x, std::int64_t n);  // accumulator += x
  void (*scale)(float* x, float factor, std::int64_t n);            // x *= factor
  void (*multiply)(const float* a, const float* b, float* out, std::int64_t n);
  void (*power)(const float* re, const float* im, float* out, std::int64_t n);  // re^2 + im^2

  // K-weights n samples of each of `channelCount` channels in 64 bit, moving each channel's state on, and
  // sets energies[c] to the sum of squares of channel c's weighted samples. Channels do not mix: the figures
  // of one are the same whatever stands beside it.
  void (*kWeightedEnergy)(const KWeightingCoefficients& coefficients, KWeightingState* const* states,
                          const float* const* inputs, double* energies, std::int64_t channelCount,
                          std::int64_t n);

  // Largest 4x-oversampled magnitude around each of n samples: peaks[i] from work[i .. i + 11], which must
  // therefore hold n + 11 values; a NaN loses every comparison. `peaks` may be null. Returns the largest.
  float (*oversampledPeaks)(const PolyphaseFolds& folds, const float* work, float* peaks, std::int64_t n);

  // Raises peaks[i] to the largest of |w_6| and the three |sum over k of taps[p][k] w_k|, each added up from
  // k = 0 to 11, with w = work + i; work holds n + 11 values. A NaN loses every comparison. Slower than
  // oversampledPeaks by two fifths, for callers that need the plain sums to the bit.
  void (*raiseToTapPeaks)(const PolyphaseTaps& taps, const float* work, float* peaks, std::int64_t n);

  // Peaks become the gains that bring them to the ceiling: x = ceiling / x where ceiling < x, else 1.
  void (*ceilingGains)(float ceiling, float* x, std::int64_t n);

  // Exchanges samples with a stretch of a delay line: x takes gains * line, line takes what x was.
  void (*exchangeWithGain)(float* x, float* line, const float* gains, std::int64_t n);

  // accumulator += factor * x
  void (*multiplyAdd)(float* accumulator, float factor, const float* x, std::int64_t n);

  // out[i] = sum over j of odd[j] (centre[i + d] - centre[i - d]), d being the tap's distance, added up from
  // j = 0. Reads 2 count - 1 values before centre's n values and as many behind them. Not in place.
  void (*correlateOddTaps)(const OddTaps& taps, const float* centre, float* out, std::int64_t n);

  // Test signals: the n frames from frame `first` on, of a signal whose phase moves on by `step` radians a
  // frame. A frame's phase is its number times `step` in 64 bit and everything follows from it in 64 bit, so
  // that a sample does not depend on what is asked for beside it. Phases up to 2^31 pi.
  void (*sine)(double step, float amplitude, float* x, std::int64_t first, std::int64_t n);
  void (*linearChirp)(const Chirp& chirp, float amplitude, float* x, std::int64_t first, std::int64_t n);
  void (*logarithmicChirp)(const Chirp& chirp, float amplitude, float* x, std::int64_t first, std::int64_t n);
  void (*sineSeries)(const SineSeries& series, double step, float* x, std::int64_t first, std::int64_t n);
  // The sum of the odd harmonics h < L with the amplitude 1/h, L even; of the same with the amplitudes 1/h^2,
  // -1/h^2 by turns; and of all harmonics h <= (L - 1) / 2 with 1/h, -1/h by turns, L odd. At one cost for
  // any L of 64 or more, off by less than 2e-8.
  void (*manyHarmonicsSquare)(double L, double step, float* x, std::int64_t first, std::int64_t n);
  void (*manyHarmonicsTriangle)(double L, double step, float* x, std::int64_t first, std::int64_t n);
  void (*manyHarmonicsSawtooth)(double L, double step, float* x, std::int64_t first, std::int64_t n);

  // x[i] *= 0.5 - 0.5 cos(p pi / length) with p = position + direction * i, in 32 bit; direction is 1 or -1.
  void (*raisedCosine)(std::int64_t position, std::int64_t direction, std::int64_t length, float* x,
                       std::int64_t n);
  void (*decibelsToGains)(float* x, std::int64_t n);  // x = e^(0.115129255 x), the product in 32 bit

  // x = 10 log10(scale x), off by less than 1e-9 before it is rounded to 32 bit. scale x counts as at least
  // `least`, a normal number above 0, so that silence has a level too; a NaN counts as `least`, and what is
  // infinite as the largest number.
  void (*powersToDecibels)(float scale, float least, float* x, std::int64_t n);
};

// The fastest table that this CPU runs. Chosen once.
const KernelTable& kernels();

// Every table that this CPU runs, baseline first: for tests and benchmarks.
struct KernelTables {
  const KernelTable* tables[2];
  int count;
};
KernelTables runnableKernels();

}  // namespace vellum
