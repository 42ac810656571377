#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "VellumApp/FileMeasurement.hpp"
#include "VellumCore/Json/Document.hpp"

// The figures of measured files as text for people, as JSON records, and as a CSV table.
namespace vellum::MeasureReport {

// What each channel counts for, "L 1, R 1, C 1", and whether that is the file's order.
std::string channelsText(const FileMeasurement& measurement);

// A block of lines, figures with one decimal and their units.
std::string textBlock(const std::filesystem::path& path, const FileMeasurement& measurement);
std::string textBlock(const std::filesystem::path& path, std::string_view error);

// One record. A figure that is not finite or was not measured has no key; in a list per channel it is null.
// withHistory adds the per-block lists.
Json::Object record(const std::filesystem::path& path, const FileMeasurement& measurement, bool withHistory);
Json::Object record(const std::filesystem::path& path, std::string_view error);

// A file that failed, ready to be written: its record on a line of its own, or its block.
std::string failureText(const std::filesystem::path& path, std::string_view error, bool asJSON);

// One line each, without its end. The cells are the record's values by column; a missing one is empty, the
// values of a list are separated by semicolons.
std::string csvHeader();
std::string csvRow(const Json::Object& record);

}  // namespace vellum::MeasureReport
