#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "VellumCore/AudioChannelLayout.hpp"

// Names, loudness weights and order of a file's channels: by its labels (one per channel) where it has them;
// else by the channel count, in the order that the meter's default weights go by.
namespace vellum::ChannelLayouts {

std::vector<std::string> names(std::span<const AudioChannelLabel> labels, std::int64_t channelCount);

// A label without a weight of its own gets 1, and a line on standard error says so; mono needs no such line.
std::vector<float> weights(std::span<const AudioChannelLabel> labels, std::int64_t channelCount);

// Which of the file's channels is metered at each place, counted from 0. Three to six channels whose labels
// allow it come in canonical order (L R C LFE Ls Rs, as far as there are such); all others as they are.
std::vector<std::int64_t> meteredOrder(std::span<const AudioChannelLabel> labels, std::int64_t channelCount);

}  // namespace vellum::ChannelLayouts
