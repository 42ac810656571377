#pragma once

#include <cstdint>

namespace vellum {

// Whole numbers from lower to upper, both included; none where upper is below lower.
struct ClosedRange {
  std::int64_t lower, upper;

  constexpr bool isEmpty() const { return upper < lower; }
  constexpr bool contains(std::int64_t number) const { return lower <= number && number <= upper; }

  friend bool operator==(const ClosedRange&, const ClosedRange&) = default;
};

}  // namespace vellum
