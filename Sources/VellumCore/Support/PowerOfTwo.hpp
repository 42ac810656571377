#pragma once

#include <bit>
#include <cstdint>

namespace vellum {

// 1, 2, 4 ... 2^62.
constexpr bool isPowerOfTwo(std::int64_t number) {
  return number > 0 && std::has_single_bit(static_cast<std::uint64_t>(number));
}

}  // namespace vellum
