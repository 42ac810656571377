#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "VellumApp/FileError.hpp"
#include "VellumApp/ProgrammeMeter.hpp"

namespace vellum {

// What is measured of a file.
struct MeasureSettings {
  std::optional<double> fromSec, toSec;              // a section, as a programme of its own; 0 <= from < to
  std::optional<std::vector<float>> channelWeights;  // instead of the file's own
  bool dualMono = false;                             // a single channel gets weight 2: it stands for two
};

// A file with its figures. `figures` are of the section, and every time in them counts from its start.
struct FileMeasurement {
  std::string formatName;
  double sampleRate;  // Hz
  std::int64_t channelCount;
  std::vector<std::string> channelNames;
  ProgrammeMeter meter;  // finished; holds the channel weights and the histories
  ProgrammeFigures figures;
  std::vector<std::string> warnings;
};

struct MeasureProgress {
  double doneSec;                  // measured so far
  std::optional<double> totalSec;  // by the file's word, which may be wrong
};

// Measures one file. `goOn` is asked several times for each second of work; once it answers false, there is
// no result. Memory grows by the meter's histories only.
// Throws FileError: whatever AudioFile throws, another number of channel weights than of channels, a section
// that starts behind the end of the file.
std::optional<FileMeasurement> measureFile(const std::filesystem::path& path, const MeasureSettings& settings,
                                           const std::function<bool(const MeasureProgress&)>& goOn);

}  // namespace vellum
