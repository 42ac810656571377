#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `chapters`: finds, measures, exports and levels the chapters of a spoken-word programme. Runs at
// the end of parsing as the other verbs do. Throws CLI::ValidationError for wrong arguments, FileError for a
// file that fails.
void addChaptersCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
