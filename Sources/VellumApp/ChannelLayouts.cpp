#include "VellumApp/ChannelLayouts.hpp"

#include <numeric>

#include "VellumCore/ChannelOrder.hpp"
#include "VellumCore/LoudnessProcessor.hpp"

namespace vellum::ChannelLayouts {
namespace {

constexpr AudioChannelLabel mono = 42;

// What the meter's default weights take a channel count for; no channels where they take it for nothing.
AudioChannelLayout layoutByCount(std::int64_t channelCount) {
  if (channelCount == 1) return AudioChannelLayout::ofTag(AudioChannelLayout::mono);
  if (channelCount == 2) return AudioChannelLayout::ofTag(AudioChannelLayout::stereo);
  if (channelCount == 8) return AudioChannelLayout::ofTag(AudioChannelLayout::mpeg71C);
  constexpr double anyRate = 48000;
  const auto canonical = ChannelOrder::canonicalFormat(anyRate, channelCount);
  return canonical ? *canonical->channelLayout : AudioChannelLayout{};
}

}  // namespace

std::vector<std::string> names(std::span<const AudioChannelLabel> labels, std::int64_t channelCount) {
  if (!labels.empty()) return ChannelOrder::displayShortNames(labels);
  if (const auto names = ChannelOrder::displayShortNames(layoutByCount(channelCount))) return *names;
  return ChannelOrder::displayShortNames(
      std::vector<AudioChannelLabel>(static_cast<std::size_t>(channelCount), 0));
}

std::vector<float> weights(std::span<const AudioChannelLabel> labels, std::int64_t channelCount) {
  if (labels.empty()) return LoudnessProcessor::staticChannelWeights(channelCount);
  std::vector<float> weights;
  for (const AudioChannelLabel label : labels)
    weights.push_back(label == mono ? 1.0f : ChannelOrder::bs1770Weight(label));
  return weights;
}

std::vector<std::int64_t> meteredOrder(std::span<const AudioChannelLabel> labels, std::int64_t channelCount) {
  if (auto permutation = ChannelOrder::permutationToCanonical(labels, channelCount)) return *permutation;
  std::vector<std::int64_t> order(static_cast<std::size_t>(channelCount));
  std::iota(order.begin(), order.end(), 0);
  return order;
}

}  // namespace vellum::ChannelLayouts
