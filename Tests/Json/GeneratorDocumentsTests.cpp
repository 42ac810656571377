#include "VellumCore/Json/GeneratorDocuments.hpp"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "Support/DocumentErrors.hpp"

namespace vellum {
namespace {

using test::DocumentFault;
using test::faultOf;
using Kind = Json::DocumentError::Kind;
using Source = GeneratorSource;
using Container = GeneratorContainer;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr float infinity32 = std::numeric_limits<float>::infinity();

const std::string idText = "01234567-89AB-4DEF-BEDC-BA9876543210";
const UUID someID = *UUID::parse(idText);

const std::string bareModule =
    R"({"id":"01234567-89AB-4DEF-BEDC-BA9876543210","start":0.0,"duration":1.0,"source":{"silence":{}},)"
    R"("gainDB":-6.0,"fadeInSeconds":0.0,"fadeOutSeconds":0.0})";
const std::string fullModule =
    R"({"id":"01234567-89AB-4DEF-BEDC-BA9876543210","start":0.1,"duration":2.5,)"
    R"("source":{"sweep":{"start":20.0,"end":20000.0,"shape":"logarithmic"}},"gainDB":-18.2,)"
    R"("levelSweep":{"startDB":-40.5,"endDB":-0.1,"shape":"linear"},)"
    R"("burst":{"onSeconds":0.25,"offSeconds":0.75,"count":3,"rampMilliseconds":5.5},)"
    R"("fadeInSeconds":0.01,"fadeOutSeconds":0.02})";
const std::string fullSpec = R"({"sampleRate":44100.0,"bitDepth":"float32","container":"caf","channels":[)"
                             R"({"id":"01234567-89AB-4DEF-BEDC-BA9876543210","name":"Left","modules":[)" +
                             fullModule + "," + bareModule +
                             R"(]},{"id":"01234567-89AB-4DEF-BEDC-BA9876543210","name":"","modules":[]}],)"
                             R"("duration":7.25,"peakCeilingDB":-1.1})";

std::string replaced(std::string text, const std::string& part, const std::string& other) {
  const std::size_t place = text.find(part);
  EXPECT_NE(place, std::string::npos) << part;
  return text.replace(place, part.size(), other);
}

template <typename Record>
Record readFrom(const std::string& text, Record (*read)(const Json::Reader&)) {
  const Json::Value document = Json::parse(text);
  return read(Json::Reader(document));
}
GeneratorSpec specIn(const std::string& text) {
  return Json::parseGeneratorSpec(text);
}
GeneratorChannel channelIn(const std::string& text) {
  return readFrom(text, Json::readGeneratorChannel);
}
GeneratorModule moduleIn(const std::string& text) {
  return readFrom(text, Json::readGeneratorModule);
}
Source sourceIn(const std::string& text) {
  return readFrom(text, Json::readGeneratorSource);
}
LevelSweep levelSweepIn(const std::string& text) {
  return readFrom(text, Json::readLevelSweep);
}
BurstGate burstIn(const std::string& text) {
  return readFrom(text, Json::readBurstGate);
}
template <typename Record>
std::string textOf(const Record& record) {
  return Json::compactText(Json::valueOf(record));
}

bool isRandom(const UUID& id) {
  return (id.bytes[6] & 0xF0) == 0x40 && (id.bytes[8] & 0xC0) == 0x80;  // version 4
}

// --- Specification ---------------------------------------------------------------------------------------

TEST(GeneratorDocument, AnEmptyObjectIsASpecificationWithoutChannels) {
  const GeneratorSpec spec = specIn("{}");
  EXPECT_EQ(spec.sampleRate, 48000.0);
  EXPECT_EQ(spec.bitDepth, GeneratorBitDepth::int24);
  EXPECT_EQ(spec.container, Container::wav);
  EXPECT_TRUE(spec.channels.empty());
  EXPECT_EQ(spec.duration, std::nullopt);
  EXPECT_EQ(spec.peakCeilingDB, std::nullopt);
  const auto error = spec.validate();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->description(), "The spec has no channels.");
}

TEST(GeneratorDocument, IsReadWithEveryField) {
  const GeneratorModule full{.id = someID,
                             .start = 0.1,
                             .duration = 2.5,
                             .source = {Source::Sweep{20, 20000, SweepShape::logarithmic}},
                             .gainDB = -18.2f,
                             .levelSweep = LevelSweep{-40.5f, -0.1f, LevelSweepShape::linear},
                             .burst = BurstGate{0.25, 0.75, 3, 5.5},
                             .fadeInSeconds = 0.01,
                             .fadeOutSeconds = 0.02};
  const GeneratorModule bare{.id = someID,
                             .start = 0,
                             .duration = 1,
                             .source = {Source::Silence{}},
                             .gainDB = -6,
                             .fadeInSeconds = 0,
                             .fadeOutSeconds = 0};
  EXPECT_EQ(specIn(fullSpec), (GeneratorSpec{.sampleRate = 44100,
                                             .bitDepth = GeneratorBitDepth::float32,
                                             .container = Container::caf,
                                             .channels = {{someID, "Left", {full, bare}}, {someID, "", {}}},
                                             .duration = 7.25,
                                             .peakCeilingDB = -1.1f}));
}

TEST(GeneratorDocument, IsWrittenWithItsKeysInOrder) {
  EXPECT_EQ(textOf(specIn(fullSpec)), fullSpec);
}

TEST(GeneratorDocument, AbsentValuesHaveNoKey) {
  EXPECT_EQ(textOf(specIn("{}")),
            R"({"sampleRate":48000.0,"bitDepth":"int24","container":"wav","channels":[]})");
  EXPECT_EQ(textOf(moduleIn(bareModule)), bareModule);
}

TEST(GeneratorDocument, EveryBitDepthAndContainerReadsBackAsItself) {
  for (const GeneratorBitDepth bitDepth : allCases<GeneratorBitDepth>())
    for (const Container container : allCases<Container>()) {
      GeneratorSpec spec = specIn("{}");
      spec.bitDepth = bitDepth;
      spec.container = container;
      EXPECT_EQ(specIn(textOf(spec)), spec);
    }
}

TEST(GeneratorDocument, NullCountsAsMissing) {
  EXPECT_EQ(specIn(R"({"sampleRate":null,"bitDepth":null,"container":null,"channels":null,"duration":null,)"
                   R"("peakCeilingDB":null})"),
            specIn("{}"));
  const GeneratorChannel channel = channelIn(R"({"id":null,"name":null,"modules":null})");
  EXPECT_TRUE(isRandom(channel.id));
  EXPECT_EQ(channel.name, "");
  EXPECT_TRUE(channel.modules.empty());
  GeneratorModule module = moduleIn(
      R"({"id":null,"start":null,"duration":null,"source":{"silence":{}},"gainDB":null,"levelSweep":null,)"
      R"("burst":null,"fadeInSeconds":null,"fadeOutSeconds":null})");
  EXPECT_TRUE(isRandom(module.id));
  module.id = someID;
  EXPECT_EQ(module, moduleIn(bareModule));
  EXPECT_EQ(levelSweepIn(R"({"startDB":1,"endDB":2,"shape":null})"),
            (LevelSweep{1, 2, LevelSweepShape::logarithmic}));
  EXPECT_EQ(burstIn(R"({"onSeconds":1,"offSeconds":2,"count":null,"rampMilliseconds":null})"),
            (BurstGate{1, 2, 0, 2}));
}

TEST(GeneratorDocument, UnknownMembersAreIgnoredAndOfTwoTheLastCounts) {
  EXPECT_EQ(specIn(R"({"version":3,"sampleRate":"?","SampleRate":1,"sampleRate":96000})").sampleRate,
            96000.0);
  EXPECT_EQ(moduleIn(replaced(bareModule, R"("start":0.0)", R"("colour":["red"],"start":[],"start":0)")),
            moduleIn(bareModule));
  EXPECT_EQ(channelIn(R"({"name":"L","gain":1,"name":"R"})").name, "R");
  EXPECT_EQ(levelSweepIn(R"({"startDB":1,"endDB":2,"midDB":3,"endDB":4})").endDB, 4.0f);
  EXPECT_EQ(burstIn(R"({"onSeconds":1,"offSeconds":2,"count":1,"phase":0,"count":2})").count, 2);
  EXPECT_EQ(sourceIn(R"({"sine":{"frequency":1,"phase":90,"frequency":2}})"), (Source{Source::Sine{2}}));
}

TEST(GeneratorDocument, ANumberMayBeWrittenWithoutAPointAndAnIntegerWithOne) {
  EXPECT_EQ(specIn(R"({"sampleRate":96000,"duration":3,"peakCeilingDB":-1})").duration, 3.0);
  EXPECT_EQ(specIn(R"({"sampleRate":9.6e4})").sampleRate, 96000.0);
  EXPECT_EQ(burstIn(R"({"onSeconds":1,"offSeconds":2,"count":3.0})").count, 3);
  EXPECT_EQ(faultOf([] { burstIn(R"({"onSeconds":1,"offSeconds":2,"count":3.5})"); }),
            (DocumentFault{Kind::dataCorrupted, "count", "3.5 is no integer"}));
}

TEST(GeneratorDocument, ReadingAsksForTypesOnly) {
  const GeneratorSpec spec =
      specIn(R"({"sampleRate":-1,"duration":-5,"channels":[{"modules":[{"source":{"sine":{"frequency":0}},)"
             R"("start":-1,"duration":0,"fadeInSeconds":-3}]}]})");
  EXPECT_EQ(spec.sampleRate, -1.0);
  EXPECT_EQ(spec.channels.at(0).modules.at(0).start, -1.0);
  EXPECT_TRUE(spec.validate());
}

TEST(GeneratorDocument, ANumberTooLargeForItsWidthIsRefused) {
  EXPECT_EQ(faultOf([] { specIn(R"({"peakCeilingDB":1e39})"); }),
            (DocumentFault{Kind::dataCorrupted, "peakCeilingDB", "1e+39 does not fit a 32-bit number"}));
  EXPECT_EQ(faultOf([] { specIn(R"({"sampleRate":1e400})"); }).kind, Kind::dataCorrupted);
  EXPECT_EQ(faultOf([] { burstIn(R"({"onSeconds":1,"offSeconds":2,"count":9223372036854775808})"); }).kind,
            Kind::dataCorrupted);
}

// Every member of every record that may be missing, by a document that holds one of another type.
TEST(GeneratorDocument, AMemberOfAnotherTypeIsNamedWithItsPlace) {
  const auto inSpec = [](const std::string& member) { return "{" + member + "}"; };
  const auto inChannel = [](const std::string& member) { return R"({"channels":[{},{)" + member + "}]}"; };
  const auto inModule = [&](const std::string& member) {
    return inChannel(R"("modules":[{"source":{"impulse":{}},)" + member + "}]");
  };
  const auto inSweep = [&](const std::string& member) {
    return inModule(R"("levelSweep":{"startDB":0,"endDB":0,)" + member + "}");
  };
  const auto inBurst = [&](const std::string& member) {
    return inModule(R"("burst":{"onSeconds":0,"offSeconds":0,)" + member + "}");
  };
  const auto expectNamed = [](const auto& document, const std::string& place,
                              const std::vector<std::string>& keys, const std::string& value) {
    for (const std::string& key : keys) {
      const auto fault = faultOf([&] { specIn(document("\"" + key + "\":" + value)); });
      EXPECT_EQ(fault.kind, Kind::typeMismatch) << key << ": " << value;
      EXPECT_EQ(fault.path, place + key);
    }
  };
  const std::string channel = "channels[1].", module = channel + "modules[0].";
  for (const char* value : {"[]", "{}", "\"1\"", "true"}) {
    expectNamed(inSpec, "", {"sampleRate", "duration", "peakCeilingDB"}, value);
    expectNamed(inModule, module, {"start", "duration", "gainDB", "fadeInSeconds", "fadeOutSeconds"}, value);
    expectNamed(inSweep, module + "levelSweep.", {"startDB", "endDB"}, value);
    expectNamed(inBurst, module + "burst.", {"onSeconds", "offSeconds", "count", "rampMilliseconds"}, value);
  }
  for (const char* value : {"[]", "{}", "24", "false"}) {
    expectNamed(inSpec, "", {"bitDepth", "container"}, value);
    expectNamed(inChannel, channel, {"id", "name"}, value);
    expectNamed(inModule, module, {"id"}, value);
    expectNamed(inSweep, module + "levelSweep.", {"shape"}, value);
  }
  for (const char* value : {"{}", "24", "false", "\"\""}) {
    expectNamed(inSpec, "", {"channels"}, value);
    expectNamed(inChannel, channel, {"modules"}, value);
  }
  for (const char* value : {"[]", "24", "false", "\"\""})
    expectNamed(inModule, module, {"source", "levelSweep", "burst"}, value);
}

TEST(GeneratorDocument, UnknownRawValuesAreNamed) {
  EXPECT_EQ(faultOf([] { specIn(R"({"bitDepth":"int32"})"); }),
            (DocumentFault{Kind::dataCorrupted, "bitDepth", "\"int32\" is none of int16, int24, float32"}));
  EXPECT_EQ(faultOf([] { specIn(R"({"container":"WAV"})"); }),
            (DocumentFault{Kind::dataCorrupted, "container", "\"WAV\" is none of wav, aiff, caf"}));
  EXPECT_EQ(faultOf([] { levelSweepIn(R"({"startDB":0,"endDB":0,"shape":"log"})"); }),
            (DocumentFault{Kind::dataCorrupted, "shape", "\"log\" is none of linear, logarithmic"}));
  EXPECT_EQ(faultOf([] { sourceIn(R"({"noise":{"_0":"grey"}})"); }),
            (DocumentFault{Kind::dataCorrupted, "noise._0", "\"grey\" is none of white, pink, brown"}));
  EXPECT_EQ(faultOf([] { sourceIn(R"({"sweep":{"start":1,"end":2,"shape":""}})"); }),
            (DocumentFault{Kind::dataCorrupted, "sweep.shape", "\"\" is none of linear, logarithmic"}));
}

TEST(GeneratorDocument, ElementsOfListsMayNotBeNull) {
  EXPECT_EQ(faultOf([] { specIn(R"({"channels":[{},null]})"); }),
            (DocumentFault{Kind::typeMismatch, "channels[1]", "expected an object, found null"}));
  EXPECT_EQ(faultOf([] { channelIn(R"({"modules":[null]})"); }),
            (DocumentFault{Kind::typeMismatch, "modules[0]", "expected an object, found null"}));
}

TEST(GeneratorDocument, ADocumentIsAnObject) {
  for (const char* text : {"[]", "null", "7", "\"{}\""})
    EXPECT_EQ(faultOf([&] { specIn(text); }).kind, Kind::typeMismatch) << text;
}

TEST(GeneratorDocument, NoSpecificationIsReadFromHalfAText) {
  for (std::size_t n = 0; n < fullSpec.size(); ++n)
    EXPECT_THROW(specIn(fullSpec.substr(0, n)), Json::DocumentError) << n;
}

TEST(GeneratorDocument, IsWrittenOneMemberPerLine) {
  GeneratorSpec spec = specIn("{}");
  spec.channels.push_back({someID, "Left", {}});
  EXPECT_EQ(Json::documentText(spec),
            "{\n  \"sampleRate\": 48000.0,\n  \"bitDepth\": \"int24\",\n  \"container\": \"wav\",\n"
            "  \"channels\": [\n    {\n      \"id\": \"01234567-89AB-4DEF-BEDC-BA9876543210\",\n"
            "      \"name\": \"Left\",\n      \"modules\": []\n    }\n  ]\n}");
}

TEST(GeneratorDocument, ANumberThatIsNotFiniteIsNotWritten) {
  const std::vector<std::function<void(GeneratorSpec&)>> changes = {
      [](GeneratorSpec& s) { s.sampleRate = infinity; },
      [](GeneratorSpec& s) { s.duration = nan; },
      [](GeneratorSpec& s) { s.peakCeilingDB = -infinity32; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].start = -infinity; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].duration = infinity; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].source = {Source::Triangle{nan}}; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].gainDB = -infinity32; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].levelSweep->startDB = -infinity32; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].burst->onSeconds = infinity; },
      [](GeneratorSpec& s) { s.channels[0].modules[0].fadeOutSeconds = nan; },
  };
  EXPECT_TRUE(Json::documentText(specIn(fullSpec)));
  for (std::size_t k = 0; k < changes.size(); ++k) {
    GeneratorSpec spec = specIn(fullSpec);
    changes[k](spec);
    EXPECT_FALSE(Json::documentText(spec)) << k;
  }
}

