#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `deliver`: renders files that meet a target. Runs at the end of parsing as the other verbs do.
// Throws CLI::ValidationError for wrong arguments, FileError for a file that fails.
void addDeliverCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
