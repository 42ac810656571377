#include "VellumCore/FFTWindowType.hpp"

#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Support/DocumentErrors.hpp"
#include "VellumCore/Json/Document.hpp"
#include "VellumCore/Json/Reader.hpp"

namespace vellum {
namespace {

TEST(FFTWindowType, CasesStandInOrderWithTheirTexts) {
  std::string texts;
  for (const FFTWindowType type : allCases<FFTWindowType>())
    texts.append(rawValue(type)).append(" = ").append(displayName(type)).append("\n");
  EXPECT_EQ(texts,
            "hann = Hann\nhamming = Hamming\nblackman = Blackman\nblackmanHarris = Blackman-Harris\n"
            "flatTop = Flat Top\n");
}

TEST(FFTWindowType, JSONHoldsTheRawValue) {
  for (const FFTWindowType type : allCases<FFTWindowType>()) {
    const Json::Value value(rawValue(type));
    EXPECT_EQ(Json::Reader(value).enumeration<FFTWindowType>(), type);
  }
  const Json::Value unknown("Hann");
  EXPECT_THROW(Json::Reader(unknown).enumeration<FFTWindowType>(), Json::DocumentError);
}

// Every value against the defining sum of cosines in long double.
TEST(FFTWindowType, WindowsArePeriodicSumsOfCosines) {
  const long double coefficients[5][5] = {
      {0.5L, -0.5L, 0, 0, 0},
      {0.54L, -0.46L, 0, 0, 0},
      {0.42L, -0.5L, 0.08L, 0, 0},
      {0.35875L, -0.48829L, 0.14128L, -0.01168L, 0},
      {0.21557894L, -0.41663158L, 0.27726316L, -0.083578944L, 0.006947368L},
  };
  for (std::size_t t = 0; t < 5; ++t)
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{2}, std::size_t{7}, std::size_t{64}, std::size_t{4096}}) {
      std::vector<float> window(size, -1.0f);
      fillWindow(allCases<FFTWindowType>()[t], window);
      for (std::size_t i = 0; i < size; ++i) {
        long double expected = 0;
        for (std::size_t k = 0; k < 5; ++k)
          expected +=
              coefficients[t][k] * std::cos(2 * std::numbers::pi_v<long double> *
                                            static_cast<long double>(k * i) / static_cast<long double>(size));
        ASSERT_NEAR(window[i], static_cast<double>(expected), 6e-8) << t << ", " << i << " of " << size;
      }
    }
}

}  // namespace
}  // namespace vellum
