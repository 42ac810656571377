#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "VellumApp/Delivery.hpp"
#include "VellumApp/FileMeasurement.hpp"
#include "VellumApp/RoutesDocument.hpp"

// Renders the channels of a file into other channels.
namespace vellum::SurroundRendering {

struct Settings {
  RoutesDocument document;
  double gainDB;            // on top of every route's, -200 to 200
  bool isAligned;           // takes out the delay of routes in quadrature
  DeliveryOutputs outputs;  // one item, no dry run; channelLabels are the input's
};

// The input is read twice: for its length and samples that are not finite, then to be rendered.
enum class Step { counting, rendering };
using GoOn = std::function<bool(Step, const MeasureProgress&)>;  // false interrupts

struct OutputChannel {
  std::string name;
  std::int64_t overs;  // samples beyond full scale, before rounding; an integer format clamps them
  double peakDBFS;     // -infinity for silence
};

struct Result {
  AudioFileFormat format;
  double sampleRate;
  std::int64_t frameCount;               // the input's
  std::vector<std::string> sourceNames;  // one per channel of the input
  std::vector<std::string> unusedNames;  // of those that go to no output
  std::vector<OutputChannel> outputs;
  std::int64_t delayFrames;         // how late the output is
  std::int64_t removedDelayFrames;  // what isAligned took out
  std::int64_t clippedSamples;      // that rounding found outside of the range
  std::vector<std::string> notes;   // what the input warned of, what the output cannot hold
};

// The output is as long as the input, and appears whole or not at all. Samples that one route of gain 1
// passes on keep their integers. Memory does not depend on the length. Absent: interrupted. Throws
// NamedFileError: whatever reading and writing throw; a document that does not fit the input; samples that
// are not finite, of the input or by the gains.
std::optional<Result> render(const Settings& settings, const GoOn& goOn);

}  // namespace vellum::SurroundRendering
