#pragma once

#include <string>

namespace desk {

/// Result of one HTTP exchange.
struct Transfer {
  /// libcurl's own result number, 0 for success.
  int result = 0;
  /// HTTP status, 0 when none arrived.
  int status = 0;
  std::string answer;
};

/// Posts JSON text. Every host below "vexa.example" is the desk's control server on the loopback address; any
/// other host does not resolve, so that nothing leaves the machine. Time limits are the device's, redirects
/// are not followed, an answer over 1 MiB is refused.
Transfer Post(const std::string& url, const std::string& text);

/// Whether the control server answers at all. Leaves no trace.
bool IsControlServerUp();

}  // namespace desk
