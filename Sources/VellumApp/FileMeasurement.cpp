#include "VellumApp/FileMeasurement.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "VellumApp/AudioFile.hpp"
#include "VellumApp/ChannelLayouts.hpp"
#include "VellumApp/TimeText.hpp"

namespace vellum {
namespace {

constexpr std::int64_t endOfFile = std::numeric_limits<std::int64_t>::max();

std::vector<float> weightsFor(const AudioFile& file, const MeasureSettings& settings) {
  if (settings.channelWeights) {
    if (static_cast<std::int64_t>(settings.channelWeights->size()) != file.channelCount())
      throw FileError("it has " + std::to_string(file.channelCount()) + " channels, but " +
                      std::to_string(settings.channelWeights->size()) + " channel weights are given");
    return *settings.channelWeights;
  }
  if (settings.dualMono && file.channelCount() == 1) return {2.0f};
  return ChannelLayouts::weights(file.channelLabels(), file.channelCount());
}

// One buffer per channel.
class PlanarBuffer {
 public:
  PlanarBuffer(std::int64_t channelCount, std::int64_t frameCount)
      : samples_(static_cast<std::size_t>(channelCount * frameCount)) {
    for (std::int64_t c = 0; c < channelCount; ++c) channels_.push_back(samples_.data() + c * frameCount);
  }
  std::span<float* const> channels() const { return channels_; }

 private:
  std::vector<float> samples_;
  std::vector<float*> channels_;
};

}  // namespace

std::optional<FileMeasurement> measureFile(const std::filesystem::path& path, const MeasureSettings& settings,
                                           const std::function<bool(const MeasureProgress&)>& goOn) {
  AudioFile file(path);
  const double sampleRate = file.sampleRate();
  const auto framesOf = [&](double sec) { return static_cast<std::int64_t>(std::llround(sec * sampleRate)); };
  const std::int64_t from = settings.fromSec ? framesOf(*settings.fromSec) : 0;
  const std::int64_t to = settings.toSec ? framesOf(*settings.toSec) : endOfFile;

  FileMeasurement result{.formatName = file.formatName(),
                         .sampleRate = sampleRate,
                         .channelCount = file.channelCount(),
                         .channelNames = ChannelLayouts::names(file.channelLabels(), file.channelCount()),
                         .meter = ProgrammeMeter({.sampleRate = sampleRate,
                                                  .channelCount = file.channelCount(),
                                                  .channelWeights = weightsFor(file, settings)}),
                         .figures = {},
                         .warnings = {}};

  std::optional<double> totalSec;
  if (const std::int64_t end = std::min(to, file.claimedFrameCount().value_or(endOfFile)); end != endOfFile)
    totalSec = static_cast<double>(std::max<std::int64_t>(0, end - from)) / sampleRate;
  const auto mayGoOn = [&] {
    return goOn({static_cast<double>(result.meter.frameCount()) / sampleRate, totalSec});
  };

  if (!file.seekTo(from, mayGoOn)) return {};
  constexpr std::int64_t mostFrames = 16'384, mostSamples = 262'144;
  const std::int64_t chunkFrames = std::clamp<std::int64_t>(mostSamples / file.channelCount(), 1, mostFrames);
  const PlanarBuffer buffer(file.channelCount(), chunkFrames);
  const std::vector<const float*> chunk(buffer.channels().begin(), buffer.channels().end());
  while (file.position() < to) {
    if (!mayGoOn()) return {};
    const std::int64_t frames = file.read(buffer.channels(), std::min(chunkFrames, to - file.position()));
    if (frames == 0) break;
    result.meter.feed(chunk, frames);
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
