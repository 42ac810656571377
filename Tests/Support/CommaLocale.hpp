#pragma once

#include <clocale>
#include <cstdlib>
#include <locale>
#include <optional>
#include <string>

#include "Support/TemporaryFolder.hpp"

namespace vellum::test {

// While it lives, the process writes numbers as Germans do: 0,5. Of the system's locales, or of one made here
// by localedef. isSet() is false where neither can be had.
class CommaLocale {
 public:
  CommaLocale() {
    for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "fr_FR.utf8"})
      if (!isSet_) isSet_ = std::setlocale(LC_ALL, name) != nullptr;
    if (isSet_) return;
    const std::string made = (folder_ / "comma").string();
    if (std::system(("localedef -i de_DE -f UTF-8 " + made + " > /dev/null 2>&1").c_str()) != 0) return;
    ::setenv("LOCPATH", folder_.path().c_str(), 1);
    isSet_ = std::setlocale(LC_ALL, "comma") != nullptr;
    ::unsetenv("LOCPATH");
  }
  ~CommaLocale() {
    std::setlocale(LC_ALL, "C");
    std::locale::global(streamLocale_);
  }
  CommaLocale(const CommaLocale&) = delete;
  CommaLocale& operator=(const CommaLocale&) = delete;

  bool isSet() const { return isSet_ && std::string(std::localeconv()->decimal_point) == ","; }

 private:
  struct CommaAndGroups : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };

  TemporaryFolder folder_;
  // Streams have a locale of their own.
  std::locale streamLocale_ = std::locale::global(std::locale(std::locale::classic(), new CommaAndGroups));
  bool isSet_ = false;
};

}  // namespace vellum::test
