#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "VellumCore/ChapterReport.hpp"
#include "VellumCore/SumOfSquares.hpp"

// Finds the chapters of a long spoken-word programme by its silences: a pause of minSilenceDuration or more
// separates two chapters, with the border in its middle. What holds less than a second of sound is no
// chapter.
//
// The signal is cut into blocks of round(sampleRate x blockDuration) frames. Borders are counted in nominal
// blocks, so where that product is not whole they drift by the rounding.
// No settings stop the program. Neither blocks of no length nor a rate of 0 or less find anything, and a
// minSilenceDuration of NaN separates nothing.
namespace vellum::ChapterDetector {

// Judges the blocks of a programme that streams by, and finds its chapters at the end.
// Life: construct, add*, then read (again and again). One thread at a time. Any chunking gives the same
// blocks. Memory: one bit per block; add allocates nothing else.
class SilenceScanner {
 public:
  SilenceScanner(double sampleRate, const ChapterDetectionSettings& settings);

  // The next frames of the mono mix; any chunk length, 0 included.
  void add(std::span<const float> mono);

  std::int64_t frameCount() const { return frameCount_; }
  std::int64_t blockFrames() const { return blockFrames_; }
  // One flag per whole block: its mean square, added up in 64 bit, is below the threshold as a 32-bit number.
  // A block with a NaN is not silent.
  const std::vector<bool>& silentBlocks() const { return silentBlocks_; }

  // In time order, numbered and named from 1, not measured, each with a new id. The first starts at 0 and the
  // last ends with the programme; between two there is a gap where a sound is too short for a chapter.
  std::vector<Chapter> chapters() const;

 private:
  void closeBlock(double squares);

  double sampleRate_;
  ChapterDetectionSettings settings_;
  float thresholdPower_;
  std::int64_t blockFrames_;
  std::int64_t frameCount_ = 0;
  SumOfSquares openBlock_;
  std::int64_t openFrames_ = 0;
  std::vector<bool> silentBlocks_;
};

// The chapters of a whole programme at once.
//   mono        samples, full scale at 1
//   sampleRate  Hz
std::vector<Chapter> detectChapters(std::span<const float> mono, double sampleRate,
                                    const ChapterDetectionSettings& settings);

// "Chapter 01"
std::string defaultChapterName(std::int64_t index);

}  // namespace vellum::ChapterDetector
