#include "VellumApp/DocumentFile.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <limits>
#include <string>

#include "Support/TemporaryFolder.hpp"
#include "VellumCore/Json/Document.hpp"

namespace vellum {
namespace {

namespace fs = std::filesystem;
using test::TemporaryFolder;

// The error's text without the path that it begins with.
template <typename Error, typename Action>
std::string errorOf(const fs::path& path, const Action& action) {
  try {
    action(path);
  } catch (const Error& error) {
    const std::string text = error.what(), start = path.string() + ": ";
    EXPECT_EQ(text.substr(0, start.size()), start);
    return text.substr(start.size());
  }
  return "no error";
}

std::string readingError(const fs::path& path) {
  return errorOf<NamedFileError>(path, [](const fs::path& file) { readDocument(file); });
}

std::string contentError(const TemporaryFolder& folder, std::string_view text) {
  test::writeBytes(folder / "my.json", text);
  return errorOf<FaultyDocument>(folder / "my.json", [](const fs::path& file) { readTargetSelection(file); });
}

TEST(DocumentFile, TheBytesAreReadAsTheyAre) {
  const TemporaryFolder folder;
  std::string bytes(200'000, '\0');
  for (std::size_t k = 0; k < bytes.size(); ++k) bytes[k] = static_cast<char>(k % 251);
  test::writeBytes(folder / "x", bytes);
  EXPECT_EQ(readDocument(folder / "x"), bytes);
  test::writeBytes(folder / "empty", "");
  EXPECT_EQ(readDocument(folder / "empty"), "");
}

TEST(DocumentFile, WhatIsNoFileIsAnErrorThatNamesIt) {
  const TemporaryFolder folder;
  test::writeBytes(folder / "file", "{}");
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  fs::create_symlink(folder / "nowhere", folder / "link");
  EXPECT_EQ(readingError(folder / "missing"), "there is no such file");
  EXPECT_EQ(readingError(folder / "link"), "there is no such file");
  EXPECT_EQ(readingError(folder / "file" / "below"), "there is no such file");
  EXPECT_EQ(readingError(folder.path()), "it is a directory");
  EXPECT_EQ(readingError(folder / "pipe"), "it is not a regular file");  // and nobody waits for a writer
  EXPECT_EQ(readingError("/dev/zero"), "it is not a regular file");
}

TEST(DocumentFile, AFileThatMayNotBeReadIsAnError) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may read everything";
  const TemporaryFolder folder;
  test::writeBytes(folder / "x", "{}");
  fs::permissions(folder / "x", fs::perms::none);
  EXPECT_EQ(readingError(folder / "x"), "no permission to read it");
}

TEST(DocumentFile, OnlyFilesAboveTheDocumentLimitAreRefused) {
  const TemporaryFolder folder;
  test::writeBytes(folder / "x", "");
  fs::resize_file(folder / "x", Json::mostDocumentBytes);  // a hole: takes no space
  EXPECT_EQ(readDocument(folder / "x").size(), Json::mostDocumentBytes);
  fs::resize_file(folder / "x", Json::mostDocumentBytes + 1);
  EXPECT_EQ(readingError(folder / "x"), "it is larger than 64 MiB");
}

TEST(DocumentFile, AWrittenSelectionReadsBackEqual) {
  const TemporaryFolder folder;
  LoudnessTargetSelection selection = LoudnessTargetSelection::defaultValue();
  selection.mode = LoudnessTargetMode::broadcast;
  selection.selectedTargetIDsByMode[LoudnessTargetMode::vod] = {};
  selection.customTargets = {{"custom.short",
                              "Short \"forms\"\n",
                              LoudnessTargetMode::broadcast,
                              LoudnessSource::integrated,
                              {LoudnessTreatment::Compliance{-23, 0.2f, -1}},
                              {{ExtraCriterion::MaxShortTerm{-18}}, {ExtraCriterion::NoiseFloor{-60.1f}}}}};
  test::writeBytes(folder / "my.json", targetSelectionText(selection));
  EXPECT_EQ(readTargetSelection(folder / "my.json"), selection);
  EXPECT_EQ(targetSelectionText(selection).back(), '\n');
}

TEST(DocumentFile, AFaultyDocumentIsAnErrorThatNamesFileAndPlace) {
  const TemporaryFolder folder;
  EXPECT_EQ(contentError(folder, R"({"selectedTargetIDsByMode": []})"),
            "mode: the member \"mode\" is missing");
  EXPECT_EQ(contentError(folder, R"({"mode": "music", "selectedTargetIDsByMode": {}})"),
            "selectedTargetIDsByMode: expected an array, found an object");
  EXPECT_EQ(contentError(folder, "{\n\"mode\": x}").substr(0, 20), "line 2, column 9: sy");
  EXPECT_EQ(contentError(folder, "").substr(0, 18), "line 1, column 1: ");
}

TEST(DocumentFile, AFileThatCannotBeReadIsNoFaultyDocument) {
  const TemporaryFolder folder;
  const auto read = [](const fs::path& file) { readTargetSelection(file); };
  try {
    read(folder / "missing");
    FAIL();
  } catch (const FaultyDocument&) {
    FAIL();
  } catch (const NamedFileError& error) {
    EXPECT_EQ(error.what(), (folder / "missing").string() + ": there is no such file");
  }
}

}  // namespace
}  // namespace vellum
