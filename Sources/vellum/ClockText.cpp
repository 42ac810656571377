#include "vellum/ClockText.hpp"

#include <fmt/format.h>

#include <cmath>
#include <cstdint>

namespace vellum {

std::string clockText(double seconds) {
  const auto whole = static_cast<std::int64_t>(seconds);
  const std::int64_t hours = whole / 3600, minutes = whole / 60 % 60;
  return hours > 0 ? fmt::format("{}:{:02}:{:02}", hours, minutes, whole % 60)
                   : fmt::format("{}:{:02}", minutes, whole % 60);
}

std::string clockTextWithTenths(double seconds) {
  const std::int64_t tenths = std::llround(seconds * 10.0);
  return fmt::format("{}.{}", clockText(static_cast<double>(tenths / 10)), tenths % 10);
}

}  // namespace vellum
