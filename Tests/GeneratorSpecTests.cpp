#include "VellumCore/GeneratorSpec.hpp"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Support/CommaLocale.hpp"

namespace vellum {
namespace {

using Error = GeneratorSpecError;
using Source = GeneratorSource;
using Container = GeneratorContainer;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr float infinity32 = std::numeric_limits<float>::infinity();
constexpr float nan32 = std::numeric_limits<float>::quiet_NaN();

const UUID someID = *UUID::parse("01234567-89AB-4DEF-BEDC-BA9876543210");
const UUID otherID = *UUID::parse("11234567-89AB-4DEF-BEDC-BA9876543210");

GeneratorModule moduleAt(double start, double duration, Source source = {Source::Sine{1000}}) {
  return {.id = someID,
          .start = start,
          .duration = duration,
          .source = std::move(source),
          .gainDB = -6,
          .fadeInSeconds = 0,
          .fadeOutSeconds = 0};
}

// Every field differs from every other.
GeneratorModule fullModule() {
  return {.id = someID,
          .start = 1,
          .duration = 2,
          .source = {Source::Sine{440}},
          .gainDB = -3,
          .levelSweep = LevelSweep{-40, -10, LevelSweepShape::linear},
          .burst = BurstGate{0.25, 0.75, 4, 5},
          .fadeInSeconds = 0.1,
          .fadeOutSeconds = 0.2};
}

GeneratorSpec specOf(std::vector<GeneratorChannel> channels, double sampleRate = 48000) {
  return {.sampleRate = sampleRate,
          .bitDepth = GeneratorBitDepth::int24,
          .container = Container::wav,
          .channels = std::move(channels)};
}
// One channel.
GeneratorSpec specWith(std::vector<GeneratorModule> modules, double sampleRate = 48000) {
  return specOf({{someID, "", std::move(modules)}}, sampleRate);
}
GeneratorSpec specWithSource(Source source) {
  return specWith({moduleAt(0, 1, std::move(source))});
}
GeneratorSpec specWithRate(double sampleRate) {
  return specWith({moduleAt(0, 10, {Source::Silence{}})}, sampleRate);
}
GeneratorSpec specOfChannels(std::size_t count) {
  return specOf(std::vector<GeneratorChannel>(count, {someID, "", {moduleAt(0, 1)}}));
}

// What is wrong with a specification, in words; empty where nothing is.
std::string faultOf(const GeneratorSpec& spec) {
  const auto error = spec.validate();
  return error ? error->description() : "";
}

// --- Enumerations ----------------------------------------------------------------------------------------

template <typename Enumeration>
std::vector<std::string> rawValuesOf() {
  std::vector<std::string> texts;
  for (const Enumeration value : allCases<Enumeration>()) {
    texts.emplace_back(rawValue(value));
    EXPECT_EQ(fromRawValue<Enumeration>(texts.back()), value);
    EXPECT_EQ(static_cast<std::size_t>(value), texts.size() - 1) << texts.back();
  }
  return texts;
}
using Texts = std::vector<std::string>;

TEST(GeneratorEnumerations, HaveTheirTextsInOrder) {
  EXPECT_EQ(rawValuesOf<NoiseColor>(), (Texts{"white", "pink", "brown"}));
  EXPECT_EQ(rawValuesOf<SweepShape>(), (Texts{"linear", "logarithmic"}));
  EXPECT_EQ(rawValuesOf<LevelSweepShape>(), (Texts{"linear", "logarithmic"}));
  EXPECT_EQ(rawValuesOf<GeneratorBitDepth>(), (Texts{"int16", "int24", "float32"}));
  EXPECT_EQ(rawValuesOf<Container>(), (Texts{"wav", "aiff", "caf"}));
}

TEST(GeneratorEnumerations, OnlyTheirOwnTextsMakeThem) {
  for (const char* text : {"", "White", "pink ", "grey"}) EXPECT_FALSE(fromRawValue<NoiseColor>(text));
  for (const char* text : {"", "log", "Linear"}) {
    EXPECT_FALSE(fromRawValue<SweepShape>(text)) << text;
    EXPECT_FALSE(fromRawValue<LevelSweepShape>(text)) << text;
  }
  for (const char* text : {"", "16", "int32", "float"}) EXPECT_FALSE(fromRawValue<GeneratorBitDepth>(text));
  for (const char* text : {"", "WAV", "aif", "flac"}) EXPECT_FALSE(fromRawValue<Container>(text)) << text;
}

TEST(GeneratorEnumerations, AreHashable) {
  EXPECT_EQ((std::unordered_set{NoiseColor::white, NoiseColor::pink, NoiseColor::white}.size()), 2u);
  EXPECT_EQ((std::unordered_set{SweepShape::linear, SweepShape::linear}.size()), 1u);
  EXPECT_EQ((std::unordered_set{LevelSweepShape::linear, LevelSweepShape::logarithmic}.size()), 2u);
  EXPECT_EQ((std::unordered_set{GeneratorBitDepth::int16, GeneratorBitDepth::float32}.size()), 2u);
  EXPECT_EQ((std::unordered_set{Container::caf, Container::wav, Container::caf}.size()), 2u);
}

TEST(GeneratorBitDepth, KnowsItsBitsAndWhetherTheyAreAFloat) {
  EXPECT_EQ(bits(GeneratorBitDepth::int16), 16);
  EXPECT_EQ(bits(GeneratorBitDepth::int24), 24);
  EXPECT_EQ(bits(GeneratorBitDepth::float32), 32);
  EXPECT_FALSE(isFloat(GeneratorBitDepth::int16));
  EXPECT_FALSE(isFloat(GeneratorBitDepth::int24));
  EXPECT_TRUE(isFloat(GeneratorBitDepth::float32));
}

TEST(GeneratorContainer, KnowsItsFileExtension) {
  EXPECT_EQ(fileExtension(Container::wav), "wav");
  EXPECT_EQ(fileExtension(Container::aiff), "aiff");
  EXPECT_EQ(fileExtension(Container::caf), "caf");
}

// --- Records ---------------------------------------------------------------------------------------------

TEST(GeneratorSource, OnlyThePeriodicSourcesHaveAPrimaryFrequency) {
  EXPECT_EQ(Source{Source::Sine{1}}.primaryFrequency(), 1.0);
  EXPECT_EQ(Source{Source::Square{2}}.primaryFrequency(), 2.0);
  EXPECT_EQ(Source{Source::Sawtooth{3}}.primaryFrequency(), 3.0);
  EXPECT_EQ(Source{Source::Triangle{4}}.primaryFrequency(), 4.0);
  EXPECT_EQ(Source{Source::Silence{}}.primaryFrequency(), std::nullopt);
  EXPECT_EQ(Source{Source::Noise{NoiseColor::pink}}.primaryFrequency(), std::nullopt);
  EXPECT_EQ(Source{Source::Impulse{}}.primaryFrequency(), std::nullopt);
  EXPECT_EQ((Source{Source::Sweep{20, 20000, SweepShape::linear}}.primaryFrequency()), std::nullopt);
}

TEST(GeneratorSource, CaseAndEveryFieldCountForEquality) {
  const std::vector<Source> sources = {{Source::Silence{}},
                                       {Source::Sine{440}},
                                       {Source::Sine{441}},
                                       {Source::Square{440}},
                                       {Source::Sawtooth{440}},
                                       {Source::Triangle{440}},
                                       {Source::Noise{NoiseColor::white}},
                                       {Source::Noise{NoiseColor::brown}},
                                       {Source::Impulse{}},
                                       {Source::Sweep{440, 880, SweepShape::linear}},
                                       {Source::Sweep{441, 880, SweepShape::linear}},
                                       {Source::Sweep{440, 881, SweepShape::linear}},
                                       {Source::Sweep{440, 880, SweepShape::logarithmic}}};
  for (std::size_t a = 0; a < sources.size(); ++a)
    for (std::size_t b = 0; b < sources.size(); ++b)
      EXPECT_EQ(sources[a] == sources[b], a == b) << a << ", " << b;
}

TEST(GeneratorRecords, AreMadeOfTheirFieldsInOrder) {
  const GeneratorModule module{
      someID,
      1,
      2,
      {Source::Sine{440}},
      -3,
      LevelSweep{-40, -10, LevelSweepShape::linear},
      BurstGate{0.25, 0.75, 4, 5},
      0.1,
      0.2,
  };
  EXPECT_EQ(module, fullModule());
  const GeneratorSpec spec{
      44100, GeneratorBitDepth::float32, Container::caf, {{otherID, "Left", {module}}}, 7.5, -1.0f};
  EXPECT_EQ(spec.sampleRate, 44100.0);
  EXPECT_EQ(spec.bitDepth, GeneratorBitDepth::float32);
  EXPECT_EQ(spec.container, Container::caf);
  ASSERT_EQ(spec.channels.size(), 1u);
  EXPECT_EQ(spec.channels[0].id, otherID);
  EXPECT_EQ(spec.channels[0].name, "Left");
  EXPECT_EQ(spec.channels[0].modules, std::vector{fullModule()});
  EXPECT_EQ(spec.duration, 7.5);
  EXPECT_EQ(spec.peakCeilingDB, -1.0f);
}

TEST(GeneratorRecords, EveryFieldCountsForEquality) {
  const std::vector<std::function<void(GeneratorSpec&)>> changes = {
      [](GeneratorSpec& s) { s.sampleRate = 44100; },
      [](GeneratorSpec& s) { s.bitDepth = GeneratorBitDepth::int16; },
      [](GeneratorSpec& s) { s.container = Container::aiff; },
      [](GeneratorSpec& s) { s.channels.push_back(s.channels[0]); },
      [](GeneratorSpec& s) { s.duration = 3; },
      [](GeneratorSpec& s) { s.peakCeilingDB = -3.0f; },
      [](GeneratorSpec& s) { s.channels[0].id = otherID; },
      [](GeneratorSpec& s) { s.channels[0].name = "Right"; },
      [](GeneratorSpec& s) { s.channels[0].modules.clear(); },
      [](GeneratorSpec& s) { s.channels[0].modules[0].id = otherID; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].start = 9; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].duration = 9; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].source = {Source::Sine{9}}; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].gainDB = 9; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].levelSweep = {}; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].levelSweep->startDB = 9; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].levelSweep->endDB = 9; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].levelSweep->shape = LevelSweepShape::logarithmic; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].burst = {}; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].burst->onSeconds = 9; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].burst->offSeconds = 9; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].burst->count = 9; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].burst->rampMilliseconds = 9; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].fadeInSeconds = 9; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].fadeOutSeconds = 9; },
  };
  const GeneratorSpec spec = specWith({fullModule()});
  EXPECT_EQ(spec, specWith({fullModule()}));
  for (std::size_t k = 0; k < changes.size(); ++k) {
    GeneratorSpec other = spec;
    changes[k](other);
    EXPECT_NE(other, spec) << k;
  }
}

