#pragma once

#include <filesystem>

#include "VellumApp/Descriptor.hpp"
#include "VellumApp/FileError.hpp"

namespace vellum {

// A regular file, open for reading. Throws FileError: there is none, it may not be read, it is a directory, a
// pipe or a device.
Descriptor openRegularFile(const std::filesystem::path& path);

}  // namespace vellum
