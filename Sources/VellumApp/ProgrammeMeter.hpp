#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "VellumCore/DRProcessor.hpp"
#include "VellumCore/LoudnessProcessor.hpp"

namespace vellum {

// Everything that is known of one programme after its last frame. A level is -infinity, and an optional
// absent, where there was nothing to measure. Times are seconds from the programme's first frame.
struct ProgrammeFigures {
  std::int64_t frameCount = 0;
  double durationSec = 0;

  double integratedLUFS;        // 100 ms gating blocks: the figure that verdicts use
  double bs1770IntegratedLUFS;  // 400 ms gating blocks at 75 % overlap (ITU-R BS.1770-5)
  float maxMomentaryLUFS;       // full 400 ms windows of whole blocks; the last value of a shorter programme
  std::optional<double> maxMomentaryAtSec;  // end of that window
  float maxShortTermLUFS;  // full 3 s windows of whole blocks; the last value of a shorter programme
  std::optional<double> maxShortTermAtSec;  // end of that window
  float loudnessRange;                      // LU
  float truePeakDBTP;
  std::optional<double> truePeakAtSec;  // start of the 100 ms block in which it is seen
  std::vector<float> channelTruePeakDBTP;
  float samplePeakDBFS;
  float rmsDBFS;  // mean power of the channels that are not silent
  std::vector<float> channelRMSDBFS;
  double speechGatedLUFS;
  float speechPercentage;                         // 0 to 100, of the blocks above -70 LUFS
  float noiseFloorDBRMS;                          // 90th percentile of the non-speech blocks
  std::optional<std::int64_t> dynamicRange;       // absent also where a block is not finite
  std::vector<std::int64_t> channelDynamicRange;  // empty where dynamicRange is absent
  std::int64_t nonFiniteSamples = 0;
};

// Per-block histories, one entry per 100 ms block, the final partial block included.
struct ProgrammeHistory {
  std::span<const LoudnessProcessor::HistoryEntry> loudness;  // momentary, short-term, integrated (LUFS)
  std::span<const float> truePeakDBTP;
  std::span<const double> blockPower;  // linear; 0 for the final partial block
  const std::vector<bool>& speech;
};

// Measures one whole programme fed chunk by chunk: a LoudnessProcessor and the whole-programme figures
// around it. Knows no files and prints nothing.
// Life: construct, feed*, finish once, then read. One thread at a time.
// Memory grows by the per-block histories only (about 80 bytes for each 100 ms).
class ProgrammeMeter {
 public:
  struct Settings {
    double sampleRate;                                 // Hz, 5 to 1,000,000
    std::int64_t channelCount;                         // at least 1
    std::optional<std::vector<float>> channelWeights;  // one per channel; by channel count when absent
  };
  explicit ProgrammeMeter(const Settings& settings);
  ~ProgrammeMeter();
  ProgrammeMeter(ProgrammeMeter&&) noexcept;
  ProgrammeMeter& operator=(ProgrammeMeter&&) noexcept;

  // Any chunk length, 0 included; a null pointer is an absent channel.
  void feed(std::span<const float* const> channelData, std::int64_t frameCount);

  // Flushes what is pending and reads every figure. Called once, after the last feed.
  ProgrammeFigures finish();

  // The weights that the loudness figures use, one per channel.
  std::span<const float> channelWeights() const;
  std::int64_t frameCount() const;
  ProgrammeHistory history() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vellum
