#pragma once

#include <fmt/format.h>

#include <cmath>
#include <string>
#include <string_view>

#include "VellumCore/Json/Document.hpp"

// How reports show figures. One that is not finite was not measured.
namespace vellum {

// One decimal, never "-0.0".
template <typename Number>
std::string decimal(Number value) {
  const double tenths = std::round(static_cast<double>(value) * 10.0);
  return fmt::format("{:.1f}", tenths == 0.0 ? 0.0 : tenths / 10.0);
}

template <typename Number>
std::string figure(Number value, std::string_view unit) {
  return std::isfinite(value) ? decimal(value) + " " + std::string(unit) : "not measured";
}

// A line of a file's block.
inline void addLine(std::string& block, std::string_view name, std::string_view value) {
  block += fmt::format("  {:<22} {}\n", name, value);
}

template <typename Number>
void setFigure(Json::Object& record, std::string_view key, Number value) {
  if (std::isfinite(value)) record.set(key, value);
}

}  // namespace vellum
