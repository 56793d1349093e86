#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "devkit/device/device.h"

namespace desk {

/// Hands a device's trace to its file and the module's log lines to standard error. A file that would grow beyond
/// 16 MiB is renamed to FILE.1 first, in place of an earlier one.
class TraceWriter {
 public:
  /// `file`: - for standard error, empty for none. Throws `std::runtime_error` when it cannot be written.
  TraceWriter(Device& device, const std::string& file);
  ~TraceWriter();
  TraceWriter(const TraceWriter&) = delete;
  TraceWriter& operator=(const TraceWriter&) = delete;

 private:
  void Write(const std::vector<std::string>& lines);
  /// False when the file is full and nothing can take its place.
  bool MakeRoom(size_t bytes);

  Device& device_;
  std::string path_;
  int file_ = -1;
  bool failed_ = false;
};

/// Prints a trace for people: each call with its operations below it. Says on standard error which lines are none.
/// False when no line is one.
bool PrintTrace(std::istream& trace, std::ostream& out);

/// Prints it as one JSON document in the trace-event format, a thread for each call.
bool PrintTraceEvents(std::istream& trace, std::ostream& out);

}  // namespace desk
