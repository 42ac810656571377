#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VellumApp/Delivery.hpp"
#include "VellumApp/EditScript.hpp"
#include "VellumApp/FileError.hpp"
#include "VellumApp/FileMeasurement.hpp"
#include "VellumCore/SpectralGridConfig.hpp"
#include "VellumCore/SpectralMask.hpp"

namespace vellum {

// A step that does not fit the file. what() is "steps[0].selection[2]: the reason".
class EditFault : public FileError {
 public:
  enum class Part { step, selection, channels };
  EditFault(Part part, const std::string& place, const std::string& reason)
      : FileError(place + ": " + reason), part_(part), reason_(reason) {}

  Part part() const { return part_; }
  const std::string& reason() const { return reason_; }

 private:
  Part part_;
  std::string reason_;
};

// Applies edit steps to samples that need not be in memory: only what a step's selection reaches is read, and
// only what it changed is kept, as patches over the source, which later steps see.
// Life: construct, (select | apply)*, overlay; one thread at a time.
// Memory: of a step about four times the samples that it reaches of one channel, of the patches their
// samples.
class SpectralEditor {
 public:
  struct Source {
    double sampleRate;
    std::int64_t channelCount, frameCount;
    // Fills `samples` with a channel's frames from firstFrame on, all of which exist. False: interrupted.
    std::function<bool(std::int64_t channel, std::int64_t firstFrame, std::span<float> samples)> read;
  };
  explicit SpectralEditor(Source source) : source_(std::move(source)) {}

  // The cells of a step's selection, clipped to the grid of the whole file.
  struct Selected {
    SpectralGridConfig config;
    SpectralMask mask;
  };
  // A step's place in its script, from 0, is for faults. Absent: interrupted. Throws EditFault, and whatever
  // reading does.
  std::optional<Selected> select(const EditStep& step, std::size_t index) const;

  // What a step did.
  struct Edited {
    std::string name;
    std::int64_t cells;  // of one channel
    // The centres of the first and last selected columns, the lowest and highest bins, and the frames that
    // may have changed. Absent where nothing is selected.
    struct Extent {
      double fromSec, toSec, lowHz, highHz;
      SampleRange changed;
    };
    std::optional<Extent> extent;
    std::vector<std::int64_t> channels;  // from 0
    // Of the selected cells, the mean over columns and channels; 0 dB is a full-scale sine, -infinity
    // silence.
    double levelBeforeDB, levelAfterDB;
  };
  std::optional<Edited> apply(const EditStep& step, std::size_t index);

  // Writes the patches over a channel's samples from firstFrame on.
  void overlay(std::int64_t channel, std::int64_t firstFrame, std::span<float> samples) const;
  bool hasPatches() const { return !patches_.empty(); }

 private:
  struct Patch {
    std::int64_t channel, firstFrame;
    std::vector<float> samples;
  };

  std::vector<std::int64_t> channelsOf(const EditStep& step, std::size_t index) const;
  std::optional<std::vector<float>> read(std::int64_t channel, SampleRange frames) const;
  std::optional<SpectralMask> maskOf(const EditSelection& selection, const EditStep& step,
                                     std::span<const std::int64_t> channels, const SpectralGridConfig& config,
                                     const std::string& place) const;
  std::optional<SpectralMask> wandMask(const EditSelection::Wand& wand,
                                       std::span<const std::int64_t> channels,
                                       const SpectralGridConfig& config) const;

  Source source_;
  std::vector<Patch> patches_;  // later ones over earlier ones
};

struct SpectralEditSettings {
  EditScript script;
  DeliveryOutputs outputs;  // one item
};

// The input is read for its length, then for each step, then to be written.
struct SpectralEditProgress {
  enum class Stage { reading, editing, writing };
  Stage stage;
  std::size_t step;  // from 0
  MeasureProgress done;
};
using SpectralEditGoOn = std::function<bool(const SpectralEditProgress&)>;  // false interrupts

struct SpectralEditResult {
  AudioFileFormat format;
  double sampleRate;
  std::int64_t frameCount;
  std::vector<std::string> channelNames;  // one per channel; empty where the file does not tell
  std::vector<SpectralEditor::Edited> steps;
  std::int64_t clippedSamples;     // that rounding found outside of the range
  std::vector<std::string> notes;  // what the input warned of, what the output cannot hold
};

// Applies a script to a file. Samples that no step reaches keep their values to the bit where the format
// holds them. The output is as long as the input, and appears whole or not at all; a dry run writes none.
// Absent: interrupted. Throws EditFault, and NamedFileError: whatever reading and writing throw, samples that
// are not finite where a step reads.
std::optional<SpectralEditResult> editFile(const SpectralEditSettings& settings,
                                           const SpectralEditGoOn& goOn);

// What the steps of a script select in a file, each after the ones before were applied. Writes nothing.
// Absent: interrupted. Throws as editFile.
struct StepSelection {
  std::string name;
  SpectralGridConfig config;
  SpectralMask mask;
};
std::optional<std::vector<StepSelection>> selectInFile(const std::filesystem::path& path,
                                                       const EditScript& script,
                                                       const SpectralEditGoOn& goOn);

// The cells of a mask as rectangles in seconds and Hz, each around the cells that it stands for: equal runs
// of bins in neighbouring columns are one. In ascending order of their starts.
std::vector<EditSelection::Rect> areasOf(const SpectralMask& mask, const SpectralGridConfig& config);

}  // namespace vellum
