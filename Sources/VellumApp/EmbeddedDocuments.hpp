#pragma once

#include <span>
#include <string_view>

// Documents of Examples/ that are built in. The build writes the functions; see cmake/EmbedDocuments.cmake.
namespace vellum {

struct EmbeddedDocument {
  std::string_view name;  // of the file, without its extension
  std::string_view text;  // JSON
};

// Examples/generator: test signals to start from.
std::span<const EmbeddedDocument> generatorPresetDocuments();

// Examples/conformance: the signals of EBU Tech 3341, EBU Tech 3342 and ITU-R BS.2217 that a document can
// express.
std::span<const EmbeddedDocument> conformanceDocuments();

// Examples/routes: the usual ways of rendering channels into others.
std::span<const EmbeddedDocument> routePresetDocuments();

}  // namespace vellum
