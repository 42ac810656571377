#pragma once

#include <cstdint>

// Sine, cosine, exponential and logarithm of our own. The C library's differ in the last bit between CPUs,
// because it picks a version with fused multiply-add where there is one; these are additions and products in
// a stated order, so they are the same everywhere. `Value` is double or a vector of doubles.
//
// Internal linkage, as in KernelLoops.hpp: code compiled for a newer CPU must not be picked for an older one.

namespace vellum {
namespace {

// What belongs to a double, or to a vector of them: its bits, and as many floats.
template <typename Value>
struct Lanes;
template <>
struct Lanes<double> {
  typedef std::uint64_t Bits;
  typedef float Single;
};

template <typename To, typename From>
inline To sameBits(From from) {
  static_assert(sizeof(To) == sizeof(From));
  To to;
  __builtin_memcpy(&to, &from, sizeof to);
  return to;
}

// Added to a value below 2^51 it leaves no room for a fraction: the sum holds the nearest integer in its
// lowest bits.
constexpr double roundingShift = 0x1.8p52;

constexpr double reciprocalFactorial(int k) {
  double product = 1;
  for (int i = 2; i <= k; ++i) product *= i;
  return 1 / product;
}

// values[k] = formula(k), when the program is compiled.
template <int count>
struct Table {
  double values[count];
};
template <int count, typename Formula>
constexpr Table<count> tableOf(Formula formula) {
  Table<count> table{};
  for (int k = 0; k < count; ++k) table.values[k] = formula(k);
  return table;
}

constexpr double pi = 3.141592653589793, twoPi = 6.283185307179586;

// --- Sine and cosine -------------------------------------------------------------------------------------

// A phase as (k + offset) pi + angle, |angle| <= pi / 2 and k an integer. `flip` is the sign bit of (-1)^k.
template <typename Value>
struct HalfTurns {
  Value angle;
  typename Lanes<Value>::Bits flip;
};

// pi in three parts. The first two are so short that their products with any count of half turns below 2^31
// are exact.
constexpr double piHigh = 0x1.921fbp+1, piMiddle = 0x5.4442p-23, piLow = 0x1.a308d313198a3p-40;

// `offset` is 0 or 1/2. Exact to a few 1e-16 up to phases of 2^31 pi.
template <typename Value>
inline HalfTurns<Value> halfTurnsOf(Value phase, double offset) {
  constexpr double reciprocalOfPi = 0.3183098861837907;
  const Value shifted = (phase * reciprocalOfPi - offset) + roundingShift;
  const Value turns = (shifted - roundingShift) + offset;
  return {((phase - turns * piHigh) - turns * piMiddle) - turns * piLow,
          sameBits<typename Lanes<Value>::Bits>(shifted) << 63};
}

template <typename Value>
inline Value flipped(Value value, typename Lanes<Value>::Bits flip) {
  return sameBits<Value>(sameBits<typename Lanes<Value>::Bits>(value) ^ flip);
}

// sin(angle), |angle| <= pi / 2: its series to the 17th power, off by at most 5e-14.
template <typename Value>
inline Value sineOfAngle(Value angle) {
  const Value square = angle * angle;
  Value sum = Value{} + reciprocalFactorial(17);
  sum = sum * square - reciprocalFactorial(15);
  sum = sum * square + reciprocalFactorial(13);
  sum = sum * square - reciprocalFactorial(11);
  sum = sum * square + reciprocalFactorial(9);
  sum = sum * square - reciprocalFactorial(7);
  sum = sum * square + reciprocalFactorial(5);
  sum = sum * square - reciprocalFactorial(3);
  return angle + angle * (square * sum);
}

// cos(angle), |angle| <= pi / 2: its series to the 16th power, off by at most 6e-13.
template <typename Value>
inline Value cosineOfAngle(Value angle) {
  const Value square = angle * angle;
  Value sum = Value{} + reciprocalFactorial(16);
  sum = sum * square - reciprocalFactorial(14);
  sum = sum * square + reciprocalFactorial(12);
  sum = sum * square - reciprocalFactorial(10);
  sum = sum * square + reciprocalFactorial(8);
  sum = sum * square - reciprocalFactorial(6);
  sum = sum * square + reciprocalFactorial(4);
  sum = sum * square - reciprocalFactorial(2);
  return 1.0 + square * sum;
}

template <typename Value>
inline Value sineOfPhase(Value phase) {
  const HalfTurns<Value> turns = halfTurnsOf(phase, 0);
  return flipped(sineOfAngle(turns.angle), turns.flip);
}

// --- Exponential and logarithm ---------------------------------------------------------------------------

// ln 2 in two parts; the products of the first with an exponent are exact.
constexpr double ln2High = 0x1.62e42fep-1, ln2Low = 0x1.f473de6af278fp-30;

// e^y as power x (1 + rest), power = 2^k and |rest| <= 0.42.
template <typename Value>
struct Exponential {
  Value power, rest;
};

// |y| <= 700. The rest is its series to the 14th power, exact to a few 1e-16.
template <typename Value>
inline Exponential<Value> exponentialParts(Value y) {
  constexpr double reciprocalOfLn2 = 1.4426950408889634;
  const Value shifted = y * reciprocalOfLn2 + roundingShift;
  const Value exponent = shifted - roundingShift;
  const Value s = (y - exponent * ln2High) - exponent * ln2Low;
  static constexpr Table<15> terms = tableOf<15>(reciprocalFactorial);
  Value sum = Value{} + terms.values[14];
  for (int k = 13; k >= 2; --k) sum = sum * s + terms.values[k];
  // The exponent's bits of 2^k; the shift drops all above.
  const auto power = (sameBits<typename Lanes<Value>::Bits>(shifted) + 1023) << 52;
  return {sameBits<Value>(power), s + s * s * sum};
}

// e^y, |y| <= 700.
template <typename Value>
inline Value exponential(Value y) {
  const Exponential<Value> parts = exponentialParts(y);
  return parts.power + parts.power * parts.rest;
}

// e^y - 1, |y| <= 700, as exact next to y = 0 as anywhere.
template <typename Value>
inline Value exponentialMinusOne(Value y) {
  const Exponential<Value> parts = exponentialParts(y);
  return (parts.power - 1.0) + parts.power * parts.rest;
}

// ln(x) of a normal x > 0, to a few units of its last place, next to x = 1 too.
inline double naturalLogarithm(double x) {
  int exponent = 0;
  double mantissa = __builtin_frexp(x, &exponent);
  if (mantissa < 0.7071067811865476) mantissa *= 2, --exponent;
  const double s = (mantissa - 1) / (mantissa + 1);  // ln = 2 artanh(s), |s| <= 0.172
  const double square = s * s;
  double sum = 0;
  for (int k = 23; k >= 3; k -= 2) sum = (sum + 1.0 / k) * square;
  return exponent * ln2High + (exponent * ln2Low + (2 * s + 2 * s * sum));
}

}  // namespace
}  // namespace vellum
