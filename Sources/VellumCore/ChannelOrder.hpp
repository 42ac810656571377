#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace vellum {

// What a channel carries, as a platform's numeric channel label: 1 left, 2 right, 3 centre, 4 LFE, 5 left
// surround, 6 right surround, 33 rear surround left, 42 mono, and so on.
using AudioChannelLabel = std::uint32_t;

// What a buffer's channel labels mean to the meters and to people. Holds no state.
namespace ChannelOrder {

// Weight of a surround channel: +1.5 dB (ITU-R BS.1770-5), as a factor of its power.
constexpr float surroundWeight = 1.41253f;  // 10^(1.5/10), rounded

// Loudness weight of a channel as a linear factor of its power (ITU-R BS.1770-5): 1 for the front, 1.41253
// (+1.5 dB) for surrounds, 0 for the LFE channels. A label without a weight of its own gets 1, and one line
// on standard error says so.
float bs1770Weight(AudioChannelLabel label);
std::vector<float> bs1770Weights(std::span<const AudioChannelLabel> labels);  // one per label, in order

// Name of a channel for display: "L", "Rs", "LFE2". "Ch" and the position for a label without a name.
//   position  of the channel in its buffer, from 1
std::string displayShortName(AudioChannelLabel label, std::int64_t position);
std::vector<std::string> displayShortNames(std::span<const AudioChannelLabel> labels);  // one per label

}  // namespace ChannelOrder
}  // namespace vellum
