// What the decoders make of documents, for check_schemas.py. Takes lines of standard input, each a kind of
// document, a tab and the document; answers each with a line: "+" and the document as we write it (nothing
// where that kind is never written), or "-" and what is wrong with it.

#include <fmt/format.h>

#include <cstdio>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "VellumApp/ChapterLimits.hpp"
#include "VellumApp/EditScript.hpp"
#include "VellumApp/RoutesDocument.hpp"
#include "VellumCore/Json/ChapterDocuments.hpp"
#include "VellumCore/Json/DocumentError.hpp"
#include "VellumCore/Json/GeneratorDocuments.hpp"
#include "VellumCore/Json/LoudnessTargetDocuments.hpp"

namespace vellum {
namespace {

// The faults that lie in no single value.
std::optional<std::string> faultOf(const GeneratorSpec& spec) {
  const auto error = spec.validate();
  return error ? std::optional(error->description()) : std::nullopt;
}
std::optional<std::string> faultOf(const LoudnessTargetSelection&) {
  return {};
}
using ChapterLimits::faultOf;

// Reads a document as the application does, and writes it again.
template <typename Record>
auto rewriting(Record (*parse)(std::string_view)) {
  return [parse](std::string_view text) {
    const Record record = parse(text);
    if (const auto fault = faultOf(record)) throw std::runtime_error(*fault);
    return Json::compactText(Json::valueOf(record));
  };
}

// Reads a document that is never written.
template <typename Record>
auto reading(Record (*parse)(std::string_view)) {
  return [parse](std::string_view text) {
    parse(text);
    return std::string();
  };
}

const std::map<std::string, std::function<std::string(std::string_view)>, std::less<>> kinds = {
    {"chapter-report", rewriting(Json::parseChapterReport)},
    {"chapter-settings", rewriting(Json::parseChapterDetectionSettings)},
    {"edit-script", reading(parseEditScript)},
    {"generator", rewriting(Json::parseGeneratorSpec)},
    {"routes", reading(parseRoutesDocument)},
    {"target-selection", rewriting(Json::parseLoudnessTargetSelection)},
};

std::string verdictOn(std::string_view line) {
  const std::size_t tab = line.find('\t');
  if (tab == line.npos) throw std::invalid_argument("a line without a tab");
  const auto kind = kinds.find(line.substr(0, tab));
  if (kind == kinds.end())
    throw std::invalid_argument(fmt::format("no decoder for \"{}\"", line.substr(0, tab)));
  try {
    return fmt::format("+{}", kind->second(line.substr(tab + 1)));
  } catch (const std::runtime_error& error) {
    return fmt::format("-{}", error.what());
  }
}

}  // namespace
}  // namespace vellum

int main() {
  try {
    for (std::string line; std::getline(std::cin, line);) fmt::print("{}\n", vellum::verdictOn(line));
  } catch (const std::exception& error) {
    fmt::print(stderr, "{}\n", error.what());
    return 1;
  }
}
