#pragma once

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

// What goes into a command, and what comes out of it.
namespace vellum::test {

using Arguments = std::vector<std::string>;

inline Arguments operator+(Arguments first, const Arguments& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

inline std::vector<std::string> linesOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// One JSON record per line.
inline std::vector<nlohmann::ordered_json> recordsOf(const std::string& out) {
  std::vector<nlohmann::ordered_json> records;
  for (const std::string& line : linesOf(out)) records.push_back(nlohmann::ordered_json::parse(line));
  return records;
}

}  // namespace vellum::test
