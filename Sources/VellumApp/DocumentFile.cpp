#include "VellumApp/DocumentFile.hpp"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "VellumApp/ChapterLimits.hpp"
#include "VellumApp/RegularFile.hpp"
#include "VellumApp/SignalFile.hpp"
#include "VellumCore/Json/ChapterDocuments.hpp"
#include "VellumCore/Json/Document.hpp"
#include "VellumCore/Json/DocumentError.hpp"
#include "VellumCore/Json/GeneratorDocuments.hpp"
#include "VellumCore/Json/LoudnessTargetDocuments.hpp"

namespace vellum {
namespace {

std::string readAll(const std::filesystem::path& path) {
  const Descriptor file = openRegularFile(path);
  std::string bytes;
  std::array<char, 65'536> chunk;
  for (;;) {
    const ssize_t got = ::read(file.get(), chunk.data(), chunk.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw FileError("it cannot be read: " + systemErrorText(errno));
    if (got == 0) return bytes;
    bytes.append(chunk.data(), static_cast<std::size_t>(got));
    if (bytes.size() > Json::mostDocumentBytes) throw FileError("it is larger than 64 MiB");
  }
}

template <typename Record>
Record recordOf(std::string_view text, const std::filesystem::path& name, Record (*parse)(std::string_view)) {
  try {
    return parse(text);
  } catch (const Json::DocumentError& error) {
    throw FaultyDocument(name, FileError(error.what()));
  }
}

template <typename Record>
Record readRecord(const std::filesystem::path& path, Record (*parse)(std::string_view)) {
  return recordOf(readDocument(path), path, parse);
}

template <typename Record>
Record readLimitedRecord(const std::filesystem::path& path, Record (*parse)(std::string_view)) {
  Record record = readRecord(path, parse);
  if (const auto fault = ChapterLimits::faultOf(record)) throw FaultyDocument(path, FileError(*fault));
  return record;
}

}  // namespace

std::string readDocument(const std::filesystem::path& path) {
  try {
    return readAll(path);
  } catch (const FileError& error) {
    throw NamedFileError(path, error);
  }
}

LoudnessTargetSelection readTargetSelection(const std::filesystem::path& path) {
  return readRecord(path, Json::parseLoudnessTargetSelection);
}

std::string targetSelectionText(const LoudnessTargetSelection& selection) {
  return Json::documentText(selection).value() + "\n";
}

ChapterDetectionSettings readChapterDetectionSettings(const std::filesystem::path& path) {
  return readLimitedRecord(path, Json::parseChapterDetectionSettings);
}

ChapterReport readChapterReport(const std::filesystem::path& path) {
  return readLimitedRecord(path, Json::parseChapterReport);
}

std::string chapterReportText(const ChapterReport& report) {
  return Json::documentText(report).value() + "\n";
}

GeneratorSpec readGeneratorSpec(const std::filesystem::path& path) {
  return generatorSpecOf(readDocument(path), path);
}

GeneratorSpec generatorSpecOf(std::string_view text, const std::filesystem::path& name) {
  GeneratorSpec spec = recordOf(text, name, Json::parseGeneratorSpec);
  if (const auto fault = SignalFile::faultOf(spec)) throw FaultyDocument(name, FileError(*fault));
  return spec;
}

RoutesDocument readRoutesDocument(const std::filesystem::path& path) {
  return readRecord(path, parseRoutesDocument);
}

RoutesDocument routesDocumentOf(std::string_view text, const std::filesystem::path& name) {
  return recordOf(text, name, parseRoutesDocument);
}

EditScript readEditScript(const std::filesystem::path& path) {
  return readRecord(path, parseEditScript);
}

}  // namespace vellum
