#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

// Recorded speech and music, from Debian's packages. A package that is missing is a failure that names it.
namespace vellum::test {

inline std::vector<std::string> filesIn(const std::filesystem::path& folder, const std::string& extension,
                                        const std::string& package) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error))
    if (entry.path().extension() == extension) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  EXPECT_FALSE(files.empty()) << "the Debian package " << package << " is not installed: nothing in "
                              << folder;
  return files;
}

// Spoken prompts, 8 kHz, one channel: words and sentences of one voice, 24 minutes together.
inline std::vector<std::string> promptFiles() {
  const std::filesystem::path folder = "/usr/share/asterisk/sounds/en_US_f_Allison";
  std::vector<std::string> files;
  for (const std::string part : {"", "dictate", "digits", "followme", "letters", "phonetic"})
    for (std::string& file : filesIn(folder / part, ".wav", "asterisk-core-sounds-en-wav"))
      files.push_back(std::move(file));
  return files;
}

// Sentences from audio books, 16 kHz, one channel.
inline std::vector<std::string> speechFiles() {
  return filesIn("/usr/share/pocketsphinx/test/data/librivox", ".wav", "pocketsphinx-testdata");
}

// Loops and single sounds at 44.1 kHz: those that the package's copyright file lists as CC0.
inline std::vector<std::string> freeMusicFiles() {
  std::ifstream copyright("/usr/share/doc/sonic-pi-samples/copyright");
  const std::filesystem::path folder = "/usr/share/sonic-pi/samples";
  std::vector<std::string> files;
  std::string file;
  for (std::string line; std::getline(copyright, line);) {
    constexpr std::string_view filesField = "Files: etc/samples/";
    if (line.starts_with(filesField)) file = line.substr(filesField.size());
    if (line == "License: CC0" && !file.empty() && std::filesystem::exists(folder / file))
      files.push_back(folder / file);
    if (line.empty()) file.clear();
  }
  EXPECT_FALSE(files.empty()) << "the Debian package sonic-pi-samples is not installed";
  return files;
}

}  // namespace vellum::test
