#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

#include "VellumCore/AudioChannelLayout.hpp"

// The option --layout: which channel is which, where a file says it wrongly or not at all.
namespace vellum {

void addLayoutOption(CLI::App& verb, std::string& value);

// Labels from short names with commas between: "L,R,C,LFE,Ls,Rs". At least one, and each different. Throws
// CLI::ValidationError for a name that is unknown or stands there twice.
std::vector<AudioChannelLabel> layoutArgument(const std::string& text);

}  // namespace vellum
