#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace vellum::Json {

// What is wrong with a document. Thrown by whatever reads one, and by nothing else.
class DocumentError : public std::runtime_error {
 public:
  enum class Kind {
    keyNotFound,    // a member that has to be there is not
    typeMismatch,   // a value of another type, or an enumeration object without exactly one key
    dataCorrupted,  // no JSON, a number that does not fit, a text that names nothing
  };

  // path: of the member, "customTargets[0].treatment"; empty for the document as a whole
  DocumentError(Kind kind, std::string path, std::string description)
      : std::runtime_error(path.empty() ? description : path + ": " + description),
        kind_(kind),
        path_(std::move(path)),
        description_(std::move(description)) {}

  Kind kind() const { return kind_; }
  const std::string& path() const { return path_; }
  const std::string& description() const { return description_; }

 private:
  Kind kind_;
  std::string path_, description_;
};

}  // namespace vellum::Json
