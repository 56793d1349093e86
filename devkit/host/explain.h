#pragma once

#include <iosfwd>
#include <string>

namespace desk {

struct ExplainOptions {
  /// A code, a log line's id or a unit; empty: a log is read from standard input.
  std::string subject;
  /// One JSON object a line instead of words.
  bool json = false;
};

/// Prints what is known of the subject, or passes the log on with cause and remedy after each line of the module's.
/// False when nothing is known.
bool ExplainTo(std::ostream& out, const ExplainOptions& options);

}  // namespace desk
