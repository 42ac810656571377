#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `measure`: prints the loudness figures of files. When the command line names it, it runs at the
// end of parsing and leaves its answer in exitCode. Throws CLI::ValidationError for arguments that are wrong
// or do not go together, FileError where the output cannot be written.
void addMeasureCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