// --- Channel and module ----------------------------------------------------------------------------------

TEST(GeneratorChannelDocument, AnEmptyObjectIsAChannelWithoutModules) {
  const GeneratorChannel channel = channelIn("{}");
  EXPECT_TRUE(isRandom(channel.id));
  EXPECT_EQ(channel.name, "");
  EXPECT_TRUE(channel.modules.empty());
  EXPECT_NE(channelIn("{}").id, channel.id);
}

TEST(GeneratorModuleDocument, ASourceAloneMakesAModule) {
  const std::string text = R"({"source":{"sine":{"frequency":440}}})";
  const GeneratorModule module = moduleIn(text);
  EXPECT_TRUE(isRandom(module.id));
  EXPECT_EQ(module.start, 0.0);
  EXPECT_EQ(module.duration, 1.0);
  EXPECT_EQ(module.source, (Source{Source::Sine{440}}));
  EXPECT_EQ(module.gainDB, -6.0f);
  EXPECT_EQ(module.levelSweep, std::nullopt);
  EXPECT_EQ(module.burst, std::nullopt);
  EXPECT_EQ(module.fadeInSeconds, 0.0);
  EXPECT_EQ(module.fadeOutSeconds, 0.0);
  EXPECT_NE(moduleIn(text).id, module.id);
}

