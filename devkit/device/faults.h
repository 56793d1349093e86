#pragma once

#include <json/value.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace desk {

/// What shall fail, and when. One fault is written OPERATION=RESULT[@N[+]]:
///   OPERATION  a name that the trace shows, for example VLIBServiceStart or rename, or one of read, write and
///              writev, which it shows only when they fail; * counts all but the answers as one
///   RESULT     JSON: the result to give in place of doing the work; as an object, outputs to replace by name
///              after the work, "result" among them. For file functions the name of an error (ENOSPC).
///              `throw`: leave the operation with an exception, but for file functions. `fail`: what a failure
///              of it gives, which is false, -1, no text, EIO, or an exception where something is made.
///   @N, @N+    only the N-th call of the operation since the fault was added, or every call from the N-th on;
///              else every call
class Faults {
 public:
  /// What a call of an operation gives in place of its own result, and the fault as it was written.
  struct Injection {
    Json::Value result;
    std::string fault;
  };

  /// Adds a fault and gives its number. Throws `std::invalid_argument`, saying what is wrong, when `text` is none.
  unsigned Add(const std::string& text);
  /// False when there is no fault of this number.
  bool Remove(unsigned id);
  void Clear();

  /// Counts one call of `operation` and gives what the first matching fault has for it.
  std::optional<Injection> Take(const std::string& operation);

  /// The faults in order, as an array of objects: "id", "fault" as it was written, "met", the number of calls.
  Json::Value List() const;

  /// The faults that no call has met yet, as they were written.
  std::vector<std::string> Unmet() const;

 private:
  struct Fault {
    std::string text;
    std::string operation;
    Json::Value result;
    unsigned first;
    unsigned last;
    unsigned id = 0;
    unsigned calls = 0;
    unsigned met = 0;
  };

  static Fault Parse(const std::string& text);

  mutable std::mutex mutex_;
  std::vector<Fault> faults_;
  unsigned last_id_ = 0;
};

/// The operation and the results of faults written as `*`, `throw` and `fail`.
constexpr char kAnyOperation[] = "*";
constexpr char kThrow[] = "throw";
constexpr char kFail[] = "fail";

}  // namespace desk
