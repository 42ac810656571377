#pragma once

#include <span>

#include "VellumApp/ProgrammeMeter.hpp"
#include "VellumCore/LoudnessTargetEvaluation.hpp"

namespace vellum {

// One measured programme of several.
struct AlbumPart {
  const ProgrammeFigures& figures;
  ProgrammeHistory history;
};

// The figures of several programmes as those of one: loudness gated over the blocks of all of them, RMS as
// the mean power over the length of those that are not silent; true peak, noise floor and maximum short-term
// loudness are the highest that any of them has. Of a single one: its own. At least one.
LoudnessMeasurement albumMeasurement(std::span<const AlbumPart> parts);

}  // namespace vellum
