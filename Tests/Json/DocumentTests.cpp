#include "VellumCore/Json/Document.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Support/CommaLocale.hpp"
#include "Support/DocumentErrors.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using test::DocumentFault;
using test::faultOf;

// Of a number's text.
std::size_t significantDigits(const std::string& text) {
  std::string digits;
  for (const char c : text.substr(0, text.find('e')))
    if (c >= (digits.empty() ? '1' : '0') && c <= '9') digits += c;
  return digits.find_last_not_of('0') + 1;
}

TEST(JsonDocument, WritesEveryKindOfValue) {
  EXPECT_EQ(Json::compactText(nullptr), "null");
  EXPECT_EQ(Json::compactText(true), "true");
  EXPECT_EQ(Json::compactText(-7), "-7");
  EXPECT_EQ(Json::compactText(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(Json::compactText(0.1), "0.1");
  EXPECT_EQ(Json::compactText("text"), "\"text\"");
  EXPECT_EQ(Json::compactText(Json::Array{1, nullptr, "x"}), "[1,null,\"x\"]");
  EXPECT_EQ(Json::compactText(Json::Array{}), "[]");
  EXPECT_EQ(Json::compactText(Json::Object{}), "{}");
}

TEST(JsonDocument, WritesMembersInTheOrderInWhichTheyWereFirstSet) {
  Json::Object object;
  object.set("zebra", 1);
  object.set("apple", 2);
  object.set("mango", 3);
  object.set("zebra", 4);
  EXPECT_EQ(Json::compactText(object), R"({"zebra":4,"apple":2,"mango":3})");
}

TEST(JsonDocument, FindsMembersByKey) {
  Json::Object object;
  object.set("apple", 2);
  ASSERT_NE(object.find("apple"), nullptr);
  EXPECT_EQ(std::get<std::int64_t>(object.find("apple")->content()), 2);
  EXPECT_EQ(object.find("pear"), nullptr);
}

TEST(JsonDocument, IndentsEachLevel) {
  Json::Object inner;
  inner.set("k", Json::Array{1});
  Json::Object object;
  object.set("inner", inner);
  EXPECT_EQ(Json::indentedText(object, 2), "{\n  \"inner\": {\n    \"k\": [\n      1\n    ]\n  }\n}");
}

TEST(JsonDocument, WritesA32BitNumberInTheDigitsThatItNeeds) {
  EXPECT_EQ(Json::compactText(0.2f), "0.2");
  EXPECT_EQ(Json::compactText(1.41253f), "1.41253");
  EXPECT_EQ(Json::compactText(-23.0f), "-23.0");
  EXPECT_EQ(Json::compactText(-5.9548006f), "-5.9548006");  // as a 64-bit number this takes 17 digits
  EXPECT_EQ(Json::compactText(-0.0f), "-0.0");
}

// Read as a 64-bit number, or as a 32-bit one, the text gives back the float that was written.
TEST(JsonDocument, Any32BitNumberReadsBackAsItself) {
  std::mt19937 rng(20);
  for (int trial = 0; trial < 20'000; ++trial) {
    const auto value = std::bit_cast<float>(static_cast<std::uint32_t>(rng()));
    if (!std::isfinite(value)) continue;
    const std::string text = Json::compactText(value);
    EXPECT_EQ(std::strtof(text.c_str(), nullptr), value) << text;
    EXPECT_EQ(static_cast<float>(nlohmann::json::parse(text).get<double>()), value) << text;
    EXPECT_LE(significantDigits(text), 9u) << text;
  }
}

TEST(JsonDocument, Any64BitNumberReadsBackAsItself) {
  std::mt19937_64 rng(21);
  for (int trial = 0; trial < 20'000; ++trial) {
    const auto value = std::bit_cast<double>(static_cast<std::uint64_t>(rng()));
    if (!std::isfinite(value)) continue;
    const std::string text = Json::compactText(value);
    EXPECT_EQ(nlohmann::json::parse(text).get<double>(), value) << text;
  }
}

TEST(JsonDocument, EscapesTextAndReplacesWhatIsNotUTF8) {
  EXPECT_EQ(Json::compactText("a\"b\\c\nd\x01"), R"("a\"b\\c\nd\u0001")");
  EXPECT_EQ(Json::compactText("Café 🔉"), "\"Café 🔉\"");
  EXPECT_EQ(Json::compactText("a\xFF"
                              "b"),
            "\"a\uFFFDb\"");
  EXPECT_EQ(Json::compactText("cut \xC3"), "\"cut \uFFFD\"");
  Json::Object object;
  object.set("\xFFkey", 1);
  EXPECT_EQ(Json::compactText(object), "{\"\uFFFDkey\":1}");
}

TEST(JsonDocument, TheLocaleDoesNotMatter) {
  const test::CommaLocale locale;
  EXPECT_EQ(Json::compactText(Json::Array{0.5, 0.2f, 1234567, 1234567.5}), "[0.5,0.2,1234567,1234567.5]");
}

TEST(JsonDocumentDeathTest, ANumberThatIsNotFiniteStopsTheProgram) {
  EXPECT_DEATH(Json::compactText(std::nan("")), "must be finite");
  EXPECT_DEATH(Json::compactText(Json::Array{std::numeric_limits<float>::infinity()}), "must be finite");
}

// ---- Reading

template <typename T>
T contentOf(const std::string& text) {
  const Json::Value value = Json::parse(text);
  const T* const content = std::get_if<T>(&value.content());
  if (!content) throw std::runtime_error("another kind of value: " + text);
  return *content;
}

std::string rewritten(std::string_view text) {
  return Json::compactText(Json::parse(text));
}

DocumentFault parseFault(std::string_view text) {
  const DocumentFault fault = faultOf([text] { Json::parse(text); });
  EXPECT_EQ(fault.kind, Json::DocumentError::Kind::dataCorrupted) << text;
  EXPECT_EQ(fault.path, "") << text;
  return fault;
}

TEST(JsonDocument, ReadsEveryKindOfValue) {
  EXPECT_EQ(contentOf<std::nullptr_t>("null"), nullptr);
  EXPECT_EQ(contentOf<bool>("true"), true);
  EXPECT_EQ(contentOf<bool>(" false "), false);
  EXPECT_EQ(contentOf<std::int64_t>("-7"), -7);
  EXPECT_EQ(contentOf<std::int64_t>("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(contentOf<std::string>("\"text\""), "text");
  EXPECT_EQ(contentOf<std::string>(R"("\"\\\/\b\f\n\r\t\u00e9\ud83d\udd09")"), "\"\\/\b\f\n\r\té🔉");
  EXPECT_EQ(contentOf<Json::Array>("[]").size(), 0u);
  EXPECT_EQ(contentOf<Json::Object>("{}").members().size(), 0u);
  EXPECT_EQ(rewritten(" [ 1 , null,\t{ \"k\" :\r\n[ ] , \"\": { } } ] "), R"([1,null,{"k":[],"":{}}])");
}

TEST(JsonDocument, ReadsANumberInBothWidthsAndAsTheIntegerThatItIs) {
  const auto tenth = contentOf<Json::Decimal>("0.1");
  EXPECT_EQ(tenth.value, 0.1);
  EXPECT_EQ(tenth.value32, 0.1f);
  EXPECT_EQ(tenth.integer, std::nullopt);
  const auto three = contentOf<Json::Decimal>("3.0");
  EXPECT_EQ(three.value, 3.0);
  EXPECT_EQ(three.integer, 3);
  const auto large = contentOf<Json::Decimal>("1e39");
  EXPECT_EQ(large.value, 1e39);
  EXPECT_EQ(large.value32, std::numeric_limits<float>::infinity());
  EXPECT_EQ(large.integer, std::nullopt);
  const auto beyond = contentOf<Json::Decimal>("9223372036854775808");
  EXPECT_EQ(beyond.value, 9223372036854775808.0);
  EXPECT_EQ(beyond.value32, 9223372036854775808.0f);
  EXPECT_EQ(beyond.integer, std::nullopt);
}

TEST(JsonDocument, WhatWasReadIsWrittenAgain) {
  for (const char* text : {"0.1", "-0.0", "3.0", "1e+39", "9.223372036854776e+18", "-12345.678"})
    EXPECT_EQ(rewritten(text), text);
}

TEST(JsonDocument, OfAMemberGivenTwiceTheLastIsReadInTheFirstOnesPlace) {
  EXPECT_EQ(rewritten(R"({"a":1,"b":2,"a":{"x":1,"x":2},"c":3,"b":null})"),
            R"({"a":{"x":2},"b":null,"c":3})");
  EXPECT_EQ(rewritten(R"({"a":1,"\u0061":2})"), R"({"a":2})");
}

TEST(JsonDocument, ReadsAnObjectOfVeryManyMembersAtOnce) {
  constexpr int count = 300'000;  // 4.5e10 comparisons, were each key compared with all others
  std::string text = "{";
  for (int k = 0; k < count; ++k) text += fmt::format("\"key {}\":{},", k, k);
  for (int k = 0; k < count; k += 2) text += fmt::format("\"key {}\":{},", k, -k);
  text.back() = '}';
  const auto object = contentOf<Json::Object>(text);
  ASSERT_EQ(object.members().size(), static_cast<std::size_t>(count));
  EXPECT_EQ(object.members()[4].first, "key 4");
  EXPECT_EQ(std::get<std::int64_t>(object.members()[4].second.content()), -4);
  EXPECT_EQ(std::get<std::int64_t>(object.members()[count - 1].second.content()), count - 1);
}

TEST(JsonDocument, SixtyFourLevelsAreReadAndOneMoreIsRefused) {
  const auto nested = [](std::size_t levels, const std::string& open, const std::string& close) {
    std::string text;
    for (std::size_t k = 0; k < levels; ++k) text += open;
    text += "1";
    for (std::size_t k = 0; k < levels; ++k) text += close;
    return text;
  };
  for (const auto& [open, close] : {std::pair("[", "]"), std::pair("{\"k\":", "}")}) {
    EXPECT_EQ(rewritten(nested(64, open, close)), nested(64, open, close));
    EXPECT_EQ(parseFault(nested(65, open, close)).description, "nested deeper than 64 levels");
  }
  EXPECT_EQ(rewritten(nested(32, "[{\"k\":", "}]")), nested(32, "[{\"k\":", "}]"));
  EXPECT_EQ(parseFault(nested(32, "[{\"k\":", "}]").replace(32 * 6, 1, "[]")).description,
            "nested deeper than 64 levels");
  // Side by side is not one in the other, and an endless nesting is refused before it ends.
  std::string wide = "[";
  for (int k = 0; k < 1000; ++k) wide += "[],";
  EXPECT_EQ(contentOf<Json::Array>(wide + "[]]").size(), 1001u);
  EXPECT_EQ(parseFault(std::string(1'000'000, '[')).description, "nested deeper than 64 levels");
}

TEST(JsonDocument, SixtyFourMebibytesAreReadAndOneByteMoreIsRefused) {
  std::string text(std::size_t{64} << 20, ' ');
  text[text.size() - 1] = '7';
  EXPECT_EQ(contentOf<std::int64_t>(text), 7);
  text += ' ';
  EXPECT_EQ(parseFault(text).description, "larger than 64 MiB");
}

TEST(JsonDocument, ASyntaxErrorIsPlacedByLineAndColumn) {
  const std::vector<std::pair<std::string, std::string>> faults = {
      {"", "line 1, column 1: syntax error"},
      {" \n ", "line 2, column 2: syntax error"},
      {"{\n  \"a\": ?\n}", "line 2, column 8: syntax error"},
      {"[1,\r\n2,\r\n,]", "line 3, column 1: syntax error"},
      {"{\"a\":1,}", "line 1, column 8: syntax error"},
      {"{\"a\" 1}", "line 1, column 6: syntax error"},
      {"{'a':1}", "line 1, column 2: syntax error"},
      {"[1,2", "line 1, column 5: syntax error"},
      {"\"open", "line 1, column 6: syntax error"},
      {"[\"line\nbreak\"]", "line 1, column 7: syntax error"},
      {"[1] x", "line 1, column 5: syntax error"},
      {"{}\n{}", "line 2, column 1: syntax error"},
      {"[1e400]", "line 1, column 6: a number too large for 64 bits"},
      {"[1,\n-1e400]", "line 2, column 6: a number too large for 64 bits"}};
  for (const auto& [text, start] : faults)
    EXPECT_TRUE(test::startsWith(parseFault(text).description, start)) << text;
}

TEST(JsonDocument, WhatIsNearlyJSONIsRefused) {
  for (const char* text : {"nul",     "True",      "NaN",     "Infinity",  "-",     "+1",    "01",
                           "1.",      ".5",        "1e",      "0x10",      "1_000", "1,5",   "'a'",
                           "\"\\x\"", "\"\\u12\"", "[1,]",    "[,1]",      "[1 2]", "{a:1}", "{1:1}",
                           "{\"a\"}", "{\"a\":}",  "// c\n1", "/* c */ 1", "[1]]",  "}",     "1 2"})
    parseFault(text);
}

// The faulty bytes do not come back in the description, nor does a token of any length.
TEST(JsonDocument, TextThatIsNotUTF8IsRefused) {
  for (const char* bytes :
       {"\xFF", "\xC3", "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82", "\x80"})
    for (const std::string& text :
         {fmt::format("[\"{}\"]", bytes), fmt::format("{{\"{}\":1}}", bytes), fmt::format("[{}]", bytes)}) {
      const std::string description = parseFault(text).description;
      EXPECT_TRUE(std::all_of(description.begin(), description.end(), [](char c) {
        return c >= ' ' && c < 127;
      })) << description;
    }
  for (const char* escape : {R"("\ud800")", R"("\udc00")", R"("\ud800\ud800")", R"("\ud800x")"})
    parseFault(escape);
  EXPECT_LT(parseFault('"' + std::string(100'000, 'a') + "\n\"").description.size(), 200u);
  EXPECT_LT(parseFault(std::string(100'000, '1')).description.size(), 200u);
}

TEST(JsonDocument, AByteOrderMarkIsPassedOver) {
  EXPECT_EQ(rewritten("\xEF\xBB\xBF[1]"), "[1]");
  parseFault("\xEF\xBB[1]");
  parseFault("\xEF\xBB\xBF");
  parseFault("[1]\xEF\xBB\xBF");
}

TEST(JsonDocument, AZeroByteDoesNotEndTheText) {
  EXPECT_EQ(parseFault(std::string_view("[1]\0", 4)).description, "line 1, column 4: a zero byte");
  EXPECT_EQ(parseFault(std::string_view("[1]\n\0 garbage", 13)).description, "line 2, column 1: a zero byte");
  EXPECT_EQ(parseFault(std::string_view("\"a\0b\"", 5)).description, "line 1, column 3: a zero byte");
  EXPECT_EQ(contentOf<std::string>("\"a\\u0000b\""), std::string("a\0b", 3));
}

// No text of fewer digits reads back as the number.
TEST(JsonDocument, A32BitNumberHasNoDigitTooMany) {
  std::mt19937 rng(22);
  for (int trial = 0; trial < 50'000; ++trial) {
    auto bits = static_cast<std::uint32_t>(rng());
    if (trial % 4 == 0) bits &= 0x807FFFFF;  // a denormal number
    const auto value = std::bit_cast<float>(bits);
    if (!std::isfinite(value)) continue;
    const std::size_t digits = significantDigits(Json::compactText(value));
    if (digits < 2) continue;
    const std::string fewer = fmt::format("{:.{}e}", value, digits - 2);
    EXPECT_NE(std::strtof(fewer.c_str(), nullptr), value) << Json::compactText(value);
  }
  EXPECT_EQ(Json::compactText(-204432200.0f), "-204432200.0");
  EXPECT_EQ(Json::compactText(1e-45f), "1e-45");
  EXPECT_EQ(Json::compactText(std::numeric_limits<float>::max()), "3.4028235e+38");
}

TEST(JsonDocument, OnlyFiniteNumbersCanBeWritten) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  EXPECT_TRUE(Json::isWritable(Json::Array{1, 2.5, 2.5f, nullptr, "inf", true, Json::Object{}}));
  EXPECT_FALSE(Json::isWritable(infinity));
  EXPECT_FALSE(Json::isWritable(-std::numeric_limits<float>::infinity()));
  EXPECT_FALSE(Json::isWritable(std::nan("")));
  Json::Object object;
  object.set("a", Json::Array{1, Json::Array{std::nanf("")}});
  EXPECT_FALSE(Json::isWritable(object));
  EXPECT_FALSE(Json::isWritable(Json::Array{object}));
  EXPECT_TRUE(Json::isWritable(Json::parse("1e39")));  // infinite in 32 bits only
}

}  // namespace
}  // namespace vellum
