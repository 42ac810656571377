#include "vellum/InputFiles.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <system_error>

namespace vellum {
namespace {

namespace fs = std::filesystem;

bool hasAudioExtension(const fs::path& path) {
  constexpr std::array<std::string_view, 15> extensions = {".wav", ".wave", ".bwf",  ".rf64", ".w64",
                                                           ".aif", ".aiff", ".aifc", ".caf",  ".flac",
                                                           ".ogg", ".oga",  ".opus", ".mp3",  ".mp2"};
  std::string extension = path.extension().string();
  for (char& c : extension)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return std::find(extensions.begin(), extensions.end(), extension) != extensions.end();
}

void walk(const fs::path& folder, std::vector<InputFile>& files) {
  std::error_code error;
  std::vector<fs::directory_entry> entries;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
    entries.push_back(*entry);
  if (error) {
    files.push_back({folder, "the folder cannot be read: " + error.message()});
    return;
  }
  std::sort(entries.begin(), entries.end());
  for (const fs::directory_entry& entry : entries) {
    if (entry.path().filename().string().front() == '.') continue;
    std::error_code ignored;  // what cannot be looked at is no folder; opening it will tell
    if (fs::is_directory(entry.symlink_status(ignored)))
      walk(entry.path(), files);
    else if (hasAudioExtension(entry.path()) && !fs::is_directory(entry.status(ignored)))
      files.push_back({entry.path(), {}});
  }
}

}  // namespace

std::vector<InputFile> findInputFiles(const std::vector<std::string>& arguments, bool recursive) {
  std::vector<InputFile> files;
  for (const std::string& argument : arguments) {
    std::error_code ignored;
    if (!fs::is_directory(argument, ignored)) {
      files.push_back({argument, {}});
    } else if (!recursive) {
      files.push_back({argument, "it is a directory (--recursive measures the audio files in it)"});
    } else {
      const std::size_t before = files.size();
      walk(argument, files);
      if (files.size() == before) files.push_back({argument, "there are no audio files in this directory"});
    }
  }
  return files;
}

}  // namespace vellum
