#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "VellumCore/GeneratorSpec.hpp"
#include "VellumCore/Json/Document.hpp"
#include "VellumCore/Json/Reader.hpp"

// Specifications of test files, to and from JSON. The keys are the fields' names, in their order; all are
// written but those of absent values. What stands after "=" is read where a member is missing or null.
//
//   specification  {"sampleRate" = 48000, "bitDepth" = "int24", "container" = "wav", "channels" = [],
//                  "duration" = absent, "peakCeilingDB" = absent}
//   channel        {"id" = a new random UUID, "name" = "", "modules" = []}
//   module         {"id" = a new random UUID, "start" = 0, "duration" = 1, "source", "gainDB" = -6,
//                  "levelSweep" = absent, "burst" = absent, "fadeInSeconds" = 0, "fadeOutSeconds" = 0}
//   level sweep    {"startDB", "endDB", "shape" = "logarithmic"}
//   burst          {"onSeconds", "offSeconds", "count" = 0, "rampMilliseconds" = 2}
//   source         one of {"silence": {}}, {"sine": {"frequency"}}, {"square": {"frequency"}},
//                  {"sawtooth": {"frequency"}}, {"triangle": {"frequency"}}, {"noise": {"_0"}} with the
//                  colour,
//                  {"impulse": {}}, {"sweep": {"start", "end", "shape"}}
//
// Reading asks for types only: GeneratorSpec::validate tells whether what was read can be rendered.
namespace vellum::Json {

Value valueOf(const GeneratorSource& source);
Value valueOf(const LevelSweep& sweep);
Value valueOf(const BurstGate& burst);
Value valueOf(const GeneratorModule& module);
Value valueOf(const GeneratorChannel& channel);
Value valueOf(const GeneratorSpec& spec);

// Throw DocumentError.
GeneratorSource readGeneratorSource(const Reader& reader);
LevelSweep readLevelSweep(const Reader& reader);
BurstGate readBurstGate(const Reader& reader);
GeneratorModule readGeneratorModule(const Reader& reader);
GeneratorChannel readGeneratorChannel(const Reader& reader);
GeneratorSpec readGeneratorSpec(const Reader& reader);

// A specification as a whole document. Absent where a number is not finite.
std::optional<std::string> documentText(const GeneratorSpec& spec);
// Throws DocumentError; there is no half-read specification.
GeneratorSpec parseGeneratorSpec(std::string_view text);

}  // namespace vellum::Json
