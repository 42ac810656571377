#pragma once

// The loops that make test signals; see Kernels.hpp for the contract and KernelLoops.hpp for the rules. Every
// frame goes its own way from its number, so that neither the vectors' width nor a cut changes a sample.

#include "VellumCore/Kernels/Elementary.hpp"
#include "VellumCore/Kernels/Kernels.hpp"

namespace vellum {
namespace {

typedef double DoubleVector __attribute__((vector_size(VELLUM_VECTOR_BYTES)));
typedef std::uint64_t DoubleVectorBits __attribute__((vector_size(VELLUM_VECTOR_BYTES)));
typedef float SingleVector __attribute__((vector_size(VELLUM_VECTOR_BYTES / 2)));
constexpr int doubleWidth = VELLUM_VECTOR_BYTES / static_cast<int>(sizeof(double));

template <>
struct Lanes<DoubleVector> {
  typedef DoubleVectorBits Bits;
  typedef SingleVector Single;
};

inline float narrow(double value) {
  return static_cast<float>(value);
}
inline SingleVector narrow(DoubleVector value) {
  return __builtin_convertvector(value, SingleVector);
}
inline double widen(float value) {
  return static_cast<double>(value);
}
inline DoubleVector widen(SingleVector value) {
  return __builtin_convertvector(value, DoubleVector);
}

inline bool anyBelow(double value, double limit) {
  return value < limit;
}
inline bool anyBelow(DoubleVector value, double limit) {
  bool any = false;
  for (int k = 0; k < doubleWidth; ++k) any |= value[k] < limit;
  return any;
}

template <typename Single>
inline Single loadAs(const float* x) {
  Single value;
  __builtin_memcpy(&value, x, sizeof value);
  return value;
}
template <typename Single>
inline void storeAs(float* x, Single value) {
  __builtin_memcpy(x, &value, sizeof value);
}

// frame, frame + 1 ...
template <typename Value>
inline Value framesFrom(std::int64_t frame);
template <>
inline double framesFrom<double>(std::int64_t frame) {
  return static_cast<double>(frame);
}
template <>
inline DoubleVector framesFrom<DoubleVector>(std::int64_t frame) {
  DoubleVector ramp;
  for (int k = 0; k < doubleWidth; ++k) ramp[k] = k;
  return static_cast<double>(frame) + ramp;
}

// x[i] = amplitude x body(frame i of the signal), the body in 64 bit, what follows in 32.
template <typename Body>
inline void fillFrames(float* x, std::int64_t first, std::int64_t n, float amplitude, const Body& body) {
  std::int64_t i = 0;
  for (; i + doubleWidth <= n; i += doubleWidth)
    storeAs(x + i, narrow(body(framesFrom<DoubleVector>(first + i))) * amplitude);
  for (; i < n; ++i) x[i] = narrow(body(framesFrom<double>(first + i))) * amplitude;
}

void sine(double step, float amplitude, float* x, std::int64_t first, std::int64_t n) {
  fillFrames(x, first, n, amplitude, [=](auto frame) { return sineOfPhase(frame * step); });
}

void linearChirp(const Chirp& chirp, float amplitude, float* x, std::int64_t first, std::int64_t n) {
  const Chirp c = chirp;
  fillFrames(x, first, n, amplitude, [=](auto frame) {
    const auto t = frame / c.sampleRate;
    // This order keeps a product finite that t squared would take beyond 64 bit.
    return sineOfPhase(twoPi * (c.startHz * t + c.slope * t * t));
  });
}

void logarithmicChirp(const Chirp& chirp, float amplitude, float* x, std::int64_t first, std::int64_t n) {
  const Chirp c = chirp;
  fillFrames(x, first, n, amplitude, [=](auto frame) {
    const auto t = frame / c.sampleRate;
    return sineOfPhase(c.scale * exponentialMinusOne(t / c.seconds * c.logRatio));
  });
}

// --- Few harmonics: Clenshaw's recurrence ----------------------------------------------------------------

// Vectors that go through the recurrence side by side: each alone would wait for its own last step.
constexpr int sideBySide = 4;

template <typename Value, int count>
inline void seriesAt(const SineSeries& series, double step, float* x, std::int64_t first) {
  constexpr int width = static_cast<int>(sizeof(Value) / sizeof(double));
  Value sines[count], twiceCosines[count], newest[count], before[count];
  for (int v = 0; v < count; ++v) {
    const HalfTurns<Value> turns = halfTurnsOf(framesFrom<Value>(first + v * width) * step, 0);
    sines[v] = flipped(sineOfAngle(turns.angle), turns.flip);
    // Of the step from one term to the next: 2 cos(2w) for odd harmonics only, else 2 cos(w).
    twiceCosines[v] = series.oddOnly ? 2.0 - 4.0 * (sines[v] * sines[v])
                                     : 2.0 * flipped(cosineOfAngle(turns.angle), turns.flip);
    newest[v] = before[v] = Value{};
  }
  for (std::int64_t k = series.count - 1; k >= 0; --k) {
    const double coefficient = series.coefficients[k];
    for (int v = 0; v < count; ++v) {
      const Value next = coefficient + (twiceCosines[v] * newest[v] - before[v]);
      before[v] = newest[v];
      newest[v] = next;
    }
  }
  for (int v = 0; v < count; ++v) {
    const Value sum = series.oddOnly ? newest[v] + before[v] : newest[v];
    storeAs(x + v * width, narrow(sines[v] * sum));
  }
}

void sineSeries(const SineSeries& series, double step, float* x, std::int64_t first, std::int64_t n) {
  const SineSeries s = series;
  constexpr int block = sideBySide * doubleWidth;
  std::int64_t i = 0;
  for (; i + block <= n; i += block) seriesAt<DoubleVector, sideBySide>(s, step, x + i, first + i);
  for (; i < n; ++i) seriesAt<double, 1>(s, step, x + i, first + i);
}

// --- Many harmonics: the sum in closed form --------------------------------------------------------------
//
//   D(u) = integral from 0 to u of sin(L v) / (2 sin v) dv,    0 <= u <= pi / 2,
// is the sum of sin(h u) / h over odd h < L where L is even, and where L is 2N + 1, the sum of the same over
// all h <= N is 2 D(u / 2) - u / 2. With 1 / sin v = 1 / v + (1 / sin v - 1 / v) the first part is half a
// sine integral, Si(L u) / 2, and the second, which is smooth, is integrated by parts. The sine integral is
//   Si(x) = pi / 2 - f(x) cos x - g(x) sin x.

// Under x = L u the series of Si and of the smooth part serve, from there on their expansions. Where L is
// at least 64, both are off by less than 1e-8.
constexpr double nearEdge = 8;

// f(x) = 1/x - 2/x^3 + F(1/x^2) / x^5 and g(x) = 1/x^2 - 6/x^4 + G(1/x^2) / x^6: what is left of f and g.
//   F(y) = integral from 0 to infinity of v^4 e^-v / (1 + y v^2) dv, G(y) the same of v^5,
// each by its interpolation in the six Chebyshev points of 0 <= y <= 1/64.
constexpr double restOfF[] = {23.998946254314819,  -714.98717740805357, 35940.761605509319,
                              -1955393.8014407705, 74335982.513616804,  -1276758557.5415588};
constexpr double restOfG[] = {119.98750945630258,  -4980.3496407461463, 309818.2870695861,
                              -18849582.776619744, 755380054.15155611,  -13317103950.940906};

template <typename Value>
inline Value horner(const double (&coefficients)[6], Value y) {
  Value sum = Value{} + coefficients[5];
  for (int k = 4; k >= 0; --k) sum = sum * y + coefficients[k];
  return sum;
}

// Si(x), 0 <= x <= 8, by its series: sum of (-1)^k x^(2k+1) / ((2k+1) (2k+1)!).
template <typename Value>
inline Value sineIntegralSeries(Value x) {
  static constexpr Table<19> terms =
      tableOf<19>([](int k) { return reciprocalFactorial(2 * k + 1) / (2 * k + 1); });
  const Value square = x * x;
  Value sum{};
  for (int k = 18; k >= 0; --k) sum = terms.values[k] - sum * square;
  return sum * x;
}

template <typename Value>
struct EdgeAngle {
  double L;
  Value u, x;         // x = L u
  Value sinX, cosX;   // of L u
  Value a, cosU;      // a = 1 / (L sin u)
  Value y, inverseX;  // y = 1 / x^2
};

template <typename Value>
inline EdgeAngle<Value> edgeAngle(double L, Value u) {
  // Beyond, the ripple around an edge is below 1e-9 and any phase of it will do.
  const Value product = L * u, most = Value{} + 0x1p31;
  const Value x = product < most ? product : most;
  const HalfTurns<Value> turns = halfTurnsOf(x, 0);
  const Value inverseX = 1.0 / x;
  return {L,
          u,
          x,
          flipped(sineOfAngle(turns.angle), turns.flip),
          flipped(cosineOfAngle(turns.angle), turns.flip),
          1.0 / (L * sineOfAngle(u)),
          cosineOfAngle(u),
          inverseX * inverseX,
          inverseX};
}

// D(u) next to u = 0: sin(Lv) times 1 / (2 sin v) - 1 / (2v) = v / 12 + 7 v^3 / 720 + ..., term by term.
template <typename Value>
inline Value edgeSumNear(const EdgeAngle<Value>& e) {
  const double L2 = e.L * e.L;
  const Value x2 = e.x * e.x;
  const Value first = e.sinX - e.x * e.cosX;
  const Value third = (3.0 * x2 - 6.0) * e.sinX - (x2 - 6.0) * e.x * e.cosX;
  return 0.5 * sineIntegralSeries(e.x) + (first / 12.0 + (7.0 / 720) * third / L2) / L2;
}

template <typename Value>
inline Value edgeSum(const EdgeAngle<Value>& e) {
  const Value a2 = e.a * e.a, y2 = e.y * e.y, cos2 = e.cosU * e.cosU;
  const Value f = e.a - (1.0 + cos2) * (a2 * e.a) + y2 * e.inverseX * horner(restOfF, e.y);
  const Value g = e.cosU * (a2 - (5.0 + cos2) * (a2 * a2)) + y2 * e.y * horner(restOfG, e.y);
  const Value far = pi / 4 - 0.5 * (e.cosX * f + e.sinX * g);
  if (!anyBelow(e.x, nearEdge)) return far;
  return e.x < nearEdge ? edgeSumNear(e) : far;
}

// The sum of cos(h u) / h^2 over odd h < L, L even: pi^2 / 8 less the integral of D, by parts again.
template <typename Value>
inline Value cornerSumNear(const EdgeAngle<Value>& e) {
  const double L2 = e.L * e.L;
  const Value x2 = e.x * e.x;
  const Value zeroth = -0.5 * e.cosX;
  const Value second = (2.0 - x2) * e.cosX + 2.0 * e.x * e.sinX;
  const Value fourth = (4.0 * x2 - 24.0) * e.x * e.sinX - ((x2 - 12.0) * x2 + 24.0) * e.cosX;
  return pi * pi / 8 - e.u * edgeSumNear(e) +
         (zeroth + (second / 12.0 + (7.0 / 720) * fourth / L2) / L2) / e.L;
}

template <typename Value>
inline Value cornerSum(const EdgeAngle<Value>& e) {
  const Value a2 = e.a * e.a, y2 = e.y * e.y, cos2 = e.cosU * e.cosU;
  const Value f = y2 * horner(restOfF, e.y) - 2.0 * e.cosU * a2;
  const Value g = y2 * e.inverseX * horner(restOfG, e.y) + e.a - 3.0 * (1.0 + cos2) * (a2 * e.a);
  const Value far = pi * pi / 8 - (pi / 4) * e.u + (0.5 / e.L) * (e.cosX * f + e.sinX * g);
  if (!anyBelow(e.x, nearEdge)) return far;
  return e.x < nearEdge ? cornerSumNear(e) : far;
}

template <typename Value>
inline typename Lanes<Value>::Bits signBit(Value value) {
  return (sameBits<typename Lanes<Value>::Bits>(value) >> 63) << 63;
}

void manyHarmonicsSquare(double L, double step, float* x, std::int64_t first, std::int64_t n) {
  fillFrames(x, first, n, 1.0f, [=](auto frame) {
    const auto turns = halfTurnsOf(frame * step, 0);
    const auto sign = signBit(turns.angle);
    return flipped(edgeSum(edgeAngle(L, flipped(turns.angle, sign))), sign ^ turns.flip);
  });
}

void manyHarmonicsTriangle(double L, double step, float* x, std::int64_t first, std::int64_t n) {
  fillFrames(x, first, n, 1.0f, [=](auto frame) {
    const auto turns = halfTurnsOf(frame * step, 0.5);
    return flipped(cornerSum(edgeAngle(L, flipped(turns.angle, signBit(turns.angle)))), turns.flip);
  });
}

// The sum over all h is 2 D(u) - u at half the angle, and alternating signs shift it by half a turn.
void manyHarmonicsSawtooth(double L, double step, float* x, std::int64_t first, std::int64_t n) {
  fillFrames(x, first, n, 1.0f, [=](auto frame) {
    const auto angle = halfTurnsOf(frame * step * 0.5, 0.5).angle;
    const auto sign = signBit(angle);
    return angle - 2.0 * flipped(edgeSum(edgeAngle(L, flipped(angle, sign))), sign);
  });
}

// --- Gains -----------------------------------------------------------------------------------------------

template <typename Value>
inline void raiseAt(float* x, std::int64_t position, double direction, float length) {
  typedef typename Lanes<Value>::Single Single;
  constexpr float singlePi = 0x1.921fb4p+1f;  // rounded toward zero
  const Single p = narrow(static_cast<double>(position) + direction * framesFrom<Value>(0));
  const Value angle = widen(p * singlePi / length);
  const Single cosine = narrow(-sineOfAngle(angle - pi / 2));
  storeAs(x, loadAs<Single>(x) * (0.5f - 0.5f * cosine));
}

void raisedCosine(std::int64_t position, std::int64_t direction, std::int64_t length, float* x,
                  std::int64_t n) {
  const double ahead = static_cast<double>(direction);
  const float whole = static_cast<float>(length);
  std::int64_t i = 0;
  for (; i + doubleWidth <= n; i += doubleWidth)
    raiseAt<DoubleVector>(x + i, position + direction * i, ahead, whole);
  for (; i < n; ++i) raiseAt<double>(x + i, position + direction * i, ahead, whole);
}

template <typename Value>
inline void decibelsToGainsAt(float* x) {
  typedef typename Lanes<Value>::Single Single;
  // Beyond these a float holds infinity and 0.
  const Value most = Value{} + 120.0, least = Value{} - 120.0;
  Value y = widen(loadAs<Single>(x) * 0.115129255f);
  y = y > most ? most : y;
  y = y < least ? least : y;
  storeAs(x, narrow(exponential(y)));
}

void decibelsToGains(float* x, std::int64_t n) {
  std::int64_t i = 0;
  for (; i + doubleWidth <= n; i += doubleWidth) decibelsToGainsAt<DoubleVector>(x + i);
  for (; i < n; ++i) decibelsToGainsAt<double>(x + i);
}

// ln(x) of a normal x > 0, off by less than 1e-10: naturalLogarithm for vectors, and for 32-bit results.
template <typename Value>
inline Value shortLogarithm(Value x) {
  typedef typename Lanes<Value>::Bits Bits;
  constexpr std::uint64_t mantissaBits = 0x000fffffffffffff, one = 0x3ff0000000000000;
  constexpr std::uint64_t twoTo52 = 0x4330000000000000;  // whose lowest bits count in ones
  const Bits bits = sameBits<Bits>(x);
  Value mantissa = sameBits<Value>((bits & mantissaBits) | one);
  Value exponent = sameBits<Value>((bits >> 52) | twoTo52) - (0x1p52 + 1023);
  const auto isLarge = mantissa > Value{} + 1.4142135623730951;
  mantissa = isLarge ? mantissa * 0.5 : mantissa;
  exponent = isLarge ? exponent + 1.0 : exponent;
  const Value s = (mantissa - 1.0) / (mantissa + 1.0);  // ln = 2 artanh(s), |s| <= 0.172
  const Value square = s * s;
  Value sum = Value{} + 1.0 / 11;
  for (int k = 9; k >= 3; k -= 2) sum = sum * square + 1.0 / k;
  return exponent * (ln2High + ln2Low) + 2.0 * (s + s * square * sum);
}

template <typename Value>
inline void powersToDecibelsAt(float scale, float least, float* x) {
  typedef typename Lanes<Value>::Single Single;
  constexpr double decibelsPerUnit = 4.3429448190325183;  // 10 / ln 10
  constexpr float most = 0x1.fffffep127f;
  const Single scaled = loadAs<Single>(x) * scale;
  const Single raised = scaled > least ? scaled : Single{} + least;
  const Single power = raised < most ? raised : Single{} + most;
  storeAs(x, narrow(decibelsPerUnit * shortLogarithm(widen(power))));
}

void powersToDecibels(float scale, float least, float* x, std::int64_t n) {
  std::int64_t i = 0;
  for (; i + doubleWidth <= n; i += doubleWidth) powersToDecibelsAt<DoubleVector>(scale, least, x + i);
  for (; i < n; ++i) powersToDecibelsAt<double>(scale, least, x + i);
}

}  // namespace
}  // namespace vellum
