#pragma once

#include <span>
#include <string>
#include <string_view>

#include "VellumApp/EmbeddedDocuments.hpp"

// What the verbs with built-in documents have in common.
namespace vellum {

// One line per document: its name and its member "description".
std::string presetsText(std::span<const EmbeddedDocument> presets);

// The document of a name, the text of --preset. Throws as refuse.
const EmbeddedDocument& presetArgument(std::span<const EmbeddedDocument> presets, std::string_view name);

}  // namespace vellum
