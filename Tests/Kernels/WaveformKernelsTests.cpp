// The kernels of test signals: every instruction set and every cut gives the same bits. What they compute is
// compared with long double twins in SignalGeneratorTests.cpp.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Signals.hpp"
#include "VellumCore/Kernels/Elementary.hpp"
#include "VellumCore/Kernels/Kernels.hpp"

namespace vellum {
namespace {

using namespace test;

// Writes or changes n frames from frame `first` on.
using Stretch = std::function<void(const KernelTable&, float* x, std::int64_t first, std::int64_t n)>;

struct NamedStretch {
  std::string name;
  Stretch run;
};

std::vector<NamedStretch> everyWaveformKernel() {
  std::vector<NamedStretch> list;
  const double step = 2 * 3.141592653589793 * 997.3 / 48000;
  static const double coefficients[] = {1, -0.5, 0.33, 0.25, -0.2, 0.16, 0.14};
  const Chirp linear = {48000, 20, 333.3, 30, 0, 0};
  const Chirp logarithmic = {48000, 20, 0, 30, std::log(1000.0), 20 * 30 * 6.28 / std::log(1000.0)};
  list.push_back(
      {"sine", [=](const auto& k, float* x, auto first, auto n) { k.sine(step, 0.7f, x, first, n); }});
  list.push_back({"linearChirp", [=](const auto& k, float* x, auto first, auto n) {
                    k.linearChirp(linear, 0.7f, x, first, n);
                  }});
  list.push_back({"logarithmicChirp", [=](const auto& k, float* x, auto first, auto n) {
                    k.logarithmicChirp(logarithmic, 0.7f, x, first, n);
                  }});
  for (const bool oddOnly : {false, true})
    list.push_back({oddOnly ? "sineSeries of odd harmonics" : "sineSeries",
                    [=](const auto& k, float* x, auto first, auto n) {
                      k.sineSeries({coefficients, 7, oddOnly}, step, x, first, n);
                    }});
  for (const double L : {64.0, 1200.0, 1e12}) {
    // Slow enough that edges, their surroundings and the plain between them all come by.
    const double slow = 1.3 / L;
    list.push_back({"manyHarmonicsSquare", [=](const auto& k, float* x, auto first, auto n) {
                      k.manyHarmonicsSquare(L, slow, x, first, n);
                    }});
    list.push_back({"manyHarmonicsTriangle", [=](const auto& k, float* x, auto first, auto n) {
                      k.manyHarmonicsTriangle(L, slow, x, first, n);
                    }});
    list.push_back({"manyHarmonicsSawtooth", [=](const auto& k, float* x, auto first, auto n) {
                      k.manyHarmonicsSawtooth(L + 1, slow, x, first, n);
                    }});
  }
  list.push_back({"rising raisedCosine",
                  [](const auto& k, float* x, auto first, auto n) { k.raisedCosine(first, 1, 700, x, n); }});
  list.push_back({"falling raisedCosine", [](const auto& k, float* x, auto first, auto n) {
                    k.raisedCosine(700 - first, -1, 700, x, n);
                  }});
  list.push_back({"decibelsToGains", [](const auto& k, float* x, auto, auto n) {
                    for (std::int64_t i = 0; i < n; ++i) x[i] *= 200;
                    k.decibelsToGains(x, n);
                  }});
  list.push_back({"powersToDecibels", [](const auto& k, float* x, auto, auto n) {
                    k.powersToDecibels(0.3f, 1e-20f, x, n);  // half of them negative: at the bottom
                  }});
  return list;
}

TEST(WaveformKernels, GiveTheSameBitsInEveryTableAndForEveryCut) {
  constexpr std::int64_t frames = 640, slack = 8;
  std::mt19937 rng(41);
  const std::vector<float> input = noise(rng, frames, 1.0);
  for (const auto& [name, run] : everyWaveformKernel()) {
    std::vector<float> whole = input;
    run(*runnableKernels().tables[0], whole.data(), 0, frames);
    for (int t = 0; t < runnableKernels().count; ++t)
      for (int trial = 0; trial < 60; ++trial) {
        const auto offset = static_cast<std::size_t>(trial % slack);
        std::vector<float> x(offset + input.size());
        std::copy(input.begin(), input.end(), x.begin() + trial % slack);
        for (std::int64_t first = 0; first < frames;) {
          const std::int64_t n = std::min<std::int64_t>(frames - first, rng() % (trial < 30 ? 20 : 200));
          run(*runnableKernels().tables[t], x.data() + offset + first, first, n);
          first += n;
        }
        ASSERT_EQ(std::memcmp(x.data() + offset, whole.data(), sizeof(float) * frames), 0)
            << name << ", " << runnableKernels().tables[t]->name;
      }
  }
}

TEST(WaveformKernels, PowersToDecibelsIsTheLogarithmToThe32ndBit) {
  std::mt19937 rng(59);
  std::vector<float> powers, x;
  for (int trial = 0; trial < 20000; ++trial)
    powers.push_back(static_cast<float>(trial % 2 == 0 ? std::pow(10.0, uniform(rng, -20, 30))
                                                       : 1 + uniform(rng, -1e-3, 1e-3)));
  x = powers;
  kernels().powersToDecibels(2.5f, 1e-20f, x.data(), static_cast<std::int64_t>(x.size()));
  for (std::size_t i = 0; i < x.size(); ++i) {
    const long double exact = 10 * std::log10(std::max(static_cast<long double>(powers[i] * 2.5f), 1e-20L));
    ASSERT_NEAR(x[i], static_cast<double>(exact), 6e-8 * std::abs(static_cast<double>(exact)) + 1e-9)
        << powers[i];
  }
}

TEST(WaveformKernels, PowersToDecibelsHasABottomAndATop) {
  constexpr float most = std::numeric_limits<float>::max(), infinity = std::numeric_limits<float>::infinity();
  float x[] = {0,        -0.0f, -5, 1e-30f, std::numeric_limits<float>::denorm_min(), std::nanf(""),
               infinity, most,  1};
  kernels().powersToDecibels(1, 1e-20f, x, 9);
  for (int i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(x[i], -200) << i;
  for (int i = 6; i < 8; ++i) EXPECT_FLOAT_EQ(x[i], 385.31839f) << i;  // 10 log10(2^128)
  EXPECT_EQ(x[8], 0);
}

TEST(Elementary, ExponentialsStayWithinAFewUnitsOfTheLastPlace) {
  std::mt19937 rng(43);
  for (int trial = 0; trial < 20000; ++trial) {
    const double y = uniform(rng, -1, 1) * std::pow(10.0, uniform(rng, -12, 2.84));
    const auto exact = std::exp(static_cast<long double>(y));
    ASSERT_NEAR(exponential(y) / static_cast<double>(exact), 1, 6e-16) << y;
    ASSERT_NEAR(exponentialMinusOne(y) / static_cast<double>(std::expm1(static_cast<long double>(y))), 1,
                1.1e-15)
        << y;
  }
}

TEST(Elementary, TheLogarithmStaysWithinAFewUnitsOfTheLastPlace) {
  std::mt19937 rng(47);
  EXPECT_EQ(naturalLogarithm(1), 0);
  for (int trial = 0; trial < 20000; ++trial) {
    const double x = trial % 2 == 0 ? std::exp(uniform(rng, -690, 690))
                                    : 1 + uniform(rng, -1, 1) * std::pow(10.0, uniform(rng, -14, -0.5));
    if (x == 1) continue;
    ASSERT_NEAR(naturalLogarithm(x) / static_cast<double>(std::log(static_cast<long double>(x))), 1, 9e-16)
        << x;
  }
}

TEST(Elementary, SinesKeepTheirPhaseUpToTwoToThe31HalfTurns) {
  std::mt19937 rng(53);
  for (int trial = 0; trial < 20000; ++trial) {
    const double phase = std::pow(10.0, uniform(rng, -9, 9.8));
    ASSERT_NEAR(sineOfPhase(phase), static_cast<double>(std::sin(static_cast<long double>(phase))), 1e-13)
        << phase;
    ASSERT_NEAR(cosineOfAngle(std::fmod(phase, 1.57)),
                static_cast<double>(std::cos(static_cast<long double>(std::fmod(phase, 1.57)))), 1e-12);
  }
}

}  // namespace
}  // namespace vellum
