#include "VellumCore/Json/Document.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <locale>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

namespace vellum {
namespace {

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
  struct CommaAndGroups : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new CommaAndGroups));
  const std::string text = Json::compactText(Json::Array{0.5, 0.2f, 1234567, 1234567.5});
  std::locale::global(before);
  EXPECT_EQ(text, "[0.5,0.2,1234567,1234567.5]");
}

TEST(JsonDocumentDeathTest, ANumberThatIsNotFiniteStopsTheProgram) {
  EXPECT_DEATH(Json::compactText(std::nan("")), "must be finite");
  EXPECT_DEATH(Json::compactText(Json::Array{std::numeric_limits<float>::infinity()}), "must be finite");
}

}  // namespace
}  // namespace vellum
