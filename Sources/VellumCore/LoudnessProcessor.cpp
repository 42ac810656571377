#include "VellumCore/LoudnessProcessor.hpp"

#include <algorithm>
#include <cmath>

#include "VellumCore/ChannelOrder.hpp"
#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {

namespace {

float decibels(float linear, float floor) {
  return 20.0f * std::log10(std::max(linear, floor));
}

// dBTP of a linear peak; silence reads -160.
float truePeakDecibels(float peak) {
  return decibels(peak, 1e-8f);
}

float meanSquare(const float* x, std::int64_t n) {
  return static_cast<float>(kernels().sumOfSquares(x, n) / static_cast<double>(n));
}

KWeightingCoefficients kernelCoefficients(const LoudnessProcessor::KWeighting& k) {
  return {.b0 = k.stage1[0],
          .b1 = k.stage1[1],
          .b2 = k.stage1[2],
          .a1 = k.stage1[3],
          .a2 = k.stage1[4],
          .c1 = k.stage2[3],
          .c2 = k.stage2[4]};
}

const LoudnessProcessor::Settings& checked(const LoudnessProcessor::Settings& settings) {
  VELLUM_REQUIRE(settings.sampleRate >= LoudnessProcessor::lowestSampleRate &&
                     settings.sampleRate <= LoudnessProcessor::highestSampleRate,
                 "LoudnessProcessor: sampleRate must be 5 to 1,000,000 Hz");
  VELLUM_REQUIRE(settings.channelCount >= 0, "LoudnessProcessor: channelCount must not be negative");
  return settings;
}

std::vector<float> resolveWeights(const LoudnessProcessor::Settings& settings) {
  if (settings.channelWeights &&
      static_cast<std::int64_t>(settings.channelWeights->size()) == settings.channelCount)
    return *settings.channelWeights;
  return LoudnessProcessor::staticChannelWeights(settings.channelCount);
}

}  // namespace

// --- Tables ----------------------------------------------------------------------------------------------

std::vector<float> LoudnessProcessor::staticChannelWeights(std::int64_t channelCount) {
  constexpr float s = ChannelOrder::surroundWeight;
  switch (channelCount) {
    case 4:
      return {1, 1, s, s};
    case 5:
      return {1, 1, 1, s, s};
    case 6:
      return {1, 1, 1, 0, s, s};
    case 8:
      return {1, 1, 1, 0, s, s, s, s};
    // Seven channels have no LFE at weight 0 either: nothing tells which one it would be.
    default:
      return std::vector<float>(static_cast<std::size_t>(std::max<std::int64_t>(channelCount, 0)), 1.0f);
  }
}

LoudnessProcessor::KWeighting LoudnessProcessor::computeKWeightingCoefficients(double sampleRate) {
  KWeighting weighting;
  {
    const double K = std::tan(5284.078578647628 / sampleRate);  // pi x 1681.974450955533 Hz
    constexpr double Q = 0.7071752369554196, Vh = 1.5848647011308556, Vb = 1.2587209302325617;
    const double a0 = K * K + K / Q + 1.0;
    weighting.stage1 = {(K * K + Vb * K / Q + Vh) / a0, 2.0 * (K * K - Vh) / a0,
                        (K * K - Vb * K / Q + Vh) / a0, 2.0 * (K * K - 1.0) / a0, (K * K - K / Q + 1.0) / a0};
  }
  {
    const double K = std::tan(119.8061151453059 / sampleRate);  // pi x 38.13547087602444 Hz
    constexpr double Q = 0.5003270373253953;
    const double a0 = K * K + K / Q + 1.0;
    // Numerator stays 1, -2, 1, not divided by a0: BS.1770's own form.
    weighting.stage2 = {1.0, -2.0, 1.0, 2.0 * (K * K - 1.0) / a0, (K * K - K / Q + 1.0) / a0};
  }
  return weighting;
}

// --- Life ------------------------------------------------------------------------------------------------

LoudnessProcessor::LoudnessProcessor(const Settings& settings)
    : sampleRate_(checked(settings).sampleRate),
      channelCount_(settings.channelCount),
      blockFrames_(static_cast<std::int64_t>(std::round(sampleRate_ * gateBlockDuration))),
      resolvedWeights_(resolveWeights(settings)),
      monoMixChannelCount_(std::max<std::int64_t>(
          std::count_if(resolvedWeights_.begin(), resolvedWeights_.end(), [](float w) { return w > 0; }), 1)),
      kWeighting_(computeKWeightingCoefficients(sampleRate_)),
      speechVAD_(sampleRate_),
      precomputedSpeechHistory_(settings.precomputedSpeechHistory),
      window_(channelCount_) {
  rawMonoBlock_.reserve(static_cast<std::size_t>(sampleRate_ * 0.12));  // a block and 20 %
  reset();
}

