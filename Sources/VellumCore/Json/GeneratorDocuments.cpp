#include "VellumCore/Json/GeneratorDocuments.hpp"

#include <functional>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace vellum::Json {
namespace {

using Members = std::vector<Member>;

Value caseOf(std::string_view name, Members fields) {
  return Object(Members{{std::string(name), Object(std::move(fields))}});
}

struct SourceWriter {
  Value operator()(const GeneratorSource::Silence&) const { return caseOf("silence", {}); }
  Value operator()(const GeneratorSource::Sine& tone) const { return toneOf("sine", tone.frequency); }
  Value operator()(const GeneratorSource::Square& tone) const { return toneOf("square", tone.frequency); }
  Value operator()(const GeneratorSource::Sawtooth& tone) const { return toneOf("sawtooth", tone.frequency); }
  Value operator()(const GeneratorSource::Triangle& tone) const { return toneOf("triangle", tone.frequency); }
  Value operator()(const GeneratorSource::Noise& noise) const {
    return caseOf("noise", {{"_0", rawValue(noise.color)}});
  }
  Value operator()(const GeneratorSource::Impulse&) const { return caseOf("impulse", {}); }
  Value operator()(const GeneratorSource::Sweep& sweep) const {
    return caseOf("sweep", {{"start", sweep.start}, {"end", sweep.end}, {"shape", rawValue(sweep.shape)}});
  }

  static Value toneOf(std::string_view name, double frequency) {
    return caseOf(name, Members{{"frequency", frequency}});
  }
};

template <typename Record>
Value arrayOf(const std::vector<Record>& records) {
  Array values;
  for (const Record& record : records) values.push_back(valueOf(record));
  return values;
}

// What `read` makes of a member that may be missing.
template <typename Read>
auto readIfPresent(const Reader& reader, std::string_view key, Read read) {
  std::optional<std::invoke_result_t<Read, const Reader&>> result;
  if (const auto member = reader.find(key)) result = std::invoke(read, *member);
  return result;
}

UUID readID(const Reader& reader) {
  const auto id = readIfPresent(reader, "id", &Reader::uuid);
  return id ? *id : UUID::random();
}

// None where the member is missing.
template <typename Record>
std::vector<Record> readList(const Reader& reader, std::string_view key, Record (*read)(const Reader&)) {
  std::vector<Record> records;
  if (const auto list = reader.find(key))
    for (const Reader& element : list->elements()) records.push_back(read(element));
  return records;
}

// A case without fields is an object all the same. Asking for any member says where it is none.
void requireObject(const Reader& fields) {
  fields.find("");
}

}  // namespace

Value valueOf(const GeneratorSource& source) {
  return std::visit(SourceWriter{}, source.value);
}

Value valueOf(const LevelSweep& sweep) {
  return Object({{"startDB", sweep.startDB}, {"endDB", sweep.endDB}, {"shape", rawValue(sweep.shape)}});
}

Value valueOf(const BurstGate& burst) {
  return Object({{"onSeconds", burst.onSeconds},
                 {"offSeconds", burst.offSeconds},
                 {"count", burst.count},
                 {"rampMilliseconds", burst.rampMilliseconds}});
}

Value valueOf(const GeneratorModule& module) {
  Members members = {{"id", module.id.text()},
                     {"start", module.start},
                     {"duration", module.duration},
                     {"source", valueOf(module.source)},
                     {"gainDB", module.gainDB}};
  if (module.levelSweep) members.emplace_back("levelSweep", valueOf(*module.levelSweep));
  if (module.burst) members.emplace_back("burst", valueOf(*module.burst));
  members.emplace_back("fadeInSeconds", module.fadeInSeconds);
  members.emplace_back("fadeOutSeconds", module.fadeOutSeconds);
  return Object(std::move(members));
}

Value valueOf(const GeneratorChannel& channel) {
  return Object({{"id", channel.id.text()}, {"name", channel.name}, {"modules", arrayOf(channel.modules)}});
}

Value valueOf(const GeneratorSpec& spec) {
  Members members = {{"sampleRate", spec.sampleRate},
                     {"bitDepth", rawValue(spec.bitDepth)},
                     {"container", rawValue(spec.container)},
                     {"channels", arrayOf(spec.channels)}};
  if (spec.duration) members.emplace_back("duration", *spec.duration);
  if (spec.peakCeilingDB) members.emplace_back("peakCeilingDB", *spec.peakCeilingDB);
  return Object(std::move(members));
}

