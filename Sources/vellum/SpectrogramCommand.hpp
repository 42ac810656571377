#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `spectrogram`: draws levels over time and frequency as a PNG picture. Runs and throws as
// addMeasureCommand's verb does.
void addSpectrogramCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
