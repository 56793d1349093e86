#pragma once

#include <string>
#include <vector>

namespace desk {

/// One file of the console, which is part of the program.
struct PageFile {
  std::string path;
  std::string type;
  std::string text;
};

const std::vector<PageFile>& Page();

/// Nothing comes from elsewhere, and nothing runs that is not a file of the console.
constexpr char kPagePolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

}  // namespace desk
