#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VellumApp/FileMeasurement.hpp"
#include "VellumApp/ProgrammeMeter.hpp"
#include "VellumCore/ChapterAnalysis.hpp"
#include "VellumCore/ChapterReport.hpp"

// The chapters of a file, in two passes of it: one that finds them and measures the whole, one that measures
// each. Memory does not grow with the samples, but with the blocks and chapters only.
namespace vellum {

struct ScanSettings {
  ChapterDetectionSettings detection;  // within ChapterLimits
  // Instead of the file's own labels; in the file's order.
  std::optional<std::vector<AudioChannelLabel>> channelLabels;
};

// A file after the first pass. Lists of channels are in the order in which they are metered.
struct ChapterProgramme {
  std::filesystem::path path;
  std::string formatName;
  double sampleRate;  // Hz
  std::int64_t channelCount;
  std::vector<std::int64_t> fileChannels;  // each channel's place in the file, from 0
  std::vector<float> channelWeights;
  ProgrammeFigures figures;         // of the whole
  std::vector<bool> speechHistory;  // one flag per 100 ms
  std::vector<Chapter> detected;    // not measured
  std::vector<std::string> warnings;
};

using ScanGoOn = std::function<bool(const MeasureProgress&)>;  // false interrupts

// The first pass. Silences are those of the mean of the channels whose weight is above 0. Absent:
// interrupted. Throws FileError as measureFile.
std::optional<ChapterProgramme> scanProgramme(const std::filesystem::path& path, const ScanSettings& settings,
                                              const ScanGoOn& goOn);

struct MeasuredChapters {
  std::vector<Chapter> chapters;  // in the order in which they were given
  // One per chapter, also of those that are too short for other figures; absent without frames.
  std::vector<std::optional<float>> truePeakDBTP;
};

// Measures chapters while their programme streams by. They may come in any order, overlap and leave gaps:
// only those that hold the current frame have a meter.
// Life: construct, add*, finish once. One thread at a time.
class ChapterSweep {
 public:
  // The programme has to outlive it. The chapters' times are within ChapterLimits.
  ChapterSweep(const ChapterProgramme& programme, std::span<const Chapter> chapters);

  // The next frames: one pointer per channel, in the file's order.
  void add(std::span<const float* const> channelData, std::int64_t frameCount);
  MeasuredChapters finish();

  std::int64_t frameCount() const { return position_; }

 private:
  struct Active {
    std::size_t chapter;
    std::int64_t end;
    ChapterMeter meter;
    std::optional<ChapterMeter> peak;  // of a chapter whose meter takes no true peak
  };
  struct Waiting {
    std::size_t chapter;
    ChapterAnalyser::FrameRange frames;
  };

  void start(const Waiting& waiting);
  void conclude(Active& active);

  const ChapterProgramme& programme_;
  MeasuredChapters result_;
  std::vector<Waiting> waiting_;  // the last one starts first
  std::vector<Active> active_;
  std::int64_t position_ = 0;
  std::vector<const float*> metered_;  // scratch
};

// The second pass, over the programme's file or another one of the same shape. Absent: interrupted.
// Throws FileError: as AudioFile, or it is not as long as the programme.
std::optional<MeasuredChapters> measureChapters(const std::filesystem::path& path,
                                                const ChapterProgramme& programme,
                                                std::span<const Chapter> chapters, const ScanGoOn& goOn);

ChapterFileFingerprint fingerprintOf(const ChapterProgramme& programme);
// What differs, in words for people: "the sample rate is 44100 Hz, not 48000 Hz"; empty where all is equal.
//   expected  by a report
std::vector<std::string> differencesFrom(const ChapterFileFingerprint& expected,
                                         const ChapterFileFingerprint& found);

// Chapters as a report has them: by their start, numbered from 1, each id once (a copy gets a new one).
std::vector<Chapter> inTimeOrder(std::vector<Chapter> chapters);

}  // namespace vellum
