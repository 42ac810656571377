#include "VellumApp/RegularFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace vellum {

Descriptor openRegularFile(const std::filesystem::path& path) {
  Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));  // a pipe would block
  if (!file) {
    switch (errno) {
      case ENOENT:
      case ENOTDIR:
        throw FileError("there is no such file");
      case EACCES:
        throw FileError("no permission to read it");
      default:
        throw FileError("it cannot be opened: " + systemErrorText(errno));
    }
  }
  struct stat status;
  if (::fstat(file.get(), &status) != 0) throw FileError("it cannot be opened: " + systemErrorText(errno));
  if (S_ISDIR(status.st_mode)) throw FileError("it is a directory");
  if (!S_ISREG(status.st_mode)) throw FileError("it is not a regular file");
  return file;
}

}  // namespace vellum
