#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "VellumCore/Json/DocumentError.hpp"

namespace vellum::test {

// What a reader of documents says, in one comparable piece.
struct DocumentFault {
  Json::DocumentError::Kind kind;
  std::string path, description;
  friend bool operator==(const DocumentFault&, const DocumentFault&) = default;
  friend std::ostream& operator<<(std::ostream& stream, const DocumentFault& fault) {
    return stream << "kind " << static_cast<int>(fault.kind) << " at \"" << fault.path
                  << "\": " << fault.description;
  }
};

// The error that `read` throws.
template <typename Read>
DocumentFault faultOf(const Read& read) {
  try {
    read();
  } catch (const Json::DocumentError& error) {
    const std::string start = error.path().empty() ? "" : error.path() + ": ";
    EXPECT_EQ(error.what(), start + error.description());
    return {error.kind(), error.path(), error.description()};
  }
  ADD_FAILURE() << "no error";
  return {};
}

}  // namespace vellum::test
