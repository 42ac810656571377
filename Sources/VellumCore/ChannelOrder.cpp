#include "VellumCore/ChannelOrder.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <string_view>

namespace vellum::ChannelOrder {
namespace {

struct Channel {
  AudioChannelLabel label;
  std::string_view shortName;
  std::optional<float> weight;
};

constexpr std::array<Channel, 15> channels = {{
    {1, "L", 1.0f},
    {2, "R", 1.0f},
    {3, "C", 1.0f},
    {4, "LFE", 0.0f},
    {5, "Ls", surroundWeight},
    {6, "Rs", surroundWeight},
    {7, "Lc", 1.0f},
    {8, "Rc", 1.0f},
    {9, "Cs", {}},
    {10, "Lss", surroundWeight},
    {11, "Rss", surroundWeight},
    {33, "Lb", surroundWeight},
    {34, "Rb", surroundWeight},
    {37, "LFE2", 0.0f},
    {42, "M", {}},
}};

const Channel* find(AudioChannelLabel label) {
  const auto hasLabel = [label](const Channel& channel) { return channel.label == label; };
  const auto found = std::find_if(channels.begin(), channels.end(), hasLabel);
  return found == channels.end() ? nullptr : &*found;
}

}  // namespace

float bs1770Weight(AudioChannelLabel label) {
  if (const Channel* channel = find(label); channel && channel->weight) return *channel->weight;
  const std::string line = "🔉 BS.1770 weight: unmapped channel label " + std::to_string(label) +
                           " defaulted to 1.0 (full weight)\n";
  std::fwrite(line.data(), 1, line.size(), stderr);  // one write: lines of several threads stay whole
  return 1.0f;
}

std::vector<float> bs1770Weights(std::span<const AudioChannelLabel> labels) {
  std::vector<float> weights;
  for (const AudioChannelLabel label : labels) weights.push_back(bs1770Weight(label));
  return weights;
}

std::string displayShortName(AudioChannelLabel label, std::int64_t position) {
  if (const Channel* channel = find(label)) return std::string(channel->shortName);
  return "Ch" + std::to_string(position);
}

std::vector<std::string> displayShortNames(std::span<const AudioChannelLabel> labels) {
  std::vector<std::string> names;
  for (const AudioChannelLabel label : labels)
    names.push_back(displayShortName(label, static_cast<std::int64_t>(names.size()) + 1));
  return names;
}

}  // namespace vellum::ChannelOrder
