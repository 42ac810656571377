#include "VellumCore/Json/Reader.hpp"

#include <fmt/format.h>

#include <cmath>
#include <type_traits>
#include <variant>

namespace vellum::Json {
namespace {

using Kind = DocumentError::Kind;

// What a value is, in the words of an error.
std::string_view nameOf(const Value& value) {
  constexpr std::string_view names[] = {"null",     "true or false", "a number", "a number", "a number",
                                        "a number", "text",          "an array", "an object"};
  static_assert(std::size(names) == std::variant_size_v<Value::Content>);
  return names[value.content().index()];
}

std::string pathOfMember(const std::string& path, std::string_view key) {
  return path.empty() ? std::string(key) : fmt::format("{}.{}", path, key);
}

}  // namespace

void Reader::fail(DocumentError::Kind kind, std::string description) const {
  throw DocumentError(kind, path_, std::move(description));
}

template <typename Content>
const Content& Reader::expect(std::string_view what) const {
  if (const auto* content = std::get_if<Content>(&value_->content())) return *content;
  fail(Kind::typeMismatch, fmt::format("expected {}, found {}", what, nameOf(*value_)));
}

Reader Reader::member(std::string_view key) const {
  const Value* const value = expect<Object>("an object").find(key);
  if (!value)
    throw DocumentError(Kind::keyNotFound, pathOfMember(path_, key),
                        fmt::format("the member \"{}\" is missing", key));
  return Reader(*value, pathOfMember(path_, key));
}

std::optional<Reader> Reader::find(std::string_view key) const {
  const Value* const value = expect<Object>("an object").find(key);
  if (!value || std::holds_alternative<std::nullptr_t>(value->content())) return {};
  return Reader(*value, pathOfMember(path_, key));
}

std::vector<Reader> Reader::elements() const {
  std::vector<Reader> readers;
  for (const Value& element : expect<Array>("an array"))
    readers.emplace_back(element, fmt::format("{}[{}]", path_, readers.size()));
  return readers;
}

Reader::Case Reader::onlyCase() const {
  const auto& members = expect<Object>("an object with one key").members();
  if (members.size() != 1) failWithoutOnlyCase();
  const auto& [name, fields] = members.front();
  return {name, Reader(fields, pathOfMember(path_, name))};
}

void Reader::failWithUnknownCase(std::string_view name) const {
  fail(Kind::keyNotFound, fmt::format("there is no case \"{}\"", name));
}

void Reader::failWithoutOnlyCase() const {
  fail(Kind::typeMismatch, "Invalid number of keys found, expected one.");
}

bool Reader::boolean() const {
  return expect<bool>("true or false");
}

std::int64_t Reader::integer() const {
  if (const auto* integer = std::get_if<std::int64_t>(&value_->content())) return *integer;
  const Decimal& number = expect<Decimal>("an integer");
  if (number.integer) return *number.integer;
  constexpr double beyond = 9223372036854775808.0;  // 2^63
  const bool fits = number.value > -beyond && number.value < beyond;
  fail(Kind::dataCorrupted,
       fmt::format("{} {}", number.value, fits ? "is no integer" : "does not fit a 64-bit integer"));
}

float Reader::float32() const {
  if (const auto* integer = std::get_if<std::int64_t>(&value_->content()))
    return static_cast<float>(*integer);
  const Decimal& number = expect<Decimal>("a number");
  if (!std::isfinite(number.value32))
    fail(Kind::dataCorrupted, fmt::format("{} does not fit a 32-bit number", number.value));
  return number.value32;
}

double Reader::float64() const {
  if (const auto* integer = std::get_if<std::int64_t>(&value_->content()))
    return static_cast<double>(*integer);
  return expect<Decimal>("a number").value;
}

std::string Reader::text() const {
  return expect<std::string>("text");
}

UUID Reader::uuid() const {
  if (const auto id = UUID::parse(text())) return *id;
  fail(Kind::dataCorrupted, fmt::format("\"{}\" is no UUID", text()));
}

void Reader::failWithUnknownText(std::string_view known) const {
  fail(Kind::dataCorrupted, fmt::format("\"{}\" is none of {}", text(), known));
}

}  // namespace vellum::Json
