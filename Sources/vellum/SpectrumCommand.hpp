#pragma once

#include <CLI/App.hpp>

#include "vellum/ExitCode.hpp"

namespace vellum {

// The verb `spectrum`: prints or plots the average and peak spectrum of a file. Runs and throws as
// addMeasureCommand's verb does.
void addSpectrumCommand(CLI::App& app, ExitCode& exitCode);

}  // namespace vellum
