#include "VellumCore/ChapterAnalysis.hpp"

#include <algorithm>
#include <cmath>

#include "VellumCore/Support/Require.hpp"

namespace vellum::ChapterAnalyser {

namespace {

constexpr float noGainDB = 0.01f;  // a chapter this near to the target is left alone

std::int64_t frameCountOf(const std::vector<float>& channel) {
  return static_cast<std::int64_t>(channel.size());
}

// The nearest frame, halves away from zero, within 0 ... frameCount.
std::int64_t frameAt(double seconds, double sampleRate, std::int64_t frameCount) {
  constexpr double beyond = 0x1p63;
  const double frame = std::round(sampleRate * seconds);
  VELLUM_REQUIRE(!std::isnan(frame), "ChapterAnalyser: times and sample rate must be numbers");
  if (frame <= 0 || frameCount <= 0) return 0;
  return frame < beyond ? std::min(static_cast<std::int64_t>(frame), frameCount) : frameCount;
}

// Feeds frames start to end - 1 in as few chunks as the channels' lengths allow, straight from the channels.
template <typename Meter>
void feed(Meter& meter, Channels channels, std::int64_t start, std::int64_t end) {
  VELLUM_REQUIRE(start >= 0, "ChapterAnalyser: a range starts at frame 0 or later");
  std::vector<const float*> pointers(channels.size());
  for (std::int64_t offset = start; offset < end;) {
    std::int64_t chunkEnd = end;
    for (std::size_t c = 0; c < channels.size(); ++c) {
      const std::int64_t length = frameCountOf(channels[c]);
      pointers[c] = offset < length ? channels[c].data() + offset : nullptr;
      if (pointers[c]) chunkEnd = std::min(chunkEnd, length);
    }
    meter.add(pointers, chunkEnd - offset);
    offset = chunkEnd;
  }
}

StretchLevels levelsOf(Channels channels, std::int64_t start, std::int64_t end) {
  StretchLevels levels(static_cast<std::int64_t>(channels.size()));
  if (start < end) feed(levels, channels, start, end);
  return levels;
}

// The chapter's part of the file's speech history: absent where the history ends before it, empty for a
// chapter that ends before the next block does.
std::optional<std::vector<bool>> speechExcerpt(const Chapter& chapter,
                                               const std::optional<std::vector<bool>>& speechHistory) {
  if (!speechHistory) return {};
  constexpr double block = LoudnessProcessor::gateBlockDuration;
  const auto length = static_cast<double>(speechHistory->size());
  // Divided, not multiplied by 10: 0.1 is no tenth, and a time on a block's border may fall to either side.
  const double first = std::max(0.0, std::floor(chapter.startSec / block));
  const double last = std::max(first, std::floor(chapter.endSec / block));
  if (!(first < length)) return {};
  const auto at = [&](double index) { return speechHistory->begin() + static_cast<std::ptrdiff_t>(index); };
  return std::vector<bool>(at(first), at(std::min(last, length)));
}

}  // namespace

// --- A programme in memory -------------------------------------------------------------------------------

std::vector<Chapter> analyse(std::span<const Chapter> chapters, const Programme& programme) {
  std::vector<Chapter> analysed(chapters.begin(), chapters.end());
  for (Chapter& chapter : analysed) {
    chapter.clearMeasurements();
    if (programme.channels.empty()) continue;
    const auto [start, end] =
        framesOf(chapter, programme.sampleRate, frameCountOf(programme.channels.front()));
    if (start >= end) continue;
    ChapterMeter meter =
        meterFor(chapter, {.sampleRate = programme.sampleRate,
                           .channelCount = static_cast<std::int64_t>(programme.channels.size()),
                           .speechHistory = programme.speechHistory,
                           .channelWeights = programme.channelWeights});
    feed(meter, programme.channels, start, end);
    meter.finish();
    chapter = measured(std::move(chapter), meter);
  }
  return analysed;
}

Metrics fullAnalysis(const Range& range) {
  if (range.end <= range.start || range.channels.empty()) return {};
  ChapterMeter meter({.sampleRate = range.sampleRate,
                      .channelCount = static_cast<std::int64_t>(range.channels.size()),
                      .speechHistory = range.speechHistory,
                      .channelWeights = range.channelWeights,
                      .measuresLoudness = true});
  feed(meter, range.channels, range.start, range.end);
  meter.finish();
  return meter.metrics();
}

std::optional<float> integratedLUFS(const Range& range) {
  return fullAnalysis(range).integrated;
}

std::optional<float> samplePeakDBFS(Channels channels, std::int64_t start, std::int64_t end) {
  return levelsOf(channels, start, end).samplePeakDBFS();
}

std::optional<float> rmsDBFS(Channels channels, std::int64_t start, std::int64_t end) {
  return levelsOf(channels, start, end).rmsDBFS();
}

// --- A programme that streams by -------------------------------------------------------------------------

FrameRange framesOf(const Chapter& chapter, double sampleRate, std::int64_t frameCount) {
  return {.start = frameAt(chapter.startSec, sampleRate, frameCount),
          .end = frameAt(chapter.endSec, sampleRate, frameCount)};
}

ChapterMeter meterFor(const Chapter& chapter, const MeterSettings& settings) {
  // The times as they are given count, not the frames that there are.
  const bool isLongEnough = !(chapter.durationSec() < minDurationForLUFS);
  return ChapterMeter({.sampleRate = settings.sampleRate,
                       .channelCount = settings.channelCount,
                       .speechHistory = speechExcerpt(chapter, settings.speechHistory),
                       .channelWeights = settings.channelWeights,
                       .measuresLoudness = isLongEnough});
}

Chapter measured(Chapter chapter, const ChapterMeter& meter) {
  const Metrics& metrics = meter.metrics();
  chapter.integratedLUFS = metrics.integrated;
  chapter.rmsDBFS = meter.levels().rmsDBFS();
  chapter.truePeakDBTP = metrics.truePeakDBTP;
  chapter.samplePeakDBFS = meter.levels().samplePeakDBFS();
  chapter.loudnessRange = metrics.loudnessRange;
  chapter.maxMomentaryLUFS = metrics.maxMomentary;
  chapter.maxShortTermLUFS = metrics.maxShortTerm;
  chapter.speechGatedLUFS = metrics.speechGated;
  chapter.noiseFloorDBRMS = metrics.noiseFloor;
  chapter.speechPercentage = metrics.speechPercentage;
  return chapter;
}

// --- Levels against each other ---------------------------------------------------------------------------

std::optional<float> value(const Chapter& chapter, ChapterConsistencyMetric metric) {
  return metric == ChapterConsistencyMetric::rms ? chapter.rmsDBFS : chapter.integratedLUFS;
}

std::optional<float> median(std::span<const Chapter> chapters, ChapterConsistencyMetric metric) {
  std::vector<float> values;
  for (const Chapter& chapter : chapters)
    if (const auto level = value(chapter, metric); level && std::isfinite(*level)) values.push_back(*level);
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) * 0.5f;
}

std::vector<LevelingGain> levelingGains(const Leveling& leveling) {
  const auto* fixed = std::get_if<LevelTarget::Fixed>(&leveling.target.value);
  const auto reference = fixed ? fixed->value : median(leveling.chapters, leveling.metric);
  if (!reference || !std::isfinite(*reference)) return {};

  std::vector<LevelingGain> gains;
  for (const Chapter& chapter : leveling.chapters) {
    const auto level = value(chapter, leveling.metric);
    if (!level || !std::isfinite(*level) || std::fabs(*reference - *level) <= noGainDB) continue;
    const auto [start, end] = framesOf(chapter, leveling.sampleRate, leveling.totalFrames);
    if (start < end) gains.push_back({.start = start, .end = end, .gainDB = *reference - *level});
  }
  return gains;
}

}  // namespace vellum::ChapterAnalyser