TEST(GeneratorModuleDocument, ASourceIsRequired) {
  EXPECT_EQ(faultOf([] { moduleIn("{}"); }),
            (DocumentFault{Kind::keyNotFound, "source", "the member \"source\" is missing"}));
  EXPECT_EQ(faultOf([] { specIn(R"({"channels":[{"modules":[{"start":1}]}]})"); }),
            (DocumentFault{Kind::keyNotFound, "channels[0].modules[0].source",
                           "the member \"source\" is missing"}));
  EXPECT_EQ(faultOf([] { moduleIn(R"({"source":null})"); }),
            (DocumentFault{Kind::typeMismatch, "source", "expected an object with one key, found null"}));
}

TEST(GeneratorModuleDocument, AnIDIsAUUIDInEitherCaseWrittenInUpperCase) {
  const std::string lower = "01234567-89ab-4def-bedc-ba9876543210";
  EXPECT_EQ(textOf(moduleIn(replaced(bareModule, idText, lower))), bareModule);
  EXPECT_EQ(channelIn("{\"id\":\"" + lower + "\"}").id, someID);
  EXPECT_EQ(faultOf([] { channelIn(R"({"id":"left"})"); }),
            (DocumentFault{Kind::dataCorrupted, "id", "\"left\" is no UUID"}));
}

