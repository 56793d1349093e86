#pragma once

#include <json/value.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace desk {

/// What shall fail, and when. One fault is written OPERATION=RESULT[@N[+]]:
///   OPERATION  a name that the trace shows, for example VLIBServiceStart or rename
///   RESULT     JSON: the result to give in place of doing the work; as an object, outputs to replace by name
///              after the work, "result" among them. For file functions the name of an error (ENOSPC).
///              `throw`: leave the operation with an exception.
///   @N, @N+    only the N-th call of the operation, or every call from the N-th on; else every call
class Faults {
 public:
  /// Throws `std::invalid_argument`, saying what is wrong, when `text` is no fault.
  void Add(const std::string& text);
  void Clear();

  /// Counts one call of `operation` and gives the result that the first matching fault has for it.
  std::optional<Json::Value> Take(const std::string& operation);

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
};

/// The result of a fault written as `throw`.
constexpr char kThrow[] = "throw";

}  // namespace desk
