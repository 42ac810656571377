// Documents of every kind, sound, faulty and broken, through all that is done with one: read, validated,
// written, rendered whole and in pieces. tryDocument() takes any bytes.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <random>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "Support/Signals.hpp"
#include "VellumCore/Json/Document.hpp"
#include "VellumCore/Json/DocumentError.hpp"
#include "VellumCore/Json/GeneratorDocuments.hpp"
#include "VellumCore/SignalGenerator.hpp"
#include "VellumCore/SignalStream.hpp"

namespace vellum {
namespace {

using Random = std::mt19937;
using test::uniform;

// --- What holds of any bytes -----------------------------------------------------------------------------

// The texts of the faults, each with a pattern for its numbers.
const std::vector<std::regex>& faultPatterns() {
  static const std::vector<std::regex> patterns = [] {
    const std::string number = R"(-?(?:\d+\.\d+|\d+(?:\.\d+)?e[+-]\d+|inf))";
    std::vector<std::regex> list;
    for (const char* const text : {
             R"(Sample rate must be a finite value between 1 Hz and 1000000 Hz \(got #\)\.)",
             R"(Channel count \d+ is over the 128-channel cap\.)",
             R"(Length # s is over the cap \((?:\d+|inf) s at this sample rate\)\.)",
             R"((?:Channel \d+ module \d+ (?:start|duration|level|fade in|fade out|level sweep start|)"
             R"(level sweep end|burst on|burst off|burst ramp)|Peak ceiling) must be a finite number\.)",
             R"(Channel \d+ module \d+: frequency # Hz is outside \(0, #\) Hz \(Nyquist\)\.)",
             R"(Channel \d+ module \d+: duration must be positive \(got # s\)\.)",
             R"(Channel \d+ module \d+: start time can't be negative \(got # s\)\.)",
             R"(The spec has no channels\.)",
             R"(The spec resolves to zero length: add a module or set a duration\.)",
         })
      list.emplace_back(std::regex_replace(text, std::regex("#"), number));
    return list;
  }();
  return patterns;
}

bool isOneOfTheFaults(const std::string& text) {
  int matches = 0;
  for (const std::regex& pattern : faultPatterns()) matches += std::regex_match(text, pattern) ? 1 : 0;
  return matches == 1;
}

// Samples that rendering goes through, those of modules that nobody hears included.
double effortOf(const GeneratorSpec& spec) {
  double frames = static_cast<double>(spec.frameCount() * spec.channelCount());
  for (const GeneratorChannel& channel : spec.channels)
    for (const GeneratorModule& module : channel.modules) frames += module.duration * spec.sampleRate;
  return frames;
}

std::vector<std::vector<float>> streamed(const GeneratorSpec& spec, std::int64_t piece) {
  SignalStream stream(spec);
  std::vector<std::vector<float>> channels(static_cast<std::size_t>(stream.channelCount()),
                                           std::vector<float>(static_cast<std::size_t>(stream.frameCount())));
  for (std::int64_t done = 0; done < stream.frameCount();) {
    std::vector<float*> pointers;
    for (auto& channel : channels) pointers.push_back(channel.data() + done);
    done += stream.render(pointers, piece);
  }
  return channels;
}

void expectRenders(const GeneratorSpec& spec) {
  const auto whole = SignalGenerator::render(spec);
  ASSERT_EQ(static_cast<std::int64_t>(whole.size()), spec.channelCount());
  for (const auto& channel : whole) {
    ASSERT_EQ(static_cast<std::int64_t>(channel.size()), spec.frameCount());
    for (const float value : channel) ASSERT_TRUE(std::isfinite(value));
  }
  EXPECT_TRUE(streamed(spec, 53) == whole);
}

enum class Outcome { unreadable, invalid, tooLong, rendered };

// Reads, validates, writes and renders what the bytes hold, as far as that goes.
Outcome tryDocument(std::string_view bytes) {
  std::optional<GeneratorSpec> spec;
  try {
    spec = Json::parseGeneratorSpec(bytes);
  } catch (const Json::DocumentError& error) {
    EXPECT_FALSE(error.description().empty());
    return Outcome::unreadable;
  }
  // What was read came from a document, so it is writable and reads back as itself.
  const auto text = Json::documentText(*spec);
  EXPECT_TRUE(text && Json::parseGeneratorSpec(*text) == *spec);
  if (const auto error = spec->validate()) {
    EXPECT_TRUE(isOneOfTheFaults(error->description())) << error->description();
    return Outcome::invalid;
  }
  if (effortOf(*spec) > 30'000) return Outcome::tooLong;
  expectRenders(*spec);
  return Outcome::rendered;
}

// --- Sound documents -------------------------------------------------------------------------------------

std::int64_t below(Random& random, std::int64_t n) {
  return static_cast<std::int64_t>(random() % static_cast<std::uint32_t>(n));
}
bool oneIn(Random& random, std::int64_t n) {
  return below(random, n) == 0;
}
template <typename Enumeration>
Enumeration anyOf(Random& random) {
  const auto cases = allCases<Enumeration>();
  return cases[static_cast<std::size_t>(below(random, static_cast<std::int64_t>(cases.size())))];
}

GeneratorSource anySource(Random& random, double nyquist) {
  const auto frequency = [&] { return nyquist * std::pow(10.0, uniform(random, -7, -0.0001)); };
  switch (below(random, 8)) {
    case 0:
      return {GeneratorSource::Silence{}};
    case 1:
      return {GeneratorSource::Sine{frequency()}};
    case 2:
      return {GeneratorSource::Square{frequency()}};
    case 3:
      return {GeneratorSource::Sawtooth{frequency()}};
    case 4:
      return {GeneratorSource::Triangle{frequency()}};
    case 5:
      return {GeneratorSource::Noise{anyOf<NoiseColor>(random)}};
    case 6:
      return {GeneratorSource::Impulse{}};
    default: {
      const double start = frequency();
      return {GeneratorSource::Sweep{start, frequency(), anyOf<SweepShape>(random)}};
    }
  }
}

// Mostly within the module, at times anything that a document may hold.
double anySeconds(Random& random, double module) {
  const double unusual[] = {0, -1, -1e300, 1e300, 1e-300, module};
  return oneIn(random, 8) ? unusual[below(random, 6)] : uniform(random, 0, module);
}
float anyLevel(Random& random) {
  const float unusual[] = {0, -200, -199.99f, -3e38f, 40, 770, 3e38f};
  return oneIn(random, 8) ? unusual[below(random, 7)] : static_cast<float>(uniform(random, -80, 12));
}

GeneratorModule anyModule(Random& random, double sampleRate) {
  const double duration = uniform(random, 0.2, 900) / sampleRate;
  GeneratorModule module{.id = {},
                         .start = oneIn(random, 3) ? 0 : uniform(random, 0, 600) / sampleRate,
                         .duration = duration,
                         .source = anySource(random, sampleRate / 2),
                         .gainDB = anyLevel(random),
                         .levelSweep = {},
                         .burst = {},
                         .fadeInSeconds = anySeconds(random, duration),
                         .fadeOutSeconds = anySeconds(random, duration)};
  if (oneIn(random, 3)) {
    const float start = anyLevel(random);
    module.levelSweep = LevelSweep{start, anyLevel(random), anyOf<LevelSweepShape>(random)};
  }
  if (oneIn(random, 3)) {
    const std::int64_t counts[] = {0, 1, 3, -1, std::numeric_limits<std::int64_t>::max()};
    module.burst = BurstGate{uniform(random, -0.1, 0.5) * duration, uniform(random, -0.1, 0.5) * duration,
                             counts[below(random, 5)], anySeconds(random, duration) * 500};
  }
  return module;
}

// Valid, a few hundred frames long.
GeneratorSpec anySpec(Random& random) {
  const double sampleRates[] = {0.5, 8000, 44100, 48000, 192000, 1e6};
  GeneratorSpec spec{.sampleRate = sampleRates[below(random, 6)],
                     .bitDepth = anyOf<GeneratorBitDepth>(random),
                     .container = anyOf<GeneratorContainer>(random),
                     .channels = {},
                     .duration = {},
                     .peakCeilingDB = {}};
  spec.channels.resize(static_cast<std::size_t>(1 + below(random, 3)));
  for (GeneratorChannel& channel : spec.channels) {
    if (oneIn(random, 2)) channel.name = "Left \"1\" \xC3\xBC";
    for (std::int64_t m = below(random, 4); m > 0; --m)
      channel.modules.push_back(anyModule(random, spec.sampleRate));
  }
  // Silence enough for a frame, whatever else there is.
  spec.channels[0].modules.push_back({.id = {},
                                      .start = 0,
                                      .duration = 20 / spec.sampleRate,
                                      .source = {GeneratorSource::Silence{}},
                                      .gainDB = 0,
                                      .levelSweep = {},
                                      .burst = {},
                                      .fadeInSeconds = 0,
                                      .fadeOutSeconds = 0});
  if (oneIn(random, 10))  // the largest numbers that there are, added up
    for (GeneratorChannel& channel : spec.channels)
      for (GeneratorModule& module : channel.modules) module.gainDB = 1000;
  if (oneIn(random, 3)) spec.duration = uniform(random, 1, 1200) / spec.sampleRate;
  if (oneIn(random, 3)) spec.peakCeilingDB = anyLevel(random);
  return spec;
}

std::string textOf(Random& random, const GeneratorSpec& spec) {
  return oneIn(random, 2) ? Json::compactText(Json::valueOf(spec)) : Json::documentText(spec).value();
}

TEST(GeneratorDocumentRandom, SoundDocumentsRenderToTheirFramesWholeAndInPieces) {
  for (std::uint32_t seed = 0; seed < 1500; ++seed) {
    Random random(seed);
    EXPECT_EQ(tryDocument(textOf(random, anySpec(random))), Outcome::rendered) << "seed " << seed;
    if (HasFailure()) return;
  }
}

// --- Faulty documents ------------------------------------------------------------------------------------

struct Fault {
  std::function<void(GeneratorSpec&, GeneratorModule&)> into;
  std::string text;  // of the first module of the first channel, at 48 kHz
};

// Every fault that a document can hold; one that is not finite cannot be written.
const std::vector<Fault>& faults() {
  using Module = GeneratorModule;
  static const std::vector<Fault> list = {
      {[](GeneratorSpec& s, Module&) { s.sampleRate = -48000; },
       "Sample rate must be a finite value between 1 Hz and 1000000 Hz (got -48000.0)."},
      {[](GeneratorSpec& s, Module&) { s.sampleRate = 1000000.5; },
       "Sample rate must be a finite value between 1 Hz and 1000000 Hz (got 1000000.5)."},
      {[](GeneratorSpec& s, Module&) { s.channels.resize(129); },
       "Channel count 129 is over the 128-channel cap."},
      {[](GeneratorSpec&, Module& m) { m.start = -0.25; },
       "Channel 0 module 0: start time can't be negative (got -0.25 s)."},
      {[](GeneratorSpec&, Module& m) { m.duration = 0; },
       "Channel 0 module 0: duration must be positive (got 0.0 s)."},
      {[](GeneratorSpec&, Module& m) { m.duration = 44740; },
       "Length 44740.0 s is over the cap (44739 s at this sample rate)."},
      {[](GeneratorSpec&, Module& m) {
         m.burst = BurstGate{0.1, 50000, 0, 2};
       },
       "Length 50000.0 s is over the cap (44739 s at this sample rate)."},
      {[](GeneratorSpec&, Module& m) { m.source = {GeneratorSource::Square{24000}}; },
       "Channel 0 module 0: frequency 24000.0 Hz is outside (0, 24000.0) Hz (Nyquist)."},
      {[](GeneratorSpec&, Module& m) {
         m.source = {GeneratorSource::Sweep{20, 1e300, SweepShape::linear}};
       },
       "Channel 0 module 0: frequency 1e+300 Hz is outside (0, 24000.0) Hz (Nyquist)."},
      {[](GeneratorSpec& s, Module&) { s.duration = 1e9; },
       "Length 1000000000.0 s is over the cap (44739 s at this sample rate)."},
      {[](GeneratorSpec& s, Module&) { s.duration = -3; },
       "The spec resolves to zero length: add a module or set a duration."},
  };
  return list;
}

TEST(GeneratorDocumentRandom, OneFaultInASoundDocumentGivesItsMessage) {
  for (std::uint32_t seed = 0; seed < 600; ++seed) {
    Random random(seed);
    GeneratorSpec spec = anySpec(random);
    while (spec.sampleRate != 48000) spec = anySpec(random);
    const Fault& fault = faults()[seed % faults().size()];
    // Changed first: a list of channels that grows moves its modules.
    GeneratorModule module = spec.channels[0].modules[0];
    fault.into(spec, module);
    spec.channels[0].modules[0] = module;
    const std::string text = textOf(random, spec);
    EXPECT_EQ(tryDocument(text), Outcome::invalid) << "seed " << seed;
    const auto error = Json::parseGeneratorSpec(text).validate();
    ASSERT_TRUE(error) << "seed " << seed;
    EXPECT_EQ(error->description(), fault.text) << "seed " << seed;
  }
}

// Each step mends the fault that the message before told of.
TEST(GeneratorDocumentRandom, ADocumentIsParsedThenReadThenValidated) {
  const auto messageOf = [](const std::string& text) -> std::string {
    try {
      const auto error = Json::parseGeneratorSpec(text).validate();
      return error ? error->description() : "";
    } catch (const Json::DocumentError& error) {
      return error.what();
    }
  };
  std::string text =
      R"({"peakCeilingDB":1e39,"duration":-1,"sampleRate":0,"channels":[{},{"modules":[{"start":-1,"duration":0,)"
      R"("source":{"hum":{}},"burst":{"onSeconds":1}}]}],})";
  const std::string noJSON = "line 1, column " + std::to_string(text.size()) + ": ";
  EXPECT_TRUE(messageOf(text).starts_with(noJSON)) << messageOf(text);
  text.erase(text.size() - 2, 1);
  const struct {
    std::string message, old, mended;
  } steps[] = {
      {"channels[1].modules[0].source: Invalid number of keys found, expected one.", "hum", "sine"},
      {"channels[1].modules[0].source.sine.frequency: the member \"frequency\" is missing", "{}},\"burst",
       "{\"frequency\":90000}},\"burst"},
      {"channels[1].modules[0].burst.offSeconds: the member \"offSeconds\" is missing", "\"onSeconds\":1",
       "\"onSeconds\":1,\"offSeconds\":1e9"},
      {"peakCeilingDB: 1e+39 does not fit a 32-bit number", "1e39", "-1"},
      {"Sample rate must be a finite value between 1 Hz and 1000000 Hz (got 0.0).", "\"sampleRate\":0",
       "\"sampleRate\":44100"},
      {"Channel 1 module 0: start time can't be negative (got -1.0 s).", "\"start\":-1", "\"start\":40000"},
      {"Channel 1 module 0: duration must be positive (got 0.0 s).", "\"duration\":0", "\"duration\":40000"},
      {"Length 1000000000.0 s is over the cap (48695 s at this sample rate).", "1e9", "1"},
      {"Channel 1 module 0: frequency 90000.0 Hz is outside (0, 22050.0) Hz (Nyquist).", "90000", "9000"},
      {"The spec resolves to zero length: add a module or set a duration.", "\"duration\":-1",
       "\"duration\":null"},
      {"Length 80000.0 s is over the cap (48695 s at this sample rate).", "40000,", "1,"},
  };
  for (const auto& step : steps) {
    EXPECT_EQ(messageOf(text), step.message);
    const std::size_t place = text.find(step.old);
    ASSERT_NE(place, text.npos) << step.old;
    text.replace(place, step.old.size(), step.mended);
  }
  EXPECT_EQ(messageOf(text), "");
}

// --- Broken documents ------------------------------------------------------------------------------------

std::size_t placeIn(Random& random, const std::string& text) {
  return static_cast<std::size_t>(below(random, static_cast<std::int64_t>(text.size()) + 1));
}

// The bytes of one value in the text, by its brackets or separators; of anything, where there is none.
struct Span {
  std::size_t from, size;
};
Span anyValueIn(Random& random, const std::string& text) {
  const std::size_t from = std::min(text.find(':', placeIn(random, text)), text.size());
  const std::size_t start = std::min(from + 1, text.size());
  int depth = 0;
  for (std::size_t end = start; end < text.size(); ++end) {
    const char c = text[end];
    if (c == '{' || c == '[') ++depth;
    const bool isClosing = c == '}' || c == ']';
    if (depth == 0 && (isClosing || c == ',')) return {start, end - start};
    if (isClosing) --depth;
  }
  return {start, text.size() - start};
}

std::string nested(std::int64_t levels, const std::string& open, const std::string& close) {
  std::string text;
  for (std::int64_t k = 0; k < levels; ++k) text += open;
  text += "0";
  for (std::int64_t k = 0; k < levels; ++k) text += close;
  return text;
}

std::string anyValue(Random& random) {
  static const std::vector<std::string> values = {"null",
                                                  "true",
                                                  "0",
                                                  "-0",
                                                  "-1",
                                                  "1",
                                                  "48000",
                                                  "1e-320",
                                                  "1e300",
                                                  "-1e300",
                                                  "1e400",
                                                  "-1e99999",
                                                  "3.4028236e38",
                                                  "9223372036854775807",
                                                  "9223372036854775808",
                                                  "-9223372036854775809",
                                                  "0.1e-5",
                                                  "123456789012345678901234567890",
                                                  "NaN",
                                                  "Infinity",
                                                  "\"\"",
                                                  "\"white\"",
                                                  "\"linear\"",
                                                  "\"\\u0000\"",
                                                  "\"\\ud800\"",
                                                  "\"\xFF\xFE\"",
                                                  "[]",
                                                  "{}",
                                                  "[{}]",
                                                  "[null]",
                                                  "{\"sine\":{\"frequency\":0.001}}",
                                                  "{\"noise\":{\"_0\":\"brown\"}}",
                                                  "{\"silence\":{},\"impulse\":{}}",
                                                  "[[],{}]",
                                                  "01",
                                                  "1.",
                                                  "+1",
                                                  "'x'",
                                                  ""};
  switch (below(random, 12)) {
    case 0:
      return nested(1 + below(random, 200), "[", "]");
    case 1:
      return nested(1 + below(random, 200), "{\"a\":", "}");
    case 2:
      return std::string(static_cast<std::size_t>(below(random, 400)), '9');
    default:
      return values[static_cast<std::size_t>(below(random, static_cast<std::int64_t>(values.size())))];
  }
}

// One change of any kind.
void breakSomewhere(Random& random, std::string& text) {
  const std::size_t place = placeIn(random, text);
  const auto length = static_cast<std::size_t>(1 + below(random, oneIn(random, 4) ? 200 : 8));
  switch (below(random, 8)) {
    case 0:  // a bit
      if (place < text.size()) text[place] = static_cast<char>(text[place] ^ (1 << below(random, 8)));
      break;
    case 1:  // a byte
      text.insert(place, 1, static_cast<char>(below(random, 256)));
      break;
    case 2:  // a piece that is lost
      text.erase(place, length);
      break;
    case 3:  // a piece that comes twice
      text.insert(place, text.substr(place, length));
      break;
    case 4:  // a piece in another place
      text.insert(placeIn(random, text), text.substr(place, length));
      break;
    case 5: {  // a digit
      const std::size_t digit = text.find_first_of("0123456789", place);
      if (digit != text.npos) text[digit] = static_cast<char>('0' + below(random, 10));
      break;
    }
    default: {  // another value
      const auto [from, size] = anyValueIn(random, text);
      text.replace(from, size, anyValue(random));
    }
  }
}

TEST(GeneratorDocumentRandom, BrokenDocumentsAreRefusedOrRenderedAndNothingElse) {
  int outcomes[4] = {};
  for (std::uint32_t seed = 0; seed < 12'000; ++seed) {
    Random random(seed);
    std::string text = textOf(random, anySpec(random));
    for (std::int64_t changes = 1 + below(random, 4); changes > 0; --changes) breakSomewhere(random, text);
    ++outcomes[static_cast<int>(tryDocument(text))];
    if (HasFailure()) {
      FAIL() << "seed " << seed << ": " << text;
    }
  }
  // All ways were gone, and often.
  for (const int count : outcomes) EXPECT_GT(count, 50);
}

TEST(GeneratorDocumentRandom, DeepNestingAndLongNumbersAreRefusedWhereverTheyStand) {
  for (const std::int64_t levels : {65, 1000, 200'000})
    for (const std::string& value : {nested(levels, "[", "]"), nested(levels, "{\"modules\":[", "]}"),
                                     std::string(static_cast<std::size_t>(levels), '[')})
      for (const std::string key : {"channels", "sampleRate", "unknown"}) {
        const std::string text = "{\"" + key + "\":" + value + "}";
        EXPECT_EQ(tryDocument(text), Outcome::unreadable) << key << ", " << levels;
      }
  const std::string digits(300'000, '7');
  EXPECT_EQ(tryDocument("{\"sampleRate\":" + digits + "}"), Outcome::unreadable);
  EXPECT_EQ(tryDocument("{\"sampleRate\":0." + digits + "}"), Outcome::invalid);  // no channels
}

TEST(GeneratorDocumentRandom, AnyFewBytesAreNoDocument) {
  EXPECT_EQ(tryDocument(""), Outcome::unreadable);
  for (int a = 0; a < 256; ++a) {
    const std::string one(1, static_cast<char>(a));
    EXPECT_EQ(tryDocument(one), Outcome::unreadable) << a;
    for (int b = 0; b < 256; ++b) {
      const std::string two = one + static_cast<char>(b);
      EXPECT_EQ(tryDocument(two), two == "{}" ? Outcome::invalid : Outcome::unreadable) << a << ", " << b;
    }
  }
}

}  // namespace
}  // namespace vellum
