#pragma once

#include <string>
#include <string_view>

namespace vellum {

// A cell of a CSV line, in quotation marks where it needs them (RFC 4180).
inline std::string csvCell(std::string_view text) {
  if (text.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(text);
  std::string cell = "\"";
  for (const char c : text) cell.append(c == '"' ? 2 : 1, c);
  return cell + '"';
}

}  // namespace vellum
