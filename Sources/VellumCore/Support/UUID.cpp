#include "VellumCore/Support/UUID.hpp"

#include <random>

namespace vellum {

namespace {

constexpr std::size_t textLength = 36;

// Whether a hyphen stands before this byte.
constexpr bool startsGroup(std::size_t byte) {
  return byte == 4 || byte == 6 || byte == 8 || byte == 10;
}

std::optional<std::uint8_t> digitOf(char c) {
  if (c >= '0' && c <= '9') return static_cast<std::uint8_t>(c - '0');
  if (c >= 'A' && c <= 'F') return static_cast<std::uint8_t>(c - 'A' + 10);
  if (c >= 'a' && c <= 'f') return static_cast<std::uint8_t>(c - 'a' + 10);
  return {};
}

}  // namespace

UUID UUID::random() {
  std::random_device source;
  Bytes bytes;
  for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(source() & 0xFF);
  return version4(bytes);
}

UUID UUID::version4(const Bytes& randomBytes) {
  UUID id{randomBytes};
  id.bytes[6] = static_cast<std::uint8_t>((id.bytes[6] & 0x0F) | 0x40);  // version 4
  id.bytes[8] = static_cast<std::uint8_t>((id.bytes[8] & 0x3F) | 0x80);  // variant 10
  return id;
}

std::optional<UUID> UUID::parse(std::string_view text) {
  if (text.size() != textLength) return {};
  UUID id;
  std::size_t at = 0;
  for (std::size_t k = 0; k < id.bytes.size(); ++k) {
    if (startsGroup(k) && text[at++] != '-') return {};
    const auto high = digitOf(text[at++]), low = digitOf(text[at++]);
    if (!high || !low) return {};
    id.bytes[k] = static_cast<std::uint8_t>(*high << 4 | *low);
  }
  return id;
}

std::string UUID::text() const {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string text;
  text.reserve(textLength);
  for (std::size_t k = 0; k < bytes.size(); ++k) {
    if (startsGroup(k)) text += '-';
    text += digits[bytes[k] >> 4];
    text += digits[bytes[k] & 0x0F];
  }
  return text;
}

}  // namespace vellum

std::size_t std::hash<vellum::UUID>::operator()(const vellum::UUID& id) const noexcept {
  return std::hash<std::string_view>()({reinterpret_cast<const char*>(id.bytes.data()), id.bytes.size()});
}