LoudnessProcessor::~LoudnessProcessor() = default;
LoudnessProcessor::LoudnessProcessor(LoudnessProcessor&&) noexcept = default;
LoudnessProcessor& LoudnessProcessor::operator=(LoudnessProcessor&&) noexcept = default;

// What the two resets share: every figure of the whole programme, every sum and count behind one, the block
// being filled and the histories.
void LoudnessProcessor::clearFigures() {
  figures_ = {};
  window_.clear();
  integratedGate_.clear();
  speechGate_.clear();
  shortTermLUFSHistory_.clear();
  shortTermPowerSum_ = 0;
  noiseFloorBlockRMS_.clear();
  sgSpeechBlockCount_ = sgNonSilentCount_ = 0;
  blockFrameCount_ = 0;
  rawMonoBlock_.clear();
  blockPeak_ = 0;
  precomputedBlockIndex_ = 0;
  loudnessHistory_.clear();
  speechHistory_.clear();
  truePeakHistory_.clear();
}

void LoudnessProcessor::reset() {
  clearFigures();
  const auto channels = static_cast<std::size_t>(channelCount_);
  channelTruePeakDB_.assign(channels, unmeasured);
  channelRMS_.assign(channels, 0.0f);
  blockAccum_.assign(channels, 0.0);
  biquadDelays_.assign(channels, {});
  truePeakDelayBufs_.assign(channels, {});
}

void LoudnessProcessor::resetState() {
  clearFigures();
  blockPowerHistory_.clear();
  std::fill(channelRMS_.begin(), channelRMS_.end(), 0.0f);
  std::fill(blockAccum_.begin(), blockAccum_.end(), 0.0);
  std::fill(biquadDelays_.begin(), biquadDelays_.end(), KWeightingState{});
  std::fill(truePeakDelayBufs_.begin(), truePeakDelayBufs_.end(), TruePeakHistory{});
}

void LoudnessProcessor::setBlockIndex(std::int64_t index) {
  precomputedBlockIndex_ = std::max<std::int64_t>(index, 0);
}

// --- Samples ---------------------------------------------------------------------------------------------

void LoudnessProcessor::process(std::span<const float* const> channelData, std::int64_t frameCount) {
  if (frameCount < 1) return;
  VELLUM_REQUIRE(static_cast<std::int64_t>(channelData.size()) == channelCount_,
                 "LoudnessProcessor: process takes one pointer per channel");
  for (std::int64_t offset = 0; offset < frameCount;) {
    const std::int64_t n = std::min(blockFrames_ - blockFrameCount_, frameCount - offset);
    filterSegment(channelData, offset, n);
    accumulateMono(channelData, offset, n);
    offset += n;
    blockFrameCount_ += n;
    if (blockFrameCount_ >= blockFrames_) flushBlock(blockFrames_, true);
  }
  updateRMS(channelData, frameCount);
}

void LoudnessProcessor::filterSegment(std::span<const float* const> channelData, std::int64_t offset,
                                      std::int64_t n) {
  presentStates_.clear();
  presentInputs_.clear();
  presentChannels_.clear();
  for (std::size_t c = 0; c < channelData.size(); ++c) {
    if (!channelData[c]) continue;
    presentStates_.push_back(&biquadDelays_[c]);
    presentInputs_.push_back(channelData[c] + offset);
    presentChannels_.push_back(c);
  }
  presentEnergies_.resize(presentChannels_.size());
  kernels().kWeightedEnergy(kernelCoefficients(kWeighting_), presentStates_.data(), presentInputs_.data(),
                            presentEnergies_.data(), static_cast<std::int64_t>(presentChannels_.size()), n);
  const auto frames = static_cast<double>(n);
  for (std::size_t k = 0; k < presentChannels_.size(); ++k) {
    const float segmentMeanSquare = static_cast<float>(presentEnergies_[k] / frames);
    blockAccum_[presentChannels_[k]] += frames * static_cast<double>(segmentMeanSquare);
  }
}

