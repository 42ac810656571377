#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "VellumCore/LoudnessTargets.hpp"

namespace vellum {

// The user's choice of delivery targets: a mode, the ids chosen in each mode, and targets of the user's own.
struct LoudnessTargetSelection {
  // Begins the id of a user's target. Whoever makes one applies it; nothing here asks for it.
  static constexpr std::string_view customIDPrefix = "custom.";
  static constexpr std::size_t maxTargetsPerMode = 4;

  LoudnessTargetMode mode;
  // In the user's order. A mode without an entry has its default ids; an empty entry stays empty.
  std::map<LoudnessTargetMode, std::vector<std::string>> selectedTargetIDsByMode;
  std::vector<LoudnessTarget> customTargets;

  static LoudnessTargetSelection defaultValue();  // music; the default ids of every mode

  // What is to be evaluated in the current mode: of the chosen ids those that name a target of this mode, the
  // first 4 of them. Unknown ids and those of other modes are left out, repeated ones stay.
  std::vector<std::string> activeTargetIDs() const;
  std::vector<LoudnessTarget> activeTargets() const;

  std::vector<LoudnessTarget> customTargetsFor(LoudnessTargetMode targetMode) const;

  // A built-in target, else the first of the user's own with exactly this id, else null. A user's target that
  // takes a built-in id is therefore never found. Valid until customTargets changes.
  const LoudnessTarget* target(std::string_view id) const;

  friend bool operator==(const LoudnessTargetSelection&, const LoudnessTargetSelection&) = default;
};

}  // namespace vellum
