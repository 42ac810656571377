#pragma once

#include <gtest/gtest.h>

#include <string_view>

namespace vellum::test {

inline testing::AssertionResult contains(std::string_view text, std::string_view part) {
  if (text.find(part) != std::string_view::npos) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "no \"" << part << "\" in \"" << text << "\"";
}

inline testing::AssertionResult startsWith(std::string_view text, std::string_view start) {
  if (text.substr(0, start.size()) == start) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "no \"" << start << "\" at the start of \"" << text << "\"";
}

}  // namespace vellum::test
