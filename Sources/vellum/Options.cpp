#include "vellum/Options.hpp"

#include <fmt/format.h>

#include <CLI/Error.hpp>
#include <CLI/Validators.hpp>
#include <cmath>

#include "vellum/Numbers.hpp"

namespace vellum {

void refuse(std::string_view option, std::string_view why) {
  throw CLI::ValidationError(std::string(option), std::string(why));
}

CLI::Option& addTextOption(CLI::App& verb, const char* name, std::string& value, const char* type,
                           const char* description) {
  const CLI::Validator notEmpty([](const std::string& text) { return text.empty() ? "needs a value" : ""; },
                                "");
  return *verb.add_option(name, value, description)->type_name(type)->check(notEmpty);
}

std::int64_t wholeNumberArgument(std::string_view option, std::string_view text, std::int64_t least,
                                 std::int64_t most) {
  const auto number = parseNumber(text);
  if (!number || *number < static_cast<double>(least) || *number > static_cast<double>(most) ||
      *number != std::floor(*number))
    refuse(option, fmt::format("'{}' is not a whole number from {} to {}", text, least, most));
  return static_cast<std::int64_t>(*number);
}

std::vector<std::string> splitAtCommas(std::string_view text) {
  std::vector<std::string> parts;
  for (std::size_t comma; (comma = text.find(',')) != text.npos; text.remove_prefix(comma + 1))
    parts.emplace_back(text.substr(0, comma));
  parts.emplace_back(text);
  return parts;
}

}  // namespace vellum
