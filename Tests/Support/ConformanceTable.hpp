#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "Support/CommandText.hpp"
#include "Support/TemporaryFolder.hpp"

namespace vellum::test {

// The documents of the conformance signals, and the table of what they read.
inline std::filesystem::path conformanceFolder() {
  return std::filesystem::path(VELLUM_SOURCE_FOLDER) / "Examples" / "conformance";
}

// One row of that table.
struct DocumentedRow {
  std::string standard;                           // the heading above it
  std::string signal, content, figure, required;  // "13", "20 files: ...", "max M", "-23.0 ±0.1"
  std::vector<double> readings;                   // one per sample rate
  std::string verdict;                            // "ok", "known (1)"
};

inline std::vector<DocumentedRow> documentedRows() {
  std::vector<DocumentedRow> rows;
  std::string heading;
  for (const std::string& line : linesOf(readBytes(conformanceFolder() / "README.md"))) {
    if (line.starts_with("## ")) heading = line.substr(3);
    if (!line.starts_with("| ") || line.starts_with("| signal ")) continue;
    std::vector<std::string> cells;
    for (std::size_t start = 2, end; (end = line.find(" |", start)) != line.npos; start = end + 3)
      cells.push_back(line.substr(start, end - start));
    DocumentedRow row{heading, cells.at(0), cells.at(1), cells.at(2), cells.at(3), {}, cells.back()};
    for (std::size_t c = 4; c + 1 < cells.size(); ++c) row.readings.push_back(std::stod(cells[c]));
    rows.push_back(row);
  }
  return rows;
}

}  // namespace vellum::test