TEST(GeneratorModule, EndsAfterItsDuration) {
  EXPECT_EQ(moduleAt(1.5, 2.25).end(), 3.75);
}

TEST(GeneratorSpec, CountsItsChannelsAndHalvesItsRate) {
  EXPECT_EQ(specOf({}).channelCount(), 0);
  EXPECT_EQ(specOfChannels(3).channelCount(), 3);
  EXPECT_EQ(specWithRate(44100).nyquist(), 22050.0);
}

TEST(GeneratorSpec, LimitsAreAMillionHertz128ChannelsAnd31BitsOfFrames) {
  static_assert(std::is_same_v<decltype(GeneratorSpec::maxSampleRate), const double>);
  EXPECT_EQ(GeneratorSpec::maxSampleRate, 1e6);
  EXPECT_EQ(GeneratorSpec::maxChannels, 128);
  EXPECT_EQ(GeneratorSpec::maxRenderFrames, (std::int64_t{1} << 31) - 1);
}

// --- Length ----------------------------------------------------------------------------------------------

GeneratorSpec specWithDuration(double duration) {
  GeneratorSpec spec = specWith({moduleAt(0, 5)});
  spec.duration = duration;
  return spec;
}

TEST(GeneratorSpecLength, IsTheLatestEndOfAModule) {
  EXPECT_EQ(specWith({moduleAt(0, 1), moduleAt(2, 1), moduleAt(5, 0.5)}).resolvedDuration(), 5.5);
  EXPECT_EQ(specWith({moduleAt(0, 9), moduleAt(2, 1)}).resolvedDuration(), 9.0);
  EXPECT_EQ(
      specOf(
          {{someID, "", {moduleAt(0, 1)}}, {someID, "", {}}, {someID, "", {moduleAt(1, 2), moduleAt(0, 2)}}})
          .resolvedDuration(),
      3.0);
}

