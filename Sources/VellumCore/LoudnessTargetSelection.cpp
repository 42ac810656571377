#include "VellumCore/LoudnessTargetSelection.hpp"

namespace vellum {

LoudnessTargetSelection LoudnessTargetSelection::defaultValue() {
  LoudnessTargetSelection selection{LoudnessTargetMode::music, {}, {}};
  for (const LoudnessTargetMode mode : allCases<LoudnessTargetMode>())
    selection.selectedTargetIDsByMode[mode] = LoudnessTargetCatalog::defaultSelectedIDs(mode);
  return selection;
}

std::vector<std::string> LoudnessTargetSelection::activeTargetIDs() const {
  const auto entry = selectedTargetIDsByMode.find(mode);
  const std::vector<std::string>& chosen = entry != selectedTargetIDsByMode.end()
                                               ? entry->second
                                               : LoudnessTargetCatalog::defaultSelectedIDs(mode);
  std::vector<std::string> active;
  for (const std::string& id : chosen) {
    if (active.size() == maxTargetsPerMode) break;
    if (const LoudnessTarget* found = target(id); found && found->mode == mode) active.push_back(id);
  }
  return active;
}

std::vector<LoudnessTarget> LoudnessTargetSelection::activeTargets() const {
  std::vector<LoudnessTarget> active;
  for (const std::string& id : activeTargetIDs()) active.push_back(*target(id));
  return active;
}

std::vector<LoudnessTarget> LoudnessTargetSelection::customTargetsFor(LoudnessTargetMode targetMode) const {
  std::vector<LoudnessTarget> targets;
  for (const LoudnessTarget& target : customTargets)
    if (target.mode == targetMode) targets.push_back(target);
  return targets;
}

const LoudnessTarget* LoudnessTargetSelection::target(std::string_view id) const {
  if (const LoudnessTarget* builtIn = LoudnessTargetCatalog::target(id)) return builtIn;
  for (const LoudnessTarget& custom : customTargets)
    if (custom.id == id) return &custom;
  return nullptr;
}

}  // namespace vellum
