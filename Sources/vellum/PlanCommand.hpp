#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `plan`: says how few masters serve a set of targets. Runs at the end of parsing as the other verbs
// do. Throws CLI::ValidationError for wrong arguments, FileError where the output cannot be written.
void addPlanCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
