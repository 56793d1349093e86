#pragma once

#include <json/value.h>

#include <map>
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
///   @N, @N+    only the N-th call of the operation, or every call from the N-th on; else every call
class Faults {
 public:
  /// Throws `std::invalid_argument`, saying what is wrong, when `text` is no fault.
  void Add(const std::string& text);
  void Clear();

  /// Counts one call of `operation` and gives the result that the first matching fault has for it.
  std::optional<Json::Value> Take(const std::string& operation);

  /// Names of the first thousand operations that met a fault, in order.
  std::vector<std::string> Met() const;

  /// The faults that no call has met yet, as they were written.
  std::vector<std::string> Unmet() const;

 private:
  struct Fault {
    std::string text;
    std::string operation;
    Json::Value result;
    unsigned first;
    unsigned last;
    bool met = false;
  };

  mutable std::mutex mutex_;
  std::vector<Fault> faults_;
  std::map<std::string, unsigned> calls_;
  std::vector<std::string> met_;
};

/// The results of faults written as `throw` and `fail`.
constexpr char kThrow[] = "throw";
constexpr char kFail[] = "fail";

}  // namespace desk
