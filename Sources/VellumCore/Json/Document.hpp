#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

// JSON documents as a tree of values, so that nothing outside this folder needs a JSON library. Reader.hpp
// reads records out of such a tree.
namespace vellum::Json {

class Value;
using Array = std::vector<Value>;
using Member = std::pair<std::string, Value>;  // key, value

// Members in the order in which they were first set; keys are unique.
class Object {
 public:
  Object() = default;
  // Members whose keys differ.
  explicit Object(std::vector<Member> members);

  // Adds a member at the end, or replaces the value of the one that has this key. Cost: linear.
  void set(std::string_view key, Value value);
  // Null where there is no such member.
  const Value* find(std::string_view key) const;
  const std::vector<Member>& members() const { return members_; }

 private:
  std::vector<Member> members_;
};

// A number as a document writes it: what its digits are nearest to in either width, and the integer that they
// are. 32 bits are not taken from the 64: rounding twice can end a unit off.
struct Decimal {
  double value;
  float value32;                                       // infinite where the number is too large
  std::optional<std::int64_t> integer = std::nullopt;  // absent where it is none, or does not fit
};

// One JSON value. Converts from anything that it can hold.
//   float   32-bit numbers keep their width: 0.2f is written 0.2
//   Decimal what parse makes of -0, and of a number with a point, an exponent, or more digits than fit
//
// Text is UTF-8; each faulty sequence is written as U+FFFD.
class Value {
 public:
  using Content =
      std::variant<std::nullptr_t, bool, std::int64_t, double, float, Decimal, std::string, Array, Object>;

  Value() = default;  // null
  Value(std::nullptr_t) {}
  Value(bool value) : content_(value) {}
  Value(int value) : content_(std::int64_t{value}) {}
  Value(std::int64_t value) : content_(value) {}
  Value(double value) : content_(value) {}
  Value(float value) : content_(value) {}
  Value(Decimal value) : content_(value) {}
  template <typename T>
  Value(T* pointer) = delete;  // else it would convert to bool
  Value(const char* value) : content_(std::string(value)) {}
  Value(std::string_view value) : content_(std::string(value)) {}
  Value(std::string value) : content_(std::move(value)) {}
  Value(Array value) : content_(std::move(value)) {}
  Value(Object value) : content_(std::move(value)) {}

  const Content& content() const { return content_; }

 private:
  Content content_;
};

// The value as UTF-8 text; numbers in few digits (32-bit ones in at most 9, 64-bit ones in at most 17) that
// read back as the same numbers. One line without spaces, or one element per line, each level moved in by
// `indent` spaces, at least 0. No newline at the end.
// A number that is not finite stops the program: leave out its key, or put null.
std::string compactText(const Value& value);
std::string indentedText(const Value& value, int indent = 2);

// Whether every number is finite, so that the value can be written.
bool isWritable(const Value& value);

// Limits of what parse takes.
constexpr std::size_t mostDocumentBytes = std::size_t{64} << 20;
constexpr int mostDocumentLevels = 64;  // of arrays and objects in one another

// The value that a UTF-8 text holds. A member given twice counts once, the last.
// Throws DocumentError (data corrupted) for anything else, saying where by line and column (in bytes), for a
// text above 64 MiB, for more than 64 levels, and for a number beyond 64 bits.
Value parse(std::string_view text);

}  // namespace vellum::Json
