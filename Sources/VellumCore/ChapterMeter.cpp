#include "VellumCore/ChapterMeter.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/LevelConversions.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {

namespace {

constexpr float unmeasured = -std::numeric_limits<float>::infinity();

template <typename Level>
std::optional<float> ifFinite(Level level) {
  const auto narrow = static_cast<float>(level);
  if (!std::isfinite(narrow)) return {};
  return narrow;
}

std::optional<float> shareOfTrue(const std::vector<bool>& flags) {
  if (flags.empty()) return {};
  return static_cast<float>(std::count(flags.begin(), flags.end(), true)) / static_cast<float>(flags.size());
}

}  // namespace

// --- Levels ----------------------------------------------------------------------------------------------

StretchLevels::StretchLevels(std::int64_t channelCount) {
  VELLUM_REQUIRE(channelCount >= 0, "StretchLevels: channelCount must not be negative");
  squares_.resize(static_cast<std::size_t>(channelCount));
}

void StretchLevels::add(std::span<const float* const> channelData, std::int64_t frameCount) {
  if (frameCount < 1) return;
  VELLUM_REQUIRE(channelData.size() == squares_.size(), "StretchLevels: add takes one pointer per channel");
  frameCount_ += frameCount;
  for (std::size_t c = 0; c < channelData.size(); ++c) {
    if (!channelData[c]) {
      squares_[c].addSilence(frameCount);
      continue;
    }
    peak_ = std::max(peak_, kernels().peakMagnitude(channelData[c], frameCount));
    squares_[c].add(channelData[c], frameCount);
  }
}

std::optional<float> StretchLevels::samplePeakDBFS() const {
  if (frameCount_ < 1 || squares_.empty()) return {};
  return linearToDB(peak_);
}

std::optional<float> StretchLevels::rmsDBFS() const {
  if (frameCount_ < 1 || squares_.empty()) return {};
  double power = 0;
  for (const SumOfSquares& squares : squares_) power += squares.value() / static_cast<double>(frameCount_);
  power /= static_cast<double>(squares_.size());
  if (!(power > 0)) return unmeasured;
  return linearToDB(static_cast<float>(std::sqrt(power)));
}

// --- Loudness --------------------------------------------------------------------------------------------

ChapterMeter::Loudness::Loudness(const Settings& settings)
    : processor({.sampleRate = settings.sampleRate,
                 .channelCount = settings.channelCount,
                 .precomputedSpeechHistory = settings.speechHistory,
                 .channelWeights = settings.channelWeights}),
      blockFrames(processor.gateBlockFrames()),
      silence(static_cast<std::size_t>(blockFrames)),
      openBlock(static_cast<std::size_t>(settings.channelCount), silence),
      maxMomentary(unmeasured),
      maxShortTerm(unmeasured) {
  for (const auto& channel : openBlock) openBlockChannels.push_back(channel.data());
}

void ChapterMeter::Loudness::add(std::span<const float* const> channelData, std::int64_t frameCount) {
  for (std::int64_t offset = 0; offset < frameCount;) {
    const std::int64_t n = std::min(blockFrames - openFrames, frameCount - offset);
    if (n == blockFrames) {
      // A null channel would stop its filter, which has to ring out instead.
      blockChannels.clear();
      for (const float* channel : channelData)
        blockChannels.push_back(channel ? channel + offset : silence.data());
      measureBlock(blockChannels, n);
    } else {
      for (std::size_t c = 0; c < channelData.size(); ++c)
        std::copy_n(channelData[c] ? channelData[c] + offset : silence.data(), n,
                    openBlock[c].begin() + openFrames);
      openFrames += n;
      if (openFrames == blockFrames) {
        measureBlock(openBlockChannels, blockFrames);
        openFrames = 0;
      }
    }
    offset += n;
  }
}

void ChapterMeter::Loudness::measureBlock(std::span<const float* const> channelData,
                                          std::int64_t frameCount) {
  processor.updateTruePeak(channelData, frameCount);
  processor.process(channelData, frameCount);
  hasFrames = true;
  if (frameCount < blockFrames) processor.flushPartialBlock();
  // Read after each block, the two loudnesses are what the meter's history would hold.
  if (std::isfinite(processor.momentaryLUFS()))
    maxMomentary = std::max(maxMomentary, processor.momentaryLUFS());
  if (std::isfinite(processor.shortTermLUFS()))
    maxShortTerm = std::max(maxShortTerm, processor.shortTermLUFS());
}

ChapterMeter::Metrics ChapterMeter::Loudness::finish() {
  if (openFrames > 0) measureBlock(openBlockChannels, openFrames);
  openFrames = 0;
  if (!hasFrames) return {};
  Metrics metrics{.integrated = ifFinite(processor.integratedLUFS()),
                  .truePeakDBTP = ifFinite(processor.truePeakDB()),
                  .loudnessRange = ifFinite(processor.loudnessRange()),
                  .maxMomentary = ifFinite(maxMomentary),
                  .maxShortTerm = ifFinite(maxShortTerm)};
  if (const auto& history = processor.precomputedSpeechHistory()) {
    metrics.speechGated = ifFinite(processor.speechGatedLUFS());
    metrics.noiseFloor = ifFinite(processor.speechGatedNoiseFloorDBRMS());
    metrics.speechPercentage = shareOfTrue(*history);
  }
  return metrics;
}

// --- The chapter -----------------------------------------------------------------------------------------

ChapterMeter::ChapterMeter(const Settings& settings) : levels_(settings.channelCount) {
  VELLUM_REQUIRE(settings.channelCount >= 1, "ChapterMeter: a chapter has at least one channel");
  if (settings.measuresLoudness) loudness_.emplace(settings);
}

void ChapterMeter::add(std::span<const float* const> channelData, std::int64_t frameCount) {
  levels_.add(channelData, frameCount);
  if (loudness_) loudness_->add(channelData, frameCount);
}

void ChapterMeter::finish() {
  if (loudness_) metrics_ = loudness_->finish();
}

}  // namespace vellum
