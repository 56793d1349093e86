#pragma once

#include <json/value.h>
#include <platform/webapi.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace desk {

/// A module that cannot be loaded or hands out no table; says why.
class ModuleError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The library of a module in this process. What it was given stays valid as long as the object lives.
class Library {
 public:
  /// Loads `file`. Throws `ModuleError`, naming it, when that fails or it has no function GetAPITable.
  explicit Library(const std::filesystem::path& file);

  /// What GetAPITable gives, which is asked anew.
  const APITableEntry* Table() const { return entry_(); }

 private:
  std::unique_ptr<void, int (*)(void*)> library_;
  const APITableEntry* (*entry_)();
};

/// A table without an end row shall not be read for ever.
constexpr size_t kMostRows = 1000;

/// A web-API module in this process. What it was given stays valid as long as the object lives.
class Module {
 public:
  /// Loads `file`. Throws `ModuleError`.
  explicit Module(const std::filesystem::path& file);

  /// The rows of the method table, without its end row.
  const std::vector<APITableEntry>& Rows() const { return rows_; }

  /// The handler of the method API/VERSION/METHOD; null when the table has no such row.
  APIHandler Find(const std::string& method) const;

 private:
  Library library_;
  std::vector<APITableEntry> rows_;
};

/// The name of a row's method, API/VERSION/METHOD; a broken row may have no method.
std::string MethodName(const APITableEntry& row);

/// What a handler answered: success with a payload, or an error code with data.
struct Answer {
  bool success;
  int code;
  Json::Value data;
};

/// How one call went. A handler that keeps its contract gives one answer, or leaves with an exception.
struct Outcome {
  std::vector<Answer> answers;
  std::optional<std::string> thrown;
  /// Its number in the trace.
  unsigned number = 0;
  /// The lines that it wrote to the system log, without secrets.
  std::vector<std::string> log;

  /// What is wrong about it; empty when there is exactly one answer.
  std::string Problem() const;
};

/// Calls a handler for a caller who sent `params`, an object. The trace names `method`.
Outcome Call(APIHandler handler, const Json::Value& params, bool admin, const std::string& method = "");

}  // namespace desk
