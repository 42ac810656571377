#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellumCore/Support/RawValue.hpp"

namespace vellum {

// The signals of EBU Tech 3341, EBU Tech 3342 and ITU-R BS.2217 that a document can express: what each must
// read by its standard, and where the meter is known to read something else. The documents are those of
// Examples/conformance, built in.
//
// The meter gates blocks of 100 ms, on purpose; that makes it miss some of the figures. Each such deviation
// is held to its own size: a reading that came to meet the standard would be as unexpected as any other.
namespace ConformanceSet {

// Sample rates in Hz for which the deviations are known.
inline constexpr std::array<double, 5> sampleRates = {44100, 48000, 88200, 96000, 192000};

// What is read of a signal. Windows count once they are full, and none but whole blocks fill them.
enum class Figure {
  momentary,  // at the end; LUFS, as all but the ranges
  shortTerm,
  integrated,
  highestMomentary,
  highestShortTerm,
  everyMomentary,  // of all windows the one that is farthest from what it must read
  everyShortTerm,
  loudnessRange,          // LU
  repeatedLoudnessRange,  // after the signal was played twice without a break
};

// One figure of one document.
struct Expectation {
  std::string document;  // its name among conformanceDocuments()
  Figure figure;
  double required;                  // by the standard; LUFS, or LU of a range
  std::optional<double> deviation;  // LU from it at 48 kHz, where it is outside the standard's tolerance
  // The windows that count end with one of these blocks of 100 ms.
  std::int64_t firstBlock = 0, endBlock = 1'000'000;
};

// A numbered or named signal, which may be several files.
struct Signal {
  std::string_view standard;
  std::string name, content;              // levels in dBFS, the peak of a tone of 1 kHz unless said
  double tolerance;                       // LU, the standard's
  std::vector<Expectation> expectations;  // those of one document side by side
  std::string_view reason;                // of its deviations; empty where it has none
};

// All of them, by standard and number.
const std::vector<Signal>& signals();

struct Verdict {
  bool meetsStandard;  // within the tolerance, its edges included
  bool isAsExpected;   // so it is where nothing is known against it; else the reading is off by what is known
  friend bool operator==(const Verdict&, const Verdict&) = default;
};

// The verdict on a reading of the signal at one of sampleRates. One that is not finite is never as expected.
Verdict verdict(const Signal& signal, const Expectation& expectation, double sampleRate, double reading);

struct Reading {
  double value;  // -infinity where nothing was measured
  Verdict verdict;
};

// Renders the signal's documents and measures them: one reading per expectation, in their order.
//   sampleRate   one of sampleRates
// Channels weigh by their number: the documents have them in the order that the meter's weights go by.
// Cost: less than a thousandth of the time that the signal lasts, at 48 kHz; a few MB.
std::vector<Reading> measure(const Signal& signal, double sampleRate);

// A row of a table: the readings of one figure of a signal together.
struct Summary {
  Figure figure;
  double lowestRequired, highestRequired;
  double reading, off;  // the one that is farthest from what it must read, and its distance in LU
  std::int64_t count, outside, unexpected;  // readings; those outside the tolerance; those not as expected
};

// One per figure of the signal, in the order in which they first come.
//   readings   as many as expectations
std::vector<Summary> summaries(const Signal& signal, const std::vector<Reading>& readings);

}  // namespace ConformanceSet

template <>
inline constexpr auto rawValueTable<ConformanceSet::Figure> = rawValues<ConformanceSet::Figure>(
    {{ConformanceSet::Figure::momentary, "momentary"},
     {ConformanceSet::Figure::shortTerm, "shortTerm"},
     {ConformanceSet::Figure::integrated, "integrated"},
     {ConformanceSet::Figure::highestMomentary, "highestMomentary"},
     {ConformanceSet::Figure::highestShortTerm, "highestShortTerm"},
     {ConformanceSet::Figure::everyMomentary, "everyMomentary"},
     {ConformanceSet::Figure::everyShortTerm, "everyShortTerm"},
     {ConformanceSet::Figure::loudnessRange, "loudnessRange"},
     {ConformanceSet::Figure::repeatedLoudnessRange, "repeatedLoudnessRange"}});

}  // namespace vellum