TEST(GeneratorModuleDocument, EitherOfSweepAndBurstIsWrittenAlone) {
  GeneratorModule module = moduleIn(fullModule);
  module.burst = {};
  const std::string burst =
      R"("burst":{"onSeconds":0.25,"offSeconds":0.75,"count":3,"rampMilliseconds":5.5},)";
  EXPECT_EQ(textOf(module), replaced(fullModule, burst, ""));
  module = moduleIn(fullModule);
  module.levelSweep = {};
  const std::string sweep = R"("levelSweep":{"startDB":-40.5,"endDB":-0.1,"shape":"linear"},)";
  EXPECT_EQ(textOf(module), replaced(fullModule, sweep, ""));
}

TEST(LevelSweepDocument, ItsEndsAreRequiredAndItsShapeIsLogarithmicUnlessGiven) {
  EXPECT_EQ(levelSweepIn(R"({"startDB":-60,"endDB":-6.5})"),
            (LevelSweep{-60, -6.5f, LevelSweepShape::logarithmic}));
  EXPECT_EQ(levelSweepIn(R"({"shape":"linear","endDB":0,"startDB":1})"),
            (LevelSweep{1, 0, LevelSweepShape::linear}));
  EXPECT_EQ(faultOf([] { levelSweepIn(R"({"endDB":0})"); }),
            (DocumentFault{Kind::keyNotFound, "startDB", "the member \"startDB\" is missing"}));
  EXPECT_EQ(faultOf([] { levelSweepIn(R"({"startDB":0})"); }),
            (DocumentFault{Kind::keyNotFound, "endDB", "the member \"endDB\" is missing"}));
  EXPECT_EQ(faultOf([] { levelSweepIn(R"({"startDB":null,"endDB":0})"); }),
            (DocumentFault{Kind::typeMismatch, "startDB", "expected a number, found null"}));
  EXPECT_EQ(textOf(LevelSweep{-60, -6.5f, LevelSweepShape::logarithmic}),
            R"({"startDB":-60.0,"endDB":-6.5,"shape":"logarithmic"})");
}

