#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `edit`: changes the levels of parts of a file's spectrogram. Runs at the end of parsing as the
// other verbs do. Throws CLI::ValidationError for wrong arguments, FaultyDocument for a script that is none
// or does not fit the file, FileError for a file that fails.
void addEditCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
