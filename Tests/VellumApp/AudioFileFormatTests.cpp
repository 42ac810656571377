#include "VellumApp/AudioFileFormat.hpp"

#include <gtest/gtest.h>

namespace vellum {
namespace {

TEST(AudioFileFormat, NamesAreThoseOfFilesThatAreRead) {
  EXPECT_EQ(nameOf({Container::wav, SampleCoding::pcm24}), "WAV 24-bit");
  EXPECT_EQ(nameOf({Container::rf64, SampleCoding::float32}), "RF64 32-bit float");
  EXPECT_EQ(nameOf({Container::aiff, SampleCoding::pcm16}), "AIFF 16-bit");
  EXPECT_EQ(nameOf({Container::caf, SampleCoding::float32}), "CAF 32-bit float");
  EXPECT_EQ(nameOf({Container::flac, SampleCoding::pcm16}), "FLAC 16-bit");
}

TEST(AudioFileFormat, WidthsOfSamples) {
  EXPECT_EQ(integerBits(SampleCoding::pcm16), 16);
  EXPECT_EQ(integerBits(SampleCoding::pcm24), 24);
  EXPECT_EQ(integerBits(SampleCoding::float32), 0);
  EXPECT_EQ(bytesPerSample(SampleCoding::pcm16), 2);
  EXPECT_EQ(bytesPerSample(SampleCoding::pcm24), 3);
  EXPECT_EQ(bytesPerSample(SampleCoding::float32), 4);
}

TEST(AudioFileFormat, AnExtensionNamesItsContainerInEitherCase) {
  for (const char* name : {"a.wav", "a.WAV", "/x.flac/a.b.Wave", "a.bwf"})
    EXPECT_EQ(containerOfExtension(name), Container::wav) << name;
  EXPECT_EQ(containerOfExtension("a.rf64"), Container::rf64);
  for (const char* name : {"a.aif", "a.AIFF", "a.aifc"})
    EXPECT_EQ(containerOfExtension(name), Container::aiff) << name;
  EXPECT_EQ(containerOfExtension("a.caf"), Container::caf);
  EXPECT_EQ(containerOfExtension("a.flac"), Container::flac);
  for (const char* name : {"a", "wav", ".wav", "a.mp3", "a.wav.mp3", "a.wa", "a."})
    EXPECT_EQ(containerOfExtension(name), std::nullopt) << name;
}

}  // namespace
}  // namespace vellum
