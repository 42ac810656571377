# Builds documents of the source tree into TARGET: defines `std::span<const EmbeddedDocument> FUNCTION()`, declared in
# VellumApp/EmbeddedDocuments.hpp, with the name (file name without extension) and the text of each FILE, in order.
function(vellum_embed_documents target function)
  set(entries "")
  foreach(file IN LISTS ARGN)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
    cmake_path(GET file STEM LAST_ONLY name)
    file(READ "${file}" text)
    string(APPEND entries "    {\"${name}\", R\"document(${text})document\"},\n")
  endforeach()
  set(source "${CMAKE_CURRENT_BINARY_DIR}/${function}.cpp")
  file(CONFIGURE OUTPUT "${source}" @ONLY CONTENT [[
#include "VellumApp/EmbeddedDocuments.hpp"

namespace vellum {

std::span<const EmbeddedDocument> @function@() {
  static constexpr EmbeddedDocument documents[] = {
@entries@  };
  return documents;
}

}  // namespace vellum
]])
  target_sources(${target} PRIVATE "${source}")
endfunction()
