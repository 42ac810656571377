#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `limit`: renders a file through gain and true-peak limiter. Runs at the end of parsing as the
// other verbs do. Throws CLI::ValidationError for wrong arguments, FileError for a file that fails.
void addLimitCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