TEST(BurstGateDocument, ItsTimesAreRequiredAndTheRestHasDefaults) {
  EXPECT_EQ(burstIn(R"({"onSeconds":0.5,"offSeconds":1.5})"), (BurstGate{0.5, 1.5, 0, 2}));
  EXPECT_EQ(faultOf([] { burstIn(R"({"offSeconds":1})"); }),
            (DocumentFault{Kind::keyNotFound, "onSeconds", "the member \"onSeconds\" is missing"}));
  EXPECT_EQ(faultOf([] { burstIn(R"({"onSeconds":1})"); }),
            (DocumentFault{Kind::keyNotFound, "offSeconds", "the member \"offSeconds\" is missing"}));
  EXPECT_EQ(faultOf([] { burstIn(R"({"onSeconds":1,"offSeconds":null})"); }),
            (DocumentFault{Kind::typeMismatch, "offSeconds", "expected a number, found null"}));
  EXPECT_EQ(textOf(BurstGate{0.5, 1.5, -1, 0.1}),
            R"({"onSeconds":0.5,"offSeconds":1.5,"count":-1,"rampMilliseconds":0.1})");
}

// --- Source ----------------------------------------------------------------------------------------------

const std::vector<std::pair<Source, std::string>> sources = {
    {{Source::Silence{}}, R"({"silence":{}})"},
    {{Source::Sine{440}}, R"({"sine":{"frequency":440.0}})"},
    {{Source::Square{0.5}}, R"({"square":{"frequency":0.5}})"},
    {{Source::Sawtooth{1e-5}}, R"({"sawtooth":{"frequency":1e-05}})"},
    {{Source::Triangle{12345.678}}, R"({"triangle":{"frequency":12345.678}})"},
    {{Source::Noise{NoiseColor::white}}, R"({"noise":{"_0":"white"}})"},
    {{Source::Noise{NoiseColor::pink}}, R"({"noise":{"_0":"pink"}})"},
    {{Source::Noise{NoiseColor::brown}}, R"({"noise":{"_0":"brown"}})"},
    {{Source::Impulse{}}, R"({"impulse":{}})"},
    {{Source::Sweep{20, 20000, SweepShape::linear}},
     R"({"sweep":{"start":20.0,"end":20000.0,"shape":"linear"}})"},
    {{Source::Sweep{5, 0.1, SweepShape::logarithmic}},
     R"({"sweep":{"start":5.0,"end":0.1,"shape":"logarithmic"}})"},
};

