#include "VellumCore/Json/Reader.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Support/CommaLocale.hpp"
#include "Support/DocumentErrors.hpp"
#include "VellumCore/LoudnessTargets.hpp"

namespace vellum {
namespace {

using Json::Reader;
using test::DocumentFault;
using test::faultOf;
using Kind = Json::DocumentError::Kind;

using Int64 = std::numeric_limits<std::int64_t>;

template <typename Read>
auto readFrom(const std::string& text, const Read& read) {
  const Json::Value value = Json::parse(text);
  return read(Reader(value));
}

std::int64_t integerIn(const std::string& text) {
  return readFrom(text, [](const Reader& reader) { return reader.integer(); });
}
float float32In(const std::string& text) {
  return readFrom(text, [](const Reader& reader) { return reader.float32(); });
}
double float64In(const std::string& text) {
  return readFrom(text, [](const Reader& reader) { return reader.float64(); });
}
DocumentFault faultIn(const std::string& text, const std::function<void(const Reader&)>& read) {
  return faultOf([&] { readFrom(text, read); });
}
DocumentFault integerFault(const std::string& text) {
  return faultIn(text, [](const Reader& reader) { reader.integer(); });
}

// ---- Members and elements

TEST(JsonReader, IgnoresMembersThatNobodyAsksFor) {
  EXPECT_EQ(readFrom(R"({"x": [{}, null], "a": 7, "A": 8, "": 9})",
                     [](const Reader& reader) { return reader.member("a").integer(); }),
            7);
}

TEST(JsonReader, OfAMemberGivenTwiceTheLastCounts) {
  const std::string text = R"({"a": 1, "b": 2, "a": "x", "a": 3, "b": 4})";
  EXPECT_EQ(readFrom(text, [](const Reader& reader) { return reader.member("a").integer(); }), 3);
  EXPECT_EQ(readFrom(text, [](const Reader& reader) { return reader.member("b").integer(); }), 4);
}

TEST(JsonReader, OfAMemberGivenTwiceANullThatIsLastCounts) {
  readFrom(R"({"a": 1, "a": null})", [](const Reader& reader) { EXPECT_FALSE(reader.find("a")); });
  readFrom(R"({"a": null, "a": 1})", [](const Reader& reader) { EXPECT_TRUE(reader.find("a")); });
}

TEST(JsonReader, AMissingMemberIsNamedWithItsPath) {
  EXPECT_EQ(faultIn("{}", [](const Reader& reader) { reader.member("mode"); }),
            (DocumentFault{Kind::keyNotFound, "mode", "the member \"mode\" is missing"}));
  EXPECT_EQ(faultIn(R"({"list": [0, {"inner": {}}]})",
                    [](const Reader& reader) {
                      reader.member("list").elements().at(1).member("inner").member("gain");
                    }),
            (DocumentFault{Kind::keyNotFound, "list[1].inner.gain", "the member \"gain\" is missing"}));
}

TEST(JsonReader, KeysAreTakenExactly) {
  EXPECT_EQ(faultIn(R"({"Mode": 1, "mode ": 2})", [](const Reader& reader) { reader.member("mode"); }).kind,
            Kind::keyNotFound);
  EXPECT_EQ(readFrom(R"({"m\u006fde": 1})", [](const Reader& r) { return r.member("mode").integer(); }), 1);
}

TEST(JsonReader, AMemberThatMayBeAbsentMayBeNull) {
  readFrom(R"({"null": null, "zero": 0, "false": false, "empty": ""})", [](const Reader& reader) {
    EXPECT_FALSE(reader.find("missing"));
    EXPECT_FALSE(reader.find("null"));
    ASSERT_TRUE(reader.find("zero"));
    EXPECT_EQ(reader.find("zero")->integer(), 0);
    EXPECT_EQ(reader.find("zero")->path(), "zero");
    ASSERT_TRUE(reader.find("false"));
    EXPECT_EQ(reader.find("false")->boolean(), false);
    ASSERT_TRUE(reader.find("empty"));
    EXPECT_EQ(reader.find("empty")->text(), "");
  });
}

TEST(JsonReader, AMemberThatHasToBeThereMayNotBeNull) {
  EXPECT_EQ(faultIn(R"({"a": null})", [](const Reader& reader) { reader.member("a").integer(); }),
            (DocumentFault{Kind::typeMismatch, "a", "expected an integer, found null"}));
}

TEST(JsonReader, ElementsKnowTheirPlace) {
  readFrom("[[5, 6], []]", [](const Reader& reader) {
    ASSERT_EQ(reader.elements().size(), 2u);
    EXPECT_EQ(reader.path(), "");
    EXPECT_EQ(reader.elements()[0].elements()[1].path(), "[0][1]");
    EXPECT_EQ(reader.elements()[0].elements()[1].integer(), 6);
    EXPECT_TRUE(reader.elements()[1].elements().empty());
  });
}

// ---- Types

TEST(JsonReader, EveryWrongTypeIsNamedAndPlaced) {
  const std::vector<std::pair<std::string, std::string>> values = {
      {"null", "null"},  {"true", "true or false"}, {"1", "a number"},  {"1.5", "a number"},
      {"\"x\"", "text"}, {"[]", "an array"},        {"{}", "an object"}};
  struct Type {
    std::string expected;
    std::function<void(const Reader&)> read;
    std::vector<std::string> good;  // what is such a value
  };
  const std::vector<Type> types = {
      {"true or false", [](const Reader& r) { r.boolean(); }, {"true"}},
      {"an integer", [](const Reader& r) { r.integer(); }, {"1", "1.5"}},  // 1.5 has its own message
      {"a number", [](const Reader& r) { r.float32(); }, {"1", "1.5"}},
      {"a number", [](const Reader& r) { r.float64(); }, {"1", "1.5"}},
      {"text", [](const Reader& r) { r.text(); }, {"\"x\""}},
      {"text", [](const Reader& r) { r.enumeration<LoudnessTargetMode>(); }, {"\"x\""}},
      {"an array", [](const Reader& r) { r.elements(); }, {"[]"}},
      {"an object", [](const Reader& r) { r.member("x"); }, {"{}"}},
      {"an object", [](const Reader& r) { r.find("x"); }, {"{}"}},
      {"an object with one key", [](const Reader& r) { r.onlyCase(); }, {"{}"}}};
  int faults = 0;
  for (const Type& type : types)
    for (const auto& [text, name] : values) {
      if (std::count(type.good.begin(), type.good.end(), text) > 0) continue;
      EXPECT_EQ(faultIn("{\"k\": " + text + "}", [&](const Reader& r) { type.read(r.member("k")); }),
                (DocumentFault{Kind::typeMismatch, "k", "expected " + type.expected + ", found " + name}));
      ++faults;
    }
  EXPECT_EQ(faults, 57);
}

TEST(JsonReader, ReadsBooleansAndText) {
  EXPECT_TRUE(readFrom("true", [](const Reader& reader) { return reader.boolean(); }));
  EXPECT_FALSE(readFrom("false", [](const Reader& reader) { return reader.boolean(); }));
  EXPECT_EQ(
      readFrom(R"("Caf\u00e9 \ud83d\udd09 \u0000!")", [](const Reader& reader) { return reader.text(); }),
      std::string("Café 🔉 \0!", 13));
}

// ---- Integers

TEST(JsonReader, AnIntegerMayBeWrittenWithAPointOrAnExponent) {
  for (const char* text : {"3", "3.0", "3.000", "3e0", "30e-1", "0.3e1", "0.03E+2", "300.00e-2"})
    EXPECT_EQ(integerIn(text), 3) << text;
  for (const char* text : {"0", "-0", "0.0", "-0.0", "0e9", "0.000e-99", "0e999999999999"})
    EXPECT_EQ(integerIn(text), 0) << text;
  EXPECT_EQ(integerIn("-12.50e3"), -12500);
  EXPECT_EQ(integerIn("1e18"), 1'000'000'000'000'000'000);
}

TEST(JsonReader, ANumberWithAFractionIsNoInteger) {
  EXPECT_EQ(integerFault("3.7"), (DocumentFault{Kind::dataCorrupted, "", "3.7 is no integer"}));
  for (const char* text : {"-0.5", "1e-1", "12.5e0", "1e-400", "2.5e-9223372036854775808",
                           "3.00000000000000000000001"})  // nearest to 3 in 64 bits
    EXPECT_EQ(integerFault(text).kind, Kind::dataCorrupted) << text;
}

TEST(JsonReader, IntegersReachFromMinusTwoToThe63ToOneBelowTwoToThe63) {
  for (const char* text : {"9223372036854775807", "9223372036854775807.0", "9.223372036854775807e18"})
    EXPECT_EQ(integerIn(text), Int64::max()) << text;
  for (const char* text : {"-9223372036854775808", "-9223372036854775808.00", "-9223372036854775808e0"})
    EXPECT_EQ(integerIn(text), Int64::min()) << text;
  EXPECT_EQ(integerFault("9223372036854775808"),
            (DocumentFault{Kind::dataCorrupted, "", "9.223372036854776e+18 does not fit a 64-bit integer"}));
  EXPECT_EQ(integerFault("-9223372036854775809").description,
            "-9.223372036854776e+18 does not fit a 64-bit integer");
  for (const char* text :
       {"-9223372036854775809", "-9223372036854775809.0", "9223372036854775808.0", "18446744073709551615",
        "18446744073709551616", "1e19", "-1e19", "1e300", "100000000000000000000000000000000000000000000000"})
    EXPECT_EQ(integerFault(text).kind, Kind::dataCorrupted) << text;
}

// Beyond 2^53 the nearest 64-bit number is another integer.
TEST(JsonReader, LargeIntegersAreExactHoweverTheyAreWritten) {
  std::mt19937_64 rng(41);
  for (int trial = 0; trial < 2000; ++trial) {
    const auto value = static_cast<std::int64_t>(rng()) >> (rng() % 64) | 1;
    const std::string digits = std::to_string(value);
    EXPECT_EQ(integerIn(digits), value);
    EXPECT_EQ(integerIn(digits + ".0"), value);
    EXPECT_EQ(integerIn(digits + "00e-2"), value) << digits;
    const std::size_t last = digits.size() - 1;
    EXPECT_EQ(
        integerIn(digits.substr(0, last) + (last > (value < 0) ? "." : "0.") + digits.substr(last) + "E1"),
        value);
  }
}

// ---- Numbers with a fraction

TEST(JsonReader, NumbersMayBeWrittenAsIntegers) {
  EXPECT_EQ(float32In("-14"), -14.0f);
  EXPECT_EQ(float64In("-14"), -14.0);
  EXPECT_EQ(float32In("16777217"), 16777216.0f);                  // to the even one
  EXPECT_EQ(float32In("9007199791611905"), 9007200328482816.0f);  // just above the middle of two
  EXPECT_EQ(float64In("9223372036854775807"), 9223372036854775808.0);
  EXPECT_EQ(float64In("18446744073709551615"), 18446744073709551616.0);
  EXPECT_EQ(float32In("18446744073709551615"), 18446744073709551616.0f);
  EXPECT_EQ(float64In("123456789012345678901234567890"), 123456789012345678901234567890.0);
}

TEST(JsonReader, NegativeZeroKeepsItsSign) {
  for (const char* text : {"-0", "-0.0", "-0e5"}) {
    EXPECT_TRUE(std::signbit(float32In(text))) << text;
    EXPECT_TRUE(std::signbit(float64In(text))) << text;
  }
  EXPECT_FALSE(std::signbit(float32In("0")));
}

TEST(JsonReader, ANumberThatDoesNotFit32BitsIsAFaultThereOnly) {
  const auto fault = [](const std::string& text) {
    return faultIn("[" + text + "]", [](const Reader& reader) { reader.elements()[0].float32(); });
  };
  EXPECT_EQ(fault("1e39"), (DocumentFault{Kind::dataCorrupted, "[0]", "1e+39 does not fit a 32-bit number"}));
  EXPECT_EQ(fault("-1e39"),
            (DocumentFault{Kind::dataCorrupted, "[0]", "-1e+39 does not fit a 32-bit number"}));
  EXPECT_EQ(float64In("1e39"), 1e39);
  // The largest 32-bit number is 3.40282346638528859811704183484516925440e38; half a step above it rounding
  // ends.
  EXPECT_EQ(float32In("3.4028235677973366e38"), std::numeric_limits<float>::max());
  EXPECT_EQ(float32In("340282356779733661637539395458142568447"), std::numeric_limits<float>::max());
  EXPECT_EQ(fault("340282356779733661637539395458142568448").kind, Kind::dataCorrupted);
}

TEST(JsonReader, NumbersTooSmallForTheirTypeAreZeroOrDenormal) {
  EXPECT_EQ(float32In("1e-46"), 0.0f);
  EXPECT_EQ(float32In("1e-45"), std::numeric_limits<float>::denorm_min());
  EXPECT_EQ(float32In("1.1754942e-38"), std::nextafter(std::numeric_limits<float>::min(), 0.0f));
  EXPECT_EQ(float64In("1e-400"), 0.0);
  EXPECT_EQ(float64In("5e-324"), std::numeric_limits<double>::denorm_min());
}

// 1 + 2^-24 lies in the middle of two 32-bit numbers. A text just beside it is nearest to the middle in 64
// bits; from there it would be rounded to the even neighbour, whichever side it stood on.
TEST(JsonReader, Numbers32AreRoundedOnce) {
  const float above = std::nextafter(1.0f, 2.0f), aboveThat = std::nextafter(above, 2.0f);
  EXPECT_EQ(float32In("1.000000059604644775390625"), 1.0f);
  EXPECT_EQ(float32In("1.00000005960464477539062500000000000001"), above);
  EXPECT_EQ(float32In("1.000000178813934326171875"), aboveThat);
  EXPECT_EQ(float32In("1.00000017881393432617187499999999999999"), above);
  EXPECT_EQ(float32In("-1.00000005960464477539062500000000000001e0"), -above);
  EXPECT_EQ(float32In("10000000596046447753906250000000000001e-37"), above);
  EXPECT_EQ(float32In("16777217.0000000000000000001"), 16777218.0f);
}

TEST(JsonReader, Any32BitNumberReadsBackAsTheSameBits) {
  std::mt19937 rng(42);
  const auto expectSame = [](std::uint32_t bits) {
    const auto value = std::bit_cast<float>(bits);
    if (!std::isfinite(value)) return;
    EXPECT_EQ(std::bit_cast<std::uint32_t>(float32In(Json::compactText(value))), bits) << value;
  };
  for (int trial = 0; trial < 20'000; ++trial) expectSame(static_cast<std::uint32_t>(rng()));
  for (int trial = 0; trial < 5'000; ++trial)
    expectSame(static_cast<std::uint32_t>(rng()) & 0x807FFFFF);  // denormal
  for (std::uint32_t exponent = 0; exponent < 255; ++exponent)   // the powers of two and their neighbours
    for (const std::uint32_t mantissa : {0u, 1u, 0x7FFFFFu}) expectSame(exponent << 23 | mantissa);
  for (const std::uint32_t bits : {0u, 0x80000000u, 0x7F7FFFFFu, 0xFF7FFFFFu}) expectSame(bits);
}

TEST(JsonReader, Any64BitNumberReadsBackAsTheSameBits) {
  std::mt19937_64 rng(43);
  for (int trial = 0; trial < 20'000; ++trial) {
    const auto value = std::bit_cast<double>(static_cast<std::uint64_t>(rng()));
    if (!std::isfinite(value)) continue;
    EXPECT_EQ(std::bit_cast<std::uint64_t>(float64In(Json::compactText(value))),
              std::bit_cast<std::uint64_t>(value));
  }
}

TEST(JsonReader, TheLocaleDoesNotMatter) {
  const test::CommaLocale locale;
  if (!locale.isSet()) GTEST_SKIP() << "no locale with a decimal comma";
  EXPECT_EQ(float32In("0.2"), 0.2f);
  EXPECT_EQ(float64In("-1234.5"), -1234.5);
  EXPECT_EQ(integerIn("3.0"), 3);
  EXPECT_EQ(integerFault("3.7").description, "3.7 is no integer");
  EXPECT_EQ(faultOf([] { Json::parse("0,2"); }).kind, Kind::dataCorrupted);
}

// ---- Enumerations

TEST(JsonReader, ReadsAnEnumerationByItsRawValue) {
  EXPECT_EQ(
      readFrom("\"vod\"", [](const Reader& reader) { return reader.enumeration<LoudnessTargetMode>(); }),
      LoudnessTargetMode::vod);
  EXPECT_EQ(
      faultIn(R"({"boost": "Symmetric"})",
              [](const Reader& reader) { reader.member("boost").enumeration<BoostBehaviour>(); }),
      (DocumentFault{Kind::dataCorrupted, "boost", "\"Symmetric\" is none of symmetric, turnsDownOnly"}));
}

TEST(JsonReader, ReadsTheOnlyCaseOfAnEnumerationObject) {
  readFrom(R"({"shape": {"circle": {"radius": 2}}})", [](const Reader& reader) {
    const auto [name, fields] = reader.member("shape").onlyCase();
    EXPECT_EQ(name, "circle");
    EXPECT_EQ(fields.path(), "shape.circle");
    EXPECT_EQ(fields.member("radius").integer(), 2);
  });
}

TEST(JsonReader, AnEnumerationObjectHasExactlyOneKey) {
  for (const char* text :
       {R"({"shape": {}})", R"({"shape": {"circle": {}, "square": {}}})",
        R"({"shape": {"circle": {}, "square": null}})", R"({"shape": {"a": 1, "b": 2, "c": 3}})"})
    EXPECT_EQ(faultIn(text, [](const Reader& reader) { reader.member("shape").onlyCase(); }),
              (DocumentFault{Kind::typeMismatch, "shape", "Invalid number of keys found, expected one."}))
        << text;
  // One key given twice is one key.
  EXPECT_EQ(readFrom(R"({"circle": 1, "circle": 2})",
                     [](const Reader& reader) { return reader.onlyCase().fields.integer(); }),
            2);
}

TEST(JsonReader, AnUnknownCaseIsAKeyThatIsNotFound) {
  EXPECT_EQ(faultIn(R"({"shape": {"blob": {}}})",
                    [](const Reader& reader) { reader.member("shape").failWithUnknownCase("blob"); }),
            (DocumentFault{Kind::keyNotFound, "shape", "there is no case \"blob\""}));
}

}  // namespace
}  // namespace vellum
