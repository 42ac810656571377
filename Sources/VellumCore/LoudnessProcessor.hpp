#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "VellumCore/PolyphaseUpsampler4x.hpp"
#include "VellumCore/SpeechVAD.hpp"
#include "VellumCore/Support/OrderedStatistics.hpp"
#include "VellumCore/TwoStageGate.hpp"

namespace vellum {

struct KWeightingState;

// Streaming loudness meter after ITU-R BS.1770-5: momentary, short-term and integrated loudness, loudness
// range, true peak, channel RMS, speech-gated loudness and noise floor of planar 32-bit float audio.
//
// The unit of time is the gate block of 100 ms, round(sampleRate x 0.1) frames. Momentary loudness is the
// mean of the last 4 blocks, short-term of the last 30; integrated loudness gates each 100 ms block by
// itself, on purpose, instead of BS.1770's overlapping 400 ms blocks.
//
// Life: construct, (updateTruePeak | process | reset | resetState)*, flushPartialBlock once at the end. The
// figures can be read at any time. One thread at a time; separate meters are independent.
// Cost: process and updateTruePeak allocate nothing but the growth of per-block statistics and histories. A
// block after a day costs at most a few times one of the first minute: a microsecond for each statistic.
// Below lowestKWeightedRate, K-weighting has no meaning: loudness figures are arbitrary or not
// measured there; peaks and RMS hold.
//
// Samples that are not finite never stop the meter. A NaN leaves its channel's filter poisoned until a reset:
// block powers are NaN from there on, momentary and short-term loudness -infinity, integrated loudness, range
// and percentage keep their last values. So does an infinite sample. A block whose power is infinite, from
// samples too large for 32-bit squares, enters no gate, range or noise floor; the filter recovers, and what
// rings on counts once it is finite. A NaN loses every peak comparison, an infinite peak reads +infinity; a
// chunk whose mean square is not finite leaves channelRMS as it was; a block whose mono RMS is not finite
// stays out of the noise floor.
class LoudnessProcessor {
 public:
  struct Settings {
    double sampleRate;          // Hz, 5 to 1,000,000
    std::int64_t channelCount;  // at least 1; 0 stops the program at the first block
    std::optional<std::vector<bool>> precomputedSpeechHistory;  // one flag per block from the start
    std::optional<std::vector<float>> channelWeights;  // another count than channelCount: the defaults
  };

  // One block's loudness in LUFS.
  struct HistoryEntry {
    float momentary, shortTerm, integrated;
    friend bool operator==(const HistoryEntry&, const HistoryEntry&) = default;
  };

  // b0, b1, b2, a1, a2 of y[n] = b0 x[n] + b1 x[n-1] + b2 x[n-2] - a1 y[n-1] - a2 y[n-2].
  using SectionCoefficients = std::array<double, 5>;
  struct KWeighting {
    SectionCoefficients stage1;  // high shelf
    SectionCoefficients stage2;  // high pass
  };

  explicit LoudnessProcessor(const Settings& settings);
  ~LoudnessProcessor();
  LoudnessProcessor(LoudnessProcessor&&) noexcept;
  LoudnessProcessor& operator=(LoudnessProcessor&&) noexcept;

  // Feeds one chunk of any length: one pointer per channel, null for an absent channel, whose filter then
  // stands still. A frameCount below 1 does nothing.
  void process(std::span<const float* const> channelData, std::int64_t frameCount);

  // Updates the true-peak figures from one chunk. Called before process() on the same chunk; the peak of a
  // chunk that spans several blocks belongs to the first that it completes. A sample is seen 7 frames late.
  void updateTruePeak(std::span<const float* const> channelData, std::int64_t frameCount);

  // Completes the block being filled, if it holds a frame, at full weight in the windows and without letting
  // it count for the two integrated figures.
  void flushPartialBlock();

  // Back to the initial figures, with fresh per-channel arrays. Keeps blockPowerHistory.
  void reset();
  // Back to the initial figures, in place. Empties blockPowerHistory but keeps channelTruePeakDB.
  void resetState();
  // Neither touches collectHistory, the precomputed flags, the weights or the speech detector's memory.

  // Next block's place in the precomputed flags; a negative index is 0.
  void setBlockIndex(std::int64_t index);
  void setCollectHistory(bool collect) { collectHistory_ = collect; }
  void setPrecomputedSpeechHistory(std::optional<std::vector<bool>> history) {
    precomputedSpeechHistory_ = std::move(history);
  }

  float momentaryLUFS() const { return figures_.momentaryLUFS; }
  float shortTermLUFS() const { return figures_.shortTermLUFS; }
  double integratedLUFS() const { return integratedGate_.loudnessLUFS(); }
  float loudnessRange() const { return figures_.loudnessRange; }                   // LU
  float truePeakDB() const { return figures_.truePeakDB; }                         // dBTP
  float lastBlockTruePeakDB() const { return figures_.lastBlockTruePeakDB; }       // dBTP, at least -160
  std::span<const float> channelTruePeakDB() const { return channelTruePeakDB_; }  // dBTP
  std::span<const float> channelRMS() const { return channelRMS_; }  // linear, smoothed once per process()
  double speechGatedLUFS() const { return speechGate_.loudnessLUFS(); }
  float speechPercentage() const { return figures_.speechPercentage; }  // of the blocks above -70 LUFS
  float speechGatedNoiseFloorDBRMS() const { return figures_.speechGatedNoiseFloorDBRMS; }

