#include "VellumApp/FrameStream.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <numeric>
#include <string>
#include <utility>

#include "VellumApp/TimeText.hpp"

namespace vellum {
namespace {

constexpr std::int64_t endOfFile = std::numeric_limits<std::int64_t>::max();

// Buffers that drop what is read.
std::vector<float*> nowhereOf(const AudioFile& file) {
  return std::vector<float*>(static_cast<std::size_t>(file.channelCount()));
}

// True if the frame before `frame` is there and, where it is to be the last one, none follows it.
bool endsAt(AudioFile& file, std::int64_t frame, bool isLast, const std::function<bool()>& goOn) {
  if (frame < 1 || !file.seekTo(frame - 1, goOn)) return false;
  const auto nowhere = nowhereOf(file);
  return file.read(nowhere, 1) == 1 && (!isLast || file.read(nowhere, 1) == 0);
}

std::int64_t framesAt(double sec, double sampleRate) {
  return static_cast<std::int64_t>(std::llround(sec * sampleRate));
}

}  // namespace

std::vector<std::int64_t> channelsOf(const AudioFile& file, std::span<const std::int64_t> wanted) {
  const std::int64_t count = file.channelCount();
  std::vector<std::int64_t> channels(wanted.begin(), wanted.end());
  if (channels.empty()) {
    channels.resize(static_cast<std::size_t>(count));
    std::iota(channels.begin(), channels.end(), 0);
  }
  std::sort(channels.begin(), channels.end());
  channels.erase(std::unique(channels.begin(), channels.end()), channels.end());
  for (const std::int64_t channel : channels)
    if (channel < 0 || channel >= count)
      throw FileError(fmt::format("there is no channel {}: it has {}, counted from 0", channel, count));
  return channels;
}

std::optional<FrameSection> sectionOf(AudioFile& file, std::optional<double> fromSec,
                                      std::optional<double> toSec, const std::function<bool()>& goOn) {
  const double sampleRate = file.sampleRate();
  const std::int64_t from = fromSec ? framesAt(*fromSec, sampleRate) : 0;
  const std::int64_t asked = toSec ? framesAt(*toSec, sampleRate) : endOfFile;

  // The header's word is enough where the frames there bear it out; else only the end itself tells.
  const std::int64_t claimed = file.claimedFrameCount().value_or(endOfFile);
  std::int64_t to = std::min(asked, claimed);
  if (to == endOfFile || !endsAt(file, to, to < asked, goOn)) {
    if (!file.seekTo(asked, goOn)) return {};
    to = std::min(asked, file.position());
    if (to < asked) file.read(nowhereOf(file), 1);  // an early end has its reason, and damage is an error
  }
  if (to == 0) throw FileError("it holds no audio");
  if (from >= asked) throw FileError("the section holds no sample");
  if (from >= to)
    throw FileError("the section starts after the end of the file at " +
                    secondsText(static_cast<double>(to) / sampleRate));
  return FrameSection{from, to, file.endWarning()};
}

std::vector<std::string> sectionWarnings(const FrameSection& section, double sampleRate,
                                         std::optional<double> toSec, std::int64_t brokenFrames,
                                         std::int64_t frameCount) {
  std::vector<std::string> warnings;
  if (brokenFrames > 0)
    warnings.push_back(std::to_string(brokenFrames) + " of " + std::to_string(frameCount) +
                       " frames hold samples that are not finite, and were left out");
  if (section.endWarning) warnings.push_back(*section.endWarning);
  if (toSec && section.to < framesAt(*toSec, sampleRate))
    warnings.push_back("the section is cut short: the file ends at " +
                       secondsText(static_cast<double>(section.to) / sampleRate));
  return warnings;
}

FrameStream::FrameStream(AudioFile& file, const Settings& settings)
    : file_(&file),
      settings_(settings),
      pieces_(static_cast<std::int64_t>(settings.channels.size()), settings.size),
      readPointers_(static_cast<std::size_t>(file.channelCount())),
      start_(settings.start) {}

std::int64_t FrameStream::next() {
  if (std::exchange(isFirst_, false)) {
    filled_ = std::max<std::int64_t>(-start_, 0);
  } else {
    start_ += settings_.hop;
    for (float* piece : pieces_.channels()) std::copy(piece + settings_.hop, piece + settings_.size, piece);
    filled_ = std::max<std::int64_t>(filled_ - settings_.hop, 0);
  }
  const std::int64_t most = std::clamp(settings_.end, start_, start_ + settings_.size) - start_;
  while (!hasEnded_ && filled_ < most) {
    for (std::size_t k = 0; k < settings_.channels.size(); ++k)
      readPointers_[static_cast<std::size_t>(settings_.channels[k])] = pieces_.channels()[k] + filled_;
    const std::int64_t frames = file_->read(readPointers_, most - filled_);
    hasEnded_ = frames == 0;
    filled_ += frames;
  }
  for (float* piece : pieces_.channels()) std::fill(piece + filled_, piece + settings_.size, 0.0f);
  return filled_;
}

bool FrameStream::averagePower(PowerSpectrum& spectrum, std::span<double> power) const {
  const std::size_t count = settings_.channels.size();
  std::fill(power.begin(), power.end(), 0.0);
  for (std::size_t c = 0; c < count; ++c) {
    const auto ofChannel = spectrum.process(channel(c), settings_.size);
    for (std::size_t k = 0; k < power.size(); ++k) power[k] += ofChannel[k];
  }
  double sum = 0;
  for (double& value : power) sum += value /= static_cast<double>(count);
  return std::isfinite(sum);
}

}  // namespace vellum
