#include "VellumApp/OutputFormat.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include "VellumApp/FileError.hpp"

namespace vellum {
namespace {

namespace fs = std::filesystem;

bool isNameFor(const fs::path& output, Container container) {
  const std::optional<Container> byName = containerOfExtension(output);
  return !byName || *byName == container || (*byName == Container::wav && container == Container::rf64);
}

// A name that promises what is not written here.
bool isForeignName(const fs::path& output) {
  constexpr std::array<std::string_view, 10> extensions = {".mp3", ".mp2", ".ogg", ".oga", ".opus",
                                                           ".m4a", ".aac", ".wma", ".w64", ".ac3"};
  std::string extension = output.extension().string();
  for (char& letter : extension)
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  return std::find(extensions.begin(), extensions.end(), extension) != extensions.end();
}

}  // namespace

void refuseImpossibleName(const fs::path& output, const FormatChoice& choice) {
  if (isForeignName(output)) throw FileError("no such files are written, only WAV, RF64, AIFF, CAF and FLAC");
  if (choice.container && !isNameFor(output, *choice.container))
    throw FileError("its name does not fit the chosen format, " + std::string(nameOf(*choice.container)));
}

// What the user does not say is as the input has it, or as the output's name says.
AudioFileFormat formatFor(const AudioFile& input, const fs::path& output, const FormatChoice& choice) {
  const std::optional<AudioFileFormat> own = input.writableFormat();
  if (!own && !choice.container)
    throw FileError("it is lossy (" + input.formatName() + "), which is not written: choose a format");
  const Container container = choice.container                    ? *choice.container
                              : isNameFor(output, own->container) ? own->container
                                                                  : *containerOfExtension(output);
  constexpr SampleCoding decoded = SampleCoding::pcm24;  // holds what a lossy decoder gives
  return {container, choice.coding ? *choice.coding : own ? own->coding : decoded};
}

std::string samplesAreNotFinite(std::int64_t count) {
  return std::to_string(count) + (count == 1 ? " sample is" : " samples are") + " not finite";
}

std::string samplesWereClipped(std::int64_t count) {
  return std::to_string(count) + (count == 1 ? " sample was" : " samples were") +
         " outside of the format's range, and clipped";
}

}  // namespace vellum
