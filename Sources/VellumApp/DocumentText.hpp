#pragma once

#include <string>
#include <variant>

#include "VellumCore/Json/Document.hpp"

namespace vellum {

// The text as a document gives it back: what is no UTF-8 is replaced.
inline std::string asInDocument(const std::string& text) {
  const Json::Value value = Json::parse(Json::compactText(text));
  return std::get<std::string>(value.content());
}

}  // namespace vellum
