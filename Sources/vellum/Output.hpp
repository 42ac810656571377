#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "VellumApp/OutputFile.hpp"

namespace vellum {

// Where a verb's data go: standard output, or the file of --out, which appears at commit().
// Throws FileError whose text names the file, or says that it is standard output; OutputClosed as Console.
class Output {
 public:
  // An empty path is standard output. inputs: what the verb reads; the file may be none of these.
  Output(const std::string& path, bool replacesExisting, std::span<const std::filesystem::path> inputs);

  void write(std::string_view text);
  void commit();

 private:
  std::string path_;
  std::optional<OutputFile> file_;
};

}  // namespace vellum
