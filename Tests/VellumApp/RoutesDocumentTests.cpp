#include "VellumApp/RoutesDocument.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Support/TemporaryFolder.hpp"
#include "VellumApp/DocumentFile.hpp"
#include "VellumApp/EmbeddedDocuments.hpp"
#include "VellumCore/Json/DocumentError.hpp"

namespace vellum {
namespace {

using Labels = std::vector<AudioChannelLabel>;
using SurroundBake::Route;

// What a fault says: the place and the reason.
std::string faultOf(const std::string& text) {
  try {
    parseRoutesDocument(text);
  } catch (const Json::DocumentError& error) {
    return error.what();
  }
  return "none";
}

std::string refusalOf(const std::string& document, const Labels& labels, std::int64_t channelCount) {
  try {
    routingFor(parseRoutesDocument(document), labels, channelCount);
  } catch (const FileError& error) {
    return error.what();
  }
  return "none";
}

std::string withRoute(const std::string& route) {
  return R"({"outputs": [{"routes": [)" + route + "]}]}";
}

RoutesDocument preset(std::string_view name) {
  for (const EmbeddedDocument& document : routePresetDocuments())
    if (document.name == name) return parseRoutesDocument(document.text);
  ADD_FAILURE() << "no preset " << name;
  return {};
}

TEST(RoutesDocument, HoldsWhatIsWritten) {
  const RoutesDocument document = parseRoutesDocument(R"({
    "description": "mine", "unused": ["LFE"],
    "outputs": [
      {"label": "L", "routes": [{"source": 3, "gain": -0.1, "useQuadrature": true}, {"source": "C"}]},
      {"routes": [{"source": ["Ls", "Lb"], "gainDB": 20}]}
    ]})");
  const RoutesDocument expected = {
      .description = "mine",
      .outputs = {{.label = 1,
                   .routes = {{.source = 3, .gain = -0.1f, .useQuadrature = true},
                              {.source = Labels{3}, .gain = 1, .useQuadrature = false}}},
                  {.label = {}, .routes = {{.source = Labels{5, 33}, .gain = 10, .useQuadrature = false}}}},
      .unused = Labels{4}};
  EXPECT_EQ(document, expected);
}

TEST(RoutesDocument, MissingMembersHaveDefaults) {
  const RoutesDocument document = parseRoutesDocument(withRoute(R"({"source": 0})"));
  EXPECT_EQ(document.description, "");
  EXPECT_EQ(document.unused, std::nullopt);
  EXPECT_EQ(document.outputs[0].label, std::nullopt);
  EXPECT_EQ(document.outputs[0].routes[0].gain, 1.0f);
  EXPECT_FALSE(document.outputs[0].routes[0].useQuadrature);
}

TEST(RoutesDocument, FaultsAreToldWithPlaceAndReason) {
  struct Case {
    std::string text, fault;
  };
  const std::string range = "outputs[0].routes[0].";
  for (const auto& [text, fault] : {
           Case{"{}", "outputs: the member \"outputs\" is missing"},
           Case{"[]", "expected an object, found an array"},
           Case{R"({"outputs": []})", "outputs: there is none"},
           Case{R"({"outputs": [{}]})", "outputs[0].routes: the member \"routes\" is missing"},
           Case{R"({"outputs": [{"label": "Lt", "routes": []}]})",
                "outputs[0].label: 'Lt' is not a channel; the channels are L R C LFE Ls Rs Lc Rc Cs Lss Rss "
                "Lb "
                "Rb LFE2 M"},
           Case{R"({"outputs": [{"label": "L", "routes": []}, {"label": "L", "routes": []}]})",
                "outputs[1].label: there is an output 'L' already"},
           Case{withRoute("{}"), range + "source: the member \"source\" is missing"},
           Case{withRoute(R"({"source": -1})"), range + "source: -1 is not from 0 to 1023"},
           Case{withRoute(R"({"source": 1024})"), range + "source: 1024 is not from 0 to 1023"},
           Case{withRoute(R"({"source": []})"), range + "source: there is none"},
           Case{withRoute(R"({"source": ["C", 1]})"), range + "source[1]: expected text, found a number"},
           Case{withRoute(R"({"source": 0, "gain": 1001})"), range + "gain: 1001 is not from -1000 to 1000"},
           Case{withRoute(R"({"source": 0, "gain": -1000.00001})"),
                range + "gain: -1000.00001 is not from -1000 to 1000"},
           Case{withRoute(R"({"source": 0, "gainDB": 61})"), range + "gainDB: 61 is not from -200 to 60"},
           Case{withRoute(R"({"source": 0, "gain": 1, "gainDB": 0})"),
                range + "gainDB: there is a linear gain already"},
           Case{R"({"unused": ["X"], "outputs": [{"routes": []}]})",
                "unused[0]: 'X' is not a channel; the channels are L R C LFE Ls Rs Lc Rc Cs Lss Rss Lb Rb "
                "LFE2 M"},
       })
    EXPECT_EQ(faultOf(text), fault) << text;
}

TEST(RoutesDocument, ListsAreAsLongAsContainersHoldChannels) {
  const auto outputs = [](int count) {
    std::string list;
    for (int k = 0; k < count; ++k) list += std::string(k == 0 ? "" : ",") + R"({"routes": []})";
    return R"({"outputs": [)" + list + "]}";
  };
  EXPECT_EQ(faultOf(outputs(1024)), "none");
  EXPECT_EQ(faultOf(outputs(1025)), "outputs: there are 1025, and at most 1024 are possible");
}

TEST(RoutesDocument, AFileNamesItselfBeforeItsFault) {
  const test::TemporaryFolder folder;
  test::writeBytes(folder / "x.json", withRoute(R"({"source": 0, "useQuadrature": 1})"));
  try {
    readRoutesDocument(folder / "x.json");
    FAIL();
  } catch (const FaultyDocument& error) {
    EXPECT_EQ(std::string(error.what()),
              (folder / "x.json").string() +
                  ": outputs[0].routes[0].useQuadrature: expected true or false, found a number");
  }
  EXPECT_THROW(readRoutesDocument(folder / "none.json"), NamedFileError);
}

TEST(RoutesDocument, NamesFindChannelsInWhateverOrder) {
  const RoutesDocument document = parseRoutesDocument(
      R"({"outputs": [{"routes": [{"source": ["Ls", "Lb"], "gain": 2}, {"source": 0, "useQuadrature": true}]}]})");
  const auto routes = [&](const Labels& labels) {
    return routingFor(document, labels, static_cast<std::int64_t>(labels.size())).outputRoutes.at(0);
  };
  EXPECT_EQ(routes({1, 2, 33, 34}), (std::vector<Route>{{2, 2, false}, {0, 1, true}}));
  EXPECT_EQ(routes({5, 1}), (std::vector<Route>{{0, 2, false}, {0, 1, true}}));
  EXPECT_EQ(routes({33, 1, 5}),
            (std::vector<Route>{{2, 2, false}, {0, 1, true}}));  // the first name, not the first channel
}

TEST(RoutesDocument, OutputLabelsAreThoseOfAllOutputsOrNone) {
  const auto labels = [](const std::string& outputs) {
    return routingFor(parseRoutesDocument(R"({"outputs": [)" + outputs + "]}"), {}, 1).outputLabels;
  };
  const std::string left = R"({"label": "L", "routes": []})", right = R"({"label": "R", "routes": []})";
  EXPECT_EQ(labels(left + "," + right), (Labels{1, 2}));
  EXPECT_EQ(labels(left + R"(, {"routes": []})"), Labels{});
}

TEST(RoutesDocument, TellsWhichChannelsGoNowhere) {
  const RoutesDocument document = parseRoutesDocument(withRoute(R"({"source": "C"}, {"source": 0})"));
  EXPECT_EQ(routingFor(document, Labels{1, 2, 3, 4}, 4).unusedSources, (std::vector<std::int64_t>{1, 3}));
}

TEST(RoutesDocument, AnInputThatLacksASourceIsRefused) {
  const Labels surround = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(refusalOf(withRoute(R"({"source": 6})"), surround, 6),
            "there is no channel 6: it has 6, counted from 0");
  EXPECT_EQ(refusalOf(withRoute(R"({"source": 5})"), surround, 6), "none");
  EXPECT_EQ(refusalOf(withRoute(R"({"source": ["Lb", "Lss", "Cs"]})"), surround, 6),
            "it has no channel Lb, Lss or Cs, only L, R, C, LFE, Ls, Rs");
  EXPECT_EQ(
      refusalOf(withRoute(R"({"source": "C"})"), {}, 6),
      "it does not tell which of its 6 channels is which, so that C cannot be found: a layout has to name "
      "them");
  EXPECT_EQ(refusalOf(withRoute(R"({"source": 5})"), {}, 6), "none");
}

TEST(RoutesDocument, OneAndTwoUnnamedChannelsAreMonoAndStereo) {
  EXPECT_EQ(refusalOf(withRoute(R"({"source": "M"})"), {}, 1), "none");
  EXPECT_EQ(refusalOf(withRoute(R"({"source": "R"})"), {}, 2), "none");
  EXPECT_EQ(refusalOf(withRoute(R"({"source": "L"})"), {}, 1), "it has no channel L, only M");
  EXPECT_EQ(refusalOf(withRoute(R"({"source": "L"})"), Labels{3, 4}, 2), "it has no channel L, only C, LFE");
}

TEST(RoutesDocument, ChannelsThatMayNotGoNowhereAreRefused) {
  const std::string document = R"({"unused": ["LFE"], "outputs": [{"routes": [{"source": 0}]}]})";
  EXPECT_EQ(refusalOf(document, Labels{1, 4}, 2), "none");
  EXPECT_EQ(refusalOf(document, Labels{1, 4, 5}, 3), "its channel Ls would go to no output");
  EXPECT_EQ(refusalOf(document, Labels{1, 5, 6}, 3), "its channels Ls, Rs would go to no output");
  EXPECT_EQ(refusalOf(R"({"unused": [], "outputs": [{"routes": [{"source": 0}]}]})", Labels{1, 4}, 2),
            "its channel LFE would go to no output");
}

// The gains that ITU-R BS.775 gives for reproduction over fewer channels: 1, 0.7071 and none for the LFE.
TEST(RoutePresets, HaveTheGainsOfTheRecommendation) {
  constexpr float half = 0.7071f;
  struct Case {
    std::string name;
    Labels input, output;
    std::vector<std::vector<Route>> routes;
  };
  for (const auto& [name, input, output, routes] : {
           Case{"5.1-to-stereo",
                {1, 2, 3, 4, 5, 6},
                {1, 2},
                {{{0, 1, false}, {2, half, false}, {4, half, false}},
                 {{1, 1, false}, {2, half, false}, {5, half, false}}}},
           Case{"5.1-to-lt-rt",
                {1, 2, 3, 4, 5, 6},
                {1, 2},
                {{{0, 1, false}, {2, half, false}, {4, -half, true}, {5, -half, true}},
                 {{1, 1, false}, {2, half, false}, {4, half, true}, {5, half, true}}}},
           Case{"stereo-to-mono", {1, 2}, {42}, {{{0, half, false}, {1, half, false}}}},
           Case{"mono-to-stereo", {42}, {1, 2}, {{{0, half, false}}, {{0, half, false}}}},
           Case{"7.1-to-5.1",
                {1, 2, 3, 4, 5, 6, 33, 34},
                {1, 2, 3, 4, 5, 6},
                {{{0, 1, false}},
                 {{1, 1, false}},
                 {{2, 1, false}},
                 {{3, 1, false}},
                 {{4, half, false}, {6, half, false}},
                 {{5, half, false}, {7, half, false}}}},
       }) {
    const Routing routing = routingFor(preset(name), input, static_cast<std::int64_t>(input.size()));
    EXPECT_EQ(routing.outputRoutes, routes) << name;
    EXPECT_EQ(routing.outputLabels, output) << name;
  }
  EXPECT_EQ(routePresetDocuments().size(), 5u);
}

TEST(RoutePresets, EveryOneTellsWhatItDoes) {
  for (const EmbeddedDocument& document : routePresetDocuments())
    EXPECT_NE(parseRoutesDocument(document.text).description, "") << document.name;
}

TEST(RoutePresets, TakeTheSurroundsAtTheSideOrAtTheBackAndNoOtherLayout) {
  for (const std::string name : {"5.1-to-stereo", "5.1-to-lt-rt"}) {
    const auto isTaken = [&](const Labels& labels) {
      try {
        routingFor(preset(name), labels, static_cast<std::int64_t>(labels.size()));
        return true;
      } catch (const FileError&) {
        return false;
      }
    };
    for (const Labels& labels : {Labels{1, 2, 3, 4, 33, 34}, Labels{1, 2, 3, 4, 10, 11},
                                 Labels{1, 2, 3, 5, 6}, Labels{1, 2, 5, 6, 3, 4}, Labels{3, 1, 2, 5, 6, 4}})
      EXPECT_TRUE(isTaken(labels)) << name;
    for (const Labels& labels :
         {Labels{1, 2, 3, 4, 5, 6, 33, 34}, Labels{1, 2, 3, 4, 9}, Labels{1, 2}, Labels{1, 2, 3, 4, 5, 6, 9}})
      EXPECT_FALSE(isTaken(labels)) << name;
  }
}

}  // namespace
}  // namespace vellum