GeneratorSource readGeneratorSource(const Reader& reader) {
  const auto [name, fields] = reader.onlyCase();
  if (name == "silence") {
    requireObject(fields);
    return {GeneratorSource::Silence{}};
  }
  if (name == "sine") return {GeneratorSource::Sine{fields.member("frequency").float64()}};
  if (name == "square") return {GeneratorSource::Square{fields.member("frequency").float64()}};
  if (name == "sawtooth") return {GeneratorSource::Sawtooth{fields.member("frequency").float64()}};
  if (name == "triangle") return {GeneratorSource::Triangle{fields.member("frequency").float64()}};
  if (name == "noise") return {GeneratorSource::Noise{fields.member("_0").enumeration<NoiseColor>()}};
  if (name == "impulse") {
    requireObject(fields);
    return {GeneratorSource::Impulse{}};
  }
  if (name == "sweep")
    return {GeneratorSource::Sweep{fields.member("start").float64(), fields.member("end").float64(),
                                   fields.member("shape").enumeration<SweepShape>()}};
  // Only known names count as keys here: one unknown name is as good as none.
  reader.failWithoutOnlyCase();
}

LevelSweep readLevelSweep(const Reader& reader) {
  return {.startDB = reader.member("startDB").float32(),
          .endDB = reader.member("endDB").float32(),
          .shape = readIfPresent(reader, "shape", &Reader::enumeration<LevelSweepShape>)
                       .value_or(LevelSweepShape::logarithmic)};
}

BurstGate readBurstGate(const Reader& reader) {
  return {.onSeconds = reader.member("onSeconds").float64(),
          .offSeconds = reader.member("offSeconds").float64(),
          .count = readIfPresent(reader, "count", &Reader::integer).value_or(0),
          .rampMilliseconds = readIfPresent(reader, "rampMilliseconds", &Reader::float64).value_or(2)};
}

GeneratorModule readGeneratorModule(const Reader& reader) {
  return {.id = readID(reader),
          .start = readIfPresent(reader, "start", &Reader::float64).value_or(0),
          .duration = readIfPresent(reader, "duration", &Reader::float64).value_or(1),
          .source = readGeneratorSource(reader.member("source")),
          .gainDB = readIfPresent(reader, "gainDB", &Reader::float32).value_or(-6.0F),
          .levelSweep = readIfPresent(reader, "levelSweep", readLevelSweep),
          .burst = readIfPresent(reader, "burst", readBurstGate),
          .fadeInSeconds = readIfPresent(reader, "fadeInSeconds", &Reader::float64).value_or(0),
          .fadeOutSeconds = readIfPresent(reader, "fadeOutSeconds", &Reader::float64).value_or(0)};
}

GeneratorChannel readGeneratorChannel(const Reader& reader) {
  return {.id = readID(reader),
          .name = readIfPresent(reader, "name", &Reader::text).value_or(""),
          .modules = readList(reader, "modules", readGeneratorModule)};
}

GeneratorSpec readGeneratorSpec(const Reader& reader) {
  return {.sampleRate = readIfPresent(reader, "sampleRate", &Reader::float64).value_or(48000),
          .bitDepth = readIfPresent(reader, "bitDepth", &Reader::enumeration<GeneratorBitDepth>)
                          .value_or(GeneratorBitDepth::int24),
          .container = readIfPresent(reader, "container", &Reader::enumeration<GeneratorContainer>)
                           .value_or(GeneratorContainer::wav),
          .channels = readList(reader, "channels", readGeneratorChannel),
          .duration = readIfPresent(reader, "duration", &Reader::float64),
          .peakCeilingDB = readIfPresent(reader, "peakCeilingDB", &Reader::float32)};
}

std::optional<std::string> documentText(const GeneratorSpec& spec) {
  const Value value = valueOf(spec);
  if (!isWritable(value)) return {};
  return indentedText(value);
}

GeneratorSpec parseGeneratorSpec(std::string_view text) {
  const Value document = parse(text);
  return readGeneratorSpec(Reader(document));
}

}  // namespace vellum::Json
