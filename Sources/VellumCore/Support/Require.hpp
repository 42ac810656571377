#pragma once

namespace vellum {

// Prints one line on standard error and stops the program.
[[noreturn]] void stopProgram(const char* message);

}  // namespace vellum

// A precondition, checked in every build type. `message` is one string literal: "Component: what must hold".
#define VELLUM_REQUIRE(condition, message) \
  do {                                     \
    if (!(condition)) [[unlikely]]         \
      ::vellum::stopProgram(message);      \
  } while (false)
