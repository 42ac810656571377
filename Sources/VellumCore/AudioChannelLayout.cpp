#include "VellumCore/AudioChannelLayout.hpp"

#include <algorithm>
#include <array>

namespace vellum {
namespace {

// The orders that have a number, by that number: Core Audio's constants.
struct Order {
  std::uint32_t number;
  std::array<AudioChannelLabel, 8> labels;  // up to the first 0

  auto end() const { return std::find(labels.begin(), labels.end(), 0u); }
  AudioChannelLayoutTag tag() const {
    return audioChannelLayoutTag(number, static_cast<std::uint32_t>(end() - labels.begin()));
  }
};

constexpr std::array<Order, 47> orders = {{
    {100, {42}},                        // mono
    {101, {1, 2}},                      // stereo
    {102, {301, 302}},                  // stereo headphones
    {103, {38, 39}},                    // matrix stereo
    {104, {204, 205}},                  // mid/side
    {108, {1, 2, 5, 6}},                // quadraphonic
    {109, {1, 2, 5, 6, 3}},             // pentagonal
    {110, {1, 2, 5, 6, 3, 9}},          // hexagonal
    {111, {1, 2, 5, 6, 3, 9, 35, 36}},  // octagonal
    {113, {1, 2, 3}},                   // MPEG 3.0 A
    {114, {3, 1, 2}},                   // MPEG 3.0 B
    {115, {1, 2, 3, 9}},                // MPEG 4.0 A
    {116, {3, 1, 2, 9}},                // MPEG 4.0 B
    {117, {1, 2, 3, 5, 6}},             // MPEG 5.0 A
    {118, {1, 2, 5, 6, 3}},             // MPEG 5.0 B
    {119, {1, 3, 2, 5, 6}},             // MPEG 5.0 C
    {120, {3, 1, 2, 5, 6}},             // MPEG 5.0 D
    {121, {1, 2, 3, 4, 5, 6}},          // MPEG 5.1 A
    {122, {1, 2, 5, 6, 3, 4}},          // MPEG 5.1 B
    {123, {1, 3, 2, 5, 6, 4}},          // MPEG 5.1 C
    {124, {3, 1, 2, 5, 6, 4}},          // MPEG 5.1 D
    {125, {1, 2, 3, 4, 5, 6, 9}},       // MPEG 6.1 A
    {126, {1, 2, 3, 4, 5, 6, 7, 8}},    // MPEG 7.1 A
    {127, {3, 7, 8, 1, 2, 5, 6, 4}},    // MPEG 7.1 B
    {128, {1, 2, 3, 4, 5, 6, 33, 34}},  // MPEG 7.1 C
    {130, {1, 2, 3, 4, 5, 6, 38, 39}},  // SMPTE DTV
    {131, {1, 2, 9}},                   // ITU 2.1
    {132, {1, 2, 5, 6}},                // ITU 2.2
    {133, {1, 2, 4}},                   // DVD 4, WAVE 2.1
    {134, {1, 2, 4, 9}},                // DVD 5
    {135, {1, 2, 4, 5, 6}},             // DVD 6
    {136, {1, 2, 3, 4}},                // DVD 10
    {137, {1, 2, 3, 4, 9}},             // DVD 11
    {138, {1, 2, 5, 6, 4}},             // DVD 18
    {139, {1, 2, 5, 6, 3, 9}},          // 6.0
    {140, {1, 2, 5, 6, 3, 33, 34}},     // 7.0
    {141, {3, 1, 2, 5, 6, 9}},          // AAC 6.0
    {142, {3, 1, 2, 5, 6, 9, 4}},       // AAC 6.1
    {143, {3, 1, 2, 5, 6, 33, 34}},     // AAC 7.0
    {144, {3, 1, 2, 5, 6, 33, 34, 9}},  // AAC octagonal
    {148, {1, 2, 5, 6, 3, 7, 8}},       // 7.0 front
    {183, {3, 1, 2, 5, 6, 33, 34, 4}},  // AAC 7.1 B
    {185, {1, 2, 33, 34}},              // WAVE 4.0 B
    {186, {1, 2, 3, 33, 34}},           // WAVE 5.0 B
    {187, {1, 2, 3, 4, 33, 34}},        // WAVE 5.1 B
    {188, {1, 2, 3, 4, 9, 5, 6}},       // WAVE 6.1
    {189, {1, 2, 3, 4, 33, 34, 5, 6}},  // WAVE 7.1
}};

}  // namespace

std::optional<AudioChannelLayout> layoutForTag(AudioChannelLayoutTag tag) {
  const auto order =
      std::find_if(orders.begin(), orders.end(), [tag](const Order& known) { return known.tag() == tag; });
  if (order == orders.end()) return {};
  return AudioChannelLayout::ofLabels({order->labels.begin(), order->end()});
}

std::optional<AudioChannelLayout> layoutForBitmap(std::uint32_t bitmap) {
  constexpr std::uint32_t knownBits = 18;
  if (bitmap == 0 || bitmap >> knownBits != 0) return {};
  AudioChannelLayout layout;
  for (std::uint32_t bit = 0; bit < knownBits; ++bit)
    if (bitmap >> bit & 1) layout.labels.push_back(bit + 1);
  return layout;
}

}  // namespace vellum
