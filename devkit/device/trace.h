#pragma once

#include <json/value.h>

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace desk {

/// What the module asked of the device, in order: one JSON object per operation with "call" (number of the
/// web-API call), "op", "args", and "result" or "thrown". Secrets are replaced by "(hidden)".
class Trace {
 public:
  /// Takes the lines of one call, as they stand in a file, and its log lines.
  using Sink = std::function<void(const std::string& lines, const std::vector<std::string>& log)>;

  /// Adds one line.
  void Record(Json::Value line);

  /// True for the name of a parameter or member that holds a secret.
  static bool IsSecret(const std::string& name);

  /// Hides the texts of all members of `value` that hold secrets in all lines from now on, wherever they
  /// stand. Shorter ones than six bytes are hidden only under their names.
  void HideMembers(const Json::Value& value);

  std::vector<Json::Value> Lines() const;
  void Clear();

  /// Ends this thread's call, which wrote `log`, by handing its lines to the sink.
  void EndCall(const std::vector<std::string>& log);

  /// Hands lines to `sink`, once for each call, instead of keeping them.
  void SetSink(Sink sink);

 private:
  void Hide(const std::string& text);
  Json::Value Clean(const Json::Value& value) const;
  std::string Clean(const std::string& text) const;

  mutable std::mutex mutex_;
  std::vector<Json::Value> lines_;
  std::deque<std::string> secrets_;
  Sink sink_;
};

/// Takes this thread's log lines too, without secrets; null: nobody does.
extern thread_local std::vector<std::string>* call_log;

/// A value as one line of JSON.
std::string ToLine(const Json::Value& value);

}  // namespace desk