  // One entry per block while collectHistory is on; entry k covers k x 0.1 s to (k + 1) x 0.1 s.
  bool collectHistory() const { return collectHistory_; }
  std::span<const HistoryEntry> loudnessHistory() const { return loudnessHistory_; }
  std::span<const double> blockPowerHistory() const { return blockPowerHistory_; }  // 0 for a partial block
  const std::vector<bool>& speechHistory() const { return speechHistory_; }
  std::span<const float> truePeakHistory() const { return truePeakHistory_; }  // dBTP

  double sampleRate() const { return sampleRate_; }
  std::int64_t channelCount() const { return channelCount_; }
  std::span<const float> resolvedWeights() const { return resolvedWeights_; }
  const std::optional<std::vector<bool>>& precomputedSpeechHistory() const {
    return precomputedSpeechHistory_;
  }
  std::int64_t precomputedBlockIndex() const { return precomputedBlockIndex_; }
  // Short-term values (LUFS) that the loudness range is taken from, ascending.
  const OrderedStatistics<float>& shortTermLUFSHistory() const { return shortTermLUFSHistory_; }

  // Hz: twice the shelf's corner, 1681.974 Hz. Below, its poles leave the unit circle at most rates.
  static constexpr double lowestKWeightedRate = 3363.948901911066;
  static constexpr double lowestSampleRate = 5, highestSampleRate = 1e6;    // Hz
  static constexpr std::int64_t momentaryBlocks = 4, shortTermBlocks = 30;  // window lengths
  static constexpr double gateBlockDuration = 0.1;                          // s
  std::int64_t gateBlockFrames() const { return blockFrames_; }  // round(sampleRate x 0.1), halves up

  // Default weights for the order L, R, C, LFE, Ls, Rs and then further surrounds; 1 for 1, 7, 9 and more.
  static std::vector<float> staticChannelWeights(std::int64_t channelCount);
  // K-weighting for a sample rate in Hz. At 48 kHz the coefficients of ITU-R BS.1770-5, Annex 1.
  static KWeighting computeKWeightingCoefficients(double sampleRate);
  // Level in dB RMS that 90 % of the values (linear RMS) stand at or below, by rank; never below -200 dB.
  // -infinity without values.
  static float noiseFloorPercentileDB(const OrderedStatistics<float>& sorted);

 private:
  static constexpr float unmeasured = -std::numeric_limits<float>::infinity();

  struct Figures {
    float momentaryLUFS = unmeasured, shortTermLUFS = unmeasured;
    float loudnessRange = unmeasured;
    float truePeakDB = unmeasured, lastBlockTruePeakDB = unmeasured;
    float speechPercentage = 0;
    float speechGatedNoiseFloorDBRMS = unmeasured;
  };

  // Weighted mean squares of the last 30 blocks, one row of channels per block. Momentary loudness reads the
  // newest 4 rows, short-term all of them.
  class BlockWindow {
   public:
    explicit BlockWindow(std::int64_t channelCount);
    std::span<float> appendRow();  // to be filled: holds an old block's values until then
    float loudness(std::int64_t newest) const;
    bool isFull() const { return count_ == capacity; }
    void clear() { count_ = next_ = 0; }

    static constexpr std::int64_t capacity = shortTermBlocks;

   private:
    std::int64_t channelCount_, count_ = 0, next_ = 0;
    std::vector<float> rows_;
  };

  // The last input samples of one channel.
  using TruePeakHistory = std::array<float, PolyphaseUpsampler4x::delayFrames>;

  void filterSegment(std::span<const float* const> channelData, std::int64_t offset, std::int64_t n);
  void accumulateMono(std::span<const float* const> channelData, std::int64_t offset, std::int64_t n);
  void flushBlock(std::int64_t expectedFrames, bool contributesToIntegrated);
  double closeBlockPower(std::int64_t expectedFrames);
  void updateRange();
  bool decideSpeech();
  void updateNoiseFloor();
  void updateRMS(std::span<const float* const> channelData, std::int64_t frameCount);
  float computeLRAIncremental() const;
  void clearFigures();

  double sampleRate_;
  std::int64_t channelCount_;
  std::int64_t blockFrames_;  // N, frames of a whole block
  std::vector<float> resolvedWeights_;
  std::int64_t monoMixChannelCount_;
  KWeighting kWeighting_;
  SpeechVAD speechVAD_;
  bool collectHistory_ = false;
  std::optional<std::vector<bool>> precomputedSpeechHistory_;
  std::int64_t precomputedBlockIndex_ = 0;

  // The block being filled.
  std::vector<double> blockAccum_;  // sum of squared K-weighted samples per channel
  std::int64_t blockFrameCount_ = 0;
  std::vector<float> rawMonoBlock_;
  float blockPeak_ = 0;  // linear true peak since the last completed block

  // Filter memories per channel.
  std::vector<KWeightingState> biquadDelays_;
  std::vector<TruePeakHistory> truePeakDelayBufs_;

  // Figures and what they rest on.
  Figures figures_;
  std::vector<float> channelTruePeakDB_;
  std::vector<float> channelRMS_;
  BlockWindow window_;
  TwoStageGate integratedGate_, speechGate_;
  OrderedStatistics<float> shortTermLUFSHistory_;
  double shortTermPowerSum_ = 0;  // of the same entries, as power
  OrderedStatistics<float> noiseFloorBlockRMS_;
  std::int64_t sgSpeechBlockCount_ = 0, sgNonSilentCount_ = 0;

  // Histories.
  std::vector<HistoryEntry> loudnessHistory_;
  std::vector<double> blockPowerHistory_;
  std::vector<bool> speechHistory_;
  std::vector<float> truePeakHistory_;

  // Scratch for the channels present in a segment.
  std::vector<KWeightingState*> presentStates_;
  std::vector<const float*> presentInputs_;
  std::vector<std::size_t> presentChannels_;
  std::vector<double> presentEnergies_;
};

}  // namespace vellum
