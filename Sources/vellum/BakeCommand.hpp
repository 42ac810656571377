#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `bake`: renders the channels of a file into other channels. Runs at the end of parsing as the
// other verbs do. Throws CLI::ValidationError for wrong arguments, FileError for a file that fails.
void addBakeCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
