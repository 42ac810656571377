#include "VellumApp/ChannelMaps.hpp"

#include <algorithm>
#include <array>
#include <set>

#include "VellumApp/FileBytes.hpp"
#include "VellumCore/ChannelOrder.hpp"

namespace vellum::ChannelMaps {
namespace {

// The orders of 1 to 8 channels.
using Orders = std::array<Labels, 8>;

Labels orderOf(const Orders& orders, std::int64_t channelCount) {
  const bool hasOrder = channelCount >= 1 && channelCount <= static_cast<std::int64_t>(orders.size());
  return hasOrder ? orders[static_cast<std::size_t>(channelCount - 1)] : Labels{};
}

// Labels of Core Audio that name no place: no channel, "by coordinates", unknown.
bool namesNoPlace(AudioChannelLabel label) {
  constexpr std::array<AudioChannelLabel, 3> labels = {0, 100, 0xFFFFFFFF};
  return std::find(labels.begin(), labels.end(), label) != labels.end();
}

// A chunk's number of the order, bitmap and number of descriptions; then the descriptions, each a label,
// flags and three coordinates.
constexpr std::size_t headBytes = 12, descriptionBytes = 20;

}  // namespace

Labels flacOrder(std::int64_t channelCount) {
  static const Orders orders = {{{42},
                                 {1, 2},
                                 {1, 2, 3},
                                 {1, 2, 33, 34},
                                 {1, 2, 3, 33, 34},
                                 {1, 2, 3, 4, 33, 34},
                                 {1, 2, 3, 4, 9, 5, 6},
                                 {1, 2, 3, 4, 33, 34, 5, 6}}};
  return orderOf(orders, channelCount);
}

Labels vorbisOrder(std::int64_t channelCount) {
  static const Orders orders = {{{42},
                                 {1, 2},
                                 {1, 3, 2},
                                 {1, 2, 33, 34},
                                 {1, 3, 2, 33, 34},
                                 {1, 3, 2, 33, 34, 4},
                                 {1, 3, 2, 5, 6, 9, 4},
                                 {1, 3, 2, 5, 6, 33, 34, 4}}};
  return orderOf(orders, channelCount);
}

bool isMap(std::span<const AudioChannelLabel> labels) {
  const std::set<AudioChannelLabel> different(labels.begin(), labels.end());
  return different.size() == labels.size() && std::none_of(labels.begin(), labels.end(), namesNoPlace);
}

Labels labelsOfChannelChunk(std::string_view bytes, std::int64_t channelCount) {
  if (bytes.size() < headBytes) return {};
  const auto numberIn = [bytes](std::size_t position) {
    return static_cast<std::uint32_t>(numberAt(bytes, position, 4, ByteOrder::big));
  };
  AudioChannelLayout layout{numberIn(0), numberIn(4), {}};
  if (layout.tag == AudioChannelLayout::useChannelDescriptions) {
    const std::uint32_t count = numberIn(8);
    if (count != channelCount || bytes.size() < channelChunkBytes(channelCount)) return {};
    for (std::size_t c = 0; c < count; ++c)
      layout.labels.push_back(numberIn(headBytes + c * descriptionBytes));
  }
  const auto labels = ChannelOrder::channelLabels(layout);
  const bool isOurs = labels && static_cast<std::int64_t>(labels->size()) == channelCount && isMap(*labels);
  return isOurs ? *labels : Labels{};
}

std::size_t channelChunkBytes(std::int64_t channelCount) {
  return headBytes + static_cast<std::size_t>(channelCount) * descriptionBytes;
}

}  // namespace vellum::ChannelMaps
