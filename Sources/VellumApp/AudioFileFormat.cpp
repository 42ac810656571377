#include "VellumApp/AudioFileFormat.hpp"

#include <array>
#include <utility>

namespace vellum {

std::string_view nameOf(Container container) {
  switch (container) {
    case Container::wav:
      return "WAV";
    case Container::rf64:
      return "RF64";
    case Container::aiff:
      return "AIFF";
    case Container::caf:
      return "CAF";
    case Container::flac:
      return "FLAC";
  }
  return {};
}

std::string nameOf(const AudioFileFormat& format) {
  const std::int64_t bits = integerBits(format.coding);
  std::string name(nameOf(format.container));
  if (bits == 0) return name.append(" 32-bit float");
  return name.append(" ").append(std::to_string(bits)).append("-bit");
}

std::int64_t integerBits(SampleCoding coding) {
  return coding == SampleCoding::float32 ? 0 : 8 * bytesPerSample(coding);
}

std::int64_t bytesPerSample(SampleCoding coding) {
  switch (coding) {
    case SampleCoding::pcm16:
      return 2;
    case SampleCoding::pcm24:
      return 3;
    case SampleCoding::float32:
      return 4;
  }
  return 0;
}

std::optional<Container> containerOfExtension(const std::filesystem::path& path) {
  constexpr std::array<std::pair<std::string_view, Container>, 9> extensions = {{
      {".wav", Container::wav},
      {".wave", Container::wav},
      {".bwf", Container::wav},
      {".rf64", Container::rf64},
      {".aif", Container::aiff},
      {".aiff", Container::aiff},
      {".aifc", Container::aiff},
      {".caf", Container::caf},
      {".flac", Container::flac},
  }};
  std::string extension = path.extension().string();
  for (char& letter : extension)
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  for (const auto& [known, container] : extensions)
    if (extension == known) return container;
  return {};
}

}  // namespace vellum
