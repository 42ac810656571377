#include "VellumApp/EditScript.hpp"

#include <fmt/format.h>

#include <array>
#include <utility>

#include "VellumCore/Json/Document.hpp"
#include "VellumCore/Json/DocumentError.hpp"
#include "VellumCore/Json/Reader.hpp"
#include "VellumCore/Support/PowerOfTwo.hpp"

namespace vellum {
namespace {

using EditLimits::Range;
using Json::Reader;
using Kind = Json::DocumentError::Kind;
using SpectralEditKernel::Feather;
using SpectralEditKernel::Operation;

// --- Numbers ---------------------------------------------------------------------------------------------

template <typename Number>
Number inRange(const Reader& reader, Number value, const Range& range) {
  const auto wide = static_cast<double>(value);
  if (!(wide >= range.least && wide <= range.most))
    reader.fail(Kind::dataCorrupted, fmt::format("{} is not from {} to {}", value, range.least, range.most));
  return value;
}

double readNumber(const Reader& reader, const Range& range) {
  return inRange(reader, reader.float64(), range);
}

float readSingle(const Reader& reader, const Range& range) {
  return inRange(reader, reader.float32(), range);
}

std::int64_t readInteger(const Reader& reader, const Range& range) {
  return inRange(reader, reader.integer(), range);
}

// The member, or what stands for it where it is missing.
template <typename Value, typename Read>
Value readOr(const Reader& reader, std::string_view key, Value missing, Read read, const Range& range) {
  const auto member = reader.find(key);
  return member ? read(*member, range) : missing;
}

std::string readText(const Reader& reader, std::string_view key) {
  const auto text = reader.find(key);
  return text ? text->text() : "";
}

std::vector<Reader> elements(const Reader& reader, std::int64_t least, std::int64_t most) {
  std::vector<Reader> all = reader.elements();
  const auto count = static_cast<std::int64_t>(all.size());
  if (count < least || count > most)
    reader.fail(Kind::dataCorrupted, fmt::format("there are {}, not {} to {}", count, least, most));
  return all;
}

// --- Selections ------------------------------------------------------------------------------------------

EditSelection::Rect readRect(const Reader& reader) {
  const EditSelection::Rect rect = {.fromSec = readNumber(reader.member("fromSec"), EditLimits::timeSec),
                                    .toSec = readNumber(reader.member("toSec"), EditLimits::timeSec),
                                    .lowHz = readNumber(reader.member("lowHz"), EditLimits::frequencyHz),
                                    .highHz = readNumber(reader.member("highHz"), EditLimits::frequencyHz)};
  if (const auto fault = faultOf(rect)) reader.fail(Kind::dataCorrupted, *fault);
  return rect;
}

EditSelection::Polygon readPolygon(const Reader& reader) {
  EditSelection::Polygon polygon;
  for (const Reader& point : elements(reader.member("points"), 3, EditLimits::mostPoints)) {
    const std::vector<Reader> coordinates = elements(point, 2, 2);
    polygon.points.push_back({.sec = readNumber(coordinates[0], EditLimits::timeSec),
                              .hz = readNumber(coordinates[1], EditLimits::frequencyHz)});
  }
  return polygon;
}

EditSelection::Ellipse readEllipse(const Reader& reader) {
  return {.atSec = readNumber(reader.member("atSec"), EditLimits::timeSec),
          .hz = readNumber(reader.member("hz"), EditLimits::frequencyHz),
          .radiusSec = readNumber(reader.member("radiusSec"), EditLimits::radiusSec),
          .radiusHz = readNumber(reader.member("radiusHz"), EditLimits::radiusHz)};
}

EditSelection::Wand readWand(const Reader& reader) {
  return {
      .atSec = readNumber(reader.member("atSec"), EditLimits::timeSec),
      .hz = readNumber(reader.member("hz"), EditLimits::frequencyHz),
      .toleranceDB =
          readOr(reader, "toleranceDB", EditDefaults::toleranceDB, readSingle, EditLimits::toleranceDB),
      .reachSec = readOr(reader, "reachSec", EditDefaults::reachSec, readNumber, EditLimits::reachSec),
      .mostCells = readOr(reader, "mostCells", EditDefaults::mostCells, readInteger, EditLimits::mostCells)};
}

decltype(EditSelection::shape) readShape(const Reader& reader) {
  const auto [name, fields] = reader.onlyCase();
  if (name == "rect") return readRect(fields);
  if (name == "polygon") return readPolygon(fields);
  if (name == "ellipse") return readEllipse(fields);
  if (name == "wand") return readWand(fields);
  reader.failWithUnknownCase(name);
}

EditSelection readSelection(const Reader& reader) {
  EditSelection selection{.shape = readShape(reader.member("shape")), .mode = CombineMode::add, .grow = {}};
  if (const auto mode = reader.find("mode")) selection.mode = mode->enumeration<CombineMode>();
  if (const auto grow = reader.find("grow"))
    selection.grow = {
        .columns = readOr(*grow, "columns", std::int64_t{0}, readInteger, EditLimits::growColumns),
        .bins = readOr(*grow, "bins", std::int64_t{0}, readInteger, EditLimits::growBins)};
  return selection;
}

// --- Steps -----------------------------------------------------------------------------------------------

Operation readOperation(const Reader& reader) {
  const auto [name, fields] = reader.onlyCase();
  if (name == "attenuate") return {Operation::Attenuate{readSingle(fields.member("dB"), EditLimits::gainDB)}};
  if (name == "eraseToFloor")
    return {Operation::EraseToFloor{readOr(fields, "dB", 0.0f, readSingle, EditLimits::depthDB)}};
  if (name != "repair") reader.failWithUnknownCase(name);
  fields.find("");  // says so where it is no object
  return {Operation::Repair{}};
}

Feather readFeather(const Reader& reader) {
  return {
      .timeMs = readOr(reader, "timeMs", EditDefaults::feather.timeMs, readNumber, EditLimits::featherMs),
      .freqHz = readOr(reader, "freqHz", EditDefaults::feather.freqHz, readNumber, EditLimits::featherHz)};
}

std::int64_t readFFTSize(const Reader& reader, const Range& range) {
  const std::int64_t size = readInteger(reader, range);
  if (!isPowerOfTwo(size)) reader.fail(Kind::dataCorrupted, fmt::format("{} is no power of two", size));
  return size;
}

EditStep readStep(const Reader& reader) {
  EditStep step{.name = readText(reader, "name"),
                .selection = {},
                .operation = readOperation(reader.member("operation")),
                .feather = EditDefaults::feather,
                .fftSize = readOr(reader, "fftSize", EditDefaults::fftSize, readFFTSize, EditLimits::fftSize),
                .crossfadeMs = readOr(reader, "crossfadeMs", EditDefaults::crossfadeMs, readNumber,
                                      EditLimits::crossfadeMs),
                .channels = {}};
  if (const auto feather = reader.find("feather")) step.feather = readFeather(*feather);
  for (const Reader& selection : elements(reader.member("selection"), 1, EditLimits::mostSelections))
    step.selection.push_back(readSelection(selection));
  if (const auto channels = reader.find("channels"))
    for (const Reader& channel :
         elements(*channels, 1, static_cast<std::int64_t>(EditLimits::channel.most) + 1))
      step.channels.push_back(readInteger(channel, EditLimits::channel));
  return step;
}

}  // namespace

EditScript parseEditScript(std::string_view text) {
  const Json::Value value = Json::parse(text);
  const Reader reader(value);
  EditScript script{.description = readText(reader, "description"), .steps = {}};
  for (const Reader& step : elements(reader.member("steps"), 1, EditLimits::mostSteps))
    script.steps.push_back(readStep(step));
  return script;
}

std::optional<std::string> faultOf(const EditSelection::Rect& rect) {
  if (rect.toSec < rect.fromSec)
    return fmt::format("the end at {} s lies before the start at {} s", rect.toSec, rect.fromSec);
  if (rect.highHz < rect.lowHz)
    return fmt::format("the upper end at {} Hz lies below the lower one at {} Hz", rect.highHz, rect.lowHz);
  return {};
}

}  // namespace vellum
