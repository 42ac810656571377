#pragma once

#include <CLI/App.hpp>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What the verbs' options have in common.
namespace vellum {

// Wrong arguments: throws CLI::ValidationError, which reads "--jobs: why".
[[noreturn]] void refuse(std::string_view option, std::string_view why);

// An option that takes one text, which may not be empty.
CLI::Option& addTextOption(CLI::App& verb, const char* name, std::string& value, const char* type,
                           const char* description);

// A whole number from `least` to `most`, an option's text. Throws as refuse.
std::int64_t wholeNumberArgument(std::string_view option, std::string_view text, std::int64_t least,
                                 std::int64_t most);

// The texts between the commas; one more than there are commas.
std::vector<std::string> splitAtCommas(std::string_view text);

}  // namespace vellum
