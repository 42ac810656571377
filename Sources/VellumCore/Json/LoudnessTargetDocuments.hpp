#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "VellumCore/Json/Document.hpp"
#include "VellumCore/Json/Reader.hpp"
#include "VellumCore/LoudnessTargetSelection.hpp"
#include "VellumCore/LoudnessTargets.hpp"

// Delivery targets and the user's choice of them, to and from JSON.
//
//   target     {"id", "name", "mode", "source", "treatment", "extraCriteria"}: all six are required
//   treatment  {"penalty": {"referenceLUFS", "truePeakCeilingDBTP", "boostBehaviour"}} or
//              {"compliance": {"referenceLUFS", "toleranceLU", "truePeakCeilingDBTP"}}
//   criterion  {"noiseFloor": {"maxDBRMS"}} or {"maxShortTerm": {"maxLUFS"}}
//   selection  {"mode", "selectedTargetIDsByMode", "customTargets"}; the modes with their ids are one flat
//              array, ["music", ["music.spotify"], "podcast", []]; without "customTargets" there are none
namespace vellum::Json {

Value valueOf(const LoudnessTarget& target);
Value valueOf(const LoudnessTargetSelection& selection);

// Throw DocumentError.
LoudnessTarget readLoudnessTarget(const Reader& reader);
LoudnessTargetSelection readLoudnessTargetSelection(const Reader& reader);

// A selection as a whole document. Absent where a custom target holds a level that is not finite.
std::optional<std::string> documentText(const LoudnessTargetSelection& selection);
// Throws DocumentError; there is no half-read selection.
LoudnessTargetSelection parseLoudnessTargetSelection(std::string_view text);

}  // namespace vellum::Json
