#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "VellumApp/DeliverySearch.hpp"
#include "VellumApp/FileMeasurement.hpp"
#include "VellumApp/OutputFormat.hpp"
#include "VellumApp/Rendering.hpp"
#include "VellumApp/SampleQuantiser.hpp"
#include "VellumCore/ChannelOrder.hpp"
#include "VellumCore/LoudnessTargetEvaluation.hpp"

// Rendering files that a target or a ceiling is met by, proven by measuring what was written.
namespace vellum {

struct DeliveryItem {
  std::filesystem::path input, output;
};

// How far the work is, and what it is on.
struct DeliveryProgress {
  enum class Stage { measuring, rendering, verifying };
  Stage stage;
  int round;         // of rendering, from 1; 0 while the input is measured
  std::size_t item;  // which file
  MeasureProgress progress;
};
using DeliveryGoOn = std::function<bool(const DeliveryProgress&)>;  // false interrupts

// What all renderings of files have in common.
struct DeliveryOutputs {
  std::vector<DeliveryItem> items;  // several: an album, with one common gain
  FormatChoice format;
  Dither dither;  // of integer codings
  bool replacesExisting;
  bool isDryRun;  // renders and measures, but writes nothing
  // Instead of the files' own; one label per channel.
  std::optional<std::vector<AudioChannelLabel>> channelLabels;
  std::vector<std::filesystem::path> furtherInputs = {};  // documents, which no output may replace either
};

struct DeliveredFile {
  DeliveryItem item;
  AudioFileFormat format;
  LoudnessMeasurement before;
  std::optional<LoudnessMeasurement> after;  // of the last round; absent where nothing was rendered
  double largestReductionDB = 0;
  std::int64_t clippedSamples = 0;
  std::vector<std::string> notes;  // what the input warned of, what the output cannot hold
};

struct Delivery {
  LoudnessMeasurement before;                // of all files together
  std::optional<LoudnessMeasurement> after;  // of the last round
  std::vector<DeliverySearch::Round> rounds;
  std::vector<DeliveredFile> files;
  // Which figure stands in the way; then nothing was written.
  std::optional<std::string> obstacle;
};

struct DeliverySettings {
  LoudnessTarget target;
  double maxReductionDB;  // of the limiter, 0 or more
  DeliveryOutputs outputs;
};

// Renders the files so that the target is met, several with one gain and as one programme: every round is
// measured as it was written, and the outputs appear together once the verdict is met. Absent: interrupted.
// Throws FileError, which names the file: whatever reading, measuring and writing throw; samples that are not
// finite; a lossy input without a container of choice.
std::optional<Delivery> deliver(const DeliverySettings& settings, const DeliveryGoOn& goOn);

struct LimitSettings {
  double gainDB;
  LimiterSettings limiter;
  // Lower the limiter's own ceiling until what was written stays at or below the ceiling asked for.
  bool isExact;
  DeliveryOutputs outputs;  // one item
};

// Renders one file through gain and limiter. The output appears also where its true peak ends above the
// ceiling, unless an exact one was asked for and could not be had: that is the obstacle. Absent and errors as
// deliver.
std::optional<Delivery> limit(const LimitSettings& settings, const DeliveryGoOn& goOn);

}  // namespace vellum