TEST(GeneratorSpecLength, AGivenDurationWinsOverLongerAndShorterModules) {
  EXPECT_EQ(specWithDuration(3).resolvedDuration(), 3.0);
  EXPECT_EQ(specWithDuration(8).resolvedDuration(), 8.0);
  EXPECT_EQ(specWithDuration(0).resolvedDuration(), 0.0);
  EXPECT_EQ(specWithDuration(infinity).resolvedDuration(), infinity);
}

TEST(GeneratorSpecLength, ADurationThatIsNoLengthIsZero) {
  EXPECT_EQ(specWithDuration(-1).resolvedDuration(), 0.0);
  EXPECT_EQ(specWithDuration(-infinity).resolvedDuration(), 0.0);
  EXPECT_EQ(specWithDuration(nan).resolvedDuration(), 0.0);
}

TEST(GeneratorSpecLength, IsZeroWithoutModules) {
  EXPECT_EQ(specOf({}).resolvedDuration(), 0.0);
  EXPECT_EQ(specOf({{someID, "", {}}, {someID, "", {}}}).resolvedDuration(), 0.0);
}

TEST(GeneratorSpecLength, EndsThatAreNoTimesAreSkippedUnlessFirst) {
  EXPECT_EQ(specWith({moduleAt(-5, 1), moduleAt(-4, 1)}).resolvedDuration(), 0.0);
  EXPECT_EQ(specWith({moduleAt(0, 1), moduleAt(nan, 1), moduleAt(1, 1)}).resolvedDuration(), 2.0);
  // Nothing is greater than a first end that is not a number.
  EXPECT_EQ(specWith({moduleAt(nan, 1), moduleAt(1, 1)}).resolvedDuration(), 0.0);
  EXPECT_EQ(specWith({moduleAt(0, 1), moduleAt(0, infinity)}).resolvedDuration(), infinity);
}

TEST(GeneratorSpecLength, FramesAreRoundedHalvesAwayFromZero) {
  const auto framesOf = [](double duration) {
    GeneratorSpec spec = specWithDuration(duration);
    spec.sampleRate = 2;
    return spec.frameCount();
  };
  EXPECT_EQ(framesOf(1), 2);
  EXPECT_EQ(framesOf(1.125), 2);
  EXPECT_EQ(framesOf(1.25), 3);
  EXPECT_EQ(framesOf(1.75), 4);
  EXPECT_EQ(framesOf(0.25), 1);
  EXPECT_EQ(framesOf(std::nextafter(0.25, 0.0)), 0);
  EXPECT_EQ(specWith({moduleAt(0.5, 1)}, 44100).frameCount(), 66150);
}

TEST(GeneratorSpecLength, FramesBeyondAllMeasureAreZero) {
  const auto framesOf = [](double duration, double sampleRate) {
    GeneratorSpec spec = specWithDuration(duration);
    spec.sampleRate = sampleRate;
    return spec.frameCount();
  };
  EXPECT_EQ(framesOf(9e18, 1), 0);
  EXPECT_EQ(framesOf(8'999'999'999'999'998'976.0, 1), 8'999'999'999'999'998'976);  // the next below 9e18
  EXPECT_EQ(framesOf(1e300, 48000), 0);
  EXPECT_EQ(framesOf(infinity, 48000), 0);
  EXPECT_EQ(framesOf(0, infinity), 0);  // not a number
  EXPECT_EQ(framesOf(2, nan), 0);
  // Nobody has asked validate here.
  EXPECT_EQ(framesOf(2, -48000), -96000);
  EXPECT_EQ(framesOf(1e300, -48000), 0);
  EXPECT_EQ(framesOf(2, -infinity), 0);
}

// --- Validation: one fault -------------------------------------------------------------------------------

TEST(GeneratorSpecValidation, FindsNothingInASoundSpecification) {
  EXPECT_EQ(specWith({moduleAt(0, 1), fullModule()}).validate(), std::nullopt);
}

TEST(GeneratorSpecValidation, AnyRateAboveZeroUpToAMillionIsTaken) {
  for (const double rate : {0.5, 0.05, 1.0, 44100.0, 48000.0, 999999.5, 1e6})
    EXPECT_EQ(faultOf(specWithRate(rate)), "") << rate;
}

TEST(GeneratorSpecValidation, OtherRatesAreRefused) {
  const auto textOf = [](const char* rate) {
    return std::string("Sample rate must be a finite value between 1 Hz and 1000000 Hz (got ") + rate + ").";
  };
  EXPECT_EQ(faultOf(specWithRate(0)), textOf("0.0"));
  EXPECT_EQ(faultOf(specWithRate(-0.0)), textOf("-0.0"));
  EXPECT_EQ(faultOf(specWithRate(-1)), textOf("-1.0"));
  EXPECT_EQ(faultOf(specWithRate(-44100.5)), textOf("-44100.5"));
  EXPECT_EQ(faultOf(specWithRate(1000000.5)), textOf("1000000.5"));
  EXPECT_EQ(faultOf(specWithRate(std::nextafter(1e6, infinity))), textOf("1000000.0000000001"));
  EXPECT_EQ(faultOf(specWithRate(infinity)), textOf("inf"));
  EXPECT_EQ(faultOf(specWithRate(-infinity)), textOf("-inf"));
  EXPECT_EQ(faultOf(specWithRate(nan)), textOf("nan"));
  EXPECT_EQ(faultOf(specWithRate(-nan)), textOf("nan"));
  EXPECT_EQ(specWithRate(-1).validate(), (Error{Error::InvalidSampleRate{-1}}));
}

TEST(GeneratorSpecValidation, ThereAreOneTo128Channels) {
  EXPECT_EQ(faultOf(specOf({})), "The spec has no channels.");
  EXPECT_EQ(specOf({}).validate(), (Error{Error::NoChannels{}}));
  EXPECT_EQ(faultOf(specOfChannels(1)), "");
  EXPECT_EQ(faultOf(specOfChannels(128)), "");
  EXPECT_EQ(faultOf(specOfChannels(129)), "Channel count 129 is over the 128-channel cap.");
  EXPECT_EQ(specOfChannels(200).validate(), (Error{Error::TooManyChannels{200}}));
}

