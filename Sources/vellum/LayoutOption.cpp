#include "vellum/LayoutOption.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "VellumCore/ChannelOrder.hpp"
#include "vellum/Options.hpp"

namespace vellum {
namespace {

constexpr const char* option = "--layout";

std::string allNames() {
  return fmt::format("{}", fmt::join(ChannelOrder::displayShortNames(ChannelOrder::namedLabels()), " "));
}

}  // namespace

void addLayoutOption(CLI::App& verb, std::string& value) {
  addTextOption(verb, option, value, "LIST",
                "Channels in the file's order, not by its layout: L,R,C,LFE,Ls,Rs");
}

std::vector<AudioChannelLabel> layoutArgument(const std::string& text) {
  std::vector<AudioChannelLabel> labels;
  for (const std::string& name : splitAtCommas(text)) {
    const auto label = ChannelOrder::labelOfShortName(name);
    if (!label) refuse(option, fmt::format("'{}' is not a channel; the channels are {}", name, allNames()));
    if (std::find(labels.begin(), labels.end(), *label) != labels.end())
      refuse(option, fmt::format("'{}' stands there twice; the channels are {}", name, allNames()));
    labels.push_back(*label);
  }
  return labels;
}

}  // namespace vellum
