#pragma once

#include <syslog.h>

/// A source unit as it names itself in the system log. Support finds a failure by unit and line number, so
/// the number belongs to the message and outlives every edit of the source: it is given, never `__LINE__`.
///
/// Every `format` begins with "%s:%d " for the two; the rest takes `args`, which are C strings and ints.
struct LogUnit {
  const char* name;

  template <typename... Args>
  void Log(int priority, int line, const char* format, Args... args) const {
    syslog(priority, format, name, line, args...);
  }

  /// Logs an error and returns `result`, so that a failing step reads as one line.
  template <typename Result, typename... Args>
  Result Fail(Result result, int line, const char* format, Args... args) const {
    Log(LOG_ERR, line, format, args...);
    return result;
  }
};
