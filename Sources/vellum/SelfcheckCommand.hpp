#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `selfcheck`: renders and measures the built-in conformance signals and says whether all read what
// they must. Runs and throws as addMeasureCommand's verb.
void addSelfcheckCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
