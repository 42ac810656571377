#pragma once

#include <filesystem>
#include <stdexcept>

namespace vellum {

// What is wrong with a file, in words for people. what() does not repeat the path, and reads as the rest of
// "song.wav: ".
class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A FileError of one of several files: what() begins with its name.
class NamedFileError : public FileError {
 public:
  NamedFileError(const std::filesystem::path& path, const FileError& error, bool isExistingOutput = false)
      : FileError(path.string() + ": " + error.what()), isExistingOutput_(isExistingOutput) {}

  // There is a file at an output's place, and it is not to be replaced.
  bool isExistingOutput() const { return isExistingOutput_; }

 private:
  bool isExistingOutput_;
};

}  // namespace vellum
