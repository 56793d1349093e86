#pragma once

#include <string>

namespace desk {

/// A service as "desk/services.json" has it.
struct Service {
  bool enabled = false;
  bool running = false;
  /// It runs, but its start-up time has not passed.
  bool starting = false;
};

/// A service that the file does not list is neither enabled nor running.
Service FindService(const std::string& name);

}  // namespace desk
