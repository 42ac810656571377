#include "vellum/Numbers.hpp"

#include <charconv>
#include <cmath>
#include <system_error>

namespace vellum {

std::optional<double> parseNumber(std::string_view text) {
  double value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || stop != end || !std::isfinite(value)) return {};
  return value;
}

std::optional<double> parseTime(std::string_view text) {
  constexpr double century = 100 * 365.25 * 86'400;
  double seconds = 0;
  for (int field = 0; field < 3; ++field) {
    const std::size_t colon = text.find(':');
    const auto value = parseNumber(text.substr(0, colon));
    const bool isLast = colon == std::string_view::npos;
    if (!value || std::signbit(*value)) return {};
    if (!isLast && *value != std::floor(*value)) return {};  // only seconds have decimals
    if (field > 0 && *value >= 60) return {};
    seconds = seconds * 60 + *value;
    if (isLast) return seconds < century ? std::optional(seconds) : std::nullopt;
    text.remove_prefix(colon + 1);
  }
  return {};
}

}  // namespace vellum
