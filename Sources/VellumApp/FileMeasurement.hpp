#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VellumApp/FileError.hpp"
#include "VellumApp/ProgrammeMeter.hpp"
#include "VellumCore/AudioChannelLayout.hpp"

namespace vellum {

// What is measured of a file.
struct MeasureSettings {
  std::optional<double> fromSec, toSec;              // a section, as a programme of its own; 0 <= from < to
  std::optional<std::vector<float>> channelWeights;  // instead of those by label; in the file's order
  bool dualMono = false;                             // a single channel gets weight 2: it stands for two
  // Instead of the file's own labels; in the file's order.
  std::optional<std::vector<AudioChannelLabel>> channelLabels = {};
};

// A file with its figures. `figures` are of the section, and every time in them counts from its start. All
// that is said per channel is in the order in which the channels were metered.
struct FileMeasurement {
  std::string formatName;
  double sampleRate;  // Hz
  std::int64_t channelCount;
  std::vector<std::int64_t> fileChannels;        // each channel's place in the file, from 0
  std::vector<AudioChannelLabel> channelLabels;  // empty where neither the file nor the settings tell
  std::vector<std::string> channelNames;
  ProgrammeMeter meter;  // finished; holds the channel weights and the histories
  ProgrammeFigures figures;
  std::vector<std::string> warnings;
};

struct MeasureProgress {
  double doneSec;                  // measured so far
  std::optional<double> totalSec;  // by the file's word, which may be wrong
};

// Sees the audio stream by, chunk by chunk, in the order in which its channels are metered.
//   measurement  everything but its figures
using MeasureTap = std::function<void(const FileMeasurement& measurement,
                                      std::span<const float* const> channelData, std::int64_t frameCount)>;

// Measures one file. `goOn` is asked several times for each second of work; once it answers false, there is
// no result. Memory grows by the meter's histories only.
// Throws FileError: whatever AudioFile throws, another number of labels or weights than of channels, a
// section that starts behind the end of the file.
std::optional<FileMeasurement> measureFile(const std::filesystem::path& path, const MeasureSettings& settings,
                                           const std::function<bool(const MeasureProgress&)>& goOn,
                                           const MeasureTap& tap = {});

}  // namespace vellum