// The floating-point values of a module, in the order in which they are looked at.
template <typename Float>
struct Field {
  std::string name;
  std::function<Float&(GeneratorModule&)> of;
};
const std::vector<Field<double>> fields64 = {
    {"start", [](GeneratorModule& m) -> double& { return m.start; }},
    {"duration", [](GeneratorModule& m) -> double& { return m.duration; }},
    {"fade in", [](GeneratorModule& m) -> double& { return m.fadeInSeconds; }},
    {"fade out", [](GeneratorModule& m) -> double& { return m.fadeOutSeconds; }},
    {"burst on", [](GeneratorModule& m) -> double& { return m.burst->onSeconds; }},
    {"burst off", [](GeneratorModule& m) -> double& { return m.burst->offSeconds; }},
    {"burst ramp", [](GeneratorModule& m) -> double& { return m.burst->rampMilliseconds; }},
};
const std::vector<Field<float>> fields32 = {
    {"level", [](GeneratorModule& m) -> float& { return m.gainDB; }},
    {"level sweep start", [](GeneratorModule& m) -> float& { return m.levelSweep->startDB; }},
    {"level sweep end", [](GeneratorModule& m) -> float& { return m.levelSweep->endDB; }},
};

TEST(GeneratorSpecValidation, EveryValueOfAModuleIsFiniteAndIsNamedWithItsPlaceFromOne) {
  const auto expectRefused = [](const auto& field, auto value) {
    GeneratorModule module = fullModule();
    field.of(module) = value;
    EXPECT_EQ(faultOf(specWith({module})), "Channel 1 module 1 " + field.name + " must be a finite number.");
    const GeneratorSpec spec = specOf({{someID, "", {fullModule()}},
                                       {someID, "", {}},
                                       {someID, "", {fullModule(), module, module}},
                                       {someID, "", {module}}});
    EXPECT_EQ(faultOf(spec), "Channel 3 module 2 " + field.name + " must be a finite number.");
    EXPECT_EQ(spec.validate(), (Error{Error::NonFinite{"Channel 3 module 2 " + field.name}}));
  };
  for (const auto& field : fields64)
    for (const double value : {infinity, -infinity, nan}) expectRefused(field, value);
  for (const auto& field : fields32)
    for (const float value : {infinity32, -infinity32, nan32}) expectRefused(field, value);
}

TEST(GeneratorSpecValidation, AModuleStartsAtZeroOrLater) {
  EXPECT_EQ(faultOf(specWith({moduleAt(0, 1)})), "");
  EXPECT_EQ(faultOf(specWith({moduleAt(-0.0, 1)})), "");
  EXPECT_EQ(faultOf(specWith({moduleAt(-1, 1)})),
            "Channel 0 module 0: start time can't be negative (got -1.0 s).");
  EXPECT_EQ(faultOf(specWith({moduleAt(-0.25, 1)})),
            "Channel 0 module 0: start time can't be negative (got -0.25 s).");
  const double leastNegative = -std::numeric_limits<double>::denorm_min();
  EXPECT_EQ(specOf({{someID, "", {}}, {someID, "", {moduleAt(0, 1), moduleAt(leastNegative, 1)}}}).validate(),
            (Error{Error::NegativeStart{1, 1, leastNegative}}));
}

TEST(GeneratorSpecValidation, AModuleLastsLongerThanZero) {
  EXPECT_EQ(faultOf(specWith({moduleAt(0, 1), moduleAt(0, std::numeric_limits<double>::denorm_min())})), "");
  EXPECT_EQ(faultOf(specWith({moduleAt(0, 0)})),
            "Channel 0 module 0: duration must be positive (got 0.0 s).");
  EXPECT_EQ(faultOf(specWith({moduleAt(0, -0.0)})),
            "Channel 0 module 0: duration must be positive (got -0.0 s).");
  EXPECT_EQ(faultOf(specWith({moduleAt(0, 1), moduleAt(0, -2.5)})),
            "Channel 0 module 1: duration must be positive (got -2.5 s).");
  EXPECT_EQ(specOf({{someID, "", {moduleAt(0, 1)}}, {someID, "", {moduleAt(0, -3)}}}).validate(),
            (Error{Error::NonPositiveDuration{1, 0, -3}}));
}

const double capAt48k = 2147483647.0 / 48000;  // s

TEST(GeneratorSpecValidation, AModuleFits31BitsOfFrames) {
  EXPECT_EQ(faultOf(specWith({moduleAt(0, capAt48k)})), "");
  EXPECT_EQ(specWith({moduleAt(0, capAt48k)}).frameCount(), GeneratorSpec::maxRenderFrames);
  const double longer = std::nextafter(capAt48k, infinity);
  EXPECT_EQ(specWith({moduleAt(0, longer)}).validate(), (Error{Error::DurationTooLong{longer, capAt48k}}));
  EXPECT_EQ(faultOf(specWith({moduleAt(0, 44740)})),
            "Length 44740.0 s is over the cap (44739 s at this sample rate).");
}

TEST(GeneratorSpecValidation, AModuleIsRefusedForItsLengthEvenWhereTheFileIsCutShort) {
  GeneratorSpec spec = specWith({moduleAt(0, 44740)});
  spec.duration = 1;
  EXPECT_EQ(faultOf(spec), "Length 44740.0 s is over the cap (44739 s at this sample rate).");
}

TEST(GeneratorSpecValidation, ABurstFits31BitsOfFramesWhateverTheModule) {
  const auto faultOfBurst = [](double onSeconds, double offSeconds) {
    GeneratorModule module = moduleAt(0, 1);
    module.burst = {.onSeconds = onSeconds, .offSeconds = offSeconds, .count = 0, .rampMilliseconds = 2};
    return faultOf(specWith({module}));
  };
  EXPECT_EQ(faultOfBurst(capAt48k, capAt48k), "");
  EXPECT_EQ(faultOfBurst(0.5, 50000.5), "Length 50000.5 s is over the cap (44739 s at this sample rate).");
  EXPECT_EQ(faultOfBurst(60000, 0.5), "Length 60000.0 s is over the cap (44739 s at this sample rate).");
  EXPECT_EQ(faultOfBurst(60000, 60001), "Length 60001.0 s is over the cap (44739 s at this sample rate).");
  EXPECT_EQ(faultOfBurst(60001, 60000), "Length 60001.0 s is over the cap (44739 s at this sample rate).");
}

