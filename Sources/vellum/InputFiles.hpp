#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vellum {

struct InputFile {
  std::filesystem::path path;
  std::optional<std::string> error;  // why there is nothing to open
};

// The files that the arguments name, in their order. With `recursive`, a folder stands for the audio files in
// it and below, by name, told by their extension; hidden ones and linked folders are left out.
std::vector<InputFile> findInputFiles(const std::vector<std::string>& arguments, bool recursive);

}  // namespace vellum
