#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VellumApp/ChapterProgramme.hpp"
#include "VellumApp/Rendering.hpp"
#include "VellumCore/ChapterAnalysis.hpp"

// Bringing the chapters of a programme to one level.
namespace vellum {

// Gains of chapters as one smooth curve over the programme.
// All change lies inside of the chapters that have a gain: in their first and last 50 ms (or half of a
// shorter chapter) the gain in dB follows half a cosine, from 0 dB at a border to silence or to a chapter
// without a gain, from the mean of both gains at a border that two share. Frames outside have a gain of
// exactly 1. The limiter works where a chapter is raised; towards a border behind which it does not, its
// share fades out with the gain.
class GainRamps {
 public:
  static constexpr double rampSec = 0.05;

  // By start, not overlapping.
  GainRamps(std::span<const ChapterAnalyser::LevelingGain> gains, double sampleRate);

  // What a GainCurve does; any frames, in any order.
  void fill(std::int64_t firstFrame, std::span<float> gain, std::span<float> limiting) const;

 private:
  // One chapter, and what it has at its two borders.
  struct Piece {
    std::int64_t start, end, rampFrames;
    double startDB, gainDB, endDB;
    float startLimiting, limiting, endLimiting;
    float gain;  // of gainDB, linear
  };
  std::vector<Piece> pieces_;
};

// What the chapters are to be leveled to: absent where that is the median and no chapter has a finite figure.
std::optional<float> levelOf(const ChapterAnalyser::LevelTarget& target, std::span<const Chapter> chapters,
                             ChapterConsistencyMetric metric);

// Per chapter: the gain that brings it there. Absent where none is needed, or nothing is known.
std::vector<std::optional<ChapterAnalyser::LevelingGain>> gainsTo(std::optional<float> level,
                                                                  std::span<const Chapter> chapters,
                                                                  ChapterConsistencyMetric metric,
                                                                  const ChapterProgramme& programme);

struct LevelingSettings {
  ChapterConsistencyMetric metric;
  ChapterAnalyser::LevelTarget target;
  double ceilingDBTP;
  SampleCoding coding;
  Dither dither;
};

struct Leveling {
  static constexpr float toleranceDB = 0.1f;  // a leveled chapter is at most this far from the target
  static constexpr float mostGainDB = 60;     // either way; a chapter that needs more gets none

  // Absent where the target is the median and no chapter has a figure.
  std::optional<float> target;
  // Per chapter: what it lacked before, and what is applied; absent for chapters without a gain.
  std::vector<std::optional<float>> neededDB, gainDB;
  std::vector<ChapterAnalyser::LevelingGain> gains;  // those that are applied, by start
  std::optional<LimiterSettings> limiter;            // where some gain pushed peaks over the ceiling
  int rounds = 0;
  double largestReductionDB = 0;
  MeasuredChapters after;  // of the last round
};

using LevelingGoOn = std::function<bool(int round, const MeasureProgress&)>;  // false interrupts

// Looks for the gains that bring every chapter to the target, by rendering the programme and measuring what
// comes out, round by round: limiting lowers a level by an amount that nothing predicts. Nothing is written.
// Absent: interrupted. Throws FileError: as AudioFile, samples that are not finite, chapters with gains that
// overlap.
std::optional<Leveling> level(const ChapterProgramme& programme, const MeasuredChapters& before,
                              const LevelingSettings& settings, const LevelingGoOn& goOn);

// The rendering that a leveling asks for.
RenderSettings renderingOf(const Leveling& leveling, const LevelingSettings& settings, double sampleRate);

struct LevelingMiss {
  std::size_t chapter;  // from 0
  std::string reason;   // "its true peak stays at -0.80 dBTP, above the ceiling of -1 dBTP"
};
// The chapters that needed a gain and did not get where they should, with the reasons.
//   after  of the rendered programme
std::vector<LevelingMiss> missesOf(const Leveling& leveling, const LevelingSettings& settings,
                                   const MeasuredChapters& after);

}  // namespace vellum