TEST(GeneratorSpecValidation, TheLongestOfAModuleAndItsBurstIsReported) {
  GeneratorModule module = moduleAt(0, 70000);
  module.burst = {.onSeconds = 60000, .offSeconds = 50000, .count = 0, .rampMilliseconds = 2};
  EXPECT_EQ(faultOf(specWith({module})), "Length 70000.0 s is over the cap (44739 s at this sample rate).");
}

TEST(GeneratorSpecValidation, FrequenciesLieBetweenZeroAndNyquistBothExcluded) {
  const std::vector<std::function<Source(double)>> sources = {
      [](double f) { return Source{Source::Sine{f}}; },
      [](double f) { return Source{Source::Square{f}}; },
      [](double f) { return Source{Source::Sawtooth{f}}; },
      [](double f) { return Source{Source::Triangle{f}}; },
      [](double f) {
        return Source{Source::Sweep{f, 1000, SweepShape::linear}};
      },
      [](double f) {
        return Source{Source::Sweep{1000, f, SweepShape::logarithmic}};
      },
  };
  const auto textOf = [](const std::string& frequency) {
    return "Channel 0 module 0: frequency " + frequency + " Hz is outside (0, 24000.0) Hz (Nyquist).";
  };
  for (const auto& source : sources) {
    EXPECT_EQ(faultOf(specWithSource(source(23999.99))), "");
    EXPECT_EQ(faultOf(specWithSource(source(std::nextafter(24000.0, 0.0)))), "");
    EXPECT_EQ(faultOf(specWithSource(source(std::numeric_limits<double>::denorm_min()))), "");
    EXPECT_EQ(faultOf(specWithSource(source(24000))), textOf("24000.0"));
    EXPECT_EQ(faultOf(specWithSource(source(96000.25))), textOf("96000.25"));
    EXPECT_EQ(faultOf(specWithSource(source(0))), textOf("0.0"));
    EXPECT_EQ(faultOf(specWithSource(source(-440))), textOf("-440.0"));
    EXPECT_EQ(faultOf(specWithSource(source(infinity))), textOf("inf"));
    EXPECT_EQ(faultOf(specWithSource(source(-infinity))), textOf("-inf"));
    EXPECT_EQ(faultOf(specWithSource(source(nan))), textOf("nan"));
  }
}

TEST(GeneratorSpecValidation, ASweepIsCheckedOnItsStartBeforeItsEnd) {
  EXPECT_EQ(specWithSource({Source::Sweep{25000, -1, SweepShape::linear}}).validate(),
            (Error{Error::FrequencyOutOfRange{0, 0, 25000, 24000}}));
  EXPECT_EQ(specWithSource({Source::Sweep{20000, -1, SweepShape::linear}}).validate(),
            (Error{Error::FrequencyOutOfRange{0, 0, -1, 24000}}));
}

TEST(GeneratorSpecValidation, AFrequencyIsReportedWithItsPlaceFromZero) {
  GeneratorSpec spec = specOf(
      {{someID, "", {}}, {someID, "", {}}, {someID, "", {moduleAt(0, 1), moduleAt(0, 1, {Source::Sine{0}})}}},
      44100);
  EXPECT_EQ(faultOf(spec), "Channel 2 module 1: frequency 0.0 Hz is outside (0, 22050.0) Hz (Nyquist).");
}

TEST(GeneratorSpecValidation, SourcesWithoutAFrequencyAreTakenAtAnyRate) {
  for (const Source& source :
       {Source{Source::Silence{}}, Source{Source::Impulse{}}, Source{Source::Noise{NoiseColor::brown}}})
    EXPECT_EQ(faultOf(specWith({moduleAt(0, 1000, source)}, 0.001)), "");
}

TEST(GeneratorSpecValidation, OnlyFinitenessIsAskedOfFadesLevelsAndBursts) {
  constexpr double most = std::numeric_limits<double>::max();
  constexpr float most32 = std::numeric_limits<float>::max();
  GeneratorModule module = fullModule();
  for (const double sign : {1.0, -1.0}) {
    module.fadeInSeconds = sign * most;
    module.fadeOutSeconds = sign * most;
    module.gainDB = static_cast<float>(sign) * most32;
    module.levelSweep->startDB = static_cast<float>(sign) * most32;
    module.levelSweep->endDB = static_cast<float>(sign) * most32;
    module.burst->rampMilliseconds = sign * most;
    module.burst->count =
        sign > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
    GeneratorSpec spec = specWith({module});
    spec.peakCeilingDB = static_cast<float>(sign) * most32;
    EXPECT_EQ(faultOf(spec), "") << sign;
  }
  module.burst->onSeconds = -most;
  module.burst->offSeconds = -most;
  EXPECT_EQ(faultOf(specWith({module})), "");
}

TEST(GeneratorSpecValidation, AModuleMayStartBeyondAGivenDuration) {
  GeneratorSpec spec = specWith({moduleAt(1e6, 1)});
  spec.duration = 2;
  EXPECT_EQ(faultOf(spec), "");
  EXPECT_EQ(spec.frameCount(), 96000);
}

TEST(GeneratorSpecValidation, APeakCeilingIsFinite) {
  for (const float ceiling : {infinity32, -infinity32, nan32}) {
    GeneratorSpec spec = specWith({moduleAt(0, 1)});
    spec.peakCeilingDB = ceiling;
    EXPECT_EQ(faultOf(spec), "Peak ceiling must be a finite number.");
    EXPECT_EQ(spec.validate(), (Error{Error::NonFinite{"Peak ceiling"}}));
  }
}

TEST(GeneratorSpecValidation, TheFileFits31BitsOfFrames) {
  EXPECT_EQ(faultOf(specWithDuration(capAt48k)), "");
  EXPECT_EQ(specWithDuration(std::nextafter(capAt48k, infinity)).validate(),
            (Error{Error::DurationTooLong{std::nextafter(capAt48k, infinity), capAt48k}}));
  EXPECT_EQ(faultOf(specWithDuration(50000)),
            "Length 50000.0 s is over the cap (44739 s at this sample rate).");
  EXPECT_EQ(faultOf(specWithDuration(infinity)),
            "Length inf s is over the cap (44739 s at this sample rate).");
  EXPECT_EQ(faultOf(specWith({moduleAt(30000, 20000)})),
            "Length 50000.0 s is over the cap (44739 s at this sample rate).");
}

