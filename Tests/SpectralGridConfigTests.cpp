#include "VellumCore/SpectralGridConfig.hpp"

#include <cmath>
#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

namespace vellum {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

TEST(SpectralGridConfig, FramesOverlapByThreeQuarters) {
  const SpectralGridConfig config(2048, 48000);
  EXPECT_EQ(config.hop(), 512);
  EXPECT_EQ(config.binCount(), 1025);
  EXPECT_EQ(SpectralGridConfig(4, 1).hop(), 1);
  EXPECT_EQ(SpectralGridConfig(2, 1).hop(), 0);
  EXPECT_EQ(SpectralGridConfig(1, 1).binCount(), 1);
}

TEST(SpectralGridConfig, ABinIsTheNearestOfTheGrid) {
  const SpectralGridConfig config(1024, 1024);  // bins 1 Hz apart
  EXPECT_EQ(config.bin(0), 0);
  EXPECT_EQ(config.bin(100.49), 100);
  EXPECT_EQ(config.bin(100.5), 101);  // halves away from zero
  EXPECT_EQ(config.bin(101.5), 102);
  EXPECT_EQ(config.bin(-3), 0);
  EXPECT_EQ(config.bin(511.6), 512);
  EXPECT_EQ(config.bin(1e9), 512);
  EXPECT_EQ(config.bin(1e300), 512);
  EXPECT_EQ(SpectralGridConfig(2048, 48000).bin(1000), 43);  // 42.67
}

TEST(SpectralGridConfig, AFrequencyIsTheBinsOwn) {
  const SpectralGridConfig config(2048, 48000);
  EXPECT_EQ(config.frequency(0), 0);
  EXPECT_EQ(config.frequency(64), 1500);
  EXPECT_EQ(config.frequency(1024), 24000);
  for (std::int64_t b = 0; b < config.binCount(); ++b) EXPECT_EQ(config.bin(config.frequency(b)), b);
}

TEST(SpectralGridConfig, AColumnIsTheLastThatStartsBeforeASample) {
  const SpectralGridConfig config(1024, 48000);
  EXPECT_EQ(config.column(0), 0);
  EXPECT_EQ(config.column(255), 0);
  EXPECT_EQ(config.column(256), 1);
  EXPECT_EQ(config.column(-255), 0);  // towards zero
  EXPECT_EQ(config.column(-256), -1);
  EXPECT_EQ(config.sampleRange(3), (SampleRange{768, 1792}));
  EXPECT_EQ(config.sampleRange(-1), (SampleRange{-256, 768}));
  constexpr std::int64_t farthest = std::int64_t{1} << 52;  // 2^62 / 1024
  EXPECT_EQ(config.sampleRange(farthest), (SampleRange{farthest * 256, farthest * 256 + 1024}));
  EXPECT_DEATH(config.sampleRange(farthest + 1), "SpectralGridConfig: a column's samples must fit 64 bits");
  EXPECT_DEATH(config.sampleRange(-farthest - 1), "SpectralGridConfig: a column's samples must fit 64 bits");
}

TEST(SpectralGridConfig, ColumnsAreWholeFrames) {
  const SpectralGridConfig config(1024, 48000);
  EXPECT_EQ(config.columnCount(0), 0);
  EXPECT_EQ(config.columnCount(1023), 0);
  EXPECT_EQ(config.columnCount(1024), 1);
  EXPECT_EQ(config.columnCount(1279), 1);
  EXPECT_EQ(config.columnCount(1280), 2);
}

TEST(SpectralGridConfig, ConfigsAreEqualWhenTheirFieldsAre) {
  EXPECT_EQ(SpectralGridConfig(1024, 48000), SpectralGridConfig(1024, 48000));
  EXPECT_NE(SpectralGridConfig(1024, 48000), SpectralGridConfig(2048, 48000));
  EXPECT_NE(SpectralGridConfig(1024, 48000), SpectralGridConfig(1024, 44100));
}

TEST(SpectralGridConfigDeathTest, ImpossibleGeometryStopsTheProgram) {
  for (const std::int64_t size : {std::int64_t{0}, std::int64_t{-4}, std::int64_t{3}, std::int64_t{1000},
                                  std::numeric_limits<std::int64_t>::min()})
    EXPECT_DEATH(SpectralGridConfig(size, 48000), "SpectralGridConfig: fftSize must be a power of two");
  for (const double rate : {0.0, -1.0, std::nan("")})
    EXPECT_DEATH(SpectralGridConfig(1024, rate), "SpectralGridConfig: sampleRate must be above 0");
}

TEST(SpectralGridConfigDeathTest, AFrequencyThatIsNotFiniteStopsTheProgram) {
  const SpectralGridConfig config(1024, 48000);
  for (const double frequency : {infinity, -infinity, std::nan(""), std::numeric_limits<double>::max()})
    EXPECT_DEATH(config.bin(frequency), "SpectralGridConfig: a frequency must be finite");
}

// Below 4 there is no hop, and only what needs one stops.
TEST(SpectralGridConfigDeathTest, FramesWithoutAHopHaveNoColumns) {
  const SpectralGridConfig config(2, 48000);
  EXPECT_EQ(config.columnCount(1), 0);
  EXPECT_EQ(config.bin(24000), 1);
  EXPECT_EQ(config.sampleRange(0), (SampleRange{0, 2}));
  EXPECT_DEATH(config.column(0), "SpectralGridConfig: an fftSize below 4 has no columns");
  EXPECT_DEATH(config.columnCount(2), "SpectralGridConfig: an fftSize below 4 has no columns");
}

}  // namespace
}  // namespace vellum
