#include "VellumApp/FileMeasurement.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>
#include <string_view>

#include "VellumApp/AudioFile.hpp"
#include "VellumApp/ChannelLayouts.hpp"
#include "VellumApp/PlanarBuffer.hpp"
#include "VellumApp/TimeText.hpp"

namespace vellum {
namespace {

constexpr std::int64_t endOfFile = std::numeric_limits<std::int64_t>::max();

template <typename Value>
std::vector<Value> reordered(std::span<const Value> values, std::span<const std::int64_t> order) {
  std::vector<Value> result;
  for (const std::int64_t place : order) result.push_back(values[static_cast<std::size_t>(place)]);
  return result;
}

void requireOnePerChannel(std::size_t size, std::int64_t channelCount, std::string_view what) {
  if (static_cast<std::int64_t>(size) == channelCount) return;
  throw FileError("it has " + std::to_string(channelCount) + (channelCount == 1 ? " channel" : " channels") +
                  ", but the " + std::string(what) + " for " + std::to_string(size));
}

// How a file's channels are metered: all lists in that order.
struct Channels {
  std::vector<std::int64_t> fileChannels;
  std::vector<AudioChannelLabel> labels;
  std::vector<float> weights;
};

Channels channelsOf(const AudioFile& file, const MeasureSettings& settings) {
  const std::int64_t count = file.channelCount();
  if (settings.channelLabels) requireOnePerChannel(settings.channelLabels->size(), count, "layout is");
  if (settings.channelWeights) requireOnePerChannel(settings.channelWeights->size(), count, "weights are");

  Channels channels;
  channels.labels = settings.channelLabels.value_or(file.channelLabels());
  channels.fileChannels = ChannelLayouts::meteredOrder(channels.labels, count);
  if (!channels.labels.empty())
    channels.labels = reordered<AudioChannelLabel>(channels.labels, channels.fileChannels);
  if (settings.channelWeights)
    channels.weights = reordered<float>(*settings.channelWeights, channels.fileChannels);
  else if (settings.dualMono && count == 1)
    channels.weights = {2.0f};
  else
    channels.weights = ChannelLayouts::weights(channels.labels, count);
  return channels;
}

}  // namespace

std::optional<FileMeasurement> measureFile(const std::filesystem::path& path, const MeasureSettings& settings,
                                           const std::function<bool(const MeasureProgress&)>& goOn,
                                           const MeasureTap& tap) {
  AudioFile file(path);
  const double sampleRate = file.sampleRate();
  const auto framesOf = [&](double sec) { return static_cast<std::int64_t>(std::llround(sec * sampleRate)); };
  const std::int64_t from = settings.fromSec ? framesOf(*settings.fromSec) : 0;
  const std::int64_t to = settings.toSec ? framesOf(*settings.toSec) : endOfFile;

  const Channels channels = channelsOf(file, settings);
  FileMeasurement result{.formatName = file.formatName(),
                         .sampleRate = sampleRate,
                         .channelCount = file.channelCount(),
                         .fileChannels = channels.fileChannels,
                         .channelLabels = channels.labels,
                         .channelNames = ChannelLayouts::names(channels.labels, file.channelCount()),
                         .meter = ProgrammeMeter({.sampleRate = sampleRate,
                                                  .channelCount = file.channelCount(),
                                                  .channelWeights = channels.weights}),
                         .figures = {},
                         .warnings = {}};

  std::optional<double> totalSec;
  if (const std::int64_t end = std::min(to, file.claimedFrameCount().value_or(endOfFile)); end != endOfFile)
    totalSec = static_cast<double>(std::max<std::int64_t>(0, end - from)) / sampleRate;
  const auto mayGoOn = [&] {
    return goOn({static_cast<double>(result.meter.frameCount()) / sampleRate, totalSec});
  };

  if (!file.seekTo(from, mayGoOn)) return {};
  const std::int64_t chunkFrames = framesPerChunk(file.channelCount());
  const PlanarBuffer buffer(file.channelCount(), chunkFrames);
  const auto chunk = reordered<const float*>(buffer.constChannels(), channels.fileChannels);
  while (file.position() < to) {
    if (!mayGoOn()) return {};
    const std::int64_t frames = file.read(buffer.channels(), std::min(chunkFrames, to - file.position()));
    if (frames == 0) break;
    result.meter.feed(chunk, frames);
    if (tap) tap(result, chunk, frames);
  }

  if (sampleRate < LoudnessProcessor::lowestKWeightedRate)
    result.warnings.push_back(
        "its sample rate is too low for K-weighting: the loudness figures have no meaning");
  const double endSec = static_cast<double>(file.position()) / sampleRate;
  if (from > 0 && result.meter.frameCount() == 0 && file.position() < to)
    throw FileError("the section starts after the end of the file at " + secondsText(endSec));
  if (const auto& warning = file.endWarning()) result.warnings.push_back(*warning);
  if (settings.toSec && file.position() < to)
    result.warnings.push_back("the section is cut short: the file ends at " + secondsText(endSec));
  result.figures = result.meter.finish();
  return result;
}

}  // namespace vellum
