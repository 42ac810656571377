#pragma once

#include <utility>
#include <vector>

#include "VellumCore/GeneratorSpec.hpp"

namespace vellum::test {

// A module at the file's start with nothing but its source and level.
inline GeneratorModule moduleOf(GeneratorSource source, double duration = 1, float gainDB = 0) {
  return {.id = {},
          .start = 0,
          .duration = duration,
          .source = std::move(source),
          .gainDB = gainDB,
          .levelSweep = {},
          .burst = {},
          .fadeInSeconds = 0,
          .fadeOutSeconds = 0};
}

inline GeneratorModule startingAt(double start, GeneratorModule module) {
  module.start = start;
  return module;
}

// One channel for each list of modules, at 48 kHz.
inline GeneratorSpec specOf(std::vector<std::vector<GeneratorModule>> channels) {
  GeneratorSpec spec{.sampleRate = 48000,
                     .bitDepth = GeneratorBitDepth::float32,
                     .container = GeneratorContainer::wav,
                     .channels = {},
                     .duration = {},
                     .peakCeilingDB = {}};
  for (auto& modules : channels)
    spec.channels.push_back({.id = {}, .name = "", .modules = std::move(modules)});
  return spec;
}

}  // namespace vellum::test
