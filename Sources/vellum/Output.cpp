#include "vellum/Output.hpp"

#include "vellum/Console.hpp"

namespace vellum {
namespace {

// Does what the file is to do, and puts its path before what goes wrong with it.
template <typename Action>
void naming(const std::string& path, const Action& action) {
  try {
    action();
  } catch (const FileExistsError& error) {
    throw FileError(path + ": " + error.what() + "; --force replaces it");
  } catch (const FileError& error) {
    throw FileError(path + ": " + error.what());
  }
}

}  // namespace

Output::Output(const std::string& path, bool replacesExisting, std::span<const std::filesystem::path> inputs)
    : path_(path) {
  if (!path.empty())
    naming(path_, [&] { file_.emplace(OutputFile::Settings{path, replacesExisting, inputs}); });
}

void Output::write(std::string_view text) {
  if (file_)
    naming(path_, [&] { file_->write(text); });
  else
    Console::writeOutput(text);
}

void Output::commit() {
  if (file_) naming(path_, [&] { file_->commit(); });
}

}  // namespace vellum
