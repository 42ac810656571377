#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "VellumApp/AudioFileFormat.hpp"
#include "VellumApp/FileMeasurement.hpp"
#include "VellumApp/OutputFile.hpp"
#include "VellumApp/SampleQuantiser.hpp"
#include "VellumCore/GeneratorSpec.hpp"

// Writes the test signal that a document describes to an audio file.
namespace vellum::SignalFile {

// Why a specification cannot become a file, in words for people: what validate() says, a sample rate that
// audio files do not have, a container that is too small. Absent where it can.
std::optional<std::string> faultOf(const GeneratorSpec& spec);

// Whether a file's name fits the container: by its extension, or because it has none.
bool isFittingName(const std::filesystem::path& path, GeneratorContainer container);

// What is written at the path, of a specification without a fault: the document's container; instead of WAV
// RF64 where WAV would end, and for a name that ends in .rf64 at every size.
AudioFileFormat formatOf(const GeneratorSpec& spec, const std::filesystem::path& path);

struct Settings {
  OutputFile::Settings output;
  std::optional<std::int64_t> harmonicCap;  // the most harmonics of a band-limited shape; absent: all
  Dither dither;                            // of integer samples
};

// What levels depend on is measured before anything is rendered, where a document asks for it.
enum class Step { measuring, rendering };
using GoOn = std::function<bool(Step, const MeasureProgress&)>;  // false interrupts

struct Result {
  std::int64_t clippedSamples;     // that rounding found outside of the range
  std::vector<std::string> notes;  // what the file cannot hold
};

// Renders a specification without a fault. The file says which channel is where if every channel's name is
// the short name of another place (ChannelOrder), and the container can tell. Equal calls give files that are
// equal to the byte. Memory depends on the modules, not on the length. Absent: interrupted, and nothing is
// left behind.
// Throws FileError: whatever writing throws, too little space before anything is rendered; a specification
// with a fault.
std::optional<Result> write(const GeneratorSpec& spec, const Settings& settings, const GoOn& goOn);

}  // namespace vellum::SignalFile
