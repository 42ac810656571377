#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `check`: says what delivery targets do to files. Runs and throws as addMeasureCommand's verb, and
// NamedFileError and FaultyDocument for the selection file.
void addCheckCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