// The raw mix of the weighted channels: what the speech detector and the noise floor hear. A channel of
// weight 0 (LFE) stays out of it; an absent one still counts in the divisor.
void LoudnessProcessor::accumulateMono(std::span<const float* const> channelData, std::int64_t offset,
                                       std::int64_t n) {
  const std::size_t start = rawMonoBlock_.size();
  rawMonoBlock_.resize(start + static_cast<std::size_t>(n), 0.0f);
  float* mix = rawMonoBlock_.data() + start;
  for (std::size_t c = 0; c < channelData.size(); ++c)
    if (channelData[c] && resolvedWeights_[c] > 0) kernels().add(mix, channelData[c] + offset, n);
  if (monoMixChannelCount_ >= 2) kernels().scale(mix, 1.0f / static_cast<float>(monoMixChannelCount_), n);
}

void LoudnessProcessor::updateRMS(std::span<const float* const> channelData, std::int64_t frameCount) {
  for (std::size_t c = 0; c < channelData.size(); ++c) {
    if (!channelData[c]) continue;
    const float power = meanSquare(channelData[c], frameCount);
    if (std::isfinite(power)) channelRMS_[c] = channelRMS_[c] * 0.85f + std::sqrt(power) * 0.15f;
  }
}

void LoudnessProcessor::updateTruePeak(std::span<const float* const> channelData, std::int64_t frameCount) {
  if (frameCount < 1) return;
  VELLUM_REQUIRE(static_cast<std::int64_t>(channelData.size()) == channelCount_,
                 "LoudnessProcessor: updateTruePeak takes one pointer per channel");
  for (std::size_t c = 0; c < channelData.size(); ++c) {
    if (!channelData[c]) continue;
    const float peak = PolyphaseUpsampler4x::streamPeak(truePeakDelayBufs_[c], channelData[c], frameCount);
    const float peakDB = truePeakDecibels(peak);
    figures_.truePeakDB = std::max(figures_.truePeakDB, peakDB);
    channelTruePeakDB_[c] = std::max(channelTruePeakDB_[c], peakDB);
    blockPeak_ = std::max(blockPeak_, peak);
  }
}

// --- Blocks ----------------------------------------------------------------------------------------------

void LoudnessProcessor::flushPartialBlock() {
  if (blockFrameCount_ > 0) flushBlock(blockFrameCount_, false);
}

// Completes the block being filled as one of `expectedFrames` frames. The histories take the integrated
// loudness with this block in it, and come before the speech decision, which may ask the detector.
void LoudnessProcessor::flushBlock(std::int64_t expectedFrames, bool contributesToIntegrated) {
  VELLUM_REQUIRE(channelCount_ > 0, "LoudnessProcessor: a meter needs at least one channel");
  const double power = closeBlockPower(expectedFrames);
  const bool countsForGates = TwoStageGate::passesAbsoluteGate(power);

  figures_.momentaryLUFS = window_.loudness(momentaryBlocks);
  figures_.shortTermLUFS = window_.loudness(shortTermBlocks);
  if (window_.isFull()) updateRange();
  if (contributesToIntegrated && countsForGates) integratedGate_.admit(power);

  figures_.lastBlockTruePeakDB = truePeakDecibels(blockPeak_);
  blockPeak_ = 0;

  if (collectHistory_) {
    blockPowerHistory_.push_back(contributesToIntegrated ? power : 0.0);
    loudnessHistory_.push_back(
        {figures_.momentaryLUFS, figures_.shortTermLUFS, static_cast<float>(integratedGate_.loudnessLUFS())});
    truePeakHistory_.push_back(figures_.lastBlockTruePeakDB);
  }

  const bool isSpeech = decideSpeech();
  if (collectHistory_) speechHistory_.push_back(isSpeech);
  // An infinite power may cancel out in the mono mix; such a block is no noise floor whatever the mix says.
  if (!isSpeech && !std::isinf(power)) updateNoiseFloor();
  rawMonoBlock_.clear();

  if (countsForGates) {
    ++sgNonSilentCount_;
    if (isSpeech) ++sgSpeechBlockCount_;
    figures_.speechPercentage =
        static_cast<float>(sgSpeechBlockCount_) / static_cast<float>(sgNonSilentCount_) * 100.0f;
    if (contributesToIntegrated && isSpeech) speechGate_.admit(power);
  }

  std::fill(blockAccum_.begin(), blockAccum_.end(), 0.0);
  blockFrameCount_ = 0;
}

// The block's weighted power; its channels' shares join the windows.
double LoudnessProcessor::closeBlockPower(std::int64_t expectedFrames) {
  double power = 0;
  const std::span<float> row = window_.appendRow();
  for (std::size_t c = 0; c < row.size(); ++c) {
    const double weighted =
        (blockAccum_[c] / static_cast<double>(expectedFrames)) * static_cast<double>(resolvedWeights_[c]);
    power += weighted;
    row[c] = static_cast<float>(weighted);
  }
  return power;
}

