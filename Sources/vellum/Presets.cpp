#include "vellum/Presets.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <variant>
#include <vector>

#include "VellumCore/Json/Document.hpp"
#include "vellum/Options.hpp"

namespace vellum {
namespace {

std::string descriptionOf(const EmbeddedDocument& preset) {
  const Json::Value document = Json::parse(preset.text);
  const auto* object = std::get_if<Json::Object>(&document.content());
  const Json::Value* description = object ? object->find("description") : nullptr;
  const auto* text = description ? std::get_if<std::string>(&description->content()) : nullptr;
  return text ? *text : "";
}

}  // namespace

std::string presetsText(std::span<const EmbeddedDocument> presets) {
  std::size_t width = 0;
  for (const EmbeddedDocument& preset : presets) width = std::max(width, preset.name.size());
  std::string text;
  for (const EmbeddedDocument& preset : presets)
    text += fmt::format("{:<{}}  {}\n", preset.name, width, descriptionOf(preset));
  return text;
}

const EmbeddedDocument& presetArgument(std::span<const EmbeddedDocument> presets, std::string_view name) {
  std::vector<std::string_view> names;
  for (const EmbeddedDocument& preset : presets) {
    if (preset.name == name) return preset;
    names.push_back(preset.name);
  }
  refuse("--preset", fmt::format("'{}' is none of {}", name, fmt::join(names, ", ")));
}

}  // namespace vellum
