#pragma once

#include <filesystem>

namespace desk {

struct CheckOptions {
  std::filesystem::path module;
  /// One JSON object a line instead of words for people.
  bool json = false;
  /// Where the parameters of the calls come from; the same seed makes the same calls.
  unsigned seed = 0;
  /// What loading the module, and each of its calls, may take.
  int limit_seconds = 10;
};

/// Holds a module binary against the handler contract and prints one line per check on standard output.
/// True when all hold. Throws `ModuleError` when the module cannot be loaded.
/// The module is loaded and called in child processes only, each with a new desk device in a temporary folder
/// and no control server; so the calling process must have no threads.
bool CheckModule(const CheckOptions& options);

}  // namespace desk
