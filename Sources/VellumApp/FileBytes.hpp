#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Whole numbers in the bytes of files.
namespace vellum {

enum class ByteOrder { little, big };

inline void appendNumber(std::string& bytes, std::uint64_t value, int width, ByteOrder order) {
  for (int k = 0; k < width; ++k) {
    const int shift = 8 * (order == ByteOrder::little ? k : width - 1 - k);
    bytes += static_cast<char>(value >> shift & 0xFF);
  }
}

// 0 where the bytes end before.
inline std::uint64_t numberAt(std::string_view bytes, std::size_t position, int width, ByteOrder order) {
  if (position > bytes.size() || bytes.size() - position < static_cast<std::size_t>(width)) return 0;
  std::uint64_t value = 0;
  for (int k = 0; k < width; ++k) {
    const int place = order == ByteOrder::little ? width - 1 - k : k;
    value = value << 8 | static_cast<unsigned char>(bytes[position + static_cast<std::size_t>(place)]);
  }
  return value;
}

}  // namespace vellum
