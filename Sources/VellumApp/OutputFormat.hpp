#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "VellumApp/AudioFile.hpp"
#include "VellumApp/AudioFileFormat.hpp"

// What rendered audio is written as.
namespace vellum {

// What the user says about the format of an output. What is not said is as the input has it.
struct FormatChoice {
  std::optional<Container> container;
  std::optional<SampleCoding> coding;
};

// The format of an output: the chosen one, or the input's own, in the container that the output's name says.
// Throws FileError: a lossy input without a container of choice.
AudioFileFormat formatFor(const AudioFile& input, const std::filesystem::path& output,
                          const FormatChoice& choice);

// Throws FileError for a name that promises what is not written here, or not by this choice.
void refuseImpossibleName(const std::filesystem::path& output, const FormatChoice& choice);

// "3 samples are not finite"
std::string samplesAreNotFinite(std::int64_t count);
// "3 samples were outside of the format's range, and clipped"
std::string samplesWereClipped(std::int64_t count);

}  // namespace vellum
