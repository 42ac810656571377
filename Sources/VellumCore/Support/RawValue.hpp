#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

// Enumerations whose cases have stable texts, the ones that documents hold: one mechanism for all of them.
// An enumeration joins by giving its table, in the order of its cases:
//
//   template <>
//   inline constexpr auto rawValueTable<BoostBehaviour> =
//       rawValues<BoostBehaviour>({{BoostBehaviour::symmetric, "symmetric"}, ...});
namespace vellum {

template <typename Enumeration>
struct RawValueEntry {
  Enumeration value;
  std::string_view text;
};

template <typename Enumeration, std::size_t count>
constexpr std::array<RawValueEntry<Enumeration>, count> rawValues(
    const RawValueEntry<Enumeration> (&entries)[count]) {
  return std::to_array(entries);
}

template <typename Enumeration>
inline constexpr auto rawValueTable = nullptr;

// The text of a case. Empty for a number that is none of the cases.
template <typename Enumeration>
constexpr std::string_view rawValue(Enumeration value) {
  for (const auto& entry : rawValueTable<Enumeration>)
    if (entry.value == value) return entry.text;
  return {};
}

// The case with exactly this text.
template <typename Enumeration>
constexpr std::optional<Enumeration> fromRawValue(std::string_view text) {
  for (const auto& entry : rawValueTable<Enumeration>)
    if (entry.text == text) return entry.value;
  return {};
}

// Every case, in order.
template <typename Enumeration>
constexpr auto allCases() {
  std::array<Enumeration, rawValueTable<Enumeration>.size()> cases{};
  for (std::size_t k = 0; k < cases.size(); ++k) cases[k] = rawValueTable<Enumeration>[k].value;
  return cases;
}

}  // namespace vellum
