#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>

#include "VellumApp/Descriptor.hpp"
#include "VellumApp/FileError.hpp"

namespace vellum {

// There is a file at the place, and it is not to be replaced.
class FileExistsError : public FileError {
 public:
  FileExistsError() : FileError("there is such a file already") {}
};

// Does what concerns a file, and puts its name before what goes wrong with it.
template <typename Action>
auto naming(const std::filesystem::path& path, const Action& action) {
  try {
    return action();
  } catch (const NamedFileError&) {
    throw;
  } catch (const FileExistsError& error) {
    throw NamedFileError(path, error, true);
  } catch (const FileError& error) {
    throw NamedFileError(path, error);
  }
}

// A file that appears whole or not at all. It is written without a name, or where the file system cannot do
// that under another name in the same folder, and commit() gives it its own; without commit() nothing is left
// behind and an older file stays as it was. Without a name, nothing is left behind by a killed process
// either. A symbolic link is followed. A new file has the permissions that the user's mask gives, a replaced
// one keeps its own. Life: construct, (write | writeAt)*, commit once. Everything throws FileError.
class OutputFile {
 public:
  struct Settings {
    std::filesystem::path path;
    bool replacesExisting;                          // else a file at the place is FileExistsError
    std::span<const std::filesystem::path> inputs;  // the output may be none of these, by whatever name
  };
  explicit OutputFile(const Settings& settings);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void write(std::string_view bytes);
  // Over bytes that stand there already, or behind them; write() goes on where it was.
  void writeAt(std::int64_t position, std::string_view bytes);
  // An error if the file system has no room for a file of this size, none of which is written yet.
  void requireSpace(std::int64_t bytes) const;
  // Where the file can be read before commit(), in this process.
  const std::filesystem::path& temporaryPath() const { return temporary_; }
  // Waits until the storage has it all. A file that came to the place meanwhile counts as one that was there.
  void commit();

 private:
  void openTemporary();
  void renameTemporary();

  std::filesystem::path target_;
  std::filesystem::path temporary_;
  bool hasName_ = false;  // `temporary_` stands in the folder, and not only in this process
  bool replacesExisting_;
  Descriptor file_;
};

}  // namespace vellum
