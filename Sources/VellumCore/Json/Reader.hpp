#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellumCore/Json/Document.hpp"
#include "VellumCore/Json/DocumentError.hpp"
#include "VellumCore/Support/RawValue.hpp"
#include "VellumCore/Support/UUID.hpp"

namespace vellum::Json {

// One value of a document, as parse made it, together with its place in it. Every document is read through
// this, so that all follow the same rules:
//   - members that nobody asks for are ignored
//   - a member that may be absent may also be null
//   - an integer may be written 3.0; 3.7 is none, and true is no number
//   - a number that does not fit the type asked for is an error, as 1e39 for 32 bits
//   - an enumeration with payload is an object with exactly one key, the case's name
// Every reading throws DocumentError, which names the place; find does so only where the value is no object.
// Refers to the value, which has to outlive it.
class Reader {
 public:
  // `path` is where the value stands: nothing for a document.
  explicit Reader(const Value& value, std::string path = {}) : value_(&value), path_(std::move(path)) {}

  // A member that has to be there.
  Reader member(std::string_view key) const;
  // A member that may be absent or null.
  std::optional<Reader> find(std::string_view key) const;
  std::vector<Reader> elements() const;

  // An enumeration object's only member: the case's name, and its fields.
  struct Case;
  Case onlyCase() const;
  // The error for a case of that name that does not exist.
  [[noreturn]] void failWithUnknownCase(std::string_view name) const;
  // The error for any other number of cases than one: onlyCase's own, and that of readers to whom an unknown
  // name is no case at all.
  [[noreturn]] void failWithoutOnlyCase() const;

  bool boolean() const;
  std::int64_t integer() const;
  float float32() const;
  double float64() const;
  std::string text() const;
  UUID uuid() const;

  // An enumeration without payload, by its raw value.
  template <typename Enumeration>
  Enumeration enumeration() const {
    if (const auto value = fromRawValue<Enumeration>(text())) return *value;
    std::string known;
    for (const auto& entry : rawValueTable<Enumeration>)
      known.append(known.empty() ? "" : ", ").append(entry.text);
    failWithUnknownText(known);
  }

  [[noreturn]] void fail(DocumentError::Kind kind, std::string description) const;
  const std::string& path() const { return path_; }
  const Value& value() const { return *value_; }

 private:
  template <typename Content>
  const Content& expect(std::string_view what) const;
  [[noreturn]] void failWithUnknownText(std::string_view known) const;

  const Value* value_;
  std::string path_;
};

struct Reader::Case {
  std::string name;
  Reader fields;
};

}  // namespace vellum::Json
