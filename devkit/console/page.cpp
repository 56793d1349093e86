#include "devkit/console/page.h"

namespace desk {

const std::vector<PageFile>& Page() {
  static const std::vector<PageFile> files = {
#include "console.inc"
  };
  return files;
}

}  // namespace desk
