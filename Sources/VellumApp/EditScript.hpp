#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VellumCore/SpectralEditKernel.hpp"
#include "VellumCore/SpectralMask.hpp"

namespace vellum {

// A shape in the time-frequency plane, and how it joins the shapes before it. Times are seconds from the
// file's start, frequencies Hz. Docs/SpectralEditing.md tells which cells a shape takes.
struct EditSelection {
  struct Rect {
    double fromSec, toSec, lowHz, highHz;
    friend bool operator==(const Rect&, const Rect&) = default;
  };
  struct Point {
    double sec, hz;
    friend bool operator==(const Point&, const Point&) = default;
  };
  struct Polygon {
    std::vector<Point> points;
    friend bool operator==(const Polygon&, const Polygon&) = default;
  };
  struct Ellipse {
    double atSec, hz, radiusSec, radiusHz;
    friend bool operator==(const Ellipse&, const Ellipse&) = default;
  };
  // What is connected to a point and at most toleranceDB quieter than it.
  struct Wand {
    double atSec, hz;
    float toleranceDB;
    double reachSec;         // to either side
    std::int64_t mostCells;  // those found first
    friend bool operator==(const Wand&, const Wand&) = default;
  };
  struct Growth {
    std::int64_t columns, bins;  // to either side
    friend bool operator==(const Growth&, const Growth&) = default;
  };

  std::variant<Rect, Polygon, Ellipse, Wand> shape;
  CombineMode mode;
  std::optional<Growth> grow;  // absent: the wand grows by the feather's radius, other shapes do not grow

  friend bool operator==(const EditSelection&, const EditSelection&) = default;
};

// One operation on one selection.
struct EditStep {
  std::string name;  // for people; may be empty
  std::vector<EditSelection> selection;
  SpectralEditKernel::Operation operation;
  SpectralEditKernel::Feather feather;
  std::int64_t fftSize;
  double crossfadeMs;
  std::vector<std::int64_t> channels;  // from 0; empty: all

  friend bool operator==(const EditStep&, const EditStep&) = default;
};

// What is done to a file, step after step, as a JSON document says it. What stands after "=" is read where a
// member is missing or null; other members are ignored.
//
//   document   {"description" = "", "steps"}
//   step       {"name" = "", "selection", "operation", "feather" = {}, "fftSize" = 2048, "crossfadeMs" = 5,
//              "channels" = all}
//   selection  {"shape", "mode" = "add", "grow" = absent}; mode: "replace", "add" or "subtract"
//   shape      one of {"rect": {"fromSec", "toSec", "lowHz", "highHz"}}, {"polygon": {"points": [[s, Hz]]}},
//              {"ellipse": {"atSec", "hz", "radiusSec", "radiusHz"}},
//              {"wand": {"atSec", "hz", "toleranceDB" = 20, "reachSec" = 5, "mostCells" = 200000}}
//   grow       {"columns" = 0, "bins" = 0}
//   operation  one of {"attenuate": {"dB"}}, {"eraseToFloor": {"dB" = 0}}, {"repair": {}}
//   feather    {"timeMs" = 10, "freqHz" = 50}
struct EditScript {
  std::string description;
  std::vector<EditStep> steps;

  friend bool operator==(const EditScript&, const EditScript&) = default;
};

// What a script may hold: outside of it the library stops, memory grows without need, or nothing is meant.
namespace EditLimits {

struct Range {
  double least, most;
};

inline constexpr Range timeSec = {-1e6, 1e6};      // 11 days
inline constexpr Range frequencyHz = {-1e6, 1e6};  // the highest sample rate
inline constexpr Range radiusSec = {0, 1e6}, radiusHz = {0, 1e6};
inline constexpr Range toleranceDB = {0, 200};
inline constexpr Range reachSec = {0, 60};
inline constexpr Range mostCells = {1, 10'000'000};
inline constexpr Range growColumns = {0, 10'000}, growBins = {0, 32'768};
inline constexpr Range gainDB = {-96, 24};
inline constexpr Range depthDB = {0, 200};
inline constexpr Range featherMs = {0, 10'000}, featherHz = {0, 1e6};
inline constexpr Range fftSize = {64, 65'536};  // powers of two
inline constexpr Range crossfadeMs = {0, 10'000};
inline constexpr Range channel = {0, 1023};

inline constexpr std::int64_t mostSteps = 1000, mostSelections = 1000, mostPoints = 1000;

}  // namespace EditLimits

// What stands after "=" above.
namespace EditDefaults {

inline constexpr SpectralEditKernel::Feather feather = {.timeMs = 10, .freqHz = 50};
inline constexpr std::int64_t fftSize = 2048;
inline constexpr double crossfadeMs = 5;
inline constexpr float toleranceDB = 20;
inline constexpr double reachSec = 5;
inline constexpr std::int64_t mostCells = 200'000;

}  // namespace EditDefaults

// Throws Json::DocumentError: what is no such document, numbers outside of the limits, an FFT size that is no
// power of two, a rectangle whose end lies before its start.
EditScript parseEditScript(std::string_view text);

// Why a rectangle encloses nothing; absent where it does.
std::optional<std::string> faultOf(const EditSelection::Rect& rect);

}  // namespace vellum
