#include "VellumCore/Json/Document.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <unordered_map>

#include "VellumCore/Json/DocumentError.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum::Json {
namespace {

// Numbers of 32 bits.
using Json32 = nlohmann::basic_json<nlohmann::ordered_map, std::vector, std::string, bool, std::int64_t,
                                    std::uint64_t, float>;

// Appends values to a text. A negative indent keeps it on one line.
class Writer {
 public:
  Writer(std::string& text, int indent) : text_(text), indent_(indent) {}

  void write(const Value& value) { std::visit(*this, value.content()); }

  void operator()(std::nullptr_t) { text_ += "null"; }
  void operator()(bool value) { text_ += value ? "true" : "false"; }
  void operator()(std::int64_t value) { text_ += std::to_string(value); }
  void operator()(double value) { writeNumber(value); }
  void operator()(float value) { writeNumber(value); }
  void operator()(const Decimal& number) { (*this)(number.value); }
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
  template <typename Float>
  void writeNumber(Float value) {
    VELLUM_REQUIRE(std::isfinite(value), "Json: a number must be finite");
    const std::string digits = fmt::format("{}", value);  // as few as read back as this number
    text_ += digits;
    if (digits.find_first_of(".e") == digits.npos) text_ += ".0";
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

// The integer that a number's digits are exactly, where they are one and it fits. The nearest 64-bit number
// would not do: it makes 2^53 of 9007199254740993.0.
std::optional<std::int64_t> integerOf(std::string_view digits) {
  const std::size_t mantissaEnd = std::min(digits.find_first_of("eE"), digits.size());
  const std::string_view mantissa = digits.substr(0, mantissaEnd);
  std::string significant;
  for (const char c : mantissa)
    if (c >= (significant.empty() ? '1' : '0') && c <= '9') significant += c;
  if (significant.empty()) return 0;
  const std::size_t trailingZeros = significant.size() - 1 - significant.find_last_not_of('0');
  significant.resize(significant.size() - trailingZeros);

  int written = 0;
  if (mantissaEnd < digits.size()) {
    const std::size_t start = mantissaEnd + (digits[mantissaEnd + 1] == '+' ? 2 : 1);
    const auto result = std::from_chars(digits.data() + start, digits.data() + digits.size(), written);
    if (result.ec != std::errc()) return {};
  }
  const std::size_t point = std::min(mantissa.find('.'), mantissa.size() - 1);
  const auto decimals = static_cast<std::int64_t>(mantissa.size() - 1 - point);
  // Of ten, to multiply the significant digits by.
  const std::int64_t exponent = written - decimals + static_cast<std::int64_t>(trailingZeros);
  constexpr std::int64_t mostDigits = std::numeric_limits<std::int64_t>::digits10 + 1;
  if (exponent < 0 || exponent > mostDigits) return {};
  significant.append(static_cast<std::size_t>(exponent), '0');
  if (digits.front() == '-') significant.insert(0, 1, '-');

  std::int64_t integer = 0;
  const auto result = std::from_chars(significant.data(), significant.data() + significant.size(), integer);
  return result.ec == std::errc() ? std::optional(integer) : std::nullopt;
}

// Builds the tree while the library reads the text.
class TreeBuilder : public nlohmann::json::json_sax_t {
 public:
  explicit TreeBuilder(std::string_view text) : text_(text) {}

  Value takeRoot() { return std::move(root_); }

  bool null() override { return add(nullptr); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(std::int64_t value) override {
    // Called for what has a minus sign: a 0 here is -0, whose sign only the other types can hold.
    return value == 0 ? add(Decimal{-0.0, -0.0F, 0}) : add(value);
  }
  bool number_unsigned(std::uint64_t value) override {
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
      return add(static_cast<std::int64_t>(value));
    return add(Decimal{static_cast<double>(value), static_cast<float>(value)});
  }
  bool number_float(double value, const std::string& token) override {
    // The library has put the locale's decimal point into the token.
    const auto isPoint = [](char c) {
      return std::string_view("+-0123456789eE").find(c) == std::string_view::npos;
    };
    std::string digits = token;
    std::replace_if(digits.begin(), digits.end(), isPoint, '.');
    return add(Decimal{value, nearest32(digits), integerOf(digits)});
  }
  bool string(std::string& value) override { return add(std::move(value)); }
  bool binary(nlohmann::json::binary_t&) override { return false; }  // no JSON text has such a value

  bool start_array(std::size_t) override { return open(); }
  bool end_array() override {
    Array elements = std::move(levels_.back().elements);
    levels_.pop_back();
    return add(std::move(elements));
  }
  bool start_object(std::size_t) override { return open(); }
  bool key(std::string& key) override {
    levels_.back().keys.push_back(std::move(key));
    return true;
  }
  bool end_object() override {
    Level level = std::move(levels_.back());
    levels_.pop_back();
    return add(Object(membersOf(level)));
  }

  bool parse_error(std::size_t position, const std::string& lastToken,
                   const nlohmann::detail::exception& error) override {
    if (error.id == 406) corruptedAt(position, "a number too large for 64 bits");
    // "[json.exception.parse_error.101] parse error at line 1, column 2: syntax error while parsing value -
    // invalid literal; last read: '...'": the place says where, and the token may be long or no UTF-8.
    std::string text = error.what();
    if (const std::size_t place = text.find(": syntax error"); place != text.npos)
      text.replace(0, place, placeOf(position));
    if (const std::size_t last = text.find("; last read: '" + lastToken + "'"); last != text.npos)
      text.erase(last, lastToken.size() + std::string_view("; last read: ''").size());
    corrupted(std::move(text));
  }

  [[noreturn]] void corruptedAt(std::size_t position, std::string_view what) const {
    corrupted(fmt::format("{}: {}", placeOf(position), what));
  }
  [[noreturn]] static void corrupted(std::string description) {
    throw DocumentError(DocumentError::Kind::dataCorrupted, "", std::move(description));
  }

 private:
  struct Level {
    std::vector<std::string> keys;  // none in an array
    Array elements;                 // of an object: the values, one per key
  };

  static float nearest32(const std::string& digits) {
    // Too large a number is no parse error here: whoever asks for 32 bits says so.
    const Json32 number = Json32::parse(digits, nullptr, false);
    return number.is_discarded() ? std::numeric_limits<float>::infinity() : number.get<float>();
  }

  // Each key once, where it first stands, with the value that it last has.
  static std::vector<Member> membersOf(Level& level) {
    std::unordered_map<std::string_view, std::size_t> lastIndex;
    for (std::size_t k = 0; k < level.keys.size(); ++k) lastIndex[level.keys[k]] = k;
    std::vector<Member> members;
    for (std::string& key : level.keys) {
      const auto last = lastIndex.find(key);
      if (last == lastIndex.end()) continue;
      Value& value = level.elements[last->second];
      lastIndex.erase(last);
      members.emplace_back(std::move(key), std::move(value));
    }
    return members;
  }

  bool open() {
    if (levels_.size() == mostDocumentLevels)
      corrupted(fmt::format("nested deeper than {} levels", mostDocumentLevels));
    levels_.emplace_back();
    return true;
  }

  bool add(Value value) {
    if (levels_.empty())
      root_ = std::move(value);
    else
      levels_.back().elements.push_back(std::move(value));
    return true;
  }

  // Of the byte that was read last, the `position`th of the text.
  std::string placeOf(std::size_t position) const {
    const std::string_view before = text_.substr(0, position > 0 ? position - 1 : 0);
    const std::size_t lineStart = before.rfind('\n') + 1;  // 0 on the first line
    return fmt::format("line {}, column {}", std::count(before.begin(), before.end(), '\n') + 1,
                       before.size() - lineStart + 1);
  }

  std::string_view text_;
  std::vector<Level> levels_;
  Value root_;
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

Object::Object(std::vector<Member> members) : members_(std::move(members)) {}

std::string compactText(const Value& value) {
  return textOf(value, -1);
}
std::string indentedText(const Value& value, int indent) {
  return textOf(value, indent);
}

bool isWritable(const Value& value) {
  const auto& content = value.content();
  if (const auto* number = std::get_if<double>(&content)) return std::isfinite(*number);
  if (const auto* number = std::get_if<float>(&content)) return std::isfinite(*number);
  if (const auto* number = std::get_if<Decimal>(&content)) return std::isfinite(number->value);
  if (const auto* array = std::get_if<Array>(&content))
    return std::all_of(array->begin(), array->end(), isWritable);
  if (const auto* object = std::get_if<Object>(&content))
    return std::all_of(object->members().begin(), object->members().end(),
                       [](const Member& member) { return isWritable(member.second); });
  return true;
}

Value parse(std::string_view text) {
  if (text.size() > mostDocumentBytes)
    TreeBuilder::corrupted(fmt::format("larger than {} MiB", mostDocumentBytes >> 20));
  TreeBuilder builder(text);
  // The library takes a zero byte for the end of the text.
  if (const std::size_t zero = text.find('\0'); zero != text.npos)
    builder.corruptedAt(zero + 1, "a zero byte");
  nlohmann::json::sax_parse(text, &builder);
  return builder.takeRoot();
}

}  // namespace vellum::Json
