#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `generate`: writes the test signal that a document describes, one of the user's or a built-in one.
// Runs at the end of parsing as the other verbs do. Throws CLI::ValidationError for wrong arguments,
// FaultyDocument and FileError.
void addGenerateCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
