#pragma once

#include "VellumApp/ProgrammeMeter.hpp"
#include "VellumCore/LoudnessTargetEvaluation.hpp"

namespace vellum {

// What delivery targets judge, out of everything that is known of a programme. A figure that was not measured
// (-infinity) is absent where the record has room for that.
LoudnessMeasurement loudnessMeasurement(const ProgrammeFigures& figures);

}  // namespace vellum
