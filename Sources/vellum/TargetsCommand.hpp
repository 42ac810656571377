#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `targets`: prints the built-in delivery targets, or a selection document. Runs and throws as
// addMeasureCommand's verb.
void addTargetsCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
