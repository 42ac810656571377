#pragma once

#include <optional>
#include <string_view>

namespace vellum {

// A finite number that is the whole text, with a point for the decimals whatever the locale.
std::optional<double> parseNumber(std::string_view text);

// Seconds, "90.5", or a clock time, "1:30.5" and "1:02:03.4"; not negative, and below a century.
std::optional<double> parseTime(std::string_view text);

}  // namespace vellum
