#pragma once

#include <stdexcept>

namespace vellum {

// What is wrong with a file, in words for people. what() does not repeat the path, and reads as the rest of
// "song.wav: ".
class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace vellum
