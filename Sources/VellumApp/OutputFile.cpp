#include "VellumApp/OutputFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <random>
#include <string>
#include <system_error>

namespace vellum {
namespace {

using Path = std::filesystem::path;

FileError writeError(int error) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
      return FileError("it cannot be written: there is no space left");
    case EACCES:
    case EPERM:
      return FileError("no permission to write it");
    case ENOENT:
    case ENOTDIR:
      return FileError("its folder does not exist");
    default:
      return FileError("it cannot be written: " + systemErrorText(error));
  }
}

// "1.2 GB".
std::string sizeText(double bytes) {
  constexpr std::array<const char*, 5> units = {" bytes", " kB", " MB", " GB", " TB"};
  std::size_t unit = 0;
  for (; bytes >= 1000 && unit + 1 < units.size(); ++unit) bytes /= 1000;
  const auto tenths = static_cast<std::int64_t>(bytes * 10);
  std::string text = std::to_string(tenths / 10);
  if (unit > 0 && tenths < 1000) text += "." + std::to_string(tenths % 10);
  return text + units[unit];
}

Path followLinks(Path path) {
  constexpr int mostHops = 40;
  std::error_code error;
  for (int hops = 0; std::filesystem::is_symlink(path, error); ++hops) {
    if (hops == mostHops) throw writeError(ELOOP);
    path = path.parent_path() / std::filesystem::read_symlink(path);  // an absolute one replaces the folder
  }
  return path;
}

std::optional<struct stat> statusOf(const Path& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) return {};
  return status;
}

bool isSameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

Path temporaryNameBeside(const Path& target) {
  std::random_device random;
  std::string name = ".vellum-";
  for (int k = 0; k < 16; ++k) name += "0123456789abcdef"[random() % 16];
  return target.parent_path() / name;
}

Path folderOf(const Path& path) {
  return path.has_parent_path() ? path.parent_path() : Path(".");
}

// So that the new name survives a power cut. Not every file system can; the file itself is safe by then.
void syncFolderOf(const Path& path) {
  const Descriptor directory(::open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory) ::fsync(directory.get());
}

// Gives the file its name if nothing has that name. False, with errno set, if something has, or on an error.
bool renameWithoutReplacing(const Path& from, const Path& to) {
  if (::link(from.c_str(), to.c_str()) == 0) {
    ::unlink(from.c_str());
    return true;
  }
  if (errno == EEXIST) return false;
  // A file system without hard links: look first, as near as one can.
  struct stat status;
  if (::lstat(to.c_str(), &status) == 0) {
    errno = EEXIST;
    return false;
  }
  return ::rename(from.c_str(), to.c_str()) == 0;
}

// Where this process finds a file that has no name.
Path pathOfDescriptor(const Descriptor& file) {
  return "/proc/self/fd/" + std::to_string(file.get());
}

bool giveName(const Path& nameless, const Path& name) {
  return ::linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

}  // namespace

OutputFile::OutputFile(const Settings& settings)
    : target_(followLinks(settings.path)), replacesExisting_(settings.replacesExisting) {
  const std::optional<struct stat> existing = statusOf(target_);
  if (existing) {
    if (S_ISDIR(existing->st_mode)) throw FileError("it is a directory");
    if (!S_ISREG(existing->st_mode)) throw FileError("it is not a regular file");
    for (const Path& input : settings.inputs)
      if (const auto status = statusOf(input); status && isSameFile(*status, *existing))
        throw FileError("it is one of the files that are read");
    if (!replacesExisting_) throw FileExistsError();
    if (::access(target_.c_str(), W_OK) != 0) throw writeError(errno);
  }

  openTemporary();
  if (existing) ::fchmod(file_.get(), existing->st_mode & 07777);
}

OutputFile::~OutputFile() {
  if (hasName_) ::unlink(temporary_.c_str());
}

void OutputFile::openTemporary() {
  const Path folder = folderOf(target_);
  file_ = Descriptor(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666));
  if (file_) {
    temporary_ = pathOfDescriptor(file_);
    struct stat status;
    if (::stat(temporary_.c_str(), &status) == 0) return;
  }
  temporary_ = temporaryNameBeside(target_);
  file_ = Descriptor(::open(temporary_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (!file_) throw writeError(errno);
  hasName_ = true;
}

void OutputFile::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file_.get(), bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throw writeError(errno);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

void OutputFile::writeAt(std::int64_t position, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::pwrite(file_.get(), bytes.data(), bytes.size(), position);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throw writeError(errno);
    bytes.remove_prefix(static_cast<std::size_t>(written));
    position += written;
  }
}

void OutputFile::requireSpace(std::int64_t bytes) const {
  struct statvfs status;
  if (::fstatvfs(file_.get(), &status) != 0 || status.f_blocks == 0) return;  // it does not tell
  const double free = static_cast<double>(status.f_bavail) * static_cast<double>(status.f_frsize);
  if (static_cast<double>(bytes) > free)
    throw FileError("there is too little space for it: it needs " + sizeText(static_cast<double>(bytes)) +
                    ", and " + sizeText(free) + " are free");
}

void OutputFile::commit() {
  if (::fsync(file_.get()) != 0) throw writeError(errno);
  renameTemporary();
  file_.close();
  syncFolderOf(target_);
}

void OutputFile::renameTemporary() {
  bool isDone = false;
  if (!hasName_ && !replacesExisting_) {
    isDone = giveName(temporary_, target_);
  } else {
    if (!hasName_) {
      // Only a rename replaces a file, and it needs a name to start from.
      const Path name = temporaryNameBeside(target_);
      if (!giveName(temporary_, name)) throw writeError(errno);
      temporary_ = name;
      hasName_ = true;
    }
    isDone = replacesExisting_ ? ::rename(temporary_.c_str(), target_.c_str()) == 0
                               : renameWithoutReplacing(temporary_, target_);
  }
  if (!isDone) {
    if (errno == EEXIST) throw FileExistsError();
    throw writeError(errno);
  }
  hasName_ = false;
}

}  // namespace vellum
