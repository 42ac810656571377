#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace vellum {

// An identity of 128 bits (RFC 9562), its bytes in the order of its text. All zero unless set.
struct UUID {
  using Bytes = std::array<std::uint8_t, 16>;
  Bytes bytes{};

  // A new version 4 UUID, from the operating system's or the CPU's random numbers (std::random_device): no
  // seed, no state of ours, any thread. Throws std::exception where the system has no such source.
  static UUID random();
  // The version 4 UUID of 16 random bytes: 6 of their 128 bits give way to version and variant.
  static UUID version4(const Bytes& randomBytes);

  // From 32 hexadecimal digits of either case in groups 8-4-4-4-12 with hyphens between, of any version.
  static std::optional<UUID> parse(std::string_view text);
  // The same 36 characters, letters in upper case.
  std::string text() const;

  friend bool operator==(const UUID&, const UUID&) = default;
};

}  // namespace vellum

template <>
struct std::hash<vellum::UUID> {
  std::size_t operator()(const vellum::UUID& id) const noexcept;
};