void LoudnessProcessor::updateRange() {
  const float value = figures_.shortTermLUFS;
  if (!std::isfinite(value) || !(value > -70.0f)) return;
  shortTermLUFSHistory_.insert(value);
  shortTermPowerSum_ += std::pow(10.0, (static_cast<double>(value) + 0.691) / 10.0);
  figures_.loudnessRange = computeLRAIncremental();
}

// The given flag, as long as there is one, else the detector's verdict.
bool LoudnessProcessor::decideSpeech() {
  const std::int64_t block = precomputedBlockIndex_;
  if (block < std::numeric_limits<std::int64_t>::max()) ++precomputedBlockIndex_;
  if (precomputedSpeechHistory_ && block < static_cast<std::int64_t>(precomputedSpeechHistory_->size()))
    return (*precomputedSpeechHistory_)[static_cast<std::size_t>(block)];
  return speechVAD_.isSpeech(rawMonoBlock_);
}

void LoudnessProcessor::updateNoiseFloor() {
  if (rawMonoBlock_.empty()) return;
  const float power = meanSquare(rawMonoBlock_.data(), static_cast<std::int64_t>(rawMonoBlock_.size()));
  if (!std::isfinite(power)) return;
  noiseFloorBlockRMS_.insert(std::sqrt(std::max(power, 1e-20f)));
  figures_.speechGatedNoiseFloorDBRMS = noiseFloorPercentileDB(noiseFloorBlockRMS_);
}

// Spread of the short-term loudness between its 10th and 95th percentile, by rounded rank (EBU Tech 3342),
// above a gate 20 LU under its mean power. At least 10 values must stand before and after that gate.
float LoudnessProcessor::computeLRAIncremental() const {
  constexpr std::int64_t enough = 10;
  const std::int64_t n = shortTermLUFSHistory_.count();
  if (n < enough) return unmeasured;
  const auto gate = static_cast<float>(loudnessOfPower(shortTermPowerSum_ / static_cast<double>(n)) - 20.0);
  const std::int64_t first = shortTermLUFSHistory_.tailAbove(gate).firstRank;
  const std::int64_t passed = n - first;
  if (passed < enough) return unmeasured;
  const auto rankAt = [&](double share) {
    return first + static_cast<std::int64_t>(std::round(static_cast<double>(passed - 1) * share));
  };
  return std::max(shortTermLUFSHistory_.valueAt(rankAt(0.95)) - shortTermLUFSHistory_.valueAt(rankAt(0.1)),
                  0.0f);
}

float LoudnessProcessor::noiseFloorPercentileDB(const OrderedStatistics<float>& sorted) {
  const std::int64_t n = sorted.count();
  if (n == 0) return unmeasured;
  const auto rank = static_cast<std::int64_t>(std::ceil(static_cast<double>(n) * 0.9)) - 1;
  return decibels(sorted.valueAt(std::clamp<std::int64_t>(rank, 0, n - 1)), 1e-10f);
}

// --- Windows ---------------------------------------------------------------------------------------------

LoudnessProcessor::BlockWindow::BlockWindow(std::int64_t channelCount)
    : channelCount_(channelCount), rows_(static_cast<std::size_t>(capacity * channelCount)) {}

std::span<float> LoudnessProcessor::BlockWindow::appendRow() {
  const std::span<float> row(rows_.data() + next_ * channelCount_, static_cast<std::size_t>(channelCount_));
  next_ = (next_ + 1) % capacity;
  count_ = std::min(count_ + 1, capacity);
  return row;
}

// Loudness of the newest blocks' mean; fewer where there are not as many yet. A silent window, and one that
// holds a power which is not finite or adds up to one, reads -infinity.
float LoudnessProcessor::BlockWindow::loudness(std::int64_t newest) const {
  const std::int64_t m = std::min(count_, newest);
  if (m == 0 || channelCount_ == 0) return unmeasured;
  float sum = 0;
  for (std::int64_t age = m; age > 0; --age) {
    const float* row = rows_.data() + ((next_ - age + capacity) % capacity) * channelCount_;
    for (std::int64_t c = 0; c < channelCount_; ++c) sum += row[c];
  }
  if (!(sum > 0) || std::isinf(sum)) return unmeasured;
  return static_cast<float>(loudnessOfPower(static_cast<double>(sum / static_cast<float>(m))));
}

}  // namespace vellum