TEST(GeneratorSourceDocument, EveryCaseIsAnObjectUnderItsName) {
  for (const auto& [source, text] : sources) {
    EXPECT_EQ(textOf(source), text);
    EXPECT_EQ(sourceIn(text), source) << text;
  }
}

TEST(GeneratorSourceDocument, OtherFieldsAreIgnored) {
  EXPECT_EQ(sourceIn(R"({"silence":{"frequency":440}})"), (Source{Source::Silence{}}));
  EXPECT_EQ(sourceIn(R"({"impulse":{"_0":null}})"), (Source{Source::Impulse{}}));
  EXPECT_EQ(sourceIn(R"({"noise":{"seed":7,"_0":"pink"}})"), (Source{Source::Noise{NoiseColor::pink}}));
}

TEST(GeneratorSourceDocument, ExactlyOneKnownCaseIsAsked) {
  const DocumentFault fault{Kind::typeMismatch, "", "Invalid number of keys found, expected one."};
  for (const char* text : {
           R"({})",
           R"({"silence":{},"impulse":{}})",
           R"({"sine":{"frequency":1},"square":{"frequency":1},"noise":{"_0":"pink"}})",
           R"({"cosine":{"frequency":1}})",
           R"({"Sine":{"frequency":1}})",
           R"({"":{}})",
           R"({"cosine":7})",
           R"({"cosine":{},"tangent":{}})",
           R"({"sine":{"frequency":1},"phase":90})",
           R"({"phase":90,"sine":{"frequency":1}})",
           R"({"sine":{"frequency":1},"square":null})",
       })
    EXPECT_EQ(faultOf([&] { sourceIn(text); }), fault) << text;
  EXPECT_EQ(faultOf([] { specIn(R"({"channels":[{"modules":[{"source":{"hum":{}}}]}]})"); }),
            (DocumentFault{Kind::typeMismatch, "channels[0].modules[0].source", fault.description}));
}

