#include "vellum/TargetOptions.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <set>
#include <string_view>

#include "VellumApp/DocumentFile.hpp"
#include "VellumCore/LoudnessTargetSelection.hpp"
#include "vellum/Console.hpp"
#include "vellum/Options.hpp"

namespace vellum {
namespace {

using Selection = LoudnessTargetSelection;

const std::vector<std::string>& chosenIDs(const Selection& selection) {
  const auto entry = selection.selectedTargetIDsByMode.find(selection.mode);
  return entry != selection.selectedTargetIDsByMode.end()
             ? entry->second
             : LoudnessTargetCatalog::defaultSelectedIDs(selection.mode);
}

// Why an id of the current mode's list is no active one.
std::string_view reasonToLeaveOut(const Selection& selection, const std::string& id) {
  const LoudnessTarget* const target = selection.target(id);
  if (!target) return "no such target";
  return target->mode == selection.mode ? "one too many" : "of another mode";
}

// "a, b, c and 12 more"
std::string listText(const std::vector<std::string>& texts) {
  constexpr std::size_t most = 8;
  const std::size_t shown = std::min(most, texts.size());
  std::string list =
      fmt::format("{}", fmt::join(texts.begin(), texts.begin() + static_cast<std::ptrdiff_t>(shown), ", "));
  if (texts.size() > shown) list += fmt::format(" and {} more", texts.size() - shown);
  return list;
}

// The ids of the current mode's list that are not active, each with the reason.
std::vector<std::string> leftOut(const Selection& selection) {
  const std::vector<std::string> active = selection.activeTargetIDs();
  std::vector<std::string> texts;
  for (const std::string& id : chosenIDs(selection))
    if (std::find(active.begin(), active.end(), id) == active.end())
      texts.push_back(fmt::format("\"{}\" ({})", id, reasonToLeaveOut(selection, id)));
  return texts;
}

const LoudnessTarget& targetByID(const Selection& selection, const std::string& id) {
  if (const LoudnessTarget* target = selection.target(id)) return *target;
  refuse("--target", fmt::format("there is no target '{}'; vellum targets lists them", id));
}

std::vector<LoudnessTarget> targetsByID(const Selection& selection, const std::vector<std::string>& lists) {
  std::vector<LoudnessTarget> targets;
  for (const std::string& list : lists)
    for (const std::string& id : splitAtCommas(list)) {
      const LoudnessTarget& target = targetByID(selection, id);
      if (std::find(targets.begin(), targets.end(), target) == targets.end()) targets.push_back(target);
    }
  return targets;
}

std::vector<LoudnessTarget> allOfMode(const Selection& selection) {
  std::vector<LoudnessTarget> targets = LoudnessTargetCatalog::targets(selection.mode);
  const std::vector<LoudnessTarget> custom = selection.customTargetsFor(selection.mode);
  targets.insert(targets.end(), custom.begin(), custom.end());
  return targets;
}

std::vector<LoudnessTarget> activeTargets(const std::string& path, const Selection& selection) {
  std::vector<LoudnessTarget> targets = selection.activeTargets();
  const std::vector<std::string> absent = leftOut(selection);
  if (targets.empty())
    refuse("--selection",
           fmt::format("{}: no target of mode {} is chosen: {}", path, rawValue(selection.mode),
                       absent.empty() ? "its list is empty" : listText(absent)));
  // Misspelt ids are no error in a selection, but a check that leaves out an outlet has to say so.
  if (!absent.empty())
    Console::printNote(
        fmt::format("{}: left out of mode {}: {}", path, rawValue(selection.mode), listText(absent)));
  return targets;
}

// Takes out the custom targets that no id finds, and says so.
void dropHiddenTargets(const std::string& path, Selection& selection) {
  std::set<std::string> ids;
  std::vector<std::string> hidden;
  std::erase_if(selection.customTargets, [&](const LoudnessTarget& custom) {
    const bool isHidden = LoudnessTargetCatalog::target(custom.id) || !ids.insert(custom.id).second;
    if (isHidden) hidden.push_back(fmt::format("\"{}\"", custom.id));
    return isHidden;
  });
  if (!hidden.empty())
    Console::printNote(fmt::format("{}: custom targets that are never used, because another has their id: {}",
                                   path, listText(hidden)));
}

Selection readSelection(const TargetArguments& arguments) {
  if (arguments.selection.empty()) return Selection::defaultValue();
  Selection selection = readTargetSelection(arguments.selection);
  dropHiddenTargets(arguments.selection, selection);
  return selection;
}

CLI::Option& addTargetOption(CLI::App& verb, TargetArguments& arguments, const char* type,
                             const char* description) {
  return *verb.add_option("--target", arguments.targets, description)
              ->type_name(type)
              ->allow_extra_args(false);  // the next argument may be a file
}

void addSelectionOption(CLI::App& verb, TargetArguments& arguments) {
  addTextOption(verb, "--selection", arguments.selection, "FILE",
                "A selection of targets, as vellum targets --json prints it");
}

}  // namespace

void addTargetOptions(CLI::App& verb, TargetArguments& arguments) {
  addTextOption(verb, "--mode", arguments.mode, "MODE",
                "The default targets of music, podcast, vod or broadcast");
  verb.add_flag("--all", arguments.all, "With --mode: all targets of the mode");
  addTargetOption(verb, arguments, "ID,...", "These targets; vellum targets lists them");
  addSelectionOption(verb, arguments);
}

void addSingleTargetOptions(CLI::App& verb, TargetArguments& arguments) {
  addTargetOption(verb, arguments, "ID", "The target; vellum targets lists them").required();
  addSelectionOption(verb, arguments);
}

LoudnessTargetMode modeArgument(const std::string& text) {
  if (const auto mode = fromRawValue<LoudnessTargetMode>(text)) return *mode;
  refuse("--mode", fmt::format("'{}' is none of music, podcast, vod, broadcast", text));
}

std::vector<LoudnessTarget> chooseTargets(const TargetArguments& arguments) {
  if (!arguments.mode.empty() && !arguments.targets.empty())
    refuse("--mode", "does not go together with --target");
  if (arguments.all && arguments.mode.empty()) refuse("--all", "needs --mode");
  std::optional<LoudnessTargetMode> mode;
  if (!arguments.mode.empty()) mode = modeArgument(arguments.mode);

  Selection selection = readSelection(arguments);
  if (mode) selection.mode = *mode;
  if (!arguments.targets.empty()) return targetsByID(selection, arguments.targets);
  if (arguments.all) return allOfMode(selection);
  return activeTargets(arguments.selection, selection);
}

LoudnessTarget chooseTarget(const TargetArguments& arguments) {
  if (arguments.targets.size() != 1) refuse("--target", "takes one target here");
  return targetByID(readSelection(arguments), arguments.targets.front());
}

}  // namespace vellum
