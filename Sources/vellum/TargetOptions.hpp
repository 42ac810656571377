#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

#include "VellumCore/LoudnessTargets.hpp"

// Which delivery targets a verb works with, as the command line says it.
namespace vellum {

struct TargetArguments {
  std::string mode, selection;       // as written; empty where not given
  std::vector<std::string> targets;  // one for each --target
  bool all = false;
};

// --mode, --all, --target (repeatable, ids with commas between) and --selection.
void addTargetOptions(CLI::App& verb, TargetArguments& arguments);
// For a verb with a single target: --target, which has to be given, and --selection.
void addSingleTargetOptions(CLI::App& verb, TargetArguments& arguments);

// The mode that the text of --mode names.
LoudnessTargetMode modeArgument(const std::string& text);

// The chosen targets, at least one, in the user's order: the ids of --target, each once; or all targets of
// the mode; or the ones that the selection has chosen in its mode, or in --mode's. Without --selection, that
// is what a user who never chose has: the default ids, of music if no mode is given.
// A note on standard error says what a selection file chooses in vain. Throws CLI::ValidationError for
// arguments that do not go together or name nothing, and for a choice that is empty; NamedFileError and
// FaultyDocument for the selection file.
std::vector<LoudnessTarget> chooseTargets(const TargetArguments& arguments);
// The one of addSingleTargetOptions.
LoudnessTarget chooseTarget(const TargetArguments& arguments);

}  // namespace vellum