TEST(GeneratorSpecValidation, AnEndBeyondAllNumbersIsTooLong) {
  const double half = std::numeric_limits<double>::max() / 1.5;
  EXPECT_EQ(faultOf(specWith({moduleAt(half, half, {Source::Silence{}})}, 1e-300)),
            "Length inf s is over the cap (inf s at this sample rate).");
}

TEST(GeneratorSpecValidation, TheCapIsPrintedWithoutItsFractionAndWithAllItsDigits) {
  const auto capText = [](double sampleRate) {
    GeneratorSpec spec = specWithRate(sampleRate);
    spec.duration = infinity;
    return faultOf(spec);
  };
  EXPECT_EQ(capText(44100), "Length inf s is over the cap (48695 s at this sample rate).");  // 48695.77
  EXPECT_EQ(capText(1), "Length inf s is over the cap (2147483647 s at this sample rate).");
  // 2^71 - 2^40: beyond 64 bits.
  EXPECT_EQ(capText(0x1p-40), "Length inf s is over the cap (2361183240335310979072 s at this sample rate).");
}

TEST(GeneratorSpecValidation, AFileHasAFrame) {
  const std::string text = "The spec resolves to zero length: add a module or set a duration.";
  for (const double duration : {0.0, -0.0, -1.0, -infinity, nan})
    EXPECT_EQ(faultOf(specWithDuration(duration)), text) << duration;
  EXPECT_EQ(faultOf(specOf({{someID, "", {}}})), text);
  EXPECT_EQ(specOf({{someID, "", {}}}).validate(), (Error{Error::EmptyDuration{}}));
  // Half a frame is one, less is none.
  GeneratorSpec spec = specWithRate(1);
  spec.duration = 0.5;
  EXPECT_EQ(faultOf(spec), "");
  spec.duration = std::nextafter(0.5, 0.0);
  EXPECT_EQ(faultOf(spec), text);
}

TEST(GeneratorSpecValidation, ADurationMakesAFileOfChannelsWithoutModules) {
  GeneratorSpec spec = specOf({{someID, "", {}}, {someID, "", {}}});
  spec.duration = 2;
  EXPECT_EQ(faultOf(spec), "");
}

// --- Validation: several faults --------------------------------------------------------------------------

struct Injection {
  std::string fault;
  std::function<void(GeneratorSpec&)> into;
};

// Every fault of the file and of its second channel's second module, in the order of the search.
std::vector<Injection> injections() {
  const auto intoModule = [](std::string fault, std::function<void(GeneratorModule&)> change) {
    return Injection{std::move(fault),
                     [change](GeneratorSpec& spec) { change(spec.channels.at(1).modules.at(1)); }};
  };
  const auto nonFinite = [&](const std::string& name, std::function<void(GeneratorModule&)> change) {
    return intoModule("Channel 2 module 2 " + name + " must be a finite number.", std::move(change));
  };
  return {
      {"Sample rate must be a finite value between 1 Hz and 1000000 Hz (got 0.0).",
       [](GeneratorSpec& spec) { spec.sampleRate = 0; }},
      {"The spec has no channels.", [](GeneratorSpec& spec) { spec.channels.clear(); }},
      {"Channel count 129 is over the 128-channel cap.",
       [](GeneratorSpec& spec) { spec.channels.resize(129); }},
      nonFinite("start", [](GeneratorModule& m) { m.start = -infinity; }),
      nonFinite("duration", [](GeneratorModule& m) { m.duration = infinity; }),
      nonFinite("level", [](GeneratorModule& m) { m.gainDB = nan32; }),
      nonFinite("fade in", [](GeneratorModule& m) { m.fadeInSeconds = nan; }),
      nonFinite("fade out", [](GeneratorModule& m) { m.fadeOutSeconds = infinity; }),
      nonFinite("level sweep start", [](GeneratorModule& m) { m.levelSweep->startDB = -infinity32; }),
      nonFinite("level sweep end", [](GeneratorModule& m) { m.levelSweep->endDB = nan32; }),
      nonFinite("burst on", [](GeneratorModule& m) { m.burst->onSeconds = infinity; }),
      nonFinite("burst off", [](GeneratorModule& m) { m.burst->offSeconds = nan; }),
      nonFinite("burst ramp", [](GeneratorModule& m) { m.burst->rampMilliseconds = -infinity; }),
      intoModule("Channel 1 module 1: start time can't be negative (got -2.0 s).",
                 [](GeneratorModule& m) { m.start = -2; }),
      intoModule("Channel 1 module 1: duration must be positive (got -3.0 s).",
                 [](GeneratorModule& m) { m.duration = -3; }),
      intoModule("Length 60000.0 s is over the cap (44739 s at this sample rate).",
                 [](GeneratorModule& m) { m.burst->offSeconds = 60000; }),
      intoModule("Channel 1 module 1: frequency 24000.0 Hz is outside (0, 24000.0) Hz (Nyquist).",
                 [](GeneratorModule& m) { std::get<Source::Sweep>(m.source.value).start = 24000; }),
      intoModule("Channel 1 module 1: frequency 0.0 Hz is outside (0, 24000.0) Hz (Nyquist).",
                 [](GeneratorModule& m) { std::get<Source::Sweep>(m.source.value).end = 0; }),
      {"Peak ceiling must be a finite number.", [](GeneratorSpec& spec) { spec.peakCeilingDB = nan32; }},
      {"Length 50000.0 s is over the cap (44739 s at this sample rate).",
       [](GeneratorSpec& spec) { spec.duration = 50000; }},
      {"The spec resolves to zero length: add a module or set a duration.",
       [](GeneratorSpec& spec) { spec.duration = 0; }},
  };
}

GeneratorSpec soundSpec() {
  GeneratorModule module = fullModule();
  module.source = {Source::Sweep{20, 20000, SweepShape::logarithmic}};
  const GeneratorChannel channel{someID, "", {module, module, module}};
  return specOf({channel, channel, channel});
}

