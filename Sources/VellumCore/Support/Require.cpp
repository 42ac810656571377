#include "VellumCore/Support/Require.hpp"

#include <cstdio>
#include <cstdlib>

namespace vellum {

void stopProgram(const char* message) {
  std::fprintf(stderr, "VellumCore stopped: %s\n", message);
  std::abort();
}

}  // namespace vellum
