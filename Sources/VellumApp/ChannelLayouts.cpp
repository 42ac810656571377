#include "VellumApp/ChannelLayouts.hpp"

#include "VellumCore/LoudnessProcessor.hpp"

namespace vellum::ChannelLayouts {
namespace {

constexpr AudioChannelLabel mono = 42;

std::vector<std::string> namesByCount(std::int64_t channelCount) {
  switch (channelCount) {
    case 1:
      return {"M"};
    case 2:
      return {"L", "R"};
    case 3:
      return {"L", "R", "C"};
    case 4:
      return {"L", "R", "Ls", "Rs"};
    case 5:
      return {"L", "R", "C", "Ls", "Rs"};
    case 6:
      return {"L", "R", "C", "LFE", "Ls", "Rs"};
    case 8:
      return {"L", "R", "C", "LFE", "Ls", "Rs", "Lb", "Rb"};
    default:
      break;
  }
  std::vector<std::string> names;
  for (std::int64_t position = 1; position <= channelCount; ++position)
    names.push_back("Ch" + std::to_string(position));
  return names;
}

}  // namespace

std::vector<std::string> names(std::span<const AudioChannelLabel> labels, std::int64_t channelCount) {
  return labels.empty() ? namesByCount(channelCount) : ChannelOrder::displayShortNames(labels);
}

std::vector<float> weights(std::span<const AudioChannelLabel> labels, std::int64_t channelCount) {
  if (labels.empty()) return LoudnessProcessor::staticChannelWeights(channelCount);
  std::vector<float> weights;
  for (const AudioChannelLabel label : labels)
    weights.push_back(label == mono ? 1.0f : ChannelOrder::bs1770Weight(label));
  return weights;
}

}  // namespace vellum::ChannelLayouts