TEST(GeneratorSourceDocument, OfOneCaseGivenTwiceTheLastCounts) {
  EXPECT_EQ(sourceIn(R"({"sine":7,"sine":{"frequency":2}})"), (Source{Source::Sine{2}}));
  EXPECT_EQ(faultOf([] { sourceIn(R"({"sine":{"frequency":2},"sine":7})"); }),
            (DocumentFault{Kind::typeMismatch, "sine", "expected an object, found a number"}));
}

TEST(GeneratorSourceDocument, ACaseIsAnObjectEvenWithoutFields) {
  for (const std::string name :
       {"silence", "sine", "square", "sawtooth", "triangle", "noise", "impulse", "sweep"}) {
    EXPECT_EQ(faultOf([&] { sourceIn("{\"" + name + "\":null}"); }),
              (DocumentFault{Kind::typeMismatch, name, "expected an object, found null"}));
    EXPECT_EQ(faultOf([&] { sourceIn("{\"" + name + "\":[]}"); }),
              (DocumentFault{Kind::typeMismatch, name, "expected an object, found an array"}));
    EXPECT_EQ(faultOf([&] { sourceIn("{\"" + name + "\":440}"); }),
              (DocumentFault{Kind::typeMismatch, name, "expected an object, found a number"}));
  }
}

TEST(GeneratorSourceDocument, EveryFieldOfACaseIsRequired) {
  const auto expectRequired = [](const std::string& text, const std::string& name, const std::string& key) {
    const std::string member = "\"" + key + "\":";
    EXPECT_EQ(faultOf([&] { sourceIn(replaced(text, member, "\"other\":")); }),
              (DocumentFault{Kind::keyNotFound, name + "." + key, "the member \"" + key + "\" is missing"}));
    EXPECT_EQ(faultOf([&] { sourceIn(replaced(text, member, member + "null,\"other\":")); }).path,
              name + "." + key);
  };
  for (const std::string name : {"sine", "square", "sawtooth", "triangle"})
    expectRequired("{\"" + name + R"(":{"frequency":440.0}})", name, "frequency");
  expectRequired(R"({"noise":{"_0":"pink"}})", "noise", "_0");
  for (const char* key : {"start", "end", "shape"})
    expectRequired(R"({"sweep":{"start":20,"end":20000,"shape":"linear"}})", "sweep", key);
}

