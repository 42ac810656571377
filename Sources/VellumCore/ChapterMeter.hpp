#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "VellumCore/LoudnessProcessor.hpp"
#include "VellumCore/SumOfSquares.hpp"

namespace vellum {

// Sample peak and RMS of a stretch of planar audio that streams by, over all its channels, unweighted.
// Life: construct, add*, read at any time. One thread at a time; add allocates nothing. Any chunking gives
// the same figures to the last bit.
class StretchLevels {
 public:
  explicit StretchLevels(std::int64_t channelCount);

  // One pointer per channel; any chunk length, 0 included. A null channel is silent.
  void add(std::span<const float* const> channelData, std::int64_t frameCount);

  // dBFS. Absent without frames or channels; -infinity for silence. A NaN loses every comparison for the peak
  // and makes the RMS -infinity.
  std::optional<float> samplePeakDBFS() const;
  std::optional<float> rmsDBFS() const;

 private:
  std::int64_t frameCount_ = 0;
  float peak_ = 0;
  std::vector<SumOfSquares> squares_;
};

// Measures one chapter that streams by.
// Life: construct, add*, finish once, then read the metrics. One thread at a time; separate meters are
// independent. Any chunking gives the same figures to the last bit, because the audio reaches the loudness
// meter in its gate blocks of 100 ms.
// Memory: two such blocks, and the loudness meter's statistics.
class ChapterMeter {
 public:
  struct Settings {
    double sampleRate;                                 // Hz, 5 to 1,000,000 where loudness is measured
    std::int64_t channelCount;                         // at least 1
    std::optional<std::vector<bool>> speechHistory;    // one flag per 100 ms of the chapter, from its start
    std::optional<std::vector<float>> channelWeights;  // another count than channelCount: by channel count
    bool measuresLoudness;                             // else only the levels are measured
  };

  // What was not measured, or is not finite, is absent.
  struct Metrics {
    std::optional<float> integrated = std::nullopt;     // LUFS
    std::optional<float> truePeakDBTP = std::nullopt;   // -160 for digital silence
    std::optional<float> loudnessRange = std::nullopt;  // LU
    std::optional<float> maxMomentary = std::nullopt;   // LUFS
    std::optional<float> maxShortTerm = std::nullopt;   // LUFS
    // Of the speech that the history tells, and of the rest; the meter's own detector judges the blocks
    // behind the history's end. Both absent without a history.
    std::optional<float> speechGated = std::nullopt;  // LUFS
    std::optional<float> noiseFloor = std::nullopt;   // dB RMS, -200 for digital silence
    // Share of true flags in the history: a fraction, 0 to 1, for all its name, as stored reports have it.
    std::optional<float> speechPercentage = std::nullopt;
    friend bool operator==(const Metrics&, const Metrics&) = default;
  };

  explicit ChapterMeter(const Settings& settings);

  // One pointer per channel; any chunk length, 0 included. A null channel is silent.
  void add(std::span<const float* const> channelData, std::int64_t frameCount);
  // The last block, if it is not whole, counts for everything but the two integrated figures.
  void finish();

  const StretchLevels& levels() const { return levels_; }
  // All absent without a frame.
  const Metrics& metrics() const { return metrics_; }

 private:
  // Turns chunks of any length into whole gate blocks for the loudness meter.
  struct Loudness {
    explicit Loudness(const Settings& settings);
    void add(std::span<const float* const> channelData, std::int64_t frameCount);
    void measureBlock(std::span<const float* const> channelData, std::int64_t frameCount);
    Metrics finish();

    LoudnessProcessor processor;
    std::int64_t blockFrames;
    std::vector<float> silence;                   // a block
    std::vector<std::vector<float>> openBlock;    // per channel
    std::vector<const float*> openBlockChannels;  // the same as pointers
    std::int64_t openFrames = 0;
    std::vector<const float*> blockChannels;  // scratch
    float maxMomentary, maxShortTerm;
    bool hasFrames = false;
  };

  StretchLevels levels_;
  std::optional<Loudness> loudness_;
  Metrics metrics_;
};

}  // namespace vellum
