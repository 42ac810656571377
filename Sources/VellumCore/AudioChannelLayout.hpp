#pragma once

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace vellum {

// What a channel carries, as a platform's numeric channel label: 1 left, 2 right, 3 centre, 4 LFE, 5 left
// surround, 6 right surround, 33 rear surround left, 42 mono, and so on.
using AudioChannelLabel = std::uint32_t;

// A platform's number for a whole order of channels. The low half is the channel count.
using AudioChannelLayoutTag = std::uint32_t;
constexpr AudioChannelLayoutTag audioChannelLayoutTag(std::uint32_t number, std::uint32_t channelCount) {
  return number << 16 | channelCount;
}

// Which channel is where. The tag either names the order itself or says where else it stands.
struct AudioChannelLayout {
  static constexpr AudioChannelLayoutTag useChannelDescriptions = audioChannelLayoutTag(0, 0);
  static constexpr AudioChannelLayoutTag useChannelBitmap = audioChannelLayoutTag(1, 0);
  static constexpr AudioChannelLayoutTag mono = audioChannelLayoutTag(100, 1);
  static constexpr AudioChannelLayoutTag stereo = audioChannelLayoutTag(101, 2);
  static constexpr AudioChannelLayoutTag quadraphonic = audioChannelLayoutTag(108, 4);  // L R Ls Rs
  static constexpr AudioChannelLayoutTag mpeg30A = audioChannelLayoutTag(113, 3);       // L R C
  static constexpr AudioChannelLayoutTag mpeg50A = audioChannelLayoutTag(117, 5);       // L R C Ls Rs
  static constexpr AudioChannelLayoutTag mpeg51A = audioChannelLayoutTag(121, 6);       // L R C LFE Ls Rs
  static constexpr AudioChannelLayoutTag mpeg71C = audioChannelLayoutTag(128, 8);  // L R C LFE Ls Rs Lb Rb

  AudioChannelLayoutTag tag = useChannelDescriptions;
  std::uint32_t bitmap = 0;               // with useChannelBitmap: bit k is label k + 1, for k of 0 to 17
  std::vector<AudioChannelLabel> labels;  // with useChannelDescriptions: one per channel, in order

  static AudioChannelLayout ofTag(AudioChannelLayoutTag tag) { return {tag, 0, {}}; }
  static AudioChannelLayout ofBitmap(std::uint32_t bitmap) { return {useChannelBitmap, bitmap, {}}; }
  static AudioChannelLayout ofLabels(std::vector<AudioChannelLabel> labels) {
    return {useChannelDescriptions, 0, std::move(labels)};
  }
  friend bool operator==(const AudioChannelLayout&, const AudioChannelLayout&) = default;
};

// What a tag or a bitmap stands for, label by label. Absent for a tag that is not known (the two that say
// where else the order stands are none) and for a bitmap that is empty or has a bit without a meaning.
std::optional<AudioChannelLayout> layoutForTag(AudioChannelLayoutTag tag);
std::optional<AudioChannelLayout> layoutForBitmap(std::uint32_t bitmap);

}  // namespace vellum
