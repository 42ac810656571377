#include "VellumApp/EditScript.hpp"

#include <string>
#include <variant>

#include <gtest/gtest.h>

#include "Support/DocumentErrors.hpp"
#include "Support/TemporaryFolder.hpp"
#include "VellumApp/DocumentFile.hpp"

namespace vellum {
namespace {

using Kind = Json::DocumentError::Kind;
using SpectralEditKernel::Operation;

const std::string rect = R"({"shape": {"rect": {"fromSec": 1, "toSec": 2, "lowHz": 100, "highHz": 300}}})";

std::string step(const std::string& selection, const std::string& operation = R"({"repair": {}})",
                 const std::string& more = "") {
  return R"({"selection": [)" + selection + R"(], "operation": )" + operation + more + "}";
}

std::string script(const std::string& steps) {
  return R"({"steps": [)" + steps + "]}";
}

TEST(EditScript, EveryMemberIsRead) {
  const EditScript read = parseEditScript(R"({
    "description": "A phone and a hum",
    "steps": [
      {"name": "phone",
       "selection": [
         {"shape": {"wand": {"atSec": 12.5, "hz": 1000, "toleranceDB": 15.5, "reachSec": 2, "mostCells": 999}}},
         {"shape": {"rect": {"fromSec": -0.5, "toSec": 2, "lowHz": 100, "highHz": 300.5}}, "mode": "replace"},
         {"shape": {"polygon": {"points": [[1, 100], [2, 100], [1.5, 400]]}}, "mode": "subtract",
          "grow": {"columns": 3, "bins": 4}},
         {"shape": {"ellipse": {"atSec": 3, "hz": 500, "radiusSec": 0.25, "radiusHz": 50}}, "mode": "add",
          "grow": {"bins": 1}}],
       "operation": {"attenuate": {"dB": -20.5}},
       "feather": {"timeMs": 20, "freqHz": 100},
       "fftSize": 4096, "crossfadeMs": 7.5, "channels": [1, 0]},
      {"selection": [{"shape": {"rect": {"fromSec": 1, "toSec": 1, "lowHz": 100, "highHz": 100}}}],
       "operation": {"eraseToFloor": {"dB": 3}}}]})");
  const EditScript expected = {
      .description = "A phone and a hum",
      .steps = {{.name = "phone",
                 .selection = {{.shape = EditSelection::Wand{12.5, 1000, 15.5f, 2, 999},
                                .mode = CombineMode::add,
                                .grow = {}},
                               {.shape = EditSelection::Rect{-0.5, 2, 100, 300.5},
                                .mode = CombineMode::replace,
                                .grow = {}},
                               {.shape = EditSelection::Polygon{{{1, 100}, {2, 100}, {1.5, 400}}},
                                .mode = CombineMode::subtract,
                                .grow = EditSelection::Growth{3, 4}},
                               {.shape = EditSelection::Ellipse{3, 500, 0.25, 50},
                                .mode = CombineMode::add,
                                .grow = EditSelection::Growth{0, 1}}},
                 .operation = {Operation::Attenuate{-20.5f}},
                 .feather = {20, 100},
                 .fftSize = 4096,
                 .crossfadeMs = 7.5,
                 .channels = {1, 0}},
                {.name = "",
                 .selection =
                     {{.shape = EditSelection::Rect{1, 1, 100, 100}, .mode = CombineMode::add, .grow = {}}},
                 .operation = {Operation::EraseToFloor{3}},
                 .feather = {10, 50},
                 .fftSize = 2048,
                 .crossfadeMs = 5,
                 .channels = {}}}};
  EXPECT_EQ(read, expected);
}

TEST(EditScript, WhatIsMissingOrNullHasADefault) {
  const EditScript brief = parseEditScript(
      script(step(R"({"shape": {"wand": {"atSec": 1, "hz": 2}}})", R"({"eraseToFloor": {}})")));
  EXPECT_EQ(brief.steps.at(0).selection.at(0).shape,
            (decltype(EditSelection::shape){EditSelection::Wand{1, 2, 20, 5, 200'000}}));
  EXPECT_EQ(brief.steps[0].operation, (Operation{Operation::EraseToFloor{0}}));
  const EditScript nulls = parseEditScript(R"({"description": null, "steps": [{"name": null,
    "selection": [{"shape": {"wand": {"atSec": 1, "hz": 2, "toleranceDB": null, "reachSec": null,
                                      "mostCells": null}}, "mode": null, "grow": null}],
    "operation": {"eraseToFloor": {"dB": null}}, "feather": null, "fftSize": null, "crossfadeMs": null,
    "channels": null}]})");
  EXPECT_EQ(nulls, brief);
  EXPECT_EQ(parseEditScript(script(step(rect, R"({"repair": {}})", R"(, "feather": {}, "unknown": 3)")))
                .steps[0]
                .feather,
            (SpectralEditKernel::Feather{10, 50}));
}

struct FaultyCase {
  std::string text;
  Kind kind;
  std::string path, description;
};

TEST(EditScript, AFaultHasItsPlaceAndItsReason) {
  const std::string first = "steps[0].selection[0].shape.";
  const std::string inRect = R"({"shape": {"rect": {"fromSec": 1, "toSec": 2, "lowHz": 1, "highHz": )";
  const FaultyCase cases[] = {
      {"[]", Kind::typeMismatch, "", "expected an object, found an array"},
      {"{}", Kind::keyNotFound, "steps", "the member \"steps\" is missing"},
      {script(""), Kind::dataCorrupted, "steps", "there are 0, not 1 to 1000"},
      {script(step("")), Kind::dataCorrupted, "steps[0].selection", "there are 0, not 1 to 1000"},
      {script(step(rect) + "," + step(rect, R"({"mute": {}})")), Kind::keyNotFound, "steps[1].operation",
       "there is no case \"mute\""},
      {script(step(rect, R"({"repair": {}, "attenuate": {"dB": 3}})")), Kind::typeMismatch,
       "steps[0].operation", "Invalid number of keys found, expected one."},
      {script(step(rect, R"({"repair": 3})")), Kind::typeMismatch, "steps[0].operation.repair",
       "expected an object, found a number"},
      {script(step(rect, R"({"attenuate": {}})")), Kind::keyNotFound, "steps[0].operation.attenuate.dB",
       "the member \"dB\" is missing"},
      {script(step(rect, R"({"attenuate": {"dB": 24.5}})")), Kind::dataCorrupted,
       "steps[0].operation.attenuate.dB", "24.5 is not from -96 to 24"},
      {script(step(rect, R"({"eraseToFloor": {"dB": -1}})")), Kind::dataCorrupted,
       "steps[0].operation.eraseToFloor.dB", "-1 is not from 0 to 200"},
      {script(step(R"({"shape": {"circle": {}}})")), Kind::keyNotFound, "steps[0].selection[0].shape",
       "there is no case \"circle\""},
      {script(step(inRect + "0}}}")), Kind::dataCorrupted, first + "rect",
       "the upper end at 0 Hz lies below the lower one at 1 Hz"},
      {script(step(inRect + "\"high\"}}}")), Kind::typeMismatch, first + "rect.highHz",
       "expected a number, found text"},
      {script(step(inRect + "1e7}}}")), Kind::dataCorrupted, first + "rect.highHz",
       "10000000 is not from -1000000 to 1000000"},
      {script(step(R"({"shape": {"rect": {"fromSec": 3, "toSec": 2.5, "lowHz": 1, "highHz": 2}}})")),
       Kind::dataCorrupted, first + "rect", "the end at 2.5 s lies before the start at 3 s"},
      {script(step(R"({"shape": {"polygon": {"points": [[1, 2], [3, 4]]}}})")), Kind::dataCorrupted,
       first + "polygon.points", "there are 2, not 3 to 1000"},
      {script(step(R"({"shape": {"polygon": {"points": [[1, 2], [3, 4], [5]]}}})")), Kind::dataCorrupted,
       first + "polygon.points[2]", "there are 1, not 2 to 2"},
      {script(step(R"({"shape": {"ellipse": {"atSec": 1, "hz": 2, "radiusSec": -1, "radiusHz": 3}}})")),
       Kind::dataCorrupted, first + "ellipse.radiusSec", "-1 is not from 0 to 1000000"},
      {script(step(R"({"shape": {"wand": {"atSec": 1, "hz": 2, "reachSec": 61}}})")), Kind::dataCorrupted,
       first + "wand.reachSec", "61 is not from 0 to 60"},
      {script(step(R"({"shape": {"wand": {"atSec": 1, "hz": 2, "mostCells": 1.5}}})")), Kind::dataCorrupted,
       first + "wand.mostCells", "1.5 is no integer"},
      {script(step(R"({"shape": {"wand": {"atSec": 1, "hz": 2}}, "mode": "union"})")), Kind::dataCorrupted,
       "steps[0].selection[0].mode", "\"union\" is none of replace, add, subtract"},
      {script(step(R"({"shape": {"wand": {"atSec": 1, "hz": 2}}, "grow": {"bins": -1}})")),
       Kind::dataCorrupted, "steps[0].selection[0].grow.bins", "-1 is not from 0 to 32768"},
      {script(step(rect, R"({"repair": {}})", R"(, "fftSize": 1000)")), Kind::dataCorrupted,
       "steps[0].fftSize", "1000 is no power of two"},
      {script(step(rect, R"({"repair": {}})", R"(, "fftSize": 131072)")), Kind::dataCorrupted,
       "steps[0].fftSize", "131072 is not from 64 to 65536"},
      {script(step(rect, R"({"repair": {}})", R"(, "feather": {"timeMs": 1e5})")), Kind::dataCorrupted,
       "steps[0].feather.timeMs", "100000 is not from 0 to 10000"},
      {script(step(rect, R"({"repair": {}})", R"(, "crossfadeMs": -1)")), Kind::dataCorrupted,
       "steps[0].crossfadeMs", "-1 is not from 0 to 10000"},
      {script(step(rect, R"({"repair": {}})", R"(, "channels": [])")), Kind::dataCorrupted,
       "steps[0].channels", "there are 0, not 1 to 1024"},
      {script(step(rect, R"({"repair": {}})", R"(, "channels": [0, -1])")), Kind::dataCorrupted,
       "steps[0].channels[1]", "-1 is not from 0 to 1023"},
  };
  for (const auto& [text, kind, path, description] : cases)
    EXPECT_EQ(test::faultOf([&text = text] { parseEditScript(text); }),
              (test::DocumentFault{kind, path, description}))
        << text;
  // A number that is not finite cannot be written.
  EXPECT_EQ(test::faultOf([&] { parseEditScript(script(step(inRect + "1e999}}}"))); }).kind,
            Kind::dataCorrupted);
}

TEST(EditScript, ReadFromAFileAFaultNamesTheFile) {
  const test::TemporaryFolder folder;
  test::writeBytes(folder / "good.json", script(step(rect)));
  test::writeBytes(folder / "bad.json", script(step(rect, R"({"mute": {}})")));
  EXPECT_EQ(readEditScript(folder / "good.json"), parseEditScript(script(step(rect))));
  try {
    readEditScript(folder / "bad.json");
    FAIL() << "no error";
  } catch (const FaultyDocument& error) {
    EXPECT_EQ(error.what(),
              (folder / "bad.json").string() + ": steps[0].operation: there is no case \"mute\"");
  }
  EXPECT_THROW(readEditScript(folder / "none.json"), NamedFileError);
}

}  // namespace
}  // namespace vellum