TEST(GeneratorSpecValidation, OfTwoFaultsTheFirstInOrderIsReported) {
  const auto all = injections();
  EXPECT_EQ(faultOf(soundSpec()), "");
  for (std::size_t a = 0; a < all.size(); ++a)
    for (std::size_t b = a; b < all.size(); ++b) {
      GeneratorSpec spec = soundSpec();
      all[b].into(spec);
      all[a].into(spec);  // last, for some faults are of one field
      EXPECT_EQ(faultOf(spec), all[a].fault) << "beside: " << all[b].fault;
    }
}

TEST(GeneratorSpecValidation, AllFaultsAtOnceAreReportedInOrderAsOneAfterTheOtherIsMended) {
  const auto all = injections();
  for (std::size_t mended = 0; mended <= all.size(); ++mended) {
    GeneratorSpec spec = soundSpec();
    for (std::size_t k = all.size(); k-- > mended;) all[k].into(spec);  // the first last, as above
    EXPECT_EQ(faultOf(spec), mended < all.size() ? all[mended].fault : "") << mended;
  }
}

TEST(GeneratorSpecValidation, AnyFaultOfAnEarlierModuleGoesFirst) {
  // The last thing that is looked for in a module against the first.
  const Source tooHigh{Source::Sine{30000}};
  EXPECT_EQ(specWith({moduleAt(0, 1, tooHigh), moduleAt(nan, 1)}).validate(),
            (Error{Error::FrequencyOutOfRange{0, 0, 30000, 24000}}));
  EXPECT_EQ(
      specOf({{someID, "", {moduleAt(0, 1), moduleAt(0, 1, tooHigh)}}, {someID, "", {moduleAt(nan, 1)}}})
          .validate(),
      (Error{Error::FrequencyOutOfRange{0, 1, 30000, 24000}}));
}

// --- Errors ----------------------------------------------------------------------------------------------

TEST(GeneratorSpecError, CaseAndEveryFieldCountForEquality) {
  const std::vector<Error> errors = {{Error::InvalidSampleRate{1}},
                                     {Error::InvalidSampleRate{2}},
                                     {Error::TooManyChannels{1}},
                                     {Error::TooManyChannels{2}},
                                     {Error::DurationTooLong{1, 1}},
                                     {Error::DurationTooLong{2, 1}},
                                     {Error::DurationTooLong{1, 2}},
                                     {Error::NonFinite{"a"}},
                                     {Error::NonFinite{"b"}},
                                     {Error::FrequencyOutOfRange{1, 1, 1, 1}},
                                     {Error::FrequencyOutOfRange{2, 1, 1, 1}},
                                     {Error::FrequencyOutOfRange{1, 2, 1, 1}},
                                     {Error::FrequencyOutOfRange{1, 1, 2, 1}},
                                     {Error::FrequencyOutOfRange{1, 1, 1, 2}},
                                     {Error::NonPositiveDuration{1, 1, 1}},
                                     {Error::NonPositiveDuration{2, 1, 1}},
                                     {Error::NonPositiveDuration{1, 2, 1}},
                                     {Error::NonPositiveDuration{1, 1, 2}},
                                     {Error::NegativeStart{1, 1, 1}},
                                     {Error::NegativeStart{2, 1, 1}},
                                     {Error::NegativeStart{1, 2, 1}},
                                     {Error::NegativeStart{1, 1, 2}},
                                     {Error::NoChannels{}},
                                     {Error::EmptyDuration{}}};
  for (std::size_t a = 0; a < errors.size(); ++a)
    for (std::size_t b = 0; b < errors.size(); ++b)
      EXPECT_EQ(errors[a] == errors[b], a == b) << a << ", " << b;
}

// The number that an error's text holds.
std::string printed(double number) {
  const std::string text = Error{Error::InvalidSampleRate{number}}.description();
  const std::size_t start = text.find("(got ") + 5;
  return text.substr(start, text.size() - start - 2);
}

TEST(GeneratorSpecError, NumbersHaveAnExponentOnlyWhereTheyAreVerySmallOrLarge) {
  EXPECT_EQ(printed(48000), "48000.0");
  EXPECT_EQ(printed(0.1), "0.1");
  EXPECT_EQ(printed(44739.242645833336), "44739.242645833336");
  EXPECT_EQ(printed(0.0001), "0.0001");
  EXPECT_EQ(printed(-0.00012), "-0.00012");
  EXPECT_EQ(printed(0.00001), "1e-05");
  EXPECT_EQ(printed(-2.5e-7), "-2.5e-07");
  EXPECT_EQ(printed(5e-324), "5e-324");
  EXPECT_EQ(printed(1e15), "1000000000000000.0");
  EXPECT_EQ(printed(9999999999999998.0), "9999999999999998.0");
  EXPECT_EQ(printed(-1234567890123456.0), "-1234567890123456.0");
  EXPECT_EQ(printed(1e16), "1e+16");
  EXPECT_EQ(printed(-1.5e300), "-1.5e+300");
}

TEST(GeneratorSpecError, TextsAreTheSameInEveryLocale) {
  const test::CommaLocale locale;
  if (!locale.isSet()) GTEST_SKIP() << "no locale with a decimal comma";
  EXPECT_EQ(faultOf(specWithSource({Source::Sine{24000.5}})),
            "Channel 0 module 0: frequency 24000.5 Hz is outside (0, 24000.0) Hz (Nyquist).");
  EXPECT_EQ(faultOf(specWithRate(2345678)),
            "Sample rate must be a finite value between 1 Hz and 1000000 Hz (got 2345678.0).");
  EXPECT_EQ(faultOf(specWithDuration(50000.5)),
            "Length 50000.5 s is over the cap (44739 s at this sample rate).");
}

std::size_t significantDigits(const std::string& text) {
  std::string digits;
  for (const char c : text.substr(0, text.find('e')))
    if (c >= (digits.empty() ? '1' : '0') && c <= '9') digits += c;
  return digits.find_last_not_of('0') + 1;  // 0 for 0
}

double anyDouble() {
  return std::bit_cast<double>(*rc::gen::arbitrary<std::uint64_t>());
}
// Of a size that documents hold.
double everydayDouble() {
  return *rc::gen::inRange(-1'000'000'000, 1'000'000'000) * std::pow(10.0, *rc::gen::inRange(-15, 8));
}

