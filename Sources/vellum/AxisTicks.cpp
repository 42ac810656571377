#include "vellum/AxisTicks.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "vellum/ClockText.hpp"

namespace vellum {
namespace {

// 1, 2 or 5 times a power of ten, at least `least`.
double roundStep(double least) {
  const double power = std::pow(10.0, std::floor(std::log10(least)));
  for (const double factor : {1.0, 2.0, 5.0})
    if (factor * power >= least * (1 - 1e-9)) return factor * power;
  return 10 * power;
}

// The multiples of a step from low to high.
template <typename Label>
std::vector<Tick> multiples(double step, double low, double high, const Label& label) {
  std::vector<Tick> ticks;
  for (double k = std::ceil(low / step - 1e-9); k * step <= high + step * 1e-9; ++k)
    ticks.push_back({k * step, label(k * step + 0.0)});  // no negative zero
  return ticks;
}

int decimalsOf(double step) {
  return step >= 1 ? 0 : static_cast<int>(std::ceil(-std::log10(step) - 1e-9));
}

std::string frequencyLabel(double hz) {
  // Rounded to the digits that a step has, so that no sum's last bit shows.
  return hz >= 1000 ? fmt::format("{:.6g}k", hz / 1000) : fmt::format("{:.6g}", hz);
}

std::string timeLabel(double sec, int decimals, bool isClock) {
  if (!isClock) return fmt::format("{:.{}f}", sec, decimals);
  const double scale = std::pow(10.0, decimals);
  const double units = std::round(sec * scale);
  const double whole = std::floor(units / scale);
  if (decimals == 0) return clockText(whole);
  return fmt::format("{}.{:0{}.0f}", clockText(whole), units - whole * scale, decimals);
}

template <typename Action>
void forEachDigitOfDecades(const FrequencyAxis& axis, const Action& action) {
  for (double decade = std::pow(10.0, std::floor(std::log10(axis.lowHz))); decade <= axis.highHz;
       decade *= 10)
    for (int digit = 1; digit <= 9; ++digit)
      if (digit * decade >= axis.lowHz * (1 - 1e-9) && digit * decade <= axis.highHz)
        action(digit, digit * decade);
}

}  // namespace

std::vector<Tick> levelTicks(double lowDB, double highDB, double most) {
  return multiples(std::max(1.0, roundStep((highDB - lowDB) / most)), lowDB, highDB,
                   [](double dB) { return fmt::format("{:.0f}", dB); });
}

std::vector<Tick> frequencyTicks(const FrequencyAxis& axis, double most) {
  if (axis.scale == FrequencyScale::linear)
    return multiples(roundStep((axis.highHz - axis.lowHz) / most), axis.lowHz, axis.highHz, frequencyLabel);
  std::vector<Tick> ticks;
  const bool onlyDecades = 3 * std::log10(axis.highHz / axis.lowHz) > most;
  forEachDigitOfDecades(axis, [&](int digit, double hz) {
    if (digit == 1 || (!onlyDecades && (digit == 2 || digit == 5))) ticks.push_back({hz, frequencyLabel(hz)});
  });
  return ticks;
}

std::vector<double> minorFrequencies(const FrequencyAxis& axis) {
  std::vector<double> frequencies;
  if (axis.scale == FrequencyScale::log)
    forEachDigitOfDecades(axis, [&](int, double hz) { frequencies.push_back(hz); });
  return frequencies;
}

std::vector<Tick> timeTicks(double fromSec, double toSec, double most) {
  const double least = (toSec - fromSec) / most;
  double step = roundStep(least);
  if (least > 5) {
    step = 3600 * roundStep(std::max(1.0, least / 3600));
    for (const double steps : {3600.0, 1800.0, 900.0, 600.0, 300.0, 120.0, 60.0, 30.0, 20.0, 15.0, 10.0})
      if (steps >= least) step = std::min(step, steps);
  }
  return multiples(step, fromSec, toSec,
                   [&](double sec) { return timeLabel(sec, decimalsOf(step), toSec >= 60); });
}

}  // namespace vellum
