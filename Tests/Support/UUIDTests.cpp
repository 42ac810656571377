#include "VellumCore/Support/UUID.hpp"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <unordered_set>

namespace vellum {
namespace {

const UUID counting{
    {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10}};

TEST(UUID, IsWrittenInGroupsAndUpperCase) {
  EXPECT_EQ(counting.text(), "01234567-89AB-CDEF-FEDC-BA9876543210");
}

TEST(UUID, IsReadInEitherCase) {
  EXPECT_EQ(UUID::parse("01234567-89AB-CDEF-FEDC-BA9876543210"), counting);
  EXPECT_EQ(UUID::parse("01234567-89ab-cdef-fedc-ba9876543210"), counting);
  EXPECT_EQ(UUID::parse("01234567-89aB-CdEf-fEDc-bA9876543210"), counting);
}

TEST(UUID, IsAllZeroUnlessSet) {
  EXPECT_EQ(UUID{}.text(), "00000000-0000-0000-0000-000000000000");
}

TEST(UUID, NoOtherTextIsRead) {
  using namespace std::string_literals;
  for (const std::string& text :
       {""s, "-"s, "01234567-89AB-CDEF-FEDC-BA987654321"s, "01234567-89AB-CDEF-FEDC-BA98765432100"s,
        "0123456789ABCDEFFEDCBA9876543210"s, "0123456789ABCDEFFEDCBA98765432100000"s,
        "0123456-789AB-CDEF-FEDC-BA9876543210"s, "{1234567-89AB-CDEF-FEDC-BA987654321}"s,
        "01234567_89AB_CDEF_FEDC_BA9876543210"s, "G1234567-89AB-CDEF-FEDC-BA9876543210"s,
        "01234567-89AB-CDEF-FEDC-BA987654321 "s, " 1234567-89AB-CDEF-FEDC-BA9876543210"s,
        "01234567-89AB-CDEF-FEDC-BA987654321\0"s, "+1234567-89AB-CDEF-FEDC-BA9876543210"s,
        "01234567-89AB-CDEF-FEDC-BA987654321`"s, "01234567-89AB-CDEF-FEDC-BA987654321@"s,
        "g1234567-89AB-CDEF-FEDC-BA9876543210"s, "01234567-89AB-CDEF-FEDC-BA987654321:"s,
        "01234567-89AB-CDEF-FEDC-BA987654321/"s})
    EXPECT_FALSE(UUID::parse(text)) << text;
}

RC_GTEST_PROP(UUID, AnyReadsBackAsItself, (UUID::Bytes bytes)) {
  const UUID id{bytes};
  std::string lower = id.text();
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  RC_ASSERT(UUID::parse(id.text()) == id);
  RC_ASSERT(UUID::parse(lower) == id);
}

// Exactly the four bits of the version and the two of the variant.
RC_GTEST_PROP(UUID, Version4TakesSixBits, (UUID::Bytes bytes)) {
  const UUID id = UUID::version4(bytes);
  for (std::size_t k = 0; k < bytes.size(); ++k) {
    const int taken = k == 6 ? 0xF0 : k == 8 ? 0xC0 : 0;
    const int given = k == 6 ? 0x40 : k == 8 ? 0x80 : 0;
    RC_ASSERT((id.bytes[k] & taken) == given);
    RC_ASSERT((id.bytes[k] & ~taken) == (bytes[k] & ~taken));
  }
}

TEST(UUID, ARandomOneHasVersion4AndItsVariant) {
  for (int trial = 0; trial < 200; ++trial) {
    const std::string text = UUID::random().text();
    EXPECT_EQ(text[14], '4') << text;
    EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos) << text;
  }
}

// Every bit that is free takes both values, and no two are the same.
TEST(UUID, RandomOnesUseEveryBit) {
  std::unordered_set<UUID> ids;
  UUID::Bytes ever{}, always;
  always.fill(0xFF);
  for (int trial = 0; trial < 1000; ++trial) {
    const UUID id = UUID::random();
    ids.insert(id);
    for (std::size_t k = 0; k < always.size(); ++k) {
      ever[k] = static_cast<std::uint8_t>(ever[k] | id.bytes[k]);
      always[k] = static_cast<std::uint8_t>(always[k] & id.bytes[k]);
    }
  }
  EXPECT_EQ(ids.size(), 1000u);
  EXPECT_EQ(UUID{ever}.text(), "FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
  EXPECT_EQ(UUID{always}.text(), "00000000-0000-4000-8000-000000000000");
}

TEST(UUID, EqualOnesHashAlike) {
  EXPECT_EQ(std::hash<UUID>()(counting), std::hash<UUID>()(*UUID::parse(counting.text())));
  UUID other = counting;
  ++other.bytes[15];
  EXPECT_NE(other, counting);
  EXPECT_NE(std::hash<UUID>()(other), std::hash<UUID>()(counting));
}

}  // namespace
}  // namespace vellum
