#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "VellumCore/AudioChannelLayout.hpp"
#include "VellumCore/PCMBufferAllocation.hpp"
#include "VellumCore/Support/RawValue.hpp"

namespace vellum {

// What a buffer's channel labels mean to the meters and to people, and the one order that code by position
// can rely on. Holds no state.
// Nothing fails: what a layout does not tell is absent, and the meter then goes by the channel count.
namespace ChannelOrder {

// --- Labels

// One label per channel, in order. Absent for a tag or bitmap that stands for no layout (AudioChannelLayout),
// and for a layout without channels.
std::optional<std::vector<AudioChannelLabel>> channelLabels(const AudioChannelLayout& layout);

// --- Weights

// Weight of a surround channel: +1.5 dB (ITU-R BS.1770-5), as a factor of its power.
constexpr float surroundWeight = 1.41253f;  // 10^(1.5/10), rounded

// Loudness weight of a channel as a linear factor of its power (ITU-R BS.1770-5): 1 for the front, 1.41253
// (+1.5 dB) for surrounds, 0 for the LFE channels. A label without a weight of its own gets 1, and one line
// on standard error says so.
float bs1770Weight(AudioChannelLabel label);
std::optional<float> ownWeight(AudioChannelLabel label);  // the same without the 1 and the line
std::vector<float> bs1770Weights(std::span<const AudioChannelLabel> labels);  // one per label, in order
// One per channel of the buffer. Absent where its format has no layout, or one of another channel count.
std::optional<std::vector<float>> bs1770Weights(const PCMBuffer& buffer);

// --- Names

// Name of a channel for display: "L", "Rs", "LFE2". "Ch" and the position for a label without a name.
//   position  of the channel in its buffer, from 1
std::string displayShortName(AudioChannelLabel label, std::int64_t position);
std::vector<std::string> displayShortNames(std::span<const AudioChannelLabel> labels);  // one per label
std::optional<std::vector<std::string>> displayShortNames(const AudioChannelLayout& layout);

// The label of a short name, spelt exactly as it is displayed.
std::optional<AudioChannelLabel> labelOfShortName(std::string_view name);
std::vector<AudioChannelLabel> namedLabels();  // every label with a short name, ascending

// --- Canonical order

// What a channel is in the canonical order. The raw values are the names of the cases.
enum class Role { frontLeft, frontRight, center, lfe, surroundLeft, surroundRight };

// The roles of 3 to 6 channels, in order; absent for other counts.
//   3  L R C      4  L R Ls Rs      5  L R C Ls Rs      6  L R C LFE Ls Rs
std::optional<std::vector<Role>> canonicalRoles(std::int64_t channelCount);

// For each canonical position, which source channel goes there: the first with that role that is not taken.
// Absent outside of 3 to 6 channels, for another number of labels, or where a role is left without a channel.
std::optional<std::vector<std::int64_t>> permutationToCanonical(
    std::span<const AudioChannelLabel> sourceLabels, std::int64_t channelCount);

// Planar 32-bit float in the canonical order, labelled 1 to 6 in its layout; absent outside of 3 to 6
// channels.
std::optional<AudioFormat> canonicalFormat(double sampleRate, std::int64_t channelCount);

// A copy of the buffer's frames in the canonical format; one line on standard error tells both orders. Absent
// where the buffer is to be used as it is: in canonical order already, empty, without floatChannelData(), of
// an order that is not known or cannot be brought into the canonical one, or too large to be copied.
//   if (auto reordered = ChannelOrder::canonicalize(buffer)) buffer = std::move(*reordered);
std::optional<PCMBuffer> canonicalize(const PCMBuffer& buffer);

// --- Files

// Whether a WAV file can hold the channels in this order, which is that of its speaker mask. True also where
// nothing is known against it: fewer than 3 channels, no layout, or one of another channel count.
bool wavPreservesChannelOrder(const AudioFormat& format);

// Whether these are the short names of 8 channels that begin L R C LFE.
bool is71SMPTEOrdered(std::span<const std::string> labels);

}  // namespace ChannelOrder

template <>
inline constexpr auto rawValueTable<ChannelOrder::Role> =
    rawValues<ChannelOrder::Role>({{ChannelOrder::Role::frontLeft, "frontLeft"},
                                   {ChannelOrder::Role::frontRight, "frontRight"},
                                   {ChannelOrder::Role::center, "center"},
                                   {ChannelOrder::Role::lfe, "lfe"},
                                   {ChannelOrder::Role::surroundLeft, "surroundLeft"},
                                   {ChannelOrder::Role::surroundRight, "surroundRight"}});

}  // namespace vellum
