#include "VellumCore/ChannelOrder.hpp"

#include <algorithm>
#include <array>
#include <cstdio>

namespace vellum::ChannelOrder {
namespace {

using Labels = std::vector<AudioChannelLabel>;

struct Channel {
  AudioChannelLabel label;
  std::string_view shortName;
  std::optional<float> weight;
  std::optional<Role> role;
};

constexpr std::array<Channel, 15> channels = {{
    {1, "L", 1.0f, Role::frontLeft},
    {2, "R", 1.0f, Role::frontRight},
    {3, "C", 1.0f, Role::center},
    {4, "LFE", 0.0f, Role::lfe},
    {5, "Ls", surroundWeight, Role::surroundLeft},
    {6, "Rs", surroundWeight, Role::surroundRight},
    {7, "Lc", 1.0f, {}},
    {8, "Rc", 1.0f, {}},
    {9, "Cs", {}, {}},
    {10, "Lss", surroundWeight, Role::surroundLeft},
    {11, "Rss", surroundWeight, Role::surroundRight},
    {33, "Lb", surroundWeight, Role::surroundLeft},
    {34, "Rb", surroundWeight, Role::surroundRight},
    {37, "LFE2", 0.0f, Role::lfe},
    {42, "M", {}, {}},
}};

const Channel* find(AudioChannelLabel label) {
  const auto hasLabel = [label](const Channel& channel) { return channel.label == label; };
  const auto found = std::find_if(channels.begin(), channels.end(), hasLabel);
  return found == channels.end() ? nullptr : &*found;
}

std::optional<Role> roleOf(AudioChannelLabel label) {
  const Channel* channel = find(label);
  return channel ? channel->role : std::nullopt;
}

// The layout that has the canonical order of a channel count.
std::optional<AudioChannelLayout> canonicalLayout(std::int64_t channelCount) {
  switch (channelCount) {
    case 3:
      return AudioChannelLayout::ofTag(AudioChannelLayout::mpeg30A);
    case 4:
      return AudioChannelLayout::ofTag(AudioChannelLayout::quadraphonic);
    case 5:
      return AudioChannelLayout::ofTag(AudioChannelLayout::mpeg50A);
    case 6:
      return AudioChannelLayout::ofTag(AudioChannelLayout::mpeg51A);
    default:
      return {};
  }
}

// The labels of a format's channels, one for each.
std::optional<Labels> labelsOf(const AudioFormat& format) {
  if (!format.channelLayout) return {};
  auto labels = channelLabels(*format.channelLayout);
  return labels && labels->size() == format.channelCount ? labels : std::nullopt;
}

// One write: lines of several threads stay whole.
void log(std::string line) {
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
}

// A name in the line about a reordering: that of the role, unlike displayShortName.
std::string_view nameOf(Role role) {
  constexpr std::array<std::string_view, 6> names = {"L", "R", "C", "LFE", "Ls", "Rs"};
  return names[static_cast<std::size_t>(role)];
}

// Every source channel has a role: a permutation takes them all.
void logReordering(const Labels& sourceLabels, const std::vector<Role>& roles) {
  std::string line = "🔀 Channel reorder (" + std::to_string(sourceLabels.size()) + "ch):";
  for (const AudioChannelLabel label : sourceLabels) line.append(" ").append(nameOf(*roleOf(label)));
  line += " ->";
  for (const Role role : roles) line.append(" ").append(nameOf(role));
  log(std::move(line));
}

}  // namespace

// --- Labels

std::optional<Labels> channelLabels(const AudioChannelLayout& layout) {
  switch (layout.tag) {
    case AudioChannelLayout::useChannelDescriptions:
      return layout.labels.empty() ? std::nullopt : std::optional(layout.labels);
    case AudioChannelLayout::useChannelBitmap:
      if (const auto expanded = layoutForBitmap(layout.bitmap)) return expanded->labels;
      return {};
    default:
      if (const auto expanded = layoutForTag(layout.tag)) return expanded->labels;
      return {};
  }
}

// --- Weights

std::optional<float> ownWeight(AudioChannelLabel label) {
  const Channel* const channel = find(label);
  return channel ? channel->weight : std::nullopt;
}

float bs1770Weight(AudioChannelLabel label) {
  if (const auto weight = ownWeight(label)) return *weight;
  log("🔉 BS.1770 weight: unmapped channel label " + std::to_string(label) +
      " defaulted to 1.0 (full weight)");
  return 1.0f;
}

std::vector<float> bs1770Weights(std::span<const AudioChannelLabel> labels) {
  std::vector<float> weights;
  for (const AudioChannelLabel label : labels) weights.push_back(bs1770Weight(label));
  return weights;
}

std::optional<std::vector<float>> bs1770Weights(const PCMBuffer& buffer) {
  const auto labels = labelsOf(buffer.format());
  if (!labels) return {};
  return bs1770Weights(*labels);
}

// --- Names

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

std::optional<std::vector<std::string>> displayShortNames(const AudioChannelLayout& layout) {
  const auto labels = channelLabels(layout);
  if (!labels) return {};
  return displayShortNames(*labels);
}

std::optional<AudioChannelLabel> labelOfShortName(std::string_view name) {
  for (const Channel& channel : channels)
    if (channel.shortName == name) return channel.label;
  return {};
}

std::vector<AudioChannelLabel> namedLabels() {
  Labels labels;
  for (const Channel& channel : channels) labels.push_back(channel.label);
  return labels;
}

// --- Canonical order

std::optional<std::vector<Role>> canonicalRoles(std::int64_t channelCount) {
  const auto layout = canonicalLayout(channelCount);
  if (!layout) return {};
  std::vector<Role> roles;
  const Labels labels = *channelLabels(*layout);
  for (const AudioChannelLabel label : labels) roles.push_back(*roleOf(label));
  return roles;
}

std::optional<std::vector<std::int64_t>> permutationToCanonical(
    std::span<const AudioChannelLabel> sourceLabels, std::int64_t channelCount) {
  const auto roles = canonicalRoles(channelCount);
  if (!roles || static_cast<std::int64_t>(sourceLabels.size()) != channelCount) return {};
  std::vector<std::int64_t> permutation;
  for (const Role role : *roles) {
    const auto source = std::find_if(sourceLabels.begin(), sourceLabels.end(),
                                     [role](AudioChannelLabel label) { return roleOf(label) == role; });
    if (source == sourceLabels.end()) return {};
    permutation.push_back(source - sourceLabels.begin());
  }
  return permutation;
}

std::optional<AudioFormat> canonicalFormat(double sampleRate, std::int64_t channelCount) {
  auto layout = canonicalLayout(channelCount);
  if (!layout) return {};
  return AudioFormat::planarFloat(sampleRate, static_cast<std::uint32_t>(channelCount), std::move(layout));
}

std::optional<PCMBuffer> canonicalize(const PCMBuffer& buffer) {
  const AudioFormat& format = buffer.format();
  const auto labels = labelsOf(format);
  const auto permutation = labels ? permutationToCanonical(*labels, format.channelCount) : std::nullopt;
  const bool isIdentity = permutation && std::is_sorted(permutation->begin(), permutation->end());
  if (!permutation || isIdentity) return {};
  const auto source = buffer.floatChannelData();
  const std::int64_t frames = buffer.frameLength();
  if (!source) return {};

  auto reordered = PCMBufferAllocation::make(*canonicalFormat(format.sampleRate, format.channelCount),
                                             static_cast<std::uint32_t>(frames));
  if (!reordered) return {};  // no frames, or no memory
  for (std::size_t k = 0; k < permutation->size(); ++k) {
    const float* const from = (*source)[static_cast<std::size_t>((*permutation)[k])];
    const std::span<float> to = reordered->floats(k);
    for (std::int64_t n = 0; n < frames; ++n) to[static_cast<std::size_t>(n)] = from[n * buffer.stride()];
  }
  reordered->setFrameLength(frames);
  logReordering(*labels, *canonicalRoles(format.channelCount));
  return reordered;
}

// --- Files

bool wavPreservesChannelOrder(const AudioFormat& format) {
  // A speaker mask's bits, from the lowest.
  constexpr std::array<AudioChannelLabel, 11> speakers = {1, 2, 3, 4, 33, 34, 7, 8, 9, 5, 6};
  const auto labels = labelsOf(format);
  if (format.channelCount < 3 || !labels) return true;
  auto next = speakers.begin();
  for (const AudioChannelLabel label : *labels) {
    next = std::find(next, speakers.end(), label);
    if (next == speakers.end()) return false;
    ++next;
  }
  return true;
}

bool is71SMPTEOrdered(std::span<const std::string> labels) {
  constexpr std::array<std::string_view, 4> front = {"L", "R", "C", "LFE"};
  return labels.size() == 8 && std::equal(front.begin(), front.end(), labels.begin());
}

}  // namespace vellum::ChannelOrder
