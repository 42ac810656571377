#pragma once

#include <cmath>
#include <cstdint>
#include <string>

namespace vellum {

// "12.345 s". Not negative.
inline std::string secondsText(double seconds) {
  const auto milliseconds = static_cast<std::int64_t>(std::llround(seconds * 1000.0));
  const std::string fraction = std::to_string(1000 + milliseconds % 1000).substr(1);
  return std::to_string(milliseconds / 1000) + "." + fraction + " s";
}

}  // namespace vellum
