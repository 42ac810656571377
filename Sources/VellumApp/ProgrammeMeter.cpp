#include "VellumApp/ProgrammeMeter.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "VellumCore/ChannelLevels.hpp"
#include "VellumCore/GatedLoudness.hpp"
#include "VellumCore/LoudnessTargetEvaluation.hpp"
#include "VellumCore/PolyphaseUpsampler4x.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {

namespace {

constexpr float unmeasured = -std::numeric_limits<float>::infinity();
constexpr float silentTruePeakDB = -160;  // what the meter reads where there is no peak

// The largest loudness of a sliding window over whole blocks, and where that window ends.
struct WindowMaximum {
  std::int64_t blocks;  // of the window
  float lufs = unmeasured;
  std::int64_t endBlock = 0;

  void take(float value, std::int64_t completedBlocks) {
    if (completedBlocks < blocks || !(value > lufs)) return;
    lufs = value;
    endBlock = completedBlocks;
  }
};

// Integrated loudness after ITU-R BS.1770-5: gating blocks of 400 ms that overlap by 75 %, so that each is
// the mean of four consecutive 100 ms blocks.
double bs1770IntegratedLUFS(std::span<const double> wholeBlockPowers) {
  constexpr std::size_t quarters = 4;
  std::vector<double> powers;
  for (std::size_t k = 0; k + quarters <= wholeBlockPowers.size(); ++k) {
    double sum = 0;
    for (std::size_t q = 0; q < quarters; ++q) sum += wholeBlockPowers[k + q];
    powers.push_back(sum / static_cast<double>(quarters));
  }
  return GatedLoudness::integratedLUFS(powers, [](std::int64_t) { return true; });
}

}  // namespace

struct ProgrammeMeter::State {
  explicit State(const Settings& settings)
      : loudness({.sampleRate = settings.sampleRate,
                  .channelCount = settings.channelCount,
                  .precomputedSpeechHistory = std::nullopt,
                  .channelWeights = settings.channelWeights}),
        dynamicRange(settings.sampleRate, settings.channelCount),
        levels(settings.channelCount),
        piece(static_cast<std::size_t>(settings.channelCount)) {
    loudness.setCollectHistory(true);
  }

  double secondsOf(std::int64_t blocks) const {
    return static_cast<double>(blocks * loudness.gateBlockFrames()) / loudness.sampleRate();
  }

  // Updates the true peak from `piece`, which lies within one block.
  void updateTruePeak(std::int64_t frames, std::int64_t block) {
    const float before = std::max(loudness.truePeakDB(), silentTruePeakDB);
    loudness.updateTruePeak(piece, frames);
    if (loudness.truePeakDB() > before) truePeakBlock = block;
  }

  LoudnessProcessor loudness;
  DRProcessor::BlockMeter dynamicRange;
  ChannelLevels levels;
  WindowMaximum momentary{.blocks = LoudnessProcessor::momentaryBlocks};
  WindowMaximum shortTerm{.blocks = LoudnessProcessor::shortTermBlocks};
  std::optional<std::int64_t> truePeakBlock;
  std::int64_t frameCount = 0;
  bool isFinished = false;
  std::vector<const float*> piece;  // scratch: the channels of the piece being fed
};

ProgrammeMeter::ProgrammeMeter(const Settings& settings) {
  VELLUM_REQUIRE(settings.channelCount >= 1, "ProgrammeMeter: channelCount must be at least 1");
  state_ = std::make_unique<State>(settings);
}

ProgrammeMeter::~ProgrammeMeter() = default;
ProgrammeMeter::ProgrammeMeter(ProgrammeMeter&&) noexcept = default;
ProgrammeMeter& ProgrammeMeter::operator=(ProgrammeMeter&&) noexcept = default;

void ProgrammeMeter::feed(std::span<const float* const> channelData, std::int64_t frameCount) {
  State& s = *state_;
  VELLUM_REQUIRE(!s.isFinished, "ProgrammeMeter: nothing can be fed after finish");
  VELLUM_REQUIRE(channelData.size() == s.piece.size(), "ProgrammeMeter: feed takes one pointer per channel");
  s.dynamicRange.add(channelData, frameCount);
  s.levels.add(channelData, frameCount);

  // Cut at the block borders, so that each block gets its own true peak.
  const std::int64_t blockFrames = s.loudness.gateBlockFrames();
  for (std::int64_t offset = 0; offset < frameCount;) {
    const std::int64_t block = s.frameCount / blockFrames;
    const std::int64_t n = std::min((block + 1) * blockFrames - s.frameCount, frameCount - offset);
    for (std::size_t c = 0; c < s.piece.size(); ++c)
      s.piece[c] = channelData[c] ? channelData[c] + offset : nullptr;
    s.updateTruePeak(n, block);
    s.loudness.process(s.piece, n);
    s.frameCount += n;
    offset += n;
    if (const std::int64_t completed = s.frameCount / blockFrames; completed > block) {
      s.momentary.take(s.loudness.momentaryLUFS(), completed);
      s.shortTerm.take(s.loudness.shortTermLUFS(), completed);
    }
  }
}