RC_GTEST_PROP(GeneratorSpecError, AnyNumberIsPrintedInTheFewestDigitsThatReadBack, ()) {
  const double number = *rc::gen::arbitrary<bool>() ? anyDouble() : everydayDouble();
  RC_PRE(std::isfinite(number));
  const std::string text = printed(number);
  RC_ASSERT(std::strtod(text.c_str(), nullptr) == number);
  RC_ASSERT(std::signbit(std::strtod(text.c_str(), nullptr)) == std::signbit(number));

  int fewest = 1;  // by trying all of them
  std::array<char, 40> trial{};
  const auto readsBack = [&](int digits) {
    std::snprintf(trial.data(), trial.size(), "%.*e", digits - 1, number);
    return std::strtod(trial.data(), nullptr) == number;
  };
  while (!readsBack(fewest)) ++fewest;
  RC_ASSERT(significantDigits(text) <= static_cast<std::size_t>(fewest));

  const double magnitude = std::abs(number);
  const bool isPlain = number == 0 || (magnitude >= 1e-4 && magnitude < 1e16);
  RC_ASSERT((text.find('e') == text.npos) == isPlain);
  if (isPlain) {
    RC_ASSERT(text.find('.') != text.npos);
    RC_ASSERT((text.substr(text.size() - 2) == ".0") == (number == std::trunc(number)));
  }
}

// --- Any specification -----------------------------------------------------------------------------------

// Mostly sound, at times anything.
double someValue(double least, double most) {
  if (*rc::gen::inRange(0, 40) == 0) return anyDouble();
  if (*rc::gen::inRange(0, 40) == 0) return *rc::gen::element(infinity, -infinity, nan, 0.0, -1.0);
  return least + (most - least) * *rc::gen::inRange(0, 1001) / 1000;
}

Source someSource() {
  switch (*rc::gen::inRange(0, 8)) {
    case 0:
      return {Source::Silence{}};
    case 1:
      return {Source::Sine{someValue(0, 30000)}};
    case 2:
      return {Source::Square{someValue(1, 20000)}};
    case 3:
      return {Source::Sawtooth{someValue(1, 20000)}};
    case 4:
      return {Source::Triangle{someValue(1, 20000)}};
    case 5:
      return {Source::Noise{*rc::gen::elementOf(allCases<NoiseColor>())}};
    case 6:
      return {Source::Impulse{}};
    default:
      return {Source::Sweep{someValue(1, 20000), someValue(1, 20000), SweepShape::linear}};
  }
}

GeneratorModule someModule() {
  GeneratorModule module = moduleAt(someValue(0, 100), someValue(0.001, 100), someSource());
  module.gainDB = static_cast<float>(someValue(-60, 0));
  if (*rc::gen::arbitrary<bool>())
    module.levelSweep = {.startDB = static_cast<float>(someValue(-60, 0)),
                         .endDB = static_cast<float>(someValue(-60, 0)),
                         .shape = LevelSweepShape::linear};
  if (*rc::gen::arbitrary<bool>())
    module.burst = {.onSeconds = someValue(0, 1),
                    .offSeconds = someValue(0, 1),
                    .count = *rc::gen::arbitrary<std::int64_t>(),
                    .rampMilliseconds = someValue(0, 10)};
  module.fadeInSeconds = someValue(0, 1);
  module.fadeOutSeconds = someValue(0, 1);
  return module;
}

GeneratorSpec someSpec() {
  GeneratorSpec spec = specOf({}, someValue(40000, 192000));
  for (int c = *rc::gen::inRange(0, 4); c > 0; --c) {
    spec.channels.push_back({someID, "", {}});
    for (int m = *rc::gen::inRange(0, 4); m > 0; --m) spec.channels.back().modules.push_back(someModule());
  }
  if (*rc::gen::arbitrary<bool>()) spec.duration = someValue(0, 100);
  if (*rc::gen::arbitrary<bool>()) spec.peakCeilingDB = static_cast<float>(someValue(-20, 0));
  return spec;
}

bool isAudible(double frequency, double nyquist) {
  return std::isfinite(frequency) && frequency > 0 && frequency < nyquist;
}

// What rendering relies on.
bool canBeRendered(const GeneratorSpec& spec) {
  bool canBe = spec.frameCount() >= 1 && spec.frameCount() <= GeneratorSpec::maxRenderFrames &&
               spec.channelCount() >= 1 && spec.channelCount() <= GeneratorSpec::maxChannels &&
               std::isfinite(spec.peakCeilingDB.value_or(0));
  for (const GeneratorChannel& channel : spec.channels)
    for (const GeneratorModule& module : channel.modules) {
      const LevelSweep sweep = module.levelSweep.value_or(LevelSweep{0, 0, LevelSweepShape::linear});
      const BurstGate burst = module.burst.value_or(BurstGate{0, 0, 0, 0});
      for (const double value : {module.start, module.duration, double{module.gainDB}, module.fadeInSeconds,
                                 module.fadeOutSeconds, double{sweep.startDB}, double{sweep.endDB},
                                 burst.onSeconds, burst.offSeconds, burst.rampMilliseconds})
        canBe = canBe && std::isfinite(value);
      canBe = canBe && module.start >= 0 && module.duration > 0;
      for (const double seconds : {module.duration, burst.onSeconds, burst.offSeconds})
        canBe = canBe && !(seconds > 2147483647.0 / spec.sampleRate);
      if (const auto frequency = module.source.primaryFrequency())
        canBe = canBe && isAudible(*frequency, spec.nyquist());
      if (const auto* f = std::get_if<Source::Sweep>(&module.source.value))
        canBe = canBe && isAudible(f->start, spec.nyquist()) && isAudible(f->end, spec.nyquist());
    }
  const bool isRateSound = spec.sampleRate > 0 && spec.sampleRate <= 1e6;
  return canBe && isRateSound;
}

RC_GTEST_PROP(GeneratorSpecValidation, FindsAFaultInWhatCannotBeRenderedAndInNothingElse, ()) {
  const GeneratorSpec spec = someSpec();
  const bool isSound = canBeRendered(spec);
  RC_TAG(isSound ? "sound" : "faulty");
  RC_ASSERT(!spec.validate() == isSound);
  RC_ASSERT(faultOf(spec).empty() == isSound);
}

}  // namespace
}  // namespace vellum
