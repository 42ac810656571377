#include "VellumCore/Json/Document.hpp"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "VellumCore/Support/Require.hpp"

namespace vellum::Json {
namespace {

using Number64 = nlohmann::json;
using Number32 = nlohmann::basic_json<nlohmann::ordered_map, std::vector, std::string, bool, std::int64_t,
                                      std::uint64_t, float>;  // shortest texts of 32-bit numbers

// Appends values to a text. A negative indent keeps it on one line.
class Writer {
 public:
  Writer(std::string& text, int indent) : text_(text), indent_(indent) {}

  void write(const Value& value) { std::visit(*this, value.content()); }

  void operator()(std::nullptr_t) { text_ += "null"; }
  void operator()(bool value) { text_ += value ? "true" : "false"; }
  void operator()(std::int64_t value) { text_ += std::to_string(value); }
  void operator()(double value) { writeNumber<Number64>(value); }
  void operator()(float value) { writeNumber<Number32>(value); }
  void operator()(const std::string& value) {
    text_ += nlohmann::json(value).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  }
  void operator()(const Array& array) {
    writeList('[', array, ']', [this](const Value& element) { write(element); });
  }
  void operator()(const Object& object) {
    writeList('{', object.members(), '}', [this](const Member& member) {
      (*this)(member.first);
      text_ += indent_ < 0 ? ":" : ": ";
      write(member.second);
    });
  }

 private:
  template <typename Number, typename Float>
  void writeNumber(Float value) {
    VELLUM_REQUIRE(std::isfinite(value), "Json: a number must be finite");
    text_ += Number(value).dump();
  }

  template <typename List, typename WriteElement>
  void writeList(char open, const List& list, char close, const WriteElement& writeElement) {
    text_ += open;
    ++level_;
    for (bool isFirst = true; const auto& element : list) {
      if (!std::exchange(isFirst, false)) text_ += ',';
      startLine();
      writeElement(element);
    }
    --level_;
    if (!list.empty()) startLine();
    text_ += close;
  }

  void startLine() {
    if (indent_ >= 0) text_.append("\n").append(static_cast<std::size_t>(level_ * indent_), ' ');
  }

  std::string& text_;
  int indent_, level_ = 0;
};

std::string textOf(const Value& value, int indent) {
  std::string text;
  Writer(text, indent).write(value);
  return text;
}

}  // namespace

void Object::set(std::string_view key, Value value) {
  const auto hasKey = [key](const Member& member) { return member.first == key; };
  if (const auto found = std::find_if(members_.begin(), members_.end(), hasKey); found != members_.end())
    found->second = std::move(value);
  else
    members_.emplace_back(key, std::move(value));
}

const Value* Object::find(std::string_view key) const {
  for (const auto& [memberKey, value] : members_)
    if (memberKey == key) return &value;
  return nullptr;
}

std::string compactText(const Value& value) {
  return textOf(value, -1);
}
std::string indentedText(const Value& value, int indent) {
  return textOf(value, indent);
}

}  // namespace vellum::Json