ProgrammeFigures ProgrammeMeter::finish() {
  State& s = *state_;
  VELLUM_REQUIRE(!s.isFinished, "ProgrammeMeter: finish is called once");
  s.isFinished = true;
  const std::int64_t wholeBlocks = s.frameCount / s.loudness.gateBlockFrames();

  // The detector sees a sample 7 frames late: silence lets it see the last ones. For the peak alone, the
  // programme does not get longer.
  if (s.frameCount > 0) {
    constexpr std::array<float, PolyphaseUpsampler4x::delayFrames> silence{};
    std::fill(s.piece.begin(), s.piece.end(), silence.data());
    s.updateTruePeak(PolyphaseUpsampler4x::delayFrames, (s.frameCount - 1) / s.loudness.gateBlockFrames());
    s.loudness.flushPartialBlock();
  }

  ProgrammeFigures figures{};
  figures.frameCount = s.frameCount;
  figures.durationSec = static_cast<double>(s.frameCount) / s.loudness.sampleRate();
  figures.integratedLUFS = s.loudness.integratedLUFS();
  figures.bs1770IntegratedLUFS =
      bs1770IntegratedLUFS(s.loudness.blockPowerHistory().first(static_cast<std::size_t>(wholeBlocks)));

  const auto readMaximum = [&](const WindowMaximum& maximum, float lastValue, float& lufs,
                               std::optional<double>& atSec) {
    const bool isShort = wholeBlocks < maximum.blocks;
    lufs = isShort ? lastValue : maximum.lufs;
    if (std::isfinite(lufs)) atSec = isShort ? figures.durationSec : s.secondsOf(maximum.endBlock);
  };
  readMaximum(s.momentary, s.loudness.momentaryLUFS(), figures.maxMomentaryLUFS, figures.maxMomentaryAtSec);
  readMaximum(s.shortTerm, s.loudness.shortTermLUFS(), figures.maxShortTermLUFS, figures.maxShortTermAtSec);

  figures.loudnessRange = s.loudness.loudnessRange();
  figures.truePeakDBTP = s.loudness.truePeakDB();
  if (s.truePeakBlock) figures.truePeakAtSec = s.secondsOf(*s.truePeakBlock);
  figures.channelTruePeakDBTP.assign(s.loudness.channelTruePeakDB().begin(),
                                     s.loudness.channelTruePeakDB().end());

  figures.samplePeakDBFS = s.levels.samplePeakDBFS();
  figures.nonFiniteSamples = s.levels.nonFiniteSamples();
  for (std::size_t c = 0; c < s.piece.size(); ++c) figures.channelRMSDBFS.push_back(s.levels.rmsDBFS(c));
  figures.rmsDBFS = LoudnessMeasurement::programRMSDBFS(figures.channelRMSDBFS);

  figures.speechGatedLUFS = s.loudness.speechGatedLUFS();
  figures.speechPercentage = s.loudness.speechPercentage();
  figures.noiseFloorDBRMS = s.loudness.speechGatedNoiseFloorDBRMS();

  const std::vector<float> rawDR = s.dynamicRange.channelDRsRaw();
  if (!rawDR.empty() && std::all_of(rawDR.begin(), rawDR.end(), [](float dr) { return std::isfinite(dr); })) {
    figures.dynamicRange = DRProcessor::overallDR(rawDR);
    figures.channelDynamicRange = DRProcessor::perChannelDR(rawDR);
  }
  return figures;
}

std::span<const float> ProgrammeMeter::channelWeights() const {
  return state_->loudness.resolvedWeights();
}

std::int64_t ProgrammeMeter::frameCount() const {
  return state_->frameCount;
}

ProgrammeHistory ProgrammeMeter::history() const {
  const LoudnessProcessor& meter = state_->loudness;
  return {meter.loudnessHistory(), meter.truePeakHistory(), meter.blockPowerHistory(), meter.speechHistory()};
}

}  // namespace vellum
