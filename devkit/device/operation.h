#pragma once

#include <json/value.h>

#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "devkit/device/device.h"

namespace desk {

/// Number, method and beginning of the web-API call that this thread is serving; 0 outside a call.
extern thread_local unsigned current_call;
extern thread_local std::string current_method;
extern thread_local std::chrono::steady_clock::time_point current_begin;

/// A line of the trace in the making.
class Line {
 public:
  /// Begins the line together with the operation.
  Line(const std::string& operation, Json::Value args);
  /// Sets another member, whose name stays where it is as long as the program runs.
  Json::Value& operator[](const char* member) { return line_[Json::StaticString(member)]; }
  const Json::Value& Value() const { return line_; }
  /// Leaves the line, which says how long the operation took, in the trace.
  void Record();

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  Json::Value line_;
};

/// While it lives, operations of this thread leave no line and meet no fault: the stand-in asks itself.
class Unrecorded {
 public:
  Unrecorded();
  ~Unrecorded();
  Unrecorded(const Unrecorded&) = delete;
  Unrecorded& operator=(const Unrecorded&) = delete;
};

/// Whether `operation` makes an object, as in "Request::Request".
bool IsConstructor(const std::string& operation);

/// One call of a platform operation: looks up its fault, does the work, and leaves a line in the trace.
class Operation {
 public:
  explicit Operation(std::string name, Json::Value args = Json::arrayValue);
  ~Operation();
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  /// Names an output: a fault can replace it, and the trace shows it as it stands in the end.
  template <typename Value>
  Operation& Output(const char* name, Value& value) {
    outputs_.push_back({name, [&value] { return Json::Value(value); },
                        [&value](const Json::Value& fault) { value = As<Value>(fault); }});
    return *this;
  }

  /// Does `work` unless the fault takes its place, and gives the operation's result. An operation fails by a file
  /// that cannot be read.
  template <typename Work>
  auto Run(Work work) {
    using Result = decltype(work());
    if (!fault_) return Keep(Try(work));
    if (*fault_ == kThrow || (*fault_ == kFail && IsConstructor(name_))) {
      throw std::runtime_error("fault injected into " + name_);
    }
    if (*fault_ == kFail) return Keep(Failure<Result>());
    if (!fault_->isObject()) return Keep(As<Result>(*fault_));
    Result result = Try(work);
    ReplaceOutputs();
    if (fault_->isMember("result")) result = As<Result>((*fault_)["result"]);
    return Keep(std::move(result));
  }

 private:
  struct Slot {
    const char* name;
    std::function<Json::Value()> get;
    std::function<void(const Json::Value&)> set;
  };

  template <typename Result>
  static Result Failure() {
    if constexpr (std::is_enum_v<Result>) {
      return static_cast<Result>(1);
    } else if constexpr (std::is_same_v<Result, int>) {
      return -1;
    } else {
      return Result();
    }
  }

  template <typename Result>
  static Result As(const Json::Value& value) {
    if constexpr (std::is_enum_v<Result>) {
      return static_cast<Result>(value.asInt());
    } else if constexpr (std::is_same_v<Result, Json::Value>) {
      return value;
    } else {
      return value.as<Result>();
    }
  }

  template <typename Result>
  Result Keep(Result result) {
    if (line_) result_.emplace(result);
    return result;
  }

  template <typename Work>
  auto Try(Work work) -> decltype(work()) {
    try {
      return work();
    } catch (const FileError& problem) {
      if (line_) (*line_)["problem"] = problem.what();
      return Failure<decltype(work())>();
    }
  }

  void ReplaceOutputs();

  std::string name_;
  /// None when the operation leaves none.
  std::optional<Line> line_;
  std::optional<Json::Value> fault_;
  std::optional<Json::Value> result_;
  std::vector<Slot> outputs_;
};

/// An operation that gives `value` and does nothing else.
template <typename Value>
Value Give(const char* name, const Value& value) {
  return Operation(name).Run([&] { return value; });
}

/// A constructor, which does its `work` as an operation.
template <typename Work>
void Construct(const char* name, const Json::Value& args, Work work) {
  Operation(name, args).Run([&] {
    work();
    return true;
  });
}

}  // namespace desk
