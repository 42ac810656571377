#pragma once

#include <filesystem>
#include <span>
#include <string_view>

#include "VellumApp/Descriptor.hpp"
#include "VellumApp/FileError.hpp"

namespace vellum {

// There is a file at the place, and it is not to be replaced.
class FileExistsError : public FileError {
 public:
  FileExistsError() : FileError("there is such a file already") {}
};

// A file that appears whole or not at all. It is written under another name in the same folder, and commit()
// gives it its own; without commit() nothing is left behind and an older file stays as it was.
// A symbolic link is followed. A new file has the permissions that the user's mask gives, a replaced one
// keeps its own.
// Life: construct, write*, commit once. Everything throws FileError.
class OutputFile {
 public:
  struct Settings {
    std::filesystem::path path;
    bool replacesExisting;                          // else a file at the place is FileExistsError
    std::span<const std::filesystem::path> inputs;  // the output may be none of these, by whatever name
  };
  explicit OutputFile(const Settings& settings);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void write(std::string_view bytes);
  // Waits until the storage has it all. A file that came to the place meanwhile counts as one that was there.
  void commit();

 private:
  std::filesystem::path target_, temporary_;  // temporary_ is empty once there is none
  bool replacesExisting_;
  Descriptor file_;
};

}  // namespace vellum