// --- Any specification -----------------------------------------------------------------------------------

double finiteDouble() {
  return *rc::gen::suchThat(rc::gen::map(rc::gen::arbitrary<std::uint64_t>(),
                                         [](std::uint64_t bits) { return std::bit_cast<double>(bits); }),
                            [](double number) { return std::isfinite(number); });
}
float finiteFloat() {
  return *rc::gen::suchThat(rc::gen::map(rc::gen::arbitrary<std::uint32_t>(),
                                         [](std::uint32_t bits) { return std::bit_cast<float>(bits); }),
                            [](float number) { return std::isfinite(number); });
}
bool sometimes() {
  return *rc::gen::arbitrary<bool>();
}
UUID someUUID() {
  return {*rc::gen::arbitrary<UUID::Bytes>()};
}

Source someSource() {
  switch (*rc::gen::inRange(0, 8)) {
    case 0:
      return {Source::Silence{}};
    case 1:
      return {Source::Sine{finiteDouble()}};
    case 2:
      return {Source::Square{finiteDouble()}};
    case 3:
      return {Source::Sawtooth{finiteDouble()}};
    case 4:
      return {Source::Triangle{finiteDouble()}};
    case 5:
      return {Source::Noise{*rc::gen::elementOf(allCases<NoiseColor>())}};
    case 6:
      return {Source::Impulse{}};
    default:
      return {Source::Sweep{finiteDouble(), finiteDouble(), *rc::gen::elementOf(allCases<SweepShape>())}};
  }
}

GeneratorModule someModule() {
  GeneratorModule module{.id = someUUID(),
                         .start = finiteDouble(),
                         .duration = finiteDouble(),
                         .source = someSource(),
                         .gainDB = finiteFloat(),
                         .fadeInSeconds = finiteDouble(),
                         .fadeOutSeconds = finiteDouble()};
  if (sometimes())
    module.levelSweep = {.startDB = finiteFloat(),
                         .endDB = finiteFloat(),
                         .shape = *rc::gen::elementOf(allCases<LevelSweepShape>())};
  if (sometimes())
    module.burst = {.onSeconds = finiteDouble(),
                    .offSeconds = finiteDouble(),
                    .count = *rc::gen::arbitrary<std::int64_t>(),
                    .rampMilliseconds = finiteDouble()};
  return module;
}

RC_GTEST_PROP(GeneratorDocument, AnySpecificationReadsBackAsItselfAndIsWrittenAlike, ()) {
  GeneratorSpec spec{.sampleRate = finiteDouble(),
                     .bitDepth = *rc::gen::elementOf(allCases<GeneratorBitDepth>()),
                     .container = *rc::gen::elementOf(allCases<Container>()),
                     .channels = {}};
  if (sometimes()) spec.duration = finiteDouble();
  if (sometimes()) spec.peakCeilingDB = finiteFloat();
  for (int c = *rc::gen::inRange(0, 4); c > 0; --c) {
    // Any Unicode text would do; bytes beyond ASCII are the tree's business.
    spec.channels.push_back(
        {someUUID(), *rc::gen::container<std::string>(rc::gen::inRange<char>(1, 127)), {}});
    for (int m = *rc::gen::inRange(0, 4); m > 0; --m) spec.channels.back().modules.push_back(someModule());
  }
  const auto text = Json::documentText(spec);
  RC_ASSERT(text.has_value());
  const GeneratorSpec readBack = specIn(*text);
  RC_ASSERT(readBack == spec);
  RC_ASSERT(Json::documentText(readBack) == text);
}

}  // namespace
}  // namespace vellum
